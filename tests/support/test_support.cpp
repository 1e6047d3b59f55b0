#include "support/test_support.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>

namespace smsgw::test {

namespace {

void mkdirs(const std::string& path) {
    std::error_code ec;
    std::filesystem::create_directories(path, ec);
}

sockaddr_in loopback(int port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
}

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
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string stat;
    if (!std::getline(in, stat)) return true;
    size_t close = stat.rfind(')');
    return close == std::string::npos || stat.compare(close, 4, ") Z ") == 0 ||
           stat.compare(close, 4, ") X ") == 0;
}

// Ends every process whose program (argv[0]) lies under root and waits
// until they are gone, so that the next daemon started on the same root
// and ports finds txrx's port free. The processes are the daemon's children,
// not ours, so they cannot be reaped here; an emulated one takes a while
// to die.
void kill_root_children(const std::string& root) {
    std::vector<pid_t> killed;
    DIR* d = ::opendir("/proc");
    if (!d) return;
    while (dirent* e = ::readdir(d)) {
        pid_t pid = static_cast<pid_t>(std::atoi(e->d_name));
        if (pid <= 0) continue;
        std::ifstream in("/proc/" + std::string(e->d_name) + "/cmdline", std::ios::binary);
        std::string arg0;
        std::getline(in, arg0, '\0');
        if (arg0.compare(0, root.size() + 1, root + "/") == 0 && ::kill(pid, SIGKILL) == 0)
            killed.push_back(pid);
    }
    ::closedir(d);
    wait_for([&] { return std::all_of(killed.begin(), killed.end(), process_ended); },
             std::chrono::milliseconds(10000));
}

}  // namespace

std::vector<std::string> exec_prefix() {
    std::vector<std::string> out;
    const char* p = std::getenv("SMSGW_TEST_EXEC_PREFIX");
    std::istringstream in(p ? p : "");
    for (std::string w; in >> w;) out.push_back(w);
    return out;
}

TxrxLaunch txrx_launch() {
    return {TXRX_SIM_PATH, exec_prefix()};
}

TxrxLaunch txrx_child_launch() {
    TxrxLaunch launch = txrx_launch();
    const std::string host = TXRX_SIM_PATH "-host";
    if (!launch.prefix.empty() && ::access(host.c_str(), X_OK) == 0) return {host, {}};
    return launch;
}

TempDir::TempDir() {
    const char* base = std::getenv("TMPDIR");
    std::string tmpl = std::string(base && *base ? base : "/tmp") + "/smsgw-test-XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (::mkdtemp(buf.data()) == nullptr) std::abort();
    path_ = buf.data();
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

// True when nothing holds any UDP port the daemon and its txrx use at this
// offset. Other daemons, simulators and benchmarks run on the same machine
// at the same time; one of them on our txrx port would swallow our jobs.
bool ports_free(int offset) {
    for (int base : {20202, 20203, 20204, 20205, 20206, 20207, 30303})
        if (!UdpClient(base + offset).ok()) return false;
    return true;
}

int random_port_offset() {
    static std::mt19937 rng{std::random_device{}()};
    // Ports 20202+off .. 30303+off must stay below 65536.
    int offset = 0;
    for (int attempt = 0; attempt < 50; ++attempt) {
        offset = 100 + static_cast<int>(rng() % 3000) * 10;
        if (ports_free(offset)) break;
    }
    return offset;
}

std::string rec(const std::string& text) {
    return std::to_string(text.size()) + text;
}

std::string sms_record(const std::string& sender, const std::string& text) {
    std::string field = sender.substr(0, 50);
    field.resize(50, '\0');
    return field + text;
}

size_t count_of(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

std::string i32_bytes(int32_t v) {
    return std::string(reinterpret_cast<const char*>(&v), 4);
}

int32_t i32_at(const std::string& bytes, size_t offset) {
    int32_t v = 0;
    if (offset + 4 <= bytes.size()) std::memcpy(&v, bytes.data() + offset, 4);
    return v;
}

int16_t i16_at(const std::string& bytes, size_t offset) {
    int16_t v = 0;
    if (offset + 2 <= bytes.size()) std::memcpy(&v, bytes.data() + offset, 2);
    return v;
}

std::string api_stat_image(std::initializer_list<int32_t> ids, int16_t status) {
    std::string image(4, '\0');
    for (int32_t id : ids) {
        std::string record = i32_bytes(id);
        record.append(reinterpret_cast<const char*>(&status), 2);
        record.resize(60, '\0');
        image += record;
    }
    return image;
}

int api_status_of(const std::string& image, int32_t id) {
    for (size_t off = 4; off + 60 <= image.size(); off += 60)
        if (i32_at(image, off) == id) return i16_at(image, off + 4);
    return -1;
}

std::set<std::string> tree_below(const std::string& root, bool with_dirs) {
    std::set<std::string> out;
    namespace fs = std::filesystem;
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
    size_t slash = path.rfind('/');
    if (slash != std::string::npos) mkdirs(path.substr(0, slash));
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
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

bool wait_for(const std::function<bool()>& pred, std::chrono::milliseconds deadline) {
    auto end = std::chrono::steady_clock::now() + deadline;
    while (std::chrono::steady_clock::now() < end) {
        if (pred()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return pred();
}

void prepare_root(const std::string& root) {
    for (const char* d : {"var/run", "var/config", "var/Jobs", "var/Outbox", "var/Inbox",
                          "var/AddressBook", "var/tmp", "tmp", "dev", "bin", "sbin"})
        mkdirs(root + "/" + d);
    // A header and no records: the daemon only updates records it finds.
    write_file(root + "/var/config/api_stat.st", std::string(4, '\0'));
    for (const char* f : {"trigger_broadcast", "preconf_sms", "trigger_ctrl", "authenticate_list"})
        write_file(root + "/var/config/" + f, "");
    const TxrxLaunch txrx = txrx_child_launch();
    if (txrx.prefix.empty()) {
        ::symlink(txrx.program.c_str(), (root + "/bin/txrx").c_str());
    } else {
        // Without binfmt_misc the daemon cannot exec the simulator itself;
        // the wrapper keeps its own path as argv[0] so that the process
        // still counts as one of this root's children.
        std::string script = "#!/bin/bash\nexec -a \"$0\"";
        for (const auto& w : txrx.prefix) script += " '" + w + "'";
        script += " '" + txrx.program + "' \"$@\"\n";
        write_file(root + "/bin/txrx", script);
        ::chmod((root + "/bin/txrx").c_str(), 0755);
    }
    const std::string recorder =
        "#!/bin/sh\necho \"$(basename \"$0\") $*\" >> \"$SMSGW_ROOT/calls.log\"\n";
    for (const char* p :
         {"bin/msntp", "bin/http-client", "bin/date", "sbin/create_address_book_tar"}) {
        write_file(root + "/" + p, recorder);
        ::chmod((root + "/" + p).c_str(), 0755);
    }
}

Daemon::Daemon(std::string root, int port_offset, std::vector<std::string> extra_args)
    : root_(std::move(root)), offset_(port_offset), err_path_(root_ + "/daemon.stderr") {
    std::vector<std::string> argv = exec_prefix();
    for (const char* a : {SMSGWD_PATH, "--root"}) argv.emplace_back(a);
    argv.insert(argv.end(), {root_, "--port-offset", std::to_string(offset_)});
    argv.insert(argv.end(), extra_args.begin(), extra_args.end());
    pid_ = spawn(std::move(argv), err_path_, "", O_APPEND);
}

Daemon::~Daemon() {
    kill_now(SIGKILL);
    kill_root_children(root_);
}

void Daemon::kill_now(int sig) {
    if (pid_ <= 0) return;
    ::kill(pid_, sig);
    if (sig == SIGKILL) {
        ::waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
}

bool Daemon::running() {
    if (pid_ <= 0) return false;
    int status = 0;
    pid_t r = ::waitpid(pid_, &status, WNOHANG);
    if (r == pid_) {
        pid_ = -1;
        exit_status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        return false;
    }
    return true;
}

bool Daemon::wait_ready(std::chrono::milliseconds deadline) {
    auto end = std::chrono::steady_clock::now() + deadline;
    UdpClient c;
    while (std::chrono::steady_clock::now() < end) {
        if (!running()) return false;
        auto r = c.request(20205 + offset_, "get-sms total-entries groups^|^",
                           std::chrono::milliseconds(300));
        if (r) return true;
    }
    return false;
}

std::string Daemon::stderr_text() const {
    return read_file(err_path_);
}

UdpClient::UdpClient(int port) : fd_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in a = loopback(port);
    if (::bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) return;
    ::close(fd_);
    fd_ = -1;
}

UdpClient::~UdpClient() {
    if (fd_ >= 0) ::close(fd_);
}

void UdpClient::send_to(int port, const std::string& data) {
    sockaddr_in a = loopback(port);
    ::sendto(fd_, data.data(), data.size(), 0, reinterpret_cast<sockaddr*>(&a), sizeof a);
}

std::optional<std::string> UdpClient::receive(std::chrono::milliseconds deadline) {
    pollfd p{fd_, POLLIN, 0};
    if (fd_ < 0 || ::poll(&p, 1, static_cast<int>(deadline.count())) <= 0) return std::nullopt;
    char buf[70000];
    socklen_t len = sizeof peer_;
    ssize_t n = ::recvfrom(fd_, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&peer_), &len);
    if (n < 0) return std::nullopt;
    return std::string(buf, static_cast<size_t>(n));
}

std::optional<std::string> UdpClient::request(int port, const std::string& text,
                                              std::chrono::milliseconds deadline) {
    // Drop a late reply to an earlier request.
    while (receive(std::chrono::milliseconds(0))) {
    }
    send_to(port, std::to_string(text.size()));
    send_to(port, text);
    return receive(deadline);
}

void UdpClient::reply(const std::string& data) {
    ::sendto(fd_, data.data(), data.size(), 0, reinterpret_cast<sockaddr*>(&peer_), sizeof peer_);
}

Child::Child(std::vector<std::string> argv, const std::string& out_path,
             const std::string& err_path, const std::vector<std::string>& env)
    : pid_(spawn(std::move(argv), out_path, err_path, O_TRUNC, env)) {}

Child::~Child() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
}

int Child::finish(std::chrono::milliseconds deadline) {
    int status = 0;
    if (pid_ <= 0 || !wait_for([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; }, deadline))
        return -1;
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

DaemonFixture::DaemonFixture() {
    prepare_root(root_.path());
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
    ASSERT_TRUE(daemon_->wait_ready()) << daemon_->stderr_text();
    if (!wait_txrx) return;
    ++starts_;
    ASSERT_TRUE(wait_for([&] { return sim_lines("START ").size() >= starts_; },
                         std::chrono::milliseconds(10000)))
        << daemon_->stderr_text();
}

void DaemonFixture::seed_contacts(const std::string& address_book, const std::string& groups) {
    write_file(path("var/AddressBook/Address_Book"), address_book);
    if (!groups.empty()) write_file(path("var/AddressBook/groups"), groups);
}

void DaemonFixture::set_env(const std::string& name, const std::string& value) {
    ::setenv(name.c_str(), value.c_str(), 1);
    env_set_.push_back(name);
}

std::string DaemonFixture::file(const std::string& rel) const {
    return read_file(path(rel));
}

bool DaemonFixture::wait_file(const std::string& rel, const std::string& content,
                              std::chrono::milliseconds deadline) const {
    return wait_for([&] { return file(rel) == content; }, deadline);
}

std::string DaemonFixture::spool_file(const std::string& name, const std::string& bytes) const {
    write_file(path("tmp/" + name), bytes);
    return path("tmp/" + name);
}

std::optional<std::string> DaemonFixture::request(const std::string& text) {
    return client_.request(20205 + offset_, text);
}

std::string DaemonFixture::ask(const std::string& text) {
    return request(text).value_or("<no reply>");
}

void DaemonFixture::report(const std::string& datagram) {
    client_.send_to(20206 + offset_, datagram);
}

void DaemonFixture::incoming(const std::string& sender, const std::string& text) {
    report("SMS:" + sms_record(sender, text));
}

void DaemonFixture::settle() {
    EXPECT_TRUE(request("get-sms total-entries groups^|^").has_value());
}

std::vector<std::string> DaemonFixture::sim_lines(const std::string& prefix) const {
    return lines_starting(file("var/run/txrx-sim.log"), prefix);
}

bool DaemonFixture::wait_jobs(size_t n, std::chrono::milliseconds deadline) const {
    return wait_for([&] { return jobs().size() >= n; }, deadline);
}

PtyModem::PtyModem(std::string answer) : answer_(std::move(answer)) {
    master_ = ::posix_openpt(O_RDWR | O_NOCTTY);
    if (master_ < 0 || ::grantpt(master_) != 0 || ::unlockpt(master_) != 0) std::abort();
    slave_path_ = ::ptsname(master_);
    // Held open so the master never sees a hang-up between the prober's opens.
    slave_ = ::open(slave_path_.c_str(), O_RDWR | O_NOCTTY);
    thread_ = std::thread([this] { serve(); });
}

PtyModem::~PtyModem() {
    stop_ = true;
    thread_.join();
    ::close(slave_);
    ::close(master_);
}

std::string PtyModem::received() {
    std::lock_guard<std::mutex> lock(mu_);
    return received_;
}

void PtyModem::serve() {
    std::string got;
    while (!stop_ && got.find("\r\n") == std::string::npos) {
        pollfd p{master_, POLLIN, 0};
        if (::poll(&p, 1, 50) <= 0) continue;
        char buf[64];
        ssize_t n = ::read(master_, buf, sizeof buf);
        if (n > 0) got.append(buf, static_cast<size_t>(n));
    }
    {
        std::lock_guard<std::mutex> lock(mu_);
        received_ = got;
    }
    if (!stop_ && !answer_.empty()) {
        ssize_t n = ::write(master_, answer_.data(), answer_.size());
        (void)n;
    }
}

}  // namespace smsgw::test
