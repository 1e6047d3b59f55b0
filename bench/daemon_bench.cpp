// The running daemon as a whole, each figure against a baseline process
// measured in the same run: this program started in its "baseline" role,
// which reads the same address-book files into a vector of split lines,
// binds the web-interface port and answers every request from a select loop
// with the daemon's 2-second timeout.
//
//   idle     CPU time and wakeups of the daemon over an idle window (60 s, or
//            SMSGW_BENCH_IDLE_SECONDS) next to the baseline's over the same
//            window; the daemon must wake only for its 2-second timeout
//   start    fork to the first answered request with 20000 contacts
//   memory   VmHWM with 20000 contacts in 50 groups of 400 members, after a
//            page of the phone book and of the groups has been listed
//
//   daemon_bench                 the benchmark (smsgwd and txrx-sim are taken
//                                from the build directory above this one)
//   daemon_bench baseline DIR PORT
#include <fcntl.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "addressbook/address_book.h"
#include "addressbook/address_book_files.h"
#include "common/fileops.h"
#include "common/runtime.h"
#include "support/test_support.h"

namespace test = smsgw::test;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kContacts = 20000;
constexpr int kGroups = 50;
constexpr int kMembers = 400;
constexpr int kStartRuns = 5;

// Goals. Idle: at most 0.1 % of a core and no wakeup beyond the timeout's
// (10 % slack for a window edge); start-up and memory as ratios.
constexpr double kIdleCpuShareGoal = 0.001;
constexpr double kIdleWakeRatioGoal = 1.1;
constexpr double kStartRatioGoal = 3.0;
constexpr double kMemoryRatioGoal = 2.0;

double seconds_since(Clock::time_point t0) {
    return std::chrono::duration<double>(Clock::now() - t0).count();
}

// ---------------------------------------------------------------- baseline

// What any daemon of this kind must do at least: read the files, answer a
// request, sleep with a 2-second timeout.
int run_baseline(const std::string& root, int port) {
    std::vector<std::vector<std::string>> lines;
    for (const char* f : {"/var/AddressBook/Address_Book", "/var/AddressBook/groups"}) {
        std::ifstream in(root + f);
        std::string line;
        while (std::getline(in, line)) {
            std::vector<std::string> fields;
            size_t pos = 0, sep;
            while ((sep = line.find("^|^", pos)) != std::string::npos) {
                fields.push_back(line.substr(pos, sep - pos));
                pos = sep + 3;
            }
            lines.push_back(std::move(fields));
        }
    }
    test::UdpListener server(port);
    if (!server.ok()) return 1;
    const std::string answer = std::to_string(lines.size());
    for (;;) {
        auto got = server.receive(std::chrono::seconds(2));
        // The length datagram is all digits; the request that follows is answered.
        if (!got || got->empty() ||
            std::all_of(got->begin(), got->end(), [](char c) { return c >= '0' && c <= '9'; }))
            continue;
        server.reply(answer);
    }
}

// ------------------------------------------------------------ the sandbox

struct Seed {
    std::string book;    // contents of Address_Book
    std::string groups;  // contents of groups ("" when none)
};

// The address-book files written by the address book itself, so they are
// exactly what the daemon would have saved.
Seed make_seed(const std::string& scratch, bool with_groups) {
    static const char* first[] = {"Anna", "Ben",  "Carla", "David", "Eva",  "Frank", "Greta",
                                  "Hans", "Ines", "Jonas", "Karin", "Lars", "Mia",   "Nils",
                                  "Olga", "Paul", "Rita",  "Sven",  "Tina", "Uwe"};
    std::mt19937 rng(42);
    smsgw::Runtime rt(scratch);
    smsgw::make_dirs(rt.path("/var/AddressBook"));
    smsgw::ReplyBuffer reply;
    smsgw::AddressBook ab(reply);
    std::vector<smsgw::Entry*> entries;
    char number[32];
    for (int i = 0; i < kContacts; ++i) {
        std::string last(1, static_cast<char>('A' + rng() % 26));
        while (last.size() < 6) last += static_cast<char>('a' + rng() % 26);
        std::string name = std::string(first[rng() % 20]) + " " + last + std::to_string(i);
        std::snprintf(number, sizeof number, "+49%09u", static_cast<unsigned>(rng() % 1000000000u));
        std::string description = i % 4 ? "customer since " + std::to_string(1990 + i % 30) : "";
        smsgw::TrieNode* n = ab.ab_insert(name, number, description);
        if (n) entries.push_back(smsgw::AddressBook::ab_find_number(n->entries.get(), number));
    }
    if (with_groups && entries.size() >= static_cast<size_t>(kGroups * kMembers)) {
        char name[16];
        for (int g = 0; g < kGroups; ++g) {
            std::snprintf(name, sizeof name, "group%02d", g);
            smsgw::Group* grp = ab.group_create(name);
            for (int m = 0; m < kMembers; ++m)
                ab.group_add_member_to(grp, entries[static_cast<size_t>(g * kMembers + m)]);
        }
    }
    const std::string book = rt.path("/var/AddressBook/Address_Book");
    {
        smsgw::FilePtr f = smsgw::open_file(book, "w");
        smsgw::ab_save_contacts(ab, f.get());
    }
    Seed seed;
    seed.book = smsgw::read_file(book).value_or("");
    if (with_groups) {
        smsgw::ab_save_groups(ab, rt);
        seed.groups = smsgw::read_file(rt.path("/var/AddressBook/groups")).value_or("");
    }
    return seed;
}

// The daemon empties its address-book directory after loading it, so the
// files are put back before every start.
void seed_root(const std::string& root, const Seed& seed) {
    test::write_file(root + "/var/AddressBook/Address_Book", seed.book);
    if (!seed.groups.empty()) test::write_file(root + "/var/AddressBook/groups", seed.groups);
}

// ------------------------------------------------------------- processes

// This program in its baseline role. Its pid is what the /proc readings
// need, hence no test::Child. Killed and reaped at the end.
class Baseline {
  public:
    Baseline(const std::string& self, const std::string& root, int port) {
        const std::string port_arg = std::to_string(port);
        pid_ = ::fork();
        if (pid_ != 0) return;
        int null = ::open("/dev/null", O_WRONLY);
        if (null >= 0) {
            ::dup2(null, 1);
            ::dup2(null, 2);
        }
        ::execl(self.c_str(), self.c_str(), "baseline", root.c_str(), port_arg.c_str(),
                static_cast<char*>(nullptr));
        ::_exit(127);
    }
    ~Baseline() {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    Baseline(const Baseline&) = delete;
    Baseline& operator=(const Baseline&) = delete;
    pid_t pid() const { return pid_; }
    bool running() const { return pid_ > 0 && ::waitpid(pid_, nullptr, WNOHANG) == 0; }

  private:
    pid_t pid_ = -1;
};

const char* const kProbe = "get-sms total-entries phone_book^|^";

// Polls with short timeouts until the process answers; the time from `t0`,
// or nullopt when it died or the deadline passed.
template <class Process>
std::optional<double> first_answer(Process& p, int port, Clock::time_point t0,
                                   std::string* answer = nullptr) {
    test::UdpClient c;
    while (seconds_since(t0) < 30) {
        if (auto r = c.request(port, kProbe, std::chrono::milliseconds(2))) {
            double s = seconds_since(t0);
            if (answer) *answer = *r;
            return s;
        }
        if (!p.running()) return std::nullopt;
    }
    return std::nullopt;
}

// ------------------------------------------------------- /proc readings

// utime + stime in seconds (clock ticks).
double stat_cpu(pid_t pid) {
    std::string s = test::read_file("/proc/" + std::to_string(pid) + "/stat");
    size_t close = s.rfind(')');
    if (close == std::string::npos) return -1;
    std::istringstream in(s.substr(close + 2));
    std::string field;
    unsigned long long utime = 0, stime = 0;
    for (int i = 3; i <= 15 && in >> field; ++i) {  // fields 3.. after "pid (comm)"
        if (i == 14) utime = std::stoull(field);
        if (i == 15) stime = std::stoull(field);
    }
    return static_cast<double>(utime + stime) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

// Time on the CPU in seconds at nanosecond resolution, -1 if not available.
double sched_cpu(pid_t pid) {
    std::istringstream in(test::read_file("/proc/" + std::to_string(pid) + "/schedstat"));
    unsigned long long ns = 0;
    if (!(in >> ns)) return -1;
    return static_cast<double>(ns) * 1e-9;
}

// The number after "key:" in /proc/PID/file (status, io), -1 when absent.
long long proc_value(pid_t pid, const char* file, const std::string& key) {
    std::istringstream in(test::read_file("/proc/" + std::to_string(pid) + "/" + file));
    std::string line;
    while (std::getline(in, line))
        if (line.compare(0, key.size() + 1, key + ":") == 0)
            return std::atoll(line.c_str() + key.size() + 1);
    return -1;
}

long long status_value(pid_t pid, const std::string& key) {
    return proc_value(pid, "status", key);
}

struct Sample {
    double cpu_ticks, cpu_ns;
    long long wakeups, syscalls;
};

Sample sample(pid_t pid) {
    Sample s;
    s.cpu_ticks = stat_cpu(pid);
    s.cpu_ns = sched_cpu(pid);
    s.wakeups = status_value(pid, "voluntary_ctxt_switches");
    long long r = proc_value(pid, "io", "syscr"), w = proc_value(pid, "io", "syscw");
    s.syscalls = r < 0 || w < 0 ? -1 : r + w;
    return s;
}

// The dialing word outlives a killed daemon.
void remove_shm(int offset) {
    int id = ::shmget(static_cast<key_t>(16384 + offset), 0, 0);
    if (id >= 0) ::shmctl(id, IPC_RMID, nullptr);
}

int failures = 0;

const char* verdict(bool met) {
    if (!met) ++failures;
    return met ? "ok" : "MISSED";
}

// ------------------------------------------------------------ the figures

void bench_start(const std::string& self, const Seed& seed, int offset) {
    test::TempDir root;
    test::prepare_root(root.path());
    const int base_port = 40000 + offset % 20000;
    double daemon_best = 1e9, base_best = 1e9;
    std::string answer;
    for (int run = 0; run < kStartRuns; ++run) {
        seed_root(root.path(), seed);
        {
            auto t0 = Clock::now();
            test::Daemon d(root.path(), offset);
            if (auto s = first_answer(d, 20205 + offset, t0, &answer))
                daemon_best = std::min(daemon_best, *s);
        }
        remove_shm(offset);
        seed_root(root.path(), seed);
        {
            auto t0 = Clock::now();
            Baseline b(self, root.path(), base_port);
            if (auto s = first_answer(b, base_port, t0)) base_best = std::min(base_best, *s);
        }
    }
    bool loaded = answer.find(std::to_string(kContacts)) != std::string::npos;
    double ratio = daemon_best / base_best;
    std::printf(
        "start-up to first answer (%d contacts, best of %d): daemon %.1f ms, baseline %.1f ms, "
        "ratio %.2f (goal <= %.1f) %s\n",
        kContacts, kStartRuns, daemon_best * 1e3, base_best * 1e3, ratio, kStartRatioGoal,
        verdict(daemon_best < 1e9 && ratio <= kStartRatioGoal));
    std::printf("  daemon's first answer: \"%s\"%s\n", answer.c_str(),
                loaded ? "" : " (does not show the contacts: check the seed)");
    if (!loaded) ++failures;
}

void measure_memory(test::Daemon& d, const Baseline& b) {
    long long d_hwm = status_value(d.pid(), "VmHWM"), b_hwm = status_value(b.pid(), "VmHWM");
    long long d_rss = status_value(d.pid(), "VmRSS");
    double mem_ratio = static_cast<double>(d_hwm) / static_cast<double>(b_hwm);
    std::printf(
        "peak memory (%d contacts, %d groups of %d): daemon VmHWM %lld kB (VmRSS %lld kB), "
        "baseline %lld kB, ratio %.2f (goal <= %.1f) %s\n",
        kContacts, kGroups, kMembers, d_hwm, d_rss, b_hwm, mem_ratio, kMemoryRatioGoal,
        verdict(d_hwm > 0 && b_hwm > 0 && mem_ratio <= kMemoryRatioGoal));
}

// Both processes side by side over the same window, once the answers to
// the earlier requests have all gone out.
void measure_idle(test::Daemon& d, const Baseline& b, int idle_seconds) {
    std::this_thread::sleep_for(std::chrono::seconds(3));
    Sample d0 = sample(d.pid()), b0 = sample(b.pid());
    auto w0 = Clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(idle_seconds));
    Sample d1 = sample(d.pid()), b1 = sample(b.pid());
    double window = seconds_since(w0);
    double d_cpu = d1.cpu_ns >= 0 ? d1.cpu_ns - d0.cpu_ns : d1.cpu_ticks - d0.cpu_ticks;
    double b_cpu = b1.cpu_ns >= 0 ? b1.cpu_ns - b0.cpu_ns : b1.cpu_ticks - b0.cpu_ticks;
    long long d_wake = d1.wakeups - d0.wakeups, b_wake = b1.wakeups - b0.wakeups;
    double wake_ratio = static_cast<double>(d_wake) / static_cast<double>(std::max(1LL, b_wake));
    double share = d_cpu / window;
    std::printf(
        "idle %.1f s: daemon CPU %.4f s (utime+stime %.2f s), %lld wakeups, %lld read/write "
        "syscalls; baseline CPU %.4f s, %lld wakeups, %lld read/write syscalls\n",
        window, d_cpu, d1.cpu_ticks - d0.cpu_ticks, d_wake, d1.syscalls - d0.syscalls, b_cpu,
        b_wake, b1.syscalls - b0.syscalls);
    std::printf("  the 2-second timeout alone gives %.0f wakeups in this window\n", window / 2);
    std::printf("  idle CPU share %.5f %% of a core (goal <= %.3f %%) %s\n", share * 100,
                kIdleCpuShareGoal * 100, verdict(share <= kIdleCpuShareGoal));
    std::printf("  idle CPU ratio %.2f against the baseline (no goal)\n",
                b_cpu > 0 ? d_cpu / b_cpu : 0.0);
    std::printf("  idle wakeups ratio %.2f against the baseline (goal <= %.1f) %s\n", wake_ratio,
                kIdleWakeRatioGoal, verdict(d_wake >= 0 && wake_ratio <= kIdleWakeRatioGoal));
    if (!d.running()) {
        std::printf("  the daemon exited during the window\n");
        ++failures;
    }
}

void bench_memory_and_idle(const std::string& self, const Seed& seed, int offset,
                           int idle_seconds) {
    test::TempDir root;
    test::prepare_root(root.path());
    seed_root(root.path(), seed);
    const int base_port = 40000 + offset % 20000;
    {
        test::Daemon d(root.path(), offset);
        Baseline b(self, root.path(), base_port);
        auto t0 = Clock::now();
        if (first_answer(d, 20205 + offset, t0) && first_answer(b, base_port, t0)) {
            test::UdpClient c;
            for (const char* req : {"get-sms phone_book 1^|^", "get-sms groups 1^|^",
                                    "get-sms total-entries groups^|^"}) {
                c.request(20205 + offset, req, std::chrono::milliseconds(2000));
                c.request(base_port, req, std::chrono::milliseconds(2000));
            }
            measure_memory(d, b);
            measure_idle(d, b, idle_seconds);
        } else {
            std::printf("memory/idle: the daemon or the baseline did not answer\n");
            ++failures;
        }
    }
    remove_shm(offset);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::strcmp(argv[1], "baseline") == 0)
        return run_baseline(argv[2], std::atoi(argv[3]));

    for (const char* p : {SMSGWD_PATH, TXRX_SIM_PATH}) {
        if (::access(p, X_OK) != 0) {
            std::fprintf(stderr, "%s not found\n", p);
            return 1;
        }
    }
    const std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
    int idle_seconds = 60;
    if (const char* e = std::getenv("SMSGW_BENCH_IDLE_SECONDS"); e && std::atoi(e) > 0)
        idle_seconds = std::atoi(e);

    Seed contacts_only, with_groups;
    {
        test::TempDir scratch;
        contacts_only = make_seed(scratch / "a", false);
        with_groups = make_seed(scratch / "b", true);
    }

    const int offset = test::random_port_offset();
    bench_start(self, contacts_only, offset);
    bench_memory_and_idle(self, with_groups, offset, idle_seconds);
    return failures == 0 ? 0 : 2;
}
