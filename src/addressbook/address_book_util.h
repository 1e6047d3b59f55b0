// Small helpers shared by the address-book sources (not part of the
// subsystem's interface).
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "addressbook/address_book.h"
#include "common/text.h"

namespace smsgw {

// Texts reach the table from C strings on the wire and in files: a NUL
// ends them there, so it ends them here too and is never stored.
inline std::string_view cstr(std::string_view s) {
    size_t nul = s.find('\0');
    return nul == std::string_view::npos ? s : s.substr(0, nul);
}

// tolower() of the C locale on an unsigned byte; inline because every walk
// of the tree calls it once per character.
inline int lower_byte(char c) {
    int u = static_cast<unsigned char>(c);
    return (u >= 'A' && u <= 'Z') ? u + ('a' - 'A') : u;
}

// strcasecmp() on views.
inline int icompare(std::string_view a, std::string_view b) {
    size_t n = a.size() < b.size() ? a.size() : b.size();
    for (size_t i = 0; i < n; ++i) {
        int d = lower_byte(a[i]) - lower_byte(b[i]);
        if (d != 0) return d;
    }
    if (a.size() == b.size()) return 0;
    return a.size() < b.size() ? -1 : 1;
}

inline bool iequal(std::string_view a, std::string_view b) {
    return a.size() == b.size() && icompare(a, b) == 0;
}

// `text` begins with `prefix`, ignoring case.
inline bool istarts_with(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() && iequal(text.substr(0, prefix.size()), prefix);
}

// The record of a page listing: "L^|^name^|^number^|^description^|^",
// L counting every byte after it. Nothing when `out` is null.
void write_entry_record(FILE* out, const Entry& e);

// Frees a member list one node at a time (lists can be 20000 long).
inline void free_members(std::unique_ptr<GroupMember> m) {
    while (m) m = std::move(m->next);
}

// Reads a stream line by line in large blocks.
class LineReader {
  public:
    explicit LineReader(FILE* f) : f_(f), buf_(size_t{64} * 1024) {}

    // One line with its '\n' (none at the end of the file). At most `keep`
    // bytes are stored, the rest of the line is consumed; a NUL byte ends
    // the line's text as it ends a C string. False at end of file.
    bool next(std::string& line, size_t keep);
    // The same line as a view, valid until the next call: into the block
    // when the line lies whole in it, else into a copy.
    bool next_view(std::string_view& line, size_t keep);

  private:
    FILE* f_;
    std::vector<char> buf_;
    std::string carry_;  // a line that crosses the end of a block
    size_t pos_ = 0;
    size_t len_ = 0;
};

}  // namespace smsgw
