#include "checks.h"

#include <algorithm>

#include "formats/request_file.h"
#include "sandbox.h"

namespace powercut {

namespace {

constexpr const char kBook[] = "var/AddressBook/Address_Book";
constexpr const char kGroups[] = "var/AddressBook/groups";

bool is_length(const std::string& d) {
    return !d.empty() &&
           std::all_of(d.begin(), d.end(), [](char c) { return c >= '0' && c <= '9'; });
}

std::string until_nul(const std::string& s) {
    return s.substr(0, s.find('\0'));
}

// The job file path of a hand-over datagram ("PATH" or "api PATH"), or ""
// for a control message.
std::string handed_path(const std::string& payload) {
    std::string p = until_nul(payload);
    if (p.rfind("api ", 0) == 0) p = p.substr(4);
    return p.rfind('/', 0) == 0 ? p : std::string();
}

std::vector<std::string> watched_contents(const Image& image) {
    std::vector<std::string> out;
    for (const auto& f : watched_files()) out.push_back(image.content(f));
    return out;
}

std::string shorten(const std::string& s) {
    std::string out;
    for (char c : s.substr(0, 60)) out += (c >= 32 && c < 127) ? c : '.';
    return s.size() > 60 ? out + "...(" + std::to_string(s.size()) + " bytes)" : out;
}

size_t count(const std::vector<std::string>& v, const std::string& s) {
    return static_cast<size_t>(std::count(v.begin(), v.end(), s));
}

// The watched files against the last finished point before the cut and the
// first one after it. The address book is the one the restarted daemon
// loaded, as its own save shows it (a save cut short is finished or undone
// by the load); the other files are judged as the state holds them.
void judge_files(const Timeline& t, const CrashState& state, const Restart& r, Verdict& v) {
    auto after = std::lower_bound(t.stable.begin(), t.stable.end(), state.cut);
    auto before = std::upper_bound(t.stable.begin(), t.stable.end(), state.cut) - 1;
    const auto& old_files = t.contents[static_cast<size_t>(before - t.stable.begin())];
    const auto& new_files = after == t.stable.end()
                                ? old_files
                                : t.contents[static_cast<size_t>(after - t.stable.begin())];
    std::vector<std::string> now = watched_contents(state.image);
    now[0] = r.resaved_book;
    now[1] = r.resaved_groups;
    const auto& names = watched_files();
    auto book_is = [&](const std::vector<std::string>& f) {
        return now[0] == f[0] && now[1] == f[1];
    };
    if (r.resave_reply != "SUCCESS")
        v.problems.push_back("the restarted daemon could not save its address book: " +
                             r.resave_reply);
    else if (!book_is(old_files) && !book_is(new_files))
        v.problems.push_back("address book is no completed save: contacts '" + shorten(now[0]) +
                             "' groups '" + shorten(now[1]) + "'; before '" +
                             shorten(old_files[0]) + "' / '" + shorten(old_files[1]) +
                             "', after '" + shorten(new_files[0]) + "' / '" +
                             shorten(new_files[1]) + "'");
    for (size_t i = 2; i < names.size(); ++i)
        if (now[i] != old_files[i] && now[i] != new_files[i])
            v.problems.push_back(names[i] + " is neither old nor new: '" + shorten(now[i]) + "'");
}

void judge_sends(const Timeline& t, const CrashState& state, const Restart& r, Verdict& v) {
    std::vector<std::string> before;
    for (const auto& h : t.handovers)
        if (h.at < state.cut) before.push_back(h.text);
    const std::string last_before = before.empty() ? "" : before.back();
    const std::string first_after = r.handed.empty() ? "" : r.handed.front();
    std::vector<std::string> known;
    for (const auto& s : t.sends) {
        known.push_back(s.text);
        const bool acked = s.answered < state.cut;
        const size_t pre = count(before, s.text), post = count(r.handed, s.text);
        const bool resend = pre == 1 && post == 1 && last_before == s.text && first_after == s.text;
        v.acked += acked;
        v.resent += resend;
        if (pre + post == 0 && acked) {
            ++v.lost;
            v.problems.push_back("acknowledged send '" + s.text + "' lost");
        } else if (pre + post > 1 && !resend) {
            ++v.duplicated;
            v.problems.push_back("'" + s.text + "' handed over " + std::to_string(pre + post) +
                                 " times");
        }
    }
    for (size_t i = 0; i < r.post_texts.size(); ++i) {
        known.push_back(r.post_texts[i]);
        if (count(r.handed, r.post_texts[i]) != 1)
            v.problems.push_back("request sent after the restart ('" + r.post_texts[i] +
                                 "', reply '" + r.post_replies[i] + "') handed over " +
                                 std::to_string(count(r.handed, r.post_texts[i])) + " times");
    }
    for (const auto& text : r.handed) {
        if (count(known, text) != 0) continue;
        // A body torn with zeros after its header passes every length check:
        // the job of a request that was never answered goes out cut short.
        bool cut_short = state.torn_zero > 0 &&
                         std::any_of(t.sends.begin(), t.sends.end(), [&](const Timeline::Send& s) {
                             return s.answered >= state.cut && s.text.rfind(text, 0) == 0;
                         });
        (cut_short ? v.notes : v.problems)
            .push_back("job never requested handed over: '" + shorten(text) + "'");
    }
}

}  // namespace

const std::vector<std::string>& watched_files() {
    static const std::vector<std::string> files = {
        kBook,
        kGroups,
        "var/config/trigger_broadcast",
        "var/config/preconf_sms",
        "var/config/trigger_ctrl",
        "var/config/authenticate_list",
        "var/config/international_dialing",
        "var/config/http_server_conf",
        "var/config/modem_conf",
    };
    return files;
}

Timeline extract_timeline(const History& history, const std::string& root, const Ports& ports) {
    Timeline t;
    Image full = history.start();
    t.stable.push_back(0);
    t.contents.push_back(watched_contents(full));
    size_t open_send = Timeline::npos;  // the send request awaiting its reply
    bool in_request = false;
    const auto& ops = history.ops();
    for (size_t i = 0; i < ops.size(); ++i) {
        const Op& op = ops[i];
        history.apply(full, i);
        const bool stable_mark = op.type == OpType::Mark && op.path == "stable";
        if (op.type == OpType::Recv && op.off == ports.gui() && !is_length(op.data)) {
            in_request = true;
            const std::string line = until_nul(op.data);
            if (line.rfind("send-sms ", 0) == 0) {
                std::string path = line.substr(9);
                if (path.rfind(root + "/", 0) == 0) path = path.substr(root.size() + 1);
                const std::string text = smsgw::decode_request_file(full.content(path)).text();
                t.sends.push_back({text, i, Timeline::npos, ""});
                open_send = t.sends.size() - 1;
            }
        } else if (op.type == OpType::Send && op.off == ports.client && in_request) {
            in_request = false;
            if (open_send != Timeline::npos) {
                t.sends[open_send].answered = i;
                t.sends[open_send].reply = op.data;
                open_send = Timeline::npos;
            }
        } else if (op.type == OpType::Send && op.off == ports.txrx()) {
            std::string path = handed_path(op.data);
            if (path.rfind(root + "/", 0) == 0)
                t.handovers.push_back({i, job_text(full.content(path.substr(root.size() + 1)))});
            continue;
        } else if (!stable_mark) {
            continue;
        }
        if (in_request) continue;
        t.stable.push_back(i + 1);
        t.contents.push_back(watched_contents(full));
    }
    t.stable.push_back(ops.size());
    t.contents.push_back(watched_contents(full));
    return t;
}

Verdict judge(const Timeline& timeline, const CrashState& state, const Restart& restart) {
    Verdict v;
    if (!restart.started) {
        v.problems.push_back("the daemon did not start and answer");
        return v;
    }
    if (!restart.answered) v.problems.push_back("the daemon stopped answering");
    if (!restart.alive) v.problems.push_back("the daemon exited");
    for (const auto& f : restart.outside) v.problems.push_back("created outside the root: " + f);
    if (!restart.drained) v.notes.push_back("job records left over: " + restart.left_over);
    judge_sends(timeline, state, restart, v);
    judge_files(timeline, state, restart, v);
    return v;
}

}  // namespace powercut
