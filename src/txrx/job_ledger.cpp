#include "txrx/job_ledger.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace smsgw::txrx {

namespace {

constexpr char kMagic[] = "TXRXLDG1";
constexpr size_t kHeaderSize = 64;
constexpr size_t kEntriesAt = kHeaderSize + JobLedger::kPathSize;
constexpr size_t kEntrySize = 8;
constexpr uint8_t kClaimed = 1;

void put_u32(std::string& s, size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) s[at + i] = static_cast<char>(v >> (24 - 8 * i));
}
uint32_t get_u32(std::string_view s, size_t at) {
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i) v = v << 8 | static_cast<unsigned char>(s[at + i]);
    return v;
}

bool pread_all(int fd, std::string& buf, size_t at) {
    return ::pread(fd, buf.data(), buf.size(), static_cast<off_t>(at)) ==
           static_cast<ssize_t>(buf.size());
}
bool pwrite_all(int fd, std::string_view buf, size_t at) {
    return ::pwrite(fd, buf.data(), buf.size(), static_cast<off_t>(at)) ==
           static_cast<ssize_t>(buf.size());
}

// FNV-1a: a short, stable file name for any job path.
uint64_t name_hash(const std::string& s) {
    uint64_t h = 1469598103934665603ull;
    for (unsigned char c : s) h = (h ^ c) * 1099511628211ull;
    return h;
}

}  // namespace

std::string encode_ledger_header(const LedgerHeader& h) {
    std::string out(kEntriesAt, '\0');
    std::memcpy(out.data(), kMagic, 8);
    put_u32(out, 8, h.count);
    put_u32(out, 12, h.next);
    put_u32(out, 16, h.recorded);
    put_u32(out, 20, h.delivered);
    out[24] = h.api ? 1 : 0;
    out[25] = h.finished ? 1 : 0;
    out[26] = h.reported ? 1 : 0;
    put_u32(out, 28, static_cast<uint32_t>(h.created_ms >> 32));
    put_u32(out, 32, static_cast<uint32_t>(h.created_ms));
    std::memcpy(out.data() + kHeaderSize, h.job_path.data(),
                std::min(h.job_path.size(), JobLedger::kPathSize - 1));
    return out;
}

std::optional<LedgerHeader> decode_ledger_header(std::string_view b) {
    if (b.size() < kEntriesAt || b.substr(0, 8) != std::string_view(kMagic, 8)) return std::nullopt;
    LedgerHeader h;
    h.count = get_u32(b, 8);
    h.next = get_u32(b, 12);
    h.recorded = get_u32(b, 16);
    h.delivered = get_u32(b, 20);
    h.api = b[24] != 0;
    h.finished = b[25] != 0;
    h.reported = b[26] != 0;
    h.created_ms = static_cast<uint64_t>(get_u32(b, 28)) << 32 | get_u32(b, 32);
    std::string_view path = b.substr(kHeaderSize, JobLedger::kPathSize);
    h.job_path = std::string(path.substr(0, path.find('\0')));
    if (h.next > h.count || h.recorded > h.count || h.delivered > h.recorded) return std::nullopt;
    return h;
}

std::string JobLedger::file_for(const std::string& dir, const std::string& job_path) {
    char name[32];
    std::snprintf(name, sizeof name, "job-%016llx",
                  static_cast<unsigned long long>(name_hash(job_path)));
    return dir + "/" + name;
}

std::optional<JobLedger> JobLedger::create(const std::string& file, const LedgerHeader& h,
                                           bool* exists) {
    // Written under a temporary name and linked into place, so nobody
    // ever sees a half-written ledger.
    std::string temp = file + ".new";
    ::unlink(temp.c_str());
    Fd fd(::open(temp.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    *exists = false;
    if (!fd) return std::nullopt;
    std::string image = encode_ledger_header(h);
    image.resize(kEntriesAt + kEntrySize * h.count, '\0');
    bool ok = pwrite_all(fd.get(), image, 0) && ::fsync(fd.get()) == 0;
    ok = ok && ::link(temp.c_str(), file.c_str()) == 0;
    *exists = !ok && errno == EEXIST;
    ::unlink(temp.c_str());
    if (!ok) return std::nullopt;
    return JobLedger(std::move(fd), file);
}

std::optional<JobLedger> JobLedger::open(const std::string& file) {
    Fd fd(::open(file.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC));
    if (!fd) return std::nullopt;
    return JobLedger(std::move(fd), file);
}

bool JobLedger::lock(bool on) {
    struct flock fl {};
    fl.l_type = on ? F_WRLCK : F_UNLCK;
    fl.l_whence = SEEK_SET;
    while (::fcntl(fd_.get(), F_SETLKW, &fl) != 0)
        if (errno != EINTR) return false;
    return true;
}

std::optional<LedgerHeader> JobLedger::header() {
    std::string buf(kEntriesAt, '\0');
    if (!pread_all(fd_.get(), buf, 0)) return std::nullopt;
    return decode_ledger_header(buf);
}

void JobLedger::mark_api() {
    if (!lock(true)) return;
    pwrite_all(fd_.get(), std::string(1, '\1'), 24);
    lock(false);
}

void JobLedger::set_reported() {
    pwrite_all(fd_.get(), std::string(1, '\1'), 26);
}

std::optional<uint32_t> JobLedger::claim(pid_t self, const std::function<bool(pid_t)>& alive) {
    if (!lock(true)) return std::nullopt;
    std::optional<uint32_t> got;
    auto h = header();
    std::string entry(kEntrySize, '\0');
    entry[0] = static_cast<char>(kClaimed);
    put_u32(entry, 4, static_cast<uint32_t>(self));
    if (h && h->next < h->count) {
        got = h->next;
        std::string next(4, '\0');
        put_u32(next, 0, h->next + 1);
        pwrite_all(fd_.get(), next, 12);
    } else if (h && !h->finished) {
        // Everything was claimed once: take over from a claimer that died.
        std::string e(kEntrySize, '\0');
        for (uint32_t i = 0; i < h->count && !got; ++i) {
            if (!pread_all(fd_.get(), e, kEntriesAt + kEntrySize * i)) break;
            auto owner = static_cast<pid_t>(get_u32(e, 4));
            if (e[0] == static_cast<char>(kClaimed) && !alive(owner)) got = i;
        }
    }
    if (got) pwrite_all(fd_.get(), entry, kEntriesAt + kEntrySize * *got);
    lock(false);
    return got;
}

bool JobLedger::record(uint32_t index, Outcome outcome) {
    if (!lock(true)) return false;
    bool last = false;
    auto h = header();
    std::string e(kEntrySize, '\0');
    const size_t at = kEntriesAt + kEntrySize * index;
    if (h && index < h->count && pread_all(fd_.get(), e, at) && e[0] == char(kClaimed)) {
        e[0] = static_cast<char>(outcome);
        pwrite_all(fd_.get(), e, at);
        h->recorded += 1;
        if (outcome == Outcome::sent) h->delivered += 1;
        last = h->recorded == h->count && !h->finished;
        h->finished = h->finished || last;
        std::string head = encode_ledger_header(*h);
        pwrite_all(fd_.get(), std::string_view(head).substr(0, kHeaderSize), 0);
        if (last) ::fdatasync(fd_.get());
    }
    lock(false);
    return last;
}

}  // namespace smsgw::txrx
