#include "runner.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <random>
#include <vector>

#include "common/fileops.h"
#include "formats/request_file.h"

namespace powercut {

namespace {

// Deadlines only: a loaded machine (the whole test suite beside us, a
// sanitizer or an emulator) may take seconds for a step that usually takes
// milliseconds.
constexpr Millis kReplyWait{30000};
constexpr Millis kHandOverWait{20000};
// A queue that hands nothing over for this long is stuck.
constexpr auto kNoProgress = std::chrono::seconds(20);
constexpr int kJobFiles = 9;

std::string handed_path(const std::string& datagram) {
    std::string p = datagram.substr(0, datagram.find('\0'));
    if (p.rfind("api ", 0) == 0) p = p.substr(4);
    return p.rfind('/', 0) == 0 ? p : std::string();
}

// The next job handed to txrx (control messages are passed over), as the
// job file's text; nullopt when none comes in time.
std::optional<std::string> next_hand_over(const Udp& txrx, Millis wait) {
    auto end = std::chrono::steady_clock::now() + wait;
    for (;;) {
        auto left = std::chrono::duration_cast<Millis>(end - std::chrono::steady_clock::now());
        auto d = txrx.receive(std::max(left, Millis(0)));
        if (!d) return std::nullopt;
        std::string path = handed_path(*d);
        if (!path.empty()) return job_text(smsgw::read_file(path).value_or(""));
    }
}

void append_record(const std::string& log, const std::string& rec) {
    smsgw::Fd fd(::open(log.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644));
    if (fd) smsgw::write_all(fd.get(), rec);
}

bool queue_empty(const std::string& root) {
    for (int i = 1; i <= kJobFiles; ++i)
        if (smsgw::file_size(root + "/var/Jobs/Pending_Jobs_" + std::to_string(i)) > 0)
            return false;
    return smsgw::file_size(root + "/var/Jobs/PerModem_PendingJob") == 0;
}

std::string left_over(const std::string& root) {
    std::string out;
    for (int i = 1; i <= kJobFiles; ++i) {
        long long n = smsgw::file_size(root + "/var/Jobs/Pending_Jobs_" + std::to_string(i));
        if (n > 0) out += " Pending_Jobs_" + std::to_string(i) + "=" + std::to_string(n);
    }
    return out;
}

bool wait_ready(const Bench& bench, Daemon& daemon) {
    return wait_until(
               [&] {
                   if (!daemon.running()) return true;
                   return bench.client
                       .request(bench.ports.gui(), "get-sms total-entries groups^|^", Millis(300))
                       .has_value();
               },
               Millis(60000)) &&
           daemon.running();
}

class Workload {
  public:
    Workload(Bench& bench, const std::string& root, const std::string& log, uint64_t seed)
        : bench_(bench), root_(root), log_(log), rng_(seed) {}

    WorkloadStats run(Daemon& daemon, int ops) {
        daemon_ = &daemon;
        for (int i = 0; i < ops; ++i) step();
        drain();
        settle();
        return stats_;
    }

  private:
    std::string ask(const std::string& text) {
        auto reply = bench_.client.request(bench_.ports.gui(), text, kReplyWait);
        return reply ? reply->substr(0, reply->find('\0')) : "<no reply>";
    }

    void expect(const std::string& text, const std::string& want) {
        std::string got = ask(text);
        if (got == want) return;
        ++stats_.odd_replies;
        std::fprintf(stderr, "powercut: '%s' answered '%s'\n", text.c_str(), got.c_str());
    }

    // The daemon is killed when the run ends, and what it was doing then
    // would be on disk but not yet in the record. So the run ends only once
    // the work the last report started is done: a request is answered after
    // the earlier work of its pass (recorded by then), and a second request
    // is taken in a later pass than the first, after the scheduler pass that
    // followed the report.
    void settle() {
        for (int i = 0; i < 2; ++i) ask("get-sms total-entries groups^|^");
    }

    void step() {
        const unsigned pick = static_cast<unsigned>(rng_() % 100);
        if (pick < 40) return send();
        if (pick < 52) return report();
        if (pick < 56) return drain();
        if (pick < 68) return contact();
        if (pick < 72) return group();
        if (pick < 78) return save();
        if (pick < 82) return signal_save();
        if (pick < 92) return rule_edit();
        settings();
    }

    // A request with a text of its own; one in five is large, so that the
    // ring's write file turns over.
    void send() {
        const int n = next_request_++;
        const std::string text = "pc-" + std::to_string(n);
        const bool big = rng_() % 5 == 0;
        const size_t padding = big ? 40000 + random_below(rng_, 120000) : random_below(rng_, 600);
        // Bytes after the last section are never read, but they are queued.
        const std::string bytes =
            smsgw::encode_request_file("admin", text, "555" + std::to_string(1000 + n) + "^|^", "",
                                       "") +
            std::string(padding, '\0');
        const std::string rel = "tmp/req-" + std::to_string(n);
        const std::string path = root_ + "/" + rel;
        smsgw::write_file(path, bytes);
        struct stat st {};
        ::stat(path.c_str(), &st);
        append_record(log_, encode_record(OpType::ExtFile, static_cast<int64_t>(st.st_ino), 0, rel,
                                          {}, bytes));
        ++stats_.sends;
        stats_.big += big;
        std::string reply = ask("send-sms " + path);
        if (reply == "OK") {
            ++stats_.queued;
            ++queued_;
        } else if (reply.empty()) {
            ++stats_.direct;
            outstanding_ = next_hand_over(bench_.txrx, kHandOverWait).has_value();
        } else {
            ++stats_.odd_replies;
        }
    }

    // txrx reports the outstanding job done; the scheduler hands over the
    // next queued one.
    void report() {
        if (!outstanding_) return;
        ++stats_.reports;
        bench_.client.send_to(bench_.ports.reports(), "P_JB");
        outstanding_ = false;
        if (queued_ == 0) return;
        outstanding_ = next_hand_over(bench_.txrx, kHandOverWait).has_value();
        if (outstanding_)
            --queued_;
        else
            queued_ = 0;  // nothing came: the run goes on from an idle daemon
    }

    void drain() {
        ++stats_.drains;
        while (outstanding_) report();
    }

    void contact() {
        ++stats_.contact_edits;
        if (!contacts_.empty() && rng_() % 3 == 0) {
            size_t i = random_below(rng_, contacts_.size());
            expect("del-sms phone_book " + contacts_[i].first + "^|^" + contacts_[i].second + "^|^",
                   "SUCCESS");
            contacts_.erase(contacts_.begin() + static_cast<long>(i));
            return;
        }
        char name[16], number[16];
        std::snprintf(name, sizeof name, "c%04d", next_contact_);
        std::snprintf(number, sizeof number, "7%06d", next_contact_);
        ++next_contact_;
        expect(std::string("add-sms phone_book ") + name + "^|^" + number + "^|^^|^", "SUCCESS");
        contacts_.emplace_back(name, number);
    }

    void group() {
        if (contacts_.empty()) return contact();
        ++stats_.group_edits;
        const auto& c = contacts_[random_below(rng_, contacts_.size())];
        expect("add-sms groups g" + std::to_string(next_group_++) + "^|^" + c.first + "^|^" +
                   c.second + "^|^[null]^|^",
               "SUCCESS");
    }

    void save() {
        ++stats_.saves;
        expect("save-address-book ^|^", "SUCCESS");
    }

    // SIGUSR1: the loop saves; the marker file tells when it is done.
    void signal_save() {
        ++stats_.signal_saves;
        const std::string marker = root_ + "/var/run/save_flg_file";
        auto done = [&] {
            std::string m = smsgw::read_file(marker).value_or("");
            size_t n = 0;
            for (size_t at = m.find("after"); at != std::string::npos; at = m.find("after", at + 1))
                ++n;
            return n;
        };
        const size_t before = done();
        daemon_->signal(SIGUSR1);
        if (!wait_until([&] { return done() > before; }, kReplyWait)) ++stats_.odd_replies;
        append_record(log_, encode_record(OpType::Mark, 0, 0, "stable", {}, {}));
    }

    void rule_edit() {
        ++stats_.rule_edits;
        const unsigned kind = static_cast<unsigned>(rng_() % 4);
        const std::string k = std::to_string(next_rule_++);
        if (kind == 0 && !contacts_.empty()) {
            const auto& c = contacts_[random_below(rng_, contacts_.size())];
            ask("add-sms trigger auth-list " + c.first + "^|^" + c.second + "^|^");
        } else if (kind == 1) {
            expect("add-sms trigger preconf_sms Note " + k + "^|^[null]]|[^|^", "SUCCESS");
        } else if (kind == 2) {
            expect("add-sms trigger sms Key" + k + "^|^Go^|^[null]]|[^|^YES^|^[null]]|[^|^",
                   "SUCCESS");
        } else {
            ask("del-sms trigger preconf_sms 1^|^");
        }
    }

    void settings() {
        ++stats_.settings;
        switch (rng_() % 4) {
            case 0:
                expect("add-sms international-dialing max-digits^|^" +
                           std::to_string(8 + rng_() % 8) + "^|^",
                       "SUCCESS");
                break;
            case 3:
                expect(std::string("add-sms international-dialing dialing^|^") +
                           (rng_() % 2 ? "enable" : "disable") + "^|^",
                       "SUCCESS");
                break;
            case 1:
                expect(std::string("add-sms modem x ") + (rng_() % 2 ? "AT+CSQ " : "AT+CCED "),
                       "SUCCESS");
                break;
            default:
                expect(std::string("set-sms-http set-sms-status ") +
                           (rng_() % 2 ? "enable " : "disable "),
                       "SUCCESS");
                break;
        }
    }

    Bench& bench_;
    std::string root_;
    std::string log_;
    std::mt19937_64 rng_;
    Daemon* daemon_ = nullptr;
    WorkloadStats stats_;
    bool outstanding_ = false;
    int queued_ = 0;
    int next_request_ = 0, next_contact_ = 0, next_group_ = 0, next_rule_ = 0;
    std::vector<std::pair<std::string, std::string>> contacts_;
};

// A request sent to the restarted daemon; its text is remembered.
void post_request(Bench& bench, const std::string& root, int n, Restart& r) {
    const std::string text = "post-restart-" + std::to_string(n);
    const std::string path = root + "/tmp/post-" + std::to_string(n);
    smsgw::write_file(path, smsgw::encode_request_file("admin", text, "5559999^|^", "", ""));
    auto reply = bench.client.request(bench.ports.gui(), "send-sms " + path, kReplyWait);
    r.post_texts.push_back(text);
    r.post_replies.push_back(reply ? reply->substr(0, reply->find('\0')) : "<no reply>");
}

// Hands-over that arrive without waiting, each reported done.
void drain_hand_overs(Bench& bench, Restart& r, Millis wait, bool report) {
    while (auto text = next_hand_over(bench.txrx, wait)) {
        r.handed.push_back(*text);
        if (report) bench.client.send_to(bench.ports.reports(), "P_JB");
        wait = Millis(0);
    }
}

void drain_queue(Bench& bench, const std::string& root, Restart& r) {
    auto last_progress = std::chrono::steady_clock::now();
    const auto give_up = last_progress + std::chrono::seconds(300);
    // One job may be outstanding from before the requests: report it.
    bench.client.send_to(bench.ports.reports(), "P_JB");
    while (std::chrono::steady_clock::now() < give_up) {
        size_t before = r.handed.size();
        drain_hand_overs(bench, r, Millis(20), true);
        if (r.handed.size() != before) {
            last_progress = std::chrono::steady_clock::now();
            continue;
        }
        if (queue_empty(root)) {
            // The reply comes after the scheduler's pass of this wake-up: a
            // job it handed over is in the socket by then.
            bench.client.request(bench.ports.gui(), "get-sms total-entries groups^|^", kReplyWait);
            drain_hand_overs(bench, r, Millis(0), true);
            if (r.handed.size() == before) {
                r.drained = true;
                return;
            }
            continue;
        }
        if (std::chrono::steady_clock::now() - last_progress > kNoProgress) break;
    }
    r.left_over = left_over(root);
}

std::vector<std::string> outside_files(const std::string& log) {
    std::vector<std::string> out;
    std::string bytes = smsgw::read_file(log).value_or("");
    std::string_view in(bytes);
    while (auto rec = decode_record(in))
        if (rec->type == OpType::Outside) out.push_back(rec->s1);
    return out;
}

}  // namespace

Bench::Bench(Programs p, int offset) : programs(std::move(p)), txrx(20202 + offset) {
    ports.offset = offset;
    ports.client = client.port();
}

std::string WorkloadStats::describe() const {
    char buf[300];
    std::snprintf(buf, sizeof buf,
                  "%d sends (%d handed over at once, %d queued, %d large), %d jobs reported "
                  "done, %d drains, %d contact and %d group edits, %d saves + %d on SIGUSR1, %d "
                  "rule-list edits, %d settings; %d unexpected replies",
                  sends, direct, queued, big, reports, drains, contact_edits, group_edits, saves,
                  signal_saves, rule_edits, settings, odd_replies);
    return buf;
}

WorkloadStats run_workload(Bench& bench, const std::string& root, const std::string& log, int ops,
                           uint64_t seed) {
    Daemon daemon(bench.programs, root, bench.ports.offset, log, Recording::Files);
    if (!wait_ready(bench, daemon)) {
        std::fprintf(stderr, "powercut: the recorded daemon did not start\n%s",
                     smsgw::read_file(root + "/daemon.stderr").value_or("").c_str());
        return {};
    }
    Workload w(bench, root, log, seed);
    return w.run(daemon, ops);
}

Restart restart_on(Bench& bench, const std::string& root, const std::string& log) {
    Restart r;
    Daemon daemon(bench.programs, root, bench.ports.offset, log, Recording::Datagrams);
    r.started = wait_ready(bench, daemon);
    if (!r.started) return r;
    // What it hands over at once stays outstanding, so that the second
    // request is queued behind whatever the crash left.
    drain_hand_overs(bench, r, Millis(0), false);
    post_request(bench, root, 1, r);
    drain_hand_overs(bench, r, Millis(0), false);
    post_request(bench, root, 2, r);
    drain_queue(bench, root, r);
    auto probe =
        bench.client.request(bench.ports.gui(), "get-sms total-entries groups^|^", kReplyWait);
    r.answered = probe.has_value();
    auto saved = bench.client.request(bench.ports.gui(), "save-address-book ^|^", kReplyWait);
    r.resave_reply = saved ? saved->substr(0, saved->find('\0')) : "<no reply>";
    r.resaved_book = smsgw::read_file(root + "/var/AddressBook/Address_Book").value_or("");
    r.resaved_groups = smsgw::read_file(root + "/var/AddressBook/groups").value_or("");
    r.alive = daemon.running();
    r.outside = outside_files(log);
    return r;
}

}  // namespace powercut
