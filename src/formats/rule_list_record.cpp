#include "formats/rule_list_record.h"

#include <climits>

#include "common/text.h"

namespace smsgw {

namespace {

constexpr size_t kLead = 3;  // the leading "^|^" of every text

bool is_space(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

// L as "%d" reads it: an optional sign and digits, clamped far above any
// length a file can hold. False when there are no digits.
bool scan_length(std::string_view data, size_t& pos, long long& length) {
    bool negative = false;
    if (pos < data.size() && (data[pos] == '+' || data[pos] == '-')) negative = data[pos++] == '-';
    size_t digits = 0;
    long long v = 0;
    for (; pos < data.size() && data[pos] >= '0' && data[pos] <= '9'; ++pos, ++digits) {
        if (v < LLONG_MAX / 10 - 10) v = v * 10 + (data[pos] - '0');
    }
    length = negative ? -v : v;
    return digits > 0;
}

}  // namespace

std::vector<std::string_view> rule_record_fields(std::string_view text) {
    std::vector<std::string_view> fields;
    if (text.size() < kLead) return fields;
    FieldCutter cut(text.substr(kLead));
    while (auto f = cut.next()) fields.push_back(*f);
    return fields;
}

RuleRecordResult decode_rule_record(std::string_view data, size_t offset) {
    RuleRecordResult r;
    size_t pos = offset < data.size() ? offset : data.size();
    while (pos < data.size() && is_space(data[pos])) ++pos;
    if (pos == data.size()) return r;
    r.status = RuleRead::kDamaged;
    long long length = 0;
    if (!scan_length(data, pos, length) || length < static_cast<long long>(kLead)) return r;
    if (static_cast<unsigned long long>(length) > data.size() - pos) return r;
    r.status = RuleRead::kRecord;
    r.record.text = data.substr(pos, static_cast<size_t>(length));
    r.record.fields = rule_record_fields(r.record.text);
    r.next = pos + static_cast<size_t>(length);
    return r;
}

RuleFile decode_rule_file(std::string_view data) {
    RuleFile file;
    size_t pos = 0;
    for (;;) {
        RuleRecordResult r = decode_rule_record(data, pos);
        if (r.status != RuleRead::kRecord) {
            file.damaged = r.status == RuleRead::kDamaged;
            return file;
        }
        file.records.push_back(std::move(r.record));
        pos = r.next;
    }
}

std::string encode_rule_record(std::string_view text) {
    std::string out = std::to_string(text.size());
    out.append(text);
    return out;
}

std::string rule_record_text(const std::vector<std::string_view>& fields) {
    std::string text(kSep);
    for (std::string_view f : fields) {
        text.append(f);
        text.append(kSep);
    }
    return text;
}

}  // namespace smsgw
