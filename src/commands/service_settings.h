// KEY=VALUE configuration files and the settings commands' notices.
// Paths given here are real paths (already placed under the root).
#pragma once

#include <string>
#include <string_view>

#include "common/runtime.h"
#include "common/txrx_link.h"

namespace smsgw {

// "SUCCESS" or "ERROR"; the temporary file is "/var/run/temp_conf_gen".
std::string set_conf_value(const Runtime& rt, const std::string& path, std::string_view key,
                           std::string_view value);
std::string get_conf_value(const std::string& path, std::string_view key, std::string& out);
// 1 or 0; the temporary file is "/var/config/temp_file.conf".
int write_conf_value(const Runtime& rt, const std::string& path, std::string_view key,
                     std::string_view value);

// The settings commands; each tells txrx and the HTTP client and stores the
// value. They reply "SUCCESS" whatever the notices and writes gave.
std::string set_sms_timer(const Runtime& rt, const TxrxLink& txrx, std::string_view seconds);
std::string set_sms_status(const Runtime& rt, const TxrxLink& txrx, std::string_view state);
std::string set_signal_strength_cmd(const Runtime& rt, const TxrxLink& txrx,
                                    std::string_view command);

}  // namespace smsgw
