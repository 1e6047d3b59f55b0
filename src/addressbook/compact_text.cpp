#include "addressbook/compact_text.h"

#include <cstdlib>
#include <new>
#include <ostream>
#include <stdexcept>

namespace smsgw {

namespace {

// Only where size_t is wider than 32 bits can a size not fit.
constexpr bool fits_in_32_bits(uint64_t n) {
    return n <= UINT32_MAX;
}

}  // namespace

void CompactText::assign(std::string_view text) {
    const size_t n = text.size();
    if (n <= kInline) {
        // Copied aside first: the text may be a piece of this very object.
        char copy[kInline];
        if (n != 0) std::memcpy(copy, text.data(), n);
        release();
        if (n != 0) std::memcpy(bytes_, copy, n);
        set_inline_size(n);
        return;
    }
    if (!fits_in_32_bits(n)) throw std::length_error("CompactText");
    char* p = static_cast<char*>(std::malloc(n + 1));
    if (!p) throw std::bad_alloc();
    std::memcpy(p, text.data(), n);
    p[n] = '\0';
    release();
    auto size = static_cast<uint32_t>(n);
    std::memcpy(bytes_, &p, sizeof p);
    std::memcpy(bytes_ + kSizeAt, &size, sizeof size);
    bytes_[kTag] = static_cast<char>(kHeapTag);
}

void CompactText::release() noexcept {
    if (!on_heap()) return;
    std::free(const_cast<char*>(heap_data()));
    set_inline_size(0);
}

std::ostream& operator<<(std::ostream& out, const CompactText& text) {
    return out << text.view();
}

}  // namespace smsgw
