// modem-sim: an emulated GSM modem on a pseudo-terminal (see modem_sim.h).
//
//   modem-sim [--root DIR] [--tty NAME] [--csq N] [--delay-ms N]
//             [--log FILE] [--control SOCKET]
//   modem-sim ctl SOCKET COMMAND...
#include <signal.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "common/text.h"
#include "modem_sim.h"

namespace {

volatile int g_stop = 0;

void on_stop(int) {
    g_stop = 1;
}

int usage() {
    std::fputs(
        "usage: modem-sim [--root DIR] [--tty NAME] [--csq N] [--delay-ms N] [--log FILE]\n"
        "                 [--control SOCKET]\n"
        "       modem-sim ctl SOCKET COMMAND...\n",
        stderr);
    return 2;
}

int client(int argc, char** argv) {
    if (argc < 4) return usage();
    std::string cmd;
    for (int i = 3; i < argc; ++i) cmd += (i > 3 ? " " : "") + std::string(argv[i]);
    std::string answer =
        smsgw::modemsim::send_control(argv[2], cmd, std::chrono::milliseconds(5000));
    std::printf("%s\n", answer.empty() ? "no answer" : answer.c_str());
    return answer.compare(0, 2, "OK") == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && std::strcmp(argv[1], "ctl") == 0) return client(argc, argv);
    smsgw::modemsim::Config cfg;
    if (const char* root = std::getenv("SMSGW_ROOT"); root && *root) cfg.root = root;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (i + 1 >= argc) return usage();
        std::string value = argv[++i];
        if (arg == "--root") {
            cfg.root = value;
        } else if (arg == "--tty") {
            cfg.tty = value;
        } else if (arg == "--csq") {
            cfg.csq = smsgw::c_atoi(value);
        } else if (arg == "--delay-ms") {
            cfg.delay_ms = smsgw::c_atoi(value);
        } else if (arg == "--log") {
            cfg.log = value;
        } else if (arg == "--control") {
            cfg.control = value;
        } else {
            return usage();
        }
    }
    signal(SIGTERM, on_stop);
    signal(SIGINT, on_stop);
    signal(SIGPIPE, SIG_IGN);
    smsgw::modemsim::ModemSim sim(cfg);
    std::string why;
    if (!sim.start(&why)) {
        std::fprintf(stderr, "modem-sim: %s\n", why.c_str());
        return 1;
    }
    return sim.run(g_stop);
}
