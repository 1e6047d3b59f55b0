// The daemon's configuration shared by the subsystems: where files live,
// which ports are used, where request files may come from, and what
// start-up found. main() creates one; a test creates a fresh one.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "common/paths.h"
#include "common/text.h"

namespace smsgw {

struct Ports {
    int offset = 0;
    uint16_t txrx_out() const { return port(20202); }  // jobs and replies to txrx
    uint16_t gui() const { return port(20205); }       // web interface
    uint16_t txrx_in() const { return port(20206); }   // reports from txrx
    uint16_t lb() const { return port(20207); }        // load-balancer peer
    uint16_t http() const { return port(30303); }      // settings listener
    int shm_key() const { return 16384 + offset; }

  private:
    uint16_t port(int base) const { return static_cast<uint16_t>(base + offset); }
};

struct Runtime {
    explicit Runtime(std::string root = "/", int port_offset = 0) : paths(std::move(root)) {
        ports.offset = port_offset;
    }

    // A daemon path ("/var/run/...") placed under the root.
    std::string path(std::string_view absolute) const { return paths.map(absolute); }

    Paths paths;
    Ports ports;
    // Directories a request file named in a datagram may lie in (real paths).
    std::vector<std::string> spool_dirs;
    // Where the daemon writes request files of its own: the send handler
    // only takes them from the spool.
    std::string request_dir() const {
        return spool_dirs.empty() ? path("/tmp") : spool_dirs.front();
    }

    int no_of_modems = 0;  // modems found at start-up
    int sql_sms_fd = -1;   // source socket of database notices (owned by core)

    ReplyBuffer reply_buffer;  // the parser's shared reply text
};

}  // namespace smsgw
