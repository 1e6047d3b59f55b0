// The running daemon end to end over its real sockets, each figure against
// a C baseline measured in the same run. Daemon and baseline runs alternate
// and the medians are compared, so both sides see the same machine load.
//
//   round trip  "get-sms total-entries phone_book^|^" on an empty book and
//               the first page of a 20000-contact book, over the
//               web-interface framing (length datagram, request, reply),
//               against a C server that reads the same two datagrams and
//               answers one
//   send-all    a send to "__ALL__" with 20000 contacts, from the request
//               datagram to the hand-off datagram received by a peer on
//               txrx's port, against writing the same job file (160-byte
//               text, 20000 50-byte records) with one stream
//   save        "save-address-book ^|^" with 20000 contacts in 50 groups of
//               400, against a durable write of the same two files
//               (temporary file, fsync, rename, directory fsync)
//
//   e2e_bench [ROUNDS [PART]]   ROUNDS round trips per side (default 3000);
//                               PART "round-trip", "send-all" or "save"
//                               runs that part alone (for profiling)
//
// The daemon is the smsgwd of this build; it runs in a temporary root on a
// random port offset, without a transceiver (the peer takes txrx's port).
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "addressbook/address_book.h"
#include "addressbook/address_book_files.h"
#include "commands/command_parser.h"
#include "common/fileops.h"
#include "common/net.h"
#include "common/runtime.h"
#include "formats/request_file.h"
#include "send/sender.h"
#include "support/test_support.h"

namespace test = smsgw::test;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kContacts = 20000;
constexpr int kGroups = 50;
constexpr int kMembers = 400;
constexpr int kBatches = 9;    // round-trip batches per side
constexpr int kSendRuns = 15;  // sends to "__ALL__" per side
constexpr int kSaveRuns = 9;   // saves per side
constexpr std::chrono::milliseconds kDeadline(5000);

int failures = 0;

const char* verdict(bool met) {
    if (!met) ++failures;
    return met ? "ok" : "MISSED";
}

double seconds_since(Clock::time_point t0) {
    return std::chrono::duration<double>(Clock::now() - t0).count();
}

double median(std::vector<double> v) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

// ------------------------------------------------------------ the sandbox

struct Book {
    std::vector<std::string> names, numbers;
    std::string contacts;  // Address_Book as the daemon saves it
    std::string groups;    // groups, "" without groups
};

// Distinct numbers spread over the whole range, as a real book's are.
std::string number_of(int i) {
    char buf[24];
    unsigned spread = (static_cast<unsigned>(i) * 48271u + 12345u) % 1000000000u;
    std::snprintf(buf, sizeof buf, "+49%09u", spread);
    return buf;
}

// The files written by the address book itself, so they are exactly what
// the daemon would have saved.
Book make_book(const std::string& scratch, int contacts, bool with_groups) {
    Book book;
    smsgw::Runtime rt(scratch);
    smsgw::make_dirs(rt.path("/var/AddressBook"));
    smsgw::ReplyBuffer reply;
    smsgw::AddressBook ab(reply);
    std::vector<smsgw::Entry*> entries;
    for (int i = 0; i < contacts; ++i) {
        book.names.push_back("Contact" + std::to_string(100000 + i));
        book.numbers.push_back(number_of(i));
        smsgw::TrieNode* n = ab.ab_insert(book.names.back(), book.numbers.back(), "desc");
        if (n)
            entries.push_back(
                smsgw::AddressBook::ab_find_number(n->entries.get(), book.numbers.back()));
    }
    for (int g = 0; with_groups && g < kGroups; ++g) {
        smsgw::Group* grp = ab.group_create("group" + std::to_string(10 + g));
        for (int m = 0; m < kMembers; ++m)
            ab.group_add_member_to(grp, entries[static_cast<size_t>(g * kMembers + m)]);
    }
    const std::string path = rt.path("/var/AddressBook/Address_Book");
    {
        smsgw::FilePtr f = smsgw::open_file(path, "w");
        smsgw::ab_save_contacts(ab, f.get());
    }
    book.contacts = smsgw::read_file(path).value_or("");
    if (with_groups) {
        smsgw::ab_save_groups(ab, rt);
        book.groups = smsgw::read_file(rt.path("/var/AddressBook/groups")).value_or("");
    }
    return book;
}

// A sandbox root holding `book`, without a transceiver: nothing but the
// daemon competes for the cores, and the peer can take txrx's port.
void seed_root(const std::string& root, const Book& book) {
    test::prepare_root(root);
    ::unlink((root + "/bin/txrx").c_str());
    if (!book.contacts.empty())
        test::write_file(root + "/var/AddressBook/Address_Book", book.contacts);
    if (!book.groups.empty()) test::write_file(root + "/var/AddressBook/groups", book.groups);
}

// The dialing word outlives a killed daemon.
void remove_shm(int offset) {
    int id = ::shmget(static_cast<key_t>(16384 + offset), 0, 0);
    if (id >= 0) ::shmctl(id, IPC_RMID, nullptr);
}

// The daemon on a fresh root holding `book`, torn down with its root.
class Sandbox {
  public:
    explicit Sandbox(const Book& book) : offset_(test::random_port_offset()) {
        seed_root(root_.path(), book);
        daemon_.emplace(root_.path(), offset_);
        ready_ = daemon_->wait_ready(std::chrono::seconds(30));
    }
    ~Sandbox() {
        daemon_.reset();
        remove_shm(offset_);
    }
    Sandbox(const Sandbox&) = delete;
    Sandbox& operator=(const Sandbox&) = delete;
    bool ready() const { return ready_; }
    pid_t pid() const { return daemon_->pid(); }
    int port(int base) const { return base + offset_; }
    std::string path(const std::string& rel) const { return root_ / rel; }

  private:
    test::TempDir root_;
    int offset_;
    std::optional<test::Daemon> daemon_;
    bool ready_ = false;
};

// ------------------------------------------------------------- round trip

// The baseline: reads the length datagram and the request, answers one.
// Blocking reads without a poll in between, so that it costs as little as
// a server of this kind can.
class EchoServer {
  public:
    explicit EchoServer(int port) : port_(port) {
        int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in a = smsgw::loopback_address(static_cast<uint16_t>(port));
        if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) return;
        pid_ = ::fork();
        if (pid_ == 0) serve(fd);
        ::close(fd);
    }
    ~EchoServer() {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    EchoServer(const EchoServer&) = delete;
    EchoServer& operator=(const EchoServer&) = delete;
    bool ok() const { return pid_ > 0; }
    pid_t pid() const { return pid_; }
    int port() const { return port_; }

  private:
    [[noreturn]] static void serve(int fd) {
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

    int port_;
    pid_t pid_ = -1;
};

// Time a process has spent on a CPU, in seconds (nanosecond resolution).
double cpu_seconds(pid_t pid) {
    unsigned long long ns = 0;
    std::FILE* f = std::fopen(("/proc/" + std::to_string(pid) + "/schedstat").c_str(), "r");
    if (f) {
        if (std::fscanf(f, "%llu", &ns) != 1) ns = 0;
        std::fclose(f);
    }
    return static_cast<double>(ns) * 1e-9;
}

// A "kB" figure of /proc/PID/status, -1 when absent.
long long status_kb(pid_t pid, const std::string& key) {
    std::FILE* f = std::fopen(("/proc/" + std::to_string(pid) + "/status").c_str(), "r");
    long long kb = -1;
    char line[256];
    while (f && std::fgets(line, sizeof line, f))
        if (std::strncmp(line, (key + ":").c_str(), key.size() + 1) == 0)
            kb = std::atoll(line + key.size() + 1);
    if (f) std::fclose(f);
    return kb;
}

struct Batch {
    double rate = 0;        // round trips per second; 0 when a reply went missing
    double server_cpu = 0;  // the server's CPU time per round trip, seconds
};

Batch run_batch(test::UdpClient& c, int port, pid_t server, const std::string& text, int rounds) {
    Batch b;
    const double cpu0 = cpu_seconds(server);
    auto t0 = Clock::now();
    for (int i = 0; i < rounds; ++i)
        if (!c.request(port, text, kDeadline)) return b;
    b.rate = rounds / seconds_since(t0);
    b.server_cpu = (cpu_seconds(server) - cpu0) / rounds;
    return b;
}

// The parser alone, in this process, on the same book: how much of a round
// trip is the command's own work.
double parser_micros(const std::string& request, const Book& book, int rounds) {
    test::TempDir root;
    test::prepare_root(root.path());
    smsgw::Runtime rt(root.path());
    smsgw::AddressBook ab(rt.reply_buffer);
    for (size_t i = 0; i < book.names.size(); ++i)
        ab.ab_insert(book.names[i], book.numbers[i], "desc");
    smsgw::RuleLists rules(rt);
    smsgw::DialingSegment dialing;
    smsgw::TxrxLink link(rt.ports);
    smsgw::CommandParser parser(rt, ab, rules, dialing, link);
    auto t0 = Clock::now();
    for (int i = 0; i < rounds; ++i) {
        parser.parse_command(request);
        parser.release_token();
    }
    return seconds_since(t0) * 1e6 / rounds;
}

void bench_round_trip(const char* name, const std::string& request, const Book& book, int rounds,
                      double goal) {
    Sandbox box(book);
    EchoServer echo(40000 + box.port(0) % 20000);
    if (!box.ready() || !echo.ok()) {
        std::printf("%-20s the daemon or the echo server did not start\n", name);
        ++failures;
        return;
    }
    test::UdpClient c;
    const int batch = std::max(1, rounds / kBatches);
    run_batch(c, echo.port(), echo.pid(), request, batch / 4 + 1);  // warm-up
    run_batch(c, box.port(20205), box.pid(), request, batch / 4 + 1);
    std::vector<double> d_rate, e_rate, d_cpu, e_cpu;
    for (int b = 0; b < kBatches; ++b) {
        Batch e = run_batch(c, echo.port(), echo.pid(), request, batch);
        Batch d = run_batch(c, box.port(20205), box.pid(), request, batch);
        e_rate.push_back(e.rate);
        e_cpu.push_back(e.server_cpu);
        d_rate.push_back(d.rate);
        d_cpu.push_back(d.server_cpu);
    }
    const double d = median(d_rate), e = median(e_rate), ratio = e > 0 ? d / e : 0;
    std::printf("round trip %-20s daemon %7.0f/s  echo %7.0f/s  ratio %.2fx  (goal >= %.2fx) %s\n",
                name, d, e, ratio, goal, verdict(d > 0 && ratio >= goal));
    std::printf("           %-20s server CPU per round trip: daemon %.1f us, echo %.1f us\n", "",
                median(d_cpu) * 1e6, median(e_cpu) * 1e6);
    std::printf("           %-20s parse_command alone %.1f us per command\n", "",
                parser_micros(request, book, std::max(1, rounds / 10)));
}

// -------------------------------------------------------------- send-all

// The job file a send to "__ALL__" must produce: the text field, then the
// numbers in their order (plain digits: byte order), one record each.
std::string expected_job(const std::string& text, std::vector<std::string> numbers) {
    std::sort(numbers.begin(), numbers.end());
    numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
    std::string image(text);
    image.resize(160, '\0');
    for (const auto& n : numbers) {
        std::string rec = n.substr(0, 49);
        rec.resize(50, '\0');
        image += rec;
    }
    return image;
}

// Wall time, and CPU time of the process doing the work, in seconds.
struct Cost {
    double wall = 0, cpu = 0;
};

double thread_cpu_seconds() {
    timespec ts{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// The baseline: the same bytes written with one stream, record by record.
Cost write_with_one_stream(const std::string& path, const std::string& image) {
    Cost c;
    const double cpu0 = thread_cpu_seconds();
    auto t0 = Clock::now();
    FILE* f = std::fopen(path.c_str(), "w");
    if (!f) return c;
    std::fwrite(image.data(), 1, 160, f);
    for (size_t off = 160; off + 50 <= image.size(); off += 50)
        std::fwrite(image.data() + off, 1, 50, f);
    std::fclose(f);
    c.wall = seconds_since(t0);
    c.cpu = thread_cpu_seconds() - cpu0;
    ::unlink(path.c_str());
    return c;
}

// One send from the request datagram to the hand-off datagram; the job file
// is checked against `expected` and removed. nullopt when anything failed.
std::optional<Cost> send_all_once(Sandbox& box, test::UdpClient& web, test::UdpListener& peer,
                                  const std::string& request_file, const std::string& expected,
                                  int run) {
    const std::string path = box.path("tmp/all-" + std::to_string(run));
    test::write_file(path, request_file);
    const std::string text = "send-sms " + path;
    Cost c;
    const double cpu0 = cpu_seconds(box.pid());
    auto t0 = Clock::now();
    web.send_to(box.port(20205), std::to_string(text.size()));
    web.send_to(box.port(20205), text);
    std::optional<std::string> handoff = peer.receive(kDeadline);
    c.wall = seconds_since(t0);
    c.cpu = cpu_seconds(box.pid()) - cpu0;
    std::optional<std::string> reply = web.receive(kDeadline);
    if (!handoff || !reply || !reply->empty()) return std::nullopt;
    const std::string job = handoff->substr(0, handoff->find('\0'));
    bool same = test::read_file(job) == expected;
    ::unlink(job.c_str());
    // The job is done: once a later request is answered, the report has
    // been read and the next send is handed over at once again.
    test::UdpClient txrx;
    txrx.send_to(box.port(20206), "P_JB");
    if (!same || !web.request(box.port(20205), "get-sms total-entries groups^|^", kDeadline))
        return std::nullopt;
    return c;
}

void bench_send_all(const Book& book) {
    Sandbox box(book);
    test::UdpListener peer(box.port(20202));
    if (!box.ready() || !peer.ok()) {
        std::printf("send to __ALL__: the daemon did not start or txrx's port is taken\n");
        ++failures;
        return;
    }
    const std::string text = "to everyone";
    const std::string request_file = smsgw::encode_request_file("admin", text, "__ALL__", "", "");
    const std::string expected = expected_job(text, book.numbers);
    test::UdpClient web;
    std::vector<double> d_wall, d_cpu, b_wall, b_cpu;
    for (int run = 0; run <= kSendRuns; ++run) {
        auto d = send_all_once(box, web, peer, request_file, expected, run);
        if (!d) {
            std::printf("send to __ALL__: no hand-off, no reply or a wrong job file (run %d)\n",
                        run);
            ++failures;
            return;
        }
        Cost b = write_with_one_stream(box.path("tmp/baseline"), expected);
        if (run == 0) continue;  // warm-up
        d_wall.push_back(d->wall);
        d_cpu.push_back(d->cpu);
        b_wall.push_back(b.wall);
        b_cpu.push_back(b.cpu);
    }
    const double d = median(d_wall), b = median(b_wall), ratio = d / b;
    std::printf(
        "send to __ALL__ (%zu contacts), request datagram to hand-off datagram: daemon %.2f ms, "
        "one stream %.2f ms, ratio %.2f (goal <= 5) %s\n",
        book.numbers.size(), d * 1e3, b * 1e3, ratio, verdict(ratio <= 5));
    std::printf("  CPU time: daemon %.2f ms, one stream %.2f ms (ratio %.2f)\n",
                median(d_cpu) * 1e3, median(b_cpu) * 1e3, median(d_cpu) / median(b_cpu));
    std::printf("  daemon memory after the sends: VmRSS %lld kB, VmHWM %lld kB\n",
                status_kb(box.pid(), "VmRSS"), status_kb(box.pid(), "VmHWM"));
}

// ------------------------------------------------------------------ save

// The baseline: `content` replaces `path` durably.
void durable_write(const std::string& path, const std::string& content) {
    const std::string temp = path + ".tmp";
    int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) return;
    bool ok = ::write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size());
    ok = ::fsync(fd) == 0 && ok;
    ::close(fd);
    if (!ok || ::rename(temp.c_str(), path.c_str()) != 0) return;
    int dir = ::open(path.substr(0, path.rfind('/')).c_str(), O_RDONLY | O_DIRECTORY);
    if (dir >= 0) {
        ::fsync(dir);
        ::close(dir);
    }
}

void bench_save(const Book& book) {
    Sandbox box(book);
    if (!box.ready()) {
        std::printf("save: the daemon did not start\n");
        ++failures;
        return;
    }
    test::UdpClient web;
    const std::string save = "save-address-book ^|^";
    if (web.request(box.port(20205), save, kDeadline) != std::optional<std::string>("SUCCESS")) {
        std::printf("save: the daemon did not answer SUCCESS\n");
        ++failures;
        return;
    }
    const std::string contacts = test::read_file(box.path("var/AddressBook/Address_Book"));
    const std::string groups = test::read_file(box.path("var/AddressBook/groups"));
    const bool same = contacts == book.contacts && groups == book.groups;
    test::TempDir scratch;
    std::vector<double> daemon, baseline;
    for (int run = 0; run < kSaveRuns; ++run) {
        auto t0 = Clock::now();
        bool answered = web.request(box.port(20205), save, kDeadline).has_value();
        daemon.push_back(answered ? seconds_since(t0) : 1e9);
        t0 = Clock::now();
        durable_write(scratch / "Address_Book", contacts);
        durable_write(scratch / "groups", groups);
        baseline.push_back(seconds_since(t0));
    }
    const double d = median(daemon), b = median(baseline), ratio = d / b;
    std::printf(
        "save (%d contacts, %d groups of %d): daemon %.2f ms, durable write of the same %zu bytes "
        "%.2f ms, ratio %.2f (goal <= 2) %s\n",
        kContacts, kGroups, kMembers, d * 1e3, contacts.size() + groups.size(), b * 1e3, ratio,
        verdict(same && ratio <= 2));
    if (!same) std::printf("  the saved files differ from the files the daemon loaded\n");
}

}  // namespace

int main(int argc, char** argv) {
    int rounds = argc > 1 ? std::atoi(argv[1]) : 3000;
    if (rounds <= 0) rounds = 3000;
    if (::access(SMSGWD_PATH, X_OK) != 0) {
        std::fprintf(stderr, "smsgwd not found at %s\n", SMSGWD_PATH);
        return 1;
    }
    Book empty, plain, grouped;
    {
        test::TempDir scratch;
        plain = make_book(scratch / "plain", kContacts, false);
        grouped = make_book(scratch / "grouped", kContacts, true);
    }
    const std::string part = argc > 2 ? argv[2] : "";
    if (part.empty() || part == "round-trip") {
        bench_round_trip("total-entries", "get-sms total-entries phone_book^|^", empty, rounds,
                         0.7);
        bench_round_trip("first page of 20000", "get-sms phone_book 1^|^", plain, rounds / 2, 0.25);
    }
    if (part.empty() || part == "send-all") bench_send_all(plain);
    if (part.empty() || part == "save") bench_save(grouped);
    return failures == 0 ? 0 : 2;
}
