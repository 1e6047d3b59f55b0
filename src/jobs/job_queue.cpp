#include "jobs/job_queue.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/fileops.h"
#include "common/net.h"
#include "common/text.h"
#include "common/trace.h"
#include "formats/position_table.h"
#include "jobs/job_records.h"
#include "send/stats.h"

namespace smsgw {

namespace {

constexpr size_t kTableSize = PositionTable::kSize;
constexpr size_t kBodyChunk = 2038;
// Bodies up to this size are queued with one write (see append_record).
constexpr int32_t kOneWriteBody = 1 << 20;
constexpr int kFiles = PositionTable::kFiles;
constexpr auto kHeaderSize = static_cast<int32_t>(JobHeader::kSize);
constexpr long long kEmptyFile = -1;  // repair result: nothing worth keeping

// True when a whole record of `length` bytes ends the file, as the table's
// last length says one does.
bool record_ends_file(int fd, long long size, long long length) {
    const long long at = size - length;
    if (length < static_cast<long long>(JobHeader::kSize) || at < 0) return false;
    const auto h = read_header_at(fd, at);
    return h && well_formed(*h, at, size) &&
           at + static_cast<long long>(JobHeader::kSize) + h->job_ln == size;
}

// The whole, well-formed records from the file's start: where they end,
// and the length of the last of them (0 when the first is not whole).
std::pair<long long, int32_t> whole_records(int fd, long long size) {
    long long end = 0;
    int32_t last = 0;
    while (end < size) {
        const auto h = read_header_at(fd, end);
        if (!h || !well_formed(*h, end, size)) break;
        last = h->job_ln + kHeaderSize;
        end += last;
    }
    return {end, last};
}

// True when the bytes from `from` to the end look like an append the power
// cut short: too few for a header, a header whose body runs past the end,
// or zeros only (the file grew, its data never reached the disk).
bool torn_tail(int fd, long long from, long long size) {
    if (size - from < static_cast<long long>(JobHeader::kSize)) return true;
    const auto h = read_header_at(fd, from);
    if (h && h->marker_ok && h->job_ln >= 0 && !well_formed(*h, from, size)) return true;
    char buf[kBodyChunk];
    for (long long at = from; at < size;) {
        ssize_t n = ::pread(fd, buf, sizeof buf, static_cast<off_t>(at));
        if (n <= 0) return false;
        for (ssize_t i = 0; i < n; ++i)
            if (buf[i] != '\0') return false;
        at += n;
    }
    return true;
}

// Copies bytes [from, end) of `in` into `out`.
bool copy_tail(int in, long long from, FILE* out) {
    char buf[kBodyChunk];
    for (off_t pos = static_cast<off_t>(from);;) {
        ssize_t n = ::pread(in, buf, sizeof buf, pos);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        if (n == 0) return true;
        if (std::fwrite(buf, 1, static_cast<size_t>(n), out) != static_cast<size_t>(n))
            return false;
        pos += n;
    }
}

// The body of a request being queued. Its name was checked before; if it
// was swapped for a link or a FIFO since, nothing is read through it.
Fd open_job_body(const std::string& path) {
    Fd in(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat st {};
    if (!in || ::fstat(in.get(), &st) != 0 || !S_ISREG(st.st_mode)) return Fd();
    return in;
}

// Up to `length` bytes of the body in memory, the file then deleted;
// nullopt (file kept) when it cannot be opened.
std::optional<std::string> read_job_body(const std::string& path, long long length) {
    Fd in = open_job_body(path);
    if (!in) return std::nullopt;
    std::string body(static_cast<size_t>(length), '\0');
    size_t got = 0;
    while (got < body.size()) {
        ssize_t n = ::read(in.get(), body.data() + got, body.size() - got);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        got += static_cast<size_t>(n);
    }
    body.resize(got);
    in.reset();
    remove_file(path);
    return body;
}

// Writes all of `data` unless an error stops it; how many bytes were written.
size_t write_counted(int fd, std::string_view data) {
    size_t done = 0;
    while (done < data.size()) {
        ssize_t n = ::write(fd, data.data() + done, data.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
    return done;
}

}  // namespace

bool copy_job_body(int out_fd, const std::string& path, long long length) {
    Fd in = open_job_body(path);
    if (!in) return false;
    long long copied = 0;
    char buf[kBodyChunk];
    while (copied < length) {
        size_t want = static_cast<size_t>(std::min<long long>(length - copied, kBodyChunk));
        ssize_t n = ::read(in.get(), buf, want);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        if (!write_all(out_fd, std::string_view(buf, static_cast<size_t>(n)))) break;
        copied += n;
    }
    in.reset();
    remove_file(path);
    return copied == length;
}

// ---------------------------------------------------------------- table --

// Owner of the shared 44-byte mapping of "/var/Jobs/pos_offset".
struct JobQueue::Mapping {
    Fd fd;
    void* addr = MAP_FAILED;
    ~Mapping() {
        if (addr != MAP_FAILED) ::munmap(addr, kTableSize);
    }
    std::string_view view() const { return std::string_view(static_cast<char*>(addr), kTableSize); }
    // A table that changed is on disk before the caller goes on: after a
    // power cut it must still describe the job files, whose appends and
    // front removals are synced before the table is stored.
    void store(std::string_view image) const {
        if (view() == image) return;
        std::memcpy(addr, image.data(), kTableSize);
        ::msync(addr, kTableSize, MS_SYNC);
    }
};

JobQueue::JobQueue(Runtime& rt, Sender& sender)
    : rt_(rt), sender_(sender), pause_([](unsigned s) { ::sleep(s); }) {}

JobQueue::~JobQueue() = default;

std::string JobQueue::pending_file(int index) const {
    return rt_.path("/var/Jobs/Pending_Jobs_" + std::to_string(index + 1));
}

std::string JobQueue::permodem_file() const {
    return rt_.path("/var/Jobs/PerModem_PendingJob");
}

bool JobQueue::try_init_job_pos_table() {
    auto m = std::make_unique<Mapping>();
    std::string path = rt_.path("/var/Jobs/pos_offset");
    m->fd.reset(::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644));
    struct stat st {};
    if (!m->fd || ::fstat(m->fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
    // A new table, or one cut short, reads as zeros where bytes are missing;
    // touching a mapped page past the end of the file would fault.
    if (st.st_size < static_cast<off_t>(kTableSize)) {
        if (::ftruncate(m->fd.get(), static_cast<off_t>(kTableSize)) != 0) return false;
        // On disk, name included, before anything relies on it.
        ::fsync(m->fd.get());
        fsync_dir_of(path);
    }
    m->addr = ::mmap(nullptr, kTableSize, PROT_READ | PROT_WRITE, MAP_SHARED, m->fd.get(), 0);
    if (m->addr == MAP_FAILED) return false;
    map_ = std::move(m);
    return true;
}

void JobQueue::init_job_pos_table() {
    if (try_init_job_pos_table()) return;
    std::fputs("Open Failed\n", stderr);
    std::exit(1);
}

void JobQueue::load_job_pos_table() {
    if (!map_) return;
    const PositionTable table = *decode_position_table(map_->view());
    P_POS_ = table.P_POS;
    L_POS_ = table.L_POS;
    TOTAL_SIZE_ = table.TOTAL_SIZE;
    for (int i = 0; i < kFiles; ++i) l_job_ln_[i] = table.l_job_ln[static_cast<size_t>(i)];
    // A damaged table must not name a file outside the ring: such an index
    // restarts at the first file (the reader then walks forward over missing
    // files to the writer), and a negative total counts as an empty queue.
    if (P_POS_ < 0 || P_POS_ >= kFiles) P_POS_ = 0;
    if (L_POS_ < 0 || L_POS_ >= kFiles) L_POS_ = 0;
    if (TOTAL_SIZE_ < 0) TOTAL_SIZE_ = 0;
    A_sz_ = l_job_ln_[P_POS_];
    trace("P_POS = %d,%d,%ld, %ld,\n", P_POS_, L_POS_, TOTAL_SIZE_, A_sz_);
    for (int i = 0; i < kFiles; ++i) trace("i= %d,%d\n", i, l_job_ln_[i]);
}

void JobQueue::update_job_pos_table(int32_t length, int file_index) {
    if (file_index < 0 || file_index >= kFiles) return;
    l_job_ln_[file_index] = length;
    if (!map_) return;
    map_->store(encode_position_table(position()));
    trace("UPD:%d,%d,%ld, %d\n", P_POS_, L_POS_, TOTAL_SIZE_, length);
}

PositionTable JobQueue::position() const {
    PositionTable table;
    table.P_POS = static_cast<int16_t>(P_POS_);
    table.L_POS = static_cast<int16_t>(L_POS_);
    table.TOTAL_SIZE = static_cast<int32_t>(TOTAL_SIZE_ > INT32_MAX ? INT32_MAX : TOTAL_SIZE_);
    for (int i = 0; i < kFiles; ++i) table.l_job_ln[static_cast<size_t>(i)] = l_job_ln_[i];
    return table;
}

// ---------------------------------------------------- front of job files --

int JobQueue::remove_first_job(const std::string& path) {
    Fd in(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!in) return 1;
    const std::optional<JobHeader> h = read_header_at(in.get(), 0);
    long long skip_to;
    if (!h)
        skip_to = LLONG_MAX;  // not even a header: nothing to keep
    else if (h->job_ln < 0)
        return 0;  // the skip cannot be made; the file stays as it is
    else
        skip_to = static_cast<long long>(JobHeader::kSize) + h->job_ln;
    cut_front(path, skip_to == LLONG_MAX ? file_size(path) : skip_to);
    return 0;
}

void JobQueue::cut_front(const std::string& path, long long cut) {
    if (cut <= 0) return;
    Fd in(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!in) return;
    std::string temp = rt_.path("/var/run/quayd_logrot_temp");
    FilePtr out = open_fixed_temp(temp, "w+");
    if (!out) return;
    bool ok = copy_tail(in.get(), cut, out.get());
    ok = std::fflush(out.get()) == 0 && ok;
    ok = ::fsync(fileno(out.get())) == 0 && ok;
    out.reset();
    if (!ok || !replace_file(temp, path)) remove_file(temp);
}

int32_t JobQueue::keep_whole_records(int fd, long long f_sz) {
    auto [whole, last] = whole_records(fd, f_sz);
    if (whole == 0 || (whole < f_sz && !torn_tail(fd, whole, f_sz))) return 0;
    if (whole < f_sz && (::ftruncate(fd, static_cast<off_t>(whole)) != 0 || ::fsync(fd) != 0))
        return 0;
    trace("kept %lld of %lld bytes\n", whole, f_sz);
    return last;
}

bool JobQueue::cut_torn_tail(int fd, long long f_sz) {
    if (record_ends_file(fd, f_sz, A_sz_)) return false;
    const int32_t last = keep_whole_records(fd, f_sz);
    if (last == 0) return false;
    A_sz_ = last;
    update_job_pos_table(last, P_POS_);
    return true;
}

void JobQueue::trim_torn_appends() {
    for (int i = 0; i < kFiles; ++i) {
        if (i == P_POS_) continue;
        const std::string path = pending_file(i);
        const long long size = file_size(path);
        Fd fd;
        if (size > 0) fd.reset(::open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC));
        const int32_t last = fd ? keep_whole_records(fd.get(), size) : 0;
        if (last != 0 && last != l_job_ln_[i]) update_job_pos_table(last, i);
    }
}

void JobQueue::repair_pending_file() {
    std::string path = pending_file(P_POS_);
    long long f_sz = file_size(path);
    Fd fd;
    if (f_sz > 0) fd.reset(::open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC));
    if (fd && cut_torn_tail(fd.get(), f_sz)) return;
    long long cut = kEmptyFile;
    if (fd) {
        trace("%ld - A_sz\n", A_sz_);
        // Walk the back-links from the end. Each step moves strictly towards
        // the start (a back-link shorter than a header is damage), so the
        // walk ends after at most f_sz / 108 reads.
        long long a_sz = A_sz_;
        long long last = -1;  // offset of the oldest record read so far
        for (;;) {
            long long l_sz = f_sz - a_sz;
            trace("l_sz = %lld, f_sz= %lld, A_sz=%lld\n", l_sz, f_sz, a_sz);
            if (l_sz < 1) {
                if (l_sz == 0 || last < 0) {
                    // The walk reached the file's start (or read nothing):
                    // the first record is kept when it is well-formed, so a
                    // file the scheduler finds damaged always shrinks.
                    const auto first = read_header_at(fd.get(), 0);
                    const bool keep = first && well_formed(*first, 0, f_sz);
                    cut = keep ? 0 : (last >= 0 ? last : kEmptyFile);
                } else {
                    cut = last;
                }
                break;
            }
            const auto h = read_header_at(fd.get(), l_sz);
            last = l_sz;
            if (!h || !h->marker_ok || h->p_job_ln < kHeaderSize) {
                // The chain begins here; this record stays first.
                cut = l_sz;
                break;
            }
            a_sz += h->p_job_ln;
        }
    }
    fd.reset();
    if (cut == kEmptyFile) {
        // Opened only to empty the file; closed again at once.
        // NOLINTNEXTLINE(bugprone-unused-raii)
        Fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644));
        return;
    }
    if (cut == 0) return;
    if (f_sz <= cut) {
        remove_file(path);
        return;
    }
    cut_front(path, cut);
}

// ------------------------------------------------------------ appenders --

namespace {

// The request line's argument (after the first blank, up to CR/LF), or
// nullopt when the line has no second word.
std::optional<std::string> request_argument(std::string_view line) {
    size_t sp = line.find(' ');
    if (sp == std::string_view::npos) return std::nullopt;
    std::string arg = cut_request_line(line.substr(sp + 1));
    if (arg.empty()) return std::nullopt;
    return arg;
}

Fd open_append(const std::string& path) {
    return Fd(::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644));
}

}  // namespace

Fd JobQueue::open_for_request(const std::string& target, long long body,
                              const std::string& request_file, bool api) {
    Fd out = open_append(target);
    if (out && TOTAL_SIZE_ < MAX_JOBS_FILE_LN && body <= INT32_MAX - kHeaderSize) return out;
    trace("Crossed limit TOTAL_SIZE = %ld, MAX_JOBS_FILE_LN=%ld\n", TOTAL_SIZE_, MAX_JOBS_FILE_LN);
    if (TOTAL_SIZE_ >= MAX_JOBS_FILE_LN) note_queue_full(api ? &request_file : nullptr);
    remove_file(request_file);
    return Fd();
}

void JobQueue::note_queue_full(const std::string* api_path) {
    write_file(rt_.path("/var/Jobs/jobfull"), "");
    job_full_ = true;
    if (api_path) {
        set_api_status(rt_, last_dash_number(*api_path), kApiQueueFull);
        set_api_status(rt_, last_dash_number(*api_path), kApiQueueFull);
    }
}

bool JobQueue::append_record(Fd& out, std::string_view header, const std::string& body_path,
                             int32_t job_ln, const std::string& target,
                             const std::string& body_rollback, long long old_size) {
    // A body that fits in memory goes out with its header in one write, so
    // a kill cannot leave the header alone at the end of the file: such a
    // torn record makes the start-up repair drop every record before it.
    std::string record(header);
    bool body_in_record = false, body_whole = false;
    if (job_ln <= kOneWriteBody) {
        if (auto body = read_job_body(body_path, job_ln)) {
            record += *body;
            body_in_record = true;
            body_whole = body->size() == static_cast<size_t>(job_ln);
        }
    }
    const size_t written = write_counted(out.get(), record);
    if (written < header.size()) {
        out.reset();
        truncate_file(target, old_size);
        return false;
    }
    // Counted once the header is out; a failed body does not take it back.
    TOTAL_SIZE_ += job_ln + kHeaderSize;
    bool ok = body_in_record ? body_whole && written == record.size()
                             : copy_job_body(out.get(), body_path, job_ln);
    if (!ok || ::fsync(out.get()) != 0) {
        out.reset();
        truncate_file(body_rollback, old_size);
        return false;
    }
    out.reset();
    // The file may have been created for this record: its name must
    // survive a power cut as well.
    if (old_size == 0) fsync_dir_of(target);
    return true;
}

// The writer moves on once its file has grown past the rotation size; it
// may wrap onto the file being read.
int JobQueue::rotate_write_file() {
    if (file_size(pending_file(L_POS_)) > kRotateSize) L_POS_ = next_file(L_POS_);
    return L_POS_;
}

void JobQueue::add_to_pending_jobs(std::string_view line) {
    trace("In fun %s\n", "add_to_pending_jobs");
    trace("Pending jobs : %s\n", pending_file(P_POS_).c_str());
    auto arg = request_argument(line);
    if (!arg) return;
    bool api = starts_with(*arg, "api ");
    std::string path = api ? arg->substr(4) : *arg;
    if (!sender_.request_file_allowed(path)) {
        trace("refused request file %s\n", path.c_str());
        return;
    }

    std::string target = pending_file(rotate_write_file());
    long long old_size = file_size(target);
    long long body = file_size(path);
    Fd out = open_for_request(target, body, path, api);
    if (!out) return;
    auto job_ln = static_cast<int32_t>(body);
    std::string header = encode_job_header(job_ln, l_job_ln_[L_POS_], line);
    trace(" job.job_ln  = %d,job.p_job_ln = %d, job.jobfromrom=%s\n", job_ln, l_job_ln_[L_POS_],
          std::string(line).c_str());
    if (!append_record(out, header, path, job_ln, target, target, old_size)) return;
    int32_t record = job_ln + kHeaderSize;
    trace("(job.job_ln + sizeof(job)) = %d\n", record);
    update_job_pos_table(record, L_POS_);
    sender_.counters().job_queued();
}

void JobQueue::add_to_pending_jobs_broadcasttrigger(const std::string* path, long length,
                                                    const std::optional<ApiOrigin>& api) {
    trace("In fun %s\n", "add_to_pending_jobs_broadcasttrigger");
    std::string from = "ISBRDTRIG";
    if (api) from += "api" + std::to_string(api->id) + "-" + api->user;
    // Measured before the rotation, so a rollback after a rotation cuts the
    // new file to the old file's size.
    long long old_size = file_size(pending_file(L_POS_));
    std::string target = pending_file(rotate_write_file());
    Fd out;
    if (path) out = open_append(target);
    if (!out || TOTAL_SIZE_ >= MAX_JOBS_FILE_LN || length > INT32_MAX - kHeaderSize) {
        trace("TOTAL_SIZE = %ld, MAX_JOBS_FILE_LN=%ld\n", TOTAL_SIZE_, MAX_JOBS_FILE_LN);
        if (TOTAL_SIZE_ >= MAX_JOBS_FILE_LN) note_queue_full(nullptr);
        if (path) remove_file(*path);
        return;
    }
    if (length == -1) {
        remove_file(*path);
        return;
    }
    auto job_ln = static_cast<int32_t>(length);
    std::string header = encode_job_header(job_ln, l_job_ln_[L_POS_], from);
    if (!append_record(out, header, *path, job_ln, target, target, old_size)) return;
    sender_.counters().job_queued();
    update_job_pos_table(job_ln + kHeaderSize, L_POS_);
}

int JobQueue::add_to_permodem_pending_jobs(std::string_view line) {
    trace("In fun %s\n", "add_to_permodem_pending_jobs");
    auto arg = request_argument(line);
    if (!arg) return -1;
    const std::string& path = *arg;  // an "api " prefix stays part of it
    const bool api = starts_with(path, "api ");
    const std::string file = api ? path.substr(4) : path;
    std::string target = permodem_file();
    long long old_size = file_size(target);
    long long body = file_size(path);
    Fd out = open_for_request(target, body, file, api);
    if (!out) return -1;
    auto job_ln = static_cast<int32_t>(body);
    std::string header = encode_job_header(job_ln, 0, line);
    // A failed body is rolled back in the ring's write file (to the per-modem
    // file's old size), not in the per-modem file: the scheduler drops a torn
    // per-modem record as damaged.
    if (!append_record(out, header, path, job_ln, target, pending_file(L_POS_), old_size))
        return -1;
    permodem_written_ = true;
    return 0;
}

}  // namespace smsgw
