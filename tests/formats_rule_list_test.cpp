// The rule-list record: exact bytes both ways, and every damaged shape a
// rule file can come in.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "formats/rule_list_record.h"

using namespace smsgw;

namespace {

std::vector<std::string> texts_of(const RuleFile& f) {
    std::vector<std::string> v;
    for (const RuleRecord& r : f.records) v.emplace_back(r.text);
    return v;
}

}  // namespace

TEST(RuleListRecord, BytesBothWays) {
    const std::string long_field(10000, 'a');
    struct Case {
        std::vector<std::string_view> fields;
        std::string text, bytes;
    } cases[] = {
        {{"HELLO", "ab"}, "^|^HELLO^|^ab^|^", "16^|^HELLO^|^ab^|^"},
        {{"kw", "ADDENTRY", "NO"}, "^|^kw^|^ADDENTRY^|^NO^|^", "24^|^kw^|^ADDENTRY^|^NO^|^"},
        {{}, "^|^", "3^|^"},
        {{"", ""}, "^|^^|^^|^", "9^|^^|^^|^"},
        {{"G]|[H]|[", "[null]]|["}, "^|^G]|[H]|[^|^[null]]|[^|^", "26^|^G]|[H]|[^|^[null]]|[^|^"},
        {{long_field}, "^|^" + long_field + "^|^", "10006^|^" + long_field + "^|^"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(rule_record_text(c.fields), c.text);
        EXPECT_EQ(encode_rule_record(c.text), c.bytes);
        RuleRecordResult r = decode_rule_record(c.bytes);
        ASSERT_EQ(r.status, RuleRead::kRecord) << c.bytes.substr(0, 20);
        EXPECT_EQ(r.record.text, c.text);
        EXPECT_EQ(r.record.fields, c.fields);
        EXPECT_EQ(r.next, c.bytes.size());
    }
}

TEST(RuleListRecord, FilesReadUpToTheirEndOrTheirFirstDamage) {
    const std::string a = "11^|^a^|^b^|^", b = "8^|^xy^|^";
    struct Case {
        const char* what;
        std::string bytes;
        std::vector<std::string> texts;
        bool damaged;
    } cases[] = {
        {"empty", "", {}, false},
        {"white space only", " \n\t", {}, false},
        {"records back to back", a + b, {"^|^a^|^b^|^", "^|^xy^|^"}, false},
        {"white space around lengths",
         " \n" + a + "\n" + b + "\n",
         {"^|^a^|^b^|^", "^|^xy^|^"},
         false},
        {"a plus sign", "+8^|^xy^|^", {"^|^xy^|^"}, false},
        {"NUL bytes in the text", std::string("5^|^\0\0", 6), {std::string("^|^\0\0", 5)}, false},
        {"cut inside the text", a + "8^|^xy^|", {"^|^a^|^b^|^"}, true},
        {"cut before the text", a + "8", {"^|^a^|^b^|^"}, true},
        {"length 0", a + "0^|^xy^|^", {"^|^a^|^b^|^"}, true},
        {"negative length", "-8^|^xy^|^" + a, {}, true},
        {"length beyond the data", b + "99999999999999999999^|^x", {"^|^xy^|^"}, true},
        {"length below three", "2^|" + a, {}, true},
        {"length three", "3^|^" + b, {"^|^", "^|^xy^|^"}, false},
        {"not a number", "abc" + a, {}, true},
        {"a sign without digits", "-^|^" + a, {}, true},
        {"10 000-byte length", std::string(10000, '9'), {}, true},
    };
    for (const auto& c : cases) {
        RuleFile f = decode_rule_file(c.bytes);
        EXPECT_EQ(texts_of(f), c.texts) << c.what;
        EXPECT_EQ(f.damaged, c.damaged) << c.what;
    }
}

TEST(RuleListRecord, FieldsAndLimitsOfTheDataGiven) {
    // The leading three bytes are skipped unseen; a tail no separator
    // closes is no field.
    RuleRecordResult r = decode_rule_record("6abcdef");
    ASSERT_EQ(r.status, RuleRead::kRecord);
    EXPECT_TRUE(r.record.fields.empty());
    EXPECT_EQ(rule_record_fields("^|^a^|^tail"), std::vector<std::string_view>{"a"});
    EXPECT_TRUE(rule_record_fields("^|").empty());

    // A record that continues past the view given is damaged, not read on.
    const std::string buffer = "11^|^a^|^b^|^";
    EXPECT_EQ(decode_rule_record(std::string_view(buffer).substr(0, 12)).status,
              RuleRead::kDamaged);
    // Offsets at and past the end.
    EXPECT_EQ(decode_rule_record(buffer, buffer.size()).status, RuleRead::kEnd);
    EXPECT_EQ(decode_rule_record(buffer, buffer.size() + 5).status, RuleRead::kEnd);
    r = decode_rule_record(buffer + buffer, buffer.size());
    ASSERT_EQ(r.status, RuleRead::kRecord);
    EXPECT_EQ(r.next, 2 * buffer.size());
}
