#include "core/endpoints.h"

#include "common/net.h"
#include "common/trace.h"

namespace smsgw {

bool Endpoints::open_all(const Runtime& rt) {
    sql_sms = bind_unix_dgram(rt.path("/var/run/SQL_SMSTEMP"));
    if (!sql_sms) return false;
    lb = bind_udp(rt.ports.lb());
    if (!lb) return false;
    gui = bind_udp(rt.ports.gui());
    if (!gui) return false;
    txrx_in = bind_udp(rt.ports.txrx_in());
    if (!txrx_in) return false;
    // A burst of reports must never block the loop; the other sockets are
    // read only after select() or FIONREAD said something is there.
    set_nonblocking(txrx_in.get());
    trace("gui_handler_fd - %d\treadfdlist[0] - %d\n", gui.get(), txrx_in.get());
    return true;
}

}  // namespace smsgw
