#include "sandbox.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "common/net.h"
#include "formats/job_file.h"

namespace powercut {

namespace {

void put_script(const std::string& path, const std::string& text) {
    smsgw::write_file(path, text);
    ::chmod(path.c_str(), 0755);
}

// The pids of the processes whose program (argv[0]) lies under root: the
// transceivers and helpers a daemon started from there.
std::vector<pid_t> started_from(const std::string& root) {
    std::vector<pid_t> out;
    DIR* d = ::opendir("/proc");
    if (!d) return out;
    while (dirent* e = ::readdir(d)) {
        char* end = nullptr;
        auto pid = static_cast<pid_t>(std::strtol(e->d_name, &end, 10));
        if (pid <= 0 || *end != '\0') continue;
        auto cmdline = smsgw::read_file("/proc/" + std::string(e->d_name) + "/cmdline", 4096);
        if (!cmdline) continue;
        std::string arg0 = cmdline->substr(0, cmdline->find('\0'));
        if (arg0.compare(0, root.size() + 1, root + "/") == 0) out.push_back(pid);
    }
    ::closedir(d);
    return out;
}

bool gone(pid_t pid) {
    auto stat = smsgw::read_file("/proc/" + std::to_string(pid) + "/stat", 512);
    if (!stat) return true;
    size_t close = stat->rfind(')');
    return close == std::string::npos || stat->compare(close, 4, ") Z ") == 0;
}

}  // namespace

void remove_tree(const std::string& path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) return;
    if (!S_ISDIR(st.st_mode)) {
        ::unlink(path.c_str());
        return;
    }
    std::vector<std::string> children;
    if (DIR* d = ::opendir(path.c_str())) {
        while (dirent* e = ::readdir(d)) {
            std::string n = e->d_name;
            if (n != "." && n != "..") children.push_back(n);
        }
        ::closedir(d);
    }
    for (const auto& c : children) {
        std::string child = path;
        remove_tree(child.append("/").append(c));
    }
    ::rmdir(path.c_str());
}

void prepare_root(const std::string& root, const Programs& programs) {
    for (const char* d : {"var/run", "var/config", "var/Jobs", "var/Outbox", "var/Inbox",
                          "var/AddressBook", "var/tmp", "tmp", "dev", "bin", "sbin"})
        smsgw::make_dirs(root + "/" + d);
    smsgw::write_file(root + "/var/config/api_stat.st", std::string(4, '\0'));
    for (const char* f : {"trigger_broadcast", "preconf_sms", "trigger_ctrl", "authenticate_list"})
        smsgw::write_file(root + "/var/config/" + f, "");
    smsgw::write_file(root + "/var/config/international_dialing",
                      "int-dialing=enable\nmax-digits=12\n");
    // The driver holds txrx's port: the simulator the daemon starts stays
    // idle. An emulated daemon cannot exec it directly without binfmt_misc.
    std::string host_sim = programs.txrx_sim + "-host";
    if (programs.exec_prefix.empty()) {
        ::symlink(programs.txrx_sim.c_str(), (root + "/bin/txrx").c_str());
    } else if (::access(host_sim.c_str(), X_OK) == 0) {
        ::symlink(host_sim.c_str(), (root + "/bin/txrx").c_str());
    } else {
        std::string script = "#!/bin/sh\nexec";
        for (const auto& w : programs.exec_prefix) script += " '" + w + "'";
        put_script(root + "/bin/txrx", script + " '" + programs.txrx_sim + "' \"$@\"\n");
    }
    for (const char* p :
         {"bin/msntp", "bin/http-client", "bin/date", "sbin/create_address_book_tar"})
        put_script(root + "/" + p, "#!/bin/sh\nexit 0\n");
}

Daemon::Daemon(const Programs& programs, const std::string& root, int offset,
               const std::string& log, Recording recording)
    : root_(root) {
    std::vector<std::string> argv = programs.exec_prefix;
    if (!argv.empty()) {
        // The emulated daemon gets the shim through the emulator: preloading
        // it into the emulator itself would not work.
        argv.insert(argv.begin() + 1, {"-E", "LD_PRELOAD=" + programs.shim});
    }
    argv.insert(argv.end(),
                {programs.smsgwd, "--root", root, "--port-offset", std::to_string(offset)});
    const std::string err = root + "/daemon.stderr";
    pid_ = ::fork();
    if (pid_ != 0) return;
    int out = ::open(err.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (out >= 0) {
        ::dup2(out, 1);
        ::dup2(out, 2);
    }
    if (programs.exec_prefix.empty()) ::setenv("LD_PRELOAD", programs.shim.c_str(), 1);
    ::setenv("POWERCUT_LOG", log.c_str(), 1);
    ::setenv("POWERCUT_ROOT", root.c_str(), 1);
    ::setenv("POWERCUT_FILES", recording == Recording::Files ? "1" : "0", 1);
    ::setenv("POWERCUT_FAST", "1", 1);
    // An instrumented daemon finds the shim ahead of its sanitizer runtime.
    ::setenv("ASAN_OPTIONS", "verify_asan_link_order=0:detect_leaks=0", 1);
    std::vector<char*> args;
    args.reserve(argv.size() + 1);
    for (auto& a : argv) args.push_back(a.data());
    args.push_back(nullptr);
    ::execvp(args[0], args.data());
    ::_exit(127);
}

Daemon::~Daemon() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    std::vector<pid_t> children = started_from(root_);
    for (pid_t p : children) ::kill(p, SIGKILL);
    wait_until(
        [&] {
            for (pid_t p : children)
                if (!gone(p)) return false;
            return true;
        },
        Millis(10000));
}

bool Daemon::running() {
    if (pid_ <= 0) return false;
    if (::waitpid(pid_, nullptr, WNOHANG) != pid_) return true;
    pid_ = -1;
    return false;
}

Udp::Udp(int port) : fd_(smsgw::bind_udp(static_cast<uint16_t>(port))) {}

int Udp::port() const {
    sockaddr_in a{};
    socklen_t len = sizeof a;
    ::getsockname(fd_.get(), reinterpret_cast<sockaddr*>(&a), &len);
    return ntohs(a.sin_port);
}

void Udp::send_to(int port, const std::string& data) const {
    sockaddr_in a = smsgw::loopback_address(static_cast<uint16_t>(port));
    ::sendto(fd_.get(), data.data(), data.size(), 0, reinterpret_cast<sockaddr*>(&a), sizeof a);
}

std::optional<std::string> Udp::receive(Millis deadline) const {
    pollfd p{fd_.get(), POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(deadline.count())) <= 0) return std::nullopt;
    std::string buf(70000, '\0');
    ssize_t n = ::recv(fd_.get(), buf.data(), buf.size(), 0);
    if (n < 0) return std::nullopt;
    buf.resize(static_cast<size_t>(n));
    return buf;
}

std::optional<std::string> Udp::request(int port, const std::string& text, Millis deadline) const {
    while (receive(Millis(0))) {
    }
    send_to(port, std::to_string(text.size()));
    send_to(port, text);
    return receive(deadline);
}

std::string job_text(const std::string& bytes) {
    auto job = smsgw::decode_job_file(bytes);
    return job ? job->text() : std::string();
}

}  // namespace powercut
