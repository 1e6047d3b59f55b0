// The job queue: record and table bytes, appends with rotation, limit and
// rollback, the repair walk over damaged files, and the scheduler feeding a
// fake txrx in order.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <chrono>
#include <random>
#include <string>
#include <vector>

#include "addressbook/address_book.h"
#include "common/bytes.h"
#include "common/fileops.h"
#include "formats/position_table.h"
#include "jobs/job_queue.h"
#include "send/sender.h"
#include "support/test_support.h"

namespace smsgw {
namespace {

using namespace std::chrono_literals;
using test::TempDir;

const unsigned char* u(const std::string& s, size_t off = 0) {
    return reinterpret_cast<const unsigned char*>(s.data()) + off;
}

std::string record(const std::string& body, int32_t p_job_ln, const std::string& line) {
    return encode_job_header(static_cast<int32_t>(body.size()), p_job_ln, line) + body;
}

struct QueueTest : ::testing::Test {
    TempDir dir;
    Runtime rt{dir.path(), test::random_port_offset()};
    AddressBook ab{rt.reply_buffer};
    Sender sender{rt, ab};
    JobQueue queue{rt, sender};
    int sleeps = 0;

    QueueTest() {
        test::prepare_root(dir.path());
        queue.sleep_seconds = [this](unsigned s) {
            EXPECT_EQ(s, 2u);
            ++sleeps;
        };
    }
    void start() {
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
};

TEST_F(QueueTest, TableIsCreatedZeroedAndStoresIndicesHighLow) {
    start();
    EXPECT_EQ(table(), std::string(44, '\0'));
    EXPECT_EQ(queue.P_POS, 0);
    EXPECT_EQ(queue.L_POS, 0);
    EXPECT_EQ(queue.TOTAL_SIZE, 0);

    queue.P_POS = 2;
    queue.L_POS = 5;
    queue.TOTAL_SIZE = 300;
    queue.update_job_pos_table(216, 5);
    PositionTable want;
    want.P_POS = 2;
    want.L_POS = 5;
    want.TOTAL_SIZE = 300;
    want.l_job_ln[5] = 216;
    EXPECT_EQ(table(), encode_position_table(want));

    // A fresh queue over the same files sees the same state.
    JobQueue again{rt, sender};
    ASSERT_TRUE(again.try_init_job_pos_table());
    again.load_job_pos_table();
    EXPECT_EQ(again.P_POS, 2);
    EXPECT_EQ(again.L_POS, 5);
    EXPECT_EQ(again.TOTAL_SIZE, 300);
    EXPECT_EQ(again.l_job_ln[5], 216);
}

TEST_F(QueueTest, DamagedTableNeverNamesAFileOutsideTheRing) {
    struct Case {
        const char* what;
        std::string bytes;
    };
    std::string out_of_range(44, '\0');
    put_i32(reinterpret_cast<unsigned char*>(out_of_range.data()),
            static_cast<int32_t>(0x012c0009));  // 300 and 9
    put_i32(reinterpret_cast<unsigned char*>(out_of_range.data()) + 4, -77);
    std::string negative(44, '\xff');
    std::mt19937 rng(7);
    std::string random(44, '\0');
    for (auto& c : random) c = static_cast<char>(rng());
    const Case cases[] = {{"empty", ""},
                          {"truncated", std::string(10, '\x01')},
                          {"out of range", out_of_range},
                          {"all ones", negative},
                          {"random", random}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        test::write_file(dir / "var/Jobs/pos_offset", c.bytes);
        JobQueue q{rt, sender};
        q.sleep_seconds = [](unsigned) {};
        ASSERT_TRUE(q.try_init_job_pos_table());
        q.load_job_pos_table();
        EXPECT_GE(q.P_POS, 0);
        EXPECT_LE(q.P_POS, 8);
        EXPECT_GE(q.L_POS, 0);
        EXPECT_LE(q.L_POS, 8);
        EXPECT_GE(q.TOTAL_SIZE, 0);
        q.repair_pending_file();
        q.create_job_from_pending_jobs(0);
        EXPECT_EQ(table().size(), 44u);
    }
}

TEST_F(QueueTest, AppendsRecordsWithBackLinks) {
    start();
    rt.jobs_to_txrx_count = 1;
    std::string a = request("a", "first body");
    std::string b = request("b-5", "second");
    std::string empty = request("e", "");
    queue.add_to_pending_jobs("send-sms " + a);
    queue.add_to_pending_jobs("send-sms api " + b + "\r\n");
    queue.add_to_pending_jobs("send-sms " + empty);
    EXPECT_FALSE(test::exists(a));
    EXPECT_FALSE(test::exists(b));
    EXPECT_FALSE(test::exists(empty));
    std::string expect = record("first body", 0, "send-sms " + a) +
                         record("second", 118, "send-sms api " + b + "\r\n") +
                         record("", 114, "send-sms " + empty);
    EXPECT_EQ(pending(0), expect);
    EXPECT_EQ(queue.TOTAL_SIZE, static_cast<long>(expect.size()));
    EXPECT_EQ(queue.l_job_ln[0], 108);
    auto t = decode_position_table(table());
    EXPECT_EQ(t->TOTAL_SIZE, static_cast<int32_t>(expect.size()));
    EXPECT_EQ(t->l_job_ln[0], 108);
    EXPECT_EQ(rt.jobs_to_txrx_count, 4);
    EXPECT_EQ(test::read_file(dir / "var/config/job_stats_file"), "4\n0\n0");
}

TEST_F(QueueTest, RequestsThatMakeNoRecord) {
    start();
    std::string outside = dir / "etc/req";
    test::write_file(outside, "body");
    std::string link = dir / "tmp/link";
    ASSERT_EQ(::symlink(outside.c_str(), link.c_str()), 0);
    for (const std::string& line :
         {std::string("send-sms"), "send-sms " + outside, "send-sms " + link,
          "send-sms api " + outside, "send-sms " + dir / "tmp/../etc/req"}) {
        SCOPED_TRACE(line);
        queue.add_to_pending_jobs(line);
    }
    EXPECT_EQ(pending(0), "");  // the start-up repair leaves it empty
    EXPECT_EQ(test::read_file(outside), "body");
    EXPECT_TRUE(test::exists(link));
    EXPECT_EQ(queue.TOTAL_SIZE, 0);
}

TEST_F(QueueTest, WriterRotatesPastHalfAMegabyte) {
    start();
    struct Case {
        int l_pos;
        long long size;
        int expect_l_pos;
    };
    const Case cases[] = {{0, 524288, 0}, {0, 524289, 1}, {8, 524289, 0}, {3, 0, 3}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.l_pos * 1000000 + c.size);
        for (int i = 0; i < 9; ++i) remove_file(queue.pending_file(i));
        test::write_file(queue.pending_file(c.l_pos),
                         std::string(static_cast<size_t>(c.size), 'x'));
        queue.L_POS = c.l_pos;
        queue.add_to_pending_jobs("send-sms " + request("r", "xyz"));
        EXPECT_EQ(queue.L_POS, c.expect_l_pos);
        std::string file = pending(c.expect_l_pos);
        long long base = c.expect_l_pos == c.l_pos ? c.size : 0;
        ASSERT_EQ(static_cast<long long>(file.size()), base + 111);
        EXPECT_EQ(file.substr(static_cast<size_t>(base) + 108), "xyz");
    }
}

TEST_F(QueueTest, FullQueueRefusesAtTheLimitOnly) {
    start();
    int32_t first_id = 10;
    std::string stat = std::string(4, '\0');
    append_i32(stat, first_id);
    stat += std::string(56, '\0');
    test::write_file(dir / "var/config/api_stat.st", stat);

    queue.TOTAL_SIZE = JobQueue::MAX_JOBS_FILE_LN;
    std::string req = request("q-11", "abc");
    queue.add_to_pending_jobs("send-sms api " + req);
    EXPECT_FALSE(test::exists(req));
    EXPECT_TRUE(test::exists(dir / "var/Jobs/jobfull"));
    EXPECT_EQ(queue.job_full, 1);
    EXPECT_EQ(pending(0), "");
    std::string s = test::read_file(dir / "var/config/api_stat.st");
    ASSERT_EQ(s.size(), 124u);
    EXPECT_EQ(get_i32(u(s, 64)), 11);
    EXPECT_EQ(get_i16(u(s, 68)), 608);

    queue.TOTAL_SIZE = JobQueue::MAX_JOBS_FILE_LN - 1;
    queue.add_to_pending_jobs("send-sms " + request("q", "abc"));
    EXPECT_EQ(pending(0).size(), 111u);
    EXPECT_EQ(queue.TOTAL_SIZE, JobQueue::MAX_JOBS_FILE_LN - 1 + 111);
}

TEST_F(QueueTest, FailedBodyCopiesRollBackAsTheQueueAlwaysHas) {
    start();
    // A broadcast body shorter than announced: the record is taken back.
    queue.add_to_pending_jobs("send-sms " + request("a", "kept"));
    std::string before = pending(0);
    std::string body = dir / "var/run/pending_jobs";
    test::write_file(body, "short");
    queue.add_to_pending_jobs_broadcasttrigger(&body, 300);
    EXPECT_EQ(pending(0), before);
    EXPECT_FALSE(test::exists(body));

    // After a rotation the rollback cuts the new file to the old one's size.
    test::write_file(queue.pending_file(0), std::string(524289, 'o'));
    test::write_file(body, "short");
    queue.add_to_pending_jobs_broadcasttrigger(&body, 300);
    EXPECT_EQ(queue.L_POS, 1);
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
    EXPECT_EQ(queue.permodem_written, 0);
}

TEST_F(QueueTest, BroadcastRecordsCarryTheApiOrigin) {
    start();
    std::string body = dir / "var/run/pending_jobs";
    std::string bytes = std::string(210, '\0') + "Friends";
    test::write_file(body, bytes);
    rt.api_trigger.pending = 1;
    rt.api_trigger.id = 12;
    rt.api_trigger.sender = "bob";
    queue.add_to_pending_jobs_broadcasttrigger(&body, static_cast<long>(bytes.size()));
    test::write_file(body, bytes);
    queue.add_to_pending_jobs_broadcasttrigger(&body, static_cast<long>(bytes.size()));
    EXPECT_EQ(pending(0), record(bytes, 0, "ISBRDTRIGapi12-bob") + record(bytes, 325, "ISBRDTRIG"));
    EXPECT_EQ(rt.api_trigger.pending, 0);
    EXPECT_EQ(rt.api_trigger.sender, "");

    test::write_file(body, bytes);
    queue.add_to_pending_jobs_broadcasttrigger(&body, -1);
    EXPECT_FALSE(test::exists(body));
    EXPECT_EQ(pending(0).size(), 2 * 325u);
}

// ---------------------------------------------------------- repair walk --

TEST_F(QueueTest, RepairWalkKeepsTheWellFormedTail) {
    start();
    const std::string r1 = record("one", 0, "send-sms /tmp/1");
    const std::string r2 = record("two!", 111, "send-sms /tmp/2");
    const std::string r3 = record("three", 112, "send-sms /tmp/3");
    std::string r2_bad = r2;
    r2_bad[1] = '?';
    const std::string r3_far = record("three", 5000, "send-sms /tmp/3");
    const std::string r3_zero = record("three", 0, "send-sms /tmp/3");
    const std::string r3_tiny = record("three", 7, "send-sms /tmp/3");
    struct Case {
        const char* what;
        std::string file;
        int32_t a_sz;
        std::string expect;  // "<gone>" when the file is deleted
    };
    const Case cases[] = {
        {"intact chain", r1 + r2 + r3, 113, r1 + r2 + r3},
        {"single record", r1, 111, r1},
        {"garbage before a chain start", "GARBAGE" + r1 + r2, 112, r1 + r2},
        {"bad marker stays first", r1 + r2_bad + r3, 113, r2_bad + r3},
        {"zero back-link starts the chain", r1 + r2 + r3_zero, 113, r3_zero},
        {"back-link past the start", r1 + r3_far, 113, r3_far},
        {"back-link shorter than a header", r1 + r3_tiny, 113, r3_tiny},
        {"table claims more than the file", r1, 5000, r1},
        {"table claims more, file is junk", std::string(300, 'j'), 5000, ""},
        {"no length known, junk file", std::string(300, 'j'), 0, "<gone>"},
        {"zero-filled", std::string(400, '\0'), 113, std::string(113, '\0')},
        {"truncated last body", r1 + r2 + r3.substr(0, 110), 113,
         (r1 + r2 + r3.substr(0, 110)).substr(220)},
        {"empty", "", 0, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        test::write_file(queue.pending_file(0), c.file);
        queue.P_POS = 0;
        queue.A_sz = c.a_sz;
        queue.repair_pending_file();
        if (c.expect == "<gone>")
            EXPECT_FALSE(test::exists(queue.pending_file(0)));
        else
            EXPECT_EQ(pending(0), c.expect);
    }
}

TEST_F(QueueTest, RepeatedRepairAlwaysEndsWellFormedOrEmpty) {
    start();
    // Whatever the damage, repairs shrink the file until its first record is
    // well-formed or nothing is left, so the scheduler cannot loop on it.
    std::mt19937 rng(11);
    for (int round = 0; round < 300; ++round) {
        std::string file;
        int32_t last = 0;
        int n = static_cast<int>(rng() % 4);
        for (int i = 0; i < n; ++i) {
            std::string r = record(std::string(rng() % 40, 'b'), last, "send-sms /tmp/x");
            last = static_cast<int32_t>(r.size());
            file += r;
        }
        if (!file.empty()) {
            size_t pos = rng() % file.size();
            size_t len = 1 + rng() % 16;
            for (size_t i = pos; i < file.size() && i < pos + len; ++i)
                file[i] = static_cast<char>(rng());
            if (rng() % 3 == 0) file.resize(rng() % file.size());
        }
        test::write_file(queue.pending_file(0), file);
        queue.P_POS = 0;
        std::string before;
        int passes = 0;
        do {
            before = pending(0);
            queue.A_sz = last;
            queue.repair_pending_file();
            ASSERT_LT(++passes, 10) << "round " << round;
        } while (pending(0) != before);
        std::string out = pending(0);
        if (out.empty()) continue;
        ASSERT_GE(out.size(), 108u) << "round " << round;
        JobHeader h = *decode_job_header(out);
        EXPECT_TRUE(h.marker_ok && h.job_ln >= 0 &&
                    h.job_ln <= static_cast<int32_t>(out.size() - 108))
            << "round " << round;
    }
}

// ----------------------------------------------------------- scheduler --

struct SchedulerTest : QueueTest {
    test::UdpListener txrx{rt.ports.txrx_out()};
    SchedulerTest() { rt.no_of_modems = 1; }
    std::string queue_request(const std::string& name, const std::string& number) {
        std::string path =
            request(name, build_request_file("admin", "text " + name, number + "^|^", "", ""));
        queue.add_to_pending_jobs("send-sms " + path);
        return path;
    }
    // The number of the single record of the job a datagram names.
    std::string job_number(const std::string& datagram) {
        std::string job = test::read_file(std::string(datagram.c_str()));
        return job.size() >= 210 ? std::string(job.c_str() + 160) : "<none>";
    }
};

TEST_F(SchedulerTest, HandsJobsOverOneAtATimeInOrder) {
    ASSERT_TRUE(txrx.ok());
    start();
    queue_request("a", "111");
    queue_request("b", "222");
    queue.L_POS = 1;  // as after a rotation: the next two go to the second file
    queue_request("c", "333");
    queue_request("d", "444");

    std::vector<std::string> got;
    for (int i = 0; i < 4; ++i) {
        queue.create_job_from_pending_jobs(0);
        EXPECT_EQ(rt.job_outstanding, 1);
        // While the job is outstanding the idle run does nothing.
        queue.create_job_from_pending_jobs(0);
        auto d = txrx.receive();
        ASSERT_TRUE(d) << i;
        EXPECT_EQ(d->size(), 100u);
        got.push_back(job_number(*d));
        rt.job_outstanding = 0;
    }
    EXPECT_EQ(got, (std::vector<std::string>{"111", "222", "333", "444"}));
    EXPECT_FALSE(txrx.receive(100ms).has_value());
    EXPECT_EQ(sleeps, 2);  // each emptied file pauses once
    EXPECT_FALSE(test::exists(queue.pending_file(0)));
    EXPECT_FALSE(test::exists(queue.pending_file(1)));

    queue.create_job_from_pending_jobs(0);
    EXPECT_EQ(queue.TOTAL_SIZE, 0);
    EXPECT_EQ(rt.jobs_to_txrx_count, 0);
    EXPECT_EQ(test::read_file(dir / "var/config/job_stats_file").substr(0, 2), "0\n");
    EXPECT_EQ(queue.P_POS, queue.L_POS);
}

TEST_F(SchedulerTest, EmptyQueueResetsCountersAndJobFull) {
    ASSERT_TRUE(txrx.ok());
    start();
    queue.P_POS = 4;
    queue.L_POS = 6;
    queue.TOTAL_SIZE = 999;
    queue.job_full = 1;
    test::write_file(dir / "var/Jobs/jobfull", "");
    test::write_file(queue.pending_file(5), std::string(108, '\0'));  // reads as job_ln 0
    queue.create_job_from_pending_jobs(0);
    EXPECT_EQ(queue.P_POS, 6);
    EXPECT_EQ(queue.TOTAL_SIZE, 0);
    EXPECT_EQ(queue.job_full, 0);
    EXPECT_FALSE(test::exists(dir / "var/Jobs/jobfull"));
    EXPECT_TRUE(test::exists(queue.pending_file(5)));  // passed over, not the write file
    EXPECT_FALSE(txrx.receive(100ms).has_value());
}

TEST_F(SchedulerTest, CorruptedFrontIsReportedRepairedAndScannedAgain) {
    ASSERT_TRUE(txrx.ok());
    start();
    queue_request("a", "111");
    queue_request("b", "222");
    // Damage the first record's marker and queue state as after a crash.
    std::string file = pending(0);
    file[0] = 'X';
    test::write_file(queue.pending_file(0), file);
    queue.update_job_pos_table(queue.l_job_ln[0], 0);
    JobHeader first = *decode_job_header(file);

    queue.create_job_from_pending_jobs(0);
    EXPECT_EQ(test::read_file(dir / "var/run/test.log.pending"),
              "Corrupted pendingjobs = 0, count = " + std::to_string(first.job_ln) + "\n\n");
    auto d = txrx.receive();
    ASSERT_TRUE(d);
    EXPECT_EQ(job_number(*d), "222");
}

TEST_F(SchedulerTest, DamagedLengthsAreNotTrusted) {
    ASSERT_TRUE(txrx.ok());
    start();
    for (int32_t bad : {-5, 0x7fffffff, 1 << 20}) {
        SCOPED_TRACE(bad);
        std::string r = encode_job_header(bad, 0, "send-sms " + dir / "tmp/x") + "tiny";
        test::write_file(queue.pending_file(0), r);
        queue.P_POS = queue.L_POS = 0;
        queue.update_job_pos_table(static_cast<int32_t>(r.size()), 0);
        queue.create_job_from_pending_jobs(0);
        EXPECT_EQ(pending(0), "");
        EXPECT_FALSE(test::exists(dir / "tmp/x"));
    }
    EXPECT_FALSE(txrx.receive(100ms).has_value());
}

TEST_F(SchedulerTest, StartUpOverDamagedFilesDrainsWithoutHanging) {
    ASSERT_TRUE(txrx.ok());
    std::mt19937 rng(3);
    for (int round = 0; round < 20; ++round) {
        for (int i = 0; i < 9; ++i) {
            std::string junk(rng() % 3000, '\0');
            if (round % 2)
                for (auto& c : junk) c = static_cast<char>(rng());
            test::write_file(queue.pending_file(i), junk);
        }
        std::string t(44, '\0');
        for (auto& c : t) c = static_cast<char>(rng());
        test::write_file(dir / "var/Jobs/pos_offset", t.substr(0, rng() % 45));
        JobQueue q{rt, sender};
        q.sleep_seconds = [](unsigned) {};
        ASSERT_TRUE(q.try_init_job_pos_table());
        q.load_job_pos_table();
        q.repair_pending_file();
        for (int run = 0; run < 40; ++run) {
            rt.job_outstanding = 0;
            q.create_job_from_pending_jobs(0);
        }
        EXPECT_EQ(q.P_POS, q.L_POS) << round;
    }
}

TEST_F(SchedulerTest, BroadcastJobsGoThroughTheSendAction) {
    ASSERT_TRUE(txrx.ok());
    start();
    std::string body = dir / "var/run/pending_jobs";
    std::string bytes = std::string("+4999") + std::string(45, '\0') + "Meet at 8" +
                        std::string(151, '\0') + "Friends";
    std::vector<int> modes;
    queue.send_action = [&](int mode) {
        modes.push_back(mode);
        EXPECT_TRUE(queue.current_broadcast.has_value());
        EXPECT_EQ(queue.current_broadcast->sender, "+4999");
        EXPECT_EQ(queue.current_broadcast->text, "Meet at 8");
        EXPECT_EQ(queue.current_broadcast->group, "Friends");
        SendActionResult r;
        r.request_file = "/tmp/prepared";
        return r;
    };
    struct Case {
        int pending;
        int id;
        std::string user;
        std::string expect_id, expect_user, expect_msg;
    };
    const Case cases[] = {
        {0, 0, "", "0", "admin", "/tmp/prepared"},
        {1, 12, "bob", "12", "bob", "api /tmp/prepared"},
    };
    for (const auto& c : cases) {
        test::write_file(body, bytes);
        rt.api_trigger.pending = c.pending;
        rt.api_trigger.id = c.id;
        rt.api_trigger.sender = c.user;
        queue.api_request_id_text = "0";
        queue.api_user = "admin";
        queue.add_to_pending_jobs_broadcasttrigger(&body, static_cast<long>(bytes.size()));
        queue.create_job_from_pending_jobs(0);
        auto d = txrx.receive();
        ASSERT_TRUE(d);
        EXPECT_EQ(d->size(), 100u);
        EXPECT_EQ(std::string(d->c_str()), c.expect_msg);
        EXPECT_EQ(queue.api_request_id_text, c.expect_id);
        EXPECT_EQ(queue.api_user, c.expect_user);
        EXPECT_EQ(queue.api_job, 0);
    }
    EXPECT_EQ(modes, (std::vector<int>{0, 0}));

    // Queued again by the action instead of sent: nothing goes to txrx.
    queue.send_action = [](int) {
        SendActionResult r;
        r.queued = true;
        return r;
    };
    test::write_file(body, bytes);
    queue.add_to_pending_jobs_broadcasttrigger(&body, static_cast<long>(bytes.size()));
    queue.create_job_from_pending_jobs(0);
    EXPECT_FALSE(txrx.receive(100ms).has_value());
}

TEST_F(SchedulerTest, RequestModeRepliesToThePeerAndQueuesPerModemWork) {
    ASSERT_TRUE(txrx.ok());
    start();
    test::UdpListener peer{rt.ports.lb() + 50};
    ASSERT_TRUE(peer.ok());
    rt.peer_addr.sin_port = htons(static_cast<uint16_t>(rt.ports.lb() + 50));
    queue_request("a", "111");
    rt.job_outstanding = 1;  // mode 1 does not look at it
    queue.create_job_from_pending_jobs(1);
    auto d = peer.receive();
    ASSERT_TRUE(d);
    EXPECT_EQ(job_number(*d), "111");
    std::string outbox_head;
    append_i32(outbox_head, 4);
    EXPECT_EQ(test::read_file(dir / "var/Outbox/outbox_slave_tmp").substr(0, 8),
              outbox_head + ",111");

    // A broadcast in request mode leaves a per-modem job that the next idle
    // run hands to txrx; its request file goes where requests are taken from.
    rt.spool_dirs = {dir / "var/run"};
    std::string body = dir / "var/run/pending_jobs";
    std::string bytes = std::string(50, '\0') + "Hi" + std::string(158, '\0') + "555";
    test::write_file(body, bytes);
    queue.send_action = [](int) { return SendActionResult{}; };
    queue.add_to_pending_jobs_broadcasttrigger(&body, static_cast<long>(bytes.size()));
    queue.create_job_from_pending_jobs(1);
    ASSERT_TRUE(peer.receive());
    EXPECT_EQ(queue.permodem_pending, 1);
    rt.job_outstanding = 0;
    queue.create_job_from_pending_jobs(0);
    auto j = txrx.receive();
    ASSERT_TRUE(j);
    EXPECT_EQ(job_number(*j), "555");
    EXPECT_EQ(queue.permodem_pending, 0);
    EXPECT_FALSE(test::exists(dir / "var/Jobs/PerModem_PendingJob"));
}

TEST_F(SchedulerTest, BrokenPerModemFileDoesNotHoldTheRingBack) {
    ASSERT_TRUE(txrx.ok());
    start();
    std::string side = dir / "var/Jobs/PerModem_PendingJob";
    std::string req = request("pm", build_request_file("a", "t", "777^|^", "", ""));
    test::write_file(side, encode_job_header(0, 0, "send-sms " + dir / "tmp/empty"));
    EXPECT_EQ(queue.add_to_permodem_pending_jobs("send-sms " + req), 0);
    queue.permodem_pending = 1;

    queue.create_job_from_pending_jobs(0);  // drops the empty record only
    EXPECT_FALSE(txrx.receive(100ms).has_value());
    queue.create_job_from_pending_jobs(0);
    auto d = txrx.receive();
    ASSERT_TRUE(d);
    EXPECT_EQ(job_number(*d), "777");
    EXPECT_EQ(queue.permodem_pending, 0);

    // A damaged record naming a file outside the spool (or a relative name,
    // which would land in our working directory) is dropped, not recreated.
    rt.job_outstanding = 0;
    std::string outside = dir / "var/Jobs/escaped";
    std::string body = build_request_file("a", "t", "999^|^", "", "");
    for (const std::string& name : {outside, std::string("escaped-relative")}) {
        SCOPED_TRACE(name);
        test::write_file(
            side,
            encode_job_header(static_cast<int32_t>(body.size()), 0, "send-sms " + name) + body);
        queue.permodem_pending = 1;
        queue.create_job_from_pending_jobs(0);
        EXPECT_FALSE(test::exists(name));
        EXPECT_FALSE(test::exists(side));
        EXPECT_EQ(queue.permodem_pending, 0);
        EXPECT_FALSE(txrx.receive(100ms).has_value());
    }

    // A vanished side file: the ring is served again.
    rt.job_outstanding = 0;
    queue.permodem_pending = 1;
    queue_request("r", "888");
    queue.create_job_from_pending_jobs(0);
    EXPECT_EQ(queue.permodem_pending, 0);
    queue.create_job_from_pending_jobs(0);
    auto r = txrx.receive();
    ASSERT_TRUE(r);
    EXPECT_EQ(job_number(*r), "888");
}

}  // namespace
}  // namespace smsgw
