// Trigger SMS parsing: trigger lookup, command classification, the fields
// of every command, sender kinds, authentication and hostile input.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>
#include <string>
#include <variant>

#include "common/runtime.h"
#include "support/test_support.h"
#include "triggers/authentication.h"
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
        {"+49 (171) 555-12", "+4917155512"}, {"49+1", "491"}, {"++49", "+49"}, {"", ""}, {"+", "+"},
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

}  // namespace
}  // namespace smsgw
