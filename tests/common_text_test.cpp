#include <gtest/gtest.h>

#include "common/paths.h"
#include "common/text.h"

using namespace smsgw;

TEST(Tokenizer, EveryWordNeedsItsSeparator) {
    Tokenizer t;
    std::string_view cur = "get-sms phone_book";
    cur = t.next_token(cur, " ");
    ASSERT_TRUE(t.token_found());
    EXPECT_EQ(t.word(), "get-sms");
    auto before = cur;
    cur = t.next_token(cur, " ");
    EXPECT_FALSE(t.token_found());
    EXPECT_FALSE(t.current_token().has_value());
    EXPECT_EQ(cur, before);
}

TEST(Tokenizer, AdjacentSeparatorsGiveAnEmptyWord) {
    Tokenizer t;
    std::string_view cur = "^|^x^|^";
    cur = t.next_token(cur, "^|^");
    ASSERT_TRUE(t.token_found());
    EXPECT_EQ(t.word(), "");
    cur = t.next_token(cur, "^|^");
    EXPECT_EQ(t.word(), "x");
    EXPECT_EQ(cur, "");
}

TEST(FieldCutter, ItemWithoutSeparatorIsIgnored) {
    FieldCutter f("+4912345^|^+4967890");
    auto a = f.next();
    ASSERT_TRUE(a);
    EXPECT_EQ(*a, "+4912345");
    EXPECT_FALSE(f.next());
}

TEST(SplitFields, RunsOfDelimitersCountAsOneAndFieldsAreBounded) {
    auto f = split_fields("  LB_OK  request 3 ERROR", " ", 6);
    ASSERT_EQ(f.size(), 4u);
    EXPECT_EQ(f[0], "LB_OK");
    EXPECT_EQ(f[3], "ERROR");
    EXPECT_TRUE(split_fields("   ", " ", 6).empty());
    EXPECT_EQ(split_fields("a b c d e f g h", " ", 6).size(), 6u);
}

TEST(Atoi, BehavesLikeTheCLibraryWithoutOverflow) {
    EXPECT_EQ(c_atoi("  42abc"), 42);
    EXPECT_EQ(c_atoi("-7"), -7);
    EXPECT_EQ(c_atoi("abc"), 0);
    EXPECT_EQ(c_atoi("99999999999999999999"), 2147483647);
    EXPECT_EQ(c_atoi("-99999999999999999999"), -2147483647 - 1);
}

TEST(ReplyBuffer, KeepsAtMost255Bytes) {
    ReplyBuffer r;
    r.set(std::string(1000, 'x'));
    EXPECT_EQ(r.str().size(), 255u);
}

TEST(Paths, MapsUnderTheRootAndBack) {
    Paths def;
    EXPECT_EQ(def.map("/var/run/x"), "/var/run/x");
    Paths p("/tmp/r/");
    EXPECT_EQ(p.map("/var/run/x"), "/tmp/r/var/run/x");
    EXPECT_EQ(p.unmap("/tmp/r/dev/ttyS0"), "/dev/ttyS0");
    EXPECT_EQ(p.unmap("/etc/passwd"), "/etc/passwd");
}
