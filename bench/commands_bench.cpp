// Management round trips over loopback against the real daemon, compared
// with a trivial UDP server that reads the same two datagrams and answers
// one. Prints the rates and their ratio against that baseline.
//
//   commands_bench [rounds]
//
// The daemon is the smsgwd next to the bench directory; it runs in a
// temporary root on a random port offset.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "addressbook/address_book.h"
#include "commands/command_parser.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

sockaddr_in loopback(int port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
}

class Client {
  public:
    Client() {
        fd_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in a = loopback(0);
        ::bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a);
    }
    ~Client() { ::close(fd_); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    std::optional<std::string> request(int port, const std::string& text, int timeout_ms) {
        send(port, std::to_string(text.size()));
        send(port, text);
        pollfd p{fd_, POLLIN, 0};
        if (::poll(&p, 1, timeout_ms) <= 0) return std::nullopt;
        char buf[2048];
        ssize_t n = ::recv(fd_, buf, sizeof buf, 0);
        if (n < 0) return std::nullopt;
        return std::string(buf, static_cast<size_t>(n));
    }

  private:
    void send(int port, const std::string& data) {
        sockaddr_in a = loopback(port);
        ::sendto(fd_, data.data(), data.size(), 0, reinterpret_cast<sockaddr*>(&a), sizeof a);
    }
    int fd_ = -1;
};

void write_text(const fs::path& p, const std::string& content) {
    fs::create_directories(p.parent_path());
    std::ofstream(p, std::ios::binary) << content;
}

void prepare_root(const fs::path& root, int contacts) {
    for (const char* d : {"var/run", "var/config", "var/Jobs", "var/Outbox", "var/Inbox",
                          "var/AddressBook", "var/tmp", "tmp", "dev", "bin", "sbin"})
        fs::create_directories(root / d);
    write_text(root / "var/config/api_stat.st", std::string(4, '\0'));
    for (const char* f : {"trigger_broadcast", "preconf_sms", "trigger_ctrl", "authenticate_list"})
        write_text(root / "var/config" / f, "");
    std::string book;
    for (int i = 0; i < contacts; ++i) {
        book += "Contact" + std::to_string(100000 + i) + "^|^" + std::to_string(5550000 + i) +
                "^|^desc^|^^|^\n";
    }
    if (contacts > 0) write_text(root / "var/AddressBook/Address_Book", book);
}

pid_t start_daemon(const std::string& binary, const fs::path& root, int offset) {
    pid_t pid = ::fork();
    if (pid == 0) {
        int null = ::open("/dev/null", O_WRONLY);
        if (null >= 0) {
            ::dup2(null, 1);
            ::dup2(null, 2);
        }
        std::string r = root.string(), o = std::to_string(offset);
        ::execl(binary.c_str(), binary.c_str(), "--root", r.c_str(), "--port-offset", o.c_str(),
                static_cast<char*>(nullptr));
        ::_exit(127);
    }
    return pid;
}

// The baseline: reads the length datagram and the request, answers one.
pid_t start_echo(int port) {
    int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in a = loopback(port);
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) return -1;
    pid_t pid = ::fork();
    if (pid == 0) {
        char buf[2048];
        for (;;) {
            sockaddr_in from{};
            socklen_t len = sizeof from;
            if (::recv(fd, buf, sizeof buf, 0) < 0) ::_exit(1);
            if (::recvfrom(fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from), &len) < 0)
                ::_exit(1);
            ::sendto(fd, "1", 2, 0, reinterpret_cast<sockaddr*>(&from), len);
        }
    }
    ::close(fd);
    return pid;
}

void stop(pid_t pid) {
    if (pid <= 0) return;
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
}

bool wait_ready(int port) {
    Client c;
    auto end = Clock::now() + std::chrono::seconds(20);
    while (Clock::now() < end) {
        if (c.request(port, "get-sms total-entries groups^|^", 200)) return true;
    }
    return false;
}

// Round trips per second; 0 when a reply went missing.
double rate(int port, const std::string& text, int rounds) {
    Client c;
    for (int i = 0; i < rounds / 10 + 1; ++i) c.request(port, text, 2000);  // warm-up
    auto t0 = Clock::now();
    for (int i = 0; i < rounds; ++i) {
        if (!c.request(port, text, 2000)) return 0;
    }
    std::chrono::duration<double> secs = Clock::now() - t0;
    return rounds / secs.count();
}

// The parser alone, in this process, on the same book: how much of a round
// trip is the command's own work.
double parser_micros(const std::string& request, int contacts, int rounds) {
    char tmpl[] = "/tmp/commands_bench.XXXXXX";
    if (!::mkdtemp(tmpl)) return 0;
    fs::path root = tmpl;
    prepare_root(root, 0);
    smsgw::Runtime rt(root.string());
    smsgw::AddressBook ab(rt.reply_buffer);
    for (int i = 0; i < contacts; ++i)
        ab.ab_insert("Contact" + std::to_string(100000 + i), std::to_string(5550000 + i), "desc");
    smsgw::RuleLists rules(rt);
    smsgw::DialingSegment dialing;
    smsgw::CommandParser parser(rt, ab, rules, dialing);
    auto t0 = Clock::now();
    for (int i = 0; i < rounds; ++i) {
        parser.parse_command(request);
        parser.release_token();
    }
    std::chrono::duration<double, std::micro> us = Clock::now() - t0;
    std::error_code ec;
    fs::remove_all(root, ec);
    return us.count() / rounds;
}

struct Run {
    const char* name;
    std::string request;
    int contacts;
    double goal;
};

}  // namespace

int main(int argc, char** argv) {
    int rounds = argc > 1 ? std::atoi(argv[1]) : 2000;
    if (rounds <= 0) rounds = 2000;
    fs::path self = fs::read_symlink("/proc/self/exe");
    std::string daemon_bin = (self.parent_path().parent_path() / "smsgwd").string();
    if (!fs::exists(daemon_bin)) {
        std::fprintf(stderr, "smsgwd not found at %s\n", daemon_bin.c_str());
        return 1;
    }
    std::mt19937 rng(std::random_device{}());
    const Run runs[] = {
        {"total-entries", "get-sms total-entries phone_book^|^", 0, 0.5},
        {"first page of 20000", "get-sms phone_book 1^|^", 20000, 0.25},
    };
    int failures = 0;
    for (const auto& run : runs) {
        int offset = 2000 + static_cast<int>(rng() % 20000);
        char tmpl[] = "/tmp/commands_bench.XXXXXX";
        if (!::mkdtemp(tmpl)) return 1;
        fs::path root = tmpl;
        prepare_root(root, run.contacts);

        pid_t echo = start_echo(40000 + offset % 20000);
        double echo_rate = echo > 0 ? rate(40000 + offset % 20000, run.request, rounds) : 0;
        stop(echo);

        pid_t daemon = start_daemon(daemon_bin, root, offset);
        double daemon_rate = 0;
        if (wait_ready(20205 + offset)) daemon_rate = rate(20205 + offset, run.request, rounds);
        stop(daemon);
        int id = ::shmget(static_cast<key_t>(16384 + offset), 0, 0);
        if (id >= 0) ::shmctl(id, IPC_RMID, nullptr);
        std::error_code ec;
        fs::remove_all(root, ec);

        double ratio = echo_rate > 0 ? daemon_rate / echo_rate : 0;
        bool met = ratio >= run.goal;
        if (!met) ++failures;
        std::printf("%-22s daemon %9.0f/s  echo %9.0f/s  ratio %.2fx  (goal >= %.2fx) %s\n",
                    run.name, daemon_rate, echo_rate, ratio, run.goal, met ? "ok" : "MISSED");
        std::printf("%-22s parse_command alone %.1f us per command\n", "",
                    parser_micros(run.request, run.contacts, rounds));
    }
    return failures == 0 ? 0 : 2;
}
