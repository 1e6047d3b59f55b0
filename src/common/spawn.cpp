#include "common/spawn.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

namespace smsgw {

namespace {

pid_t start(const std::vector<std::string>& argv, ChildOutput out) {
    if (argv.empty()) return -1;
    std::vector<char*> args;
    args.reserve(argv.size() + 1);
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = ::fork();
    if (pid != 0) return pid;
    // Child: default signal dispositions, so a program started while the
    // daemon ignores SIGCHLD behaves normally.
    ::signal(SIGCHLD, SIG_DFL);
    ::signal(SIGPIPE, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    if (out == ChildOutput::DevNull) {
        int devnull = ::open("/dev/null", O_RDWR);
        if (devnull >= 0) {
            ::dup2(devnull, 1);
            ::dup2(devnull, 2);
            if (devnull > 2) ::close(devnull);
        }
    }
    if (argv[0].find('/') != std::string::npos)
        ::execv(args[0], args.data());
    else
        ::execvp(args[0], args.data());
    ::_exit(127);
}

}  // namespace

pid_t spawn_program(const std::vector<std::string>& argv, ChildOutput out) {
    return start(argv, out);
}

int run_program(const std::vector<std::string>& argv, ChildOutput out) {
    pid_t pid = start(argv, out);
    if (pid < 0) return -1;
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace smsgw
