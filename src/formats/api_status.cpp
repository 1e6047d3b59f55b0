#include "formats/api_status.h"

#include "formats/bytes.h"

namespace smsgw {

namespace {
constexpr size_t kStatusAt = 4;
constexpr size_t kTimeAt = 8;
constexpr size_t kAddressAt = 52;
constexpr size_t kResultAt = 56;
}  // namespace

std::string encode_api_stat_record(const ApiStatRecord& record) {
    unsigned char b[ApiStatRecord::kSize] = {};
    put_i32(b, record.id);
    put_i16(b + kStatusAt, record.status);
    for (size_t i = 0; i < record.time.size(); ++i) put_i32(b + kTimeAt + 4 * i, record.time[i]);
    std::memcpy(b + kAddressAt, &record.peer_address, 4);
    put_i32(b + kResultAt, record.peer_result);
    return std::string(reinterpret_cast<const char*>(b), sizeof b);
}

std::optional<ApiStatRecord> decode_api_stat_record(std::string_view bytes) {
    if (bytes.size() < ApiStatRecord::kSize) return std::nullopt;
    const auto* b = reinterpret_cast<const unsigned char*>(bytes.data());
    ApiStatRecord record;
    record.id = get_i32(b);
    record.status = get_i16(b + kStatusAt);
    for (size_t i = 0; i < record.time.size(); ++i) record.time[i] = get_i32(b + kTimeAt + 4 * i);
    std::memcpy(&record.peer_address, b + kAddressAt, 4);
    record.peer_result = get_i32(b + kResultAt);
    return record;
}

long long api_stat_record_offset(int32_t first_id, int id) {
    const long long record = static_cast<long long>(ApiStatRecord::kSize);
    const long long d = static_cast<long long>(id) - first_id - 1;
    // The file is read up to the end of the first record, so "no move"
    // means the second record.
    long long pos = static_cast<long long>(ApiStatRecord::kHeaderSize) + record;
    if (d >= 1)
        pos += d * record;
    else if (d == -1)
        pos -= record;
    return pos;
}

}  // namespace smsgw
