// The real smsgwd sending: requests made while a job is outstanding are queued,
// counted and handed over one at a time in order, while other clients'
// commands get their own replies, also across a kill -9 and restart.
#include <signal.h>
#include <sys/stat.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "formats/request_file.h"
#include "support/test_support.h"

namespace smsgw::test {
namespace {

using namespace std::chrono_literals;

class DaemonSend : public DaemonFixture {
  protected:
    DaemonSend() {
        seed_contacts(
            "Alice^|^111^|^^|^^|^\nAlice^|^222^|^^|^^|^\nBob^|^333^|^^|^1,^|^\n"
            "Carl^|^111^|^^|^1,^|^\nDora^|^444^|^^|^1,^|^\n",
            "Friends\n");
    }
    std::string request_line(const std::string& name, const std::string& numbers) {
        return "send-sms " +
               spool_file(name, encode_request_file("admin", "text " + name, numbers, "", ""));
    }
    std::string send(const std::string& name, const std::string& numbers) {
        return ask(request_line(name, numbers));
    }
    // The recipient lists of the jobs txrx-sim has logged, in order.
    std::vector<std::string> recipients() const {
        std::vector<std::string> out;
        for (const auto& line : jobs()) out.push_back(line.substr(line.find(" to=") + 4));
        return out;
    }
    // What txrx says when a job is done; the probe wakes the loop so the
    // next queued job moves without waiting for its idle timeout.
    void report_done(const std::string& datagram = "P_JB") {
        report(datagram);
        settle();
    }
    std::string job_stats() const { return file("var/config/job_stats_file"); }
};

TEST_F(DaemonSend, RequestsWhileAJobIsOutstandingAreQueuedCountedAndSentInOrder) {
    set_env("SMSGW_SIM_SILENT", "1");  // only the test reports jobs done
    start();
    EXPECT_EQ(send("a", "1000^|^"), "");  // handed over: an empty reply
    ASSERT_TRUE(wait_jobs(1));
    EXPECT_EQ(job_stats(), "0\n0\n1");
    // Meanwhile other clients ask things only their own question answers.
    // The daemon reads a request's text right after its length and replies
    // to the sender of the datagram read last, so each pair goes out whole.
    std::mutex pair_lock;
    std::atomic<int> bad{0};
    auto ask_from = [&](UdpClient& c, const std::string& text) {
        {
            std::lock_guard<std::mutex> lock(pair_lock);
            c.send_to(20205 + offset_, std::to_string(text.size()));
            c.send_to(20205 + offset_, text);
        }
        return c.receive(10s);
    };
    std::vector<std::thread> clients;
    for (const auto& [q, a] : {std::pair{"get-sms total-entries phone_book^|^", "5"},
                               {"get-sms total-entries groups^|^", "1"},
                               {"get-sms phone_book", "Invalid String to Parse"}}) {
        clients.emplace_back([&, q = q, a = a] {
            UdpClient c;
            for (int i = 0; i < 200; ++i) bad += ask_from(c, q) != std::optional<std::string>(a);
        });
    }
    UdpClient c;
    std::vector<std::string> expect{"1000"};
    for (int i = 1; i <= 4; ++i) {
        expect.push_back(std::to_string(1000 + i));
        EXPECT_EQ(ask_from(c, request_line(expect.back(), expect.back() + "^|^")),
                  std::optional<std::string>("OK"));
    }
    for (auto& t : clients) t.join();
    EXPECT_EQ(bad, 0) << "replies missing or meant for another client";
    EXPECT_EQ(job_stats(), "4\n0\n1");  // each queued request counted
    EXPECT_EQ(jobs().size(), 1u);       // nothing moves while the job is outstanding

    // SIGUSR2 resets the counter: the next queued request counts from 0.
    ::kill(daemon_->pid(), SIGUSR2);
    settle();
    expect.push_back("1005");
    EXPECT_EQ(send("1005", "1005^|^"), "OK");
    EXPECT_EQ(job_stats(), "1\n0\n1");

    // The report may carry more after its tag.
    for (size_t done = 1; done < expect.size(); ++done) {
        report_done(done == 1 ? "P_JB and anything after" : "P_JB");
        ASSERT_TRUE(wait_jobs(done + 1)) << daemon_log();
    }
    EXPECT_EQ(recipients(), expect);
}

TEST_F(DaemonSend, QueueSurvivesAKillAndRestart) {
    set_env("SMSGW_SIM_SILENT", "1");
    start();
    EXPECT_EQ(send("a", "2001^|^"), "");
    ASSERT_TRUE(wait_jobs(1));
    EXPECT_EQ(send("b", "2002^|^"), "OK");
    EXPECT_EQ(send("c", "2003^|^"), "OK");

    stop();  // SIGKILL, reaped, its txrx children ended
    // A transceiver slow to take its port: the first queued job must still
    // reach it rather than a port nobody listens on.
    ASSERT_EQ(::rename(path("bin/txrx").c_str(), path("bin/txrx-real").c_str()), 0);
    write_file(path("bin/txrx"),
               "#!/bin/bash\nsleep 0.7\nexec -a \"$0\" \"${0%/*}/txrx-real\" \"$@\"\n");
    ::chmod(path("bin/txrx").c_str(), 0755);
    start();
    // The restarted daemon has no job outstanding: the first queued job goes
    // out on its own, the next after the report.
    ASSERT_TRUE(wait_jobs(2)) << daemon_log();
    report_done();
    ASSERT_TRUE(wait_jobs(3)) << daemon_log();
    EXPECT_EQ(recipients(), (std::vector<std::string>{"2001", "2002", "2003"}));
}

}  // namespace
}  // namespace smsgw::test
