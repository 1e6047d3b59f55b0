// Test support: a sandbox root in a temporary directory, a random port
// offset, the real daemon started on them, and a web-interface client.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace smsgw::test {

// A fresh temporary directory, removed with everything in it at the end.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& rel) const { return path_ + "/" + rel; }

  private:
    std::string path_;
};

// The emulator command that runs target programs in a cross build, from
// SMSGW_TEST_EXEC_PREFIX split at blanks (e.g. "qemu-mips -L /usr/mips-linux-gnu");
// empty for native builds.
std::vector<std::string> exec_prefix();

// How to run txrx-sim: natively (an empty prefix) or under the emulator
// `prefix`.
struct TxrxLaunch {
    std::string program;
    std::vector<std::string> prefix;
};
// For its commands (inject, request, loopback): in a cross build under the
// emulator, so that what it writes into the root's binary files (the inbox
// record lengths) has the daemon's byte order.
TxrxLaunch txrx_launch();
// For the transceiver the daemon starts as DIR/bin/txrx. A cross build also
// makes the simulator for this machine (txrx-sim-host), used here when
// present: an emulated one takes a few hundred milliseconds to listen,
// while the daemon hands a queued job over on its first pass after starting
// txrx. As a transceiver the simulator handles text only (job files, pid
// file, log, reports), so byte order does not matter there. Without it,
// DIR/bin/txrx is a wrapper that keeps argv[0] and runs `program` under
// `prefix`.
TxrxLaunch txrx_child_launch();

// A port offset unlikely to collide with other tests running at once.
int random_port_offset();

// Writes a file (creating its directories).
void write_file(const std::string& path, const std::string& content);
std::string read_file(const std::string& path);  // "" when missing
bool exists(const std::string& path);

// Polls until pred() holds or the deadline passes; returns pred()'s last value.
bool wait_for(const std::function<bool()>& pred,
              std::chrono::milliseconds deadline = std::chrono::milliseconds(5000));

// Prepares a sandbox root: the directories the daemon expects, an empty
// api status file, and DIR/bin/txrx (the simulator), DIR/bin/msntp,
// DIR/bin/http-client and DIR/bin/date, DIR/sbin/create_address_book_tar
// as small recording scripts.
void prepare_root(const std::string& root);

// The running daemon; stopped with SIGKILL (and reaped) on destruction,
// together with the txrx processes started for its root.
class Daemon {
  public:
    Daemon(std::string root, int port_offset, std::vector<std::string> extra_args = {});
    ~Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    // Waits until the daemon answers a management command.
    bool wait_ready(std::chrono::milliseconds deadline = std::chrono::milliseconds(10000));
    void kill_now(int sig = 9);
    bool running();
    pid_t pid() const { return pid_; }
    const std::string& root() const { return root_; }
    int offset() const { return offset_; }
    // Standard error captured so far.
    std::string stderr_text() const;

  private:
    std::string root_;
    int offset_;
    pid_t pid_ = -1;
    std::string err_path_;
};

// A UDP client on 127.0.0.1.
class UdpClient {
  public:
    UdpClient();
    ~UdpClient();
    UdpClient(const UdpClient&) = delete;
    UdpClient& operator=(const UdpClient&) = delete;
    void send_to(int port, const std::string& data);
    // One datagram, or nullopt when none arrives in time.
    std::optional<std::string> receive(
        std::chrono::milliseconds deadline = std::chrono::milliseconds(3000));
    // The web-interface framing: the length datagram, then the request.
    std::optional<std::string> request(
        int port, const std::string& text,
        std::chrono::milliseconds deadline = std::chrono::milliseconds(5000));
    int port() const;  // the local port

  private:
    int fd_ = -1;
};

// A UDP socket bound to 127.0.0.1:port (a fake peer such as txrx's port).
class UdpListener {
  public:
    explicit UdpListener(int port);
    ~UdpListener();
    UdpListener(const UdpListener&) = delete;
    UdpListener& operator=(const UdpListener&) = delete;
    bool ok() const { return fd_ >= 0; }
    std::optional<std::string> receive(
        std::chrono::milliseconds deadline = std::chrono::milliseconds(3000));

  private:
    int fd_ = -1;
};

// A simulated modem on a pseudo-terminal: a thread answers the first command
// line (ending in "\r\n") written to the slave with a fixed text. Link
// DIR/dev/ttySN to slave_path() to have the daemon probe it.
class PtyModem {
  public:
    explicit PtyModem(std::string answer);
    ~PtyModem();
    PtyModem(const PtyModem&) = delete;
    PtyModem& operator=(const PtyModem&) = delete;
    const std::string& slave_path() const { return slave_path_; }
    // The command line received so far ("" before it is complete).
    std::string received();

  private:
    void serve();

    std::string answer_;
    int master_ = -1;
    int slave_ = -1;
    std::string slave_path_;
    std::atomic<bool> stop_{false};
    std::mutex mu_;
    std::string received_;
    std::thread thread_;
};

}  // namespace smsgw::test
