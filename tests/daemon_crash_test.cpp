// Crash safety of the real smsgwd: a stream of send requests is cut by
// SIGKILL at random moments, and the daemon is restarted on the same root
// each time. Every acknowledged send must reach txrx exactly once, even where
// the kill tore a job file (address-book saves under power loss are the
// powercut run's part).
//
// What a kill may legitimately cost: a request whose reply never came may or
// may not become a job; and, since the
// scheduler hands a job over before it removes the record, the last
// hand-over before a kill may be repeated as the first one after the restart.
//
// The test plays txrx (it holds the txrx port, so the simulator the daemon
// starts stays idle) and decides when a job is reported done, which keeps
// jobs queued. SMSGW_CRASH_ROUNDS sets the number of kills (default 10),
// SMSGW_CRASH_SEED the first seed.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <map>
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
