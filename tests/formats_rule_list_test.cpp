// The rule-list record: exact bytes both ways, and every damaged shape a
// rule file can come in.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
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
    const std::vector<std::string> ab = {"^|^a^|^b^|^", "^|^xy^|^"}, only_a = {ab[0]};
    const std::tuple<std::string, std::vector<std::string>, bool> cases[] = {
        {"", {}, false},
        {" \n\t", {}, false},
        {a + b, ab, false},
        {" \n" + a + "\n" + b + "\n", ab, false},  // white space around lengths
        {"+8^|^xy^|^", {ab[1]}, false},
        {std::string("5^|^\0\0", 6), {std::string("^|^\0\0", 5)}, false},
        {"3^|^" + b, {"^|^", ab[1]}, false},
        {a + "8^|^xy^|", only_a, true},  // cut inside the text
        {a + "8", only_a, true},
        {a + "0^|^xy^|^", only_a, true},
        {"-8^|^xy^|^" + a, {}, true},
        {b + "99999999999999999999^|^x", {ab[1]}, true},
        {"2^|" + a, {}, true},
        {"abc" + a, {}, true},
        {"-^|^" + a, {}, true},
        {std::string(10000, '9'), {}, true},
    };
    for (const auto& [bytes, texts, damaged] : cases) {
        RuleFile f = decode_rule_file(bytes);
        EXPECT_EQ(texts_of(f), texts) << bytes.substr(0, 30);
        EXPECT_EQ(f.damaged, damaged) << bytes.substr(0, 30);
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
    // A record that continues past the view given is damaged, not read on;
    // offsets at and past the end are the end.
    const std::string buffer = "11^|^a^|^b^|^";
    EXPECT_EQ(decode_rule_record(std::string_view(buffer).substr(0, 12)).status,
              RuleRead::kDamaged);
    EXPECT_EQ(decode_rule_record(buffer, buffer.size()).status, RuleRead::kEnd);
    EXPECT_EQ(decode_rule_record(buffer, buffer.size() + 5).status, RuleRead::kEnd);
    EXPECT_EQ(decode_rule_record(buffer + buffer, buffer.size()).next, 2 * buffer.size());
}
