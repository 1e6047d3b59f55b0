// Command line and environment of txrx: the device, line settings, the
// dialogue's timeouts and retries, and the root and port offset the daemon
// passes on (SMSGW_ROOT, SMSGW_PORT_OFFSET).
#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace smsgw::txrx {

struct Options {
    std::string device;  // as the daemon names it: "/dev/ttyS0"
    std::string root = "/";
    int port_offset = 0;
    int baud = 115200;
    bool rtscts = false;
    std::chrono::milliseconds timeout{10000};       // one AT exchange
    std::chrono::milliseconds send_timeout{60000};  // AT+CMGS up to its answer
    int retries = 3;                                // further tries of a failed submit
    std::chrono::milliseconds backoff{2000};        // before the first retry, doubled after
    std::chrono::seconds signal_interval{60};
    std::chrono::seconds part_expiry{86400};  // an incomplete multipart message waits
    std::chrono::milliseconds reopen{5000};   // retry of a device that cannot be opened
    bool status_reports = false;
};

// Parses argv and the environment. Without options, `message` is what to
// print and `exit_status` how to end (0 for --help and --version).
struct ParseResult {
    std::optional<Options> options;
    std::string message;  // usage error or help text
    int exit_status = 0;
};
ParseResult parse_options(int argc, char** argv);

std::string usage();

}  // namespace smsgw::txrx
