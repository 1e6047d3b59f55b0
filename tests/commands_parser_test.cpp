// The command language: every row of the command table with a word missing
// at each position, the listings written to the response file, the rule-list
// upkeep of the phone-book handlers, and hostile input.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "addressbook/address_book.h"
#include "commands/command_parser.h"
#include "commands/intl_dialing.h"
#include "commands/rule_lists.h"
#include "support/test_support.h"

using namespace smsgw;
using smsgw::test::rec;
using smsgw::test::TempDir;

namespace {

const std::string kInvalid = "Invalid String to Parse";
// Stands for the path of the response file in the expectations.
const std::string kRF = "<RESPONSE_FILE>";

std::string ctrl_file() {
    std::string out;
    for (auto code : {"ADDENTRY", "ADDGROUP", "ADDPRECONFSMS", "DELENTRY", "DELGROUP"})
        out += rec(std::string("^|^kw") + code + "^|^" + code + "^|^NO^|^");
    return out;
}

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
        const std::pair<const char*, std::string> files[] = {
            {"/var/config/trigger_broadcast", ""},
            {"/var/config/preconf_sms", ""},
            {"/var/config/authenticate_list", ""},
            {"/var/config/trigger_ctrl", ctrl_file()},
            {"/var/config/international_dialing", "int-dialing=enable\nmax-digits=12\n"},
        };
        // Replaced rather than truncated: cheaper, and nothing old survives.
        for (const auto& f : files) {
            ::unlink(rt.path(f.first).c_str());
            test::write_file(rt.path(f.first), f.second);
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

TEST(CommandTable, EveryRowWithAWordMissingAtEachPosition) {
    const std::string I = kInvalid, E = "ERROR", S = "SUCCESS", RF = kRF;
    const std::string bc = "<broadcast>";
    std::vector<Row> rows = {
        {{"get-sms ", "phone_book ", "1^|^"}, {I, I, I, RF}},
        {{"get-sms ", "phone_book ", "An^|^", "1^|^"}, {I, I, I, RF, RF}},
        {{"get-sms ", "phone_number ", "555^|^"}, {I, I, I, RF}},
        {{"get-sms ", "groups ", "1^|^"}, {I, I, RF, RF}},
        {{"get-sms ", "group ", "Team^|^", "1^|^"}, {I, I, I, RF, RF}},
        {{"get-sms ", "group ", "Team^|^", "k^|^", "1^|^"}, {I, I, I, RF, RF, RF}},
        {{"get-sms ", "total-entries ", "phone_book^|^"}, {I, I, I, "1"}},
        {{"get-sms ", "total-entries ", "groups^|^"}, {I, I, I, "1"}},
        {{"get-sms ", "total-entries ", "trigger^|^", "ctrl_data^|^"}, {I, I, I, I, "5"}},
        {{"get-sms ", "total-entries ", "trigger^|^", "sms^|^"}, {I, I, I, I, "0"}},
        {{"get-sms ", "international-dialing ", "dialing^|^"}, {I, I, E, "checked"}},
        {{"get-sms ", "international-dialing ", "max-digits^|^"}, {I, I, E, "12"}},
        {{"get-sms ", "trigger ", "sms^|^"}, {I, I, I, bc}},
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
    Sandbox box;
    for (const auto& row : rows) {
        ASSERT_EQ(row.replies.size(), row.words.size() + 1) << row.words[0] << row.words[1];
        for (size_t k = 0; k <= row.words.size(); ++k) {
            std::string text;
            for (size_t i = 0; i < k; ++i) text += row.words[i];
            World w(box);
            std::string want = row.replies[k];
            if (want == bc) want = w.rt.path("/var/config/trigger_broadcast");
            EXPECT_EQ(w.run(text), want) << "command: \"" << text << "\"";
        }
    }
}

TEST(CommandTable, UnknownWordsAndOtherKinds) {
    Sandbox box;
    World w(box);
    struct Case {
        const char* text;
        std::string reply;
    } cases[] = {
        {"hello ", "ERROR"},
        {"GET-SMS phone_book 1^|^", "ERROR"},
        {"get-sms phone_book", kInvalid},
        {"get-sms bogus ", "ERROR"},
        {"add-sms bogus ", "ERROR"},
        {"del-sms bogus ", "ERROR"},
        {"edit-sms bogus ", "ERROR"},
        {"set-sms-http bogus ", "ERROR"},
        {"get-sms trigger bogus^|^", "ERROR"},
        {"get-sms total-entries bogus^|^", "ERROR"},
        {"get-sms total-entries trigger^|^bogus^|^", "ERROR"},
        {"get-sms international-dialing bogus^|^", "ERROR"},
        {"add-sms trigger bogus ", "ERROR"},
        {"del-sms trigger ctrl_data ", "ERROR"},
        {"edit-sms trigger bogus ", "ERROR"},
        {"get-sms phone_book Zed^|^1^|^", "ERROR:Search is Unsuccesful."},
        {"get-sms phone_number 999^|^", "ERROR"},
        {"get-sms group Nope^|^1^|^", "SUCCESS"},
        {"get-sms group Nope^|^k^|^1^|^", "SUCCESS"},
        {"add-sms phone_book ann^|^555^|^x^|^", "ERROR:Rejected - Duplicate Entry"},
        {"add-sms group Nope^|^", "ERROR:Search is Insucessfull"},
        {"add-sms group Team^|^Ann^|^999^|^", "ERROR"},
        {"add-sms groups team^|^[null]^|^", "ERROR:Group Already exists with the name"},
        {"del-sms phone_book Zed^|^1^|^", "ERROR:Element Not Found"},
        {"del-sms group Nope^|^", "ERROR:Search is Insucessfull"},
        {"edit-sms groups Nope^|^X^|^", "ERROR:Group Doesnot Exist"},
        {"edit-sms phone_book Zed^|^1^|^Zed^|^1^|^x^|^", "ERROR:Edit Failed"},
        {"edit-sms phone_book Zed^|^1^|^Zed^|^2^|^x^|^", "SUCCESS"},
    };
    for (const auto& c : cases) EXPECT_EQ(w.run(c.text), c.reply) << c.text;
    EXPECT_EQ(w.ab.entry_count(), 1);
    EXPECT_EQ(w.ab.group_count(), 1);
    EXPECT_EQ(w.run("get-sms trigger auth-list^|^"), w.rt.path("/var/config/authenticate_list"));
    EXPECT_EQ(w.run("get-sms trigger ctrl_data^|^"), w.rt.path("/var/config/trigger_ctrl"));
    EXPECT_EQ(w.run("get-sms trigger preconf_sms^|^"), w.rt.path("/var/config/preconf_sms"));
}

TEST(CommandTable, DefaultRootRepliesTheConstantPaths) {
    Runtime rt;
    EXPECT_EQ(rt.path("/var/run/RESPONSE_FILE"), "/var/run/RESPONSE_FILE");
    RuleLists rules(rt);
    EXPECT_EQ(rules.broadcast_path(), "/var/config/trigger_broadcast");
}

TEST(Listings, ResponseFileContentsAndTrailers) {
    Sandbox box;
    World w(box);
    w.ab.ab_insert("Bob", "777", "");
    EXPECT_EQ(w.run("get-sms phone_book 1^|^"), kRF);
    EXPECT_EQ(w.response(), "19^|^Ann^|^555^|^d^|^18^|^Bob^|^777^|^^|^17^|^MAX_ELEMENTS=2");
    EXPECT_EQ(w.run("get-sms phone_book 2^|^"), kRF);
    EXPECT_EQ(w.response(), "18^|^Bob^|^777^|^^|^17^|^MAX_ELEMENTS=2");

    // A later page of a search reports the first page's total.
    EXPECT_EQ(w.run("get-sms phone_book b^|^1^|^"), kRF);
    EXPECT_EQ(w.response(), "18^|^Bob^|^777^|^^|^17^|^MAX_ELEMENTS=1");
    EXPECT_EQ(w.run("get-sms phone_book a^|^5^|^"), kRF);
    EXPECT_EQ(w.response(), "17^|^MAX_ELEMENTS=1");

    EXPECT_EQ(w.run("get-sms phone_number 777^|^"), kRF);
    EXPECT_EQ(w.response(), "Bob^|^777^|^^|^\n");

    w.ab.group_create("Alpha");
    EXPECT_EQ(w.run("get-sms groups ^|^"), kRF);
    EXPECT_EQ(w.response(), "Alpha\nTeam\nMAX_ELEMENTS=2\n");

    EXPECT_EQ(w.run("get-sms group Team^|^1^|^"), kRF);
    EXPECT_EQ(w.response(), "19^|^Ann^|^555^|^d^|^17^|^MAX_ELEMENTS=1");
    EXPECT_EQ(w.run("get-sms group Nope^|^k^|^1^|^"), "SUCCESS");
    EXPECT_EQ(w.response(), "17^|^MAX_ELEMENTS=1");

    // Requests without a listing leave the file empty.
    EXPECT_EQ(w.run("get-sms total-entries phone_book^|^"), "2");
    EXPECT_EQ(w.response(), "");
}

TEST(Listings, PlantedSymlinkAtTheResponseFileIsReplaced) {
    Sandbox box;
    World w(box);
    std::string victim = w.dir / "victim";
    test::write_file(victim, "keep");
    std::string rf = w.rt.path("/var/run/RESPONSE_FILE");
    ASSERT_EQ(::symlink(victim.c_str(), rf.c_str()), 0);
    EXPECT_EQ(w.run("get-sms phone_book 1^|^"), kRF);
    EXPECT_EQ(test::read_file(victim), "keep");
    EXPECT_EQ(w.response(), "19^|^Ann^|^555^|^d^|^17^|^MAX_ELEMENTS=1");

    // A second name for another file is no place to write either.
    ASSERT_EQ(::unlink(rf.c_str()), 0);
    ASSERT_EQ(::link(victim.c_str(), rf.c_str()), 0);
    EXPECT_EQ(w.run("get-sms total-entries groups^|^"), "1");
    EXPECT_EQ(test::read_file(victim), "keep");
    EXPECT_EQ(w.response(), "");
    // A pipe at the name does not block the daemon.
    ASSERT_EQ(::unlink(rf.c_str()), 0);
    ASSERT_EQ(::mkfifo(rf.c_str(), 0600), 0);
    EXPECT_EQ(w.run("get-sms groups 1^|^"), kRF);
    EXPECT_EQ(w.response(), "Team\nMAX_ELEMENTS=1\n");
}

TEST(PhoneBook, AddWithGroupsAndTheLimit) {
    Sandbox box;
    World w(box);
    EXPECT_EQ(w.run("add-sms phone_book Bob^|^777^|^hi^|^Team^|^Nope^|^"),
              "ERROR:Group name doesnot exist");
    EXPECT_EQ(w.ab.entry_count(), 2);
    EXPECT_EQ(w.ab.group_find("Team")->member_count, 2u);

    for (int i = 2; i < AddressBook::MAX_ELEMENTS; ++i)
        w.ab.ab_insert("c" + std::to_string(i), "1", "");
    ASSERT_EQ(w.ab.entry_count(), AddressBook::MAX_ELEMENTS);
    EXPECT_EQ(w.run("add-sms phone_book Zed^|^1^|^^|^"), "Exceeded MAX Limit");
    EXPECT_EQ(w.ab.entry_count(), AddressBook::MAX_ELEMENTS);
    EXPECT_EQ(w.ab.ab_find("Zed"), nullptr);
    // An edit replaces an entry, so it still fits.
    EXPECT_EQ(w.run("edit-sms phone_book Bob^|^777^|^Zed^|^1^|^^|^"), "SUCCESS");
    EXPECT_NE(w.ab.ab_find("Zed"), nullptr);
    EXPECT_EQ(w.ab.ab_find("Bob"), nullptr);
    EXPECT_EQ(w.ab.entry_count(), AddressBook::MAX_ELEMENTS);
}

TEST(PhoneBook, DeletingAContactCleansTheRuleLists) {
    Sandbox box;
    World w(box);
    w.ab.ab_insert("Bob", "777", "");
    w.rules.add_auth_user("Ann", "555");
    w.rules.add_auth_user("Bob", "777");
    std::string rest = "Kw^|^t^|^Team]|[^|^YES^|^Ann]|[555]|[Bob]|[777]|[^|^";
    w.rules.add_broadcast_trigger("Kw", rest);
    EXPECT_EQ(w.run("del-sms phone_book Ann^|^555^|^"), "SUCCESS");
    EXPECT_EQ(w.file("/var/config/authenticate_list"), rec("^|^Bob^|^777^|^"));
    EXPECT_EQ(w.file("/var/config/trigger_broadcast"),
              rec("^|^Kw^|^t^|^Team]|[^|^YES^|^Bob]|[777]|[^|^"));
    EXPECT_EQ(w.ab.group_find("Team")->member_count, 0u);
    EXPECT_EQ(w.run("del-sms trigger auth-list Bob^|^777^|^"), "SUCCESS");
    EXPECT_EQ(w.file("/var/config/authenticate_list"), "");
    EXPECT_EQ(w.file("/var/config/trigger_broadcast"),
              rec("^|^Kw^|^t^|^Team]|[^|^YES^|^[null]]|[^|^"));
}

TEST(PhoneBook, EditingAContactCarriesItsPlaces) {
    Sandbox box;
    World w(box);
    w.rules.add_auth_user("Ann", "555");
    w.rules.add_broadcast_trigger("Kw", "Kw^|^t^|^Team]|[^|^YES^|^Ann]|[555]|[^|^");
    EXPECT_EQ(w.run("edit-sms phone_book Ann^|^555^|^Anna^|^556^|^new^|^"), "SUCCESS");
    EXPECT_EQ(w.ab.ab_find("Ann"), nullptr);
    TrieNode* n = w.ab.ab_find("Anna");
    ASSERT_NE(n, nullptr);
    EXPECT_EQ(n->entries->number, "556");
    EXPECT_EQ(n->entries->description, "new");
    EXPECT_EQ(w.ab.entry_count(), 1);
    Group* team = w.ab.group_find("Team");
    ASSERT_EQ(team->member_count, 1u);
    EXPECT_EQ(team->members->member_entry, n->entries.get());
    EXPECT_EQ(w.file("/var/config/authenticate_list"), rec("^|^Anna^|^556^|^"));
    EXPECT_EQ(w.file("/var/config/trigger_broadcast"),
              rec("^|^Kw^|^t^|^Team]|[^|^YES^|^Anna]|[556]|[^|^"));

    // Same name and number: only the description changes.
    EXPECT_EQ(w.run("edit-sms phone_book Anna^|^556^|^Anna^|^556^|^again^|^"), "SUCCESS");
    EXPECT_EQ(w.ab.ab_find("Anna")->entries->description, "again");
    // A clash with an existing entry is answered SUCCESS, changes nothing.
    w.ab.ab_insert("Bob", "777", "");
    EXPECT_EQ(w.run("edit-sms phone_book Anna^|^556^|^bob^|^777^|^x^|^"), "SUCCESS");
    EXPECT_EQ(w.rt.reply_buffer.str(), "ERROR:Edit Failed");
    EXPECT_NE(w.ab.ab_find("Anna"), nullptr);
    EXPECT_EQ(w.ab.entry_count(), 2);
}

TEST(PhoneBook, GroupsCreateFillRenameDelete) {
    Sandbox box;
    World w(box);
    w.ab.ab_insert("Bob", "777", "");
    EXPECT_EQ(w.run("add-sms groups Crew^|^Bob^|^777^|^Zed^|^1^|^Ann^|^555^|^[null]^|^"),
              "SUCCESS");
    Group* crew = w.ab.group_find("Crew");
    ASSERT_NE(crew, nullptr);
    EXPECT_EQ(crew->member_count, 2u);
    // No terminator: the group stays, the reply is the buffer.
    EXPECT_EQ(w.run("add-sms groups Half^|^"), kInvalid);
    EXPECT_NE(w.ab.group_find("Half"), nullptr);

    w.rules.add_broadcast_trigger("Kw", "Kw^|^t^|^Crew]|[Team]|[^|^NO^|^[null]]|[^|^");
    w.rules.add_preconf_sms("msg", "Crew]|[");
    EXPECT_EQ(w.run("edit-sms groups Crew^|^Staff^|^"), kInvalid);
    EXPECT_EQ(w.ab.group_find("Crew"), nullptr);
    Group* staff = w.ab.group_find("Staff");
    ASSERT_NE(staff, nullptr);
    EXPECT_EQ(staff->member_count, 2u);
    EXPECT_EQ(w.ab.group_count(), 3);
    EXPECT_EQ(w.file("/var/config/trigger_broadcast"),
              rec("^|^Kw^|^t^|^Staff]|[Team]|[^|^NO^|^[null]]|[^|^"));
    EXPECT_EQ(w.file("/var/config/preconf_sms"), rec("^|^msg^|^Staff]|[^|^"));

    EXPECT_EQ(w.run("del-sms group Staff^|^Bob^|^777^|^"), "SUCCESS");
    EXPECT_EQ(staff->member_count, 1u);
    EXPECT_EQ(w.run("del-sms groups Staff^|^Half^|^"), "ERROR");
    EXPECT_EQ(w.ab.group_count(), 1);
    EXPECT_EQ(w.file("/var/config/trigger_broadcast"),
              rec("^|^Kw^|^t^|^Team]|[^|^NO^|^[null]]|[^|^"));
    EXPECT_EQ(w.file("/var/config/preconf_sms"), rec("^|^msg^|^[null]]|[^|^"));
}

TEST(PhoneBook, SaveWritesBothFiles) {
    Sandbox box;
    World w(box);
    w.ab.ab_insert("Bob", "777", "");
    EXPECT_EQ(w.run("save-address-book ^|^"), "SUCCESS");
    EXPECT_EQ(w.file("/var/AddressBook/Address_Book"),
              "Ann^|^555^|^d^|^1,^|^\nBob^|^777^|^^|^^|^\n");
    EXPECT_EQ(w.file("/var/AddressBook/groups"), "Team\n");
}

TEST(HostileInput, MissingEmptyOverlongAndBinaryFields) {
    const std::vector<std::string> templates = {"get-sms phone_book @^|^@^|^",
                                                "get-sms phone_number @^|^",
                                                "get-sms groups @^|^",
                                                "get-sms group @^|^@^|^@^|^",
                                                "get-sms total-entries @^|^@^|^",
                                                "get-sms international-dialing @^|^",
                                                "get-sms trigger @^|^",
                                                "add-sms phone_book @^|^@^|^@^|^@^|^",
                                                "add-sms groups @^|^@^|^@^|^[null]^|^",
                                                "add-sms group Team^|^@^|^@^|^",
                                                "add-sms trigger sms @^|^@^|^@^|^@^|^@^|^",
                                                "add-sms trigger preconf_sms @^|^@^|^",
                                                "add-sms trigger auth-list @^|^@^|^",
                                                "add-sms international-dialing max-digits^|^@^|^",
                                                "add-sms international-dialing dialing^|^@^|^",
                                                "add-sms modem @ @ ",
                                                "del-sms phone_book @^|^@^|^",
                                                "del-sms group @^|^@^|^@^|^",
                                                "del-sms groups @^|^",
                                                "del-sms trigger sms @^|^",
                                                "del-sms trigger auth-list @^|^@^|^",
                                                "edit-sms phone_book @^|^@^|^@^|^@^|^@^|^",
                                                "edit-sms phone_book Ann^|^555^|^@^|^@^|^@^|^",
                                                "edit-sms groups @^|^@^|^",
                                                "edit-sms groups Team^|^@^|^",
                                                "edit-sms trigger sms @^|^@^|^@^|^",
                                                "edit-sms trigger ctrl_data @^|^@^|^@^|^",
                                                "edit-sms trigger preconf_sms @^|^@^|^@^|^",
                                                "set-sms-http set-sms-timer @ ",
                                                "set-sms-http set-sms-status @ "};
    std::string binary;
    for (int c = 1; c < 256; ++c)
        if (c != ' ' && c != '^') binary += static_cast<char>(c);
    const std::vector<std::string> fills = {"",   std::string(10000, 'A'), binary,
                                            "^|", "-99999999999",          std::string("a\0b", 3)};
    // clang-format off
    const std::set<std::string> allowed = {
        "var/run/RESPONSE_FILE", "var/run/test_file", "var/config/trigger_broadcast",
        "var/config/preconf_sms", "var/config/trigger_ctrl", "var/config/authenticate_list",
        "var/config/international_dialing", "var/config/http_server_conf", "var/config/modem_conf",
        "var/config/api_stat.st", "bin/txrx", "bin/msntp", "bin/http-client", "bin/date",
        "sbin/create_address_book_tar", "calls.log"};
    // clang-format on
    Sandbox box;
    World w(box);
    for (const auto& tpl : templates) {
        for (const auto& fill : fills) {
            std::string text;
            for (char c : tpl) text += c == '@' ? fill : std::string(1, c);
            std::string reply = w.run(text);
            EXPECT_LT(reply.size(), 256u) << tpl;
            // Cut short behind every separator and inside the last word.
            for (size_t cut = 1; cut < text.size(); ++cut) {
                bool boundary = text[cut - 1] == ' ' || text.compare(cut - 1, 1, "^") == 0;
                if (boundary || cut + 1 == text.size()) {
                    EXPECT_LT(w.run(text.substr(0, cut)).size(), 256u) << text.substr(0, 40);
                }
            }
        }
    }
    for (const auto& f : test::tree_below(w.dir.path(), false))
        EXPECT_TRUE(allowed.count(f)) << "unexpected file " << f;
    EXPECT_LE(w.ab.entry_count(), AddressBook::MAX_ELEMENTS);
}
