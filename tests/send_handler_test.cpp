// The send request handler and the hand-off: request-file parsing, the job
// file and outbox record bytes, bad and hostile request files, the
// datagrams to txrx.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "addressbook/address_book.h"
#include "common/bytes.h"
#include "common/net.h"
#include "send/sender.h"
#include "support/test_support.h"

namespace smsgw {
namespace {

using namespace std::chrono_literals;
using test::TempDir;

std::string i32(int32_t v) {
    std::string s;
    append_i32(s, v);
    return s;
}

std::string section(const char* tag, int32_t len, const std::string& bytes = "") {
    return tag + i32(len) + bytes;
}

std::string head(const std::string& sender, const std::string& text) {
    std::string out(210, '\0');
    std::memcpy(out.data(), sender.data(), sender.size());
    std::memcpy(out.data() + 50, text.data(), text.size());
    return out;
}

// Numbers of the records after the 160-byte text of a job file.
std::vector<std::string> job_numbers(const std::string& job) {
    std::vector<std::string> out;
    if (job.size() < 160) return out;
    for (size_t off = 160; off + 50 <= job.size(); off += 50)
        out.push_back(std::string(job.c_str() + off));
    EXPECT_EQ((job.size() - 160) % 50, 0u);
    return out;
}

std::string outbox_record(const std::string& recipients, int slave, int id, const std::string& text,
                          const std::string& sender) {
    return i32(static_cast<int32_t>(recipients.size())) + recipients + i32(slave) + i32(id) +
           i32(static_cast<int32_t>(text.size())) + text +
           i32(static_cast<int32_t>(sender.size())) + sender;
}

struct SendTest : ::testing::Test {
    TempDir dir;
    Runtime rt{dir.path(), test::random_port_offset()};
    AddressBook ab{rt.reply_buffer};
    Sender sender{rt, ab};

    SendTest() {
        test::prepare_root(dir.path());
        ab.ab_insert("Alice", "+4901", "");
        ab.ab_insert("Alice", "+4902", "");
        ab.ab_insert("Bob", "+4903", "");
        ab.ab_insert("Carl", "+4904", "");
        ab.group_create("Friends");
        ab.group_add_contact("Friends", "Bob");
        ab.group_add_contact("Friends", "Carl");
    }
    std::string request(const std::string& name, const std::string& bytes) {
        std::string path = dir / ("tmp/" + name);
        test::write_file(path, bytes);
        return path;
    }
    std::string slave_outbox() { return test::read_file(dir / "var/Outbox/outbox_slave_tmp"); }
};

TEST_F(SendTest, SectionsBecomeJobRecordsAndOutboxItems) {
    struct Case {
        const char* what;
        std::string numbers, names, groups;
        std::vector<std::string> expect_numbers;
        std::string expect_items;
    };
    // clang-format off
    const Case cases[] = {
        {"group only", "", "", "Friends^|^", {"+4903", "+4904"}, ",Friends"},
        {"last number without separator is ignored", "+4912345^|^+4967890", "", "", {"+4912345"},
         ",+4912345"},
        {"contact by name and number with a name", "", "0^|^alice^|^+4911^|^Bob^|^", "",
         {"+4901", "+4902", "+4911"}, ",alice,Bob"},
        {"duplicates across sections", "+4903^|^+4901^|^", "0^|^Bob^|^", "Friends^|^",
         {"+4901", "+4903", "+4904"}, ",+4903,+4901,Bob,Friends"},
        {"all contacts stops reading", "__ALL__", "", "Nope^|^",
         {"+4901", "+4902", "+4903", "+4904"}, ",__ALL__"},
        {"all groups", "", "__GALL__", "", {"+4903", "+4904"}, ",__GALL__"},
    };
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        std::string path = request(
            "req", build_request_file("admin", "Hello there", c.numbers, c.names, c.groups));
        sender.send_sms_handler("send-sms " + path + "\r\n", 1);
        EXPECT_FALSE(test::exists(path));
        EXPECT_EQ(sender.api_request_failed, 0);
        std::string job = test::read_file(sender.job_path);
        ASSERT_GE(job.size(), 160u);
        EXPECT_EQ(job.substr(0, 160), std::string("Hello there") + std::string(149, '\0'));
        EXPECT_EQ(job_numbers(job), c.expect_numbers);
        EXPECT_EQ(slave_outbox(), outbox_record(c.expect_items, 1, 0, "Hello there", "admin"));
        EXPECT_EQ(sender.recipients().recipient_count(), 0);
        EXPECT_FALSE(test::exists(dir / "var/run/send_test_file"));
    }
}

TEST_F(SendTest, MalformedRequestFilesNeverCrashAndKeepWhatIsReadable) {
    const std::string h = head("admin", "hi");
    struct Case {
        const char* what;
        std::string bytes;
        std::vector<std::string> expect_numbers;
    };
    const Case cases[] = {
        {"empty file", "", {}},
        {"only the head", h, {}},
        {"head cut short", h.substr(0, 30), {}},
        {"sections out of order",
         h + section("NAME:", 0) + section("NUMBER:", 8, std::string("111^|^\0", 7)),
         {}},
        {"unknown tag skips a section",
         h + section("NUMBRR:", 7, std::string("111^|^\0", 7)) + section("NAME:", 0) +
             section("GROUP:", 0),
         {}},
        {"negative and zero lengths",
         h + section("NUMBER:", -5) + section("NAME:", 0) +
             section("GROUP:", 11, std::string("Friends^|^\0", 11)),
         {"+4903", "+4904"}},
        {"length larger than the file", h + section("NUMBER:", 0x7fffffff, "222^|^333"), {"222"}},
        {"truncated inside a length", h + "NUMBER:" + std::string("\x01\x00", 2), {}},
        {"section without terminating NUL", h + section("NUMBER:", 6, "444^|^"), {"444"}},
        {"junk after the sections",
         h + section("NUMBER:", 6, std::string("55^|^\0", 6)) + section("NAME:", 0) +
             section("GROUP:", 0) + "trailing junk",
         {"55"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        std::string path = request("bad", c.bytes);
        sender.send_sms_handler("send-sms " + path, 1);
        EXPECT_FALSE(test::exists(path));
        EXPECT_EQ(job_numbers(test::read_file(sender.job_path)), c.expect_numbers);
    }
}

TEST_F(SendTest, NumberLengthsAroundTheRecordSize) {
    std::string n49(49, '1'), n50(50, '2'), n51(51, '3');
    std::string path = request(
        "len", build_request_file("a", "t", n49 + "^|^" + n50 + "^|^" + n51 + "^|^", "", ""));
    sender.send_sms_handler("send-sms " + path, 1);
    // Only the number that fits a record with its terminator is sent; the
    // outbox still lists every item as given.
    EXPECT_EQ(job_numbers(test::read_file(sender.job_path)), std::vector<std::string>{n49});
    EXPECT_EQ(slave_outbox(), outbox_record("," + n49 + "," + n50 + "," + n51, 1, 0, "t", "a"));
}

TEST_F(SendTest, ApiRequestTakesItsIdFromTheFileName) {
    test::write_file(dir / "var/config/api_stat.st",
                     std::string(4, '\0') + i32(41) + std::string(56, '\0'));
    std::string path = request("req-42", build_request_file("api-user", "x", "5^|^", "", ""));
    sender.send_sms_handler("send-sms api " + path, 1);
    EXPECT_EQ(sender.api_request, 1);
    EXPECT_EQ(sender.api_request_id, 42);
    ASSERT_GE(sender.job_path.size(), 3u);
    EXPECT_EQ(sender.job_path.substr(sender.job_path.size() - 3), "-42");
    EXPECT_EQ(job_numbers(test::read_file(sender.job_path)), std::vector<std::string>{"5"});
    std::string stat = test::read_file(dir / "var/config/api_stat.st");
    ASSERT_EQ(stat.size(), 124u);
    EXPECT_EQ(get_i32(reinterpret_cast<const unsigned char*>(stat.data()) + 64), 42);
    EXPECT_EQ(get_i16(reinterpret_cast<const unsigned char*>(stat.data()) + 68), 2);
    EXPECT_EQ(slave_outbox(), outbox_record(",5", 1, 42, "x", "api-user"));
}

TEST_F(SendTest, TempFilesAreFreshAndPrivate) {
    std::vector<std::string> jobs;
    for (int i = 0; i < 3; ++i) {
        std::string path = request("r", build_request_file("a", "t", "1^|^", "", ""));
        sender.send_sms_handler("send-sms " + path, 1);
        jobs.push_back(sender.job_path);
        struct stat st {};
        ASSERT_EQ(::stat(sender.job_path.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0600u);
        EXPECT_EQ(sender.job_path.rfind(dir / "tmp/", 0), 0u);
    }
    EXPECT_NE(jobs[0], jobs[1]);
    EXPECT_NE(jobs[1], jobs[2]);
}

TEST_F(SendTest, DatabaseNoticeCarriesTheOutboxPath) {
    Fd db = bind_unix_dgram(dir / "var/run/SQL_SMS");
    Fd src = bind_unix_dgram(dir / "var/run/SQL_SMSTEMP");
    ASSERT_TRUE(db && src);
    rt.sql_sms_fd = src.get();
    std::string path = request("n", build_request_file("me", "msg", "77^|^", "", ""));
    sender.send_sms_handler("send-sms " + path, 0);
    char buf[256] = {};
    ssize_t n = ::recv(db.get(), buf, sizeof buf, MSG_DONTWAIT);
    ASSERT_GT(n, 5);
    EXPECT_EQ(buf[n - 1], '\0');
    std::string notice(buf);
    ASSERT_EQ(notice.rfind("add " + dir / "var/tmp/", 0), 0u) << notice;
    EXPECT_EQ(test::read_file(notice.substr(4)), outbox_record(",77", 0, 0, "msg", "me"));

    // Without the database writer the record is not left behind.
    rt.sql_sms_fd = -1;
    path = request("n", build_request_file("me", "msg", "78^|^", "", ""));
    sender.send_sms_handler("send-sms " + path, 0);
    size_t records = 0;
    for (const auto& e : std::filesystem::directory_iterator(dir / "var/tmp")) {
        (void)e;
        ++records;
    }
    EXPECT_EQ(records, 1u);
}

TEST_F(SendTest, RequestFilePolicy) {
    std::string good = request("ok", build_request_file("a", "t", "1^|^", "", ""));
    std::string outside = dir / "etc/secret";
    test::write_file(outside, build_request_file("a", "t", "2^|^", "", ""));
    std::string link = dir / "tmp/link";
    ASSERT_EQ(::symlink(outside.c_str(), link.c_str()), 0);
    std::string dirlink = dir / "tmp/d";
    ASSERT_EQ(::symlink((dir / "etc").c_str(), dirlink.c_str()), 0);
    ::mkdir((dir / "tmp/sub").c_str(), 0755);
    std::string longname = dir / "tmp/" + std::string(88, 'x');
    longname = longname.substr(0, 88);

    struct Case {
        std::string path;
        bool allowed;
    };
    const Case cases[] = {
        {good, true},
        {outside, false},
        {link, false},
        {dirlink + "/secret", false},
        {dir / "tmp/../etc/secret", false},
        {"tmp/ok", false},
        {dir / "tmp/sub", false},
        {dir / "tmp/missing", false},
        {longname, false},
        {std::string(dir / "tmp/ok") + std::string(1, '\0'), false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        EXPECT_EQ(sender.request_file_allowed(c.path), c.allowed);
    }
    // A refused file is neither read nor removed, and makes no job.
    sender.job_path = "previous";
    for (const std::string& p : {outside, link, dirlink + "/secret"}) {
        sender.send_sms_handler("send-sms " + p, 1);
        EXPECT_EQ(sender.job_path, "previous");
    }
    EXPECT_TRUE(test::exists(outside));
    EXPECT_TRUE(test::exists(link));

    rt.spool_dirs = {dir / "var/run"};
    EXPECT_FALSE(sender.request_file_allowed(good));
}

struct HandOffTest : SendTest {
    test::UdpListener txrx{rt.ports.txrx_out()};
};

TEST_F(HandOffTest, ApiJobGoesToEveryModemWithTheApiFormFirst) {
    ASSERT_TRUE(txrx.ok());
    rt.no_of_modems = 2;
    rt.jobs_to_txrx_count = 1;
    std::string path = request("req-7", build_request_file("a", "t", "1^|^", "", ""));
    sender.hand_off_job("send-sms api " + path);
    auto first = txrx.receive();
    auto second = txrx.receive();
    ASSERT_TRUE(first && second);
    EXPECT_EQ(*first, "api " + sender.job_path + std::string(1, '\0'));
    EXPECT_EQ(sender.job_path.substr(sender.job_path.size() - 2), "-7");
    EXPECT_EQ(second->size(), 100u);
    EXPECT_EQ(std::string(second->c_str()), sender.job_path);
    EXPECT_EQ(rt.job_outstanding, 1);
    EXPECT_EQ(sender.api_request, 0);
    EXPECT_EQ(test::read_file(dir / "var/config/job_stats_file"), "-1\n0\n2");
}

TEST_F(HandOffTest, UnknownGroupOrContactDropsTheJob) {
    ASSERT_TRUE(txrx.ok());
    rt.no_of_modems = 1;
    // A direct request naming a missing group, and an API request naming a
    // missing contact.
    const std::string requests[] = {
        "send-sms " + request("g", build_request_file("a", "t", "", "", "Nope^|^")),
        "send-sms api " + request("c-9", build_request_file("a", "t", "", "0^|^Zed^|^", "")),
    };
    for (const auto& r : requests) {
        SCOPED_TRACE(r);
        sender.hand_off_job(r);
        EXPECT_FALSE(test::exists(sender.job_path));
        EXPECT_EQ(sender.api_request_failed, 0);
        EXPECT_EQ(rt.job_outstanding, 0);
    }
    EXPECT_FALSE(txrx.receive(200ms).has_value());
}

TEST_F(HandOffTest, RefusedRequestSendsNothingNotEvenThePreviousJob) {
    ASSERT_TRUE(txrx.ok());
    rt.no_of_modems = 1;
    sender.hand_off_job("send-sms " + request("ok", build_request_file("a", "t", "1^|^", "", "")));
    auto got = txrx.receive();
    ASSERT_TRUE(got);
    rt.job_outstanding = 0;
    sender.hand_off_job("send-sms " + dir / "tmp/missing");
    sender.hand_off_job("send-sms /etc/passwd");
    EXPECT_FALSE(txrx.receive(200ms).has_value());
    EXPECT_EQ(rt.job_outstanding, 0);
}

TEST_F(HandOffTest, ReplyToPeerUsesThePeerPort) {
    test::UdpListener peer{rt.ports.lb() + 100};
    ASSERT_TRUE(peer.ok());
    rt.peer_addr.sin_port = htons(static_cast<uint16_t>(rt.ports.lb() + 100));
    sender.job_path = "/tmp/job-3";
    sender.api_request = 1;
    sender.reply_to_peer();
    auto got = peer.receive();
    ASSERT_TRUE(got);
    EXPECT_EQ(*got, std::string("/tmp/job-3api") + std::string(1, '\0'));
    EXPECT_EQ(sender.api_request, 0);
    EXPECT_EQ(sender.peer_reply_count, 1);
}

TEST(SendText, TimeStampAndDashNumber) {
    std::tm tm{};
    tm.tm_year = 109, tm.tm_mon = 2, tm.tm_mday = 7, tm.tm_hour = 8, tm.tm_min = 5, tm.tm_sec = 1;
    EXPECT_EQ(format_time_stamp(tm), "09/03/07^|^08:05:01");
    tm = {};
    tm.tm_year = 125, tm.tm_mon = 11, tm.tm_mday = 31, tm.tm_hour = 23, tm.tm_min = 59;
    tm.tm_sec = 10;
    EXPECT_EQ(format_time_stamp(tm), "25/12/31^|^23:59:10");

    EXPECT_EQ(last_dash_number("/tmp/req-42"), 42);
    EXPECT_EQ(last_dash_number("/tmp/a-1-17"), 17);
    EXPECT_EQ(last_dash_number("/tmp/none"), 0);
    EXPECT_EQ(last_dash_number("/tmp/x-99999999999"), 2147483647);
}

}  // namespace
}  // namespace smsgw
