// The signal quality a transceiver last read from its modem, for
// `smsgwctl status`: one small text file per modem,
// "/var/run/txrx_signal.<device name>" (e.g. txrx_signal.ttyS0), holding
// one line
//
//   DEVICE " " RSSI " " BER " " TIME "\n"      e.g. "/dev/ttyS0 23 99 1700000000\n"
//
// RSSI and BER as AT+CSQ gives them (RSSI 0-31, 99 unknown; BER 0-7, 99
// unknown), TIME the Unix time of the reading.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace smsgw {

struct SignalQuality {
    std::string device;
    int rssi = 99;
    int ber = 99;
    long long time = 0;
};

// The file's absolute name (before the root is put in front) for a device.
std::string signal_quality_file(std::string_view device);
std::string encode_signal_quality(const SignalQuality& q);
// nullopt unless the text is one such line (numbers in range).
std::optional<SignalQuality> decode_signal_quality(std::string_view text);
// dBm of an RSSI value (-113 + 2 x RSSI); nullopt for 99 or out of range.
std::optional<int> signal_dbm(int rssi);

}  // namespace smsgw
