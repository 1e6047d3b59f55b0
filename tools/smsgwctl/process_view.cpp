#include "process_view.h"

#include <dirent.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <vector>

#include "common/fileops.h"
#include "common/text.h"

namespace smsgw::ctl {
namespace {

std::string real_path(const std::string& path) {
    char buf[PATH_MAX];
    return ::realpath(path.c_str(), buf) ? std::string(buf) : std::string();
}

std::vector<std::string> command_line(const std::string& pid) {
    std::vector<std::string> args;
    const std::string raw = read_file("/proc/" + pid + "/cmdline", 1 << 16).value_or("");
    for (size_t pos = 0; pos < raw.size();) {
        size_t nul = raw.find('\0', pos);
        if (nul == std::string::npos) nul = raw.size();
        args.push_back(raw.substr(pos, nul - pos));
        pos = nul + 1;
    }
    return args;
}

// The value of "--name VALUE" or "--name=VALUE" among args[from...].
std::optional<std::string> option(const std::vector<std::string>& args, size_t from,
                                  const std::string& name) {
    for (size_t i = from; i < args.size(); ++i) {
        if (args[i] == name && i + 1 < args.size()) return args[i + 1];
        if (starts_with(args[i], name + "=")) return args[i].substr(name.size() + 1);
    }
    return std::nullopt;
}

// Whether the command line starts smsgwd (directly or through an
// emulator) on this root and port offset.
bool is_daemon_of(const std::vector<std::string>& args, const std::string& root, int offset) {
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (a != "smsgwd" && (a.size() < 7 || a.compare(a.size() - 7, 7, "/smsgwd") != 0)) continue;
        const std::string their_root = option(args, i + 1, "--root").value_or("/");
        const int their_offset = c_atoi(option(args, i + 1, "--port-offset").value_or("0"));
        return their_offset == offset && real_path(their_root) == root;
    }
    return false;
}

// Seconds since the process started: its start in clock ticks after boot
// (field 22 of /proc/PID/stat) against the time since boot.
long long uptime_of(const std::string& pid) {
    const std::string stat = read_file("/proc/" + pid + "/stat", 4096).value_or("");
    size_t pos = stat.rfind(')');
    for (int field = 2; field < 22 && pos != std::string::npos; ++field)
        pos = stat.find(' ', pos + 1);
    const std::string boot = read_file("/proc/uptime", 256).value_or("0");
    if (pos == std::string::npos) return 0;
    const long ticks = ::sysconf(_SC_CLK_TCK);
    const long long started =
        std::strtoll(stat.c_str() + pos + 1, nullptr, 10) / (ticks > 0 ? ticks : 100);
    return std::max(0LL, std::strtoll(boot.c_str(), nullptr, 10) - started);
}

}  // namespace

std::optional<DaemonProcess> find_daemon(const Global& g) {
    const std::string root = real_path(g.root);
    DIR* proc = ::opendir("/proc");
    if (!proc) return std::nullopt;
    std::optional<DaemonProcess> found;
    while (dirent* e = ::readdir(proc)) {
        auto pid = parse_number(e->d_name, 1, INT_MAX);
        if (!pid || !is_daemon_of(command_line(e->d_name), root, g.port_offset)) continue;
        found = DaemonProcess{static_cast<long>(*pid), uptime_of(e->d_name)};
        break;
    }
    ::closedir(proc);
    return found;
}

std::string process_state(long pid) {
    const std::string st = read_file("/proc/" + std::to_string(pid) + "/status", 8192).value_or("");
    size_t p = st.find("\nState:");
    if (p == std::string::npos) return "";
    size_t q = st.find_first_not_of(" \t", p + 7);
    return q == std::string::npos ? "?" : st.substr(q, 1);
}

}  // namespace smsgw::ctl
