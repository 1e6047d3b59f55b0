// A text in 16 bytes: up to 15 bytes are held in place, a longer text in a
// heap block of exactly its length plus the terminator. The address book
// holds up to 20000 entries of three texts each and a tree node per name
// fragment; most of those texts are short, and std::string's 32-byte header
// would cost more than the texts themselves.
//
// Reads like a const std::string (size, data, c_str, comparisons, views and
// copies); replaced whole by assignment. Always NUL-terminated.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iosfwd>
#include <string>
#include <string_view>

namespace smsgw {

class alignas(8) CompactText {
  public:
    static constexpr size_t kInline = 15;

    CompactText() { set_inline_size(0); }
    explicit CompactText(std::string_view text) {
        set_inline_size(0);
        assign(text);
    }
    CompactText(const CompactText& other) : CompactText(other.view()) {}
    CompactText(CompactText&& other) noexcept {
        std::memcpy(bytes_, other.bytes_, sizeof bytes_);
        other.set_inline_size(0);
    }
    CompactText& operator=(const CompactText& other) {
        if (this != &other) assign(other.view());
        return *this;
    }
    CompactText& operator=(CompactText&& other) noexcept {
        if (this != &other) {
            release();
            std::memcpy(bytes_, other.bytes_, sizeof bytes_);
            other.set_inline_size(0);
        }
        return *this;
    }
    CompactText& operator=(std::string_view text) {
        assign(text);
        return *this;
    }
    ~CompactText() { release(); }

    // `text` may lie inside this object's own storage.
    void assign(std::string_view text);

    size_t size() const { return on_heap() ? heap_size() : kInline - tag(); }
    size_t length() const { return size(); }
    bool empty() const { return size() == 0; }
    const char* data() const { return on_heap() ? heap_data() : bytes_; }
    const char* c_str() const { return data(); }
    const char* begin() const { return data(); }
    const char* end() const { return data() + size(); }
    char operator[](size_t i) const { return data()[i]; }

    std::string_view view() const { return {data(), size()}; }
    operator std::string_view() const { return view(); }          // NOLINT: reads as a string
    operator std::string() const { return std::string(view()); }  // NOLINT
    int compare(std::string_view other) const { return view().compare(other); }

    friend bool operator==(const CompactText& a, const CompactText& b) {
        return a.view() == b.view();
    }
    friend bool operator==(const CompactText& a, std::string_view b) { return a.view() == b; }
    friend bool operator==(std::string_view a, const CompactText& b) { return a == b.view(); }
    friend bool operator!=(const CompactText& a, const CompactText& b) { return !(a == b); }
    friend bool operator!=(const CompactText& a, std::string_view b) { return !(a == b); }
    friend bool operator!=(std::string_view a, const CompactText& b) { return !(a == b); }
    friend bool operator<(const CompactText& a, const CompactText& b) {
        return a.view() < b.view();
    }
    friend std::string operator+(const CompactText& a, std::string_view b) {
        std::string s(a.view());
        s.append(b);
        return s;
    }
    friend std::string operator+(const CompactText& a, const CompactText& b) {
        return a + b.view();
    }
    friend std::string operator+(std::string a, const CompactText& b) {
        a.append(b.view());
        return a;
    }
    friend std::string operator+(const char* a, const CompactText& b) { return std::string(a) + b; }
    friend std::ostream& operator<<(std::ostream& out, const CompactText& text);

  private:
    // Byte 15 tells the form: 0..15 is kInline minus the size of an inline
    // text (so a 15-byte text ends in place on a 0 that is its terminator),
    // kHeapTag a heap text whose pointer and size lie at the front.
    static constexpr unsigned char kHeapTag = 0x80;
    static constexpr size_t kTag = 15;
    static constexpr size_t kSizeAt = 8;

    unsigned char tag() const { return static_cast<unsigned char>(bytes_[kTag]); }
    bool on_heap() const { return tag() == kHeapTag; }
    const char* heap_data() const {
        const char* p;
        std::memcpy(&p, bytes_, sizeof p);
        return p;
    }
    size_t heap_size() const {
        uint32_t n;
        std::memcpy(&n, bytes_ + kSizeAt, sizeof n);
        return n;
    }
    void set_inline_size(size_t n) {
        bytes_[n] = '\0';
        bytes_[kTag] = static_cast<char>(kInline - n);
    }
    void release() noexcept;

    char bytes_[16];
};

}  // namespace smsgw
