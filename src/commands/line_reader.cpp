#include "commands/line_reader.h"

#include "common/text.h"

namespace smsgw {

namespace {
bool is_space(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}
}  // namespace

std::optional<int> scan_int_after(std::string_view text, std::string_view prefix) {
    if (!starts_with(text, prefix)) return std::nullopt;
    std::string_view rest = text.substr(prefix.size());
    size_t i = 0;
    while (i < rest.size() && is_space(rest[i])) ++i;
    size_t j = i;
    if (j < rest.size() && (rest[j] == '+' || rest[j] == '-')) ++j;
    if (j >= rest.size() || rest[j] < '0' || rest[j] > '9') return std::nullopt;
    return c_atoi(rest.substr(i));
}

std::optional<std::string> scan_word_after(std::string_view text, std::string_view prefix) {
    if (!starts_with(text, prefix)) return std::nullopt;
    std::string_view rest = text.substr(prefix.size());
    size_t i = 0;
    while (i < rest.size() && is_space(rest[i])) ++i;
    size_t j = i;
    while (j < rest.size() && !is_space(rest[j])) ++j;
    if (j == i) return std::nullopt;
    return std::string(rest.substr(i, j - i));
}

}  // namespace smsgw
