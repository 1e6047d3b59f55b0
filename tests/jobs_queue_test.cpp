// The job queue: the position table as a restart finds it, appends with
// rotation, limit and rollback, the repair walk over damaged files, and the
// scheduler feeding a fake txrx in order.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "addressbook/address_book.h"
#include "common/fileops.h"
#include "formats/job_file.h"
#include "formats/request_file.h"
#include "jobs/job_queue.h"
#include "send/sender.h"
#include "support/test_support.h"

namespace smsgw {
namespace {

using namespace std::chrono_literals;
using test::TempDir;

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

struct QueueTest : ::testing::Test {
    TempDir dir;
    Runtime rt{dir.path(), test::random_port_offset()};
    AddressBook ab{rt.reply_buffer};
    TxrxLink link{rt.ports};
    Sender sender{rt, ab, link};
    JobQueue queue{rt, sender};
    int sleeps = 0;

    QueueTest() {
        test::prepare_root(dir.path());
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
    std::string request(const std::string& name, const std::string& bytes) {
        std::string path = dir / ("tmp/" + name);
        test::write_file(path, bytes);
        return path;
    }
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
    test::UdpListener txrx{rt.ports.txrx_out()};
    void SetUp() override {
        rt.no_of_modems = 1;
        ASSERT_TRUE(txrx.ok());
        start();
    }
    std::string queue_request(const std::string& name, const std::string& number) {
        std::string path =
            request(name, encode_request_file("admin", "text " + name, number + "^|^", "", ""));
        queue.add_to_pending_jobs("send-sms " + path);
        return path;
    }
    // The numbers of the job a datagram names.
    std::string job_numbers(const std::string& datagram) {
        auto job = decode_job_file(test::read_file(std::string(datagram.c_str())));
        std::string out;
        for (const auto& n : job ? job->numbers : std::vector<std::string>{"<none>"}) out += n;
        return out;
    }
    std::string next_job() {
        auto d = txrx.receive();
        link.job_done();
        return d ? job_numbers(*d) : "<nothing>";
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

    std::vector<std::string> got;
    for (int i = 0; i < 4; ++i) {
        queue.create_job_from_pending_jobs(0);
        EXPECT_TRUE(link.job_outstanding());
        queue.create_job_from_pending_jobs(0);  // does nothing while outstanding
        got.push_back(next_job());
    }
    EXPECT_EQ(got, (std::vector<std::string>{"111", "222", "333", "444"}));
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
    EXPECT_EQ(next_job(), "222");

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
            return SendActionResult{false, "/tmp/prepared"};
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
