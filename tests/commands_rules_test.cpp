// The rule lists: every change byte for byte, the refusals that leave a
// list as it was, and rewrites that cannot be written.
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "commands/rule_lists.h"
#include "support/full_device.h"
#include "support/test_support.h"

using namespace smsgw;
using smsgw::test::rec;

namespace {

const std::string kNull = "[null]]|[";

std::string trigger(const std::string& kw, const std::string& allowed = kNull,
                    const std::string& groups = kNull) {
    return rec("^|^" + kw + "^|^hello^|^" + groups + "^|^NO^|^" + allowed + "^|^");
}
std::string ctrl(const std::string& kw, const std::string& code, const char* auth = "NO") {
    return rec("^|^" + kw + "^|^" + code + "^|^" + auth + "^|^");
}

struct RuleListsTest : ::testing::Test {
    test::TempDir dir;
    Runtime rt{dir.path()};
    RuleLists rules{rt};
    std::string broadcast = rules.broadcast_path(), preconf = rules.preconf_path();
    std::string ctrl_list = rules.ctrl_path(), auth = rules.auth_path();

    RuleListsTest() {
        test::write_file(dir / "var/run/.keep", "");
        for (const auto& p : {broadcast, preconf, ctrl_list, auth}) test::write_file(p, "");
    }
    ~RuleListsTest() override { EXPECT_FALSE(test::exists(dir / "var/run/temp_file")); }
    std::string read(const std::string& p) { return test::read_file(p); }
};

}  // namespace

TEST_F(RuleListsTest, TriggersAndMessagesAreAddedEditedAndDeletedInPlace) {
    std::string rest = "Fire^|^Go now^|^Team]|[^|^YES^|^Ann]|[555]|[^|^";
    EXPECT_EQ(rules.add_broadcast_trigger("Fire", rest), "SUCCESS");
    EXPECT_EQ(rules.add_broadcast_trigger("b", "b^|^x^|^"), "SUCCESS");
    EXPECT_EQ(read(broadcast), rec("^|^" + rest) + rec("^|^b^|^x^|^"));
    EXPECT_EQ(rules.add_broadcast_trigger("FIRE", "FIRE^|^"),
              "ERROR:Broadcast Trigger Already Exists.");
    EXPECT_EQ(rules.edit_broadcast_trigger(2, "fire", "fire^|^"),
              "ERROR:Broadcast Trigger Already Exists.");
    EXPECT_EQ(rules.edit_broadcast_trigger(2, "B", "B^|^y^|^"), "SUCCESS");  // its own keyword
    EXPECT_EQ(read(broadcast), rec("^|^" + rest) + rec("^|^B^|^y^|^"));
    for (int bad : {0, -1, 3}) EXPECT_EQ(rules.delete_broadcast_trigger(bad), "ERROR") << bad;
    EXPECT_EQ(rules.delete_broadcast_trigger(1), "SUCCESS");
    EXPECT_EQ(read(broadcast), rec("^|^B^|^y^|^"));

    EXPECT_EQ(rules.add_preconf_sms("Hi there", "A]|[B]|["), "SUCCESS");
    EXPECT_EQ(rules.add_preconf_sms("two", kNull), "SUCCESS");
    EXPECT_EQ(read(preconf), "25^|^Hi there^|^A]|[B]|[^|^" + rec("^|^two^|^" + kNull + "^|^"));
    EXPECT_EQ(rules.add_preconf_sms("hi THERE", kNull),
              "ERROR:Pre Configured message already exists.");
    EXPECT_EQ(rules.edit_preconf_sms(1, "TWO", "G]|[^|^"),
              "ERROR:Pre Configured message already exists.");
    EXPECT_EQ(rules.edit_preconf_sms(1, "uno", "G]|[^|^"), "SUCCESS");
    EXPECT_EQ(rules.delete_preconf_sms(2), "SUCCESS");
    EXPECT_EQ(read(preconf), rec("^|^uno^|^G]|[^|^"));
}

TEST_F(RuleListsTest, AHundredTriggersOrMessagesAreTheLimit) {
    std::string content;
    for (int i = 0; i < 100; ++i) content += trigger("k" + std::to_string(i));
    test::write_file(broadcast, content);
    // The hundred-and-first is dropped without a word.
    EXPECT_EQ(rules.add_broadcast_trigger("new", "new^|^t^|^"), "SUCCESS");
    EXPECT_EQ(read(broadcast), content);
    for (int i = 0; i < 101; ++i) rules.add_preconf_sms("m" + std::to_string(i), kNull);
    EXPECT_EQ(rules.count_records(preconf), "100");
    EXPECT_EQ(rules.add_preconf_sms("m0", kNull), "ERROR:Pre Configured message already exists.");
}

TEST_F(RuleListsTest, ActionTriggersAreReplacedByTheirCode) {
    std::string content;
    for (auto code : {"ADDENTRY", "ADDGROUP", "ADDPRECONFSMS", "DELENTRY", "DELGROUP"})
        content += ctrl(std::string("kw") + code, code);
    test::write_file(ctrl_list, content);
    EXPECT_EQ(rules.set_action_trigger("Delete a Group", "dg", "YES"), "SUCCESS");
    EXPECT_EQ(rules.set_action_trigger("Delete a Group", "dg2", "NO"), "SUCCESS");
    EXPECT_EQ(rules.set_action_trigger("Add Number to Address Book", "ae", "YES"), "SUCCESS");
    std::string kept = ctrl("kwADDGROUP", "ADDGROUP") + ctrl("kwADDPRECONFSMS", "ADDPRECONFSMS") +
                       ctrl("kwDELENTRY", "DELENTRY");
    EXPECT_EQ(read(ctrl_list),
              ctrl("ae", "ADDENTRY", "YES") + kept + "25^|^dg2^|^DELGROUP^|^NO^|^");
    EXPECT_EQ(rules.set_action_trigger("Delete Number from Address Book", "dg2", "NO"),
              "ERROR:Action Trigger already exists.");
    // Keywords compare exactly here.
    EXPECT_EQ(rules.set_action_trigger("Delete a Group", "AE", "NO"), "SUCCESS");
    std::string expect = ctrl("ae", "ADDENTRY", "YES") + kept + "24^|^AE^|^DELGROUP^|^NO^|^";
    EXPECT_EQ(read(ctrl_list), expect);
    // A label outside the table is its own code, which no record has.
    EXPECT_EQ(rules.set_action_trigger("NOSUCH", "zz", "NO"), "SUCCESS");
    EXPECT_EQ(read(ctrl_list), expect);
}

TEST_F(RuleListsTest, AuthenticatedUsersAreSortedAndLimitedToTwenty) {
    EXPECT_EQ(rules.add_auth_user("bob", "2"), "SUCCESS");
    EXPECT_EQ(rules.add_auth_user("Ann", "9"), "SUCCESS");
    EXPECT_EQ(rules.add_auth_user("ann", "1"), "SUCCESS");
    EXPECT_EQ(rules.add_auth_user("ann", "10"), "SUCCESS");
    EXPECT_EQ(rules.add_auth_user("BOB", "2"), "Authenticate user already exists.");
    EXPECT_EQ(read(auth), "13^|^ann^|^1^|^14^|^ann^|^10^|^13^|^Ann^|^9^|^13^|^bob^|^2^|^");
    EXPECT_EQ(rules.delete_auth_user("ANN", "9"), "SUCCESS");
    EXPECT_EQ(rules.delete_auth_user("ann", "9"), "ERROR");
    EXPECT_EQ(read(auth), "13^|^ann^|^1^|^14^|^ann^|^10^|^13^|^bob^|^2^|^");
    for (int i = 0; i < 17; ++i) EXPECT_EQ(rules.add_auth_user("u", std::to_string(i)), "SUCCESS");
    EXPECT_EQ(rules.add_auth_user("zed", "1"), "ERROR:Authenticate users exceeded max limit 20.");
    EXPECT_EQ(rules.count_records(auth), "20");
}

TEST_F(RuleListsTest, AddressBookUpkeepRewritesMembersAndGroups) {
    test::write_file(broadcast, trigger("a", "Ann]|[555]|[Bob]|[777]|[", "Team]|[Ops]|[") +
                                    trigger("b", "Ann]|[555]|[Ann]|[") + trigger("c"));
    test::write_file(preconf, rec("^|^m^|^Ops]|[^|^"));
    rules.update_trigger_members("Ann]|[555]|[", "Anna]|[556]|[", 0);
    rules.update_rule_groups("Ops", "Staff", 0);
    EXPECT_EQ(read(broadcast), trigger("a", "Anna]|[556]|[Bob]|[777]|[", "Team]|[Staff]|[") +
                                   trigger("b", "Anna]|[556]|[Ann]|[") + trigger("c"));
    EXPECT_EQ(read(preconf), rec("^|^m^|^Staff]|[^|^"));
    rules.update_trigger_members("Anna]|[556]|[", kNull, 1);
    rules.update_rule_groups("Staff", "", 1);
    rules.update_rule_groups("Team", "", 1);
    EXPECT_EQ(read(broadcast),
              trigger("a", "Bob]|[777]|[") + trigger("b", "Ann]|[") + trigger("c"));
    EXPECT_EQ(read(preconf), rec("^|^m^|^" + kNull + "^|^"));
    EXPECT_TRUE(test::exists(dir / "var/run/test_file"));
}

TEST_F(RuleListsTest, ListsThatCannotBeReadOrWrittenStayAsTheyWere) {
    // A missing list refuses every change and is not created.
    ::unlink(broadcast.c_str());
    EXPECT_EQ(rules.add_broadcast_trigger("a", "a^|^"), "ERROR");
    EXPECT_EQ(rules.delete_broadcast_trigger(1), "ERROR");
    EXPECT_EQ(rules.count_records(broadcast), "ERROR");
    EXPECT_FALSE(test::exists(broadcast));
    // A rewrite stops at a damaged record.
    test::write_file(preconf, rec("^|^one^|^G]|[^|^") + "99^|^cut");
    EXPECT_EQ(rules.count_records(preconf), "1");
    EXPECT_EQ(rules.add_preconf_sms("two", "H]|["), "SUCCESS");
    EXPECT_EQ(read(preconf), rec("^|^one^|^G]|[^|^") + rec("^|^two^|^H]|[^|^"));
    EXPECT_EQ(rules.add_auth_user("Ann", "1"), "SUCCESS");
    EXPECT_EQ(rules.add_auth_user("Bob", "2"), "SUCCESS");
    const std::string users = rec("^|^Ann^|^1^|^") + rec("^|^Bob^|^2^|^");
    EXPECT_EQ(read(auth), users);
    // A rewrite that cannot be written (a full device) is refused, also
    // when the write that fails is the last one.
    test::write_file(broadcast, "");
    const std::vector<std::function<std::string()>> changes = {
        [&] { return rules.add_broadcast_trigger("b", std::string(9000, 'b')); },
        [&] { return rules.add_auth_user("Carl", "3"); },
        [&] { return rules.delete_auth_user("Ann", "1"); },
        [&] { return rules.add_preconf_sms(std::string(30, 'x'), kNull); },
        [&] { return rules.edit_preconf_sms(1, std::string(30, 'x'), "^|^"); },
        [&] { return rules.delete_preconf_sms(3); },
    };
    std::vector<std::string> replies;
    {
        test::FullDevice full(5);
        for (const auto& change : changes) replies.push_back(change());
    }
    EXPECT_EQ(replies, std::vector<std::string>(changes.size(), "ERROR"));
    EXPECT_EQ(read(auth), users);
    EXPECT_EQ(read(preconf), rec("^|^one^|^G]|[^|^") + rec("^|^two^|^H]|[^|^"));
    EXPECT_EQ(read(broadcast), "");
}
