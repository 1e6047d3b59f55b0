// Test support: a sandbox root in a temporary directory, a random port
// offset, the real daemon started on them, and a web-interface client.
#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace smsgw::test {

using Ms = std::chrono::milliseconds;

// A base for the owners of processes, descriptors and directories.
struct NoCopy {
    NoCopy() = default;
    NoCopy(const NoCopy&) = delete;
    NoCopy& operator=(const NoCopy&) = delete;
};

// A fresh temporary directory, removed with everything in it at the end.
class TempDir : NoCopy {
  public:
    TempDir();
    ~TempDir();
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& rel) const { return path_ + "/" + rel; }

  private:
    std::string path_;
};

// The emulator command that runs target programs in a cross build, from
// SMSGW_TEST_EXEC_PREFIX split at blanks (e.g. "qemu-mips -L /usr/mips-linux-gnu");
// empty for native builds.
std::vector<std::string> exec_prefix();

// A port offset unlikely to collide with other tests running at once.
int random_port_offset();

// `s` cut or padded with NULs to n bytes: a fixed-size text field.
std::string padded(std::string s, size_t n);
// A rule-list record: the text behind its decimal length.
inline std::string rec(const std::string& text) {
    return std::to_string(text.size()) + text;
}
// An incoming SMS record as txrx reports it: sender char[50], then the text.
inline std::string sms_record(const std::string& sender, const std::string& text) {
    return padded(sender, 50) + text;
}
// How often `what` occurs in `text` (overlaps counted).
size_t count_of(const std::string& text, const std::string& what);
// Host-order integers in byte images; reads past the end give 0.
inline std::string i32_bytes(int32_t v) {
    return std::string(reinterpret_cast<char*>(&v), 4);
}
int32_t i32_at(const std::string& bytes, size_t offset);
int16_t i16_at(const std::string& bytes, size_t offset);
// An api_stat.st image: the 4-byte header and one 60-byte record per id,
// each with the given status.
std::string api_stat_image(std::initializer_list<int32_t> ids, int16_t status = 1);
// The status of the record for `id` in such an image, -1 when there is none.
int api_status_of(const std::string& image, int32_t id);
// The paths below root, relative to it ("var/run/x"), of every entry or
// only of those that are not directories.
std::set<std::string> tree_below(const std::string& root, bool with_dirs = true);
// The lines of a text that begin with `prefix`.
std::vector<std::string> lines_starting(const std::string& text, const std::string& prefix);

// Writes a file (creating its directories).
void write_file(const std::string& path, const std::string& content);
std::string read_file(const std::string& path);  // "" when missing
bool exists(const std::string& path);

// Polls until pred() holds or the deadline passes; returns pred()'s last value.
bool wait_for(const std::function<bool()>& pred, Ms deadline = Ms(5000));

// kill(2) for one process only. A pid read from a file that is missing, or
// of a child already reaped, is 0 or -1: those would signal our own group or
// every process we may signal, so they are refused (false).
bool signal_process(pid_t pid, int sig);

// Prepares a sandbox root: the directories the daemon expects, an empty
// api status file, and DIR/bin/txrx (the simulator), DIR/bin/msntp,
// DIR/bin/http-client and DIR/bin/date, DIR/sbin/create_address_book_tar
// as small recording scripts.
void prepare_root(const std::string& root);
// Replaces DIR/bin/txrx by a script that runs `argv` with its own arguments
// appended and then `redirect`. It keeps its own path as argv[0]: the daemon
// recognises its children by it.
void write_txrx_wrapper(const std::string& root, const std::vector<std::string>& argv,
                        const std::string& redirect = "");

// A UDP client on 127.0.0.1.
class UdpClient : NoCopy {
  public:
    // Bound to 127.0.0.1:port, any free port for 0 (ok() tells whether the
    // port was free).
    explicit UdpClient(int port = 0);
    ~UdpClient();
    bool ok() const { return fd_ >= 0; }
    void send_to(int port, const std::string& data);
    // One datagram, or nullopt when none arrives in time.
    std::optional<std::string> receive(Ms deadline = Ms(3000));
    // The web-interface framing: the length datagram, then the request.
    std::optional<std::string> request(int port, const std::string& text, Ms deadline = Ms(5000));
    // Answers the sender of the last datagram received.
    void reply(const std::string& data);

  private:
    int fd_ = -1;
    sockaddr_in peer_{};
};

// A fake peer on a fixed port, such as txrx's.
struct UdpListener : UdpClient {
    explicit UdpListener(int port) : UdpClient(port) {}
};

// A program started in the background, its standard output and error
// going to files (both to out_path when err_path is empty; appended to or
// emptied first), with extra "NAME=value" environment entries. Killed and
// reaped if still running at the end.
class Child : NoCopy {
  public:
    Child(std::vector<std::string> argv, const std::string& out_path,
          const std::string& err_path = "", const std::vector<std::string>& env = {},
          bool append = false);
    ~Child() { kill_now(); }
    // Waits for the end: the exit status, or -1 when the program did not
    // exit normally within the deadline (it is killed then).
    int finish(Ms deadline = Ms(15000)) {
        return wait_for([&] { return !running(); }, deadline) ? exit_status_ : -1;
    }
    void kill_now(int sig = 9);  // reaps it after SIGKILL
    // False once it has ended and been reaped.
    bool signal(int sig) { return signal_process(pid_, sig); }
    bool running();  // reaps it once it has ended
    pid_t pid() const { return pid_; }
    // Its exit status once running() saw it end; -1 before, or after a signal.
    int exit_status() const { return exit_status_; }

  private:
    pid_t pid_ = -1;
    int exit_status_ = -1;
};

// The running daemon; stopped with SIGKILL (and reaped) on destruction,
// together with the txrx processes started for its root.
class Daemon : public Child {
  public:
    Daemon(const std::string& root, int port_offset, std::vector<std::string> extra_args = {});
    ~Daemon();
    // Waits until the daemon answers a management command.
    bool wait_ready(Ms deadline = Ms(10000));
    // Standard error captured so far.
    std::string stderr_text() const { return read_file(root_ + "/daemon.stderr"); }

  private:
    std::string root_;
    int offset_;
};

// The real daemon in a prepared sandbox root: a gtest fixture with the web
// client and the files and logs the integration tests look at.
class DaemonFixture : public ::testing::Test {
  protected:
    DaemonFixture() { prepare_root(root_.path()); }
    ~DaemonFixture() override;

    // Starts the daemon (again after stop()), waits until it answers and
    // until this start's txrx-sim has logged that it listens: a job handed
    // over before that would be lost (unless the test holds txrx's port).
    void start(std::vector<std::string> extra_args = {}, bool wait_txrx = true);
    // SIGKILL to the daemon and the children started for its root.
    void stop() { daemon_.reset(); }
    // Contacts and groups in the files the daemon loads at start-up.
    void seed_contacts(const std::string& address_book, const std::string& groups = "");
    // Sets an environment variable inherited by the daemons started later
    // (and txrx-sim through them) until the test ends.
    void set_env(const std::string& name, const std::string& value);

    std::string path(const std::string& rel) const { return root_ / rel; }
    std::string file(const std::string& rel) const { return read_file(path(rel)); }
    // Waits until the file under the root holds exactly `content`.
    bool wait_file(const std::string& rel, const std::string& content,
                   Ms deadline = Ms(10000)) const {
        return wait_for([&] { return file(rel) == content; }, deadline);
    }
    // Writes DIR/tmp/name (a spool directory by default), returns its path.
    std::string spool_file(const std::string& name, const std::string& bytes) const {
        write_file(path("tmp/" + name), bytes);
        return path("tmp/" + name);
    }

    // A web-interface request and its reply (nullopt when none came).
    std::optional<std::string> request(const std::string& text) {
        return client_.request(20205 + offset_, text);
    }
    // The same, "<no reply>" when none came.
    std::string ask(const std::string& text) { return request(text).value_or("<no reply>"); }
    // A datagram to the report port txrx sends to, and an incoming SMS.
    void report(const std::string& datagram) { client_.send_to(20206 + offset_, datagram); }
    void incoming(const std::string& sender, const std::string& text) {
        report("SMS:" + sms_record(sender, text));
    }
    // A report is read before a web request that follows it: once a probe
    // is answered, every earlier report has been handled.
    void settle();

    // txrx-sim's log lines that begin with prefix, and its JOB lines.
    std::vector<std::string> sim_lines(const std::string& prefix) const {
        return lines_starting(file("var/run/txrx-sim.log"), prefix);
    }
    std::vector<std::string> jobs() const { return sim_lines("JOB "); }
    bool wait_jobs(size_t n, Ms deadline = Ms(10000)) const {
        return wait_for([&] { return jobs().size() >= n; }, deadline);
    }
    // The daemon's standard error (its system log lines among it).
    std::string daemon_log() const { return daemon_ ? daemon_->stderr_text() : ""; }

    TempDir root_;
    int offset_ = random_port_offset();
    std::unique_ptr<Daemon> daemon_;
    UdpClient client_;

  private:
    size_t starts_ = 0;
    std::vector<std::string> env_set_;
};

// A simulated modem on a pseudo-terminal: a thread answers the first command
// line (ending in "\r\n") written to the slave with a fixed text. Link
// DIR/dev/ttySN to slave_path() to have the daemon probe it.
class PtyModem : NoCopy {
  public:
    explicit PtyModem(const std::string& answer);
    ~PtyModem();
    const std::string& slave_path() const { return slave_path_; }
    // The command line received, once it is complete and answered ("" when
    // none came within the deadline).
    std::string received() const {
        return got_.wait_for(Ms(5000)) == std::future_status::ready ? got_.get() : "";
    }

  private:
    int master_ = -1, slave_ = -1;
    std::string slave_path_;
    std::atomic<bool> stop_{false};
    std::shared_future<std::string> got_;
};

}  // namespace smsgw::test
