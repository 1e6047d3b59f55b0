// Text helpers shared by every subsystem: the "^|^" item cutter, the
// command tokenizer, the field splitter of datagrams, the shared reply text
// and a bounded atoi.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace smsgw {

inline constexpr std::string_view kSep = "^|^";      // ends every field
inline constexpr std::string_view kItemSep = "]|[";  // items inside a member list
inline constexpr std::string_view kNullList = "[null]";

// atoi() without undefined behaviour: leading blanks, an optional sign and
// digits; the value is clamped to the 32-bit range. Non-numbers give 0.
int c_atoi(std::string_view text);

// Strict decimal parse: the whole text must be an optional '-' and digits
// within [lo, hi].
std::optional<long long> parse_number(std::string_view text, long long lo, long long hi);

// The item cutter for "^|^"-terminated lists (`next_field`): start() sets
// the text, next() returns the item before the next separator and moves past
// it. An item that no separator ends is never returned.
class FieldCutter {
  public:
    FieldCutter() = default;
    explicit FieldCutter(std::string_view text) { start(text); }
    void start(std::string_view text) {
        rest_ = text;
        active_ = true;
    }
    std::optional<std::string_view> next(std::string_view separator = kSep);
    std::string_view rest() const { return rest_; }

  private:
    std::string_view rest_;
    bool active_ = false;
};

// Field splitter of datagrams: splits at any of the delimiter characters,
// runs of delimiters count as one, leading ones are skipped. At most
// max_fields fields are returned (the rest of the text is dropped).
std::vector<std::string_view> split_fields(std::string_view text, std::string_view delimiters,
                                           size_t max_fields);

// The command tokenizer (`next_token`, `current_token`, `token_found`).
// Every word, the last one included, must be followed by its separator.
class Tokenizer {
  public:
    // Cuts the word before the first `separator` in `cursor`. On success the
    // word becomes current_token(), token_found() is true and the returned
    // cursor lies behind the separator. On failure the token is dropped,
    // token_found() is false and the cursor comes back unchanged.
    std::string_view next_token(std::string_view cursor, std::string_view separator);

    bool token_found() const { return token_found_; }
    const std::optional<std::string>& current_token() const { return current_token_; }
    // The current word, or "" when there is none.
    const std::string& word() const;
    void reset() {
        current_token_.reset();
        token_found_ = false;
    }

  private:
    std::optional<std::string> current_token_;
    bool token_found_ = false;
};

// The 256-byte shared reply text (`reply_buffer`): operations leave their
// result text here. Texts are cut to 255 bytes.
class ReplyBuffer {
  public:
    static constexpr size_t kSize = 256;
    void set(std::string_view text);
    const std::string& str() const { return text_; }
    const char* c_str() const { return text_.c_str(); }
    bool operator==(std::string_view other) const { return text_ == other; }

  private:
    std::string text_;
};

// Lower-case comparisons as the C library does them on unsigned bytes.
int ascii_tolower(int c);
int strcasecmp_view(std::string_view a, std::string_view b);
bool iequals(std::string_view a, std::string_view b);
bool starts_with(std::string_view text, std::string_view prefix);

}  // namespace smsgw
