// txrx DEVICE: the transceiver the daemon starts for each modem (see
// txrx(8)).
#include <signal.h>

#include <csignal>
#include <cstdio>

#include "txrx/options.h"
#include "txrx/transceiver.h"

namespace {

volatile std::sig_atomic_t g_stop = 0;

void on_stop(int) {
    g_stop = 1;
}

}  // namespace

int main(int argc, char** argv) {
    auto parsed = smsgw::txrx::parse_options(argc, argv);
    if (!parsed.options) {
        std::fputs(parsed.message.c_str(), parsed.exit_status == 0 ? stdout : stderr);
        return parsed.exit_status;
    }
    struct sigaction sa {};
    sa.sa_handler = on_stop;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGHUP, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);
    smsgw::txrx::Transceiver txrx(*parsed.options);
    return txrx.run(g_stop);
}
