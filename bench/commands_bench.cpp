// Management round trips over loopback against the real daemon, compared
// with a trivial UDP server that reads the same two datagrams and answers
// one. Prints the rates and their ratio against that baseline.
//
//   commands_bench [rounds]
//
// The daemon is the smsgwd next to the bench directory; it runs in a
// temporary root on a random port offset.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>

#include "addressbook/address_book.h"
#include "commands/command_parser.h"
#include "support/test_support.h"

namespace test = smsgw::test;
using Clock = std::chrono::steady_clock;

namespace {

constexpr std::chrono::milliseconds kReplyDeadline(2000);

// A sandbox root with `contacts` contacts in its address book.
void seed_root(const std::string& root, int contacts) {
    test::prepare_root(root);
    // Without a transceiver, so that nothing but the daemon competes with
    // the round trips for the two cores.
    ::unlink((root + "/bin/txrx").c_str());
    std::string book;
    for (int i = 0; i < contacts; ++i) {
        book += "Contact" + std::to_string(100000 + i) + "^|^" + std::to_string(5550000 + i) +
                "^|^desc^|^^|^\n";
    }
    if (contacts > 0) test::write_file(root + "/var/AddressBook/Address_Book", book);
}

// The baseline: reads the length datagram and the request, answers one.
// Blocking reads without a poll in between, so that it costs as little as
// a server of this kind can.
pid_t start_echo(int port) {
    int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
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

// The dialing word outlives a killed daemon.
void remove_shm(int offset) {
    int id = ::shmget(static_cast<key_t>(16384 + offset), 0, 0);
    if (id >= 0) ::shmctl(id, IPC_RMID, nullptr);
}

// Round trips per second; 0 when a reply went missing.
double rate(int port, const std::string& text, int rounds) {
    test::UdpClient c;
    for (int i = 0; i < rounds / 10 + 1; ++i) c.request(port, text, kReplyDeadline);  // warm-up
    auto t0 = Clock::now();
    for (int i = 0; i < rounds; ++i) {
        if (!c.request(port, text, kReplyDeadline)) return 0;
    }
    std::chrono::duration<double> secs = Clock::now() - t0;
    return rounds / secs.count();
}

// The parser alone, in this process, on the same book: how much of a round
// trip is the command's own work.
double parser_micros(const std::string& request, int contacts, int rounds) {
    test::TempDir root;
    seed_root(root.path(), 0);
    smsgw::Runtime rt(root.path());
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
    return us.count() / rounds;
}

// The daemon's rate on a fresh root, 0 when it never answered.
double daemon_rate(const std::string& request, int contacts, int offset, int rounds) {
    test::TempDir root;
    seed_root(root.path(), contacts);
    double result = 0;
    {
        test::Daemon daemon(root.path(), offset);
        if (daemon.wait_ready(std::chrono::seconds(20)))
            result = rate(20205 + offset, request, rounds);
    }
    remove_shm(offset);
    return result;
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
    if (::access(SMSGWD_PATH, X_OK) != 0) {
        std::fprintf(stderr, "smsgwd not found at %s\n", SMSGWD_PATH);
        return 1;
    }
    const Run runs[] = {
        {"total-entries", "get-sms total-entries phone_book^|^", 0, 0.5},
        {"first page of 20000", "get-sms phone_book 1^|^", 20000, 0.25},
    };
    int failures = 0;
    for (const auto& run : runs) {
        const int offset = test::random_port_offset();
        const int echo_port = 40000 + offset % 20000;

        pid_t echo = start_echo(echo_port);
        double echo_rate = echo > 0 ? rate(echo_port, run.request, rounds) : 0;
        stop(echo);

        double d_rate = daemon_rate(run.request, run.contacts, offset, rounds);
        double ratio = echo_rate > 0 ? d_rate / echo_rate : 0;
        bool met = ratio >= run.goal;
        if (!met) ++failures;
        std::printf("%-22s daemon %9.0f/s  echo %9.0f/s  ratio %.2fx  (goal >= %.2fx) %s\n",
                    run.name, d_rate, echo_rate, ratio, run.goal, met ? "ok" : "MISSED");
        std::printf("%-22s parse_command alone %.1f us per command\n", "",
                    parser_micros(run.request, run.contacts, rounds));
    }
    return failures == 0 ? 0 : 2;
}
