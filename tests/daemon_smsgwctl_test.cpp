// smsgwctl end to end: the command texts it puts on the wire and the
// checks around them (against a scripted fake daemon on the web-interface
// port), its exit statuses and messages, what it prints, the files it
// writes, reads and leaves behind, and sessions against the real daemon.
#include <unistd.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/fileops.h"
#include "formats/job_header.h"
#include "formats/request_file.h"
#include "support/test_support.h"

namespace smsgw::test {
namespace {

using namespace std::chrono_literals;
using Args = std::vector<std::string>;

struct CtlResult {
    int status = -1;  // exit status, -1 when it did not exit normally in time
    std::string out, err;
};

// One exchange with the fake daemon: the request it must receive, the
// response file it writes (when given), its reply.
struct Step {
    std::string request, reply;
    std::optional<std::string> file = std::nullopt;
};

const std::string S = "SUCCESS";
const std::string RF = "/var/run/RESPONSE_FILE";  // as a daemon without a root names it
const std::string kNoMembers = "17^|^MAX_ELEMENTS=0";

class CtlTest : public DaemonFixture {
  protected:
    void SetUp() override {
        // Retry on a port clash with a test running at the same time.
        for (int i = 0; i < 20 && !(fake_ && fake_->ok()); ++i) {
            offset_ = random_port_offset();
            fake_.emplace(20205 + offset_);
        }
        ASSERT_TRUE(fake_->ok());
    }
    std::unique_ptr<Child> spawn(const Args& args) {
        Args argv = exec_prefix();
        argv.insert(argv.end(), {SMSGWCTL_PATH, "--root", root_.path(), "--port-offset",
                                 std::to_string(offset_)});
        argv.insert(argv.end(), args.begin(), args.end());
        return std::make_unique<Child>(argv, path("ctl.out"), path("ctl.err"));
    }
    CtlResult finish(Child& ctl) { return {ctl.finish(), file("ctl.out"), file("ctl.err")}; }
    CtlResult ctl(const Args& args) { return finish(*spawn(args)); }
    // Runs smsgwctl and plays the daemon's part of `steps` (each request
    // comes as a length datagram, then the text); `between` runs after each
    // request was taken, before the reply.
    CtlResult play(const Args& args, const std::vector<Step>& steps,
                   const std::function<void(const std::string&)>& between = {}) {
        auto child = spawn(args);
        for (const auto& s : steps) {
            auto len = fake_->receive(10s);
            auto text = len ? fake_->receive(10s) : std::nullopt;
            EXPECT_TRUE(text && *len == std::to_string(text->size()));
            EXPECT_TRUE(s.request.empty() || text == s.request) << text.value_or("<nothing>");
            if (!text) break;
            if (s.file) write_file(path("var/run/RESPONSE_FILE"), *s.file);
            if (between) between(*text);
            fake_->reply(s.reply);
        }
        return finish(*child);
    }
    // No request file of smsgwctl's is left in the spool.
    bool spool_empty() const {
        for (const auto& f : tree_below(path("tmp")))
            if (f.rfind("smsgwctl-", 0) == 0) return false;
        return true;
    }

    std::optional<UdpListener> fake_;
};

// What smsgwctl shows: a fragment of standard output after a success, of
// standard error otherwise.
void expect_shown(const CtlResult& r, int status, const std::string& shown) {
    EXPECT_EQ(r.status, status) << r.out << r.err;
    const std::string& where = status == 0 ? r.out : r.err;
    EXPECT_NE(where.find(shown), std::string::npos) << "'" << shown << "' not in:\n" << where;
}

struct Case {
    Args args;
    std::vector<Step> steps;
    int status;
    std::string shown;
};

TEST_F(CtlTest, EachVerbSendsItsTextsAndTellsWhatHappened) {
    const Step g1{"get-sms group G1^|^1^|^", RF, kNoMembers};  // G1 exists
    const Step no_g1{"get-sms group G1^|^1^|^", S};            // it does not
    const Step nobody{"get-sms phone_number 1^|^", "ERROR"};
    // clang-format off
    const std::vector<Case> cases = {
        {{"contacts", "count"}, {{"get-sms total-entries phone_book^|^", "12"}}, 0, "12\n"},
        // A damaged listing, and one in some other file: neither is followed.
        {{"contacts", "list"}, {{"get-sms phone_book 1^|^", RF, "99999999999999999999^|^Ann^|^1^|^^|^"}}, 5, "is damaged"},
        {{"contacts", "list"}, {{"get-sms phone_book 1^|^", "/etc/passwd"}}, 5,
         "unexpected answer from smsgwd: cannot list the contacts (smsgwd answered \"/etc/passwd\")"},
        // A deletion answers "ERROR" whatever it did.
        {{"groups", "del", "G1"}, {g1, {"del-sms groups G1^|^", "ERROR"}, no_g1}, 0, "deleted 'G1'"},
        {{"groups", "del", "G1"}, {g1, {"del-sms groups G1^|^", "ERROR"}, g1}, 1, "'G1' was not deleted"},
        {{"import-csv", "/nonexistent.csv"}, {}, 4, "cannot read /nonexistent.csv: No such file or directory"},
        {{"--json", "contacts", "find-number", "1"}, {nobody}, 1, "no contact has the number 1"},
    };
    // clang-format on
    for (const auto& c : cases) {
        std::string line;
        for (const auto& a : c.args) line += a + " ";
        SCOPED_TRACE(line);
        expect_shown(play(c.args, c.steps), c.status, c.shown);
    }
    // The JSON error object.
    EXPECT_EQ(file("ctl.out"),
              "{\"ok\":false,\"exit_status\":1,\"error\":\"no contact has the number "
              "1\",\"reply\":\"ERROR\"}\n");
}

TEST_F(CtlTest, TablesEscapeControlsAndAlignByDisplayWidth) {
    auto contact = [](const std::string& name, const std::string& number) {
        return rec("^|^" + name + "^|^" + number + "^|^^|^");
    };
    const std::string listing = contact("\x1b[2J\x1b[31mEvil", "1") + contact("Zo\xc3\xab", "2") +
                                contact("\xe5\x90\x8d\xe5\x89\x8d", "3") + contact("a\nb\\", "4") +
                                contact("\xff\xc2\x9b", "5") + rec("^|^MAX_ELEMENTS=5");
    CtlResult r = play({"contacts", "list"}, {{"get-sms phone_book 1^|^", RF, listing}});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out,
              "NAME             NUMBER  DESCRIPTION\n"
              "\\e[2J\\e[31mEvil  1\n"
              "Zo\xc3\xab              2\n"
              "\xe5\x90\x8d\xe5\x89\x8d             3\n"
              "a\\nb\\\\           4\n"
              "\\xff\\u009b       5\n"
              "5 shown from 1, 5 in all\n");
}

TEST_F(CtlTest, RootAndPortOffsetFromTheEnvironment) {
    Args argv = exec_prefix();
    argv.insert(argv.end(), {SMSGWCTL_PATH, "contacts", "count"});
    Child child(argv, path("ctl.out"), path("ctl.err"),
                {"SMSGW_ROOT=" + root_.path(), "SMSGW_PORT_OFFSET=" + std::to_string(offset_)});
    ASSERT_TRUE(fake_->receive(10s));
    EXPECT_EQ(fake_->receive(10s), "get-sms total-entries phone_book^|^");
    fake_->reply("7");
    EXPECT_EQ(finish(child).out, "7\n");
}

TEST_F(CtlTest, BadCommandLinesAreOneLineStatusTwoAndSendNothing) {
    // clang-format off
    const std::vector<Args> bad = {
        {"contacts", "frobnicate"}, {"contacts", "add", "Evil\x1b[2J", "1"},
        {"send", "--to", "1", std::string(160, 'x')},
    };
    // clang-format on
    for (const auto& args : bad) {
        CtlResult r = ctl(args);
        EXPECT_EQ(r.status, 2) << r.err;
        EXPECT_EQ(r.err.rfind("smsgwctl: ", 0), 0u) << r.err;
        EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << r.err;  // one line
        EXPECT_EQ(r.err.find('\x1b'), std::string::npos);
        EXPECT_EQ(r.out, "");
    }
    EXPECT_FALSE(fake_->receive(0ms));
    EXPECT_TRUE(spool_empty());
}

TEST_F(CtlTest, UnansweredRequestIsStatusThreeAndLeavesNoFile) {
    // The fake takes the request and never answers.
    expect_shown(
        ctl({"--timeout", "1", "import-csv", "/dev/null"}), 3,
        "no answer from smsgwd on 127.0.0.1:" + std::to_string(20205 + offset_) + " within 1 s");
    EXPECT_FALSE(exists(path("var/run/AddressBook.csv")));
    EXPECT_FALSE(exists(path("var/run/csv_frmt.dat")));
}

// ---------------------------------------------------------------- sending

std::string job(const std::string& from, const std::string& body) {
    return encode_job_header(static_cast<int32_t>(body.size()), 0, from) + body;
}

TEST_F(CtlTest, SendWritesTheRequestFileAndReportsItsFate) {
    // What the fake does with the request: t takes the file, h counts a
    // hand-off, q queues it, f marks the queue full.
    struct SendCase {
        Args args;
        std::string reply, fate;
        int status;
        std::string shown;
    };
    // clang-format off
    const std::vector<SendCase> cases = {
        {{"--to", "+4911", "--to", "+4922", "--contact", "Ann Lee", "--group", "Friends", "--from", "ops", "hello there"},
         "", "th", 0, "handed to the modem\n"},
        {{"--all", "hi"}, "", "t", 1, "the daemon dropped the job"},
        {{"--to", "1", "hi"}, "OK", "tq", 0, "queued at position 2 of 2\n"},
        {{"--to", "1", "hi"}, "OK", "tf", 1, "the job queue is full"},
    };
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(c.shown);
        write_file(path("var/config/job_stats_file"), "0\n0\n0");
        ::unlink(path("var/Jobs/jobfull").c_str());
        write_file(path("var/Jobs/Pending_Jobs_1"), job("send-sms /tmp/other", ""));
        const std::string to = c.args[0] == "--all" ? "__ALL__" : "1^|^";
        const std::string image =
            c.args.size() > 3 ? encode_request_file("ops", "hello there", "+4911^|^+4922^|^",
                                                    "0^|^Ann Lee^|^", "Friends^|^")
                              : encode_request_file("admin", "hi", to, "", "");
        Args args = {"send", "--force"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        CtlResult r = play(args, {{"", c.reply}}, [&](const std::string& request) {
            EXPECT_EQ(request.rfind("send-sms " + path("tmp/smsgwctl-"), 0), 0u) << request;
            EXPECT_EQ(read_file(request.substr(9)), image);
            if (c.fate.find('t') != std::string::npos) ::unlink(request.substr(9).c_str());
            if (c.fate.find('h') != std::string::npos)
                write_file(path("var/config/job_stats_file"), "0\n0\n1");
            if (c.fate.find('q') != std::string::npos)
                smsgw::append_file(path("var/Jobs/Pending_Jobs_1"), job(request, ""));
            if (c.fate.find('f') != std::string::npos) write_file(path("var/Jobs/jobfull"), "");
        });
        expect_shown(r, c.status, c.shown);
        EXPECT_TRUE(spool_empty());
    }
}

// ------------------------------------------------------ the real daemon

class CtlDaemonTest : public CtlTest {
  protected:
    void SetUp() override {
        fake_.reset();
        set_env("SMSGW_SIM_SILENT", "1");
        start();
    }
};

// One session against the real daemon: its answers are what the fake plays
// above, and the book, the rule files and the queue show each change.
TEST_F(CtlDaemonTest, ASessionChecksEachChangeAgainstTheDaemon) {
    const std::string pid = std::to_string(daemon_->pid());
    CtlResult r = ctl({"status"});
    expect_shown(r, 0, "smsgwd:          running, pid " + pid + ", up ");
    expect_shown(r, 0, "answers:         yes, on 127.0.0.1:" + std::to_string(20205 + offset_));

    write_file(path("in.csv"), "Firstname,Lastname,Description,Phone-Number\nAnn,Lee,x,123\n");
    expect_shown(ctl({"import-csv", path("in.csv")}), 0, "(contacts in the book: 1)");
    EXPECT_EQ(ctl({"export-csv"}).out,
              "Firstname,Lastname,Description,Phone-Number\r\nAnn,Lee,x,123\r\n");
    expect_shown(ctl({"contacts", "add", "ann lee", "123"}), 1, "already has this number");
    EXPECT_EQ(ctl({"groups", "add", "Team", "Ann Lee", "123"}).status, 0);
    EXPECT_EQ(ctl({"groups", "members", "Team"}).out,
              "NAME     NUMBER  DESCRIPTION\nAnn Lee  123     x\n1 shown from 1, 1 in all\n");

    // The simulated modem never answers: the first job stays outstanding.
    expect_shown(ctl({"send", "--force", "--group", "Nope", "hi"}), 1,
                 "the daemon dropped the job");
    expect_shown(ctl({"send", "--to", "+4911", "one"}), 0, "handed to the modem\n");
    ASSERT_TRUE(wait_jobs(1));
    expect_shown(ctl({"send", "--group", "Team", "two"}), 0, "queued at position 1 of 1\n");
    const std::string size =
        std::to_string(108 + encode_request_file("admin", "two", "", "", "Team^|^").size());
    expect_shown(ctl({"jobs"}), 0, "1  Pending_Jobs_1  " + size + "   1 group");

    stop();
    r = ctl({"status"});
    expect_shown(r, 3, "nothing listens");
    EXPECT_NE(r.out.find("smsgwd:          not running for root " + root_.path()),
              std::string::npos)
        << r.out;
}

}  // namespace
}  // namespace smsgw::test
