// Starting programs without a shell: fork/exec with an argument vector.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace smsgw {

enum class ChildOutput { Inherit, DevNull };

// Starts argv[0] (a path) with the given arguments; does not wait.
// Returns the child's pid, or -1 when it could not be started.
pid_t spawn_program(const std::vector<std::string>& argv, ChildOutput out = ChildOutput::Inherit);

// Starts the program and waits for it; the exit status (0-255), or -1 when
// it could not be started or did not exit normally. PATH is searched when
// argv[0] holds no '/'.
int run_program(const std::vector<std::string>& argv, ChildOutput out = ChildOutput::Inherit);

}  // namespace smsgw
