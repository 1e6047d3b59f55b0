// The simulator's sandbox: a root prepared for smsgwd, the daemon started on
// it under the recording shim, and the datagram ends the driver talks to it
// through (the web interface's client and the transceiver's port, which the
// driver holds itself so that it sees every hand-over and decides when a job
// is reported done).
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "common/fileops.h"

namespace powercut {

using Millis = std::chrono::milliseconds;

// Where the programs are.
struct Programs {
    std::string smsgwd;
    std::string txrx_sim;
    std::string shim;
    // The emulator a cross-built daemon runs under ("qemu-mips -L ..."),
    // from SMSGW_TEST_EXEC_PREFIX; empty natively.
    std::vector<std::string> exec_prefix;
};

// The directories and files the daemon expects, with txrx-sim as
// DIR/bin/txrx and recording scripts for the other programs it starts.
void prepare_root(const std::string& root, const Programs& programs);

// Removes a tree (no links followed).
void remove_tree(const std::string& path);

// How the shim records: everything, or only datagrams and files created
// outside the root.
enum class Recording { Files, Datagrams };

// smsgwd on a root under the shim; killed (with what it started from the
// root) on destruction.
class Daemon {
  public:
    Daemon(const Programs& programs, const std::string& root, int offset, const std::string& log,
           Recording recording);
    ~Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    // False once it has exited: its pid is then -1, which kill(2) would
    // take for every process.
    bool signal(int sig) { return pid_ > 0 && ::kill(pid_, sig) == 0; }
    // False once it has exited.
    bool running();

  private:
    std::string root_;
    pid_t pid_ = -1;
};

// A UDP socket on 127.0.0.1 (port 0: any).
class Udp {
  public:
    explicit Udp(int port = 0);
    bool ok() const { return fd_.valid(); }
    int port() const;
    void send_to(int port, const std::string& data) const;
    std::optional<std::string> receive(Millis deadline) const;
    // The web interface's framing: the length, then the text; the reply.
    std::optional<std::string> request(int port, const std::string& text, Millis deadline) const;

  private:
    smsgw::Fd fd_;
};

// The message text of a job file ("" when it is too short to hold one).
std::string job_text(const std::string& job_file_bytes);

// Polls until pred() holds or the deadline passes.
template <class Pred>
bool wait_until(Pred pred, Millis deadline) {
    auto end = std::chrono::steady_clock::now() + deadline;
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= end) return false;
        struct timespec ts {
            0, 5000000L
        };
        ::nanosleep(&ts, nullptr);
    }
    return true;
}

}  // namespace powercut
