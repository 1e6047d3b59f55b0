// The transceiver against the emulated modem with no delay, each figure
// against the emulator's own round trip measured in the same run:
//
//   rate     SMS per second through one txrx (hand-off to P_JB) next to the
//            same AT+CMGS exchanges made directly on the emulator's line;
//            goal >= 0.5x (a real modem needs seconds per SMS: txrx must
//            never be what limits sending)
//   cpu      txrx's CPU time per SMS
//   idle     txrx's CPU time and wakeups over an idle window (10 s, or
//            SMSGW_BENCH_IDLE_SECONDS): no busy polling
//   memory   txrx's VmHWM after the job; goal <= 2 MiB
#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "common/fileops.h"
#include "formats/sms_pdu.h"
#include "support/modem_support.h"
#include "support/test_support.h"

namespace test = smsgw::test;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kMessages = 500;
constexpr double kRateRatioGoal = 0.5;
constexpr double kIdleCpuShareGoal = 0.001;
constexpr long kMemoryGoalKb = 2048;

double seconds_since(Clock::time_point t) {
    return std::chrono::duration<double>(Clock::now() - t).count();
}

std::string number(int i) {
    return "+4917" + std::to_string(1000000 + i);
}

// Reads from the line until `what` has arrived.
bool expect(int fd, const std::string& what) {
    std::string got;
    char buf[256];
    while (got.find(what) == std::string::npos) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 5000) <= 0) return false;
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n <= 0) return false;
        got.append(buf, static_cast<size_t>(n));
    }
    return true;
}

// The emulator alone: the exchanges txrx makes for each SMS, on its line.
double emulator_rate(const std::string& root) {
    test::SimModem sim(root, "ttyS0");
    smsgw::Fd fd(::open((root + "/dev/ttyS0").c_str(), O_RDWR | O_NOCTTY));
    termios tio{};
    ::tcgetattr(fd.get(), &tio);
    ::cfmakeraw(&tio);
    ::tcsetattr(fd.get(), TCSANOW, &tio);
    smsgw::write_all(fd.get(), "ATE0\r");
    expect(fd.get(), "OK");
    auto start = Clock::now();
    for (int i = 0; i < kMessages; ++i) {
        std::string tpdu = smsgw::pdu::encode_submit(number(i), "benchmark text", 0)[0];
        smsgw::write_all(fd.get(), "AT+CMGS=" + std::to_string(tpdu.size()) + "\r");
        if (!expect(fd.get(), "> ")) return 0;
        smsgw::write_all(fd.get(), "00" + smsgw::pdu::to_hex(tpdu) + "\x1A");
        if (!expect(fd.get(), "OK")) return 0;
    }
    return kMessages / seconds_since(start);
}

struct ProcStat {
    double cpu = 0;  // seconds
    long wakeups = 0;
    long hwm_kb = 0;
};

ProcStat proc_stat(int pid) {
    ProcStat s;
    std::string stat = test::read_file("/proc/" + std::to_string(pid) + "/stat");
    size_t close = stat.rfind(')');
    if (close == std::string::npos) return s;
    std::vector<std::string> f;
    for (size_t at = close + 2; at < stat.size();) {
        size_t sp = stat.find(' ', at);
        f.push_back(stat.substr(at, sp - at));
        if (sp == std::string::npos) break;
        at = sp + 1;
    }
    if (f.size() > 12)
        s.cpu = (std::atof(f[11].c_str()) + std::atof(f[12].c_str())) /
                static_cast<double>(sysconf(_SC_CLK_TCK));
    std::string status = test::read_file("/proc/" + std::to_string(pid) + "/status");
    auto field = [&](const char* name) {
        size_t at = status.find(name);
        return at == std::string::npos ? 0L
                                       : std::atol(status.c_str() + at + std::string(name).size());
    };
    s.wakeups = field("voluntary_ctxt_switches:");
    s.hwm_kb = field("VmHWM:");
    return s;
}

int pid_of_txrx(const std::string& root) {
    return std::atoi(test::read_file(root + "/var/run/txrx_pid_file").c_str());
}

}  // namespace

int main() {
    test::TempDir emu_root;
    const double emu = emulator_rate(emu_root.path());

    test::TempDir root;
    const int offset = test::random_port_offset();
    test::UdpListener reports(20206 + offset);
    test::UdpClient client;
    test::SimModem sim(root.path(), "ttyS0");
    auto txrx = test::start_txrx(root.path(), offset, "/dev/ttyS0", {});
    sim.wait_lines("CMD AT+CMGL", 1);
    const int pid = pid_of_txrx(root.path());
    std::vector<std::string> numbers;
    for (int i = 0; i < kMessages; ++i) numbers.push_back(number(i));
    const std::string job = test::write_job(root.path(), "bench", "benchmark text", numbers);
    ProcStat before = proc_stat(pid);
    auto start = Clock::now();
    client.send_to(20202 + offset, test::handoff(job));
    auto done = reports.receive(std::chrono::milliseconds(120000));
    const double rate = kMessages / seconds_since(start);
    ProcStat after = proc_stat(pid);
    if (!done || *done != "P_JB" || sim.lines("SUBMIT to=").size() != kMessages) {
        std::printf("FAILED: the job did not end as expected\n");
        return 1;
    }
    const double ratio = rate / emu;
    std::printf(
        "rate: %d SMS, txrx %.0f SMS/s, emulator alone %.0f SMS/s, ratio %.2f (goal >= %.1f)\n",
        kMessages, rate, emu, ratio, kRateRatioGoal);
    std::printf("cpu: %.1f us per SMS\n", 1e6 * (after.cpu - before.cpu) / kMessages);

    const char* env = std::getenv("SMSGW_BENCH_IDLE_SECONDS");
    const int idle = env && std::atoi(env) > 0 ? std::min(std::atoi(env), 10) : 10;
    ProcStat idle0 = proc_stat(pid);
    std::this_thread::sleep_for(std::chrono::seconds(idle));  // the window being measured
    ProcStat idle1 = proc_stat(pid);
    const double share = (idle1.cpu - idle0.cpu) / idle;
    std::printf("idle: %d s, cpu %.3f s (share %.4f, goal <= %.3f), wakeups %ld\n", idle,
                idle1.cpu - idle0.cpu, share, kIdleCpuShareGoal, idle1.wakeups - idle0.wakeups);
    std::printf("memory: VmHWM %ld kB (goal <= %ld)\n", idle1.hwm_kb, kMemoryGoalKb);
    bool ok =
        ratio >= kRateRatioGoal && share <= kIdleCpuShareGoal && idle1.hwm_kb <= kMemoryGoalKb;
    std::printf("%s\n", ok ? "all goals met" : "GOAL MISSED");
    return ok ? 0 : 1;
}
