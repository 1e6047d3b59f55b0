// txrx's log: one line per event on standard error (the daemon's log
// stream), prefixed with the program, its process id and its device.
#pragma once

#include <string>

namespace smsgw::txrx {

void set_log_device(const std::string& device);
void log(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace smsgw::txrx
