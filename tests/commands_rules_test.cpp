// The rule lists: the byte-exact rewrites.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "commands/rule_lists.h"
#include "support/test_support.h"

using namespace smsgw;
using smsgw::test::rec;
using smsgw::test::TempDir;

namespace {

std::string trigger(const std::string& kw, const std::string& allowed = "[null]]|[",
                    const std::string& groups = "[null]]|[") {
    return rec("^|^" + kw + "^|^hello^|^" + groups + "^|^NO^|^" + allowed + "^|^");
}

class RuleListsTest : public ::testing::Test {
  protected:
    RuleListsTest() : rt(dir.path()), rules(rt) {
        test::write_file(dir / "var/run/.keep", "");
        for (auto f : {"trigger_broadcast", "preconf_sms", "trigger_ctrl", "authenticate_list"})
            test::write_file(dir / (std::string("var/config/") + f), "");
    }
    std::string read(const std::string& p) { return test::read_file(p); }
    void put(const std::string& p, const std::string& c) { test::write_file(p, c); }

    TempDir dir;
    Runtime rt;
    RuleLists rules;
};

}  // namespace

TEST_F(RuleListsTest, BroadcastTriggerAddIsCaseBlindAndByteExact) {
    std::string rest = "Fire^|^Go now^|^Team]|[^|^YES^|^Ann]|[555]|[^|^";
    EXPECT_EQ(rules.add_broadcast_trigger("Fire", rest), "SUCCESS");
    EXPECT_EQ(read(rules.broadcast_path()), rec("^|^" + rest));
    std::string before = read(rules.broadcast_path());
    EXPECT_EQ(rules.add_broadcast_trigger("FIRE", "FIRE^|^x^|^[null]]|[^|^NO^|^[null]]|[^|^"),
              "ERROR:Broadcast Trigger Already Exists.");
    EXPECT_EQ(read(rules.broadcast_path()), before);
    EXPECT_FALSE(test::exists(dir / "var/run/temp_file"));
}

TEST_F(RuleListsTest, HundredthTriggerIsTheLast) {
    std::string content;
    for (int i = 0; i < 100; ++i) content += trigger("k" + std::to_string(i));
    put(rules.broadcast_path(), content);
    EXPECT_EQ(rules.add_broadcast_trigger("new", "new^|^t^|^[null]]|[^|^NO^|^[null]]|[^|^"),
              "SUCCESS");
    EXPECT_EQ(read(rules.broadcast_path()), content);
    EXPECT_EQ(rules.count_records(rules.broadcast_path()), "100");

    put(rules.preconf_path(), "");
    for (int i = 0; i < 101; ++i) rules.add_preconf_sms("m" + std::to_string(i), "[null]]|[");
    EXPECT_EQ(rules.count_records(rules.preconf_path()), "100");
}

TEST_F(RuleListsTest, MissingFileRefusesEveryChange) {
    std::remove(rules.broadcast_path().c_str());
    std::remove(rules.auth_path().c_str());
    EXPECT_EQ(rules.add_broadcast_trigger("a", "a^|^"), "ERROR");
    EXPECT_EQ(rules.delete_broadcast_trigger(1), "ERROR");
    EXPECT_EQ(rules.add_auth_user("a", "1"), "ERROR");
    EXPECT_EQ(rules.count_records(rules.broadcast_path()), "ERROR");
    EXPECT_FALSE(test::exists(rules.broadcast_path()));
}

TEST_F(RuleListsTest, DeleteByIndex) {
    std::string a = trigger("a"), b = trigger("b"), c = trigger("c");
    put(rules.broadcast_path(), a + b + c);
    for (int bad : {0, -1, 4}) {
        EXPECT_EQ(rules.delete_broadcast_trigger(bad), "ERROR") << bad;
        EXPECT_EQ(read(rules.broadcast_path()), a + b + c);
    }
    EXPECT_EQ(rules.delete_broadcast_trigger(2), "SUCCESS");
    EXPECT_EQ(read(rules.broadcast_path()), a + c);

    std::string p1 = rec("^|^one^|^[null]]|[^|^"), p2 = rec("^|^two^|^G]|[^|^");
    put(rules.preconf_path(), p1 + p2);
    EXPECT_EQ(rules.delete_preconf_sms(1), "SUCCESS");
    EXPECT_EQ(read(rules.preconf_path()), p2);
}

TEST_F(RuleListsTest, EditInPlaceRefusesAnotherRecordsKeyword) {
    std::string a = trigger("a"), b = trigger("b");
    put(rules.broadcast_path(), a + b);
    EXPECT_EQ(rules.edit_broadcast_trigger(2, "A", "A^|^x^|^[null]]|[^|^NO^|^[null]]|[^|^"),
              "ERROR:Broadcast Trigger Already Exists.");
    EXPECT_EQ(read(rules.broadcast_path()), a + b);
    // Its own keyword in other letters is fine.
    std::string rest = "B^|^new text^|^[null]]|[^|^YES^|^[null]]|[^|^";
    EXPECT_EQ(rules.edit_broadcast_trigger(2, "B", rest), "SUCCESS");
    EXPECT_EQ(read(rules.broadcast_path()), a + rec("^|^" + rest));

    put(rules.preconf_path(), rec("^|^one^|^[null]]|[^|^") + rec("^|^two^|^[null]]|[^|^"));
    EXPECT_EQ(rules.edit_preconf_sms(1, "TWO", "G]|[^|^"),
              "ERROR:Pre Configured message already exists.");
    EXPECT_EQ(rules.edit_preconf_sms(1, "uno", "G]|[^|^"), "SUCCESS");
    EXPECT_EQ(read(rules.preconf_path()), rec("^|^uno^|^G]|[^|^") + rec("^|^two^|^[null]]|[^|^"));
}

TEST_F(RuleListsTest, ActionTriggerReplacesByCode) {
    std::string content;
    for (auto code : {"ADDENTRY", "ADDGROUP", "ADDPRECONFSMS", "DELENTRY", "DELGROUP"})
        content += rec(std::string("^|^kw") + code + "^|^" + code + "^|^NO^|^");
    put(rules.ctrl_path(), content);
    EXPECT_EQ(rules.set_action_trigger("Delete a Group", "dg", "YES"), "SUCCESS");
    EXPECT_EQ(rules.set_action_trigger("Delete a Group", "dg2", "NO"), "SUCCESS");
    std::string expect;
    for (auto code : {"ADDENTRY", "ADDGROUP", "ADDPRECONFSMS", "DELENTRY"})
        expect += rec(std::string("^|^kw") + code + "^|^" + code + "^|^NO^|^");
    expect += "25^|^dg2^|^DELGROUP^|^NO^|^";
    EXPECT_EQ(read(rules.ctrl_path()), expect);
    // The keyword of another kind is taken.
    EXPECT_EQ(rules.set_action_trigger("Add Number to Address Book", "dg2", "NO"),
              "ERROR:Action Trigger already exists.");
    EXPECT_EQ(read(rules.ctrl_path()), expect);
    // A label outside the table is used as its own code: no record has it.
    EXPECT_EQ(rules.set_action_trigger("NOSUCH", "zz", "NO"), "SUCCESS");
    EXPECT_EQ(read(rules.ctrl_path()), expect);
}

TEST_F(RuleListsTest, AuthenticatedUsersSortedAndLimited) {
    EXPECT_EQ(rules.add_auth_user("bob", "2"), "SUCCESS");
    EXPECT_EQ(rules.add_auth_user("Ann", "9"), "SUCCESS");
    EXPECT_EQ(rules.add_auth_user("ann", "1"), "SUCCESS");
    EXPECT_EQ(rules.add_auth_user("BOB", "2"), "Authenticate user already exists.");
    EXPECT_EQ(read(rules.auth_path()), "13^|^ann^|^1^|^13^|^Ann^|^9^|^13^|^bob^|^2^|^");

    EXPECT_EQ(rules.delete_auth_user("ANN", "9"), "SUCCESS");
    EXPECT_EQ(rules.delete_auth_user("ann", "9"), "ERROR");
    EXPECT_EQ(read(rules.auth_path()), "13^|^ann^|^1^|^13^|^bob^|^2^|^");

    for (int i = 0; i < 18; ++i) EXPECT_EQ(rules.add_auth_user("u", std::to_string(i)), "SUCCESS");
    std::string full = read(rules.auth_path());
    EXPECT_EQ(rules.add_auth_user("zed", "1"), "ERROR:Authenticate users exceeded max limit 20.");
    EXPECT_EQ(read(rules.auth_path()), full);
}

TEST_F(RuleListsTest, MemberUpkeepRewritesAllowedSenders) {
    put(rules.broadcast_path(), trigger("a", "Ann]|[555]|[Bob]|[777]|[") +
                                    trigger("b", "Ann]|[555]|[") + trigger("c", "[null]]|["));
    rules.update_trigger_members("Ann]|[555]|[", "Anna]|[556]|[", 0);
    EXPECT_EQ(read(rules.broadcast_path()), trigger("a", "Anna]|[556]|[Bob]|[777]|[") +
                                                trigger("b", "Anna]|[556]|[") +
                                                trigger("c", "[null]]|["));
    rules.update_trigger_members("Anna]|[556]|[", "[null]]|[", 1);
    EXPECT_EQ(read(rules.broadcast_path()),
              trigger("a", "Bob]|[777]|[") + trigger("b", "[null]]|[") + trigger("c", "[null]]|["));
    EXPECT_TRUE(test::exists(dir / "var/run/test_file"));
}

TEST_F(RuleListsTest, GroupUpkeepTouchesBothFiles) {
    put(rules.broadcast_path(), trigger("a", "[null]]|[", "Team]|[Ops]|[") + trigger("b"));
    put(rules.preconf_path(), rec("^|^m^|^Ops]|[^|^"));
    rules.update_rule_groups("Ops", "Staff", 0);
    EXPECT_EQ(read(rules.broadcast_path()),
              trigger("a", "[null]]|[", "Team]|[Staff]|[") + trigger("b"));
    EXPECT_EQ(read(rules.preconf_path()), rec("^|^m^|^Staff]|[^|^"));
    rules.update_rule_groups("Staff", "", 1);
    EXPECT_EQ(read(rules.broadcast_path()), trigger("a", "[null]]|[", "Team]|[") + trigger("b"));
    EXPECT_EQ(read(rules.preconf_path()), rec("^|^m^|^[null]]|[^|^"));
}

TEST_F(RuleListsTest, PreconfAddLayoutAndAPlantedSymlinkAtTheTemporaryName) {
    std::string victim = dir / "victim";
    put(victim, "keep");
    ASSERT_EQ(::symlink(victim.c_str(), (dir / "var/run/temp_file").c_str()), 0);
    EXPECT_EQ(rules.add_preconf_sms("Hi there", "A]|[B]|["), "SUCCESS");
    EXPECT_EQ(read(victim), "keep");
    EXPECT_EQ(read(rules.preconf_path()), "25^|^Hi there^|^A]|[B]|[^|^");
    EXPECT_EQ(rules.add_preconf_sms("hi THERE", "[null]]|["),
              "ERROR:Pre Configured message already exists.");
}
