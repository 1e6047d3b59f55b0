// Command line of smsgwd. Without options the daemon runs on the real
// file system with the standard ports; the options exist so several
// sandboxed daemons (tests, demos) can run side by side on one machine.
#pragma once

#include <string>
#include <vector>

namespace smsgw {

struct Options {
    enum class Action { Run, Help, Version, UsageError };
    Action action = Action::Run;
    std::string root = "/";
    int port_offset = 0;
    std::vector<std::string> spool_dirs;  // empty: the defaults under the root
    std::string error;                    // why the command line was refused
};

// The highest base port the offset is added to (the settings listener).
inline constexpr int kHighestBasePort = 30303;

Options parse_options(int argc, const char* const* argv);

// The usage text (for --help on stdout and refused command lines on stderr).
std::string usage_text(const char* program);

// Default directories a request file named in a datagram may lie in.
std::vector<std::string> default_spool_dirs(const std::string& root);

}  // namespace smsgw
