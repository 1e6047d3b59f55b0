// The daemon's own datagram endpoints, opened once at start-up in the
// order the peers expect them.
#pragma once

#include "common/fileops.h"
#include "common/runtime.h"

namespace smsgw {

struct Endpoints {
    Fd sql_sms;  // source of database notices ("/var/run/SQL_SMSTEMP")
    Fd lb;       // load-balancer peer
    Fd gui;      // web interface
    Fd txrx_in;  // reports from the txrx children (non-blocking)

    // Opens all four; false at the first that cannot be opened (those
    // opened so far stay open, as the daemon is about to end anyway).
    bool open_all(const Runtime& rt);
};

}  // namespace smsgw
