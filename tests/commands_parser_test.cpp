// The command language: every row of the command table with a word missing
// at each position, the listings written to the response file, the rule-list
// upkeep of the phone-book handlers, and hostile input.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "addressbook/address_book.h"
#include "commands/command_parser.h"
#include "commands/intl_dialing.h"
#include "commands/rule_lists.h"
#include "support/test_support.h"
#include "support/trie_shape.h"

using namespace smsgw;
using smsgw::test::rec;
using smsgw::test::TempDir;
using V = std::vector<std::string>;

namespace {

const std::string kInvalid = "Invalid String to Parse";
// Stands for the path of the response file in the expectations.
const std::string kRF = "<RESPONSE_FILE>";

// A temporary root prepared once; a World resets its files.
struct Sandbox {
    Sandbox() {
        test::prepare_root(dir.path());
        // Programs the commands start write their traces under the root.
        ::setenv("SMSGW_ROOT", dir.path().c_str(), 1);
    }
    TempDir dir;
};

// A fresh daemon context: the contact Ann 555 "d" in the group Team, empty
// rule lists but for the action triggers, dialing enabled with 12 digits,
// no settings files. The shared-memory word is not attached.
struct World {
    explicit World(const Sandbox& box)
        : dir(box.dir), rt(dir.path(), test::random_port_offset()), ab(rt.reply_buffer), rules(rt) {
        // Replaced rather than truncated: cheaper, and nothing old survives.
        std::string ctrl;
        for (auto code : {"ADDENTRY", "ADDGROUP", "ADDPRECONFSMS", "DELENTRY", "DELGROUP"})
            ctrl += rec(std::string("^|^kw") + code + "^|^" + code + "^|^NO^|^");
        const std::pair<const char*, std::string> files[] = {
            {"trigger_ctrl", ctrl},
            {"international_dialing", "int-dialing=enable\nmax-digits=12\n"},
            {"trigger_broadcast", ""},
            {"preconf_sms", ""},
            {"authenticate_list", ""}};
        for (const auto& [name, bytes] : files) {
            ::unlink(rt.path(std::string("/var/config/") + name).c_str());
            test::write_file(rt.path(std::string("/var/config/") + name), bytes);
        }
        for (auto gone :
             {"/var/config/http_server_conf", "/var/config/modem_conf", "/var/run/RESPONSE_FILE",
              "/var/run/test_file", "/var/AddressBook/Address_Book", "/var/AddressBook/groups"})
            ::unlink(rt.path(gone).c_str());
        TrieNode* n = ab.ab_insert("Ann", "555", "d");
        Group* g = ab.group_create("Team");
        ab.group_add_member_to(g, AddressBook::ab_find_number(n->entries.get(), "555"));
        parser = std::make_unique<CommandParser>(rt, ab, rules, dialing, link);
    }
    std::string run(const std::string& text) {
        std::string reply = parser->parse_command(text);
        parser->release_token();
        return reply == rt.path("/var/run/RESPONSE_FILE") ? kRF : reply;
    }
    std::string response() { return test::read_file(rt.path("/var/run/RESPONSE_FILE")); }
    std::string file(const std::string& p) { return test::read_file(rt.path(p)); }

    const TempDir& dir;
    Runtime rt;
    AddressBook ab;
    RuleLists rules;
    DialingSegment dialing;
    TxrxLink link{rt.ports};
    std::unique_ptr<CommandParser> parser;
};

struct Row {
    std::vector<std::string> words;  // each with its separator
    // replies[k]: the reply when only the first k words are sent
    std::vector<std::string> replies;
};

}  // namespace

// Every command of the table with words that work on a World, and the
// reply when only the first k words are sent.
const std::string I = kInvalid, E = "ERROR", S = "SUCCESS", RF = kRF, BC = "<broadcast>";
const std::vector<Row> kRows = {
    {{"get-sms ", "phone_book ", "1^|^"}, {I, I, I, RF}},
    {{"get-sms ", "phone_book ", "An^|^", "1^|^"}, {I, I, I, RF, RF}},
    {{"get-sms ", "phone_number ", "555^|^"}, {I, I, I, RF}},
    {{"get-sms ", "groups ", "1^|^"}, {I, I, RF, RF}},
    {{"get-sms ", "group ", "Team^|^", "1^|^"}, {I, I, I, RF, RF}},
    {{"get-sms ", "group ", "Team^|^", "k^|^", "1^|^"}, {I, I, I, RF, RF, RF}},
    {{"get-sms ", "total-entries ", "phone_book^|^"}, {I, I, I, "1"}},
    {{"get-sms ", "total-entries ", "groups^|^"}, {I, I, I, "1"}},
    {{"get-sms ", "total-entries ", "trigger^|^", "ctrl_data^|^"}, {I, I, I, I, "5"}},
    {{"get-sms ", "international-dialing ", "dialing^|^"}, {I, I, E, "checked"}},
    {{"get-sms ", "trigger ", "sms^|^"}, {I, I, I, BC}},
    {{"add-sms ", "phone_book ", "Bob^|^", "777^|^", "x^|^", "Team^|^"}, {I, I, I, I, I, S, S}},
    {{"add-sms ", "groups ", "New^|^", "Ann^|^", "555^|^", "[null]^|^"}, {I, I, I, I, I, S, S}},
    {{"add-sms ", "group ", "Team^|^", "Ann^|^", "555^|^"},
     {I, I, I, S, S, "ERROR:Contact is already in  the group"}},
    {{"add-sms ", "trigger ", "sms ", "Kw^|^", "t^|^[null]]|[^|^NO^|^[null]]|[^|^"},
     {I, I, I, I, S, S}},
    {{"add-sms ", "trigger ", "ctrl_data ", "a^|^", "b^|^"}, {I, I, I, E, E, E}},
    {{"add-sms ", "trigger ", "preconf_sms ", "Hi^|^", "[null]]|[^|^"}, {I, I, I, E, E, S}},
    {{"add-sms ", "trigger ", "auth-list ", "Ann^|^", "555^|^"}, {I, I, I, S, S, S}},
    {{"add-sms ", "international-dialing ", "max-digits^|^", "9^|^"}, {I, I, E, E, S}},
    {{"add-sms ", "modem ", "x ", "AT+CSQ "}, {I, I, E, E, S}},
    {{"del-sms ", "phone_book ", "Ann^|^", "555^|^"}, {I, I, S, S, S}},
    {{"del-sms ", "group ", "Team^|^", "Ann^|^", "555^|^"}, {I, I, E, S, S, S}},
    {{"del-sms ", "groups ", "Team^|^"}, {I, I, E, E}},
    {{"del-sms ", "trigger ", "sms ", "1^|^"}, {I, I, I, "", E}},
    {{"del-sms ", "trigger ", "preconf_sms ", "1^|^"}, {I, I, I, "", E}},
    {{"del-sms ", "trigger ", "auth-list ", "Ann^|^", "555^|^"}, {I, I, I, S, S, S}},
    {{"edit-sms ", "phone_book ", "Ann^|^", "555^|^", "Ann^|^", "556^|^", "d^|^"},
     {I, E, "", "", E, E, E, S}},
    {{"edit-sms ", "groups ", "Team^|^", "Crew^|^"}, {I, E, E, "", I}},
    {{"edit-sms ", "trigger ", "sms ", "1^|^", "Kw^|^"}, {I, E, I, I, I, S}},
    {{"edit-sms ", "trigger ", "ctrl_data ", "Delete a Group^|^", "dg^|^", "NO^|^"},
     {I, E, I, E, E, E, S}},
    {{"edit-sms ", "trigger ", "preconf_sms ", "1^|^", "Hi^|^", "[null]]|[^|^"},
     {I, E, I, I, I, S, S}},
    {{"save-address-book "}, {I, S}},
    {{"sms-modem-reset "}, {I, S}},
    {{"set-sms-http ", "set-sms-timer ", "30 "}, {I, I, S, S}},
    {{"set-sms-http ", "set-sms-status ", "disable "}, {I, I, I, S}},
};

TEST(CommandTable, EveryRowWithAWordMissingAtEachPosition) {
    Sandbox box;
    for (const auto& row : kRows) {
        ASSERT_EQ(row.replies.size(), row.words.size() + 1) << row.words[0] << row.words[1];
        for (size_t k = 0; k <= row.words.size(); ++k) {
            std::string text;
            for (size_t i = 0; i < k; ++i) text += row.words[i];
            World w(box);
            std::string want = row.replies[k];
            if (want == BC) want = w.rt.path("/var/config/trigger_broadcast");
            EXPECT_EQ(w.run(text), want) << "command: \"" << text << "\"";
        }
    }
}

TEST(CommandTable, UnknownWordsAndRefusals) {
    Sandbox box;
    World w(box);
    for (const char* prefix : {"", "get-sms ", "add-sms ", "del-sms ", "edit-sms ", "set-sms-http ",
                               "add-sms trigger ", "edit-sms trigger ", "del-sms trigger "})
        EXPECT_EQ(w.run(std::string(prefix) + "bogus "), "ERROR") << prefix;
    const std::pair<const char*, std::string> cases[] = {
        {"GET-SMS phone_book 1^|^", "ERROR"},
        {"get-sms trigger bogus^|^", "ERROR"},
        {"get-sms total-entries bogus^|^", "ERROR"},
        {"get-sms total-entries trigger^|^bogus^|^", "ERROR"},
        {"get-sms international-dialing bogus^|^", "ERROR"},
        {"del-sms trigger ctrl_data ", "ERROR"},
        {"add-sms group Nope^|^", "ERROR:Search is Insucessfull"},
        {"add-sms group Team^|^Ann^|^999^|^", "ERROR"},
        {"add-sms group Team^|^Zed^|^1^|^Ann^|^555^|^", "ERROR:Contact is already in  the group"},
        {"add-sms groups team^|^[null]^|^", "ERROR:Group Already exists with the name"},
        {"del-sms phone_book Zed^|^1^|^", "ERROR:Element Not Found"},
        {"del-sms group Nope^|^", "ERROR:Search is Insucessfull"},
        {"edit-sms phone_book Zed^|^1^|^Zed^|^1^|^x^|^", "ERROR:Edit Failed"},
        {"edit-sms phone_book Zed^|^1^|^Zed^|^2^|^x^|^", "SUCCESS"},
        {"get-sms trigger auth-list^|^", w.rt.path("/var/config/authenticate_list")},
        {"get-sms trigger ctrl_data^|^", w.rt.path("/var/config/trigger_ctrl")},
        {"get-sms trigger preconf_sms^|^", w.rt.path("/var/config/preconf_sms")},
    };
    for (const auto& [text, reply] : cases) EXPECT_EQ(w.run(text), reply) << text;
    EXPECT_EQ(test::book_entries(w.ab), V{"Ann|555|d"});
    EXPECT_EQ(w.ab.group_count(), 1);
}

TEST(Listings, ResponseFilesByteForByte) {
    Sandbox box;
    World w(box);
    w.ab.ab_insert("Bob", "777", "");
    auto groups = [](int from, int to) {  // "gNN\n" lines; Team sorts after g11
        std::string out;
        for (int i = from; i <= to; ++i)
            out += i == 12 ? "Team\n" : (i < 10 ? "g0" : "g") + std::to_string(i) + "\n";
        return out;
    };
    for (int i = 1; i <= 11; ++i) w.ab.group_create(groups(i, i).substr(0, 3));
    const std::string ann = "19^|^Ann^|^555^|^d^|^", bob = "18^|^Bob^|^777^|^^|^";
    struct Case {
        const char* command;
        std::string reply, file;
    } cases[] = {
        {"get-sms phone_book 0^|^", kRF, ann + bob + "17^|^MAX_ELEMENTS=2"},
        {"get-sms phone_book b^|^1^|^", kRF, bob + "17^|^MAX_ELEMENTS=1"},
        {"get-sms phone_book a^|^5^|^", kRF, "17^|^MAX_ELEMENTS=1"},  // the first page's total
        {"get-sms phone_number 77^|^", "ERROR", ""},
        {"get-sms groups ^|^", kRF, groups(1, 10) + "MAX_ELEMENTS=12\n"},
        {"get-sms groups 10^|^", kRF, groups(10, 12) + "MAX_ELEMENTS=12\n"},
        {"get-sms group Team^|^k^|^1^|^", kRF, ann + "17^|^MAX_ELEMENTS=0"},
        {"get-sms group Nope^|^k^|^1^|^", "SUCCESS", "17^|^MAX_ELEMENTS=1"},
        {"get-sms group Nope^|^1^|^", "SUCCESS", "17^|^MAX_ELEMENTS=0"},
        {"get-sms total-entries phone_book^|^", "2", ""},  // no listing: an empty file
    };
    for (const auto& c : cases) {
        EXPECT_EQ(w.run(c.command), c.reply) << c.command;
        EXPECT_EQ(w.response(), c.file) << c.command;
    }
    ::rename(w.rt.path("/var/AddressBook").c_str(), w.rt.path("/var/gone").c_str());
    EXPECT_EQ(w.run("save-address-book ^|^"), "ERROR");
}

// (A planted symbolic link is the security tests' business.)
TEST(Listings, AResponseFileNameHeldByAnotherFileOrAPipeIsReplaced) {
    Sandbox box;
    World w(box);
    std::string victim = w.dir / "victim", rf = w.rt.path("/var/run/RESPONSE_FILE");
    test::write_file(victim, "keep");
    ASSERT_EQ(::link(victim.c_str(), rf.c_str()), 0);
    EXPECT_EQ(w.run("get-sms total-entries groups^|^"), "1");
    EXPECT_EQ(test::read_file(victim), "keep");
    EXPECT_EQ(w.response(), "");
    ASSERT_EQ(::unlink(rf.c_str()), 0);
    ASSERT_EQ(::mkfifo(rf.c_str(), 0600), 0);  // it must not block the daemon
    EXPECT_EQ(w.run("get-sms groups 1^|^"), kRF);
    EXPECT_EQ(w.response(), "Team\nMAX_ELEMENTS=1\n");
}

TEST(PhoneBook, ChangesKeepGroupsAndRuleListsInStep) {
    Sandbox box;
    World w(box);
    w.ab.ab_insert("Bob", "777", "");
    w.rules.add_auth_user("Ann", "555");
    w.rules.add_auth_user("Bob", "777");
    w.rules.add_broadcast_trigger("Kw",
                                  "Kw^|^t^|^Crew]|[Team]|[^|^YES^|^Ann]|[555]|[Bob]|[777]|[^|^");
    w.rules.add_preconf_sms("msg", "Crew]|[");
    auto trigger = [](const char* groups, const char* allowed) {
        return rec(std::string("^|^Kw^|^t^|^") + groups + "^|^YES^|^" + allowed + "^|^");
    };
    // A new name and number: the entry takes over groups and rule lists.
    EXPECT_EQ(w.run("edit-sms phone_book Ann^|^555^|^Anna^|^556^|^new^|^"), "SUCCESS");
    EXPECT_EQ(test::book_entries(w.ab), (V{"Anna|556|new", "Bob|777|"}));
    EXPECT_EQ(test::members(w.ab.group_find("Team")), V{"Anna/556"});
    EXPECT_EQ(w.file("/var/config/authenticate_list"),
              rec("^|^Anna^|^556^|^") + rec("^|^Bob^|^777^|^"));
    EXPECT_EQ(w.file("/var/config/trigger_broadcast"),
              trigger("Crew]|[Team]|[", "Anna]|[556]|[Bob]|[777]|["));
    // A clash: nothing.
    EXPECT_EQ(w.run("edit-sms phone_book Anna^|^556^|^bob^|^777^|^x^|^"), "SUCCESS");
    EXPECT_EQ(w.rt.reply_buffer.str(), "ERROR:Edit Failed");
    EXPECT_EQ(test::book_entries(w.ab), (V{"Anna|556|new", "Bob|777|"}));

    EXPECT_EQ(w.run("add-sms groups Crew^|^Bob^|^777^|^Zed^|^1^|^Anna^|^556^|^[null]^|^"),
              "SUCCESS");
    EXPECT_EQ(test::members(w.ab.group_find("Crew")), (V{"Anna/556", "Bob/777"}));
    EXPECT_EQ(w.run("add-sms groups Half^|^"), kInvalid);  // no terminator: it stays
    EXPECT_EQ(w.run("edit-sms groups Crew^|^Staff^|^"), kInvalid);
    EXPECT_EQ(w.ab.group_find("Crew"), nullptr);
    EXPECT_EQ(w.ab.group_find("Staff")->member_count, 2u);
    EXPECT_EQ(w.file("/var/config/preconf_sms"), rec("^|^msg^|^Staff]|[^|^"));
    EXPECT_EQ(w.run("del-sms group Staff^|^Bob^|^777^|^"), "SUCCESS");
    EXPECT_EQ(test::members(w.ab.group_find("Staff")), V{"Anna/556"});
    EXPECT_EQ(w.run("del-sms groups Staff^|^Half^|^"), "ERROR");
    EXPECT_EQ(w.ab.group_count(), 1);
    EXPECT_EQ(w.file("/var/config/preconf_sms"), rec("^|^msg^|^[null]]|[^|^"));

    EXPECT_EQ(w.run("del-sms phone_book Anna^|^556^|^"), "SUCCESS");
    EXPECT_EQ(w.file("/var/config/trigger_broadcast"), trigger("Team]|[", "Bob]|[777]|["));
    EXPECT_EQ(w.file("/var/config/authenticate_list"), rec("^|^Bob^|^777^|^"));
    EXPECT_EQ(w.run("add-sms phone_book Cy^|^1^|^d^|^Team^|^Nope^|^"),
              "ERROR:Group name doesnot exist");
    EXPECT_EQ(test::members(w.ab.group_find("Team")), V{"Cy/1"});
}
