// The action handlers behind getactionobject, the trigger send action and
// its queueing, and api trigger requests, on a sandbox root. Refused request
// files and the paths over the sockets are the daemon tests' part. Then the
// loop-back time setting: the inbox reader, the date argument and the run of
// the date program.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <memory>
#include <optional>
#include <string>
#include <tuple>

#include "addressbook/address_book.h"
#include "commands/rule_lists.h"
#include "common/runtime.h"
#include "formats/inbox_record.h"
#include "formats/job_file.h"
#include "formats/request_file.h"
#include "jobs/job_queue.h"
#include "send/sender.h"
#include "send/stats.h"
#include "support/test_support.h"
#include "triggers/time_settings.h"
#include "triggers/triggers.h"

namespace smsgw {
namespace {

using test::rec;

std::string sms(const std::string& text, const std::string& sender = "+4999") {
    return test::sms_record(sender, text);
}
const std::string kBroadcast = rec("^|^Open^|^Doors open^|^Staff]|[^|^NO^|^[null]]|[^|^") +
                               rec("^|^Ghost^|^Boo^|^Nobody]|[^|^NO^|^[null]]|[^|^");

class ActionsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        test::prepare_root(dir.path());
        ASSERT_TRUE(ensure_sms_stats_file(rt));
        ASSERT_TRUE(queue.try_init_job_pos_table());
        queue.set_pause([](unsigned) {});
        write("var/config/trigger_ctrl",
              rec("^|^Add^|^ADDENTRY^|^NO^|^") + rec("^|^Grp^|^ADDGROUP^|^NO^|^") +
                  rec("^|^Del^|^DELENTRY^|^NO^|^") + rec("^|^DelG^|^DELGROUP^|^NO^|^"));
        write("var/config/trigger_broadcast",
              kBroadcast + rec("^|^Alarm^|^Fire^|^Staff]|[^|^YES^|^Bob]|[+4930]|[^|^"));
        write("var/config/api_stat.st", test::api_stat_image({6, 7, 8}, 1));
        for (const char* name : {"Ann", "Ben"}) {
            ab.ab_insert(name, name[0] == 'A' ? "+4911" : "+4922", "");
            ab.group_create("Staff");
            ab.group_add_contact("Staff", name);
        }
        triggers = std::make_unique<Triggers>(rt, ab, rules, sender, queue);
    }
    void write(const std::string& rel, const std::string& content) {
        test::write_file(dir / rel, content);
    }
    std::string read(const std::string& rel) { return test::read_file(dir / rel); }
    Entry* entry(const std::string& name, const std::string& number) {
        TrieNode* node = ab.ab_find(name);
        return node ? AddressBook::ab_find_number(node->entries.get(), number) : nullptr;
    }
    int api_status(int32_t id) { return test::api_status_of(read("var/config/api_stat.st"), id); }
    std::string reply_text() const {
        const std::string& r = triggers->action_reply();
        EXPECT_EQ(r.size(), 100u);
        return r.substr(0, r.find('\0'));
    }
    std::string request_file(const std::string& name, const std::string& text) {
        test::write_file(dir / ("tmp/" + name), encode_request_file("admin", text, "", "", ""));
        return dir / ("tmp/" + name);
    }

    test::TempDir dir;
    Runtime rt{dir.path(), test::random_port_offset()};
    AddressBook ab{rt.reply_buffer};
    RuleLists rules{rt};
    TxrxLink link{rt.ports};
    Sender sender{rt, ab, link};
    JobQueue queue{rt, sender};
    std::unique_ptr<Triggers> triggers;
};

TEST_F(ActionsTest, StatisticsCountTriggersAndCommands) {
    link.job_handed_over();  // keep the broadcast in the queue
    const std::tuple<std::string, int, int, int> steps[] = {
        {sms("Add:Bob;+4930"), 3, 1, 1},  {sms("Open"), 0, 2, 1},
        {sms("what is this"), 7, 2, 1},   {sms("TIMESETTINGS_LOOP_BACK_MSG"), 6, 2, 1},
        {"api /tmp/req-3 0", 8, 2, 1},    {sms("Alarm", "+4931"), 7, 2, 1},  // refused broadcast
        {sms("Add:Bob;1", "2"), 7, 3, 1},                                    // wrong api kind
        {sms("Open", "3"), 7, 4, 2},
    };
    for (const auto& [message, action, received, acted] : steps) {
        SCOPED_TRACE(message.substr(message.size() > 50 ? 50 : 0));
        EXPECT_EQ(triggers->getactionobject(message), action);
        EXPECT_EQ(test::i32_at(read("var/config/sms_stats_file"), 20), received);
        EXPECT_EQ(test::i32_at(read("var/config/sms_stats_file"), 16), acted);
    }
}

TEST_F(ActionsTest, AddressBookCommandsAndTheFilesTheyClean) {
    write("var/config/authenticate_list", rec("^|^Bob^|^+4930^|^") + rec("^|^Zed^|^+4940^|^"));
    ab.ab_insert("Carl", "+4940", "");
    ab.ab_insert("Dora", "+4950", "");
    ab.ab_insert("Dora", "+4951", "");
    const std::pair<std::string, int> steps[] = {
        {"add:Bob;+4930", 3}, {"Add:Bob;+4931", 3},      {"Grp:Team;Eve;+4960", 4},
        {"Del:;+4977", 9},    {"Grp:Team;Eve;+4961", 4}, {"Del:Bob;+4930", 1},
        {"Del:;+4951", 9},    {"Grp:Crew;Ann", 4},
    };
    for (const auto& [text, action] : steps)
        EXPECT_EQ(triggers->getactionobject(sms(text)), action) << text;
    Group* team = ab.group_find("Team");
    ASSERT_TRUE(team && team->members && team->members->next);
    // A second number of Eve goes into the group as that number.
    EXPECT_EQ(team->members->member_entry, entry("Eve", "+4960"));
    EXPECT_EQ(team->members->next->member_entry, entry("Eve", "+4961"));
    EXPECT_EQ(entry("Ann", ""), nullptr);  // a name alone adds the contact, no new number
    EXPECT_EQ(entry("Dora", "+4951"), nullptr);
    EXPECT_NE(entry("Dora", "+4950"), nullptr);
    EXPECT_EQ(read("var/run/enamefile"), "Dora^|^+4951^|^^|^\n");
    EXPECT_EQ(entry("Bob", "+4930"), nullptr);
    EXPECT_NE(entry("Bob", "+4931"), nullptr);
    EXPECT_EQ(read("var/config/authenticate_list"), rec("^|^Zed^|^+4940^|^"));
    EXPECT_EQ(read("var/config/trigger_broadcast"),
              kBroadcast + rec("^|^Alarm^|^Fire^|^Staff]|[^|^YES^|^[null]]|[^|^"));

    EXPECT_EQ(triggers->getactionobject(sms("DelG:Team")), 2);
    EXPECT_EQ(ab.group_find("Team"), nullptr);
    EXPECT_NE(entry("Eve", "+4960"), nullptr);  // contacts stay
    // A name alone removes every number of it; a bare "Del" the sender's own.
    EXPECT_EQ(triggers->getactionobject(sms("Del:bob")), 1);
    EXPECT_EQ(ab.ab_find("Bob"), nullptr);
    EXPECT_EQ(triggers->getactionobject(sms("Del", "+4940")), 9);
    EXPECT_EQ(ab.ab_find("Carl"), nullptr);
}

TEST_F(ActionsTest, ApiStatusLinesAndRequests) {
    const std::pair<std::string, int> lines[] = {
        {"api /tmp/req-6 0", 0}, {"api /tmp/req-7 3", 3}, {"api /tmp/req-8", 1}};
    for (const auto& [line, status] : lines) {
        EXPECT_EQ(triggers->getactionobject(line), 8);
        EXPECT_EQ(api_status(line[13] - '0'), status) << line;
        EXPECT_EQ(read("var/config/api.conf"), "last-done=6\n");
    }
    for (const char* other :
         {"send-sms api4 /tmp/x", "send-sms api /tmp/x-1", "send-sms /tmp/x", "send-sms"})
        EXPECT_EQ(triggers->api_ProcessTrigs(other), 0) << other;
    // A command through api3, a broadcast through api2; each refuses the other.
    const std::tuple<std::string, std::string, int> requests[] = {
        {"api3", "Add:Fred;+4970", 0}, {"api3", "Open", 610}, {"api2", "Add:Gus;+4971", 611}};
    int id = 6;
    for (const auto& [form, text, status] : requests) {
        std::string path = request_file("req-" + std::to_string(id), text);
        EXPECT_EQ(triggers->api_ProcessTrigs("send-sms " + form + " " + path + "\r\n"), 1);
        EXPECT_EQ(api_status(id++), status) << text;
        EXPECT_FALSE(test::exists(path));
    }
    EXPECT_NE(entry("Fred", "+4970"), nullptr);
    EXPECT_EQ(ab.ab_find("Gus"), nullptr);
}

TEST_F(ActionsTest, BroadcastGoesToTheMembersOrWaitsInTheQueue) {
    link.job_handed_over();
    EXPECT_EQ(triggers->getactionobject(sms("Open")), 0);
    EXPECT_EQ(triggers->action_reply(), std::string(100, '\0'));
    // An api broadcast waits with its user.
    EXPECT_EQ(triggers->api_ProcessTrigs("send-sms api2 " + request_file("req-42", "Open")), 1);
    const std::string sms_body = encode_broadcast_body({"+4999", "Staff]|[", "Doors open"});
    const std::string api_body = encode_broadcast_body({"0", "Staff]|[", "Doors open"});
    const auto size = static_cast<int32_t>(sms_body.size());
    EXPECT_EQ(read("var/Jobs/Pending_Jobs_1"),
              encode_job_header(size, 0, "ISBRDTRIG") + sms_body +
                  encode_job_header(size, size + 108, "ISBRDTRIGapi42-admin") + api_body);
    EXPECT_FALSE(test::exists(dir / "var/run/pending_jobs"));

    // Once txrx is done, the queued job goes out to the group's members.
    link.job_done();
    queue.create_job_from_pending_jobs(0);
    EXPECT_EQ(test::read_file(reply_text()), encode_job_file("Doors open", {"+4911", "+4922"}));

    // A broadcast to a missing group makes no job.
    link.job_done();
    EXPECT_EQ(triggers->getactionobject(sms("Ghost")), 0);
    EXPECT_FALSE(link.job_outstanding());
    EXPECT_EQ(reply_text(), "");
}

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
