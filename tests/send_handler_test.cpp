// The send request handler and the hand-off: request sections to job and
// outbox record bytes, hostile request file names, the datagrams to txrx
// (damaged request files are the request-file decoder's and the fuzz
// replay's part).
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "addressbook/address_book.h"
#include "common/net.h"
#include "formats/job_file.h"
#include "formats/outbox_record.h"
#include "formats/request_file.h"
#include "send/sender.h"
#include "support/test_support.h"

namespace smsgw {
namespace {

using namespace std::chrono_literals;
using test::TempDir;

std::vector<std::string> job_numbers(const PreparedJob& job) {
    auto decoded = decode_job_file(test::read_file(job.job_path));
    return decoded ? decoded->numbers : std::vector<std::string>{"<no job>"};
}

struct SendTest : ::testing::Test {
    TempDir dir;
    Runtime rt{dir.path(), test::random_port_offset()};
    AddressBook ab{rt.reply_buffer};
    TxrxLink link{rt.ports};
    Sender sender{rt, ab, link};

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
    const std::string n49(49, '1'), n50(50, '2'), n51(51, '3');
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
        // Only a number that fits a record with its NUL is sent; the outbox
        // lists every item as given.
        {"numbers around the record size", n49 + "^|^" + n50 + "^|^" + n51 + "^|^", "", "", {n49},
         "," + n49 + "," + n50 + "," + n51},
    };
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        std::string path = request(
            "req", encode_request_file("admin", "Hello there", c.numbers, c.names, c.groups));
        const PreparedJob job = sender.send_sms_handler("send-sms " + path + "\r\n", 1);
        EXPECT_FALSE(test::exists(path));
        EXPECT_FALSE(job.unknown_recipient);
        EXPECT_EQ(test::read_file(job.job_path).substr(0, 160),
                  std::string("Hello there") + std::string(149, '\0'));
        EXPECT_EQ(job_numbers(job), c.expect_numbers);
        EXPECT_EQ(slave_outbox(),
                  encode_outbox_record({c.expect_items, 1, 0, "Hello there", "admin"}));
        EXPECT_EQ(sender.recipients().recipient_count(), 0);
        EXPECT_FALSE(test::exists(dir / "var/run/send_test_file"));
    }
}

TEST_F(SendTest, ApiRequestTakesItsIdFromTheFileName) {
    test::write_file(dir / "var/config/api_stat.st", test::api_stat_image({41}));
    std::string path = request("req-42", encode_request_file("api-user", "x", "5^|^", "", ""));
    const PreparedJob job = sender.send_sms_handler("send-sms api " + path, 1);
    EXPECT_TRUE(job.api && job.api_request_id == 42);
    // A fresh file in the daemon's own temporary directory, "-ID" behind.
    EXPECT_EQ(job.job_path.rfind(dir / "tmp/file", 0), 0u);
    EXPECT_EQ(job.job_path.substr(job.job_path.size() - 3), "-42");
    EXPECT_EQ(job_numbers(job), std::vector<std::string>{"5"});
    std::string stat = test::read_file(dir / "var/config/api_stat.st");
    ASSERT_EQ(stat.size(), 124u);
    EXPECT_EQ(test::api_status_of(stat, 42), kApiTaken);
    EXPECT_EQ(slave_outbox(), encode_outbox_record({",5", 1, 42, "x", "api-user"}));
}

TEST_F(SendTest, DatabaseNoticeCarriesTheOutboxPath) {
    Fd db = bind_unix_dgram(dir / "var/run/SQL_SMS");
    Fd src = bind_unix_dgram(dir / "var/run/SQL_SMSTEMP");
    ASSERT_TRUE(db && src);
    rt.sql_sms_fd = src.get();
    std::string path = request("n", encode_request_file("me", "msg", "77^|^", "", ""));
    sender.send_sms_handler("send-sms " + path, 0);
    char buf[256] = {};
    ssize_t n = ::recv(db.get(), buf, sizeof buf, MSG_DONTWAIT);
    ASSERT_GT(n, 5);
    EXPECT_EQ(buf[n - 1], '\0');
    std::string notice(buf);
    ASSERT_EQ(notice.rfind("add " + dir / "var/tmp/", 0), 0u) << notice;
    EXPECT_EQ(test::read_file(notice.substr(4)), encode_outbox_record({",77", 0, 0, "msg", "me"}));

    // Without the database writer the record is not left behind.
    rt.sql_sms_fd = -1;
    path = request("n", encode_request_file("me", "msg", "78^|^", "", ""));
    sender.send_sms_handler("send-sms " + path, 0);
    auto files = std::filesystem::directory_iterator(dir / "var/tmp");
    EXPECT_EQ(std::distance(begin(files), end(files)), 1);
}

TEST_F(SendTest, RequestFilePolicy) {
    std::string good = request("ok", encode_request_file("a", "t", "1^|^", "", ""));
    std::string outside = dir / "etc/secret";
    test::write_file(outside, encode_request_file("a", "t", "2^|^", "", ""));
    std::string link_path = dir / "tmp/link";
    ASSERT_EQ(::symlink(outside.c_str(), link_path.c_str()), 0);
    std::string dirlink = dir / "tmp/d";
    ASSERT_EQ(::symlink((dir / "etc").c_str(), dirlink.c_str()), 0);
    ::mkdir((dir / "tmp/sub").c_str(), 0755);
    EXPECT_TRUE(sender.request_file_allowed(good));
    for (const std::string& p : {outside, link_path, dirlink + "/secret", dir / "tmp/../etc/secret",
                                 std::string("tmp/ok"), dir / "tmp/sub", dir / "tmp/missing",
                                 dir / "tmp", std::string(dir / "tmp/ok") + std::string(1, '\0')})
        EXPECT_FALSE(sender.request_file_allowed(p)) << p;

    rt.spool_dirs = {dir / "var/run"};
    EXPECT_FALSE(sender.request_file_allowed(good));
}

struct HandOffTest : SendTest {
    test::UdpListener txrx{rt.ports.txrx_out()};
    void SetUp() override {
        rt.no_of_modems = 1;
        ASSERT_TRUE(txrx.ok());
    }
};

TEST_F(HandOffTest, ApiJobGoesToEveryModemWithTheApiFormFirst) {
    rt.no_of_modems = 2;
    std::string path = request("req-7", encode_request_file("a", "t", "1^|^", "", ""));
    sender.hand_off_job("send-sms api " + path);
    auto first = txrx.receive();
    auto second = txrx.receive();
    ASSERT_TRUE(first && second);
    const std::string& job = sender.last_job_path();
    EXPECT_EQ(*first, "api " + job + std::string(1, '\0'));
    EXPECT_EQ(job.substr(job.size() - 2), "-7");
    EXPECT_EQ(*second, job + std::string(100 - job.size(), '\0'));
    EXPECT_TRUE(link.job_outstanding());
    EXPECT_EQ(test::read_file(dir / "var/config/job_stats_file"), "-1\n0\n2");
}

TEST_F(HandOffTest, UnknownGroupOrContactDropsTheJob) {
    test::write_file(dir / "var/config/api_stat.st", test::api_stat_image({8, 9}));
    // A direct request naming a missing group, and an API request naming a
    // missing contact.
    const std::string requests[] = {
        "send-sms " + request("g", encode_request_file("a", "t", "", "", "Nope^|^")),
        "send-sms api " + request("c-9", encode_request_file("a", "t", "", "0^|^Zed^|^", "")),
    };
    for (const auto& r : requests) {
        SCOPED_TRACE(r);
        sender.hand_off_job(r);
        EXPECT_FALSE(test::exists(sender.last_job_path()));
        EXPECT_FALSE(link.job_outstanding());
    }
    EXPECT_EQ(test::api_status_of(test::read_file(dir / "var/config/api_stat.st"), 9),
              kApiUnknownRecipient);
    EXPECT_FALSE(txrx.receive(200ms).has_value());
}

TEST_F(HandOffTest, UnopenedRequestHandsThePreviousJobOverAgain) {
    sender.hand_off_job("send-sms " + dir / "tmp/missing");  // no previous job yet
    EXPECT_FALSE(txrx.receive(200ms).has_value());
    sender.hand_off_job("send-sms " + request("ok", encode_request_file("a", "t", "1^|^", "", "")));
    auto first = txrx.receive();
    ASSERT_TRUE(first);
    link.job_done();
    sender.hand_off_job("send-sms " + dir / "tmp/missing");
    auto again = txrx.receive();
    ASSERT_TRUE(again);
    EXPECT_EQ(*again, *first);
    EXPECT_TRUE(link.job_outstanding());
}

TEST_F(HandOffTest, ReplyToPeerUsesThePeerPort) {
    const int port = rt.ports.lb() + 100;
    test::UdpListener peer{port};
    ASSERT_TRUE(peer.ok());
    PreparedJob job;
    job.job_path = "/tmp/job-3";
    job.api = true;
    sender.reply_to_peer(job, static_cast<uint16_t>(port));
    job.api = false;
    sender.reply_to_peer(job, static_cast<uint16_t>(port));
    auto api = peer.receive();
    auto plain = peer.receive();
    ASSERT_TRUE(api && plain);
    EXPECT_EQ(*api, std::string("/tmp/job-3api") + std::string(1, '\0'));
    EXPECT_EQ(*plain, "/tmp/job-3" + std::string(90, '\0'));
    EXPECT_EQ(test::read_file(dir / "var/config/job_stats_file"), "-1\n2\n0");
}

TEST(SendText, ApiIdIsTheLastDashNumber) {
    const std::pair<std::string, int> names[] = {
        {"/tmp/req-42", 42},
        {"/tmp/a-1-17", 17},
        {"/tmp/none", 0},
        {"/tmp/x-99999999999", 2147483647},
        // Only the first 127 bytes of the name are looked at.
        {std::string(125, 'a') + "-56", 5},
        {std::string(126, 'a') + "-5", 0},
    };
    for (const auto& [name, id] : names) EXPECT_EQ(last_dash_number(name), id) << name;
}

}  // namespace
}  // namespace smsgw
