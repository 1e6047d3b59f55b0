// The SMS statistics file "/var/config/sms_stats_file": six int32 counters
// in host byte order, 24 bytes. A counter is named by its byte offset.
//
//   bytes    counter
//   0-15     (kept for the web interface, not counted by the daemon)
//   16-19    triggers that led to an action
//   20-23    triggers received
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace smsgw {

struct SmsStats {
    static constexpr size_t kSize = 24;
    static constexpr size_t kCounters = kSize / 4;
    static constexpr long kTriggersActed = 16;
    static constexpr long kTriggersReceived = 20;

    std::array<int32_t, kCounters> counters{};
};

std::string encode_sms_stats(const SmsStats& stats);
// nullopt when fewer than 24 bytes are given.
std::optional<SmsStats> decode_sms_stats(std::string_view bytes);

// One counter word, for updating a counter in place.
std::string encode_sms_counter(int32_t value);
// nullopt unless exactly 4 bytes are given.
std::optional<int32_t> decode_sms_counter(std::string_view bytes);

}  // namespace smsgw
