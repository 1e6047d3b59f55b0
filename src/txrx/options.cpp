#include "txrx/options.h"

#include <cstdlib>
#include <cstring>

#include "common/text.h"

namespace smsgw::txrx {

namespace {

bool take_number(const char* text, long long lo, long long hi, long long& out) {
    auto v = parse_number(text ? text : "", lo, hi);
    if (!v) return false;
    out = *v;
    return true;
}

// One "--name VALUE" option with a numeric value; false when argv[i] is not
// it. *bad is set for a missing or out-of-range value.
bool numeric(int argc, char** argv, int& i, const char* name, long long lo, long long hi,
             long long& out, bool* bad) {
    if (std::strcmp(argv[i], name) != 0) return false;
    if (i + 1 >= argc || !take_number(argv[i + 1], lo, hi, out)) *bad = true;
    ++i;
    return true;
}

ParseResult refuse(const std::string& why) {
    return {std::nullopt, "txrx: " + why + "\n" + usage(), 2};
}

void read_environment(Options& o) {
    const char* root = std::getenv("SMSGW_ROOT");
    if (root && *root) o.root = root;
    const char* offset = std::getenv("SMSGW_PORT_OFFSET");
    if (offset && *offset) o.port_offset = c_atoi(offset);
}

}  // namespace

std::string usage() {
    return "usage: txrx [--baud N] [--rtscts] [--timeout-ms N] [--send-timeout-ms N]\n"
           "            [--retries N] [--backoff-ms N] [--signal-interval S]\n"
           "            [--part-expiry S] [--reopen-ms N] [--status-reports] DEVICE\n";
}

ParseResult parse_options(int argc, char** argv) {
    Options o;
    read_environment(o);
    for (int i = 1; i < argc; ++i) {
        long long v = 0;
        bool bad = false;
        std::string arg = argv[i];
        if (arg == "--help") return {std::nullopt, usage(), 0};
        if (arg == "--version") return {std::nullopt, "txrx " SMSGW_VERSION "\n", 0};
        if (arg == "--rtscts") {
            o.rtscts = true;
        } else if (arg == "--status-reports") {
            o.status_reports = true;
        } else if (numeric(argc, argv, i, "--baud", 300, 4000000, v, &bad)) {
            o.baud = static_cast<int>(v);
        } else if (numeric(argc, argv, i, "--timeout-ms", 10, 600000, v, &bad)) {
            o.timeout = std::chrono::milliseconds(v);
        } else if (numeric(argc, argv, i, "--send-timeout-ms", 10, 600000, v, &bad)) {
            o.send_timeout = std::chrono::milliseconds(v);
        } else if (numeric(argc, argv, i, "--retries", 0, 20, v, &bad)) {
            o.retries = static_cast<int>(v);
        } else if (numeric(argc, argv, i, "--backoff-ms", 0, 600000, v, &bad)) {
            o.backoff = std::chrono::milliseconds(v);
        } else if (numeric(argc, argv, i, "--signal-interval", 1, 86400, v, &bad)) {
            o.signal_interval = std::chrono::seconds(v);
        } else if (numeric(argc, argv, i, "--part-expiry", 1, 30LL * 86400, v, &bad)) {
            o.part_expiry = std::chrono::seconds(v);
        } else if (numeric(argc, argv, i, "--reopen-ms", 10, 600000, v, &bad)) {
            o.reopen = std::chrono::milliseconds(v);
        } else if (arg.size() > 1 && arg[0] == '-') {
            return refuse("unknown option " + arg);
        } else if (o.device.empty()) {
            o.device = arg;
        } else {
            return refuse("one device only");
        }
        if (bad) return refuse("bad value for " + arg);
    }
    if (o.device.empty() || o.device[0] != '/') return refuse("DEVICE must be an absolute path");
    return {o, "", 0};
}

}  // namespace smsgw::txrx
