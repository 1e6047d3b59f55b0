#include "support/test_support.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "common/net.h"

namespace smsgw::test {

namespace fs = std::filesystem;

namespace {

const char* const kProbe = "get-sms total-entries groups^|^";

// Starts argv with its output to `out` and its errors to `err` (or `out`),
// with extra "NAME=value" environment entries.
pid_t spawn(std::vector<std::string> argv, const std::string& out, const std::string& err,
            int open_flags, const std::vector<std::string>& env = {}) {
    pid_t pid = ::fork();
    if (pid != 0) return pid;
    int fd = ::open(out.c_str(), O_WRONLY | O_CREAT | open_flags, 0644);
    ::dup2(fd, 1);
    ::dup2(err.empty() ? fd : ::open(err.c_str(), O_WRONLY | O_CREAT | open_flags, 0644), 2);
    for (const auto& e : env) ::putenv(const_cast<char*>(e.c_str()));
    std::vector<char*> args;
    for (auto& a : argv) args.push_back(a.data());
    args.push_back(nullptr);
    ::execvp(args[0], args.data());
    ::_exit(127);
}

// True once a process has released what it held (its ports above all):
// gone from /proc, or a zombie nobody has reaped yet.
bool process_ended(pid_t pid) {
    std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
    size_t close = stat.rfind(')');
    return close == std::string::npos || stat.find_first_of("ZX", close) == close + 2;
}

// Ends every process whose program (argv[0]) lies under root and waits
// until they are gone, so that the next daemon started on the same root
// and ports finds txrx's port free. The processes are the daemon's children,
// not ours, so they cannot be reaped here; an emulated one takes a while
// to die.
void kill_root_children(const std::string& root) {
    std::vector<pid_t> killed;
    std::error_code ec;
    for (const auto& e : fs::directory_iterator("/proc", ec)) {
        pid_t pid = static_cast<pid_t>(std::atoi(e.path().filename().c_str()));
        if (pid > 0 && read_file(e.path() / "cmdline").rfind(root + "/", 0) == 0 &&
            signal_process(pid, SIGKILL))
            killed.push_back(pid);
    }
    wait_for([&] { return std::all_of(killed.begin(), killed.end(), process_ended); }, Ms(10000));
}

std::vector<std::string> daemon_argv(const std::string& root, int offset,
                                     std::vector<std::string> extra) {
    std::vector<std::string> argv = exec_prefix();
    argv.insert(argv.end(), {SMSGWD_PATH, "--root", root, "--port-offset", std::to_string(offset)});
    argv.insert(argv.end(), extra.begin(), extra.end());
    return argv;
}

}  // namespace

std::vector<std::string> exec_prefix() {
    std::vector<std::string> out;
    const char* p = std::getenv("SMSGW_TEST_EXEC_PREFIX");
    std::istringstream in(p ? p : "");
    for (std::string w; in >> w;) out.push_back(w);
    return out;
}

TempDir::TempDir() {
    const char* base = std::getenv("TMPDIR");
    path_ = std::string(base && *base ? base : "/tmp") + "/smsgw-test-XXXXXX";
    if (::mkdtemp(path_.data()) == nullptr) std::abort();
}

TempDir::~TempDir() {
    std::error_code ec;
    fs::remove_all(path_, ec);
}

int random_port_offset() {
    static std::mt19937 rng{std::random_device{}()};
    // Other daemons, simulators and benchmarks run on the same machine at
    // the same time; one of them on our txrx port would swallow our jobs.
    // Ports 20202+off .. 30303+off must stay below 65536.
    auto free = [](int offset) {
        for (int base : {20202, 20203, 20204, 20205, 20206, 20207, 30303})
            if (!UdpClient(base + offset).ok()) return false;
        return true;
    };
    int offset = 0;
    for (int attempt = 0; attempt < 50; ++attempt)
        if (free(offset = 100 + static_cast<int>(rng() % 3000) * 10)) break;
    return offset;
}

std::string padded(std::string s, size_t n) {
    s.resize(n, '\0');
    return s;
}

size_t count_of(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

template <class T>
T int_at(const std::string& bytes, size_t offset) {
    T v = 0;
    if (offset + sizeof v <= bytes.size()) std::memcpy(&v, bytes.data() + offset, sizeof v);
    return v;
}
int32_t i32_at(const std::string& bytes, size_t offset) {
    return int_at<int32_t>(bytes, offset);
}
int16_t i16_at(const std::string& bytes, size_t offset) {
    return int_at<int16_t>(bytes, offset);
}

std::string api_stat_image(std::initializer_list<int32_t> ids, int16_t status) {
    std::string image(4, '\0');
    for (int32_t id : ids)
        image += padded(i32_bytes(id) + std::string(reinterpret_cast<char*>(&status), 2), 60);
    return image;
}

int api_status_of(const std::string& image, int32_t id) {
    for (size_t off = 4; off + 60 <= image.size(); off += 60)
        if (i32_at(image, off) == id) return i16_at(image, off + 4);
    return -1;
}

std::set<std::string> tree_below(const std::string& root, bool with_dirs) {
    std::set<std::string> out;
    std::error_code ec;
    for (const auto& e : fs::recursive_directory_iterator(root, ec))
        if (with_dirs || !e.is_directory() || e.is_symlink())
            out.insert(e.path().lexically_relative(root).string());
    return out;
}

std::vector<std::string> lines_starting(const std::string& text, const std::string& prefix) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        if (line.rfind(prefix, 0) == 0) out.push_back(line);
    return out;
}

void write_file(const std::string& path, const std::string& content) {
    std::error_code ec;
    fs::create_directories(fs::path(path).parent_path(), ec);
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool exists(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

bool wait_for(const std::function<bool()>& pred, Ms deadline) {
    for (auto end = std::chrono::steady_clock::now() + deadline;
         std::chrono::steady_clock::now() < end; std::this_thread::sleep_for(Ms(20)))
        if (pred()) return true;
    return pred();
}

void write_txrx_wrapper(const std::string& root, const std::vector<std::string>& argv,
                        const std::string& redirect) {
    std::string script = "#!/bin/bash\nexec -a \"$0\"";
    for (const auto& w : argv) script += " '" + w + "'";
    std::string path = root + "/bin/txrx";
    ::unlink(path.c_str());  // not through the link to the simulator
    write_file(path, script + " \"$@\"" + redirect + "\n");
    ::chmod(path.c_str(), 0755);
}

void prepare_root(const std::string& root) {
    for (const char* d : {"var/run", "var/config", "var/Jobs", "var/Outbox", "var/Inbox",
                          "var/AddressBook", "var/tmp", "tmp", "dev", "bin", "sbin"})
        fs::create_directories(root + "/" + d);
    // A header and no records: the daemon only updates records it finds.
    write_file(root + "/var/config/api_stat.st", std::string(4, '\0'));
    for (const char* f : {"trigger_broadcast", "preconf_sms", "trigger_ctrl", "authenticate_list"})
        write_file(root + "/var/config/" + f, "");
    // In a cross build the simulator made for this machine is used when
    // present: an emulated one takes a few hundred milliseconds to listen,
    // while the daemon hands a queued job over on its first pass after
    // starting txrx. It handles text only here, so byte order does not
    // matter. Without binfmt_misc the daemon cannot exec an emulated one.
    const std::string host = TXRX_SIM_PATH "-host";
    std::vector<std::string> sim = exec_prefix();
    if (sim.empty() || ::access(host.c_str(), X_OK) == 0) {
        ::symlink(sim.empty() ? TXRX_SIM_PATH : host.c_str(), (root + "/bin/txrx").c_str());
    } else {
        sim.emplace_back(TXRX_SIM_PATH);
        write_txrx_wrapper(root, sim);
    }
    for (const char* p :
         {"bin/msntp", "bin/http-client", "bin/date", "sbin/create_address_book_tar"}) {
        write_file(root + "/" + p,
                   "#!/bin/sh\necho \"$(basename \"$0\") $*\" >> \"$SMSGW_ROOT/calls.log\"\n");
        ::chmod((root + "/" + p).c_str(), 0755);
    }
}

Daemon::Daemon(const std::string& root, int port_offset, std::vector<std::string> extra_args)
    : Child(daemon_argv(root, port_offset, std::move(extra_args)), root + "/daemon.stderr", "", {},
            true),
      root_(root),
      offset_(port_offset) {}

Daemon::~Daemon() {
    kill_now();
    kill_root_children(root_);
}

bool Daemon::wait_ready(Ms deadline) {
    UdpClient c;
    auto answered = [&] { return !running() || c.request(20205 + offset_, kProbe, Ms(300)); };
    return wait_for(answered, deadline) && running();
}

UdpClient::UdpClient(int port) : fd_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in a = smsgw::loopback_address(static_cast<uint16_t>(port));
    if (::bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) return;
    ::close(fd_);
    fd_ = -1;
}

UdpClient::~UdpClient() {
    if (fd_ >= 0) ::close(fd_);
}

void UdpClient::send_to(int port, const std::string& data) {
    sockaddr_in a = smsgw::loopback_address(static_cast<uint16_t>(port));
    ::sendto(fd_, data.data(), data.size(), 0, reinterpret_cast<sockaddr*>(&a), sizeof a);
}

std::optional<std::string> UdpClient::receive(Ms deadline) {
    pollfd p{fd_, POLLIN, 0};
    if (fd_ < 0 || ::poll(&p, 1, static_cast<int>(deadline.count())) <= 0) return std::nullopt;
    char buf[70000];
    socklen_t len = sizeof peer_;
    ssize_t n = ::recvfrom(fd_, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&peer_), &len);
    if (n < 0) return std::nullopt;
    return std::string(buf, static_cast<size_t>(n));
}

std::optional<std::string> UdpClient::request(int port, const std::string& text, Ms deadline) {
    // Drop a late reply to an earlier request.
    while (receive(Ms(0))) {
    }
    send_to(port, std::to_string(text.size()));
    send_to(port, text);
    return receive(deadline);
}

void UdpClient::reply(const std::string& data) {
    ::sendto(fd_, data.data(), data.size(), 0, reinterpret_cast<sockaddr*>(&peer_), sizeof peer_);
}

Child::Child(std::vector<std::string> argv, const std::string& out_path,
             const std::string& err_path, const std::vector<std::string>& env, bool append)
    : pid_(spawn(std::move(argv), out_path, err_path, append ? O_APPEND : O_TRUNC, env)) {}

bool signal_process(pid_t pid, int sig) {
    return pid > 1 && ::kill(pid, sig) == 0;
}

void Child::kill_now(int sig) {
    if (pid_ <= 0) return;
    signal_process(pid_, sig);
    if (sig != SIGKILL) return;
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

bool Child::running() {
    int status = 0;
    if (pid_ <= 0 || ::waitpid(pid_, &status, WNOHANG) != pid_) return pid_ > 0;
    pid_ = -1;
    exit_status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return false;
}

DaemonFixture::~DaemonFixture() {
    daemon_.reset();
    // The dialing word outlives a killed daemon.
    int id = ::shmget(static_cast<key_t>(16384 + offset_), 0, 0);
    if (id >= 0) ::shmctl(id, IPC_RMID, nullptr);
    for (const auto& name : env_set_) ::unsetenv(name.c_str());
}

void DaemonFixture::start(std::vector<std::string> extra_args, bool wait_txrx) {
    daemon_ = std::make_unique<Daemon>(root_.path(), offset_, std::move(extra_args));
    ASSERT_TRUE(daemon_->wait_ready()) << daemon_log();
    if (!wait_txrx) return;
    ++starts_;
    ASSERT_TRUE(wait_for([&] { return sim_lines("START ").size() >= starts_; }, Ms(10000)))
        << daemon_log();
}

void DaemonFixture::seed_contacts(const std::string& address_book, const std::string& groups) {
    write_file(path("var/AddressBook/Address_Book"), address_book);
    if (!groups.empty()) write_file(path("var/AddressBook/groups"), groups);
}

void DaemonFixture::set_env(const std::string& name, const std::string& value) {
    ::setenv(name.c_str(), value.c_str(), 1);
    env_set_.push_back(name);
}

void DaemonFixture::settle() {
    EXPECT_TRUE(request(kProbe).has_value());
}

PtyModem::PtyModem(const std::string& answer) : master_(::posix_openpt(O_RDWR | O_NOCTTY)) {
    if (master_ < 0 || ::grantpt(master_) != 0 || ::unlockpt(master_) != 0) std::abort();
    slave_path_ = ::ptsname(master_);
    // Held open so the master never sees a hang-up between the prober's opens.
    slave_ = ::open(slave_path_.c_str(), O_RDWR | O_NOCTTY);
    got_ = std::async(std::launch::async, [this, answer] {
               std::string got;
               char buf[64];
               while (!stop_ && got.find("\r\n") == std::string::npos) {
                   pollfd p{master_, POLLIN, 0};
                   ssize_t n = ::poll(&p, 1, 50) > 0 ? ::read(master_, buf, sizeof buf) : 0;
                   if (n > 0) got.append(buf, static_cast<size_t>(n));
               }
               [[maybe_unused]] ssize_t n =
                   stop_ ? 0 : ::write(master_, answer.data(), answer.size());
               return got;
           }).share();
}

PtyModem::~PtyModem() {
    stop_ = true;
    got_.wait();
    ::close(slave_);
    ::close(master_);
}

}  // namespace smsgw::test
