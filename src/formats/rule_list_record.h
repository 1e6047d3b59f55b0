// Rule-list records: the unit of the four rule files in "/var/config/"
// (broadcast triggers, preconfigured messages, action triggers and
// authenticated users).
//
//   bytes   content
//   d       L in ASCII decimal digits, no sign, no padding
//   L       the record text: "^|^", then fields each closed by "^|^"
//
// Records follow one another with nothing between them, and L counts every
// byte of the text, the leading "^|^" included: the text "^|^HELLO^|^ab^|^"
// is stored as "16^|^HELLO^|^ab^|^".
//
// Reading accepts what the files have always been read with: white space
// before L, a sign in front of it, and any three bytes in place of the
// leading "^|^" (they are skipped unseen).
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace smsgw {

struct RuleRecord {
    std::string_view text;  // all L bytes
    // The fields behind the leading three bytes; a tail that no "^|^"
    // closes is not a field.
    std::vector<std::string_view> fields;
};

enum class RuleRead {
    kRecord,   // a whole record was read
    kEnd,      // nothing but white space is left
    kDamaged,  // L is missing, below 3 (0 and negative included) or runs past the data
};

struct RuleRecordResult {
    RuleRead status = RuleRead::kEnd;
    RuleRecord record;  // views into the data given (kRecord only)
    size_t next = 0;    // offset just behind the record (kRecord only)
};

// The record that begins at `offset` of `data`; never reads past `data`.
RuleRecordResult decode_rule_record(std::string_view data, size_t offset = 0);

// Every record of a rule file up to its end or its first damaged record
// (`damaged` then), as views into `data`.
struct RuleFile {
    std::vector<RuleRecord> records;
    bool damaged = false;
};
RuleFile decode_rule_file(std::string_view data);

// The fields of a record text (as RuleRecord::fields).
std::vector<std::string_view> rule_record_fields(std::string_view text);

// One record as stored: L, then the text.
std::string encode_rule_record(std::string_view text);
// The text "^|^" F1 "^|^" F2 "^|^" ... of the given fields.
std::string rule_record_text(const std::vector<std::string_view>& fields);

}  // namespace smsgw
