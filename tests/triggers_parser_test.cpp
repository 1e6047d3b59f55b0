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
using test::TempDir;

std::string sms(const std::string& sender, const std::string& text) {
    return test::sms_record(sender, text);
}

const char* const kCtrl[] = {
    "^|^Add^|^ADDENTRY^|^NO^|^", "^|^Grp^|^ADDGROUP^|^NO^|^",  "^|^Pre^|^ADDPRECONFSMS^|^NO^|^",
    "^|^Del^|^DELENTRY^|^NO^|^", "^|^DelG^|^DELGROUP^|^NO^|^",
};

class ParserTest : public ::testing::Test {
  protected:
    void SetUp() override {
        test::prepare_root(dir.path());
        std::string ctrl;
        for (const char* r : kCtrl) ctrl += rec(r);
        write("var/config/trigger_ctrl", ctrl);
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

    TempDir dir;
    Runtime rt{dir.path(), test::random_port_offset()};
};

TEST(ClassifyCommand, PrefixesInOrder) {
    const std::pair<const char*, int> cases[] = {
        {"TRIGGERSMS", 0},     {"TRIGGERSMS^|^x", 0},
        {"DELENTRY", 1},       {"DELGROUP", 2},
        {"ADDENTRY:Bob;1", 3}, {"ADDGROUP", 4},
        {"ADDPRECONFSMS", 5},  {"TIMESETTINGS_LOOP_BACK_MSG at 12", 6},
        {"addentry", 7},       {"", 7},
        {"DELENT", 7},         {"ADDPRECONF", 7},
    };
    for (const auto& [word, code] : cases) EXPECT_EQ(classify_command(word), code) << word;
}

TEST_F(ParserTest, FindTriggerMatchesWholeKeywordInAnyCase) {
    EXPECT_EQ(find_trigger(rt, "add", 4096), "ADDENTRY^|^NO^|^");
    EXPECT_EQ(find_trigger(rt, "aDD", 4096), "ADDENTRY^|^NO^|^");
    EXPECT_EQ(find_trigger(rt, "DELG", 4096), "DELGROUP^|^NO^|^");
    EXPECT_FALSE(find_trigger(rt, "Ad", 4096));
    EXPECT_FALSE(find_trigger(rt, "Addx", 4096));
    EXPECT_FALSE(find_trigger(rt, "", 4096));
    // Broadcast triggers come back behind "TRIGGERSMS", from the separator on.
    EXPECT_EQ(find_trigger(rt, "OPEN", 4096),
              "TRIGGERSMS^|^Doors open^|^Staff]|[Guests]|[^|^NO^|^[null]]|[^|^");
    // Cut to the work buffer, terminator included.
    EXPECT_EQ(find_trigger(rt, "open", 16), "TRIGGERSMS^|^Do");
}

TEST_F(ParserTest, FindTriggerPrefersActionTriggersAndKeepsKeywordWhole) {
    write("var/config/trigger_ctrl", rec("^|^Alarm^|^DELGROUP^|^NO^|^") + rec("^|^A^|^B^|^x^|^") +
                                         rec("^|^^|^ADDENTRY^|^NO^|^"));
    EXPECT_EQ(find_trigger(rt, "alarm", 4096), "DELGROUP^|^NO^|^");
    // A name holding the separator does not reach into the next field.
    EXPECT_FALSE(find_trigger(rt, "A^|^B", 4096));
    EXPECT_EQ(find_trigger(rt, "", 4096), "ADDENTRY^|^NO^|^");
}

TEST_F(ParserTest, FindTriggerSurvivesDamagedFiles) {
    const std::pair<std::string, bool> damaged[] = {
        {"", false},
        {"abc", false},
        {"-5^|^Add^|^ADDENTRY^|^", false},
        {"0^|^Add^|^ADDENTRY^|^", false},
        {"99999999999999999999^|^Add^|^ADDENTRY^|^", false},
        {"2^|", false},
        {"22^|^Add^|^ADDENTRY^|^", false},  // one byte short
        {std::string("25") + std::string(25, '\0'), false},
        // A whole record before a damaged one still counts.
        {rec("^|^Add^|^ADDENTRY^|^NO^|^") + "500^|^Grp^|^ADDGROUP^|^", true},
        {" \n" + rec("^|^Add^|^ADDENTRY^|^NO^|^") + "x", true},
    };
    for (const auto& [content, add_matches] : damaged) {
        SCOPED_TRACE(content);
        write("var/config/trigger_ctrl", content);
        auto v = find_trigger(rt, "Add", 4096);
        EXPECT_EQ(v.has_value(), add_matches);
        if (add_matches) {
            EXPECT_EQ(v.value_or(""), "ADDENTRY^|^NO^|^");
        }
        EXPECT_FALSE(find_trigger(rt, "Grp", 4096));
    }
    ::unlink((dir / "var/config/trigger_ctrl").c_str());
    EXPECT_FALSE(find_trigger(rt, "Alarm", 4096));
}

// Expected outcome of one SMS.
struct Case {
    const char* text;
    int action;
    const char* a;  // name / group / text
    const char* b;  // number
    const char* c;  // group name of action 4
    bool by_name;
};

void check(const ParsedMessage& p, const Case& c) {
    SCOPED_TRACE(c.text);
    ASSERT_EQ(p.action, c.action);
    EXPECT_EQ(p.result, -1);
    switch (p.action) {
        case kActionSend: {
            const auto& r = std::get<BroadcastRecord>(p.object);
            EXPECT_EQ(r.group, c.a);
            EXPECT_EQ(r.text, c.b);
            break;
        }
        case kActionDeleteEntry:
        case kActionAddEntry:
        case kActionDeleteByNumber: {
            const auto& e = std::get<EntryObject>(p.object);
            EXPECT_EQ(e.name, c.a);
            EXPECT_EQ(e.number, c.b);
            EXPECT_EQ(e.by_name, c.by_name);
            break;
        }
        case kActionAddGroup: {
            const auto& g = std::get<GroupObject>(p.object);
            EXPECT_EQ(g.name, c.a);
            EXPECT_EQ(g.number, c.b);
            EXPECT_EQ(g.group_name, c.c);
            break;
        }
        case kActionDeleteGroup:
        case kActionAddPreconf:
            EXPECT_EQ(std::get<TextObject>(p.object).text, c.a);
            break;
        default:
            EXPECT_TRUE(std::holds_alternative<std::monostate>(p.object));
    }
}

TEST_F(ParserTest, CommandFieldsFromAnAllowedSender) {
    const std::string long_name(60, 'n');
    const Case cases[] = {
        {"Add:Bob;+4930", 3, "Bob", "+4930", "", false},
        {"add;Bob:+4930", 3, "Bob", "+4930", "", false},  // ";" before ":" splits there
        {"Add:Bob", 3, "Bob", "+4912345", "", false},     // number: the sender's
        {"Add", 3, "+4912345", "+4912345", "", false},    // no fields at all
        {"Add:;+4930", 3, "+4912345", "+4912345", "", false},
        {"Add:Bob;+49 30\r\nrest", 3, "Bob", "+49 30", "", false},
        {"Addx:Bob;1", 7, "", "", "", false},
        {"ADDENTRY:Eve;555", 3, "Eve", "555", "", false},  // the text names the command
        {"Del", 9, "", "+4912345", "", false},
        {"Del:Bob", 1, "Bob", "", "", true},
        {"Del:;+4930", 9, "", "+4930", "", false},
        {"Del::+4930", 9, "", "+4930", "", false},
        {"Del:Bob;+4930;junk", 1, "Bob", "+4930", "", false},
        {"DelG:Friends", 2, "Friends", "", "", false},
        {"DelG", 7, "", "", "", false},
        {"DelG:", 7, "", "", "", false},
        {"Grp:Friends;Bob;+4930", 4, "Bob", "+4930", "Friends", false},
        {"Grp:AVeryLongGroup:Bob", 4, "Bob", "", "AVeryLongG", false},
        {"Grp", 7, "", "", "", false},
        {"Grp:;Bob;1", 7, "", "", "", false},
        {"Pre:Meeting at 10; bring coffee", 5, "Meeting at 10; bring coffee", "", "", false},
        {"Pre:line one\nline two", 5, "line one", "", "", false},
        {"Pre", 7, "", "", "", false},
        {"TRIGGERSMS:Friends:Party tonight", 0, "Friends", "Party tonight", "", false},
        {"TRIGGERSMS;Friends", 0, "Friends", "", "", false},
        {"TRIGGERSMS", 7, "", "", "", false},
        {"hello world", 7, "", "", "", false},
        {"", 7, "", "", "", false},
    };
    for (const Case& c : cases) check(parse(sms("+4912345", c.text)), c);

    auto p = parse(sms("+4912345", "Add:" + long_name + ";" + std::string(70, '7')));
    ASSERT_EQ(p.action, 3);
    EXPECT_EQ(std::get<EntryObject>(p.object).name, std::string(50, 'n'));
    EXPECT_EQ(std::get<EntryObject>(p.object).number, std::string(52, '7'));
    p = parse(sms("+4912345", "Grp:G;" + long_name + ";" + std::string(70, '7')));
    ASSERT_EQ(p.action, 4);
    EXPECT_EQ(std::get<GroupObject>(p.object).name, std::string(50, 'n'));
    EXPECT_EQ(std::get<GroupObject>(p.object).number, std::string(50, '7'));
}

TEST_F(ParserTest, TimeSettingsUnlessBusy) {
    EXPECT_EQ(parse(sms("+4912345", "TIMESETTINGS_LOOP_BACK_MSG")).action, 6);
    EXPECT_EQ(parse(sms("+4912345", "TIMESETTINGS_LOOP_BACK_MSG"), true).action, 7);
}

TEST_F(ParserTest, SenderKinds) {
    // Kind 2 (api broadcast) may only broadcast, kind 3 (api command) never.
    auto p = parse(sms("2", "Add:Bob;1"));
    EXPECT_EQ(p.action, 7);
    EXPECT_TRUE(p.count_received);
    EXPECT_FALSE(p.count_acted);
    p = parse(sms("3", "Open"));
    EXPECT_EQ(p.action, 7);
    EXPECT_TRUE(p.count_received);
    EXPECT_TRUE(p.count_acted);
    // Senders below 4 get "0" as their first character.
    p = parse(sms("3", "Add:Bob"));
    ASSERT_EQ(p.action, 3);
    EXPECT_EQ(std::get<EntryObject>(p.object).number, "0");
    EXPECT_FALSE(p.count_received);
    p = parse(sms("2", "Open"));
    ASSERT_EQ(p.action, 0);
    EXPECT_EQ(std::get<BroadcastRecord>(p.object).sender, "0");
    p = parse(sms("", "Del"));
    ASSERT_EQ(p.action, 9);
    EXPECT_EQ(std::get<EntryObject>(p.object).number, "0");
}

TEST_F(ParserTest, BroadcastTriggers) {
    auto p = parse(sms("+4922", "alarm"));
    ASSERT_EQ(p.action, 0);
    const auto& r = std::get<BroadcastRecord>(p.object);
    EXPECT_EQ(r.sender, "+4922");
    EXPECT_EQ(r.group, "Staff]|[");
    EXPECT_EQ(r.text, "Fire drill now");
    EXPECT_TRUE(p.fail_log.empty());
    EXPECT_EQ(parse(sms("+4911", "ALARM:ignored")).action, 0);
    EXPECT_EQ(parse(sms("+4987654321", "Open")).action, 0);  // "NO": anyone

    const char* refused[][2] = {{"+4933", "Alarm"}, {"Ann", "Alarm"}, {"+4911", "Nobody"}};
    for (auto [sender, text] : refused) {
        SCOPED_TRACE(std::string(sender) + " " + text);
        p = parse(sms(sender, text));
        EXPECT_EQ(p.action, 7);
        EXPECT_EQ(p.fail_log.rfind("Received Trigger from Unauthentic Number ", 0), 0u);
    }
    p = parse(sms("+4933", "Alarm"));
    EXPECT_EQ(p.fail_log, "Received Trigger from Unauthentic Number +4933");
    EXPECT_EQ(fail_log_line(p.fail_log),
              "faillog: [FAILED TO] : TRIGGER : [MSG] : Received Trigger from Unauthentic "
              "Number +4933");
    EXPECT_EQ(fail_log_line("a\nb\rc%s"), "faillog: [FAILED TO] : TRIGGER : [MSG] : a?b?c%s");
}

TEST(BroadcastGroups, Items) {
    EXPECT_EQ(broadcast_groups("Staff]|[Guests]|["), (std::vector<std::string>{"Staff", "Guests"}));
    EXPECT_EQ(broadcast_groups("Friends"), (std::vector<std::string>{"Friends"}));
    EXPECT_TRUE(broadcast_groups("[null]]|[").empty());
    EXPECT_TRUE(broadcast_groups("").empty());
    EXPECT_TRUE(broadcast_groups("]|[]|[").empty());
}

TEST(Normalisation, KeepsLeadingPlusAndDigits) {
    const std::pair<const char*, const char*> cases[] = {
        {"+49 (171) 555-12", "+4917155512"},
        {"0049-171", "0049171"},
        {"49+1", "491"},
        {"++49", "+49"},
        {"abc", ""},
        {"", ""},
        {"+", "+"},
        {"\x01"
         "1\xff"
         "2",
         "12"},
    };
    for (const auto& [in, out] : cases) EXPECT_EQ(normalise_number(in), out) << in;
}

TEST(Normalisation, StoredNumberMustBeginWithWholeSender) {
    EXPECT_TRUE(number_matches("+49 (171) 555-12", "+4917155512"));
    EXPECT_TRUE(number_matches("+4917155512", "+49171"));  // a leading part matches
    EXPECT_TRUE(number_matches("+4917155512", ""));        // so does an empty sender
    EXPECT_FALSE(number_matches("+49171", "+4917155512"));
    EXPECT_FALSE(number_matches("004917155512", "+4917155512"));
    EXPECT_FALSE(number_matches("+4917155512", "4917155512"));
}

TEST(BroadcastAuthentication, StatusAndMemberPairs) {
    const std::string list = "YES^|^Ann]|[+4911]|[Ben]|[+49 22]|[^|^";
    EXPECT_EQ(authenticate_sender_bcast_trg(list, "+4911"), 0);
    EXPECT_EQ(authenticate_sender_bcast_trg(list, "+4922"), 0);
    EXPECT_EQ(authenticate_sender_bcast_trg(list, "+4933"), 7);
    EXPECT_EQ(authenticate_sender_bcast_trg(list, "Ben"), 0);  // normalises to "": matches
    EXPECT_EQ(authenticate_sender_bcast_trg("YES^|^Ann]|[+4911]|[Ben]|[+4922]|[^|^", "0"), 7);
    EXPECT_EQ(authenticate_sender_bcast_trg("NO^|^[null]]|[^|^", "+1"), 0);
    EXPECT_EQ(authenticate_sender_bcast_trg("NOPE^|^", "+1"), 0);  // begins with "NO"
    EXPECT_EQ(authenticate_sender_bcast_trg("MAYBE^|^Ann]|[+1]|[^|^", "+1"), 7);
    EXPECT_EQ(authenticate_sender_bcast_trg("YES^|^[null]]|[^|^", "+1"), 7);
    EXPECT_EQ(authenticate_sender_bcast_trg("YES^|^+1]|[^|^", "+1"), 7);  // names are not numbers
    EXPECT_EQ(authenticate_sender_bcast_trg("YES^|^Ann]|[+1", "+1"), 0);
    EXPECT_EQ(authenticate_sender_bcast_trg("", "+1"), 7);
}

TEST_F(ParserTest, CommandCheckAgainstAuthenticatedUsers) {
    write("var/config/trigger_ctrl",
          rec("^|^Add^|^ADDENTRY^|^YES^|^") + rec("^|^Del^|^DELENTRY^|^NO^|^"));
    write("var/config/authenticate_list",
          rec("^|^Ann^|^+49 (171) 555-12^|^") + rec("^|^Zed^|^0049 30^|^"));
    const std::string value = "ADDENTRY^|^YES^|^";
    EXPECT_EQ(authenticate_sender(rt, 3, value, "+4917155512"), 3);
    EXPECT_EQ(authenticate_sender(rt, 3, value, "+49171"), 3);
    EXPECT_EQ(authenticate_sender(rt, 3, value, "+4930"), 7);  // stored with "00"
    EXPECT_EQ(authenticate_sender(rt, 3, value, "004930"), 3);
    EXPECT_EQ(authenticate_sender(rt, 3, "ADDENTRY^|^NO^|^", "+1"), 3);
    EXPECT_EQ(authenticate_sender(rt, 3, "ADDENTRY", "+1"), 3);
    for (int code : {0, 6, 7}) EXPECT_EQ(authenticate_sender(rt, code, value, "+1"), code);

    EXPECT_EQ(parse(sms("+4917155512", "Add:Bob;1")).action, 3);
    EXPECT_EQ(parse(sms("+4930", "Add:Bob;1")).action, 7);
    EXPECT_EQ(parse(sms("+4930", "Del:Bob")).action, 1);

    write("var/config/authenticate_list", "");
    EXPECT_EQ(authenticate_sender(rt, 3, value, "+4917155512"), 7);
    ::unlink((dir / "var/config/authenticate_list").c_str());
    EXPECT_EQ(authenticate_sender(rt, 3, value, "+4917155512"), 3);
}

TEST_F(ParserTest, ApiStatusLines) {
    // The line's own shapes are in the format tables.
    auto p = parse("api /tmp/req-5 606");
    EXPECT_EQ(p.action, 8);
    EXPECT_EQ(p.result, 606);
    EXPECT_EQ(p.api_status, 606);
    EXPECT_EQ(std::get<TextObject>(p.object).text, "/tmp/req-5");
    EXPECT_EQ(parse("api /tmp/req-9").api_status, -1);
    // Api lines write no trace file; SMS do.
    EXPECT_FALSE(test::exists(dir / "var/run/getactionbject"));
}

TEST_F(ParserTest, TraceFileIsRewrittenAndNeverFollowsALink) {
    parse(sms("+4912345", "Add:Bob;1"));
    std::string trace = test::read_file(dir / "var/run/getactionbject");
    EXPECT_EQ(trace.rfind("sender_number - +4912345\nsms_text - Add:Bob;1\ntrig_name - Add\n", 0),
              0u)
        << trace;
    test::write_file(dir / "victim", "keep");
    ::unlink((dir / "var/run/getactionbject").c_str());
    ASSERT_EQ(::symlink((dir / "victim").c_str(), (dir / "var/run/getactionbject").c_str()), 0);
    parse(sms("+4912345", "Del"));
    EXPECT_EQ(test::read_file(dir / "victim"), "keep");
    struct stat st {};
    ASSERT_EQ(::lstat((dir / "var/run/getactionbject").c_str(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
}

TEST_F(ParserTest, HostileInputStaysBounded) {
    write("var/config/trigger_ctrl",
          rec("^|^^|^ADDENTRY^|^NO^|^") + rec("^|^Pre^|^ADDPRECONFSMS^|^NO^|^"));
    std::set<std::string> before = test::tree_below(dir.path());
    before.insert("var/run/getactionbject");
    const std::string fmt = "%s%n%x%p";
    const std::string shell = "$(touch pwned);`id`|rm -rf /&";
    std::vector<std::string> messages;
    for (size_t n : {0u, 1u, 49u, 50u, 51u}) messages.push_back(std::string(n, 'A'));
    for (size_t n : {0u, 1u, 155u, 156u, 300u})
        messages.push_back(sms("+4912345", std::string(n, 'x')));
    for (size_t n : {1u, 155u, 156u, 300u}) {
        messages.push_back(sms("+4912345", std::string(n, ':')));
        messages.push_back(sms("+4912345", std::string(n, ';')));
        messages.push_back(sms("+4912345", "Pre:" + std::string(n, 'p')));
    }
    messages.push_back(std::string(50, '9') + "Pre:x");  // no NUL in the sender
    messages.push_back(std::string(300, '\xff'));
    std::string binary;
    for (int i = 0; i < 256; ++i) binary += static_cast<char>(i);
    messages.push_back(binary);
    messages.push_back(sms(fmt, fmt + ":" + fmt + ";" + fmt));
    messages.push_back(sms(shell, "Pre:" + shell));
    messages.push_back(sms("+4912345", "TRIGGERSMS:" + fmt + ":" + shell));
    messages.push_back("api " + fmt + " " + fmt);
    for (const auto& m : messages) {
        ParsedMessage p = parse(m);
        ASSERT_GE(p.action, 0);
        ASSERT_LE(p.action, 9);
        if (auto* t = std::get_if<TextObject>(&p.object)) {
            if (p.action == kActionAddPreconf) {
                EXPECT_LE(t->text.size(), 160u);
            }
        }
        if (auto* r = std::get_if<BroadcastRecord>(&p.object)) {
            EXPECT_LE(r->sender.size(), 49u);
            EXPECT_LE(r->text.size(), 160u);
        }
        if (auto* e = std::get_if<EntryObject>(&p.object)) {
            EXPECT_LE(e->name.size(), 50u);
            EXPECT_LE(e->number.size(), 52u);
        }
    }
    // ":" alone is the empty trigger word, which the empty keyword names.
    EXPECT_EQ(parse(sms("+4912345", ":")).action, 3);
    EXPECT_EQ(parse(sms("+4912345", std::string(156, ';'))).action, 3);
    auto p = parse(sms("+4912345", "Pre:" + std::string(300, 'p')));
    ASSERT_EQ(p.action, 5);
    // The record carries at most 161 text bytes: 157 remain behind "Pre:".
    EXPECT_EQ(std::get<TextObject>(p.object).text, std::string(157, 'p'));
    p = parse(std::string(50, '9') + "Pre:x");
    EXPECT_EQ(p.action, 5);
    std::set<std::string> after = test::tree_below(dir.path());
    EXPECT_EQ(after, before);
}

}  // namespace
}  // namespace smsgw
