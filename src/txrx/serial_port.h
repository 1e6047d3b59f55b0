// Opening the modem's serial line: raw, 8 data bits, no parity, one stop
// bit, the given speed, RTS/CTS flow control on request. Device symlinks
// are followed (modems are often reached through one).
#pragma once

#include <string>

#include "common/fileops.h"

namespace smsgw::txrx {

// Invalid Fd on failure, with the reason in *why.
Fd open_serial(const std::string& path, int baud, bool rtscts, std::string* why);

}  // namespace smsgw::txrx
