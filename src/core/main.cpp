// smsgwd: the SMS gateway daemon.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "core/daemon.h"
#include "core/options.h"

int main(int argc, char** argv) {
    using smsgw::Options;
    const Options opts = smsgw::parse_options(argc, argv);
    switch (opts.action) {
        case Options::Action::UsageError:
            std::fprintf(stderr, "%s: %s\n%s", argv[0], opts.error.c_str(),
                         smsgw::usage_text(argv[0]).c_str());
            return 2;
        case Options::Action::Help:
            std::fputs(smsgw::usage_text(argv[0]).c_str(), stdout);
            return 0;
        case Options::Action::Version:
            std::printf("smsgwd %s\n", SMSGW_VERSION);
            return 0;
        case Options::Action::Run:
            break;
    }
    // The programs the daemon starts (txrx, the time client, ...) find
    // their sandbox the same way it does.
    ::setenv("SMSGW_ROOT", opts.root.c_str(), 1);
    ::setenv("SMSGW_PORT_OFFSET", std::to_string(opts.port_offset).c_str(), 1);

    smsgw::SmsGateway gateway(opts.root, opts.port_offset, opts.spool_dirs);
    return gateway.run();
}
