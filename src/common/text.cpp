#include "common/text.h"

#include <climits>

namespace smsgw {

int c_atoi(std::string_view s) {
    size_t i = 0;
    while (i < s.size() && (s[i] == ' ' || (s[i] >= '\t' && s[i] <= '\r'))) ++i;
    bool neg = false;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) neg = s[i++] == '-';
    long long v = 0;
    for (; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i) {
        v = v * 10 + (s[i] - '0');
        if (v > static_cast<long long>(INT_MAX) + 1) v = static_cast<long long>(INT_MAX) + 1;
    }
    if (neg) v = -v;
    if (v > INT_MAX) v = INT_MAX;
    if (v < INT_MIN) v = INT_MIN;
    return static_cast<int>(v);
}

std::optional<long long> parse_number(std::string_view s, long long lo, long long hi) {
    if (s.empty()) return std::nullopt;
    size_t i = 0;
    bool neg = false;
    if (s[0] == '-') {
        neg = true;
        i = 1;
    }
    if (i == s.size() || s.size() - i > 18) return std::nullopt;
    long long v = 0;
    for (; i < s.size(); ++i) {
        if (s[i] < '0' || s[i] > '9') return std::nullopt;
        v = v * 10 + (s[i] - '0');
    }
    if (neg) v = -v;
    if (v < lo || v > hi) return std::nullopt;
    return v;
}

std::optional<std::string_view> FieldCutter::next(std::string_view separator) {
    if (!active_ || rest_.empty()) return std::nullopt;
    size_t p = rest_.find(separator);
    if (p == std::string_view::npos) return std::nullopt;
    std::string_view item = rest_.substr(0, p);
    rest_.remove_prefix(p + separator.size());
    return item;
}

std::vector<std::string_view> split_fields(std::string_view text, std::string_view delimiters,
                                           size_t max_fields) {
    std::vector<std::string_view> out;
    size_t i = 0;
    while (i < text.size() && out.size() < max_fields) {
        while (i < text.size() && delimiters.find(text[i]) != std::string_view::npos) ++i;
        if (i >= text.size()) break;
        size_t j = i;
        while (j < text.size() && delimiters.find(text[j]) == std::string_view::npos) ++j;
        out.push_back(text.substr(i, j - i));
        i = j;
    }
    return out;
}

std::string_view Tokenizer::next_token(std::string_view cursor, std::string_view separator) {
    token_found_ = true;
    size_t p = cursor.find(separator);
    if (p == std::string_view::npos || separator.empty()) {
        current_token_.reset();
        token_found_ = false;
        return cursor;
    }
    current_token_ = std::string(cursor.substr(0, p));
    return cursor.substr(p + separator.size());
}

const std::string& Tokenizer::word() const {
    static const std::string empty;
    return current_token_ ? *current_token_ : empty;
}

void ReplyBuffer::set(std::string_view text) {
    text_.assign(text.substr(0, kSize - 1));
}

int ascii_tolower(int c) {
    return (c >= 'A' && c <= 'Z') ? c + ('a' - 'A') : c;
}

int strcasecmp_view(std::string_view a, std::string_view b) {
    size_t n = a.size() < b.size() ? a.size() : b.size();
    for (size_t i = 0; i < n; ++i) {
        int ca = ascii_tolower(static_cast<unsigned char>(a[i]));
        int cb = ascii_tolower(static_cast<unsigned char>(b[i]));
        if (ca != cb) return ca - cb;
    }
    if (a.size() == b.size()) return 0;
    return a.size() < b.size() ? -1 : 1;
}

bool iequals(std::string_view a, std::string_view b) {
    return a.size() == b.size() && strcasecmp_view(a, b) == 0;
}

bool starts_with(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

}  // namespace smsgw
