// Statistics files: the job counters text, the SMS counters, and which API
// status record an update lands in.
#include <gtest/gtest.h>

#include <string>

#include "common/fileops.h"
#include "common/runtime.h"
#include "send/stats.h"
#include "support/test_support.h"

namespace smsgw {
namespace {

using test::TempDir;

struct StatsTest : ::testing::Test {
    TempDir dir;
    Runtime rt{dir.path(), 0};
    StatsTest() { test::prepare_root(dir.path()); }
    std::string api() { return test::read_file(dir / "var/config/api_stat.st"); }
    void api_records(std::initializer_list<int32_t> ids) {
        test::write_file(dir / "var/config/api_stat.st", test::api_stat_image(ids, 0));
    }
    int32_t id_at(size_t record) { return test::i32_at(api(), 4 + 60 * record); }
    int16_t status_at(size_t record) { return test::i16_at(api(), 8 + 60 * record); }
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
        api_records(c.ids);
        const std::string before = api();
        EXPECT_EQ(set_api_status(rt, c.id, 7), c.record >= 0 ? 1 : 0);
        if (c.record < 0) {
            EXPECT_EQ(api(), before);
            continue;
        }
        EXPECT_EQ(api().size(), 184u);
        EXPECT_EQ(id_at(static_cast<size_t>(c.record)), c.id);
        EXPECT_EQ(status_at(static_cast<size_t>(c.record)), 7);
    }
    remove_file(dir / "var/config/api_stat.st");
    EXPECT_EQ(set_api_status(rt, 1, 2), 0);
}

}  // namespace
}  // namespace smsgw
