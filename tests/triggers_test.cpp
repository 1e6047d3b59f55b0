// Trigger SMS: parsing (trigger lookup, command classification, the fields
// of every command, sender kinds, authentication and hostile input); the
// action handlers behind getactionobject, the trigger send action and its
// queueing, and api trigger requests, on a sandbox root (refused request
// files and the paths over the sockets are the daemon tests' part); the
// loop-back time setting: the inbox reader, the date argument and the run
// of the date program.
#include "triggers/triggers.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <variant>

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
#include "triggers/authentication.h"
#include "triggers/time_settings.h"
#include "triggers/trigger_parser.h"

namespace smsgw {
namespace {

using test::rec;

const std::string kCtrl = rec("^|^Add^|^ADDENTRY^|^NO^|^") + rec("^|^Grp^|^ADDGROUP^|^NO^|^") +
                          rec("^|^Pre^|^ADDPRECONFSMS^|^NO^|^") + rec("^|^Del^|^DELENTRY^|^NO^|^") +
                          rec("^|^DelG^|^DELGROUP^|^NO^|^") + rec("^|^Auth^|^ADDENTRY^|^YES^|^");

class ParserTest : public ::testing::Test {
  protected:
    void SetUp() override {
        test::prepare_root(dir.path());
        write("var/config/trigger_ctrl", kCtrl);
        write("var/config/authenticate_list",
              rec("^|^Ann^|^+49 (171) 555-12^|^") + rec("^|^Zed^|^0049 30^|^"));
        write("var/config/trigger_broadcast",
              rec("^|^Alarm^|^Fire drill now^|^Staff]|[^|^YES^|^Ann]|[+4911]|[Ben]|[+4922]|[^|^") +
                  rec("^|^Open^|^Doors open^|^Staff]|[Guests]|[^|^NO^|^[null]]|[^|^") +
                  rec("^|^Nobody^|^Nothing^|^[null]]|[^|^NO^|^[null]]|[^|^"));
    }
    void write(const std::string& rel, const std::string& content) {
        test::write_file(dir / rel, content);
    }
    ParsedMessage parse(const std::string& message, bool busy = false) {
        ParseContext ctx{rt, trigger_work_buffer_size(0), busy};
        return parse_trigger_sms(ctx, message);
    }

    test::TempDir dir;
    Runtime rt{dir.path(), test::random_port_offset()};
};

// The action and every field of a parse result on one line.
std::string describe(const ParsedMessage& p) {
    std::string s = std::to_string(p.action);
    if (auto* r = std::get_if<BroadcastRecord>(&p.object))
        s += " " + r->sender + "|" + r->group + "|" + r->text;
    if (auto* e = std::get_if<EntryObject>(&p.object))
        s += " " + e->name + "|" + e->number + (e->by_name ? " by name" : "");
    if (auto* g = std::get_if<GroupObject>(&p.object))
        s += " " + g->group_name + "|" + g->name + "|" + g->number;
    if (auto* t = std::get_if<TextObject>(&p.object)) s += " " + t->text;
    if (p.count_received) s += " received";
    if (p.count_acted) s += " acted";
    if (!p.fail_log.empty()) s += " [" + p.fail_log + "]";
    if (p.result != -1) s += " result " + std::to_string(p.result);
    return s;
}

TEST_F(ParserTest, FindTriggerMatchesTheWholeKeywordInAnyCase) {
    const std::string other =
        rec("^|^Alarm^|^DELGROUP^|^NO^|^") + rec("^|^A^|^B^|^x^|^") + rec("^|^^|^ADDENTRY^|^NO^|^");
    const std::string add = rec("^|^Add^|^ADDENTRY^|^NO^|^");
    struct Case {
        std::string ctrl, name;
        size_t max_len;
        std::string value;  // "-" for none
    } cases[] = {
        {kCtrl, "Ad", 4096, "-"},
        {kCtrl, "", 4096, "-"},
        // Broadcast triggers come back behind "TRIGGERSMS", from the separator on.
        {kCtrl, "OPEN", 4096, "TRIGGERSMS^|^Doors open^|^Staff]|[Guests]|[^|^NO^|^[null]]|[^|^"},
        {kCtrl, "open", 16, "TRIGGERSMS^|^Do"},      // cut to the buffer, terminator included
        {other, "alarm", 4096, "DELGROUP^|^NO^|^"},  // action triggers first
        {other, "A^|^B", 4096, "-"},
        {other, "", 4096, "ADDENTRY^|^NO^|^"},
        {"22^|^Add^|^ADDENTRY^|^", "Add", 4096, "-"},  // one byte short
        // A whole record before a damaged one still counts.
        {add + "500^|^Grp^|^ADDGROUP^|^", "Add", 4096, "ADDENTRY^|^NO^|^"},
        {add + "500^|^Grp^|^ADDGROUP^|^", "Grp", 4096, "-"},
        {" \n" + add + "x", "Add", 4096, "ADDENTRY^|^NO^|^"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.ctrl + " / " + c.name);
        write("var/config/trigger_ctrl", c.ctrl);
        EXPECT_EQ(find_trigger(rt, c.name, c.max_len).value_or("-"), c.value);
    }
    ::unlink((dir / "var/config/trigger_ctrl").c_str());
    EXPECT_FALSE(find_trigger(rt, "Alarm", 4096));
}

TEST_F(ParserTest, EverySmsGivesItsActionAndFields) {
    const std::string n60(60, 'n'), n50(50, 'n'), s70(70, '7'), s50(50, '7'), nines(50, '9');
    const std::string unauthentic = " [Received Trigger from Unauthentic Number ";
    struct Case {
        std::string sender, text, want;
    } cases[] = {
        {"+4912345", "add;Bob:+4930", "3 Bob|+4930"},  // ";" before ":" splits there
        {"+4912345", "Add:Bob", "3 Bob|+4912345"},     // number: the sender's
        {"+4912345", "Add:;+4930", "3 +4912345|+4912345"},
        {"+4912345", "Add:Bob;+49 30\r\nrest", "3 Bob|+49 30"},
        {"+4912345", "Add:" + n60 + ";" + s70, "3 " + n50 + "|" + std::string(52, '7')},
        {"+4912345", "Addx:Bob;1", "7"},
        {"+4912345", "ADDENTRY:Eve;555", "3 Eve|555"},  // the text names the command
        {"+4912345", "Del", "9 |+4912345"},
        {"+4912345", "Del:Bob", "1 Bob| by name"},
        {"+4912345", "Del:;+4930", "9 |+4930"},
        {"+4912345", "Del:Bob;+4930;junk", "1 Bob|+4930"},
        {"+4912345", "DelG:Friends", "2 Friends"},
        {"+4912345", "DelG", "7"},
        {"+4912345", "Grp:Friends;Bob;+4930", "4 Friends|Bob|+4930"},
        {"+4912345", "Grp:AVeryLongGroup:Bob", "4 AVeryLongG|Bob|"},
        {"+4912345", "Grp:G;" + n60 + ";" + s70, "4 G|" + n50 + "|" + s50},
        {"+4912345", "Grp:;Bob;1", "7"},
        {"+4912345", "Pre:Meeting at 10; bring coffee", "5 Meeting at 10; bring coffee"},
        // The record carries at most 161 text bytes: 157 remain behind "Pre:".
        {"+4912345", "Pre:" + std::string(300, 'p'), "5 " + std::string(157, 'p')},
        {nines, "Pre:x", "5 x"},  // no NUL in the sender
        {"+4912345", "TRIGGERSMS:Friends:Party tonight", "0 +4912345|Friends|Party tonight"},
        {"+4912345", "TRIGGERSMS;Friends", "0 +4912345|Friends|"},
        {"+4912345", "TRIGGERSMS", "7"},
        {"+4912345", "TIMESETTINGS_LOOP_BACK_MSG", "6"},
        {"+4912345", "hello world", "7"},
        // Kind 2 (api broadcast) may only broadcast, kind 3 (api command)
        // never; senders below 4 get "0" as their first character.
        {"2", "Add:Bob;1", "7 received"},
        {"3", "Open", "7 received acted"},
        {"3", "Add:Bob", "3 Bob|0"},
        {"2", "Open", "0 0|Staff]|[Guests]|[|Doors open"},
        {"", "Del", "9 |0"},
        {"4", "Del", "9 |4"},
        // Broadcast triggers: "YES" lists the members allowed, "NO" lets anyone.
        {"+4922", "alarm", "0 +4922|Staff]|[|Fire drill now"},
        {nines, "Open", "0 " + std::string(49, '9') + "|Staff]|[Guests]|[|Doors open"},
        {"+4933", "Alarm", "7" + unauthentic + "+4933]"},
        {"Ann", "Alarm", "7" + unauthentic + "0nn]"},
        {"+4911", "Nobody", "7" + unauthentic + "+4911]"},
        // Commands whose trigger says "YES" need a sender in the list.
        {"+4917155512", "Auth:Bob;1", "3 Bob|1"},
        {"+4930", "Auth:Bob;1", "7"},  // stored with "00"
        {"004930", "Auth:Bob;1", "3 Bob|1"},
        {"4", "Auth:Bob;1", "7"},  // kind 4 is a number: checked, and refused
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.sender + " / " + c.text);
        EXPECT_EQ(describe(parse(test::sms_record(c.sender, c.text))), c.want);
    }
    EXPECT_EQ(parse(test::sms_record("+4912345", "TIMESETTINGS_LOOP_BACK_MSG"), true).action, 7);
    // Api status lines write no trace file; SMS do.
    ::unlink((dir / "var/run/getactionbject").c_str());
    EXPECT_EQ(describe(parse("api /tmp/req-5 606")), "8 /tmp/req-5 result 606");
    EXPECT_EQ(parse("api /tmp/req-5 606").api_status, 606);
    EXPECT_EQ(parse("api /tmp/req-9").api_status, -1);
    EXPECT_FALSE(test::exists(dir / "var/run/getactionbject"));
}

TEST(Normalisation, KeepsLeadingPlusAndDigitsAndMatchesLeadingParts) {
    const std::pair<const char*, const char*> cases[] = {
        {"+49 (171) 555-12", "+4917155512"}, {"0049+-1", "00491"}, {"", ""}, {"+", "+"},
        {"\x01\x31\xff\x32", "12"},
    };
    for (const auto& [in, out] : cases) EXPECT_EQ(normalise_number(in), out) << in;
    EXPECT_FALSE(number_matches("+49171", "+4917155512"));
    EXPECT_FALSE(number_matches("+4917155512", "4917155512"));
    EXPECT_EQ(fail_log_line("a\nb\rc%s d\x7f"),
              "faillog: [FAILED TO] : TRIGGER : [MSG] : a?b?c%s d?");
}

TEST(BroadcastAuthentication, StatusAndMemberPairs) {
    const std::string list = "YES^|^Ann]|[+4911]|[Ben]|[+49 22]|[^|^";
    const std::tuple<std::string, const char*, int> cases[] = {
        {list, "Ben", 0},  // normalises to "": matches
        {list, "0", 7},
        {"NO^|^[null]]|[^|^", "+1", 0},
        {"NOPE^|^", "+1", 0},  // begins with "NO"
        {"MAYBE^|^Ann]|[+1]|[^|^", "+1", 7},
        {"YES^|^[null]]|[^|^", "+1", 7},
        {"YES^|^+1]|[^|^", "+1", 7},  // names are not numbers
        {"YES^|^Ann]|[+1", "+1", 0},
        {"", "+1", 7},
    };
    for (const auto& [fields, sender, want] : cases)
        EXPECT_EQ(authenticate_sender_bcast_trg(fields, sender), want) << fields << " " << sender;
    EXPECT_EQ(broadcast_groups("Staff]|[Guests]|["), (std::vector<std::string>{"Staff", "Guests"}));
    EXPECT_EQ(broadcast_groups("Friends"), (std::vector<std::string>{"Friends"}));
    EXPECT_TRUE(broadcast_groups("[null]]|[").empty());
    EXPECT_TRUE(broadcast_groups("]|[]|[").empty());
}

TEST_F(ParserTest, CommandCheckAgainstAuthenticatedUsers) {
    const std::string yes = "ADDENTRY^|^YES^|^";
    const std::tuple<int, std::string, const char*, int> cases[] = {
        {3, yes, "+49171", 3}, {3, "ADDENTRY", "+1", 3}, {1, yes, "+1", 7},
        {0, yes, "+1", 0},     {6, yes, "+1", 6},        {7, yes, "+1", 7},
    };
    for (const auto& [code, value, sender, want] : cases)
        EXPECT_EQ(authenticate_sender(rt, code, value, sender), want) << code << value << sender;
    write("var/config/authenticate_list", "");
    EXPECT_EQ(authenticate_sender(rt, 3, yes, "+4917155512"), 7);
    ::unlink((dir / "var/config/authenticate_list").c_str());
    EXPECT_EQ(authenticate_sender(rt, 3, yes, "+4917155512"), 3);
}

TEST_F(ParserTest, TraceFileNeverFollowsALinkAndHostileInputTouchesNoOtherFile) {
    const std::string trace = dir / "var/run/getactionbject";
    parse(test::sms_record("+4912345", "Add:Bob;1"));
    EXPECT_EQ(test::read_file(trace).rfind(
                  "sender_number - +4912345\nsms_text - Add:Bob;1\ntrig_name - Add\n", 0),
              0u);
    test::write_file(dir / "victim", "keep");
    ::unlink(trace.c_str());
    ASSERT_EQ(::symlink((dir / "victim").c_str(), trace.c_str()), 0);
    write("var/config/trigger_ctrl", rec("^|^^|^ADDENTRY^|^NO^|^") + kCtrl);
    const std::set<std::string> before = test::tree_below(dir.path());
    // Random input is the fuzz target's part; here: text that would do
    // harm if it reached a shell or a format string.
    const std::string fmt = "%s%n%x%p", shell = "$(touch pwned);`id`|rm -rf /&";
    const std::pair<std::string, std::string> cases[] = {
        {test::sms_record(fmt, fmt + ":" + fmt + ";" + fmt), "7"},
        {test::sms_record(shell, "Pre:" + shell), "5 " + shell},
        {"api " + fmt + " " + fmt, "8 %s%n%x%p result 0"},
        {test::sms_record("1", "TRIGGERSMS:" + fmt + ":" + shell), "0 0|" + fmt + "|" + shell},
    };
    for (const auto& [message, want] : cases) EXPECT_EQ(describe(parse(message)), want);
    // ";" alone is the empty trigger word, which the empty keyword names.
    EXPECT_EQ(describe(parse(test::sms_record("+49", std::string(156, ';')))), "3 +49|+49");
    EXPECT_EQ(test::tree_below(dir.path()), before);
    EXPECT_EQ(test::read_file(dir / "victim"), "keep");
    struct stat st {};
    ASSERT_EQ(::lstat(trace.c_str(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
}

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
