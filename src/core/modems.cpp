#include "core/modems.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "common/fileops.h"
#include "common/spawn.h"
#include "common/text.h"
#include "common/trace.h"

namespace smsgw {

namespace {

// An EAGAIN from open() means the port is busy for a moment; a port that
// stays busy must not hold up start-up forever.
constexpr int kBusyOpenTries = 30;

std::string first_cmdline_arg(const std::string& pid_dir) {
    auto text = read_file(pid_dir + "/cmdline", 4096);
    if (!text) return {};
    size_t nul = text->find('\0');
    return nul == std::string::npos ? *text : text->substr(0, nul);
}

std::string process_name(const std::string& pid_dir) {
    auto text = read_file(pid_dir + "/comm", 64);
    if (!text) return {};
    while (!text->empty() && text->back() == '\n') text->pop_back();
    return *text;
}

}  // namespace

void put_in_file(const std::string& file, std::string_view line) {
    trace("In - %s()\n", "put_in_file");
    std::string text(line);
    text += '\n';
    append_file(file, text);
}

std::vector<std::string> list_serial_devices(const Runtime& rt) {
    std::vector<std::string> names;
    DIR* dir = ::opendir(rt.path("/dev").c_str());
    if (!dir) return names;
    while (dirent* e = ::readdir(dir)) {
        std::string_view name = e->d_name;
        if (starts_with(name, "ttyS")) names.emplace_back("/dev/" + std::string(name));
    }
    ::closedir(dir);
    std::sort(names.begin(), names.end());
    return names;
}

int getserialfd(const std::string& path) {
    if (path.empty()) {
        trace("Sig_strength: Serial device name not specified \n Error Opening \n");
        return -1;
    }
    trace("In - %s %s %s\r\n", "getserialfd", path.c_str(), path.c_str());
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) {
        trace("In - else\r\nSig_strength: Serial device does not exists \n Error Opening \n");
        return -1;
    }
    if (!S_ISCHR(st.st_mode)) {
        trace("In - else\r\nSig_strength: Serial device type 0x%x, is wrong\n Error Opening \n",
              st.st_mode);
        return -1;
    }
    Fd fd;
    for (int tries = 0;; ++tries) {
        errno = 0;
        fd.reset(::open(path.c_str(), O_RDWR | O_CLOEXEC));
        if (fd) break;
        trace("Failed to open serial - %d\r\n", errno);
        if (errno != EAGAIN || tries + 1 >= kBusyOpenTries) {
            trace("Sig_strength: Error opening Device!, %d\n Error Opening \n", errno);
            return -1;
        }
        trace("Sig_strength: Error \n");
        std::this_thread::sleep_for(std::chrono::seconds(1));
    }
    int flags = ::fcntl(fd.get(), F_GETFL);
    if (flags < 0 || ::fcntl(fd.get(), F_SETFL, flags & ~O_NONBLOCK) < 0) {
        trace(" Error in fcntl on serial port\n");
        return -1;
    }
    ::tcflush(fd.get(), TCIFLUSH);
    ::tcflush(fd.get(), TCOFLUSH);
    termios tio{};
    if (::tcgetattr(fd.get(), &tio) != 0) {
        trace("Sig_strength: tcgetattr error, errno=%d\n", errno);
        std::memset(&tio, 0, sizeof tio);
    }
    // Nothing configures the line, so the defaults hold: 115200 bit/s,
    // 8 data bits, 1 stop bit, no parity, RTS/CTS flow control.
    tio.c_cflag = B115200 | CREAD | CLOCAL | CS8 | CRTSCTS;
    ::cfsetispeed(&tio, B115200);
    ::cfsetospeed(&tio, B115200);
    tio.c_iflag = 0;
    tio.c_oflag &= ~static_cast<tcflag_t>(OPOST | ONLCR);
    tio.c_lflag &=
        ~static_cast<tcflag_t>(ISIG | ICANON | ECHO | ECHOE | ECHOK | ECHOCTL | ECHOKE | IEXTEN);
    // A read returns at once with what has arrived; the probe waits itself.
    tio.c_cc[VMIN] = 0;
    tio.c_cc[VTIME] = 0;
    if (::tcsetattr(fd.get(), TCSAFLUSH, &tio) != 0) {
        trace("Unable to set serial attributes\n");
        return -1;
    }
    if (::tcgetattr(fd.get(), &tio) != 0) trace("Sig_strength: tcgetattr error, errno=%d\n", errno);
    return fd.release();
}

bool signal_value_usable(std::string_view answer) {
    size_t colon = answer.find(':');
    if (colon == std::string_view::npos) return false;
    // Leading blanks, a sign and digits; what follows does not matter. strtol
    // rather than "%d", which is undefined for a number beyond int.
    std::string rest(answer.substr(colon + 1));
    char* end = nullptr;
    long value = std::strtol(rest.c_str(), &end, 10);
    if (end == rest.c_str()) return false;
    trace("Read - %ld - %s\n", value, std::string(answer).c_str());
    // 0, 99 (unknown), negatives and anything above 31 fail.
    return value >= 1 && value <= 31;
}

int probe_modem(const std::string& path, int settle_ms) {
    Fd fd(getserialfd(path));
    if (fd.get() < 1) return -1;
    static constexpr char kCommand[] = "AT+CSQ";
    if (::write(fd.get(), kCommand, 6) != 6) return -1;
    if (::write(fd.get(), "\r\n", 2) != 2) return -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(settle_ms));
    trace("Wrote - %s to %d\n", kCommand, fd.get());
    char answer[300] = {};
    ssize_t n = ::read(fd.get(), answer, sizeof answer - 1);
    if (n <= 0) return -1;
    std::string_view text(answer, static_cast<size_t>(n));
    // The answer is text: what follows a NUL is not part of it.
    text = text.substr(0, text.find('\0'));
    return signal_value_usable(text) ? 0 : -1;
}

void find_wireless_modems(Runtime& rt, int settle_ms) {
    trace("In - %s()\n", "find_wireless_modems");
    const std::string list = rt.path("/var/run/wirelessmodems");
    for (const std::string& device : list_serial_devices(rt)) {
        if (probe_modem(rt.path(device), settle_ms) != 0) continue;
        put_in_file(list, device);
        ++rt.no_of_modems;
    }
}

std::vector<pid_t> TxrxSupervisor::spawn_txrx_for_each_modem() {
    trace("In - %s()\n", "spawn_txrx_for_each_modem");
    std::vector<pid_t> started;
    FilePtr list = open_file(rt_.path("/var/run/wirelessmodems"), "r");
    if (!list) return started;
    const std::string program = rt_.path("/bin/txrx");
    char line[100];
    while (std::fgets(line, sizeof line, list.get())) {
        line[std::strcspn(line, "\n")] = '\0';
        trace("%s %s %d\n", program.c_str(), line, static_cast<int>(::getpid()));
        pid_t pid = spawn_program({program, line});
        if (pid > 0) {
            started.push_back(pid);
            children_.push_back(pid);
        }
    }
    return started;
}

bool TxrxSupervisor::txrx_monitor() {
    if (!txrx_enabled_) return false;
    pid_t pid = read_pid_file(rt_.path("/var/run/txrx_pid_file"));
    bool restarted = false;
    if (pid > 0) {
        trace("Pid - %d\n", static_cast<int>(pid));
        if (process_state(pid) == "zombie") {
            spawn_txrx_for_each_modem();
            restarted = true;
        }
    }
    // The recorded txrx stays unreaped unless it was just replaced: if it
    // died after the look above, the next SIGCHLD must still find it.
    reap_exited(restarted ? 0 : pid);
    return restarted;
}

bool TxrxSupervisor::wait_until_listening(const std::vector<pid_t>& started, uint16_t port,
                                          std::chrono::milliseconds limit) const {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        if (udp_port_bound(port)) return true;
        // A child that ended is left unreaped for txrx_monitor to see.
        bool alive = std::any_of(started.begin(), started.end(), [](pid_t pid) {
            std::string state = process_state(pid);
            return !state.empty() && state != "zombie";
        });
        if (!alive || std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

void TxrxSupervisor::track(pid_t pid) {
    if (pid > 0) children_.push_back(pid);
}

void TxrxSupervisor::stop_children(std::chrono::milliseconds grace) {
    // What stays after the reap is alive and still ours: a pid that was
    // reaped elsewhere may belong to someone else by now.
    reap_exited(0);
    for (pid_t child : children_) ::kill(child, SIGTERM);
    const auto deadline = std::chrono::steady_clock::now() + grace;
    while (!children_.empty() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        reap_exited(0);
    }
    for (pid_t child : children_) {
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
    }
    children_.clear();
}

void TxrxSupervisor::reap_exited(pid_t keep) {
    auto gone = [keep](pid_t child) {
        if (child == keep) return false;
        pid_t r = ::waitpid(child, nullptr, WNOHANG);
        return r == child || (r < 0 && errno == ECHILD);
    };
    children_.erase(std::remove_if(children_.begin(), children_.end(), gone), children_.end());
}

bool udp_port_bound(uint16_t port) {
    FilePtr table = open_file("/proc/net/udp", "r");
    if (!table) return false;
    char line[256];
    // "   0: 0100007F:4EEA 00000000:0000 07 ...": the local port is the hex
    // number after the second colon; the heading line has no such number.
    while (std::fgets(line, sizeof line, table.get())) {
        const char* slot_end = std::strchr(line, ':');
        const char* port_at = slot_end ? std::strchr(slot_end + 1, ':') : nullptr;
        if (!port_at) continue;
        char* end = nullptr;
        unsigned long local = std::strtoul(port_at + 1, &end, 16);
        if (end != port_at + 1 && *end == ' ' && local == port) return true;
    }
    return false;
}

std::string process_state(pid_t pid) {
    FilePtr status = open_file("/proc/" + std::to_string(pid) + "/status", "r");
    if (!status) return {};
    char line[199];
    while (std::fgets(line, sizeof line, status.get())) {
        if (std::strncmp(line, "State:", 6) != 0) continue;
        const char* open = std::strchr(line, '(');
        const char* close = std::strchr(line, ')');
        if (!open || !close || close < open) return {};
        return std::string(open + 1, close);
    }
    return {};
}

pid_t read_pid_file(const std::string& path) {
    auto text = read_file(path, 200);
    if (!text) return 0;
    int pid = c_atoi(*text);
    // 0, -1 and other non-positive values would signal whole process groups.
    return pid > 1 ? static_cast<pid_t>(pid) : 0;
}

int kill_stale_children(const Runtime& rt) {
    const std::string txrx = rt.path("/bin/txrx");
    const std::string msntp = rt.path("/bin/msntp");
    const bool by_name = rt.paths.is_default();
    const pid_t self = ::getpid();
    int killed = 0;
    DIR* proc = ::opendir("/proc");
    if (!proc) return 0;
    while (dirent* e = ::readdir(proc)) {
        auto pid = parse_number(e->d_name, 1, 1 << 30);
        if (!pid || static_cast<pid_t>(*pid) == self) continue;
        const std::string dir = std::string("/proc/") + e->d_name;
        std::string arg0 = first_cmdline_arg(dir);
        bool stale = arg0 == txrx || arg0 == msntp;
        if (!stale && by_name) {
            std::string name = process_name(dir);
            stale = name == "txrx" || name == "msntp";
        }
        if (stale && ::kill(static_cast<pid_t>(*pid), SIGKILL) == 0) ++killed;
    }
    ::closedir(proc);
    return killed;
}

}  // namespace smsgw
