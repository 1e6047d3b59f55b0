// smsgwctl end to end: the command texts it puts on the wire (checked
// against a fake daemon on the web-interface port), how it shows replies and
// response files, its exit codes, the request files it writes, the status
// report, and a session against the real daemon.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/bytes.h"
#include "send/sender.h"
#include "support/test_support.h"

namespace smsgw::test {
namespace {

using namespace std::chrono_literals;

struct CtlResult {
    int status = -1;  // exit status, -1 when it did not exit normally in time
    std::string out;
    std::string err;
};

// smsgwctl on the sandbox root and port offset.
class CtlFixture : public DaemonFixture {
  protected:
    // Started in the background, so a fake daemon can answer it.
    std::unique_ptr<Child> spawn(const std::vector<std::string>& args, bool json = false) {
        std::vector<std::string> argv = exec_prefix();
        argv.insert(argv.end(), {SMSGWCTL_PATH, "--root", root_.path(), "--port-offset",
                                 std::to_string(offset_)});
        if (json) argv.push_back("--json");
        argv.insert(argv.end(), args.begin(), args.end());
        return std::make_unique<Child>(argv, path("ctl.out"), path("ctl.err"));
    }
    CtlResult finish(Child& ctl) {
        int status = ctl.finish();
        return {status, file("ctl.out"), file("ctl.err")};
    }
    CtlResult ctl(const std::vector<std::string>& args, bool json = false) {
        return finish(*spawn(args, json));
    }
};

// The web-interface port without a daemon behind it: records the framed
// request and answers with a scripted reply.
class CtlTest : public CtlFixture {
  protected:
    void SetUp() override {
        // Retry on a port clash with a test running at the same time.
        for (int i = 0; i < 20 && !(fake_ && fake_->ok()); ++i) {
            offset_ = random_port_offset();
            fake_.emplace(20205 + offset_);
        }
        ASSERT_TRUE(fake_->ok());
    }
    // The request text, after checking that the length datagram matches it.
    std::optional<std::string> take() {
        auto len = fake_->receive(10s);
        auto text = fake_->receive(10s);
        if (!len || !text) return std::nullopt;
        EXPECT_EQ(*len, std::to_string(text->size())) << "length datagram of " << *text;
        return text;
    }
    // Runs smsgwctl with the arguments; the fake daemon answers `reply`
    // after optionally writing the response file. The request text it
    // received is stored in `sent`.
    CtlResult exchange(const std::vector<std::string>& args, const std::string& reply,
                       const std::optional<std::string>& response_file = std::nullopt,
                       bool json = false) {
        auto child = spawn(args, json);
        auto text = take();
        sent = text.value_or("<nothing received>");
        if (response_file) write_file(response_path(), *response_file);
        if (text) fake_->reply(reply);
        return finish(*child);
    }
    std::string response_path() const { return path("var/run/RESPONSE_FILE"); }

    std::optional<UdpListener> fake_;
    std::string sent;
};

// ------------------------------------------------------------ command texts

struct WireCase {
    std::vector<std::string> args;
    std::string text;   // what the daemon must receive
    std::string reply;  // what the fake answers
    int status;
};

TEST_F(CtlTest, EachVerbSendsTheExactCommandText) {
    const std::string S = "SUCCESS", I = "Invalid String to Parse";
    // clang-format off
    const std::vector<WireCase> cases = {
        {{"raw", "get-sms total-entries groups^|^"}, "get-sms total-entries groups^|^", "3", 0},
        {{"contacts", "count"}, "get-sms total-entries phone_book^|^", "12", 0},
        {{"contacts", "add", "Ann Lee", "+4912"}, "add-sms phone_book Ann Lee^|^+4912^|^^|^", S, 0},
        {{"contacts", "add", "Ann", "1", "home", "--group", "G1", "--group", "G 2"},
         "add-sms phone_book Ann^|^1^|^home^|^G1^|^G 2^|^", S, 0},
        {{"contacts", "del", "Ann", "1"}, "del-sms phone_book Ann^|^1^|^", S, 0},
        {{"contacts", "edit", "Ann", "1", "Bob", "2"},
         "edit-sms phone_book Ann^|^1^|^Bob^|^2^|^^|^", S, 0},
        {{"contacts", "edit", "Ann", "1", "Ann", "1", "new desc"},
         "edit-sms phone_book Ann^|^1^|^Ann^|^1^|^new desc^|^", S, 0},
        {{"groups", "count"}, "get-sms total-entries groups^|^", "0", 0},
        {{"groups", "add", "Friends"}, "add-sms groups Friends^|^[null]^|^", S, 0},
        {{"groups", "add", "Friends", "Ann", "1", "Bob", "2"},
         "add-sms groups Friends^|^Ann^|^1^|^Bob^|^2^|^[null]^|^", S, 0},
        // Deleting groups answers "ERROR" by design; that is the success.
        {{"groups", "del", "A", "B"}, "del-sms groups A^|^B^|^", "ERROR", 0},
        // A rename answers with the parser's default text.
        {{"groups", "rename", "A", "B"}, "edit-sms groups A^|^B^|^", I, 0},
        {{"groups", "add-member", "G", "Ann", "1"}, "add-sms group G^|^Ann^|^1^|^", I, 0},
        {{"groups", "del-member", "G", "Ann", "1", "Bob", "2"},
         "del-sms group G^|^Ann^|^1^|^Bob^|^2^|^", S, 0},
        {{"triggers", "add", "broadcast", "MEET", "at 5", "--group", "G1", "--group", "G2",
          "--auth", "YES", "--allow", "Ann", "1"},
         "add-sms trigger sms MEET^|^at 5^|^G1]|[G2]|[^|^YES^|^Ann]|[1]|[^|^", S, 0},
        {{"triggers", "add", "sms", "K", "t"},
         "add-sms trigger sms K^|^t^|^[null]]|[^|^NO^|^[null]]|[^|^", S, 0},
        {{"triggers", "add", "preconf", "hello"},
         "add-sms trigger preconf_sms hello^|^[null]]|[^|^", S, 0},
        {{"triggers", "add", "ctrl", "Delete a Group", "DG", "--auth", "YES"},
         "edit-sms trigger ctrl_data Delete a Group^|^DG^|^YES^|^", S, 0},
        {{"triggers", "add", "auth", "Ann", "1", "Bob", "2"},
         "add-sms trigger auth-list Ann^|^1^|^Bob^|^2^|^", S, 0},
        {{"triggers", "del", "broadcast", "2"}, "del-sms trigger sms 2^|^", S, 0},
        {{"triggers", "del", "preconf", "1"}, "del-sms trigger preconf_sms 1^|^", "ERROR", 1},
        {{"triggers", "del", "auth", "Ann", "1"}, "del-sms trigger auth-list Ann^|^1^|^", S, 0},
        {{"save"}, "save-address-book ^|^", S, 0},
        {{"save"}, "save-address-book ^|^", "ERROR", 1},
        // Failure texts that do not start with "ERROR" are failures too.
        {{"contacts", "add", "Ann", "1"}, "add-sms phone_book Ann^|^1^|^^|^",
         "Duplicate Entry Exists.", 1},
        {{"triggers", "add", "auth", "Ann", "1"}, "add-sms trigger auth-list Ann^|^1^|^",
         "Authenticate user already exists.", 1},
        {{"groups", "rename", "X", "Y"}, "edit-sms groups X^|^Y^|^",
         "ERROR:Group Doesnot Exist", 1},
    };
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text + " -> " + c.reply);
        CtlResult r = exchange(c.args, c.reply);
        EXPECT_EQ(sent, c.text);
        EXPECT_EQ(r.status, c.status) << r.err;
        if (c.status == 0) {
            EXPECT_EQ(r.out, c.reply + "\n");
        } else {
            EXPECT_EQ(r.out, "");
            EXPECT_NE(r.err.find(c.reply), std::string::npos) << r.err;
        }
    }
}

TEST_F(CtlTest, ListingRequestsCarryPrefixAndPageStart) {
    const std::string empty_page = "17^|^MAX_ELEMENTS=0";
    struct Case {
        std::vector<std::string> args;
        std::string text;
    };
    const std::vector<Case> cases = {
        {{"contacts", "list"}, "get-sms phone_book 1^|^"},
        {{"contacts", "list", "--page", "3"}, "get-sms phone_book 21^|^"},
        {{"contacts", "list", "--prefix", "Jo", "--page", "2"}, "get-sms phone_book Jo^|^11^|^"},
        {{"groups", "members", "Team A", "--page", "2"}, "get-sms group Team A^|^11^|^"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        CtlResult r = exchange(c.args, response_path(), empty_page);
        EXPECT_EQ(sent, c.text);
        EXPECT_EQ(r.status, 0) << r.err;
    }
    CtlResult r = exchange({"groups", "list", "--page", "2"}, response_path(), "MAX_ELEMENTS=0\n");
    EXPECT_EQ(sent, "get-sms groups 11^|^");
    EXPECT_EQ(r.status, 0) << r.err;
}

TEST_F(CtlTest, FieldsThatWouldBreakTheFramingAreRefusedLocally) {
    const std::vector<std::vector<std::string>> bad = {
        {"contacts", "add", "A^|^B", "1"},
        {"groups", "add", "G", "Ann"},  // members come in pairs
        {"triggers", "add", "broadcast", "K", "t", "--group", "x]|[y"},
        {"triggers", "add", "broadcast", "K", "t", "--auth", "maybe"},
        {"triggers", "del", "ctrl", "1"},
        {"triggers", "del", "broadcast", "zero"},
        {"contacts", "list", "--page", "0"},
        {"contacts", "frobnicate"},
        {"import-csv", "/nonexistent", "--columns", "1,2,3"},
        {"send", "hello"},  // no recipient
        {"send", "--to", "1", std::string(160, 'x')},
        {"nonsense"},
        {},
    };
    for (const auto& args : bad) {
        CtlResult r = ctl(args);
        SCOPED_TRACE(r.err);
        EXPECT_EQ(r.status, 2);
        EXPECT_NE(r.err.find("usage:"), std::string::npos);
    }
}

// --------------------------------------------------------- exit statuses

TEST_F(CtlTest, NoAnswerWithinTheTimeoutNamesThePort) {
    int port = 20205 + offset_;
    fake_.reset();  // nobody listens any more
    auto start = std::chrono::steady_clock::now();
    CtlResult r = ctl({"--timeout", "1", "contacts", "count"});
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("127.0.0.1:" + std::to_string(port)), std::string::npos) << r.err;
    EXPECT_GE(std::chrono::steady_clock::now() - start, 900ms);
}

TEST_F(CtlTest, ErrorRepliesExitWithOneAndShowTheMessage) {
    CtlResult r = exchange({"contacts", "list", "--prefix", "Zz"}, "ERROR:Search is Unsuccesful.");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_NE(r.err.find("ERROR:Search is Unsuccesful."), std::string::npos);

    r = exchange({"raw", "bogus words"}, "ERROR");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "ERROR\n");

    r = exchange({"contacts", "find-number", "999"}, "ERROR", std::nullopt, true);
    EXPECT_EQ(sent, "get-sms phone_number 999^|^");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "{\"ok\":false,\"reply\":\"ERROR\"}\n");

    // A missing group is answered with "SUCCESS" and an empty trailer.
    r = exchange({"groups", "members", "Nope"}, "SUCCESS", "17^|^MAX_ELEMENTS=0");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("no such group: Nope"), std::string::npos) << r.err;
}

// ------------------------------------------------------ listing display

const std::string kTwoContacts =
    "18^|^Ann^|^123^|^^|^30^|^Bob Stone^|^+4911^|^work^|^18^|^MAX_ELEMENTS=42";

TEST_F(CtlTest, ContactListingAsTableAndJson) {
    CtlResult r = exchange({"contacts", "list"}, response_path(), kTwoContacts);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out,
              "NAME       NUMBER  DESCRIPTION\n"
              "Ann        123\n"
              "Bob Stone  +4911   work\n"
              "2 shown from 1, 42 in all\n");

    r = exchange({"contacts", "list", "--page", "2"}, response_path(), kTwoContacts, true);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out,
              "{\"start\":11,\"total\":42,\"contacts\":["
              "{\"name\":\"Ann\",\"number\":\"123\",\"description\":\"\"},"
              "{\"name\":\"Bob Stone\",\"number\":\"+4911\",\"description\":\"work\"}]}\n");
}

TEST_F(CtlTest, DamagedListingsNeverCrashAndExitOne) {
    const std::vector<std::string> damaged = {
        "99999999999999999999^|^Ann^|^1^|^^|^",  // length far beyond the data
        "40^|^Ann^|^1^|^^|^",                    // length past the end
        "^|^Ann^|^1^|^^|^",                      // no length at all
        "18^|^Ann^|^123^|^^|^",                  // no trailer
        "9^|^A^|^1^|^18^|^MAX_ELEMENTS=1",       // record with too few fields
        "18^|^MAX_ELEMENTS=x1",
        std::string("18^|^Ann^|^123^|^^|^\0\0\0", 23),
    };
    for (const auto& d : damaged) {
        SCOPED_TRACE(d);
        CtlResult r = exchange({"contacts", "list"}, response_path(), d, true);
        EXPECT_EQ(r.status, 1);
        EXPECT_NE(r.err.find("malformed"), std::string::npos) << r.err;
    }
}

TEST_F(CtlTest, GroupListingAndNumberSearch) {
    CtlResult r = exchange({"groups", "list"}, response_path(),
                           "Friends\nTeam \"A\"\nMAX_ELEMENTS=2\n", true);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "{\"start\":1,\"total\":2,\"groups\":[\"Friends\",\"Team \\\"A\\\"\"]}\n");

    r = exchange({"contacts", "find-number", "123"}, response_path(),
                 "Ann^|^123^|^home^|^\nANN^|^123^|^^|^\n");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out,
              "NAME  NUMBER  DESCRIPTION\n"
              "Ann   123     home\n"
              "ANN   123\n");
}

TEST_F(CtlTest, RawPrintsTheResponseFileItNames) {
    CtlResult r = exchange({"raw", "get-sms groups 1^|^"}, response_path(), "G\nMAX_ELEMENTS=1\n");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "G\nMAX_ELEMENTS=1\n");
    // Peers that name the file without the root are understood as well.
    r = exchange({"raw", "get-sms groups 1^|^"}, "/var/run/RESPONSE_FILE", "H\nMAX_ELEMENTS=1\n",
                 true);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(
        r.out,
        "{\"ok\":true,\"reply\":\"/var/run/RESPONSE_FILE\",\"file\":\"H\\nMAX_ELEMENTS=1\\n\"}"
        "\n");
}

TEST_F(CtlTest, RuleListsAreReadFromTheFileTheDaemonNames) {
    const std::string rules = path("var/config/trigger_broadcast");
    write_file(rules, rec("^|^MEET^|^at 5^|^G1]|[G2]|[^|^YES^|^Ann]|[1]|[Bob]|[2]|[^|^") +
                          rec("^|^K^|^t^|^[null]]|[^|^NO^|^[null]]|[^|^"));
    CtlResult r = exchange({"triggers", "list", "broadcast"}, rules);
    EXPECT_EQ(sent, "get-sms trigger sms^|^");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out,
              "INDEX  KEYWORD  TEXT  GROUPS  AUTH  ALLOWED\n"
              "1      MEET     at 5  G1,G2   YES   Ann <1>,Bob <2>\n"
              "2      K        t     -       NO    -\n");

    r = exchange({"triggers", "list", "broadcast"}, rules, std::nullopt, true);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out,
              "{\"list\":\"broadcast\",\"records\":["
              "{\"index\":1,\"keyword\":\"MEET\",\"text\":\"at 5\",\"groups\":[\"G1\",\"G2\"],"
              "\"auth\":\"YES\",\"allowed\":[{\"name\":\"Ann\",\"number\":\"1\"},"
              "{\"name\":\"Bob\",\"number\":\"2\"}]},"
              "{\"index\":2,\"keyword\":\"K\",\"text\":\"t\",\"groups\":[],\"auth\":\"NO\","
              "\"allowed\":[]}]}\n");

    write_file(path("var/config/authenticate_list"), "15^|^Ann^|^+49^|^99^|^cut short");
    r = exchange({"triggers", "list", "auth"}, "/var/config/authenticate_list");
    EXPECT_EQ(sent, "get-sms trigger auth-list^|^");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "INDEX  NAME  NUMBER\n1      Ann   +49\n");
    EXPECT_NE(r.err.find("malformed"), std::string::npos);
}

// ------------------------------------------------------------ files

TEST_F(CtlTest, SendWritesTheRequestFileTheDaemonReads) {
    struct Case {
        std::vector<std::string> args;
        std::string numbers, names, groups;
        std::string reply, shown;
    };
    const std::vector<Case> cases = {
        {{"--to", "+4911", "--to", "+4922", "--contact", "Ann Lee", "--group", "Friends", "--from",
          "ops", "hello there"},
         "+4911^|^+4922^|^",
         "0^|^Ann Lee^|^",
         "Friends^|^",
         "",
         "sent\n"},
        {{"--all", "--to", "1", "hi"}, "__ALL__", "", "", "OK", "queued\n"},
        {{"--all-groups", "hi"}, "__GALL__", "", "", "OK", "queued\n"},
    };
    for (const auto& c : cases) {
        std::vector<std::string> a = {"send"};
        a.insert(a.end(), c.args.begin(), c.args.end());
        auto child = spawn(a);
        auto text = take();
        ASSERT_TRUE(text);
        ASSERT_EQ(text->rfind("send-sms " + root_.path() + "/tmp/", 0), 0u) << *text;
        std::string file = text->substr(9);
        EXPECT_LE(file.size(), 87u);
        struct stat st {};
        ASSERT_EQ(::lstat(file.c_str(), &st), 0);
        EXPECT_TRUE(S_ISREG(st.st_mode));
        std::string sender = c.args[c.args.size() - 2] == "ops" ? "ops" : "admin";
        EXPECT_EQ(read_file(file),
                  build_request_file(sender, c.args.back(), c.numbers, c.names, c.groups));
        ::unlink(file.c_str());  // the daemon's part
        fake_->reply(c.reply);
        CtlResult r = finish(*child);
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.out, c.shown);
    }
}

TEST_F(CtlTest, SendWithoutAnswerRemovesItsRequestFile) {
    fake_.reset();
    CtlResult r = ctl({"--timeout", "1", "send", "--to", "1", "hi"});
    EXPECT_EQ(r.status, 2);
    // No request file may be left in the spool directory.
    bool left = false;
    if (DIR* d = ::opendir((path("tmp")).c_str())) {
        while (dirent* e = ::readdir(d))
            if (std::string(e->d_name).rfind("smsgwctl-", 0) == 0) left = true;
        ::closedir(d);
    }
    EXPECT_FALSE(left);
}

TEST_F(CtlTest, ImportCsvStagesTheUploadAndReportsTheDaemonsVerdict) {
    const std::string src = path("contacts.csv");
    write_file(src, "Firstname,Lastname,Description,Phone-Number\r\nAnn,Lee,x,123\r\n");
    // Stale marker of an earlier refused import.
    write_file(path("var/tmp/csv_empty_err"), "");
    const std::vector<std::string> a = {"import-csv", src, "--columns", "1,2,4,3"};
    {
        auto child = spawn(a);
        auto text = take();
        ASSERT_TRUE(text);
        EXPECT_EQ(*text, "CSVFILE");
        EXPECT_EQ(file("var/run/AddressBook.csv"), read_file(src));
        EXPECT_EQ(file("var/run/csv_frmt.dat"), "1\n2\n4\n3\n");
        EXPECT_FALSE(exists(path("var/tmp/csv_empty_err")));
        fake_->reply("");
        CtlResult r = finish(*child);
        EXPECT_EQ(r.status, 0) << r.err;
    }
    {
        auto child = spawn(a);
        ASSERT_TRUE(take());
        write_file(path("var/tmp/csv_lsp_err"), "");
        fake_->reply("");
        CtlResult r = finish(*child);
        EXPECT_EQ(r.status, 1);
        EXPECT_NE(r.err.find("begins with a blank"), std::string::npos) << r.err;
    }
}

TEST_F(CtlTest, StatusReadsTheQueueAndCounterFiles) {
    write_file(path("var/run/wirelessmodems"), "/dev/ttyS0\n/dev/ttyS1\n");
    write_file(path("var/run/txrx_pid_file"), std::to_string(::getpid()) + "\n");
    // Read index 3 in the high half, write index 5 in the low half of the
    // first host-order word.
    unsigned char table[44] = {};
    put_i32(table, static_cast<int32_t>((3u << 16) | 5u));
    put_i32(table + 4, 2 * 108 + 10 + 7);
    put_i32(table + 8 + 3 * 4, 108 + 7);
    write_file(path("var/Jobs/pos_offset"), std::string(reinterpret_cast<char*>(table), 44));
    auto record = [](int body) {
        unsigned char h[108] = {};
        std::memcpy(h, "<JB/SRT>", 8);
        put_i32(h + 12, body);
        return std::string(reinterpret_cast<char*>(h), 108) + std::string(size_t(body), 'b');
    };
    write_file(path("var/Jobs/Pending_Jobs_4"), record(10) + record(7));
    write_file(path("var/Jobs/Pending_Jobs_5"), record(5) + "<JB/SRT>garbage");
    unsigned char stats[24] = {};
    put_i32(stats + 16, 4);
    put_i32(stats + 20, 9);
    write_file(path("var/config/sms_stats_file"), std::string(reinterpret_cast<char*>(stats), 24));
    write_file(path("var/config/job_stats_file"), "7\n0\n3");
    write_file(path("var/config/international_dialing"), "int-dialing=enable\nmax-digits=12\n");

    CtlResult r = ctl({"status", "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    auto has = [&](const std::string& part) {
        EXPECT_NE(r.out.find(part), std::string::npos) << part << "\nin " << r.out;
    };
    has("\"modems\":[\"/dev/ttyS0\",\"/dev/ttyS1\"]");
    has("\"txrx\":{\"pid\":" + std::to_string(::getpid()) + ",\"alive\":true");
    has("\"read_index\":3,\"write_index\":5,\"total_size\":233");
    has("\"last_record_lengths\":[0,0,0,115,0,0,0,0,0]");
    has("\"jobs\":3,\"bytes\":" + std::to_string(2 * 108 + 17 + 108 + 5 + 15));
    has("{\"file\":\"Pending_Jobs_4\",\"size\":233,\"jobs\":2,\"damaged\":false}");
    has("{\"file\":\"Pending_Jobs_5\",\"size\":128,\"jobs\":1,\"damaged\":true}");
    has("\"job_stats\":{\"jobs_to_txrx\":7,\"peer_replies\":0,\"handoffs\":3}");
    has("\"sms_stats\":[0,0,0,0,4,9]");
    has("\"international_dialing\":{\"int_dialing\":\"enable\",\"max_digits\":12}");

    // A table of the wrong size is reported, not misread.
    write_file(path("var/Jobs/pos_offset"), std::string(10, '\xff'));
    r = ctl({"status"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("pos_offset is not 44 bytes"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("queued jobs:     3"), std::string::npos) << r.out;
}

// ------------------------------------------------------ the real daemon

class CtlDaemonTest : public CtlFixture {
  protected:
    void SetUp() override { start(); }
};

TEST_F(CtlDaemonTest, AddressBookSession) {
    EXPECT_EQ(ctl({"contacts", "add", "Ann Lee", "+4911", "home"}).status, 0);
    EXPECT_EQ(ctl({"contacts", "add", "Bob", "+4922"}).status, 0);
    CtlResult r = ctl({"contacts", "add", "ann lee", "+4911"});
    EXPECT_EQ(r.status, 1) << r.out;
    EXPECT_FALSE(r.err.empty());

    r = ctl({"contacts", "list"}, true);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out,
              "{\"start\":1,\"total\":2,\"contacts\":["
              "{\"name\":\"Ann Lee\",\"number\":\"+4911\",\"description\":\"home\"},"
              "{\"name\":\"Bob\",\"number\":\"+4922\",\"description\":\"\"}]}\n");

    EXPECT_EQ(ctl({"groups", "add", "Team", "Bob", "+4922"}).status, 0);
    r = ctl({"groups", "members", "Team"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out,
              "NAME  NUMBER  DESCRIPTION\n"
              "Bob   +4922\n"
              "1 shown from 1, 1 in all\n");
    r = ctl({"groups", "list"});
    EXPECT_EQ(r.out, "GROUP\nTeam\n1 groups in all\n");

    r = ctl({"contacts", "find-number", "+4911"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "NAME     NUMBER  DESCRIPTION\nAnn Lee  +4911   home\n");
    EXPECT_EQ(ctl({"contacts", "find-number", "+000"}).status, 1);

    r = ctl({"contacts", "list", "--prefix", "Zed"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("ERROR:Search is Unsuccesful."), std::string::npos) << r.err;

    EXPECT_EQ(ctl({"contacts", "del", "Bob", "+4922"}).status, 0);
    EXPECT_EQ(ctl({"contacts", "count"}).out, "1\n");
    EXPECT_EQ(ctl({"save"}).status, 0);
    EXPECT_NE(file("var/AddressBook/Address_Book").find("Ann Lee"), std::string::npos);
}

TEST_F(CtlDaemonTest, RuleListsAndCsvRoundTrip) {
    EXPECT_EQ(ctl({"triggers", "add", "auth", "Ann", "+4911"}).status, 0);
    // The list command answers "SUCCESS" for every pair; a duplicate is
    // simply not stored again.
    CtlResult r = ctl({"triggers", "add", "auth", "ANN", "+4911"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(file("var/config/authenticate_list"), "17^|^Ann^|^+4911^|^");
    r = ctl({"triggers", "list", "auth"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "INDEX  NAME  NUMBER\n1      Ann   +4911\n");

    EXPECT_EQ(ctl({"triggers", "add", "preconf", "Call me"}).status, 0);
    EXPECT_EQ(file("var/config/preconf_sms"), "25^|^Call me^|^[null]]|[^|^");
    EXPECT_EQ(ctl({"triggers", "del", "preconf", "2"}).status, 1);
    EXPECT_EQ(ctl({"triggers", "del", "preconf", "1"}).status, 0);

    const std::string csv = path("in.csv");
    // Line ends are LF: the importer keeps a CR as a blank in the last field.
    write_file(csv, "Firstname,Lastname,Description,Phone-Number\nAnn,Lee,x,123\n");
    r = ctl({"import-csv", csv});
    EXPECT_EQ(r.status, 0) << r.err;
    r = ctl({"export-csv"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "Firstname,Lastname,Description,Phone-Number\r\nAnn,Lee,x,123\r\n");
}

TEST_F(CtlDaemonTest, SendIsAcceptedAndItsFileConsumed) {
    EXPECT_EQ(ctl({"contacts", "add", "Ann", "+4911"}).status, 0);
    CtlResult r = ctl({"send", "--contact", "Ann", "--to", "+4999", "hello"}, true);
    ASSERT_EQ(r.status, 0) << r.err;
    auto at = r.out.find("\"request_file\":\"");
    ASSERT_NE(at, std::string::npos) << r.out;
    std::string file = r.out.substr(at + 16, r.out.find('"', at + 16) - at - 16);
    EXPECT_TRUE(wait_for([&] { return !exists(file); })) << file;
    r = ctl({"status", "--json"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("\"queue\":{\"read_index\":"), std::string::npos) << r.out;
}

}  // namespace
}  // namespace smsgw::test
