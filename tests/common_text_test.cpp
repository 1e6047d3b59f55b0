#include <gtest/gtest.h>

#include "common/paths.h"
#include "common/text.h"

using namespace smsgw;

// Cuts every word of `text` the tokenizer finds; "|rest" ends the list.
std::string tokens(std::string_view text, std::string_view sep) {
    Tokenizer t;
    std::string out;
    for (text = t.next_token(text, sep); t.token_found(); text = t.next_token(text, sep))
        out += "[" + t.word() + "]";
    EXPECT_FALSE(t.current_token().has_value());
    return out + "|" + std::string(text);
}

TEST(Text, TokensFieldsAndNumbers) {
    EXPECT_EQ(tokens("get-sms phone_book", " "), "[get-sms]|phone_book");
    EXPECT_EQ(tokens("^|^x^|^", "^|^"), "[][x]|");
    FieldCutter f("+4912345^|^+4967890");
    EXPECT_EQ(f.next().value_or("-"), "+4912345");
    EXPECT_FALSE(f.next());
    EXPECT_EQ(split_fields("  LB_OK  request 3 ERROR", " ", 6),
              (std::vector<std::string_view>{"LB_OK", "request", "3", "ERROR"}));
    EXPECT_TRUE(split_fields("   ", " ", 6).empty());
    EXPECT_EQ(split_fields("a b c d e f g h", " ", 6).size(), 6u);
    const std::pair<const char*, int> numbers[] = {{"  42abc", 42},
                                                   {"-7", -7},
                                                   {"abc", 0},
                                                   {"99999999999999999999", 2147483647},
                                                   {"-99999999999999999999", -2147483647 - 1}};
    for (const auto& [text, value] : numbers) EXPECT_EQ(c_atoi(text), value) << text;
    ReplyBuffer r;
    r.set(std::string(1000, 'x'));
    EXPECT_EQ(r.str(), std::string(255, 'x'));
}

TEST(Paths, MapsUnderTheRootAndBack) {
    EXPECT_EQ(Paths().map("/var/run/x"), "/var/run/x");
    Paths p("/tmp/r/");
    EXPECT_EQ(p.map("/var/run/x"), "/tmp/r/var/run/x");
    EXPECT_EQ(p.unmap("/tmp/r/dev/ttyS0"), "/dev/ttyS0");
    EXPECT_EQ(p.unmap("/etc/passwd"), "/etc/passwd");
}
