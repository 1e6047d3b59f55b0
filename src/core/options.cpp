#include "core/options.h"

#include <string_view>

#include "common/paths.h"
#include "common/text.h"

namespace smsgw {

namespace {

// "--name VALUE" or "--name=VALUE"; advances i past what it consumed.
bool take_value(int argc, const char* const* argv, int& i, std::string_view name,
                std::string& value, bool& missing) {
    std::string_view arg = argv[i];
    if (arg == name) {
        if (i + 1 >= argc) {
            missing = true;
            return true;
        }
        value = argv[++i];
        return true;
    }
    if (arg.size() > name.size() && arg.substr(0, name.size()) == name && arg[name.size()] == '=') {
        value = std::string(arg.substr(name.size() + 1));
        return true;
    }
    return false;
}

Options refuse(std::string why) {
    Options o;
    o.action = Options::Action::UsageError;
    o.error = std::move(why);
    return o;
}

}  // namespace

Options parse_options(int argc, const char* const* argv) {
    Options opts;
    for (int i = 1; i < argc; ++i) {
        std::string_view arg = argv[i];
        std::string value;
        bool missing = false;
        if (arg == "--help" || arg == "-h") {
            opts.action = Options::Action::Help;
        } else if (arg == "--version") {
            if (opts.action != Options::Action::Help) opts.action = Options::Action::Version;
        } else if (take_value(argc, argv, i, "--root", value, missing)) {
            if (missing) return refuse("--root needs a directory");
            if (value.empty() || value[0] != '/') return refuse("--root needs an absolute path");
            opts.root = value;
        } else if (take_value(argc, argv, i, "--port-offset", value, missing)) {
            if (missing) return refuse("--port-offset needs a number");
            auto n = parse_number(value, 0, 65535 - kHighestBasePort);
            if (!n || value[0] == '-')
                return refuse("bad port offset '" + value + "': a number from 0 to " +
                              std::to_string(65535 - kHighestBasePort));
            opts.port_offset = static_cast<int>(*n);
        } else if (take_value(argc, argv, i, "--spool-dir", value, missing)) {
            if (missing) return refuse("--spool-dir needs a directory");
            if (value.empty() || value[0] != '/')
                return refuse("--spool-dir needs an absolute path");
            while (value.size() > 1 && value.back() == '/') value.pop_back();
            opts.spool_dirs.push_back(value);
        } else {
            return refuse("unknown option '" + std::string(arg) + "'");
        }
    }
    if (opts.spool_dirs.empty()) opts.spool_dirs = default_spool_dirs(opts.root);
    return opts;
}

std::string usage_text(const char* program) {
    std::string p = program ? program : "smsgwd";
    return "usage: " + p +
           " [--root DIR] [--port-offset N] [--spool-dir DIR2]... [--help] [--version]\n"
           "  --root DIR         place every file the daemon uses under DIR (default /)\n"
           "  --port-offset N    add N to every UDP port and the shared-memory key\n"
           "  --spool-dir DIR2   a directory send-request files may lie in (repeatable;\n"
           "                     default DIR/tmp, DIR/var/tmp, DIR/var/run)\n";
}

std::vector<std::string> default_spool_dirs(const std::string& root) {
    Paths p(root);
    return {p.map("/tmp"), p.map("/var/tmp"), p.map("/var/run")};
}

}  // namespace smsgw
