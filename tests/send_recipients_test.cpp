// The recipient set: against a reference model (order, case-blind
// duplicates, refusals, the limit, count, record bytes), teardown, and the
// file list beyond the limit.
#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <random>
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

std::string written(RecipientSet& set, const TempDir& dir) {
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

TEST_F(RecipientsTest, BehavesLikeAnOrderedCaseBlindSet) {
    // The model: numbers keyed by their case-folded text, the first spelling
    // kept, written in the byte order of the keys.
    std::map<std::string, std::string> model;
    auto fold = [](std::string s) {
        for (char& c : s)
            if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
        return s;
    };
    // Few symbols and short numbers make duplicates and shared beginnings
    // common; NUL and high bytes must sort as unsigned bytes.
    const std::string symbols = std::string("12+aAbZz\xe9", 9) + std::string(1, '\0');
    std::mt19937 rng(2024);
    for (int i = 0; i < 40000; ++i) {
        std::string n;
        size_t len = rng() % 8 == 0 ? 44 + rng() % 8 : rng() % 12;
        while (n.size() < len) n += symbols[rng() % symbols.size()];
        int unlimited = static_cast<int>(rng() % 2);
        bool fits = !n.empty() && n.size() <= 49;
        bool room = unlimited || model.size() < static_cast<size_t>(RecipientSet::kLimit);
        bool expected = fits && room && model.emplace(fold(n), n).second;
        ASSERT_EQ(set.recipients_add(n, unlimited), expected) << i;
        ASSERT_EQ(set.recipient_count(), static_cast<int>(model.size())) << i;
    }
    EXPECT_GT(model.size(), static_cast<size_t>(RecipientSet::kLimit));  // the limit was met
    std::string image;
    for (auto [key, number] : model) image += number.append(50 - number.size(), '\0');
    EXPECT_EQ(written(set, dir), image);

    set.recipients_clear();
    EXPECT_EQ(set.recipient_count(), 0);
    EXPECT_EQ(written(set, dir), "");
    for (const char* n : {"13", "123", "12", "+4930", "+4912", "123", "1", "+49", "12"})
        set.recipients_add(n, 0);
    EXPECT_EQ(records(written(set, dir)),
              (std::vector<std::string>{"+49", "+4912", "+4930", "1", "12", "123", "13"}));
}

TEST_F(RecipientsTest, LimitStopsCountedInsertionsButNotTheFile) {
    char buf[16];
    for (int i = 0; i < RecipientSet::kLimit - 1; ++i) {
        std::snprintf(buf, sizeof buf, "9%07d", i);
        ASSERT_TRUE(set.recipients_add(buf, 0)) << i;
    }
    ab.ab_insert("Last", "456", "");
    ab.ab_insert("Late", "789", "");
    ab.group_create("G");
    ab.group_add_contact("G", "Last");
    EXPECT_EQ(set.recipients_add_group("G"), 1);  // the last place is taken
    EXPECT_FALSE(set.recipients_add("123", 0));
    set.recipients_add_contact("Late");
    EXPECT_EQ(set.recipient_count(), RecipientSet::kLimit);

    std::string list = dir / "list";
    test::write_file(list, "123\n" + std::string(50, '5') + "\n124\nno-newline");
    set.recipients_add_file(list);
    EXPECT_FALSE(test::exists(list));
    EXPECT_EQ(set.recipient_count(), RecipientSet::kLimit + 2);  // 123 and 124 only
    auto nums = records(written(set, dir));
    ASSERT_EQ(nums.size(), static_cast<size_t>(RecipientSet::kLimit + 2));
    EXPECT_EQ(nums[0], "123");
    EXPECT_EQ(nums[1], "124");
    // A write that fails is reported.
    FilePtr full = open_file("/dev/full", "w");
    ASSERT_TRUE(full);
    EXPECT_FALSE(set.recipients_write(full.get()));
}

}  // namespace
}  // namespace smsgw
