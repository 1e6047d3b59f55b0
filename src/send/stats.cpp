#include "send/stats.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <string>

#include "common/bytes.h"
#include "common/fileops.h"
#include "common/trace.h"

namespace smsgw {

namespace {
constexpr long kApiHeader = 4;
constexpr long kApiRecord = 60;

bool pread_all(int fd, unsigned char* buf, size_t n, off_t off) {
    return ::pread(fd, buf, n, off) == static_cast<ssize_t>(n);
}
bool pwrite_all(int fd, const unsigned char* buf, size_t n, off_t off) {
    return ::pwrite(fd, buf, n, off) == static_cast<ssize_t>(n);
}
}  // namespace

void write_job_stats(const Runtime& rt, int a, int b, int c) {
    char text[64];
    int n = std::snprintf(text, sizeof text, "%d\n%d\n%d", a, b, c);
    std::string_view content(text, static_cast<size_t>(n));
    std::string path = rt.path("/var/config/job_stats_file");
    // The idle scheduler rewrites the same three numbers on every pass of the
    // loop; truncating a file forces a flush on some file systems, so an
    // unchanged file is left alone.
    static std::string last_path, last_content;
    if (path == last_path && content == last_content && read_file(path, 64) == last_content) return;
    if (write_file(path, content)) {
        last_path = path;
        last_content = std::string(content);
    }
}

bool ensure_sms_stats_file(const Runtime& rt) {
    std::string path = rt.path("/var/config/sms_stats_file");
    if (Fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC))) return true;
    return write_file(path, std::string(24, '\0'));
}

void count_sms_stat(const Runtime& rt, long offset) {
    trace("1 - %ld\n", offset);
    Fd fd(::open(rt.path("/var/config/sms_stats_file").c_str(), O_RDWR | O_CLOEXEC));
    if (!fd || offset < 0) return;
    trace("2 - %ld\n", offset);
    unsigned char b[4];
    if (!pread_all(fd.get(), b, 4, offset)) return;
    int32_t old = get_i32(b);
    trace("3 - %d\n", old);
    int32_t now = static_cast<int32_t>(static_cast<uint32_t>(old) + 1u);
    put_i32(b, now);
    pwrite_all(fd.get(), b, 4, offset);
    trace("4 - %d\n", now);
}

int set_api_status(const Runtime& rt, int id, int status) {
    Fd fd(::open(rt.path("/var/config/api_stat.st").c_str(), O_RDWR | O_CLOEXEC));
    if (!fd) return 0;
    unsigned char rec[kApiRecord];
    if (!pread_all(fd.get(), rec, kApiRecord, kApiHeader)) return 0;
    long long first = get_i32(rec);
    long long d = static_cast<long long>(id) - first - 1;
    // The position after reading the first record is the second record.
    long long pos = kApiHeader + kApiRecord;
    if (d >= 1)
        pos += d * kApiRecord;
    else if (d == -1)
        pos -= kApiRecord;
    // Records are made by the API front end; a position past the end would
    // leave a gap (a huge sparse file for an id from a hostile file name) that
    // every later scan would crawl through, so only existing records and
    // the one right after the last are written.
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0 || pos > static_cast<long long>(st.st_size)) return 0;
    unsigned char out[kApiRecord] = {};
    put_i32(out, id);
    put_i16(out + 4, static_cast<int16_t>(status));
    std::time_t now = std::time(nullptr);
    std::tm tm{};
    ::localtime_r(&now, &tm);
    int32_t words[11] = {
        tm.tm_sec,  tm.tm_min,  tm.tm_hour, tm.tm_mday,  tm.tm_mon,
        tm.tm_year, tm.tm_wday, tm.tm_yday, tm.tm_isdst, static_cast<int32_t>(tm.tm_gmtoff),
        0};
    for (int i = 0; i < 11; ++i) put_i32(out + 8 + 4 * static_cast<size_t>(i), words[i]);
    if (status == 6) {
        std::memcpy(out + 52, &rt.slave_address, 4);
        put_i32(out + 56, rt.slave_result);
    }
    pwrite_all(fd.get(), out, kApiRecord, static_cast<off_t>(pos));
    return 1;
}

bool get_api_time(const Runtime& rt, int id, int32_t out[11]) {
    Fd fd(::open(rt.path("/var/config/api_stat.st").c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) return false;
    unsigned char rec[kApiRecord];
    for (off_t pos = kApiHeader; pread_all(fd.get(), rec, kApiRecord, pos); pos += kApiRecord) {
        if (get_i32(rec) == id) {
            for (int i = 0; i < 11; ++i) out[i] = get_i32(rec + 8 + 4 * static_cast<size_t>(i));
            return true;
        }
    }
    return false;
}

}  // namespace smsgw
