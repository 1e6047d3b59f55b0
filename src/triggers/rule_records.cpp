#include "triggers/rule_records.h"

#include <cctype>
#include <string_view>

#include "common/fileops.h"
#include "common/trace.h"

namespace smsgw {

namespace {
// Rule lists hold at most a few hundred short records; anything beyond this
// is not a rule file and is read only as far as this.
constexpr size_t kMaxRuleFile = 4u << 20;

// Decimal length as fscanf("%d") reads it: blanks, optional sign, digits.
// nullopt for no digits or a value beyond int range.
std::optional<long long> read_length(std::string_view data, size_t& pos) {
    while (pos < data.size() && std::isspace(static_cast<unsigned char>(data[pos]))) ++pos;
    bool neg = false;
    if (pos < data.size() && (data[pos] == '+' || data[pos] == '-')) neg = data[pos++] == '-';
    size_t start = pos;
    long long v = 0;
    while (pos < data.size() && data[pos] >= '0' && data[pos] <= '9') {
        v = v * 10 + (data[pos] - '0');
        if (v > 0x7fffffffLL) return std::nullopt;
        ++pos;
    }
    if (pos == start) return std::nullopt;
    return neg ? -v : v;
}
}  // namespace

std::optional<std::vector<std::string>> read_trigger_rule_records(const std::string& path) {
    auto data = read_file(path, kMaxRuleFile);
    if (!data) return std::nullopt;
    std::vector<std::string> records;
    size_t pos = 0;
    for (;;) {
        auto len = read_length(*data, pos);
        if (!len || *len <= 0) break;
        size_t n = static_cast<size_t>(*len);
        trace("sz - %lld;local_n - %zu\n", *len, records.size());
        if (n > data->size() - pos) break;  // cut short: the rest is damaged
        records.emplace_back(data->substr(pos, n));
        pos += n;
    }
    return records;
}

}  // namespace smsgw
