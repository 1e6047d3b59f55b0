// Processes as /proc shows them: the smsgwd of a root and port offset, and
// the state of a process named in a pid file.
#pragma once

#include <optional>
#include <string>

#include "command_line.h"

namespace smsgw::ctl {

struct DaemonProcess {
    long pid = 0;
    long long uptime = 0;  // seconds
};

// The smsgwd process started for this root (the same directory, however it
// was named) and port offset, also when it runs under an emulator.
std::optional<DaemonProcess> find_daemon(const Global& g);

// The state letter of a process ("R", "S", "Z"...); empty when it is gone.
std::string process_state(long pid);

}  // namespace smsgw::ctl
