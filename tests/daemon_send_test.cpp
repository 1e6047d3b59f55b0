// The real smsgwd sending: a direct request becomes one job with each
// recipient once; requests made while a job is outstanding are queued and
// handed over one at a time in order, also across a kill -9 and restart.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
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

const std::string kProbe = "get-sms total-entries groups^|^";

class DaemonSend : public ::testing::Test {
  protected:
    void SetUp() override {
        test::prepare_root(root_.path());
        test::write_file(root_ / "var/AddressBook/groups", "Friends\n");
        test::write_file(root_ / "var/AddressBook/Address_Book",
                         "Alice^|^111^|^^|^^|^\n"
                         "Alice^|^222^|^^|^^|^\n"
                         "Bob^|^333^|^^|^1,^|^\n"
                         "Carl^|^111^|^^|^1,^|^\n"
                         "Dora^|^444^|^^|^1,^|^\n");
    }
    void TearDown() override {
        daemon_.reset();
        ::unsetenv("SMSGW_SIM_SILENT");
    }
    void start() {
        daemon_ = std::make_unique<test::Daemon>(root_.path(), offset_);
        ASSERT_TRUE(daemon_->wait_ready()) << daemon_->stderr_text();
        // A job handed over before txrx listens would be lost: wait until
        // this start's txrx has logged that it is up.
        ++starts_;
        ASSERT_TRUE(test::wait_for([&] { return count_lines("START ") >= starts_; }, 10s));
    }
    size_t count_lines(const std::string& prefix) const {
        std::istringstream log(test::read_file(root_ / "var/run/txrx-sim.log"));
        size_t n = 0;
        for (std::string line; std::getline(log, line);) n += line.rfind(prefix, 0) == 0;
        return n;
    }
    std::string request_file(const std::string& name, const std::string& numbers,
                             const std::string& names = "", const std::string& groups = "") {
        std::string p = root_ / ("tmp/" + name);
        test::write_file(p, build_request_file("admin", "hello " + name, numbers, names, groups));
        return p;
    }
    std::optional<std::string> send(const std::string& file) {
        return client_.request(20205 + offset_, "send-sms " + file);
    }
    // The recipient lists of the jobs txrx-sim has logged, in order.
    std::vector<std::string> jobs() const {
        std::vector<std::string> out;
        std::istringstream log(test::read_file(root_ / "var/run/txrx-sim.log"));
        for (std::string line; std::getline(log, line);) {
            if (line.rfind("JOB ", 0) != 0) continue;
            size_t to = line.find(" to=");
            out.push_back(to == std::string::npos ? "" : line.substr(to + 4));
        }
        return out;
    }
    // What txrx says when a job is done; the probe wakes the loop so the
    // next queued job moves without waiting for its idle timeout.
    void report_done() {
        client_.send_to(20206 + offset_, "P_JB");
        client_.request(20205 + offset_, kProbe, 500ms);
    }
    bool wait_jobs(size_t n) {
        return test::wait_for([&] { return jobs().size() >= n; }, 10s);
    }

    TempDir root_;
    int offset_ = test::random_port_offset();
    std::unique_ptr<test::Daemon> daemon_;
    test::UdpClient client_;
    size_t starts_ = 0;
};

TEST_F(DaemonSend, DirectSendIsOneJobWithEachRecipientOnce) {
    start();
    std::string file =
        request_file("direct", "555^|^111^|^", "0^|^alice^|^777^|^Someone^|^", "Friends^|^");
    EXPECT_EQ(send(file), "");  // handed over at once
    ASSERT_TRUE(wait_jobs(1)) << daemon_->stderr_text();
    EXPECT_EQ(jobs(), std::vector<std::string>{"111,222,333,444,555,777"});
    EXPECT_FALSE(test::exists(file));
}

TEST_F(DaemonSend, RequestsWhileAJobIsOutstandingAreQueuedAndSentInOrder) {
    ::setenv("SMSGW_SIM_SILENT", "1", 1);  // only the test reports jobs done
    start();
    EXPECT_EQ(send(request_file("a", "1001^|^")), "");
    ASSERT_TRUE(wait_jobs(1));
    for (const char* n : {"1002", "1003", "1004"})
        EXPECT_EQ(send(request_file(std::string("r") + n, std::string(n) + "^|^")), "OK");
    EXPECT_EQ(jobs().size(), 1u);  // nothing moves while the job is outstanding

    for (size_t done = 1; done < 4; ++done) {
        report_done();
        ASSERT_TRUE(wait_jobs(done + 1)) << daemon_->stderr_text();
    }
    EXPECT_EQ(jobs(), (std::vector<std::string>{"1001", "1002", "1003", "1004"}));
}

TEST_F(DaemonSend, QueueSurvivesAKillAndRestart) {
    ::setenv("SMSGW_SIM_SILENT", "1", 1);
    start();
    EXPECT_EQ(send(request_file("a", "2001^|^")), "");
    ASSERT_TRUE(wait_jobs(1));
    EXPECT_EQ(send(request_file("b", "2002^|^")), "OK");
    EXPECT_EQ(send(request_file("c", "2003^|^")), "OK");

    daemon_.reset();  // SIGKILL, reaped, its txrx children ended
    start();
    // The restarted daemon has no job outstanding: the first queued job goes
    // out on its own, the next after the report.
    ASSERT_TRUE(wait_jobs(2)) << daemon_->stderr_text();
    report_done();
    ASSERT_TRUE(wait_jobs(3)) << daemon_->stderr_text();
    EXPECT_EQ(jobs(), (std::vector<std::string>{"2001", "2002", "2003"}));
}

}  // namespace
}  // namespace smsgw
