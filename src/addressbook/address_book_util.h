// Small helpers shared by the address-book sources (not part of the
// subsystem's interface).
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "addressbook/address_book.h"
#include "common/text.h"

namespace smsgw {

// Texts reach the table from C strings on the wire and in files: a NUL
// ends them there, so it ends them here too and is never stored.
inline std::string_view cstr(std::string_view s) {
    size_t nul = s.find('\0');
    return nul == std::string_view::npos ? s : s.substr(0, nul);
}

inline int lower_byte(char c) {
    return ascii_tolower(static_cast<unsigned char>(c));
}

// `text` begins with `prefix`, ignoring case.
inline bool istarts_with(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() && iequals(text.substr(0, prefix.size()), prefix);
}

// Frees a member list one node at a time (lists can be 20000 long).
inline void free_members(std::unique_ptr<GroupMember> m) {
    while (m) m = std::move(m->next);
}

// Reads one line with its '\n' (none at the end of the file). At most
// `keep` bytes are stored, the rest of the line is consumed; a NUL byte
// ends the line's text as it ends a C string. False at end of file.
inline bool read_line(FILE* f, std::string& line, size_t keep) {
    line.clear();
    bool any = false;
    bool cut = false;
    int c;
    while ((c = getc_unlocked(f)) != EOF) {
        any = true;
        if (c == '\0') cut = true;
        if (!cut && line.size() < keep) line.push_back(static_cast<char>(c));
        if (c == '\n') break;
    }
    return any;
}

}  // namespace smsgw
