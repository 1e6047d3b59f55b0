#include "formats/signal_quality.h"

#include "common/text.h"

namespace smsgw {

std::string signal_quality_file(std::string_view device) {
    size_t slash = device.rfind('/');
    std::string_view name = slash == std::string_view::npos ? device : device.substr(slash + 1);
    return "/var/run/txrx_signal." + std::string(name);
}

std::string encode_signal_quality(const SignalQuality& q) {
    return q.device + " " + std::to_string(q.rssi) + " " + std::to_string(q.ber) + " " +
           std::to_string(q.time) + "\n";
}

std::optional<SignalQuality> decode_signal_quality(std::string_view text) {
    if (text.empty() || text.back() != '\n') return std::nullopt;
    text.remove_suffix(1);
    auto fields = split_fields(text, " ", 5);
    if (fields.size() != 4 || fields[0].empty() || fields[0][0] != '/') return std::nullopt;
    auto rssi = parse_number(fields[1], 0, 99);
    auto ber = parse_number(fields[2], 0, 99);
    auto time = parse_number(fields[3], 0, 1LL << 40);
    if (!rssi || !ber || !time) return std::nullopt;
    return SignalQuality{std::string(fields[0]), static_cast<int>(*rssi), static_cast<int>(*ber),
                         *time};
}

std::optional<int> signal_dbm(int rssi) {
    if (rssi < 0 || rssi > 31) return std::nullopt;
    return -113 + 2 * rssi;
}

}  // namespace smsgw
