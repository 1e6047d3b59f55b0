// The SMS users table read at start-up from "/var/config/sms-users".
#include <optional>
#include <string>
#include <vector>

#include "core/sms_users.h"
#include "support/test_support.h"

namespace smsgw {
namespace {

using Names = std::vector<std::string>;

TEST(CoreSmsUsers, NamesBeforeTheSeparatorFollowAdminUpToTwenty) {
    std::string thirty;
    for (int i = 1; i <= 30; ++i) thirty += "user" + std::to_string(i) + "^|^\n";
    const std::vector<std::pair<std::optional<std::string>, Names>> cases = {
        {std::nullopt, {"admin"}},
        {"", {"admin"}},
        {"anna^|^secret^|^\nno separator here\nbob^|^x\n^|^\n", {"admin", "anna", "bob", ""}},
        {"anna^|^\n\nbob^|^\n", {"admin", "anna"}},  // a bare newline ends the table
        {std::string(80, 'n') + "^|^\n", {"admin", std::string(50, 'n')}},  // a slot's 50
        {thirty, {"admin",  "user1",  "user2",  "user3",  "user4",  "user5",  "user6",
                  "user7",  "user8",  "user9",  "user10", "user11", "user12", "user13",
                  "user14", "user15", "user16", "user17", "user18", "user19", "user20"}},
    };
    for (const auto& [text, names] : cases) {
        SCOPED_TRACE(text.value_or("<no file>"));
        test::TempDir root;
        if (text) test::write_file(root / "var/config/sms-users", *text);
        SmsUsers u = read_sms_users(Runtime(root.path(), 0));
        EXPECT_EQ(u.names, names);
        EXPECT_EQ(static_cast<size_t>(u.count) + 1, u.names.size());
    }
}

}  // namespace
}  // namespace smsgw
