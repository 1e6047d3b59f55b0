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
#include "formats/txrx_datagram.h"
#include "send/stats.h"

namespace smsgw {

namespace {

constexpr size_t kTableSize = PositionTable::kSize;
constexpr size_t kBodyChunk = 2038;
// Bodies up to this size are queued with one write (see append_record).
constexpr int32_t kOneWriteBody = 1 << 20;
constexpr size_t kRequestChunk = 2047;
constexpr int kFiles = 9;
constexpr long long kEmptyFile = -1;  // repair result: nothing worth keeping

bool pread_header(int fd, long long offset, JobHeader& h) {
    char b[JobHeader::kSize];
    if (::pread(fd, b, sizeof b, static_cast<off_t>(offset)) != static_cast<ssize_t>(sizeof b))
        return false;
    h = *decode_job_header(std::string_view(b, sizeof b));
    return true;
}

// The header at the front of a job file; missing bytes read as zeros, so
// an empty file gives job_ln 0.
JobHeader read_front_header(FILE* job) {
    char b[JobHeader::kSize] = {};
    std::fread(b, 1, sizeof b, job);
    return *decode_job_header(std::string_view(b, sizeof b));
}

// A header at `offset` whose body fits in a file of `size` bytes.
bool well_formed(const JobHeader& h, long long offset, long long size) {
    return h.marker_ok && h.job_ln >= 0 &&
           h.job_ln <= size - offset - static_cast<long long>(JobHeader::kSize);
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

std::string cut_request_line(std::string_view text) {
    return std::string(text.substr(0, text.find_first_of("\r\n")));
}

// The request file a queued job came from, recreated from its body (a
// planted symlink at the name is replaced, not followed). False when it
// cannot be created.
bool recreate_request_file(FILE* job, const std::string& name, long long length) {
    FilePtr out = open_fixed_temp(name, "w+");
    if (!out) return false;
    char buf[kRequestChunk];
    while (length > 0) {
        size_t want = static_cast<size_t>(std::min<long long>(length, kRequestChunk));
        size_t n = std::fread(buf, 1, want, job);
        if (n == 0) break;
        std::fwrite(buf, 1, n, out.get());
        length -= static_cast<long long>(n);
    }
    return std::fflush(out.get()) == 0;
}

// The request file named in a request line: after "send-sms api " or after
// "send-sms" and one character, up to CR/LF.
std::string request_file_name(std::string_view line) {
    size_t skip = starts_with(line, "send-sms api ") ? 13 : std::min<size_t>(9, line.size());
    return cut_request_line(line.substr(skip));
}

}  // namespace

namespace {

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
    void store(std::string_view image) const { std::memcpy(addr, image.data(), kTableSize); }
};

JobQueue::JobQueue(Runtime& rt, Sender& sender)
    : sleep_seconds([](unsigned s) { ::sleep(s); }), rt_(rt), sender_(sender) {}

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
    if (st.st_size < static_cast<off_t>(kTableSize) &&
        ::ftruncate(m->fd.get(), static_cast<off_t>(kTableSize)) != 0)
        return false;
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
    P_POS = table.P_POS;
    L_POS = table.L_POS;
    TOTAL_SIZE = table.TOTAL_SIZE;
    for (int i = 0; i < kFiles; ++i) l_job_ln[i] = table.l_job_ln[static_cast<size_t>(i)];
    // A damaged table must not name a file outside the ring: such an index
    // restarts at the first file (the reader then walks forward over missing
    // files to the writer), and a negative total counts as an empty queue.
    if (P_POS < 0 || P_POS >= kFiles) P_POS = 0;
    if (L_POS < 0 || L_POS >= kFiles) L_POS = 0;
    if (TOTAL_SIZE < 0) TOTAL_SIZE = 0;
    A_sz = l_job_ln[P_POS];
    trace("P_POS = %d,%d,%ld, %ld,\n", P_POS, L_POS, TOTAL_SIZE, A_sz);
    for (int i = 0; i < kFiles; ++i) trace("i= %d,%d\n", i, l_job_ln[i]);
}

void JobQueue::update_job_pos_table(int32_t length, int file_index) {
    if (file_index < 0 || file_index >= kFiles) return;
    l_job_ln[file_index] = length;
    if (!map_) return;
    PositionTable table;
    table.P_POS = static_cast<int16_t>(P_POS);
    table.L_POS = static_cast<int16_t>(L_POS);
    table.TOTAL_SIZE = static_cast<int32_t>(TOTAL_SIZE > INT32_MAX ? INT32_MAX : TOTAL_SIZE);
    for (int i = 0; i < kFiles; ++i) table.l_job_ln[static_cast<size_t>(i)] = l_job_ln[i];
    map_->store(encode_position_table(table));
    trace("UPD:%d,%d,%ld, %d\n", P_POS, L_POS, TOTAL_SIZE, length);
}

// ---------------------------------------------------- front of job files --

int JobQueue::remove_first_job(const std::string& path) {
    Fd in(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!in) return 1;
    JobHeader h;
    long long skip_to;
    if (!pread_header(in.get(), 0, h))
        skip_to = LLONG_MAX;  // not even a header: nothing to keep
    else if (h.job_ln < 0)
        return 0;  // the skip cannot be made; the file stays as it is
    else
        skip_to = static_cast<long long>(JobHeader::kSize) + h.job_ln;
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

void JobQueue::repair_pending_file() {
    std::string path = pending_file(P_POS);
    long long f_sz = file_size(path);
    Fd fd;
    if (f_sz > 0) fd.reset(::open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC));
    long long cut = kEmptyFile;
    if (fd) {
        trace("%ld - A_sz\n", A_sz);
        // Walk the back-links from the end. Each step moves strictly towards
        // the start (a back-link shorter than a header is damage), so the
        // walk ends after at most f_sz / 108 reads.
        long long a_sz = A_sz;
        long long last = -1;  // offset of the oldest record read so far
        for (;;) {
            long long l_sz = f_sz - a_sz;
            trace("l_sz = %lld, f_sz= %lld, A_sz=%lld\n", l_sz, f_sz, a_sz);
            if (l_sz < 1) {
                if (l_sz == 0 || last < 0) {
                    // The walk reached the file's start (or read nothing):
                    // the first record is kept when it is well-formed, so a
                    // file the scheduler finds damaged always shrinks.
                    JobHeader first;
                    bool keep = pread_header(fd.get(), 0, first) && well_formed(first, 0, f_sz);
                    cut = keep ? 0 : (last >= 0 ? last : kEmptyFile);
                } else {
                    cut = last;
                }
                break;
            }
            JobHeader h;
            bool ok = pread_header(fd.get(), l_sz, h);
            last = l_sz;
            if (!ok || !h.marker_ok || h.p_job_ln < static_cast<int32_t>(JobHeader::kSize)) {
                // The chain begins here; this record stays first.
                cut = l_sz;
                break;
            }
            a_sz += h.p_job_ln;
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
    if (out && TOTAL_SIZE < MAX_JOBS_FILE_LN && body <= INT32_MAX - 108) return out;
    trace("Crossed limit TOTAL_SIZE = %ld, MAX_JOBS_FILE_LN=%ld\n", TOTAL_SIZE, MAX_JOBS_FILE_LN);
    if (TOTAL_SIZE >= MAX_JOBS_FILE_LN) note_queue_full(api ? &request_file : nullptr);
    remove_file(request_file);
    return Fd();
}

void JobQueue::note_queue_full(const std::string* api_path) {
    write_file(rt_.path("/var/Jobs/jobfull"), "");
    job_full = 1;
    if (api_path) {
        set_api_status(rt_, last_dash_number(*api_path), 608);
        set_api_status(rt_, last_dash_number(*api_path), 608);
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
    TOTAL_SIZE += job_ln + static_cast<long>(kHeaderSize);
    bool ok = body_in_record ? body_whole && written == record.size()
                             : copy_job_body(out.get(), body_path, job_ln);
    if (!ok || ::fsync(out.get()) != 0) {
        out.reset();
        truncate_file(body_rollback, old_size);
        return false;
    }
    out.reset();
    return true;
}

void JobQueue::count_queued_job() {
    ++rt_.jobs_to_txrx_count;
    write_job_stats(rt_, rt_.jobs_to_txrx_count, sender_.peer_reply_count, sender_.handoff_count);
}

void JobQueue::add_to_pending_jobs(std::string_view line) {
    trace("In fun %s\n", "add_to_pending_jobs");
    trace("Pending jobs : %s\n", pending_file(P_POS).c_str());
    auto arg = request_argument(line);
    if (!arg) return;
    bool api = starts_with(*arg, "api ");
    std::string path = api ? arg->substr(4) : *arg;
    if (!sender_.request_file_allowed(path)) {
        trace("refused request file %s\n", path.c_str());
        return;
    }

    if (file_size(pending_file(L_POS)) > kRotateSize) L_POS = L_POS + 1 > 8 ? 0 : L_POS + 1;
    std::string target = pending_file(L_POS);
    long long old_size = file_size(target);
    long long body = file_size(path);
    Fd out = open_for_request(target, body, path, api);
    if (!out) return;
    auto job_ln = static_cast<int32_t>(body);
    std::string header = encode_job_header(job_ln, l_job_ln[L_POS], line);
    trace(" job.job_ln  = %d,job.p_job_ln = %d, job.jobfromrom=%s\n", job_ln, l_job_ln[L_POS],
          std::string(line).c_str());
    if (!append_record(out, header, path, job_ln, target, target, old_size)) return;
    int32_t record = job_ln + static_cast<int32_t>(kHeaderSize);
    trace("(job.job_ln + sizeof(job)) = %d\n", record);
    update_job_pos_table(record, L_POS);
    count_queued_job();
}

void JobQueue::add_to_pending_jobs_broadcasttrigger(const std::string* path, long length) {
    trace("In fun %s\n", "add_to_pending_jobs_broadcasttrigger");
    std::string from = "ISBRDTRIG";
    if (rt_.api_trigger.pending) {
        from += "api" + std::to_string(rt_.api_trigger.id) + "-" + rt_.api_trigger.sender;
        rt_.api_trigger.pending = 0;
        rt_.api_trigger.id = 0;
        rt_.api_trigger.sender.clear();
    }
    // Measured before the rotation, so a rollback after a rotation cuts the
    // new file to the old file's size.
    long long old_size = file_size(pending_file(L_POS));
    if (file_size(pending_file(L_POS)) > kRotateSize) L_POS = L_POS + 1 > 8 ? 0 : L_POS + 1;
    std::string target = pending_file(L_POS);
    Fd out;
    if (path) out = open_append(target);
    if (!out || TOTAL_SIZE >= MAX_JOBS_FILE_LN || length > INT32_MAX - 108) {
        trace("TOTAL_SIZE = %ld, MAX_JOBS_FILE_LN=%ld\n", TOTAL_SIZE, MAX_JOBS_FILE_LN);
        if (TOTAL_SIZE >= MAX_JOBS_FILE_LN) note_queue_full(nullptr);
        if (path) remove_file(*path);
        return;
    }
    if (length == -1) {
        remove_file(*path);
        return;
    }
    auto job_ln = static_cast<int32_t>(length);
    std::string header = encode_job_header(job_ln, l_job_ln[L_POS], from);
    if (!append_record(out, header, *path, job_ln, target, target, old_size)) return;
    count_queued_job();
    update_job_pos_table(job_ln + static_cast<int32_t>(kHeaderSize), L_POS);
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
    // A failed body cuts the ring's write file, not the per-modem file: the
    // queue has always recovered this way and depends on it.
    if (!append_record(out, header, path, job_ln, target, pending_file(L_POS), old_size)) return -1;
    permodem_written = 1;
    return 0;
}

// ------------------------------------------------------------ scheduler --

void JobQueue::advance_read_index() {
    P_POS = P_POS + 1 > 8 ? 0 : P_POS + 1;
    if (job_full == 1) remove_file(rt_.path("/var/Jobs/jobfull"));
    job_full = 0;
    trace("P__POS = %d, L_POS = %d\n", P_POS, L_POS);
}

void JobQueue::queue_drained() {
    TOTAL_SIZE = 0;
    rt_.jobs_to_txrx_count = 0;
    write_job_stats(rt_, 0, sender_.peer_reply_count, sender_.handoff_count);
    if (job_full == 1) remove_file(rt_.path("/var/Jobs/jobfull"));
    job_full = 0;
    store_table();
}

int JobQueue::write_permodem_request(const std::string& path) {
    if (!current_broadcast) return -1;
    std::string numbers;
    for (auto field : split_fields(current_broadcast->group, " ,\"", 4096)) {
        numbers.append(field);
        numbers.append(kSep);
    }
    Fd fd(::open(path.c_str(), O_WRONLY | O_TRUNC | O_NOFOLLOW | O_CLOEXEC));
    if (!fd) return -1;
    std::string image = build_request_file("admin", current_broadcast->text, numbers, "", "");
    if (!write_all(fd.get(), image)) return -1;
    return fd.close_checked() ? 0 : -1;
}

void JobQueue::create_job_from_pending_jobs(int mode) {
    if (mode == 0 && rt_.job_outstanding == 1) return;
    trace("In Function: %s\n", "create_job_from_pending_jobs");

    if (mode == 0 && permodem_pending) {
        FilePtr job = open_file(permodem_file(), "r");
        // A side file that is gone, or that starts with an empty record,
        // would hold the ring back for good: the flag is dropped, or the
        // empty record removed, and the next run goes on.
        if (!job) {
            trace("Unable to open Permodem Job File\n");
            permodem_pending = 0;
            return;
        }
        JobHeader h = read_front_header(job.get());
        if (h.job_ln == 0 || h.job_ln == -1) {
            job.reset();
            cut_front(permodem_file(), static_cast<long long>(JobHeader::kSize));
            if (file_size(permodem_file()) == 0) {
                remove_file(permodem_file());
                permodem_pending = 0;
            }
            return;
        }
        if (!well_formed(h, 0, file_size(permodem_file()))) {
            // Nothing reliable is left in the side file.
            job.reset();
            remove_file(permodem_file());
            permodem_pending = 0;
            return;
        }
        trace("Func - %s - Count -%d\n", "create_job_from_pending_jobs", h.job_ln);
        trace("Fl- Name = %s\n", h.jobfromrom.c_str());
        std::string_view line = h.jobfromrom;
        std::string name = cut_request_line(line.substr(std::min<size_t>(9, line.size())));
        // As for ring records: a damaged side file must not make us create
        // a file wherever its record points.
        if (sender_.request_path_allowed(name)) {
            if (!recreate_request_file(job.get(), name, h.job_ln)) return;
            job.reset();
            sender_.hand_off_job(h.jobfromrom);
        }
        job.reset();
        bookkeeping(mode, h, true);
        return;
    }

    trace("In Again\n");
    FilePtr job;
    JobHeader h;
    int repairs = 0;
    for (;;) {
        trace("Before DO\n");
        std::string path = pending_file(P_POS);
        trace("Before fopen = %s\n", path.c_str());
        store_table();
        job = open_file(path, "r");
        trace("P_POS = %d, L_POS = %d, TOTAL_SIZE = %ld\n", P_POS, L_POS, TOTAL_SIZE);
        if (!job) {
            trace("\n fp == NULL)\n");
            if (P_POS == L_POS) {
                queue_drained();
                return;
            }
            advance_read_index();
            continue;
        }
        h = read_front_header(job.get());
        if (h.job_ln == 0 || h.job_ln == -1) {
            job.reset();
            trace("\n if(count == 0 || count == -1)\n");
            if (P_POS == L_POS) {
                remove_file(path);
                queue_drained();
                return;
            }
            advance_read_index();
            continue;
        }
        trace("Func - %s - Count -%d\n", "create_job_from_pending_jobs", h.job_ln);
        if (well_formed(h, 0, file_size(path))) break;

        char report[96];
        int n = std::snprintf(report, sizeof report, "Corrupted pendingjobs = %d, count = %d\n\n",
                              P_POS, h.job_ln);
        write_file(rt_.path("/var/run/test.log.pending"),
                   std::string_view(report, static_cast<size_t>(n)));
        job.reset();
        load_job_pos_table();
        // Two repairs always leave a well-formed first record or an empty
        // file; the bound only guards against a file changing underneath.
        if (++repairs > 3)
            Fd(::open(path.c_str(), O_WRONLY | O_TRUNC | O_NOFOLLOW | O_CLOEXEC));
        else
            repair_pending_file();
    }

    trace("Fl- Name = %s\n", h.jobfromrom.c_str());
    if (starts_with(h.jobfromrom, "ISBRDTRIG")) {
        take_broadcast(job.get(), h, mode);
        return;
    }
    const std::string& line = h.jobfromrom;
    std::string name = request_file_name(line);
    // A record naming a place no request may come from is consumed without
    // recreating its file there.
    if (sender_.request_path_allowed(name)) {
        if (!recreate_request_file(job.get(), name, h.job_ln)) return;  // stays queued
        job.reset();
        if (mode == 0) {
            sender_.hand_off_job(line);
        } else {
            trace("sending to lb_handler\n");
            sender_.send_sms_handler(line, 1);
            sender_.reply_to_peer();
        }
    }
    job.reset();
    bookkeeping(mode, h, false);
}

void JobQueue::take_broadcast(FILE* job_file, const JobHeader& h, int mode) {
    // The body is job_ln bytes (well_formed bounded it by the file); one
    // too short for its fixed fields carries no broadcast and is consumed.
    std::string body(static_cast<size_t>(h.job_ln), '\0');
    body.resize(std::fread(body.data(), 1, body.size(), job_file));
    std::optional<BroadcastRecord> rec = decode_broadcast_body(body);
    if (!rec) {
        bookkeeping(mode, h, false);
        return;
    }
    trace("%s\n", rec->sender.c_str());
    trace("%s\n", rec->text.c_str());
    // "ISBRDTRIG", or "ISBRDTRIGapi" ID "-" USER for one from the API.
    const std::string& line = h.jobfromrom;
    size_t api_at = line.find("api");
    if (api_at != std::string::npos) {
        size_t dash = line.find('-', api_at + 3);
        if (dash == std::string::npos) {
            api_request_id_text = "0";
            api_user = "admin";
        } else {
            api_request_id_text = line.substr(api_at + 3, dash - api_at - 3);
            api_user = line.substr(dash + 1);
        }
        api_job = 1;
    }
    current_broadcast = std::move(rec);

    if (mode == 0) {
        SendActionResult result;
        if (send_action) result = send_action(0);
        // Nothing to hand over when the action made no job (no such group).
        if (send_action && !result.queued && !result.request_file.empty()) {
            const std::string msg = encode_broadcast_handoff(result.request_file, api_job != 0);
            api_job = 0;
            send_udp(rt_.ports.txrx_out(), msg.data(), msg.size());
            trace("Job sent to txrx\r\n");
        }
        bookkeeping(mode, h, false);
        return;
    }
    if (!api_job) {
        auto name = create_temp_file(rt_.request_dir(), "file");
        if (!name || write_permodem_request(*name) < 0 ||
            add_to_permodem_pending_jobs("send-sms " + *name) < 0) {
            bookkeeping(mode, h, false);
            return;
        }
    }
    SendActionResult result;
    if (send_action) result = send_action(1);
    if (!result.request_file.empty()) sender_.job_path = result.request_file;
    sender_.api_request = api_job;
    api_job = 0;
    sender_.reply_to_peer();
    bookkeeping(mode, h, false);
}

void JobQueue::bookkeeping(int mode, const JobHeader& h, bool from_permodem) {
    trace("sz = %d, TOTAL_SIZE = %ld", h.job_ln, TOTAL_SIZE);
    if (TOTAL_SIZE != 0) TOTAL_SIZE -= h.job_ln + static_cast<long>(kHeaderSize);
    if (TOTAL_SIZE < 0) TOTAL_SIZE = 0;
    if (mode == 0 && from_permodem) {
        remove_first_job(permodem_file());
        if (file_size(permodem_file()) == 0) {
            remove_file(permodem_file());
            permodem_pending = 0;
            sleep_seconds(2);
        }
        return;
    }
    trace("sz = %d, TOTAL_SIZE = %ld, _job_pos.l_job_ln[L_POS] = %d\n", h.job_ln, TOTAL_SIZE,
          l_job_ln[L_POS]);
    std::string path = pending_file(P_POS);
    remove_first_job(path);
    if (file_size(path) == 0) {
        l_job_ln[P_POS] = 0;
        store_table();
        remove_file(path);
        sleep_seconds(2);
    } else {
        store_table();
    }
    if (permodem_written) {
        permodem_pending = 1;
        permodem_written = 0;
    }
}

}  // namespace smsgw
