// The recipient set: order of the written records, duplicates, the count
// limit and its file exception, record bytes, teardown.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "addressbook/address_book.h"
#include "common/fileops.h"
#include "send/recipients.h"
#include "support/test_support.h"

namespace smsgw {
namespace {

using test::TempDir;

// The numbers in the 50-byte records of an image, each checked for its
// zero padding.
std::vector<std::string> records(const std::string& image) {
    EXPECT_EQ(image.size() % 50, 0u);
    std::vector<std::string> out;
    for (size_t off = 0; off + 50 <= image.size(); off += 50) {
        std::string rec = image.substr(off, 50);
        std::string number = rec.substr(0, rec.find('\0'));
        EXPECT_EQ(rec.find_first_not_of('\0', number.size()), std::string::npos) << number;
        out.push_back(number);
    }
    return out;
}

std::string written(const RecipientSet& set, const TempDir& dir) {
    std::string path = dir / "records";
    FilePtr f = open_file(path, "w");
    EXPECT_TRUE(set.recipients_write(f.get()));
    f.reset();
    return test::read_file(path);
}

struct RecipientsTest : ::testing::Test {
    ReplyBuffer reply;
    AddressBook ab{reply};
    RecipientSet set{ab};
    TempDir dir;
};

TEST_F(RecipientsTest, WritesNumbersInTreeOrderOnce) {
    // Inserted out of order, with splits inside labels and a prefix of an
    // existing number, plus duplicates.
    for (const char* n : {"13", "123", "12", "+4930", "+4912", "123", "1", "+49", "12"})
        set.recipients_add(n, 0);
    EXPECT_EQ(set.recipient_count, 7);
    EXPECT_EQ(records(written(set, dir)),
              (std::vector<std::string>{"+49", "+4912", "+4930", "1", "12", "123", "13"}));
}

TEST_F(RecipientsTest, DuplicatesEmptyAndOverlongNumbersAreRefused) {
    std::string n49(49, '7'), n50(50, '8');
    EXPECT_NE(set.recipients_add(n49, 0), nullptr);
    EXPECT_EQ(set.recipients_add(n49, 0), nullptr);
    EXPECT_EQ(set.recipients_add(n49, 1), nullptr);
    EXPECT_EQ(set.recipients_add(n50, 0), nullptr);  // would leave no terminator
    EXPECT_EQ(set.recipients_add("", 0), nullptr);
    EXPECT_EQ(set.recipient_count, 1);
    std::string image = written(set, dir);
    ASSERT_EQ(image.size(), 50u);
    EXPECT_EQ(image.substr(0, 49), n49);
    EXPECT_EQ(image[49], '\0');
    // A missing list file counts as empty.
    set.recipients_add_file(dir / "absent");
    EXPECT_EQ(set.recipient_count, 1);
}

TEST_F(RecipientsTest, LimitStopsCountedInsertionsButNotTheFile) {
    char buf[16];
    for (int i = 0; i < RecipientSet::kLimit; ++i) {
        std::snprintf(buf, sizeof buf, "9%07d", i);
        ASSERT_NE(set.recipients_add(buf, 0), nullptr) << i;
    }
    EXPECT_EQ(set.recipients_add("123", 0), nullptr);
    ab.ab_insert("Late", "456", "");
    set.recipients_add_contact("Late");
    EXPECT_EQ(set.recipient_count, RecipientSet::kLimit);

    std::string list = dir / "list";
    test::write_file(list, "123\n" + std::string(50, '5') + "\n124\nno-newline");
    set.recipients_add_file(list);
    EXPECT_FALSE(test::exists(list));
    EXPECT_EQ(set.recipient_count, RecipientSet::kLimit + 2);  // 123 and 124 only
    auto nums = records(written(set, dir));
    ASSERT_EQ(nums.size(), static_cast<size_t>(RecipientSet::kLimit + 2));
    EXPECT_EQ(nums[0], "123");
    EXPECT_EQ(nums[1], "124");
}

TEST_F(RecipientsTest, ContactsAndGroupsAreMergedWithoutDuplicates) {
    ab.ab_insert("Alice", "+4911", "");
    ab.ab_insert("Alice", "+4922", "");
    ab.ab_insert("Bob", "+4933", "");
    ab.ab_insert("Carl", "+4911", "");  // same number as one of Alice's
    ab.group_create("Friends");
    ab.group_create("Work");
    ab.group_add_contact("Friends", "Bob");
    ab.group_add_contact("Friends", "Carl");
    ab.group_add_contact("Work", "Bob");

    EXPECT_EQ(set.recipients_add_contact("alice"), 1);  // names ignore case
    EXPECT_EQ(set.recipients_add_contact("Nobody"), 0);
    EXPECT_EQ(set.recipients_add_all_groups(), 2);
    EXPECT_EQ(set.recipients_add_group("Missing"), 1);
    EXPECT_EQ(records(written(set, dir)), (std::vector<std::string>{"+4911", "+4922", "+4933"}));

    set.recipients_clear();
    set.recipients_add_all_contacts();
    EXPECT_EQ(set.recipient_count, 3);
}

TEST_F(RecipientsTest, ClearLeavesAnEmptyReusableSet) {
    // A long sibling chain and a deep child chain must both tear down
    // without recursion.
    std::string deep;
    for (int i = 0; i < 3000; ++i) {
        deep += static_cast<char>('0' + i % 10);
        if (deep.size() < 50) set.recipients_add(deep, 1);
    }
    for (int i = 0; i < 20000; ++i) set.recipients_add(std::to_string(i * 7919 + 100000), 1);
    set.recipients_clear();
    EXPECT_EQ(set.recipient_count, 0);
    EXPECT_EQ(written(set, dir), "");
    set.recipients_add("42", 0);
    EXPECT_EQ(records(written(set, dir)), std::vector<std::string>{"42"});
}

}  // namespace
}  // namespace smsgw
