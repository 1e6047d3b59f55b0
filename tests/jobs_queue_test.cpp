// Sending and the job queue: request sections to job and outbox record
// bytes, hostile request file names, the hand-off datagrams to txrx, the
// recipient set, the statistics files, the position table, appends with
// rotation, limit and rollback, the repair walk over damaged files, and the
// scheduler feeding a fake txrx in order (damaged request files are the
// request-file decoder's and the fuzz replay's part).
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "addressbook/address_book.h"
#include "common/fileops.h"
#include "common/net.h"
#include "common/runtime.h"
#include "formats/job_file.h"
#include "formats/outbox_record.h"
#include "formats/request_file.h"
#include "jobs/job_queue.h"
#include "send/recipients.h"
#include "send/sender.h"
#include "send/stats.h"
#include "support/test_support.h"

namespace smsgw {
namespace {

using namespace std::chrono_literals;
using test::TempDir;

std::vector<std::string> job_numbers(const std::string& job_path) {
    auto decoded = decode_job_file(test::read_file(job_path));
    return decoded ? decoded->numbers : std::vector<std::string>{"<no job>"};
}

// The numbers in the 50-byte records of an image, each checked for its
// zero padding.
std::vector<std::string> records(const std::string& image) {
    EXPECT_EQ(image.size() % 50, 0u);
    std::vector<std::string> out;
    for (size_t off = 0; off + 50 <= image.size(); off += 50) {
        std::string rec = image.substr(off, 50);
        std::string number = rec.substr(0, rec.find('\0'));
        EXPECT_EQ(rec.find_first_not_of('\0', number.size()), std::string::npos) << number;
        out.push_back(number);
    }
    return out;
}

std::string written(RecipientSet& set, const TempDir& dir) {
    std::string path = dir / "records";
    FilePtr f = open_file(path, "w");
    EXPECT_TRUE(set.recipients_write(f.get()));
    f.reset();
    return test::read_file(path);
}

std::string record(const std::string& body, int32_t p_job_ln, const std::string& line) {
    return encode_job_header(static_cast<int32_t>(body.size()), p_job_ln, line) + body;
}

PositionTable table_of(int p_pos, int l_pos, int32_t total, int32_t read_len = 0) {
    PositionTable t;
    t.P_POS = static_cast<int16_t>(p_pos);
    t.L_POS = static_cast<int16_t>(l_pos);
    t.TOTAL_SIZE = total;
    t.l_job_ln[static_cast<size_t>(p_pos)] = read_len;
    return t;
}

struct SendTest : ::testing::Test {
    TempDir dir;
    Runtime rt{dir.path(), test::random_port_offset()};
    AddressBook ab{rt.reply_buffer};
    TxrxLink link{rt.ports};
    Sender sender{rt, ab, link};
    test::UdpListener txrx{rt.ports.txrx_out()};  // a fake txrx

    SendTest() {
        test::prepare_root(dir.path());
        rt.no_of_modems = 1;
        ab.ab_insert("Alice", "+4901", "");
        ab.ab_insert("Alice", "+4902", "");
        ab.ab_insert("Bob", "+4903", "");
        ab.ab_insert("Carl", "+4904", "");
        ab.group_create("Friends");
        ab.group_add_contact("Friends", "Bob");
        ab.group_add_contact("Friends", "Carl");
    }
    void SetUp() override { ASSERT_TRUE(txrx.ok()); }
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
        EXPECT_EQ(job_numbers(job.job_path), c.expect_numbers);
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
    EXPECT_EQ(job_numbers(job.job_path), std::vector<std::string>{"5"});
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

    // A spool directory that does not exist lets nothing in.
    rt.spool_dirs = {dir / "var/run", dir / "missing"};
    EXPECT_FALSE(sender.request_file_allowed(good));
}

using HandOffTest = SendTest;

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

// ---------------------------------------------------- recipient set --

struct RecipientsTest : SendTest {
    RecipientSet set{ab};
};

TEST_F(RecipientsTest, BehavesLikeAnOrderedCaseBlindSet) {
    // The model: numbers keyed by their case-folded text, the first spelling
    // kept, written in the byte order of the keys.
    std::map<std::string, std::string> model;
    auto fold = [](std::string s) {
        for (char& c : s)
            if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
        return s;
    };
    // Few symbols and short numbers make duplicates and shared beginnings
    // common; NUL and high bytes must sort as unsigned bytes.
    const std::string symbols = std::string("12+aAbZz\xe9", 9) + std::string(1, '\0');
    std::mt19937 rng(2024);
    for (int i = 0; i < 40000; ++i) {
        std::string n;
        size_t len = rng() % 8 == 0 ? 44 + rng() % 8 : rng() % 12;
        while (n.size() < len) n += symbols[rng() % symbols.size()];
        int unlimited = static_cast<int>(rng() % 2);
        bool fits = !n.empty() && n.size() <= 49;
        bool room = unlimited || model.size() < static_cast<size_t>(RecipientSet::kLimit);
        bool expected = fits && room && model.emplace(fold(n), n).second;
        ASSERT_EQ(set.recipients_add(n, unlimited), expected) << i;
        ASSERT_EQ(set.recipient_count(), static_cast<int>(model.size())) << i;
    }
    EXPECT_GT(model.size(), static_cast<size_t>(RecipientSet::kLimit));  // the limit was met
    std::string image;
    for (auto [key, number] : model) image += number.append(50 - number.size(), '\0');
    EXPECT_EQ(written(set, dir), image);

    set.recipients_clear();
    EXPECT_EQ(set.recipient_count(), 0);
    EXPECT_EQ(written(set, dir), "");
    for (const char* n : {"13", "123", "12", "+4930", "+4912", "123", "1", "+49", "12"})
        set.recipients_add(n, 0);
    EXPECT_EQ(records(written(set, dir)),
              (std::vector<std::string>{"+49", "+4912", "+4930", "1", "12", "123", "13"}));
}

TEST_F(RecipientsTest, LimitStopsCountedInsertionsButNotTheFile) {
    char buf[16];
    for (int i = 0; i < RecipientSet::kLimit - 1; ++i) {
        std::snprintf(buf, sizeof buf, "9%07d", i);
        ASSERT_TRUE(set.recipients_add(buf, 0)) << i;
    }
    ab.ab_insert("Last", "456", "");
    ab.ab_insert("Late", "789", "");
    ab.group_create("G");
    ab.group_add_contact("G", "Last");
    EXPECT_EQ(set.recipients_add_group("G"), 1);  // the last place is taken
    EXPECT_FALSE(set.recipients_add("123", 0));
    set.recipients_add_contact("Late");
    EXPECT_EQ(set.recipient_count(), RecipientSet::kLimit);

    std::string list = dir / "list";
    test::write_file(list, "123\n" + std::string(50, '5') + "\n124\nno-newline");
    set.recipients_add_file(list);
    EXPECT_FALSE(test::exists(list));
    EXPECT_EQ(set.recipient_count(), RecipientSet::kLimit + 2);  // 123 and 124 only
    auto nums = records(written(set, dir));
    ASSERT_EQ(nums.size(), static_cast<size_t>(RecipientSet::kLimit + 2));
    EXPECT_EQ(nums[0], "123");
    EXPECT_EQ(nums[1], "124");
    // A write that fails is reported.
    FilePtr full = open_file("/dev/full", "w");
    ASSERT_TRUE(full);
    EXPECT_FALSE(set.recipients_write(full.get()));
}

// ------------------------------------------------------- statistics --

struct StatsTest : SendTest {
    std::string api() { return test::read_file(dir / "var/config/api_stat.st"); }
};

TEST_F(StatsTest, JobCountersRewriteTheirFileOnEveryReportedChange) {
    JobCounters counters(rt);
    const std::string path = dir / "var/config/job_stats_file";
    struct Step {
        void (JobCounters::*change)();
        std::string file;
    } steps[] = {
        {&JobCounters::job_queued, "2\n0\n0"},       {&JobCounters::handed_off, "1\n0\n1"},
        {&JobCounters::replied_to_peer, "0\n1\n1"},  {&JobCounters::handed_off, "-1\n1\n2"},
        {&JobCounters::request_arrived, "-1\n1\n2"}, {&JobCounters::job_queued, "1\n1\n2"},
        {&JobCounters::reset_jobs, "1\n1\n2"},       {&JobCounters::handed_off, "-1\n1\n3"},
        {&JobCounters::queue_drained, "0\n1\n3"},
    };
    for (const auto& step : steps) {
        (counters.*step.change)();
        EXPECT_EQ(test::read_file(path), step.file);
    }
    // A file changed (to the same size) or removed behind the counters'
    // back is rewritten.
    for (bool removed : {false, true}) {
        test::write_file(path, "9\n9\n9");
        if (removed) remove_file(path);
        counters.queue_drained();
        EXPECT_EQ(test::read_file(path), "0\n1\n3");
    }
}

TEST_F(StatsTest, SmsCountersAreAddressedByOffset) {
    ASSERT_TRUE(ensure_sms_stats_file(rt));
    count_sms_stat(rt, 20);
    count_sms_stat(rt, 20);
    count_sms_stat(rt, 16);
    count_sms_stat(rt, 22);  // a short read changes nothing
    std::string s = test::read_file(dir / "var/config/sms_stats_file");
    ASSERT_EQ(s.size(), 24u);
    EXPECT_EQ(test::i32_at(s, 20), 2);
    EXPECT_EQ(test::i32_at(s, 16), 1);
}

TEST_F(StatsTest, ApiStatusLandsInTheRecordItsIdSelectsNeverPastAGap) {
    struct Case {
        std::initializer_list<int32_t> ids;
        int id;
        int record;  // -1: refused, the file unchanged
    };
    // The first record's id decides; ids older than it overwrite the second.
    const Case cases[] = {
        {{10, 11, 12}, 12, 2},      {{10, 11, 12}, 10, 0}, {{10, 11, 12}, 11, 1},
        {{10, 11, 12}, 5, 1},       {{10, 11}, 12, 2},     {{10, 11}, 13, -1},
        {{10, 11}, 2000000000, -1}, {{}, 1, -1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.id);
        test::write_file(dir / "var/config/api_stat.st", test::api_stat_image(c.ids, 0));
        const std::string before = api();
        EXPECT_EQ(set_api_status(rt, c.id, 7), c.record >= 0 ? 1 : 0);
        if (c.record < 0) {
            EXPECT_EQ(api(), before);
            continue;
        }
        EXPECT_EQ(api().size(), 184u);
        EXPECT_EQ(test::i32_at(api(), 4 + 60 * static_cast<size_t>(c.record)), c.id);
        EXPECT_EQ(test::i16_at(api(), 8 + 60 * static_cast<size_t>(c.record)), 7);
    }
    remove_file(dir / "var/config/api_stat.st");
    EXPECT_EQ(set_api_status(rt, 1, 2), 0);
}

// -------------------------------------------------------- job queue --

struct QueueTest : SendTest {
    JobQueue queue{rt, sender};
    int sleeps = 0;

    QueueTest() {
        queue.set_pause([this](unsigned s) {
            EXPECT_EQ(s, 2u);
            ++sleeps;
        });
    }
    // Start-up over a position table as a restart would find it.
    void start(const PositionTable& t = PositionTable{}) {
        test::write_file(dir / "var/Jobs/pos_offset", encode_position_table(t));
        ASSERT_TRUE(queue.try_init_job_pos_table());
        queue.load_job_pos_table();
        queue.repair_pending_file();
    }
    std::string pending(int i) { return test::read_file(queue.pending_file(i)); }
    std::string table() { return test::read_file(dir / "var/Jobs/pos_offset"); }
    // A broadcast body written where the trigger leaves it, then queued.
    std::string broadcast(const std::string& bytes, std::optional<ApiOrigin> api = {},
                          std::optional<long> announced = {}) {
        std::string body = dir / "var/run/pending_jobs";
        test::write_file(body, bytes);
        queue.add_to_pending_jobs_broadcasttrigger(
            &body, announced.value_or(static_cast<long>(bytes.size())), api);
        return body;
    }
    // A chain of three records, and the second with a damaged marker.
    const std::string r1 = record("one", 0, "send-sms /tmp/1");
    const std::string r2 = record("two!", 111, "send-sms /tmp/2");
    const std::string r3 = record("three", 112, "send-sms /tmp/3");
    const std::string r2_bad = "<?" + r2.substr(2);
};

TEST_F(QueueTest, TableSurvivesARestart) {
    ASSERT_TRUE(queue.try_init_job_pos_table());
    EXPECT_EQ(table(), std::string(44, '\0'));  // created zeroed
    start(table_of(2, 5, 300));
    queue.update_job_pos_table(216, 5);
    PositionTable want = table_of(2, 5, 300);
    want.l_job_ln[5] = 216;
    EXPECT_EQ(table(), encode_position_table(want));
    JobQueue again{rt, sender};
    ASSERT_TRUE(again.try_init_job_pos_table());
    again.load_job_pos_table();
    EXPECT_EQ(encode_position_table(again.position()), table());
}

TEST_F(QueueTest, AppendsRecordsWithBackLinks) {
    start();
    std::string a = request("a", "first body");
    std::string b = request("b-5", "second");
    std::string empty = request("e", "");
    queue.add_to_pending_jobs("send-sms " + a);
    queue.add_to_pending_jobs("send-sms api " + b + "\r\n");
    queue.add_to_pending_jobs("send-sms " + empty);
    EXPECT_FALSE(test::exists(a) || test::exists(b) || test::exists(empty));
    std::string expect = record("first body", 0, "send-sms " + a) +
                         record("second", 118, "send-sms api " + b + "\r\n") +
                         record("", 114, "send-sms " + empty);
    EXPECT_EQ(pending(0), expect);
    PositionTable want = table_of(0, 0, static_cast<int32_t>(expect.size()), 108);
    EXPECT_EQ(table(), encode_position_table(want));
    EXPECT_EQ(test::read_file(dir / "var/config/job_stats_file"), "4\n0\n0");
}

TEST_F(QueueTest, WriterRotatesPastHalfAMegabyte) {
    struct Case {
        int l_pos;
        long long size;
        int expect_l_pos;
    } cases[] = {{0, 524288, 0}, {0, 524289, 1}, {8, 524289, 0}, {3, 0, 3}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.l_pos * 1000000 + c.size);
        for (int i = 0; i < 9; ++i) remove_file(queue.pending_file(i));
        start(table_of(0, c.l_pos, 0));
        test::write_file(queue.pending_file(c.l_pos),
                         std::string(static_cast<size_t>(c.size), 'x'));
        queue.add_to_pending_jobs("send-sms " + request("r", "xyz"));
        EXPECT_EQ(queue.position().L_POS, c.expect_l_pos);
        std::string file = pending(c.expect_l_pos);
        long long base = c.expect_l_pos == c.l_pos ? c.size : 0;
        ASSERT_EQ(static_cast<long long>(file.size()), base + 111);
        EXPECT_EQ(file.substr(static_cast<size_t>(base) + 108), "xyz");
    }
}

TEST_F(QueueTest, FullQueueRefusesAtTheLimitOnly) {
    test::write_file(dir / "var/config/api_stat.st", test::api_stat_image({10}));
    start(table_of(0, 0, JobQueue::MAX_JOBS_FILE_LN));
    std::string req = request("q-11", "abc");
    queue.add_to_pending_jobs("send-sms api " + req);
    EXPECT_FALSE(test::exists(req));
    EXPECT_TRUE(test::exists(dir / "var/Jobs/jobfull"));
    EXPECT_TRUE(queue.job_full());
    EXPECT_EQ(pending(0), "");
    EXPECT_EQ(test::api_status_of(test::read_file(dir / "var/config/api_stat.st"), 11),
              kApiQueueFull);

    start(table_of(0, 0, JobQueue::MAX_JOBS_FILE_LN - 1));
    queue.add_to_pending_jobs("send-sms " + request("q", "abc"));
    EXPECT_EQ(pending(0).size(), 111u);
    EXPECT_EQ(queue.position().TOTAL_SIZE, JobQueue::MAX_JOBS_FILE_LN - 1 + 111);
}

TEST_F(QueueTest, FailedBodyCopiesRollBack) {
    start();
    // A broadcast body shorter than announced: the record is taken back.
    queue.add_to_pending_jobs("send-sms " + request("a", "kept"));
    std::string before = pending(0);
    EXPECT_FALSE(test::exists(broadcast("short", {}, 300)));
    EXPECT_EQ(pending(0), before);

    // After a rotation the rollback cuts the new file to the old one's size.
    test::write_file(queue.pending_file(0), std::string(524289, 'o'));
    broadcast("short", {}, 300);
    EXPECT_EQ(queue.position().L_POS, 1);
    std::string grown = pending(1);
    ASSERT_EQ(grown.size(), 524289u);
    EXPECT_EQ(decode_job_header(grown)->job_ln, 300);
    EXPECT_EQ(grown.substr(108, 5), "short");
    EXPECT_EQ(grown.find_first_not_of('\0', 113), std::string::npos);

    // A per-modem append whose body is missing cuts the ring's write file
    // to the per-modem file's old size.
    test::write_file(queue.pending_file(1), "ring content");
    EXPECT_EQ(queue.add_to_permodem_pending_jobs("send-sms " + dir / "tmp/none"), -1);
    EXPECT_EQ(pending(1), "");
    EXPECT_EQ(test::read_file(dir / "var/Jobs/PerModem_PendingJob").size(), 108u);
}

TEST_F(QueueTest, BroadcastRecordsCarryTheApiOrigin) {
    start();
    std::string bytes = std::string(210, '\0') + "Friends";
    broadcast(bytes, ApiOrigin{12, "bob"});
    broadcast(bytes);
    EXPECT_EQ(pending(0), record(bytes, 0, "ISBRDTRIGapi12-bob") + record(bytes, 325, "ISBRDTRIG"));
    EXPECT_FALSE(test::exists(broadcast(bytes, {}, -1)));
    EXPECT_EQ(pending(0).size(), 2 * 325u);
}

// ---------------------------------------------------------- repair walk --

TEST_F(QueueTest, RepairWalkKeepsTheWellFormedTail) {
    auto r3_linked = [](int32_t back) { return record("three", back, "send-sms /tmp/3"); };
    struct Case {
        const char* what;
        std::string file;
        int32_t a_sz;
        std::string expect;  // "<gone>" when the file is deleted
        int32_t last = -1;   // the table's length for the file afterwards
    };
    const Case cases[] = {
        {"intact chain", r1 + r2 + r3, 113, r1 + r2 + r3},
        {"single record", r1, 111, r1},
        {"garbage before a chain start", "GARBAGE" + r1 + r2, 112, r1 + r2},
        {"bad marker stays first", r1 + r2_bad + r3, 113, r2_bad + r3},
        {"zero back-link starts the chain", r1 + r2 + r3_linked(0), 113, r3_linked(0)},
        {"back-link past the start", r1 + r3_linked(5000), 113, r3_linked(5000)},
        {"back-link shorter than a header", r1 + r3_linked(7), 113, r3_linked(7)},
        {"table claims more than the file", r1, 5000, r1},
        {"table claims more, file is junk", std::string(300, 'j'), 5000, ""},
        {"no length known, junk file", std::string(300, 'j'), 0, "<gone>"},
        {"zero-filled", std::string(400, '\0'), 113, std::string(113, '\0')},
        // A power cut: the last append torn, or the table stored before it
        // reached the disk. Only the torn tail goes.
        {"truncated last body", r1 + r2 + r3.substr(0, 110), 113, r1 + r2, 112},
        {"last body one byte short", r1 + r2 + r3.substr(0, 112), 113, r1 + r2, 112},
        {"torn header, older table", r1 + r2 + r3.substr(0, 50), 112, r1 + r2, 112},
        {"zero-filled tail", r1 + r2 + std::string(300, '\0'), 112, r1 + r2, 112},
        {"table older than the last record", r1 + r2 + r3, 112, r1 + r2 + r3, 113},
        {"no table, whole records", r1 + r2, 0, r1 + r2, 112},
        {"empty", "", 0, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        test::write_file(queue.pending_file(0), c.file);
        start(table_of(0, 0, 0, c.a_sz));
        if (c.expect == "<gone>")
            EXPECT_FALSE(test::exists(queue.pending_file(0)));
        else
            EXPECT_EQ(pending(0), c.expect);
        if (c.last >= 0) {
            EXPECT_EQ(queue.position().l_job_ln[0], c.last);
            EXPECT_EQ(table(), encode_position_table(queue.position()));
        }
    }
}

TEST_F(QueueTest, StartUpCutsTornAppendsOffTheOtherFiles) {
    struct Case {
        const char* what;
        std::string file, expect;
        int32_t last;  // the table's length for the file afterwards
    };
    const Case cases[] = {
        {"torn body", r1 + r2 + r3.substr(0, 110), r1 + r2, 112},
        {"zero-filled tail", r1 + std::string(600, '\0'), r1, 111},
        {"table older than the file", r1 + r2, r1 + r2, 112},
        {"damage before whole records", r1 + r2_bad + r3, r1 + r2_bad + r3, 7},
        {"junk", std::string(300, 'j'), std::string(300, 'j'), 7},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        test::write_file(queue.pending_file(3), c.file);
        PositionTable t = table_of(0, 3, 0);
        t.l_job_ln[3] = 7;
        start(t);
        queue.trim_torn_appends();
        EXPECT_EQ(pending(3), c.expect);
        EXPECT_EQ(queue.position().l_job_ln[3], c.last);
        EXPECT_EQ(table(), encode_position_table(queue.position()));
    }
}

// ----------------------------------------------------------- scheduler --

struct SchedulerTest : QueueTest {
    SchedulerTest() { start(); }
    void queue_request(const std::string& name, const std::string& number) {
        queue.add_to_pending_jobs(
            "send-sms " +
            request(name, encode_request_file("admin", "text " + name, number + "^|^", "", "")));
    }
    // The numbers of the job the next datagram names.
    std::vector<std::string> next_job() {
        auto d = txrx.receive();
        link.job_done();
        return job_numbers(d ? d->c_str() : "<nothing>");
    }
};

TEST_F(SchedulerTest, HandsJobsOverOneAtATimeInOrder) {
    queue_request("a", "111");
    queue_request("b", "222");
    PositionTable rotated = queue.position();  // as after a rotation
    rotated.L_POS = 1;
    start(rotated);
    queue_request("c", "333");
    queue_request("d", "444");

    std::vector<std::vector<std::string>> got;
    for (int i = 0; i < 4; ++i) {
        queue.create_job_from_pending_jobs(0);
        EXPECT_TRUE(link.job_outstanding());
        queue.create_job_from_pending_jobs(0);  // does nothing while outstanding
        got.push_back(next_job());
    }
    EXPECT_EQ(got, (std::vector<std::vector<std::string>>{{"111"}, {"222"}, {"333"}, {"444"}}));
    EXPECT_FALSE(txrx.receive(100ms).has_value());
    EXPECT_EQ(sleeps, 2);  // each emptied file pauses once
    EXPECT_FALSE(test::exists(queue.pending_file(0)) || test::exists(queue.pending_file(1)));

    queue.create_job_from_pending_jobs(0);
    EXPECT_EQ(queue.position().TOTAL_SIZE, 0);
    EXPECT_EQ(test::read_file(dir / "var/config/job_stats_file"), "0\n0\n4");
    EXPECT_EQ(queue.position().P_POS, queue.position().L_POS);
}

TEST_F(SchedulerTest, EmptyQueueResetsTheTotalAndJobFull) {
    start(table_of(4, 6, JobQueue::MAX_JOBS_FILE_LN));
    queue.add_to_pending_jobs("send-sms " + request("r", "x"));  // refused: full
    ASSERT_TRUE(queue.job_full());
    test::write_file(queue.pending_file(5), std::string(108, '\0'));  // reads as job_ln 0
    queue.create_job_from_pending_jobs(0);
    EXPECT_EQ(queue.position().P_POS, 6);
    EXPECT_EQ(queue.position().TOTAL_SIZE, 0);
    EXPECT_FALSE(queue.job_full());
    EXPECT_FALSE(test::exists(dir / "var/Jobs/jobfull"));
    EXPECT_TRUE(test::exists(queue.pending_file(5)));  // passed over, not the write file
    EXPECT_FALSE(txrx.receive(100ms).has_value());
}

TEST_F(SchedulerTest, DamagedFrontsAreReportedRepairedOrDropped) {
    queue_request("a", "111");
    queue_request("b", "222");
    std::string file = pending(0);
    file[0] = 'X';  // the first record's marker, as after a crash
    test::write_file(queue.pending_file(0), file);
    queue.create_job_from_pending_jobs(0);
    EXPECT_EQ(test::read_file(dir / "var/run/test.log.pending"),
              "Corrupted pendingjobs = 0, count = " +
                  std::to_string(decode_job_header(file)->job_ln) + "\n\n");
    EXPECT_EQ(next_job(), std::vector<std::string>{"222"});

    for (int32_t bad : {-5, 0x7fffffff, 1 << 20}) {
        SCOPED_TRACE(bad);
        start();
        test::write_file(queue.pending_file(0),
                         encode_job_header(bad, 0, "send-sms " + dir / "tmp/x") + "tiny");
        queue.create_job_from_pending_jobs(0);
        EXPECT_EQ(pending(0), "");
        EXPECT_FALSE(test::exists(dir / "tmp/x"));
    }
    EXPECT_FALSE(txrx.receive(100ms).has_value());
}

TEST_F(SchedulerTest, BroadcastJobsGoThroughTheSendAction) {
    const BroadcastRecord sent{"+4999", "Friends", "Meet at 8"};
    const std::string bytes = encode_broadcast_body(sent);
    std::vector<std::string> seen;
    queue.set_send_action(
        [&](int mode, const BroadcastRecord& r, const std::optional<ApiOrigin>& api) {
            seen.push_back(std::to_string(mode) + r.sender + r.group + r.text +
                           (api ? std::to_string(api->id) + api->user : "-"));
            return SendActionResult{"/tmp/prepared"};
        });
    struct Case {
        std::optional<ApiOrigin> api;
        std::string line, expect_msg, expect_seen;
    } cases[] = {
        {std::nullopt, "", "/tmp/prepared", "0+4999FriendsMeet at 8-"},
        {ApiOrigin{12, "bob"}, "", "api /tmp/prepared", "0+4999FriendsMeet at 812bob"},
        {std::nullopt, "ISBRDTRIGapi7", "api /tmp/prepared", "0+4999FriendsMeet at 80admin"},
    };
    for (const auto& c : cases) {
        seen.clear();
        if (c.line.empty())
            broadcast(bytes, c.api);
        else
            test::write_file(queue.pending_file(0), record(bytes, 0, c.line));
        queue.create_job_from_pending_jobs(0);
        auto d = txrx.receive();
        ASSERT_TRUE(d);
        EXPECT_EQ(*d, std::string(c.expect_msg) + std::string(100 - c.expect_msg.size(), '\0'));
        EXPECT_EQ(seen, std::vector<std::string>{c.expect_seen});
    }
}

}  // namespace
}  // namespace smsgw
