// The transceiver's pieces on their own: the AT reader and dialogue against
// scripted modem output, job paths and the shared ledger.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/modem_support.h"
#include "txrx/at_channel.h"
#include "txrx/job_file.h"
#include "txrx/job_ledger.h"
#include "txrx/modem.h"
#include "txrx/options.h"
#include "txrx/peers.h"

namespace smsgw::txrx {
namespace {

using namespace std::chrono_literals;

std::vector<std::string> read_lines(std::string_view input) {
    AtReader r;
    r.feed(input);
    std::vector<std::string> out;
    while (r.has_line()) {
        AtLine l = r.take();
        out.push_back(l.kind == AtLine::Kind::prompt ? "<prompt>" : l.text);
    }
    return out;
}

TEST(AtReader, SplitsLinesAndBoundsThem) {
    using V = std::vector<std::string>;
    EXPECT_EQ(read_lines("A\rB\nC\r\n\r\nD"), (V{"A", "B", "C"}));
    EXPECT_EQ(read_lines("\r\n> "), V{"<prompt>"});
    EXPECT_EQ(read_lines(std::string("O\0K\r\n", 5)), V{"OK"});
    EXPECT_EQ(read_lines(std::string(10000, 'x') + "\r\nOK\r\n"),
              (V{std::string(kMaxLine, 'x'), "OK"}));
    EXPECT_TRUE(read_lines(std::string(10000, 'y')).empty());

    for (const char* f : {"OK", "ERROR", "+CMS ERROR: 500", "+CME ERROR: 10", "NO CARRIER"})
        EXPECT_TRUE(is_final(f)) << f;
    for (const char* f : {"OK2", "+CMGS: 4", "", "ERRORS"}) EXPECT_FALSE(is_final(f)) << f;
    EXPECT_EQ(error_code("+CMS ERROR: 500"), 500);
    for (const char* f : {"+CME ERROR: x", "ERROR"}) EXPECT_EQ(error_code(f), -1) << f;
    EXPECT_TRUE(is_unsolicited("+CMTI: \"SM\",3"));
    EXPECT_FALSE(is_unsolicited("+CMGR: 0,,22"));
    EXPECT_TRUE(announces_pdu("+CDS: 25"));
}

// An AtChannel on one end of a socket pair; the test plays the modem.
struct Scripted {
    int modem = -1;
    std::optional<AtChannel> at;
    Scripted() {
        ::signal(SIGPIPE, SIG_IGN);  // as txrx does: a gone peer is an error, not a signal
        int sv[2];
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
        at.emplace(Fd(sv[0]));
        modem = sv[1];
    }
    ~Scripted() {
        if (modem >= 0) ::close(modem);
    }
    void say(std::string_view s) {
        ASSERT_EQ(::write(modem, s.data(), s.size()), ssize_t(s.size()));
    }
    std::string heard() {
        char buf[4096];
        ssize_t n = ::recv(modem, buf, sizeof buf, MSG_DONTWAIT);
        return n > 0 ? std::string(buf, static_cast<size_t>(n)) : "";
    }
};

// The weakest signal, 0, is a reading; a field that is no number is none.
TEST(ModemReplies, SignalReadingsAndIndications) {
    using Reading = std::optional<std::pair<int, int>>;
    EXPECT_EQ(parse_signal({"+CSQ: 0,99"}), Reading({0, 99}));
    EXPECT_EQ(parse_signal({"OK", "+CSQ: ,99", "+CSQ: 7, 3"}), Reading({7, 3}));
    EXPECT_EQ(parse_signal({"+CSQ: 5"}), std::nullopt);
    EXPECT_EQ(indication_index("+CMTI: \"SM\",5"), 5);
    EXPECT_EQ(indication_index("+CDSI: \"SM\",12"), 12);
    EXPECT_EQ(indication_index("+CMTI: \"SM\""), -1);
    EXPECT_EQ(indication_index("+CMT: \"SM\",5"), -1);
}

TEST(AtChannel, AnswersTimeoutsAndUnsolicitedLines) {
    Scripted s;
    s.say("AT+CSQ\r\r\n+CMTI: \"SM\",3\r\n+CSQ: 20,99\r\nRING\r\n+CDS: 6\r\n0011AA\r\nOK\r\n");
    AtResult r = s.at->command("AT+CSQ", 1s);
    EXPECT_EQ(s.heard(), "AT+CSQ\r");
    EXPECT_TRUE(r.good());
    EXPECT_EQ(r.lines, std::vector<std::string>{"+CSQ: 20,99"});
    EXPECT_EQ(std::vector<std::string>(s.at->unsolicited().begin(), s.at->unsolicited().end()),
              (std::vector<std::string>{"+CMTI: \"SM\",3", "RING", "+CDS: 6", "0011AA"}));

    s.say("\r\n+CMS ERROR: 321\r\n");
    r = s.at->command("AT+CMGR=9", 1s);
    EXPECT_EQ(r.status, AtResult::error);
    EXPECT_EQ(r.code, 321);

    r = s.at->command("AT", 50ms);
    EXPECT_EQ(r.status, AtResult::timeout);
    s.heard();

    s.say("\r\n> ");
    s.say("\r\n+CMGS: 7\r\n\r\nOK\r\n");
    r = s.at->send_pdu(3, "001122", 1s);
    EXPECT_TRUE(r.good());
    EXPECT_EQ(s.heard(), "AT+CMGS=3\r001122\x1A");

    r = s.at->send_pdu(3, "001122", 50ms);  // no prompt: cancelled with ESC
    EXPECT_EQ(r.status, AtResult::timeout);
    EXPECT_EQ(s.heard(), "AT+CMGS=3\r\x1B");

    ::close(s.modem);
    s.modem = -1;
    r = s.at->command("AT", 1s);
    EXPECT_EQ(r.status, AtResult::gone);
}

TEST(JobFiles, PathsAreCheckedLikeRequestFiles) {
    test::TempDir root;
    const std::string spool = root / "tmp";
    test::write_job(root.path(), "ok", "hi", {"+491", std::string(50, '7')});
    test::write_file(root / "tmp/short", std::string(159, 'a'));
    test::write_file(root / "elsewhere/job", std::string(160, 'a'));
    ::symlink((root / "tmp/ok").c_str(), (root / "tmp/link").c_str());
    ::mkfifo((root / "tmp/fifo").c_str(), 0600);
    ::symlink((root / "elsewhere").c_str(), (root / "tmp/out").c_str());
    struct Case {
        std::string path;
        std::string why;
    } cases[] = {
        {spool + "/ok", ""},
        {"tmp/ok", "not an absolute file path"},
        {spool + "/../tmp/ok", "not an absolute file path"},
        {"/" + std::string(99, 'a'), "not an absolute file path"},  // no room for the NUL
        {root / "elsewhere/job", "outside the job spool"},
        {spool + "/out/job", "outside the job spool"},
        {spool + "/link", "a symlink"},
        {spool + "/fifo", "not a regular file"},
        {spool + "/missing", "no such job file"},
        {spool + "/short", "shorter than its text field"},
    };
    for (const auto& c : cases) {
        std::string why;
        auto job = JobFile::open(c.path, spool, &why);
        EXPECT_EQ(why, c.why) << c.path;
        EXPECT_EQ(job.has_value(), c.why.empty()) << c.path;
    }
    std::string why;
    auto job = JobFile::open(spool + "/ok", spool, &why);
    ASSERT_TRUE(job);
    EXPECT_EQ(job->text(), "hi");
    EXPECT_EQ(job->recipients(), 2u);
    EXPECT_EQ(job->recipient(1), std::string(50, '7'));  // no NUL: all 50
    EXPECT_FALSE(job->recipient(2));

    EXPECT_EQ(parse_handoff(test::handoff("/a/b"))->path, "/a/b");
    EXPECT_TRUE(parse_handoff(test::handoff("/a/b", true))->api);
    for (const char* bad : {"", "cmd reset_modem", "api ", "api x", "rel/path"})
        EXPECT_FALSE(parse_handoff(bad)) << bad;
}

TEST(JobLedger, EveryRecipientIsClaimedOnceAndTheLastOutcomeEndsTheJob) {
    test::TempDir dir;
    LedgerHeader h;
    h.count = 3;
    h.job_path = "/x/job";
    bool exists = false;
    const std::string file = JobLedger::file_for(dir.path(), h.job_path);
    auto a = JobLedger::create(file, h, &exists);
    ASSERT_TRUE(a);
    EXPECT_FALSE(JobLedger::create(file, h, &exists));
    EXPECT_TRUE(exists);
    auto b = JobLedger::open(file);
    auto alive = [](pid_t p) { return p != 666; };
    EXPECT_EQ(a->claim(100, alive), 0u);
    EXPECT_EQ(b->claim(666, alive), 1u);  // its claimer will have died
    EXPECT_EQ(a->claim(100, alive), 2u);
    EXPECT_EQ(b->claim(200, alive), 1u);  // taken over
    EXPECT_FALSE(b->claim(200, alive));
    EXPECT_FALSE(a->record(0, Outcome::sent));
    EXPECT_FALSE(a->record(0, Outcome::sent));  // recorded already
    EXPECT_FALSE(a->record(2, Outcome::failed));
    EXPECT_TRUE(b->record(1, Outcome::sent));
    auto end = a->header();
    ASSERT_TRUE(end);
    EXPECT_TRUE(end->finished);
    EXPECT_EQ(end->recorded, 3u);
    EXPECT_EQ(end->delivered, 2u);
    EXPECT_FALSE(a->claim(300, [](pid_t) { return false; }));

    const std::string good = encode_ledger_header(h);
    EXPECT_EQ(decode_ledger_header(good)->count, 3u);
    // next or recorded beyond the count, delivered beyond recorded
    for (size_t at : {15, 19, 23}) {
        std::string image = good;
        image[at] = 4;
        EXPECT_FALSE(decode_ledger_header(image)) << at;
    }
    EXPECT_FALSE(decode_ledger_header(good.substr(0, 100)));
}

// The transceivers' pid file names the one in charge first. An edit keeps
// the other live ones in their order and drops those that ended.
TEST(PidFile, EditsKeepTheLiveOnesInOrder) {
    test::TempDir dir;
    const std::string file = dir / "txrx_pid_file";
    const pid_t ended = ::fork();
    if (ended == 0) ::_exit(0);
    ASSERT_GT(ended, 0);
    ::waitpid(ended, nullptr, 0);
    const std::string me = std::to_string(::getpid()) + "\n";
    const std::string parent = std::to_string(::getppid()) + "\n";
    test::write_file(file, me + std::to_string(ended) + "\n" + parent);
    pid_file_promote(file, ::getppid());
    EXPECT_EQ(test::read_file(file), parent + me);
    pid_file_remove(file, ::getppid());
    EXPECT_EQ(test::read_file(file), me);
    pid_file_add(file, ::getppid());
    EXPECT_EQ(test::read_file(file), me + parent);
}

TEST(TxrxOptions, ValuesAndRefusals) {
    auto parse = [](std::vector<const char*> args) {
        args.insert(args.begin(), "txrx");
        return parse_options(static_cast<int>(args.size()), const_cast<char**>(args.data()));
    };
    auto ok = parse({"--baud", "9600", "--timeout-ms", "10", "--retries", "0", "/dev/ttyS1"});
    ASSERT_TRUE(ok.options);
    EXPECT_EQ(ok.options->baud, 9600);
    EXPECT_EQ(ok.options->timeout, 10ms);
    EXPECT_EQ(ok.options->retries, 0);
    EXPECT_EQ(ok.options->device, "/dev/ttyS1");
    for (const auto& args : {std::vector<const char*>{"--timeout-ms", "9", "/d"}, {"ttyS0"}})
        EXPECT_EQ(parse(args).exit_status, 2);
}

}  // namespace
}  // namespace smsgw::txrx
