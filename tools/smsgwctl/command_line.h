// smsgwctl's command line: the global options (defaults from SMSGW_ROOT and
// SMSGW_PORT_OFFSET), each verb's words and options, and the checks that
// keep an argument from breaking the framing of the daemon's protocol.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace smsgw::ctl {

// Exit statuses, documented in smsgwctl(1).
enum ExitStatus : int {
    kExitOk = 0,
    kExitRefused = 1,      // the daemon refused, or the request had no effect
    kExitUsage = 2,        // a bad command line
    kExitUnreachable = 3,  // no daemon answers for this root and port offset
    kExitLocal = 4,        // a local file could not be read or written
    kExitGarbled = 5,      // an answer that is not what the protocol allows
};

// Why a command did not succeed; main prints it and exits with `status`.
struct Failure {
    int status = kExitRefused;
    std::string message;  // plain language
    std::string reply;    // the daemon's own words, when it answered
};

Failure usage_error(std::string message);

struct Global {
    std::string root = "/";  // absolute, resolved
    int port_offset = 0;
    int timeout_ms = 3000;
    bool json = false;
};

// The globals from the environment, then the options in front of the verb;
// `next` is left at the verb.
Global parse_global(int argc, char** argv, int& next);
// Handles a global option met behind the verb ("status --json").
bool apply_global(Global& g, const std::string& name, const std::string& value);

// Options a verb accepts: name -> how many values follow it (0: a flag).
using OptionSpec = std::map<std::string, int>;

struct Args {
    std::vector<std::string> positional;
    std::map<std::string, std::vector<std::vector<std::string>>> options;

    bool has(const std::string& name) const { return options.count(name) != 0; }
    std::optional<std::string> value(const std::string& name) const;
    std::vector<std::string> values(const std::string& name) const;  // every use's first value
};

// Splits a verb's words into positional ones and options; "--" ends the
// options. Global options are taken here too. `min`/`max` bound the
// positional words; `synopsis` names the verb's form in the error.
Args parse_args(Global& g, const std::vector<std::string>& words, const OptionSpec& known,
                size_t min, size_t max, const char* synopsis);

long long number_arg(const std::string& what, const std::string& text, long long lo, long long hi);

// The rooms of the protocol's fields (bytes, without the terminating NUL).
inline constexpr size_t kNameRoom = 49;
inline constexpr size_t kNumberRoom = 49;
inline constexpr size_t kDescRoom = 199;
inline constexpr size_t kGroupRoom = 49;

// A field that names something that exists: it fits its room and carries
// no "^|^". Returns the text.
const std::string& lookup_field(const std::string& text, size_t room, const char* what);
// A field the daemon will store: also no control characters (they would
// reach terminals and break the line-based address-book files).
const std::string& new_field(const std::string& text, size_t room, const char* what);
// A member-list item: also no "]|[".
const std::string& list_item(const std::string& text, size_t room, const char* what);
// A telephone number to send to: an optional "+" and 1 to 48 digits.
const std::string& phone_number(const std::string& text);

}  // namespace smsgw::ctl
