#include "send/stats.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <string>

#include "common/fileops.h"
#include "common/trace.h"

namespace smsgw {

namespace {

bool pread_all(int fd, std::string& buf, off_t off) {
    return ::pread(fd, buf.data(), buf.size(), off) == static_cast<ssize_t>(buf.size());
}
bool pwrite_all(int fd, std::string_view buf, off_t off) {
    return ::pwrite(fd, buf.data(), buf.size(), off) == static_cast<ssize_t>(buf.size());
}

std::array<int32_t, ApiStatRecord::kTimeWords> local_time_words() {
    std::time_t now = std::time(nullptr);
    std::tm tm{};
    ::localtime_r(&now, &tm);
    return {tm.tm_sec,  tm.tm_min,  tm.tm_hour, tm.tm_mday,  tm.tm_mon,
            tm.tm_year, tm.tm_wday, tm.tm_yday, tm.tm_isdst, static_cast<int32_t>(tm.tm_gmtoff),
            0};
}

}  // namespace

void JobCounters::job_queued() {
    ++stats_.jobs;
    write();
}

void JobCounters::handed_off() {
    --stats_.jobs;
    if (++stats_.handoffs < 0) stats_.handoffs = 0;
    write();
}

void JobCounters::replied_to_peer() {
    --stats_.jobs;
    if (++stats_.peer_replies < 0) stats_.peer_replies = 0;
    write();
}

void JobCounters::queue_drained() {
    stats_.jobs = 0;
    write();
}

std::optional<JobCounters::FileMark> JobCounters::file_mark(const std::string& path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) return std::nullopt;
    return FileMark{st.st_dev, st.st_ino, st.st_size, st.st_mtim, st.st_ctim};
}

bool JobCounters::same(const std::optional<FileMark>& a, const std::optional<FileMark>& b) {
    auto same_time = [](const timespec& x, const timespec& y) {
        return x.tv_sec == y.tv_sec && x.tv_nsec == y.tv_nsec;
    };
    return a && b && a->dev == b->dev && a->ino == b->ino && a->size == b->size &&
           same_time(a->mtime, b->mtime) && same_time(a->ctime, b->ctime);
}

void JobCounters::write() {
    const std::string content = encode_job_stats(stats_);
    const std::string path = rt_.path("/var/config/job_stats_file");
    // The idle scheduler asks for the same three numbers on every pass of the
    // loop. Truncating a file forces a flush on some file systems, so an
    // unchanged file is left alone; and while it is still the file last
    // written or found with these numbers, it need not even be read.
    std::optional<FileMark> mark = file_mark(path);
    if (content == written_ && same(mark, written_mark_)) return;
    if (!mark || read_file(path, 64) != content) {
        if (!write_file(path, content)) {
            written_.clear();
            return;
        }
        mark = file_mark(path);
    }
    written_ = content;
    written_mark_ = mark;
}

bool ensure_sms_stats_file(const Runtime& rt) {
    std::string path = rt.path("/var/config/sms_stats_file");
    if (Fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC))) return true;
    return write_file(path, encode_sms_stats(SmsStats{}));
}

void count_sms_stat(const Runtime& rt, long offset) {
    trace("1 - %ld\n", offset);
    Fd fd(::open(rt.path("/var/config/sms_stats_file").c_str(), O_RDWR | O_CLOEXEC));
    if (!fd || offset < 0) return;
    trace("2 - %ld\n", offset);
    std::string word(4, '\0');
    if (!pread_all(fd.get(), word, offset)) return;
    const int32_t old = *decode_sms_counter(word);
    trace("3 - %d\n", old);
    const auto now = static_cast<int32_t>(static_cast<uint32_t>(old) + 1u);
    pwrite_all(fd.get(), encode_sms_counter(now), offset);
    trace("4 - %d\n", now);
}

int set_api_status(const Runtime& rt, int id, int status, const PeerResult& peer) {
    Fd fd(::open(rt.path("/var/config/api_stat.st").c_str(), O_RDWR | O_CLOEXEC));
    if (!fd) return 0;
    std::string first(ApiStatRecord::kSize, '\0');
    if (!pread_all(fd.get(), first, ApiStatRecord::kHeaderSize)) return 0;
    const long long pos = api_stat_record_offset(decode_api_stat_record(first)->id, id);
    // Records are made by the API front end; a position past the end would
    // leave a gap (a huge sparse file for an id from a hostile file name) that
    // every later scan would crawl through, so only existing records and
    // the one right after the last are written.
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0 || pos > static_cast<long long>(st.st_size)) return 0;
    ApiStatRecord record;
    record.id = id;
    record.status = static_cast<int16_t>(status);
    record.time = local_time_words();
    if (status == kApiSentByPeer) {
        record.peer_address = peer.address;
        record.peer_result = peer.value;
    }
    pwrite_all(fd.get(), encode_api_stat_record(record), static_cast<off_t>(pos));
    return 1;
}

}  // namespace smsgw
