// txrx-sim as a development modem beside the real smsgwd: the loop-back
// clock message, a slow and a hung modem, the job log with every recipient,
// and an injected trigger SMS.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "send/sender.h"
#include "support/test_support.h"

namespace smsgw {
namespace {

using namespace std::chrono_literals;
using test::TempDir;

constexpr char kLoopBack[] = "TIMESETTINGS_LOOP_BACK_MSG";

std::string rec(const std::string& text) {
    return std::to_string(text.size()) + text;
}

// One inbox record: a host-order 32-bit length, then the text.
std::string inbox_record(const std::string& text) {
    auto n = static_cast<uint32_t>(text.size());
    std::string out(4, '\0');
    std::memcpy(out.data(), &n, 4);
    return out + text;
}

size_t count_of(const std::string& hay, const std::string& needle) {
    size_t n = 0;
    for (size_t at = hay.find(needle); at != std::string::npos; at = hay.find(needle, at + 1)) ++n;
    return n;
}

// Runs txrx-sim with the root and port offset in its environment; returns
// its exit status, or -1 when it does not end within the deadline.
int run_sim(const std::string& root, int offset, const std::vector<std::string>& args) {
    const test::TxrxLaunch sim = test::txrx_launch();
    std::vector<std::string> argv = sim.prefix;
    argv.push_back(sim.program);
    argv.insert(argv.end(), args.begin(), args.end());
    pid_t pid = ::fork();
    if (pid == 0) {
        ::setenv("SMSGW_ROOT", root.c_str(), 1);
        ::setenv("SMSGW_PORT_OFFSET", std::to_string(offset).c_str(), 1);
        int out = ::open((root + "/sim.out").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        if (out >= 0) {
            ::dup2(out, 1);
            ::dup2(out, 2);
        }
        std::vector<char*> v;
        for (auto& a : argv) v.push_back(a.data());
        v.push_back(nullptr);
        ::execvp(v[0], v.data());
        ::_exit(127);
    }
    int status = 0;
    bool ended = test::wait_for([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }, 10s);
    if (!ended) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Sets an environment variable for the daemons started while it lives (the
// simulator inherits it through smsgwd).
class ScopedEnv {
  public:
    ScopedEnv(const char* name, const std::string& value) : name_(name) {
        ::setenv(name, value.c_str(), 1);
    }
    ~ScopedEnv() { ::unsetenv(name_); }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

  private:
    const char* name_;
};

class TxrxSim : public ::testing::Test {
  protected:
    void SetUp() override {
        test::prepare_root(root_.path());
        test::write_file(root_ / "var/AddressBook/groups", "Crew\n");
        test::write_file(root_ / "var/AddressBook/Address_Book",
                         "Ann^|^+4911^|^^|^1,^|^\n"
                         "Ben^|^+4922^|^^|^1,^|^\n"
                         "Cid^|^+4933^|^^|^1,^|^\n");
        test::write_file(root_ / "var/config/trigger_ctrl",
                         rec("^|^ADD^|^ADDENTRY^|^NO^|^") + rec("^|^Del^|^DELENTRY^|^YES^|^"));
    }
    void start() {
        daemon_ = std::make_unique<test::Daemon>(root_.path(), offset_);
        ASSERT_TRUE(daemon_->wait_ready()) << daemon_->stderr_text();
        // A job handed over before the simulator listens would be lost.
        ASSERT_TRUE(test::wait_for([&] { return lines("START ").size() == 1; }, 10s));
    }
    int sim(const std::vector<std::string>& args) { return run_sim(root_.path(), offset_, args); }
    std::string command(const std::string& text) {
        return client_.request(20205 + offset_, text).value_or("<no reply>");
    }
    std::optional<std::string> send(const std::string& name, const std::string& numbers,
                                    const std::string& groups = "") {
        std::string p = root_ / ("tmp/" + name);
        test::write_file(p, build_request_file("admin", "hello " + name, numbers, "", groups));
        return client_.request(20205 + offset_, "send-sms " + p);
    }
    std::vector<std::string> lines(const std::string& prefix) const {
        std::vector<std::string> out;
        std::istringstream log(test::read_file(root_ / "var/run/txrx-sim.log"));
        for (std::string line; std::getline(log, line);)
            if (line.rfind(prefix, 0) == 0) out.push_back(line);
        return out;
    }
    std::string calls() const { return test::read_file(root_ / "calls.log"); }
    std::string inbox() const { return test::read_file(root_ / "var/Inbox/smsinbox.dat"); }

    TempDir root_;
    int offset_ = test::random_port_offset();
    std::unique_ptr<test::Daemon> daemon_;
    test::UdpClient client_;
};

TEST_F(TxrxSim, LoopBackWithAStampSetsThatTime) {
    start();
    ASSERT_EQ(sim({"loopback", "+4999", "24/03/01 12:05:09+04"}), 0)
        << test::read_file(root_ / "sim.out");
    const std::string first = "+4999^|^24/03/01^|^12:05:09+04^|^" + std::string(kLoopBack);
    EXPECT_EQ(inbox(), inbox_record(first));
    ASSERT_TRUE(
        test::wait_for([&] { return count_of(calls(), "date 030112052024.09\n") == 1; }, 10s))
        << calls() << daemon_->stderr_text();

    // The stamp as two words, appended: the daemon acts on the report
    // again, and the earlier record stays the one that counts.
    ASSERT_EQ(sim({"loopback", "+4998", "25/12/31", "23:59:58-08"}), 0);
    EXPECT_EQ(inbox(), inbox_record(first) + inbox_record("+4998^|^25/12/31^|^23:59:58-08^|^" +
                                                          std::string(kLoopBack)));
    EXPECT_TRUE(
        test::wait_for([&] { return count_of(calls(), "date 030112052024.09\n") == 2; }, 10s))
        << calls();
    EXPECT_EQ(count_of(calls(), "date "), 2u) << calls();
}

TEST_F(TxrxSim, LoopBackWithoutAStampSetsNow) {
    start();
    std::time_t before = std::time(nullptr);
    ASSERT_EQ(sim({"loopback"}), 0) << test::read_file(root_ / "sim.out");
    std::time_t after = std::time(nullptr);
    ASSERT_TRUE(test::wait_for([&] { return calls().find("date ") != std::string::npos; }, 10s))
        << daemon_->stderr_text();
    // "date MMDDhhmmYYYY.ss", read back as a UTC time.
    std::string line = calls().substr(calls().find("date "));
    line = line.substr(5, line.find('\n') - 5);
    ASSERT_EQ(line.size(), 15u) << line;
    ASSERT_EQ(line[12], '.') << line;
    std::tm tm{};
    tm.tm_mon = std::stoi(line.substr(0, 2)) - 1;
    tm.tm_mday = std::stoi(line.substr(2, 2));
    tm.tm_hour = std::stoi(line.substr(4, 2));
    tm.tm_min = std::stoi(line.substr(6, 2));
    tm.tm_year = std::stoi(line.substr(8, 4)) - 1900;
    tm.tm_sec = std::stoi(line.substr(13, 2));
    std::time_t stamped = ::timegm(&tm);
    EXPECT_GE(stamped, before) << line;
    EXPECT_LE(stamped, after) << line;
    // A default sender was filled in before the stamp.
    EXPECT_GT(inbox().size(), 4u);
    EXPECT_NE(inbox().find("^|^"), 4u) << inbox();
}

TEST_F(TxrxSim, BadLoopBackArgumentsLeaveTheInboxAlone) {
    // No daemon: a refused call must not even write the inbox.
    const std::vector<std::vector<std::string>> bad = {
        {"loopback", "24/03/01"},                             // date without time
        {"loopback", "+49", "24/03/01", "12:05"},             // short time
        {"loopback", "+49", "2024/03/01 12:05:09+04"},        // four-digit year
        {"loopback", "+49", "24/03/01", "12:05:09"},          // no zone
        {"loopback", "a^|^b"},                                // separator in sender
        {"loopback", std::string(50, '7')},                   // sender too long
        {"loopback", "+49", "24/03/01", "12:05:09+04", "x"},  // too many words
    };
    for (const auto& args : bad) {
        std::string joined;
        for (const auto& a : args) joined += a + " ";
        EXPECT_EQ(sim(args), 2) << joined;
        EXPECT_EQ(inbox(), "") << joined;
    }
    EXPECT_EQ(sim({"--help"}), 0);
    EXPECT_NE(test::read_file(root_ / "sim.out").find("loopback [SENDER]"), std::string::npos);
}

TEST_F(TxrxSim, JobLogListsEveryRecipient) {
    start();
    ASSERT_EQ(send("crew", "+4944^|^", "Crew^|^"), "");
    ASSERT_TRUE(test::wait_for([&] { return lines("JOB ").size() == 1; }, 10s))
        << daemon_->stderr_text();
    std::string job = lines("JOB ").front();
    EXPECT_NE(job.find(" api=0 text=hello crew to="), std::string::npos) << job;
    std::string to = job.substr(job.find(" to=") + 4);
    for (const char* n : {"+4911", "+4922", "+4933", "+4944"})
        EXPECT_NE(("," + to + ",").find(std::string(",") + n + ","), std::string::npos)
            << n << " missing from " << job;
    EXPECT_EQ(count_of(to, ","), 3u) << job;
}

TEST_F(TxrxSim, DelayedAnswerHoldsTheNextJobBack) {
    constexpr auto kDelay = 1500ms;
    ScopedEnv delay("SMSGW_SIM_DELAY_MS", std::to_string(kDelay.count()));
    start();
    auto sent = std::chrono::steady_clock::now();
    ASSERT_EQ(send("one", "+4951^|^"), "");
    ASSERT_TRUE(test::wait_for([&] { return lines("JOB ").size() == 1; }, 10s));
    // Still unanswered: the second request is queued, not handed over.
    EXPECT_EQ(send("two", "+4952^|^"), "OK");
    ASSERT_TRUE(test::wait_for([&] { return lines("JOB ").size() == 2; }, 15s))
        << daemon_->stderr_text();
    EXPECT_GE(std::chrono::steady_clock::now() - sent, kDelay);
    EXPECT_NE(lines("JOB ")[1].find("to=+4952"), std::string::npos) << lines("JOB ")[1];
}

TEST_F(TxrxSim, SilentModemNeverReleasesTheQueue) {
    ScopedEnv silent("SMSGW_SIM_SILENT", "1");
    start();
    ASSERT_EQ(send("one", "+4951^|^"), "");
    ASSERT_TRUE(test::wait_for([&] { return lines("JOB ").size() == 1; }, 10s));
    EXPECT_EQ(send("two", "+4952^|^"), "OK");
    // An SMS report behind any answer the simulator might have sent: once
    // the daemon has acted on it, and answered one more request, a released
    // queue would have handed over the second job.
    ASSERT_EQ(sim({"inject", "+4999", "ADD:Dora;+4960"}), 0);
    ASSERT_TRUE(
        test::wait_for([&] { return command("get-sms total-entries phone_book^|^") == "4"; }, 10s));
    EXPECT_EQ(command("get-sms total-entries phone_book^|^"), "4");
    EXPECT_EQ(lines("JOB ").size(), 1u);

    // Playing the modem's answer by hand releases it.
    client_.send_to(20206 + offset_, "P_JB");
    EXPECT_TRUE(test::wait_for([&] { return lines("JOB ").size() == 2; }, 10s));
}

TEST_F(TxrxSim, InjectedTriggerAddsTheContact) {
    start();
    ASSERT_EQ(command("get-sms total-entries phone_book^|^"), "3");
    // Any letter case names the trigger; the sender needs no authentication.
    ASSERT_EQ(sim({"inject", "+4977", "add:Dora;+4960"}), 0);
    ASSERT_TRUE(
        test::wait_for([&] { return command("get-sms total-entries phone_book^|^") == "4"; }, 10s))
        << daemon_->stderr_text();
    EXPECT_NE(command("get-sms phone_number +4960^|^"), "ERROR");
    // The delete trigger demands an authenticated sender: refused.
    ASSERT_EQ(sim({"inject", "+4977", "Del:Dora;+4960"}), 0);
    ASSERT_EQ(sim({"inject", "+4977", "ADD:Eve;+4961"}), 0);
    ASSERT_TRUE(
        test::wait_for([&] { return command("get-sms total-entries phone_book^|^") == "5"; }, 10s));
    EXPECT_NE(command("get-sms phone_number +4960^|^"), "ERROR");
}

}  // namespace
}  // namespace smsgw
