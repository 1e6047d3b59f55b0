#include "command_line.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "common/text.h"

namespace smsgw::ctl {
namespace {

// An argument shown in a message: at most 40 bytes of it.
std::string quoted(const std::string& text) {
    return "'" + (text.size() > 40 ? text.substr(0, 40) + "..." : text) + "'";
}

// The highest base port is 30303; an offset must keep it a port.
constexpr long long kMaxPortOffset = 65535 - 30303;

const OptionSpec& global_options() {
    static const OptionSpec options = {
        {"--root", 1}, {"--port-offset", 1}, {"--timeout", 1}, {"--json", 0}};
    return options;
}

// An absolute form of `dir` (relative to the working directory), which must
// be an existing directory.
std::string root_dir(const std::string& dir, const std::string& what) {
    if (dir.empty()) throw usage_error(what + " needs a directory");
    std::string abs = dir;
    if (abs[0] != '/') {
        char cwd[PATH_MAX];
        if (!::getcwd(cwd, sizeof cwd)) throw usage_error(what + ": the working directory is gone");
        abs = std::string(cwd) + "/" + abs;
    }
    struct stat st {};
    const bool found = ::stat(abs.c_str(), &st) == 0;
    if (!found || !S_ISDIR(st.st_mode))
        throw usage_error(what + " " + quoted(dir) + ": " +
                          (found ? "not a directory" : std::strerror(errno)));
    while (abs.size() > 1 && abs.back() == '/') abs.pop_back();
    return abs;
}

bool has_control(const std::string& text) {
    for (char c : text)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) return true;
    return false;
}

}  // namespace

Failure usage_error(std::string message) {
    return Failure{kExitUsage, std::move(message), {}};
}

long long number_arg(const std::string& what, const std::string& text, long long lo, long long hi) {
    auto v = parse_number(text, lo, hi);
    if (!v)
        throw usage_error(what + " needs a number from " + std::to_string(lo) + " to " +
                          std::to_string(hi) + ", not " + quoted(text));
    return *v;
}

bool apply_global(Global& g, const std::string& name, const std::string& value) {
    if (name == "--root")
        g.root = root_dir(value, "--root");
    else if (name == "--port-offset")
        g.port_offset = static_cast<int>(number_arg(name, value, 0, kMaxPortOffset));
    else if (name == "--timeout")
        g.timeout_ms = static_cast<int>(number_arg(name, value, 1, 3600) * 1000);
    else
        return false;
    return true;
}

Global parse_global(int argc, char** argv, int& next) {
    Global g;
    if (const char* r = std::getenv("SMSGW_ROOT"); r && *r) g.root = root_dir(r, "SMSGW_ROOT");
    if (const char* o = std::getenv("SMSGW_PORT_OFFSET"); o && *o)
        g.port_offset = static_cast<int>(number_arg("SMSGW_PORT_OFFSET", o, 0, kMaxPortOffset));
    for (next = 1; next < argc; ++next) {
        const std::string w = argv[next];
        if (w == "--json") {
            g.json = true;
        } else if (global_options().count(w)) {
            if (next + 1 >= argc) throw usage_error(w + " needs a value");
            apply_global(g, w, argv[++next]);
        } else {
            break;
        }
    }
    return g;
}

std::optional<std::string> Args::value(const std::string& name) const {
    auto it = options.find(name);
    if (it == options.end() || it->second.back().empty()) return std::nullopt;
    return it->second.back().front();
}

std::vector<std::string> Args::values(const std::string& name) const {
    std::vector<std::string> out;
    auto it = options.find(name);
    if (it != options.end())
        for (const auto& v : it->second)
            if (!v.empty()) out.push_back(v.front());
    return out;
}

Args parse_args(Global& g, const std::vector<std::string>& words, const OptionSpec& known,
                size_t min, size_t max, const char* synopsis) {
    Args a;
    bool options_done = false;
    for (size_t i = 0; i < words.size(); ++i) {
        const std::string& w = words[i];
        if (options_done || w.size() < 3 || w.compare(0, 2, "--") != 0) {
            a.positional.push_back(w);
            continue;
        }
        if (w == "--") {
            options_done = true;
            continue;
        }
        bool global = known.count(w) == 0;
        if (global && global_options().count(w) == 0)
            throw usage_error("unknown option " + quoted(w) + " for '" + synopsis + "'");
        const int n = global ? global_options().at(w) : known.at(w);
        if (words.size() - i - 1 < static_cast<size_t>(n))
            throw usage_error(w + " needs " + std::to_string(n) + (n == 1 ? " value" : " values"));
        std::vector<std::string> vals(words.begin() + static_cast<long>(i) + 1,
                                      words.begin() + static_cast<long>(i) + 1 + n);
        i += static_cast<size_t>(n);
        if (!global)
            a.options[w].push_back(std::move(vals));
        else if (w == "--json")
            g.json = true;
        else
            apply_global(g, w, vals.front());
    }
    if (a.positional.size() < min || a.positional.size() > max)
        throw usage_error(std::string("wrong number of arguments: ") + synopsis);
    return a;
}

const std::string& lookup_field(const std::string& text, size_t room, const char* what) {
    if (text.size() > room)
        throw usage_error(std::string("the ") + what + " is longer than " + std::to_string(room) +
                          " bytes");
    if (text.find(kSep) != std::string::npos)
        throw usage_error(std::string("the ") + what + " " + quoted(text) +
                          " contains the field separator ^|^");
    return text;
}

const std::string& new_field(const std::string& text, size_t room, const char* what) {
    lookup_field(text, room, what);
    if (has_control(text))
        throw usage_error(std::string("the ") + what + " " + quoted(text) +
                          " contains a control character");
    return text;
}

const std::string& list_item(const std::string& text, size_t room, const char* what) {
    new_field(text, room, what);
    if (text.find(kItemSep) != std::string::npos)
        throw usage_error(std::string("the ") + what + " " + quoted(text) +
                          " contains the item separator ]|[");
    return text;
}

const std::string& phone_number(const std::string& text) {
    size_t digits = text.size() - (text.rfind('+', 0) == 0 ? 1 : 0);
    bool ok = digits >= 1 && digits <= 48 &&
              text.find_first_not_of("0123456789", text.size() - digits) == std::string::npos;
    if (!ok)
        throw usage_error(quoted(text) +
                          " is not a telephone number (an optional + and 1 to 48 digits)");
    return text;
}

}  // namespace smsgw::ctl
