// txrx-sim: a stand-in for the per-modem transceiver, for tests and demos.
//
//   txrx-sim DEVICE              run as the daemon's txrx child
//   txrx-sim inject SENDER TEXT  send one incoming-SMS report to the daemon
//   txrx-sim request TEXT        send one web-interface request, print reply
//
// As a child it reads SMSGW_ROOT and SMSGW_PORT_OFFSET, writes its pid to
// ROOT/var/run/txrx_pid_file, listens on 127.0.0.1:20202+offset and appends
// one line per datagram to ROOT/var/run/txrx-sim.log:
//   START <device>
//   JOB <path> api=<0|1> text=<text> to=<n1>,<n2>,...
//   CTL <text>
// After a job it reports "P_JB" to 20206+offset (after SMSGW_SIM_DELAY_MS
// milliseconds; never when SMSGW_SIM_SILENT=1).
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>
#include <thread>

namespace {

constexpr size_t kTextField = 160;
constexpr size_t kNumberRecord = 50;
constexpr size_t kSenderField = 50;
constexpr size_t kMaxJobFile = 16u << 20;

int env_int(const char* name, int fallback) {
    const char* v = std::getenv(name);
    return v && *v ? std::atoi(v) : fallback;
}

std::string root_path(const std::string& absolute) {
    const char* r = std::getenv("SMSGW_ROOT");
    std::string root = r ? r : "/";
    while (!root.empty() && root.back() == '/') root.pop_back();
    return root + absolute;
}

sockaddr_in loopback(int port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
}

int port(int base) {
    return base + env_int("SMSGW_PORT_OFFSET", 0);
}

void send_datagram(int fd, int to_port, const std::string& data) {
    sockaddr_in a = loopback(to_port);
    ::sendto(fd, data.data(), data.size(), 0, reinterpret_cast<sockaddr*>(&a), sizeof a);
}

void log_line(const std::string& line) {
    std::ofstream log(root_path("/var/run/txrx-sim.log"), std::ios::app | std::ios::binary);
    log << line << '\n';
}

std::string until_nul(const char* p, size_t n) {
    const void* nul = std::memchr(p, '\0', n);
    return std::string(p, nul ? static_cast<size_t>(static_cast<const char*>(nul) - p) : n);
}

// "JOB <path> api=<0|1> text=<text> to=<numbers>" for a job file.
std::string describe_job(const std::string& path, bool api) {
    std::string line = "JOB " + path + " api=" + (api ? "1" : "0");
    std::ifstream in(path, std::ios::binary);
    if (!in) return line + " unreadable";
    std::string body;
    char chunk[4096];
    while (body.size() < kMaxJobFile && in.read(chunk, sizeof chunk).gcount() > 0)
        body.append(chunk, static_cast<size_t>(in.gcount()));
    if (body.size() < kTextField) return line + " short=" + std::to_string(body.size());
    line += " text=" + until_nul(body.data(), kTextField) + " to=";
    for (size_t off = kTextField; off + kNumberRecord <= body.size(); off += kNumberRecord) {
        if (off > kTextField) line += ',';
        line += until_nul(body.data() + off, kNumberRecord);
    }
    return line;
}

int run_transceiver(const std::string& device) {
    // The simulator lives and dies with the daemon that started it.
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    {
        std::ofstream pid(root_path("/var/run/txrx_pid_file"), std::ios::trunc);
        pid << ::getpid() << '\n';
    }
    int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a = loopback(port(20202));
    bool bound = fd >= 0 && ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    // Logged once the port is bound, so a watcher knows jobs will arrive.
    log_line("START " + device);
    if (!bound) {
        // Another simulated modem owns the port. Exiting would make the
        // daemon restart every txrx over and over, so stay idle instead.
        log_line("IDLE " + device);
        for (;;) ::pause();
    }
    const int delay_ms = env_int("SMSGW_SIM_DELAY_MS", 0);
    const bool silent = env_int("SMSGW_SIM_SILENT", 0) == 1;
    char buf[2048];
    for (;;) {
        ssize_t n = ::recv(fd, buf, sizeof buf, 0);
        if (n < 0) continue;
        std::string text = until_nul(buf, static_cast<size_t>(n));
        bool api = text.compare(0, 4, "api ") == 0;
        std::string path = api ? text.substr(4) : text;
        if (!path.empty() && path[0] == '/') {
            log_line(describe_job(path, api));
            if (silent) continue;
            if (delay_ms > 0) std::this_thread::sleep_for(std::chrono::milliseconds(delay_ms));
            send_datagram(fd, port(20206), "P_JB");
        } else {
            log_line("CTL " + text);
        }
    }
}

// One incoming-SMS report: tag, 50-byte NUL-padded sender, then the text.
int inject(const std::string& sender, const std::string& text) {
    std::string report = "SMS:";
    std::string field = sender.substr(0, kSenderField - 1);
    field.resize(kSenderField, '\0');
    report += field + text;
    int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) return 1;
    send_datagram(fd, port(20206), report);
    ::close(fd);
    return 0;
}

// The web interface's framing: the length datagram, then the request.
int request(const std::string& text) {
    int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in any = loopback(0);
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&any), sizeof any) != 0) return 1;
    send_datagram(fd, port(20205), std::to_string(text.size()));
    send_datagram(fd, port(20205), text);
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 5000) <= 0) {
        std::cerr << "no reply\n";
        return 1;
    }
    char buf[70000];
    ssize_t n = ::recv(fd, buf, sizeof buf, 0);
    if (n < 0) return 1;
    std::cout << std::string(buf, static_cast<size_t>(n)) << '\n';
    return 0;
}

void usage() {
    std::cerr << "usage: txrx-sim DEVICE | inject SENDER TEXT | request TEXT\n";
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::string(argv[1]) == "inject") return inject(argv[2], argv[3]);
    if (argc == 3 && std::string(argv[1]) == "request") return request(argv[2]);
    if (argc == 2 && argv[1][0] != '-') return run_transceiver(argv[1]);
    usage();
    return 2;
}
