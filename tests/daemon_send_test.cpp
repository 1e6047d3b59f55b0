// The real smsgwd sending: requests made while a job is outstanding are queued,
// counted and handed over one at a time in order, while other clients'
// commands get their own replies, also across a kill -9 and restart.
//
// Crash safety: a stream of send requests is cut by SIGKILL at random
// moments, and the daemon is restarted on the same root each time. Every
// acknowledged send must reach txrx exactly once, even where the kill tore a
// job file (address-book saves under power loss are the powercut run's part).
//
// What a kill may legitimately cost: a request whose reply never came may or
// may not become a job; and, since the scheduler hands a job over before it
// removes the record, the last hand-over before a kill may be repeated as the
// first one after the restart.
//
// The test plays txrx (it holds the txrx port, so the simulator the daemon
// starts stays idle) and decides when a job is reported done, which keeps
// jobs queued. SMSGW_CRASH_ROUNDS sets the number of kills (default 10),
// SMSGW_CRASH_SEED the first seed.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <map>
#include <mutex>
#include <random>
#include <set>
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
    ASSERT_TRUE(daemon_->signal(SIGUSR2));
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

int env_int(const char* name, int fallback) {
    const char* v = std::getenv(name);
    return v && *v ? std::atoi(v) : fallback;
}

class DaemonCrash : public DaemonFixture {
  protected:
    UdpListener txrx_{20202 + offset_};
    std::vector<std::string> sends_;
    std::set<std::string> acked_;
    std::vector<std::pair<std::string, int>> handovers_;  // text, daemon run
    bool outstanding_ = false;                            // a hand-over not yet reported done
    int run_ = 0;

    void restart() {
        start({}, false);
        outstanding_ = false;  // lives in memory only: the new run owes nothing
    }

    // Reads what the daemon handed to txrx; the job file names the text.
    void collect(std::chrono::milliseconds wait = 0ms) {
        while (auto d = txrx_.receive(wait)) {
            wait = 0ms;
            std::string job_path = d->substr(0, d->find('\0'));
            if (job_path.rfind("api ", 0) == 0) job_path = job_path.substr(4);
            std::string job = read_file(job_path).substr(0, 160);
            handovers_.emplace_back(job.substr(0, job.find('\0')), run_);
            outstanding_ = true;
        }
    }

    void report_done() {
        report("P_JB");
        outstanding_ = false;
    }

    std::string new_request() {
        std::string text = "crash-msg-" + std::to_string(sends_.size());
        sends_.push_back(text);
        return "send-sms " +
               spool_file(text, encode_request_file("admin", text, "5550100^|^", "", ""));
    }

    // Some acknowledged operations, then one more that the kill cuts at a
    // random point, anywhere from before it is read to after its reply.
    void round(int seed) {
        std::mt19937 rng(static_cast<unsigned>(seed));
        for (int i = 0, ops = 2 + static_cast<int>(rng() % 20); i < ops; ++i) {
            const std::string reply = ask(new_request());
            ASSERT_TRUE(reply == "" || reply == "OK") << reply;
            acked_.insert(sends_.back());
            collect();
            if (outstanding_ && rng() % 3 == 0) report_done();
        }
        if (outstanding_ && rng() % 2) report_done();  // races the scheduler
        const std::string text = new_request();
        client_.send_to(20205 + offset_, std::to_string(text.size()));
        client_.send_to(20205 + offset_, text);
        std::this_thread::sleep_for(std::chrono::microseconds(rng() % 3000));
        stop();
        auto late = client_.receive(0ms);  // a reply sent before the kill
        if (late) acked_.insert(sends_.back());
        collect();
        ++run_;
        restart();
    }

    bool queue_empty() {
        for (int i = 1; i <= 9; ++i)
            if (!file("var/Jobs/Pending_Jobs_" + std::to_string(i)).empty()) return false;
        return true;
    }

    // Reports done until the queue is empty and nothing more arrives; any
    // datagram makes the loop run the scheduler again.
    void drain() {
        auto deadline = std::chrono::steady_clock::now() + 120s;
        while (std::chrono::steady_clock::now() < deadline) {
            collect(300ms);
            if (outstanding_) {
                report_done();
                settle();
                settle();
            } else if (queue_empty()) {
                settle();
                collect(500ms);
                if (!outstanding_) return;
            }
        }
        ADD_FAILURE() << "the queue did not drain";
    }
};

TEST_F(DaemonCrash, KillsAtRandomMomentsLoseOrRepeatNothingAcknowledged) {
    ASSERT_TRUE(txrx_.ok());
    restart();
    ASSERT_FALSE(HasFatalFailure());
    const int rounds = env_int("SMSGW_CRASH_ROUNDS", 10);
    const int seed = env_int("SMSGW_CRASH_SEED", 1);
    for (int r = 0; r < rounds; ++r) {
        round(seed + r);
        ASSERT_FALSE(HasFatalFailure()) << "seed " << seed + r;
    }
    drain();

    std::map<std::string, std::vector<size_t>> seen;
    for (size_t i = 0; i < handovers_.size(); ++i) seen[handovers_[i].first].push_back(i);
    auto run_of = [&](size_t i) { return handovers_[i].second; };
    for (const std::string& text : sends_) {
        const std::vector<size_t> at = seen[text];
        seen.erase(text);
        if (at.empty()) {
            EXPECT_EQ(acked_.count(text), 0u) << text << ": acknowledged, never handed over";
        } else if (at.size() > 1) {
            // The one allowed repeat: last of a run, then first of the next.
            bool repeat_over_kill =
                at.size() == 2 && run_of(at[1]) == run_of(at[0]) + 1 && (at[0] + 1 == at[1]);
            EXPECT_TRUE(repeat_over_kill) << text << " handed over " << at.size() << " times";
        }
    }
    for (const auto& [text, at] : seen) ADD_FAILURE() << "never requested: '" << text << "'";
    std::printf("kills=%d requests=%zu acknowledged=%zu handovers=%zu\n", rounds, sends_.size(),
                acked_.size(), handovers_.size());
}

}  // namespace
}  // namespace smsgw::test
