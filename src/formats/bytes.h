// The byte helpers of the codecs: integers in the host's byte order
// (big-endian on the router) and NUL-padded text fields. Only formats/
// includes this; everything else works with the decoded values.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace smsgw {

inline void put_i32(unsigned char* p, int32_t v) {
    std::memcpy(p, &v, sizeof v);
}
inline void put_i16(unsigned char* p, int16_t v) {
    std::memcpy(p, &v, sizeof v);
}
inline int32_t get_i32(const unsigned char* p) {
    int32_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}
inline int16_t get_i16(const unsigned char* p) {
    int16_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// Appends a 32-bit host-order integer to a byte string.
inline void append_i32(std::string& out, int32_t v) {
    char b[4];
    std::memcpy(b, &v, 4);
    out.append(b, 4);
}

// Copies at most size-1 bytes of src into a field of `size` bytes and fills
// the rest with NUL, so the field is always terminated.
inline void copy_field(char* field, size_t size, std::string_view src) {
    if (size == 0) return;
    size_t n = src.size() < size - 1 ? src.size() : size - 1;
    std::memcpy(field, src.data(), n);
    std::memset(field + n, 0, size - n);
}

// Text of a NUL-padded field: up to the first NUL or the field's end.
inline std::string field_text(const char* field, size_t size) {
    const void* nul = std::memchr(field, '\0', size);
    size_t n = nul ? static_cast<size_t>(static_cast<const char*>(nul) - field) : size;
    return std::string(field, n);
}

}  // namespace smsgw
