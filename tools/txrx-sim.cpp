// txrx-sim: a stand-in for the per-modem transceiver, for tests and demos.
//
//   txrx-sim DEVICE              run as the daemon's txrx child
//   txrx-sim inject SENDER TEXT  send one incoming-SMS report to the daemon
//   txrx-sim request TEXT        send one web-interface request, print reply
//   txrx-sim loopback [SENDER] [yy/MM/dd hh:mm:ss+zz]
//                                play the network returning the clock SMS
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
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common/fileops.h"
#include "common/net.h"
#include "common/text.h"
#include "formats/inbox_record.h"
#include "formats/job_file.h"
#include "formats/txrx_datagram.h"
#include "formats/txrx_report.h"

namespace {

constexpr size_t kSenderField = 50;
constexpr size_t kMaxJobFile = 16u << 20;

int env_int(const char* name, int fallback) {
    const char* v = std::getenv(name);
    return v && *v ? smsgw::c_atoi(v) : fallback;
}

std::string root_path(const std::string& absolute) {
    const char* r = std::getenv("SMSGW_ROOT");
    std::string root = r ? r : "/";
    while (!root.empty() && root.back() == '/') root.pop_back();
    return root + absolute;
}

int port(int base) {
    return base + env_int("SMSGW_PORT_OFFSET", 0);
}

void send_datagram(int fd, int to_port, const std::string& data) {
    sockaddr_in a = smsgw::loopback_address(static_cast<uint16_t>(to_port));
    ::sendto(fd, data.data(), data.size(), 0, reinterpret_cast<sockaddr*>(&a), sizeof a);
}

void log_line(const std::string& line) {
    std::ofstream log(root_path("/var/run/txrx-sim.log"), std::ios::app | std::ios::binary);
    log << line << '\n';
}

// "JOB <path> api=<0|1> text=<text> to=<numbers>" for a job file.
std::string describe_job(const std::string& path, bool api) {
    std::string line = "JOB " + path + " api=" + (api ? "1" : "0");
    auto body = smsgw::read_file(path, kMaxJobFile);
    if (!body) return line + " unreadable";
    auto job = smsgw::decode_job_file(*body);
    if (!job) return line + " short=" + std::to_string(body->size());
    line += " text=" + job->text() + " to=";
    for (size_t i = 0; i < job->numbers.size(); ++i) line += (i ? "," : "") + job->numbers[i];
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
    sockaddr_in a = smsgw::loopback_address(static_cast<uint16_t>(port(20202)));
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
        const smsgw::TxrxDatagram d =
            smsgw::decode_txrx_datagram(std::string_view(buf, static_cast<size_t>(n)));
        if (d.kind == smsgw::TxrxDatagram::Kind::Control) {
            log_line("CTL " + d.text);
            continue;
        }
        log_line(describe_job(d.text, d.kind == smsgw::TxrxDatagram::Kind::ApiJob));
        if (silent) continue;
        if (delay_ms > 0) std::this_thread::sleep_for(std::chrono::milliseconds(delay_ms));
        send_datagram(fd, port(20206), smsgw::encode_job_done_report());
    }
}

// One incoming-SMS report: tag, 50-byte NUL-padded sender, then the text.
int inject(const std::string& sender, const std::string& text) {
    const std::string report = smsgw::encode_incoming_report(sender, text);
    int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) return 1;
    send_datagram(fd, port(20206), report);
    ::close(fd);
    return 0;
}

// The web interface's framing: the length datagram, then the request.
int request(const std::string& text) {
    int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in any = smsgw::loopback_address(0);
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

// The gateway sets its clock by sending itself an SMS; the receiving side
// stores the returned SMS with the service centre's stamp in the inbox and
// reports it. Appended like a real receiver would, so an inbox that already
// holds a loop-back record keeps the older stamp in effect.
constexpr char kLoopBackText[] = "TIMESETTINGS_LOOP_BACK_MSG";
constexpr char kDefaultLoopBackSender[] = "+15550100";

bool is_digits(const std::string& s, size_t from, size_t n) {
    if (from > s.size() || n > s.size() - from) return false;
    for (size_t i = from; i < from + n; ++i)
        if (s[i] < '0' || s[i] > '9') return false;
    return true;
}

bool valid_date_stamp(const std::string& d) {  // yy/MM/dd
    return d.size() == 8 && is_digits(d, 0, 2) && d[2] == '/' && is_digits(d, 3, 2) &&
           d[5] == '/' && is_digits(d, 6, 2);
}

bool valid_time_stamp(const std::string& t) {  // hh:mm:ss then +zz or -zz
    return t.size() >= 10 && is_digits(t, 0, 2) && t[2] == ':' && is_digits(t, 3, 2) &&
           t[5] == ':' && is_digits(t, 6, 2) && (t[8] == '+' || t[8] == '-') &&
           is_digits(t, 9, t.size() - 9);
}

// The network's stamp for "now", in UTC (the daemon ignores the zone).
std::pair<std::string, std::string> now_stamp() {
    std::time_t now = std::time(nullptr);
    std::tm utc{};
    ::gmtime_r(&now, &utc);
    char date[16];
    char time[16];
    std::strftime(date, sizeof date, "%y/%m/%d", &utc);
    std::strftime(time, sizeof time, "%H:%M:%S+00", &utc);
    return {date, time};
}

// loopback [SENDER] [STAMP]: STAMP is "yy/MM/dd hh:mm:ss+zz" as one
// argument or as two.
int loopback(const std::vector<std::string>& args) {
    std::string sender = kDefaultLoopBackSender;
    std::vector<std::string> stamp = args;
    if (!stamp.empty() && !valid_date_stamp(stamp.front().substr(0, 8))) {
        sender = stamp.front();
        stamp.erase(stamp.begin());
    }
    const bool no_stamp = stamp.empty();
    if (stamp.size() == 1) {
        size_t blank = stamp[0].find(' ');
        if (blank == std::string::npos)
            stamp.clear();
        else
            stamp = {stamp[0].substr(0, blank), stamp[0].substr(blank + 1)};
    }
    std::pair<std::string, std::string> when;
    if (no_stamp) {
        when = now_stamp();
    } else if (stamp.size() == 2 && valid_date_stamp(stamp[0]) && valid_time_stamp(stamp[1])) {
        when = {stamp[0], stamp[1]};
    } else {
        std::cerr << "txrx-sim: the stamp must read yy/MM/dd hh:mm:ss+zz\n";
        return 2;
    }
    if (sender.empty() || sender.size() >= kSenderField ||
        sender.find("^|^") != std::string::npos) {
        std::cerr << "txrx-sim: the sender must be 1 to " << kSenderField - 1
                  << " characters without \"^|^\"\n";
        return 2;
    }
    const std::string record =
        smsgw::encode_inbox_record(sender, when.first, when.second, kLoopBackText);
    if (!smsgw::append_file(root_path("/var/Inbox/smsinbox.dat"), record)) {
        std::cerr << "txrx-sim: cannot append to " << root_path("/var/Inbox/smsinbox.dat") << '\n';
        return 1;
    }
    return inject(sender, kLoopBackText);
}

void usage(std::ostream& out, bool full) {
    out << "usage: txrx-sim DEVICE\n"
           "       txrx-sim inject SENDER TEXT\n"
           "       txrx-sim request TEXT\n"
           "       txrx-sim loopback [SENDER] [yy/MM/dd hh:mm:ss+zz]\n";
    if (!full) return;
    out << "\n"
           "  DEVICE     run as the daemon's txrx child: log START/JOB/CTL lines to\n"
           "             $SMSGW_ROOT/var/run/txrx-sim.log (every job with all its\n"
           "             recipients) and answer each job with \"P_JB\"\n"
           "  inject     report one incoming SMS from SENDER to the daemon\n"
           "  request    send one web-interface request and print the reply\n"
           "  loopback   append the returned clock SMS (stamp default: now, UTC) to\n"
           "             $SMSGW_ROOT/var/Inbox/smsinbox.dat and report it, so the\n"
           "             daemon sets the clock with DIR/bin/date; the first such\n"
           "             record in the inbox is the one the daemon uses\n"
           "\n"
           "environment: SMSGW_ROOT (default /), SMSGW_PORT_OFFSET (default 0),\n"
           "  SMSGW_SIM_DELAY_MS (wait before answering a job),\n"
           "  SMSGW_SIM_SILENT=1 (never answer: a modem that hangs)\n";
}

// A command line that fits none of the forms: what is wrong, the forms,
// and status 2. Nothing is written and no transceiver is started.
int refuse(const std::string& why) {
    std::cerr << "txrx-sim: " << why << "\n";
    usage(std::cerr, false);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> args(argv + 1, argv + argc);
    if (args.empty()) return refuse("a DEVICE or a command is needed");
    const std::string& first = args[0];
    if (first == "--help" || first == "-h") {
        usage(std::cout, true);
        return 0;
    }
    if (first == "inject")
        return args.size() == 3 ? inject(args[1], args[2]) : refuse("inject needs SENDER and TEXT");
    if (first == "request")
        return args.size() == 2 ? request(args[1]) : refuse("request needs one TEXT");
    if (first == "loopback")
        return args.size() <= 4 ? loopback(std::vector<std::string>(args.begin() + 1, args.end()))
                                : refuse("loopback takes at most SENDER and a stamp");
    if (first.empty() || first[0] == '-') return refuse("unknown option '" + first + "'");
    if (args.size() != 1) return refuse("a transceiver takes one DEVICE");
    return run_transceiver(first);
}
