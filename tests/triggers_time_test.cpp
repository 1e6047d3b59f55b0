// The loop-back time setting: the inbox reader, the date argument and the
// run of the date program.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <optional>
#include <string>
#include <tuple>

#include "common/runtime.h"
#include "formats/inbox_record.h"
#include "support/test_support.h"
#include "triggers/time_settings.h"

namespace smsgw {
namespace {

std::string loop_back(const std::string& date, const std::string& time) {
    return encode_inbox_record("+4912345", date, time, "TIMESETTINGS_LOOP_BACK_MSG");
}

TEST(DateArgument, BuiltFromTheStampsAsTheyStand) {
    EXPECT_EQ(date_argument("24/03/01", "12:05:09+04"), "030112052024.09");
    EXPECT_EQ(date_argument("99/12/31", "23:59:59-08"), "123123592099.59");
    EXPECT_EQ(date_argument("00/1/2", "3:4:5"), "12342000.5");
    const std::pair<const char*, const char*> bad[] = {
        {"24/03/0a", "12:05:09+04"}, {"2024/03/01", "12:05:09+04"}, {"24/03", "12:05:09"},
        {"24/03/01", "12:05"},       {"24/03/01", "12:05:+04"},     {"", ""},
        {"24/03/01", ";rm -rf /"},   {"$(id)/03/01", "12:05:09"},   {"24/03/01 ", "12:05:09"},
        {"24/-3/01", "12:05:09"},    {"24/03/01", "12:05:09.5+1"},
    };
    for (const auto& [date, time] : bad) EXPECT_FALSE(date_argument(date, time)) << date << time;
}

// The first loop-back record in file order sets the time, through a date
// program that records its arguments here, one per line.
TEST(LoopBackTime, OnlyAGoodFirstRecordRunsDateWithOneArgument) {
    test::TempDir dir;
    Runtime rt{dir.path(), 0};
    const std::string inbox = dir / "var/Inbox/smsinbox.dat", log = dir / "date.log";
    test::write_file(dir / "bin/date",
                     "#!/bin/sh\nfor a in \"$@\"; do echo \"$a\"; done >> \"" + log + "\"\n");
    ::chmod((dir / "bin/date").c_str(), 0755);
    EXPECT_FALSE(read_loop_back_time(inbox).opened);
    EXPECT_FALSE(set_time_from_loop_back(rt));
    const std::string good = loop_back("24/03/01", "12:05:09+04");
    const std::tuple<std::string, bool, std::optional<std::string>> cases[] = {
        {loop_back("24/03/01", "12:05:09;touch " + dir / "x"), true, std::nullopt},
        {encode_inbox_record("+4911", "24/03/01", "12:05:09+04", "text"), false, std::nullopt},
        {loop_back("24/03/01", "12:05:$(id)") + good, true, std::nullopt},
        {test::i32_bytes(0) + good, false, std::nullopt},  // a damaged length ends the reading
        {"", false, std::nullopt},
        {encode_inbox_record("+4911", "24/01/01", "01:01:01+00", "hello") + test::i32_bytes(4) +
             "none" + good + loop_back("25/04/02", "13:06:10+04"),
         true, "030112052024.09"},
    };
    for (const auto& [content, found, date] : cases) {
        test::write_file(inbox, content);
        LoopBackTime t = read_loop_back_time(inbox);
        EXPECT_TRUE(t.opened);
        EXPECT_EQ(t.found, found);
        EXPECT_EQ(t.date, date);
        EXPECT_EQ(set_time_from_loop_back(rt), date.has_value());
    }
    EXPECT_EQ(test::read_file(log), "030112052024.09\n");
    EXPECT_FALSE(test::exists(dir / "x"));
}

}  // namespace
}  // namespace smsgw
