// The real smsgwd under load: management commands from several clients at
// once, a long run of send requests while txrx-sim answers each job after a
// delay, and the daemon's resident memory before and after.
//
// SMSGW_LOAD_COMMANDS (default 4000) and SMSGW_LOAD_SENDS (default 300) set
// the counts.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "formats/request_file.h"
#include "send/sender.h"
#include "support/test_support.h"

namespace smsgw {
namespace {

using namespace std::chrono_literals;
using test::TempDir;

int env_int(const char* name, int fallback) {
    const char* v = std::getenv(name);
    return v && *v ? std::atoi(v) : fallback;
}

long rss_kb(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
    return -1;
}

// Each client asks something whose answer no other client's question gets,
// so a reply that reached the wrong socket shows.
struct ClientScript {
    std::string request;
    std::string reply;
};

const std::vector<ClientScript> kScripts = {
    {"get-sms total-entries phone_book^|^", "5"},
    {"get-sms total-entries groups^|^", "3"},
    {"get-sms phone_book", "Invalid String to Parse"},
    {"add-sms phone_book Ann^|^555^|^again^|^", "ERROR:Rejected - Duplicate Entry"},
};

// "load-N" texts compared by N, the order they were sent in.
bool numeric_order(const std::string& a, const std::string& b) {
    return std::atoi(a.c_str() + 5) < std::atoi(b.c_str() + 5);
}

// The messages txrx-sim logged, in order, read as the log grows.
class JobLog {
  public:
    explicit JobLog(std::string path) : path_(std::move(path)) {}
    const std::vector<std::string>& texts() {
        std::ifstream in(path_, std::ios::binary);
        in.seekg(static_cast<std::streamoff>(read_));
        std::string chunk((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        size_t end = chunk.rfind('\n');
        if (end == std::string::npos) return texts_;
        read_ += end + 1;
        size_t pos = 0;
        while (pos <= end) {
            size_t nl = chunk.find('\n', pos);
            std::string line = chunk.substr(pos, nl - pos);
            pos = nl + 1;
            size_t t = line.find(" text=");
            size_t to = line.rfind(" to=");
            if (line.rfind("JOB ", 0) == 0 && t != std::string::npos && to != std::string::npos)
                texts_.push_back(line.substr(t + 6, to - t - 6));
            if (line.rfind("START ", 0) == 0) ++starts_;
        }
        return texts_;
    }
    int starts() {
        texts();
        return starts_;
    }

  private:
    std::string path_;
    size_t read_ = 0;
    int starts_ = 0;
    std::vector<std::string> texts_;
};

class DaemonLoad : public ::testing::Test {
  protected:
    void SetUp() override {
        test::prepare_root(root_.path());
        test::write_file(root_ / "var/AddressBook/groups", "Friends\nTeam\nFamily\n");
        test::write_file(root_ / "var/AddressBook/Address_Book",
                         "Ann^|^555^|^desk^|^1,^|^\n"
                         "Bob^|^777^|^^|^1,2,^|^\n"
                         "Carl^|^111^|^^|^3,^|^\n"
                         "Dora^|^444^|^^|^^|^\n"
                         "Eve^|^999^|^^|^2,^|^\n");
        // Slow enough that requests pile up in the queue, as they do when
        // a modem is busy sending. A queue that runs dry costs the scheduler's
        // two-second pause each time, so it must not empty between requests.
        ::setenv("SMSGW_SIM_DELAY_MS", "10", 1);
        daemon_ = std::make_unique<test::Daemon>(root_.path(), offset_);
        ::unsetenv("SMSGW_SIM_DELAY_MS");
        ASSERT_TRUE(daemon_->wait_ready()) << daemon_->stderr_text();
        // A job handed over before txrx listens would be lost.
        ASSERT_TRUE(test::wait_for([&] { return log_.starts() >= 1; }, 10s));
    }

    // Every client waits for its reply before it asks again, and the two
    // datagrams of a request (length, then text) go out under one lock: the
    // daemon reads the text right after its length, so if another client's
    // datagram came between them the framing would pair the wrong halves.
    // With whole pairs queued, up to one request per client waits in the
    // daemon's socket at a time, and the reply goes to the sender of the
    // datagram read last, which is the asker.
    void run_clients(int total, std::atomic<int>& lost, std::atomic<int>& wrong) {
        std::vector<std::thread> threads;
        for (size_t c = 0; c < kScripts.size(); ++c) {
            threads.emplace_back([&, c] {
                test::UdpClient client;
                const ClientScript& s = kScripts[c];
                for (int i = static_cast<int>(c); i < total;
                     i += static_cast<int>(kScripts.size())) {
                    {
                        std::lock_guard<std::mutex> lock(pair_lock_);
                        client.send_to(gui(), std::to_string(s.request.size()));
                        client.send_to(gui(), s.request);
                    }
                    auto reply = client.receive(10s);
                    if (!reply) {
                        ++lost;
                    } else if (*reply != s.reply) {
                        ++wrong;
                    }
                }
            });
        }
        for (auto& t : threads) t.join();
    }

    // Sends `count` requests one after the other; each is answered "" when
    // handed over at once or "OK" when queued. Returns the texts of the
    // queued ones; a request answered otherwise counts in bad_replies.
    std::vector<std::string> send_requests(const std::string& prefix, int count, int& bad_replies) {
        test::UdpClient client;
        std::vector<std::string> queued;
        for (int i = 0; i < count; ++i) {
            std::string text = prefix + std::to_string(i);
            std::string file = root_ / ("tmp/" + text);
            test::write_file(file, encode_request_file("admin", text, "5550100^|^", "", ""));
            std::string request = "send-sms " + file;
            {
                std::lock_guard<std::mutex> lock(pair_lock_);
                client.send_to(gui(), std::to_string(request.size()));
                client.send_to(gui(), request);
            }
            auto reply = client.receive(10s);
            if (reply == std::optional<std::string>("OK"))
                queued.push_back(text);
            else if (reply != std::optional<std::string>(""))
                ++bad_replies;
        }
        return queued;
    }

    // Waits for txrx-sim to have logged `count` jobs in all. The loop waits
    // up to two seconds between passes when nothing arrives, so no-op
    // datagrams to the load-balancer port keep it turning meanwhile.
    bool wait_jobs(size_t count, std::chrono::seconds deadline) {
        std::atomic<bool> done{false};
        std::thread poker([&] {
            test::UdpClient c;
            while (!done) {
                c.send_to(20207 + offset_, "wake");
                c.receive(1ms);  // nothing answers: a short pause between pokes
            }
        });
        bool ok = test::wait_for([&] { return log_.texts().size() >= count; }, deadline);
        done = true;
        poker.join();
        return ok;
    }

    int gui() const { return 20205 + offset_; }

    TempDir root_;
    int offset_ = test::random_port_offset();
    std::unique_ptr<test::Daemon> daemon_;
    std::mutex pair_lock_;
    JobLog log_{root_ / "var/run/txrx-sim.log"};
};

TEST_F(DaemonLoad, ConcurrentCommandsAndQueuedSendsKeepRepliesOrderAndMemory) {
    const int commands = env_int("SMSGW_LOAD_COMMANDS", 4000);
    const int sends = env_int("SMSGW_LOAD_SENDS", 300);

    // Warm-up: the same kinds of work, so the heap has reached its working
    // size before the first measurement.
    std::atomic<int> lost{0}, wrong{0};
    int bad_send_replies = 0;
    run_clients(400, lost, wrong);
    send_requests("warm-", 40, bad_send_replies);
    ASSERT_TRUE(wait_jobs(40, 60s));
    const long rss_before = rss_kb(daemon_->pid());
    ASSERT_GT(rss_before, 0);

    auto started = std::chrono::steady_clock::now();
    std::vector<std::string> queued;
    std::thread sender([&] { queued = send_requests("load-", sends, bad_send_replies); });
    run_clients(commands, lost, wrong);
    sender.join();
    ASSERT_TRUE(wait_jobs(static_cast<size_t>(40 + sends), std::chrono::seconds(60 + sends / 20)))
        << log_.texts().size() << " jobs logged";
    auto seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    const long rss_after = rss_kb(daemon_->pid());

    EXPECT_EQ(lost, 0) << "requests without a reply";
    EXPECT_EQ(wrong, 0) << "replies that belong to another client's request";
    EXPECT_EQ(bad_send_replies, 0);
    EXPECT_TRUE(daemon_->running());

    // Every request exactly once. A request that arrives in the same pass as
    // txrx's "P_JB" finds no job outstanding and goes straight out, ahead of
    // what is queued; the queued ones keep their order among themselves.
    std::map<std::string, int> times;
    std::vector<std::string> queued_seen;
    for (const std::string& t : log_.texts()) {
        ++times[t];
        if (t.rfind("load-", 0) == 0 &&
            std::binary_search(queued.begin(), queued.end(), t, numeric_order))
            queued_seen.push_back(t);
    }
    for (int i = 0; i < sends; ++i) {
        const std::string t = "load-" + std::to_string(i);
        EXPECT_EQ(times[t], 1) << t;
        times.erase(t);
    }
    for (int i = 0; i < 40; ++i) times.erase("warm-" + std::to_string(i));
    EXPECT_TRUE(times.empty()) << times.size() << " unexpected or repeated jobs";
    EXPECT_EQ(queued_seen, queued) << "queued jobs handed over out of order";
    EXPECT_GT(queued.size(), 0u) << "nothing was queued: the load did not load";

    std::printf("commands=%d sends=%d queued=%zu seconds=%.1f rss_before_kb=%ld rss_after_kb=%ld\n",
                commands, sends, queued.size(), seconds, rss_before, rss_after);
#if defined(__SANITIZE_ADDRESS__)
    // The sanitizer's quarantine holds freed memory back on purpose; the
    // resident size says nothing about leaks there (its leak check does).
    std::printf("resident memory not compared in a sanitizer build\n");
#else
    EXPECT_LE(rss_after, rss_before + rss_before / 10);
#endif
}

}  // namespace
}  // namespace smsgw
