#include <algorithm>
#include <cstdio>
#include <cstring>

#include "addressbook/address_book_util.h"

namespace smsgw {

bool LineReader::next(std::string& line, size_t keep) {
    line.clear();
    bool any = false;
    bool cut = false;
    for (;;) {
        if (pos_ == len_) {
            len_ = std::fread(buf_.data(), 1, buf_.size(), f_);
            pos_ = 0;
            if (len_ == 0) return any;
        }
        any = true;
        const char* start = buf_.data() + pos_;
        size_t avail = len_ - pos_;
        const void* nl = std::memchr(start, '\n', avail);
        size_t seg = nl ? static_cast<size_t>(static_cast<const char*>(nl) - start) + 1 : avail;
        if (!cut) {
            const void* nul = std::memchr(start, '\0', seg);
            size_t take = seg;
            if (nul) {
                take = static_cast<size_t>(static_cast<const char*>(nul) - start);
                cut = true;
            }
            if (line.size() < keep) line.append(start, std::min(take, keep - line.size()));
        }
        pos_ += seg;
        if (nl) return true;
    }
}

bool LineReader::next_view(std::string_view& line, size_t keep) {
    const char* start = buf_.data() + pos_;
    size_t avail = len_ - pos_;
    const void* nl = avail ? std::memchr(start, '\n', avail) : nullptr;
    if (!nl) {
        if (!next(carry_, keep)) return false;
        line = carry_;
        return true;
    }
    size_t seg = static_cast<size_t>(static_cast<const char*>(nl) - start) + 1;
    const void* nul = std::memchr(start, '\0', seg);
    size_t take = nul ? static_cast<size_t>(static_cast<const char*>(nul) - start) : seg;
    line = std::string_view(start, std::min(take, keep));
    pos_ += seg;
    return true;
}

}  // namespace smsgw
