#include "formats/sms_stats.h"

#include "formats/bytes.h"

namespace smsgw {

std::string encode_sms_stats(const SmsStats& stats) {
    std::string out;
    for (int32_t counter : stats.counters) append_i32(out, counter);
    return out;
}

std::optional<SmsStats> decode_sms_stats(std::string_view bytes) {
    if (bytes.size() < SmsStats::kSize) return std::nullopt;
    SmsStats stats;
    for (size_t i = 0; i < stats.counters.size(); ++i)
        stats.counters[i] = get_i32(reinterpret_cast<const unsigned char*>(bytes.data()) + 4 * i);
    return stats;
}

std::string encode_sms_counter(int32_t value) {
    std::string out;
    append_i32(out, value);
    return out;
}

std::optional<int32_t> decode_sms_counter(std::string_view bytes) {
    if (bytes.size() != 4) return std::nullopt;
    return get_i32(reinterpret_cast<const unsigned char*>(bytes.data()));
}

}  // namespace smsgw
