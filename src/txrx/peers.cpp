#include "txrx/peers.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "common/net.h"
#include "common/text.h"

namespace smsgw::txrx {

namespace {

bool unix_address(const std::string& path, sockaddr_un& a) {
    a = {};
    a.sun_family = AF_UNIX;
    if (path.size() >= sizeof a.sun_path) return false;
    std::memcpy(a.sun_path, path.c_str(), path.size() + 1);
    return true;
}

bool ends_with(const std::string& s, std::string_view tail) {
    return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

// Runs `edit` on the pid file's lines under the lock, then writes them back.
template <typename Edit>
void edit_pid_file(const std::string& file, Edit edit) {
    Fd lock(::open((file + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    if (lock) ::flock(lock.get(), LOCK_EX);
    std::vector<pid_t> pids;
    if (auto text = read_file(file, 65536)) {
        for (std::string_view rest = *text; !rest.empty();) {
            size_t nl = rest.find('\n');
            auto pid = parse_number(rest.substr(0, nl), 2, 1 << 30);
            if (pid && process_alive(static_cast<pid_t>(*pid)))
                pids.push_back(static_cast<pid_t>(*pid));
            rest.remove_prefix(nl == std::string_view::npos ? rest.size() : nl + 1);
        }
    }
    edit(pids);
    std::string out;
    for (pid_t p : pids) out += std::to_string(p) + "\n";
    write_file_atomic(file, out);
}

}  // namespace

Peers::Peers(std::string run_dir, const std::string& device, uint16_t port)
    : run_dir_(std::move(run_dir)), name_(device), port_number_(port) {
    for (char& c : name_)
        if (c == '/') c = '_';
}

Peers::~Peers() {
    if (private_) ::unlink((run_dir_ + "/" + name_ + ".sock").c_str());
}

bool Peers::lock_device() {
    lock_.reset(::open((run_dir_ + "/" + name_ + ".lock").c_str(),
                       O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644));
    return lock_ && ::flock(lock_.get(), LOCK_EX | LOCK_NB) == 0;
}

bool Peers::open_private() {
    sockaddr_un a;
    std::string path = run_dir_ + "/" + name_ + ".sock";
    if (!unix_address(path, a)) return false;
    private_.reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    ::unlink(path.c_str());  // left by a txrx of this device that died
    return private_ && ::bind(private_.get(), reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
}

bool Peers::hold_port() {
    if (port_) return true;
    Fd fd(::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    sockaddr_in a = loopback_address(port_number_);
    if (fd && ::bind(fd.get(), reinterpret_cast<sockaddr*>(&a), sizeof a) == 0)
        port_ = std::move(fd);
    return port_.valid();
}

void Peers::release_port() {
    port_.reset();
}

void Peers::tell_others(std::string_view text) const {
    DIR* dir = ::opendir(run_dir_.c_str());
    if (!dir) return;
    const std::string mine = name_ + ".sock";
    while (dirent* e = ::readdir(dir)) {
        std::string name = e->d_name;
        sockaddr_un a;
        if (name == mine || !ends_with(name, ".sock") || !unix_address(run_dir_ + "/" + name, a))
            continue;
        ::sendto(private_.get(), text.data(), text.size(), MSG_DONTWAIT,
                 reinterpret_cast<sockaddr*>(&a), sizeof a);
    }
    ::closedir(dir);
}

std::optional<std::string> receive_datagram(int fd, size_t max) {
    if (fd < 0) return std::nullopt;
    std::string buf(max, '\0');
    ssize_t n = ::recv(fd, buf.data(), buf.size(), MSG_DONTWAIT);
    if (n < 0) return std::nullopt;
    buf.resize(static_cast<size_t>(n));
    return buf;
}

bool process_alive(pid_t pid) {
    if (pid <= 1 || (::kill(pid, 0) != 0 && errno != EPERM)) return false;
    auto stat = read_file("/proc/" + std::to_string(pid) + "/stat", 512);
    if (!stat) return true;
    // "PID (comm) S ...": the state follows the last ')'.
    size_t close = stat->rfind(')');
    return close == std::string::npos || close + 2 >= stat->size() || (*stat)[close + 2] != 'Z';
}

void pid_file_add(const std::string& file, pid_t pid) {
    edit_pid_file(file, [pid](std::vector<pid_t>& pids) { pids.push_back(pid); });
}

void pid_file_remove(const std::string& file, pid_t pid) {
    edit_pid_file(file, [pid](std::vector<pid_t>& pids) {
        pids.erase(std::remove(pids.begin(), pids.end(), pid), pids.end());
    });
}

void pid_file_promote(const std::string& file, pid_t pid) {
    edit_pid_file(file, [pid](std::vector<pid_t>& pids) {
        pids.erase(std::remove(pids.begin(), pids.end(), pid), pids.end());
        pids.insert(pids.begin(), pid);
    });
}

}  // namespace smsgw::txrx
