// Line reading with a fixed buffer, the way the settings files are read: a
// line longer than the buffer comes back in several pieces, each of at most
// size - 1 bytes, the last one ending in its newline.
#pragma once

#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

namespace smsgw {

inline std::optional<std::string> read_piece(FILE* in, size_t size) {
    std::string piece;
    while (piece.size() + 1 < size) {
        int c = std::getc(in);
        if (c == EOF) break;
        piece.push_back(static_cast<char>(c));
        if (c == '\n') break;
    }
    if (piece.empty()) return std::nullopt;
    return piece;
}

// "%d" after a literal prefix at the start of text (leading blanks, an
// optional sign and digits); nullopt when the prefix or the number is not
// there.
std::optional<int> scan_int_after(std::string_view text, std::string_view prefix);

// "%s" after a literal prefix: the next word without white space.
std::optional<std::string> scan_word_after(std::string_view text, std::string_view prefix);

}  // namespace smsgw
