#include "formats/position_table.h"

#include "formats/bytes.h"

namespace smsgw {

namespace {
constexpr size_t kTotalAt = 4;
constexpr size_t kLengthsAt = 8;

size_t length_at(size_t file) {
    return kLengthsAt + 4 * file;
}
}  // namespace

std::string encode_position_table(const PositionTable& table) {
    unsigned char b[PositionTable::kSize] = {};
    const uint32_t word = (static_cast<uint32_t>(static_cast<uint16_t>(table.P_POS)) << 16) |
                          static_cast<uint16_t>(table.L_POS);
    put_i32(b, static_cast<int32_t>(word));
    put_i32(b + kTotalAt, table.TOTAL_SIZE);
    for (size_t i = 0; i < table.l_job_ln.size(); ++i) put_i32(b + length_at(i), table.l_job_ln[i]);
    return std::string(reinterpret_cast<const char*>(b), sizeof b);
}

std::optional<PositionTable> decode_position_table(std::string_view bytes) {
    if (bytes.size() < PositionTable::kSize) return std::nullopt;
    const auto* b = reinterpret_cast<const unsigned char*>(bytes.data());
    const auto word = static_cast<uint32_t>(get_i32(b));
    PositionTable table;
    table.P_POS = static_cast<int16_t>(word >> 16);
    table.L_POS = static_cast<int16_t>(word & 0xffffu);
    table.TOTAL_SIZE = get_i32(b + kTotalAt);
    for (size_t i = 0; i < table.l_job_ln.size(); ++i)
        table.l_job_ln[i] = get_i32(b + length_at(i));
    return table;
}

}  // namespace smsgw
