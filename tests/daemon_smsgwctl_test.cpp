// smsgwctl end to end: the command texts it puts on the wire (checked
// against a fake daemon on the web-interface port), how it shows replies and
// response files, its exit codes, the request files it writes, the status
// report, and a session against the real daemon.
#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "common/bytes.h"
#include "gtest/gtest.h"
#include "send/sender.h"
#include "support/test_support.h"

namespace smsgw::test {
namespace {

using namespace std::chrono_literals;

// Cross builds run target programs through an emulator named here, e.g.
// "qemu-mips -L /usr/mips-linux-gnu".
std::vector<std::string> emulator_prefix() {
    std::vector<std::string> out;
    const char* p = std::getenv("SMSGW_TEST_EXEC_PREFIX");
    std::istringstream in(p ? p : "");
    for (std::string w; in >> w;) out.push_back(w);
    return out;
}

struct CtlResult {
    int status = -1;  // exit status, -1 when it did not exit normally in time
    std::string out;
    std::string err;
};

// smsgwctl started in the background, so a fake daemon can answer it.
class Ctl {
  public:
    Ctl(const TempDir& dir, std::vector<std::string> args)
        : out_(dir / "ctl.out"), err_(dir / "ctl.err") {
        std::vector<std::string> argv = emulator_prefix();
        argv.push_back(SMSGWCTL_PATH);
        argv.insert(argv.end(), args.begin(), args.end());
        pid_ = ::fork();
        if (pid_ == 0) {
            int o = ::open(out_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            int e = ::open(err_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            ::dup2(o, 1);
            ::dup2(e, 2);
            std::vector<char*> a;
            for (auto& s : argv) a.push_back(s.data());
            a.push_back(nullptr);
            ::execvp(a[0], a.data());
            ::_exit(127);
        }
    }
    ~Ctl() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }

    CtlResult finish(std::chrono::milliseconds deadline = 15000ms) {
        CtlResult r;
        int st = 0;
        bool done = wait_for([&] { return ::waitpid(pid_, &st, WNOHANG) == pid_; }, deadline);
        if (done) {
            pid_ = -1;
            if (WIFEXITED(st)) r.status = WEXITSTATUS(st);
        }
        r.out = read_file(out_);
        r.err = read_file(err_);
        return r;
    }

  private:
    std::string out_, err_;
    pid_t pid_ = -1;
};

// The web-interface port without a daemon behind it: records the framed
// request and answers with a scripted reply.
class FakeDaemon {
  public:
    explicit FakeDaemon(int offset) : port_(20205 + offset) {
        fd_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(static_cast<uint16_t>(port_));
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ok_ = ::bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    }
    ~FakeDaemon() { ::close(fd_); }
    bool ok() const { return ok_; }

    // The request text, after checking that the length datagram matches it.
    std::optional<std::string> take() {
        auto len = receive();
        auto text = receive();
        if (!len || !text) return std::nullopt;
        EXPECT_EQ(*len, std::to_string(text->size())) << "length datagram of " << *text;
        return text;
    }
    void reply(const std::string& text) {
        ::sendto(fd_, text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&peer_),
                 sizeof peer_);
    }

  private:
    std::optional<std::string> receive() {
        pollfd p{fd_, POLLIN, 0};
        if (::poll(&p, 1, 10000) <= 0) return std::nullopt;
        char buf[70000];
        socklen_t len = sizeof peer_;
        ssize_t n = ::recvfrom(fd_, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&peer_), &len);
        if (n < 0) return std::nullopt;
        return std::string(buf, static_cast<size_t>(n));
    }

    int port_;
    int fd_ = -1;
    bool ok_ = false;
    sockaddr_in peer_{};
};

class CtlTest : public ::testing::Test {
  protected:
    void SetUp() override {
        prepare_root(dir_.path());
        // Retry on a port clash with a test running at the same time.
        for (int i = 0; i < 20 && !(fake_ && fake_->ok()); ++i) {
            offset_ = random_port_offset();
            fake_.emplace(offset_);
        }
        ASSERT_TRUE(fake_->ok());
    }

    std::vector<std::string> base(bool json = false) const {
        std::vector<std::string> a = {"--root", dir_.path(), "--port-offset",
                                      std::to_string(offset_)};
        if (json) a.push_back("--json");
        return a;
    }

    // Runs smsgwctl with the arguments; the fake daemon answers `reply`
    // after optionally writing the response file. The request text it
    // received is stored in `sent`.
    CtlResult exchange(const std::vector<std::string>& args, const std::string& reply,
                       const std::optional<std::string>& response_file = std::nullopt,
                       bool json = false) {
        std::vector<std::string> a = base(json);
        a.insert(a.end(), args.begin(), args.end());
        Ctl ctl(dir_, a);
        auto text = fake_->take();
        sent = text.value_or("<nothing received>");
        if (response_file) write_file(dir_ / "var/run/RESPONSE_FILE", *response_file);
        if (text) fake_->reply(reply);
        return ctl.finish();
    }

    std::string response_path() const { return dir_ / "var/run/RESPONSE_FILE"; }

    TempDir dir_;
    int offset_ = 0;
    std::optional<FakeDaemon> fake_;
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
    const std::vector<WireCase> cases = {
        {{"raw", "get-sms total-entries groups^|^"}, "get-sms total-entries groups^|^", "3", 0},
        {{"contacts", "count"}, "get-sms total-entries phone_book^|^", "12", 0},
        {{"contacts", "add", "Ann Lee", "+4912"},
         "add-sms phone_book Ann Lee^|^+4912^|^^|^",
         "SUCCESS",
         0},
        {{"contacts", "add", "Ann", "1", "home", "--group", "G1", "--group", "G 2"},
         "add-sms phone_book Ann^|^1^|^home^|^G1^|^G 2^|^",
         "SUCCESS",
         0},
        {{"contacts", "del", "Ann", "1"}, "del-sms phone_book Ann^|^1^|^", "SUCCESS", 0},
        {{"contacts", "edit", "Ann", "1", "Bob", "2"},
         "edit-sms phone_book Ann^|^1^|^Bob^|^2^|^^|^",
         "SUCCESS",
         0},
        {{"contacts", "edit", "Ann", "1", "Ann", "1", "new desc"},
         "edit-sms phone_book Ann^|^1^|^Ann^|^1^|^new desc^|^",
         "SUCCESS",
         0},
        {{"groups", "count"}, "get-sms total-entries groups^|^", "0", 0},
        {{"groups", "add", "Friends"}, "add-sms groups Friends^|^[null]^|^", "SUCCESS", 0},
        {{"groups", "add", "Friends", "Ann", "1", "Bob", "2"},
         "add-sms groups Friends^|^Ann^|^1^|^Bob^|^2^|^[null]^|^",
         "SUCCESS",
         0},
        // Deleting groups answers "ERROR" by design; that is the success.
        {{"groups", "del", "A", "B"}, "del-sms groups A^|^B^|^", "ERROR", 0},
        // A rename answers with the parser's default text.
        {{"groups", "rename", "A", "B"}, "edit-sms groups A^|^B^|^", "Invalid String to Parse", 0},
        {{"groups", "add-member", "G", "Ann", "1"},
         "add-sms group G^|^Ann^|^1^|^",
         "Invalid String to Parse",
         0},
        {{"groups", "del-member", "G", "Ann", "1", "Bob", "2"},
         "del-sms group G^|^Ann^|^1^|^Bob^|^2^|^",
         "SUCCESS",
         0},
        {{"triggers", "add", "broadcast", "MEET", "at 5", "--group", "G1", "--group", "G2",
          "--auth", "YES", "--allow", "Ann", "1"},
         "add-sms trigger sms MEET^|^at 5^|^G1]|[G2]|[^|^YES^|^Ann]|[1]|[^|^",
         "SUCCESS",
         0},
        {{"triggers", "add", "sms", "K", "t"},
         "add-sms trigger sms K^|^t^|^[null]]|[^|^NO^|^[null]]|[^|^",
         "SUCCESS",
         0},
        {{"triggers", "add", "preconf", "hello"},
         "add-sms trigger preconf_sms hello^|^[null]]|[^|^",
         "SUCCESS",
         0},
        {{"triggers", "add", "ctrl", "Delete a Group", "DG", "--auth", "YES"},
         "edit-sms trigger ctrl_data Delete a Group^|^DG^|^YES^|^",
         "SUCCESS",
         0},
        {{"triggers", "add", "auth", "Ann", "1", "Bob", "2"},
         "add-sms trigger auth-list Ann^|^1^|^Bob^|^2^|^",
         "SUCCESS",
         0},
        {{"triggers", "del", "broadcast", "2"}, "del-sms trigger sms 2^|^", "SUCCESS", 0},
        {{"triggers", "del", "preconf", "1"}, "del-sms trigger preconf_sms 1^|^", "ERROR", 1},
        {{"triggers", "del", "auth", "Ann", "1"},
         "del-sms trigger auth-list Ann^|^1^|^",
         "SUCCESS",
         0},
        {{"save"}, "save-address-book ^|^", "SUCCESS", 0},
        {{"save"}, "save-address-book ^|^", "ERROR", 1},
        // Failure texts that do not start with "ERROR" are failures too.
        {{"contacts", "add", "Ann", "1"},
         "add-sms phone_book Ann^|^1^|^^|^",
         "Duplicate Entry Exists.",
         1},
        {{"triggers", "add", "auth", "Ann", "1"},
         "add-sms trigger auth-list Ann^|^1^|^",
         "Authenticate user already exists.",
         1},
        {{"groups", "rename", "X", "Y"},
         "edit-sms groups X^|^Y^|^",
         "ERROR:Group Doesnot Exist",
         1},
    };
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
        std::vector<std::string> a = base();
        a.insert(a.end(), args.begin(), args.end());
        CtlResult r = Ctl(dir_, a).finish();
        SCOPED_TRACE(r.err);
        EXPECT_EQ(r.status, 2);
        EXPECT_NE(r.err.find("usage:"), std::string::npos);
    }
}

// --------------------------------------------------------- exit statuses

TEST_F(CtlTest, NoAnswerWithinTheTimeoutNamesThePort) {
    int port = 20205 + offset_;
    fake_.reset();  // nobody listens any more
    std::vector<std::string> a = base();
    a.insert(a.end(), {"--timeout", "1", "contacts", "count"});
    auto start = std::chrono::steady_clock::now();
    CtlResult r = Ctl(dir_, a).finish();
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
    const std::string path = dir_ / "var/config/trigger_broadcast";
    std::string rec1 = "^|^MEET^|^at 5^|^G1]|[G2]|[^|^YES^|^Ann]|[1]|[Bob]|[2]|[^|^";
    std::string rec2 = "^|^K^|^t^|^[null]]|[^|^NO^|^[null]]|[^|^";
    write_file(path, std::to_string(rec1.size()) + rec1 + std::to_string(rec2.size()) + rec2);
    CtlResult r = exchange({"triggers", "list", "broadcast"}, path);
    EXPECT_EQ(sent, "get-sms trigger sms^|^");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out,
              "INDEX  KEYWORD  TEXT  GROUPS  AUTH  ALLOWED\n"
              "1      MEET     at 5  G1,G2   YES   Ann <1>,Bob <2>\n"
              "2      K        t     -       NO    -\n");

    r = exchange({"triggers", "list", "broadcast"}, path, std::nullopt, true);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out,
              "{\"list\":\"broadcast\",\"records\":["
              "{\"index\":1,\"keyword\":\"MEET\",\"text\":\"at 5\",\"groups\":[\"G1\",\"G2\"],"
              "\"auth\":\"YES\",\"allowed\":[{\"name\":\"Ann\",\"number\":\"1\"},"
              "{\"name\":\"Bob\",\"number\":\"2\"}]},"
              "{\"index\":2,\"keyword\":\"K\",\"text\":\"t\",\"groups\":[],\"auth\":\"NO\","
              "\"allowed\":[]}]}\n");

    const std::string auth = dir_ / "var/config/authenticate_list";
    write_file(auth, "15^|^Ann^|^+49^|^99^|^cut short");
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
        std::vector<std::string> a = base();
        a.push_back("send");
        a.insert(a.end(), c.args.begin(), c.args.end());
        Ctl ctl(dir_, a);
        auto text = fake_->take();
        ASSERT_TRUE(text);
        ASSERT_EQ(text->rfind("send-sms " + dir_.path() + "/tmp/", 0), 0u) << *text;
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
        CtlResult r = ctl.finish();
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.out, c.shown);
    }
}

TEST_F(CtlTest, SendWithoutAnswerRemovesItsRequestFile) {
    fake_.reset();
    std::vector<std::string> a = base();
    a.insert(a.end(), {"--timeout", "1", "send", "--to", "1", "hi"});
    CtlResult r = Ctl(dir_, a).finish();
    EXPECT_EQ(r.status, 2);
    // No request file may be left in the spool directory.
    bool left = false;
    if (DIR* d = ::opendir((dir_ / "tmp").c_str())) {
        while (dirent* e = ::readdir(d))
            if (std::string(e->d_name).rfind("smsgwctl-", 0) == 0) left = true;
        ::closedir(d);
    }
    EXPECT_FALSE(left);
}

TEST_F(CtlTest, ImportCsvStagesTheUploadAndReportsTheDaemonsVerdict) {
    const std::string src = dir_ / "contacts.csv";
    write_file(src, "Firstname,Lastname,Description,Phone-Number\r\nAnn,Lee,x,123\r\n");
    // Stale marker of an earlier refused import.
    write_file(dir_ / "var/tmp/csv_empty_err", "");
    std::vector<std::string> a = base();
    a.insert(a.end(), {"import-csv", src, "--columns", "1,2,4,3"});
    {
        Ctl ctl(dir_, a);
        auto text = fake_->take();
        ASSERT_TRUE(text);
        EXPECT_EQ(*text, "CSVFILE");
        EXPECT_EQ(read_file(dir_ / "var/run/AddressBook.csv"), read_file(src));
        EXPECT_EQ(read_file(dir_ / "var/run/csv_frmt.dat"), "1\n2\n4\n3\n");
        EXPECT_FALSE(exists(dir_ / "var/tmp/csv_empty_err"));
        fake_->reply("");
        CtlResult r = ctl.finish();
        EXPECT_EQ(r.status, 0) << r.err;
    }
    {
        Ctl ctl(dir_, a);
        ASSERT_TRUE(fake_->take());
        write_file(dir_ / "var/tmp/csv_lsp_err", "");
        fake_->reply("");
        CtlResult r = ctl.finish();
        EXPECT_EQ(r.status, 1);
        EXPECT_NE(r.err.find("begins with a blank"), std::string::npos) << r.err;
    }
}

TEST_F(CtlTest, StatusReadsTheQueueAndCounterFiles) {
    write_file(dir_ / "var/run/wirelessmodems", "/dev/ttyS0\n/dev/ttyS1\n");
    write_file(dir_ / "var/run/txrx_pid_file", std::to_string(::getpid()) + "\n");
    // Read index 3 in the high half, write index 5 in the low half of the
    // first host-order word.
    unsigned char table[44] = {};
    put_i32(table, static_cast<int32_t>((3u << 16) | 5u));
    put_i32(table + 4, 2 * 108 + 10 + 7);
    put_i32(table + 8 + 3 * 4, 108 + 7);
    write_file(dir_ / "var/Jobs/pos_offset", std::string(reinterpret_cast<char*>(table), 44));
    auto record = [](int body) {
        unsigned char h[108] = {};
        std::memcpy(h, "<JB/SRT>", 8);
        put_i32(h + 12, body);
        return std::string(reinterpret_cast<char*>(h), 108) + std::string(size_t(body), 'b');
    };
    write_file(dir_ / "var/Jobs/Pending_Jobs_4", record(10) + record(7));
    write_file(dir_ / "var/Jobs/Pending_Jobs_5", record(5) + "<JB/SRT>garbage");
    unsigned char stats[24] = {};
    put_i32(stats + 16, 4);
    put_i32(stats + 20, 9);
    write_file(dir_ / "var/config/sms_stats_file", std::string(reinterpret_cast<char*>(stats), 24));
    write_file(dir_ / "var/config/job_stats_file", "7\n0\n3");
    write_file(dir_ / "var/config/international_dialing", "int-dialing=enable\nmax-digits=12\n");

    std::vector<std::string> a = base();
    a.insert(a.end(), {"status", "--json"});
    CtlResult r = Ctl(dir_, a).finish();
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
    write_file(dir_ / "var/Jobs/pos_offset", std::string(10, '\xff'));
    a = base();
    a.push_back("status");
    r = Ctl(dir_, a).finish();
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("pos_offset is not 44 bytes"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("queued jobs:     3"), std::string::npos) << r.out;
}

// ------------------------------------------------------ the real daemon

class CtlDaemonTest : public ::testing::Test {
  protected:
    void SetUp() override {
        prepare_root(dir_.path());
        offset_ = random_port_offset();
        daemon_.emplace(dir_.path(), offset_);
        ASSERT_TRUE(daemon_->wait_ready()) << daemon_->stderr_text();
    }

    CtlResult ctl(std::vector<std::string> args, bool json = false) {
        std::vector<std::string> a = {"--root", dir_.path(), "--port-offset",
                                      std::to_string(offset_)};
        if (json) a.push_back("--json");
        a.insert(a.end(), args.begin(), args.end());
        return Ctl(dir_, a).finish();
    }

    TempDir dir_;
    int offset_ = 0;
    std::optional<Daemon> daemon_;
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
    EXPECT_NE(read_file(dir_ / "var/AddressBook/Address_Book").find("Ann Lee"), std::string::npos);
}

TEST_F(CtlDaemonTest, RuleListsAndCsvRoundTrip) {
    EXPECT_EQ(ctl({"triggers", "add", "auth", "Ann", "+4911"}).status, 0);
    // The list command answers "SUCCESS" for every pair; a duplicate is
    // simply not stored again.
    CtlResult r = ctl({"triggers", "add", "auth", "ANN", "+4911"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(read_file(dir_ / "var/config/authenticate_list"), "17^|^Ann^|^+4911^|^");
    r = ctl({"triggers", "list", "auth"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "INDEX  NAME  NUMBER\n1      Ann   +4911\n");

    EXPECT_EQ(ctl({"triggers", "add", "preconf", "Call me"}).status, 0);
    EXPECT_EQ(read_file(dir_ / "var/config/preconf_sms"), "25^|^Call me^|^[null]]|[^|^");
    EXPECT_EQ(ctl({"triggers", "del", "preconf", "2"}).status, 1);
    EXPECT_EQ(ctl({"triggers", "del", "preconf", "1"}).status, 0);

    const std::string csv = dir_ / "in.csv";
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
