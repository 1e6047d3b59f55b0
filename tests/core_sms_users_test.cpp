// The SMS users table read at start-up from "/var/config/sms-users".
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/sms_users.h"
#include "support/test_support.h"

namespace smsgw {
namespace {

std::vector<std::string> users_from(const std::string& file_text, bool write = true) {
    test::TempDir root;
    if (write) test::write_file(root / "var/config/sms-users", file_text);
    SmsUsers u = read_sms_users(Runtime(root.path(), 0));
    EXPECT_EQ(static_cast<size_t>(u.count) + 1, u.names.size());
    return u.names;
}

using Names = std::vector<std::string>;

TEST(CoreSmsUsers, NamesBeforeTheSeparatorFollowAdmin) {
    EXPECT_EQ(users_from("", false), Names{"admin"});
    EXPECT_EQ(users_from(""), Names{"admin"});
    EXPECT_EQ(users_from("anna^|^secret^|^\nno separator here\nbob^|^x\n^|^\n"),
              (Names{"admin", "anna", "bob", ""}));
    // A line that is only a newline ends the table.
    EXPECT_EQ(users_from("anna^|^\n\nbob^|^\n"), (Names{"admin", "anna"}));
    // Names are cut to the 50 characters of a slot.
    EXPECT_EQ(users_from(std::string(80, 'n') + "^|^\n"), (Names{"admin", std::string(50, 'n')}));
}

TEST(CoreSmsUsers, AtMostTwentyUsersBesidesAdmin) {
    std::string text;
    for (int i = 1; i <= 30; ++i) text += "user" + std::to_string(i) + "^|^\n";
    Names names = users_from(text);
    ASSERT_EQ(names.size(), 21u);
    EXPECT_EQ(names.front(), "admin");
    EXPECT_EQ(names.back(), "user20");
}

}  // namespace
}  // namespace smsgw
