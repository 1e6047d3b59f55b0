// Text as the SMS air interface carries it: the GSM 7-bit default alphabet
// with its extension table, UCS-2 (UTF-16BE with surrogate pairs), septet
// packing, and the UTF-8 text the rest of the system uses.
//
// Input text is taken as UTF-8; a byte that does not start a valid UTF-8
// sequence is taken as a Latin-1 character, so every byte string has a
// meaning and nothing is dropped.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace smsgw::gsm {

inline constexpr uint8_t kEscape = 0x1B;  // introduces an extension-table septet

// Code points of a byte string (UTF-8, Latin-1 for stray bytes). Overlong
// forms, surrogates and values above U+10FFFF are not valid UTF-8.
std::u32string decode_utf8(std::string_view bytes);
void append_utf8(std::string& out, char32_t c);
std::string to_utf8(std::u32string_view text);

// Septets for one character: 1 from the default table, 2 (escape and the
// extension code) from the extension table, 0 when it has none.
size_t septets_for(char32_t c, uint8_t out[2]);
// Septets of a whole text; false when a character has none.
bool to_septets(std::u32string_view text, std::vector<uint8_t>& out);
// Characters of unpacked septets; an escape before an unknown code yields
// the code's default character, a final lone escape a space.
std::u32string from_septets(const std::vector<uint8_t>& septets);

// Packs septets LSB first. The first `skip` septet positions are left zero
// (the room of a user-data header, which the caller writes over them).
std::string pack_septets(const std::vector<uint8_t>& septets, size_t skip = 0);
// Unpacks `count` septets from octets, dropping the first `skip`; stops
// early when the octets run out.
std::vector<uint8_t> unpack_septets(std::string_view octets, size_t count, size_t skip = 0);
// Octets that `count` packed septets occupy.
inline size_t packed_size(size_t count) {
    return (count * 7 + 7) / 8;
}

// UTF-16BE: code points above U+FFFF become surrogate pairs.
std::string to_ucs2(std::u32string_view text);
// Back to code points; a lone surrogate becomes U+FFFD, an odd final byte
// is dropped.
std::u32string from_ucs2(std::string_view octets);
// UTF-16 code units of one character (1 or 2).
inline size_t ucs2_units(char32_t c) {
    return c > 0xFFFF ? 2 : 1;
}

}  // namespace smsgw::gsm
