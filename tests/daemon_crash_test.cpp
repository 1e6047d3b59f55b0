// Crash safety of the real smsgwd: a mixed workload of contact edits, saves
// and send requests is cut by SIGKILL at random moments, and the daemon is
// restarted on the same root each time. Afterwards the address book must be
// the one of the last completed save, and every acknowledged send must reach
// txrx exactly once, even where the kill tore a job file.
//
// What a kill may legitimately cost: a request whose reply never came may or
// may not become a job; contact edits not yet saved; and, since the
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
using Book = std::map<std::string, std::string>;

int env_int(const char* name, int fallback) {
    const char* v = std::getenv(name);
    return v && *v ? std::atoi(v) : fallback;
}

// The contact file as the daemon writes it for contacts in no group with no
// description; names are fixed-width, so the map's order is the table's.
std::string serialize(const Book& book) {
    std::string out;
    for (const auto& [name, number] : book) out += name + "^|^" + number + "^|^^|^^|^\n";
    return out;
}

class DaemonCrash : public DaemonFixture {
  protected:
    UdpListener txrx_{20202 + offset_};
    Book model_;  // the daemon's memory, as far as acknowledged
    Book saved_;  // the book of the last completed save
    std::vector<std::string> sends_;
    std::set<std::string> acked_;
    std::vector<std::pair<std::string, int>> handovers_;  // text, daemon run
    std::pair<std::string, std::string> pending_add_;
    bool outstanding_ = false;  // a hand-over not yet reported done
    int run_ = 0, contacts_ = 0;

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

    std::string add_command() {
        char name[16], number[16];
        std::snprintf(name, sizeof name, "c%06d", contacts_);
        std::snprintf(number, sizeof number, "7%06d", contacts_++);
        pending_add_ = {name, number};
        return std::string("add-sms phone_book ") + name + "^|^" + number + "^|^^|^";
    }

    void one_step(std::mt19937& rng) {
        const auto kind = rng() % 10;
        if (kind < 3) {
            ASSERT_EQ(ask(add_command()), "SUCCESS");
            model_.insert(pending_add_);
        } else if (kind == 3 && !model_.empty()) {
            auto it = std::next(model_.begin(), static_cast<long>(rng() % model_.size()));
            ASSERT_EQ(ask("del-sms phone_book " + it->first + "^|^" + it->second + "^|^"),
                      "SUCCESS");
            model_.erase(it);
        } else if (kind == 4) {
            ASSERT_EQ(ask("save-address-book ^|^"), "SUCCESS");
            ASSERT_EQ(file("var/AddressBook/Address_Book"), serialize(model_));
            saved_ = model_;
        } else if (kind > 4) {
            const std::string reply = ask(new_request());
            ASSERT_TRUE(reply == "" || reply == "OK") << reply;
            acked_.insert(sends_.back());
        }
    }

    // Some acknowledged operations, then one more that the kill cuts at a
    // random point, anywhere from before it is read to after its reply.
    void round(int seed) {
        std::mt19937 rng(static_cast<unsigned>(seed));
        for (int i = 0, ops = 4 + static_cast<int>(rng() % 30); i < ops; ++i) {
            one_step(rng);
            if (::testing::Test::HasFatalFailure()) return;
            collect();
            if (outstanding_ && rng() % 3 == 0) report_done();
        }
        const auto kind = rng() % 4;
        if (outstanding_ && kind == 3) report_done();  // races the scheduler
        const std::string text = kind == 0   ? "save-address-book ^|^"
                                 : kind == 1 ? add_command()
                                             : new_request();
        client_.send_to(20205 + offset_, std::to_string(text.size()));
        client_.send_to(20205 + offset_, text);
        std::this_thread::sleep_for(std::chrono::microseconds(rng() % 3000));
        stop();
        auto late = client_.receive(0ms);  // a reply sent before the kill
        if (kind >= 2 && late) acked_.insert(sends_.back());
        if (kind == 0 && late == std::optional<std::string>("SUCCESS")) saved_ = model_;
        collect();
        ++run_;
        check_restart(kind == 0 && !late);
    }

    void check_restart(bool save_was_cut) {
        restart();
        if (::testing::Test::HasFatalFailure()) return;
        // The load emptied the directory; only a save brings the file back.
        ASSERT_EQ(ask("save-address-book ^|^"), "SUCCESS");
        const std::string bytes = file("var/AddressBook/Address_Book");
        if (bytes != serialize(saved_)) {
            // Only a save the kill interrupted may have completed.
            ASSERT_TRUE(save_was_cut && bytes == serialize(model_)) << bytes;
        }
        model_ = saved_ = bytes == serialize(saved_) ? saved_ : model_;
        EXPECT_EQ(ask("get-sms total-entries phone_book^|^"), std::to_string(model_.size()));
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
    std::printf("kills=%d requests=%zu acknowledged=%zu handovers=%zu contacts=%zu\n", rounds,
                sends_.size(), acked_.size(), handovers_.size(), model_.size());
}

}  // namespace
}  // namespace smsgw::test
