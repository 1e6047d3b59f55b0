#include "core/endpoints.h"

#include <syslog.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "common/net.h"
#include "common/trace.h"

namespace smsgw {

namespace {

// The daemon ends quietly when an endpoint cannot be opened; the log says
// which one and why, so a port in use or a missing directory is found.
bool opened(const Fd& fd, const std::string& where, const char* peer) {
    if (fd) return true;
    syslog(LOG_ERR, "not started: cannot bind %s (%s): %s", where.c_str(), peer,
           std::strerror(errno));
    return false;
}

std::string udp_port(uint16_t port) {
    return "UDP port " + std::to_string(port) + " on 127.0.0.1";
}

}  // namespace

bool Endpoints::open_all(const Runtime& rt) {
    const std::string notices = rt.path("/var/run/SQL_SMSTEMP");
    sql_sms = bind_unix_dgram(notices);
    if (!opened(sql_sms, notices, "database notices")) return false;
    lb = bind_udp(rt.ports.lb());
    if (!opened(lb, udp_port(rt.ports.lb()), "load balancer")) return false;
    gui = bind_udp(rt.ports.gui());
    if (!opened(gui, udp_port(rt.ports.gui()), "web interface")) return false;
    txrx_in = bind_udp(rt.ports.txrx_in());
    if (!opened(txrx_in, udp_port(rt.ports.txrx_in()), "txrx reports")) return false;
    // A burst of reports must never block the loop; the other sockets are
    // read only after select() or FIONREAD said something is there.
    set_nonblocking(txrx_in.get());
    trace("gui_handler_fd - %d\treadfdlist[0] - %d\n", gui.get(), txrx_in.get());
    return true;
}

}  // namespace smsgw
