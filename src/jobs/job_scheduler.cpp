// The scheduler half of the job queue: create_job_from_pending_jobs takes
// the oldest queued job (the per-modem side file first), turns it back into
// the request it came from and hands it on.
#include <fcntl.h>

#include <algorithm>
#include <cstdio>

#include "common/fileops.h"
#include "common/text.h"
#include "common/trace.h"
#include "formats/request_file.h"
#include "formats/txrx_datagram.h"
#include "jobs/job_queue.h"
#include "jobs/job_records.h"

namespace smsgw {

namespace {

constexpr size_t kRequestChunk = 2047;
constexpr std::string_view kBroadcastLine = "ISBRDTRIG";

// The record at the front of a job file.
enum class Front { Missing, Empty, Damaged, Ready };

Front read_front(const std::string& path, FilePtr& file, JobHeader& h) {
    file = open_file(path, "r");
    if (!file) return Front::Missing;
    h = read_front_header(file.get());
    if (h.job_ln == 0 || h.job_ln == -1) {
        file.reset();
        return Front::Empty;
    }
    trace("Func - %s - Count -%d\n", "create_job_from_pending_jobs", h.job_ln);
    if (!well_formed(h, 0, file_size(path))) {
        file.reset();
        return Front::Damaged;
    }
    return Front::Ready;
}

// The request file named in a request line: after "send-sms api " or after
// "send-sms" and one character, up to CR/LF.
std::string request_file_name(std::string_view line) {
    constexpr std::string_view kApiLine = "send-sms api ";
    constexpr size_t kPlainSkip = std::string_view("send-sms ").size();
    const size_t skip =
        starts_with(line, kApiLine) ? kApiLine.size() : std::min(kPlainSkip, line.size());
    return cut_request_line(line.substr(skip));
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

// "ISBRDTRIG", or "ISBRDTRIGapi" ID "-" USER for a broadcast from the API
// (id 0 and user "admin" when the "-" is missing).
std::optional<ApiOrigin> broadcast_origin(const std::string& line) {
    const size_t api_at = line.find("api");
    if (api_at == std::string::npos) return std::nullopt;
    const size_t dash = line.find('-', api_at + 3);
    if (dash == std::string::npos) return ApiOrigin{0, "admin"};
    return ApiOrigin{c_atoi(line.substr(api_at + 3, dash - api_at - 3)), line.substr(dash + 1)};
}

}  // namespace

struct JobQueue::TakenJob {
    FilePtr file;  // positioned at the body
    JobHeader header;
    bool from_permodem = false;
};

void JobQueue::create_job_from_pending_jobs(int mode, uint16_t peer_port) {
    if (mode == 0 && sender_.txrx().job_outstanding()) return;
    trace("In Function: %s\n", "create_job_from_pending_jobs");
    if (mode == 0 && permodem_pending_) {
        take_permodem_job();
        return;
    }
    std::optional<TakenJob> job = take_ring_job();
    if (!job) return;
    trace("Fl- Name = %s\n", job->header.jobfromrom.c_str());
    if (starts_with(job->header.jobfromrom, kBroadcastLine))
        take_broadcast(*job, mode, peer_port);
    else
        dispatch_request(*job, mode, peer_port);
}

void JobQueue::take_permodem_job() {
    TakenJob job;
    job.from_permodem = true;
    switch (read_front(permodem_file(), job.file, job.header)) {
        case Front::Missing:
            // A side file that is gone would hold the ring back for good.
            trace("Unable to open Permodem Job File\n");
            permodem_pending_ = false;
            return;
        case Front::Empty:
            // An empty record is dropped; the next run goes on.
            cut_front(permodem_file(), static_cast<long long>(JobHeader::kSize));
            if (file_size(permodem_file()) != 0) return;
            break;
        case Front::Damaged:
            break;  // nothing reliable is left in the side file
        case Front::Ready:
            trace("Fl- Name = %s\n", job.header.jobfromrom.c_str());
            dispatch_request(job, 0, 0);
            return;
    }
    remove_file(permodem_file());
    permodem_pending_ = false;
}

std::optional<JobQueue::TakenJob> JobQueue::take_ring_job() {
    TakenJob job;
    for (int repairs = 0;;) {
        const std::string path = pending_file(P_POS_);
        trace("Before fopen = %s\n", path.c_str());
        store_table();
        const Front front = read_front(path, job.file, job.header);
        trace("P_POS = %d, L_POS = %d, TOTAL_SIZE = %ld\n", P_POS_, L_POS_, TOTAL_SIZE_);
        if (front == Front::Ready) return job;
        if (front == Front::Damaged) {
            report_corrupted(job.header.job_ln);
            load_job_pos_table();
            // Two repairs always leave a well-formed first record or an empty
            // file; the bound only guards against a file changing underneath.
            if (++repairs > 3)
                Fd(::open(path.c_str(), O_WRONLY | O_TRUNC | O_NOFOLLOW | O_CLOEXEC));
            else
                repair_pending_file();
            continue;
        }
        // A missing or empty file: the reader moves on, or the queue is empty.
        if (P_POS_ == L_POS_) {
            if (front == Front::Empty) remove_file(path);
            queue_drained();
            return std::nullopt;
        }
        advance_read_index();
    }
}

void JobQueue::report_corrupted(int32_t job_ln) {
    char report[96];
    int n = std::snprintf(report, sizeof report, "Corrupted pendingjobs = %d, count = %d\n\n",
                          P_POS_, job_ln);
    write_file(rt_.path("/var/run/test.log.pending"),
               std::string_view(report, static_cast<size_t>(n)));
}

void JobQueue::advance_read_index() {
    P_POS_ = next_file(P_POS_);
    if (job_full_) remove_file(rt_.path("/var/Jobs/jobfull"));
    job_full_ = false;
    trace("P__POS = %d, L_POS = %d\n", P_POS_, L_POS_);
}

void JobQueue::queue_drained() {
    TOTAL_SIZE_ = 0;
    sender_.counters().queue_drained();
    if (job_full_) remove_file(rt_.path("/var/Jobs/jobfull"));
    job_full_ = false;
    store_table();
}

void JobQueue::dispatch_request(TakenJob& job, int mode, uint16_t peer_port) {
    const std::string& line = job.header.jobfromrom;
    const std::string name = request_file_name(line);
    // A record naming a place no request may come from is consumed without
    // recreating its file there.
    if (sender_.request_path_allowed(name)) {
        if (!recreate_request_file(job.file.get(), name, job.header.job_ln)) return;  // stays
        job.file.reset();
        if (mode == 0) {
            sender_.hand_off_job(line);
        } else {
            trace("sending to lb_handler\n");
            sender_.reply_to_peer(sender_.send_sms_handler(line, 1), peer_port);
        }
    }
    job.file.reset();
    bookkeeping(mode, job.header, job.from_permodem);
}

void JobQueue::take_broadcast(TakenJob& job, int mode, uint16_t peer_port) {
    // The body is job_ln bytes (well_formed bounded it by the file); one
    // too short for its fixed fields carries no broadcast and is consumed.
    std::string body(static_cast<size_t>(job.header.job_ln), '\0');
    body.resize(std::fread(body.data(), 1, body.size(), job.file.get()));
    job.file.reset();
    if (std::optional<BroadcastRecord> record = decode_broadcast_body(body)) {
        trace("%s\n", record->sender.c_str());
        trace("%s\n", record->text.c_str());
        const std::optional<ApiOrigin> api = broadcast_origin(job.header.jobfromrom);
        if (mode == 0)
            hand_broadcast_to_txrx(*record, api);
        else
            serve_peer_broadcast(*record, api, peer_port);
    }
    bookkeeping(mode, job.header, false);
}

void JobQueue::hand_broadcast_to_txrx(const BroadcastRecord& record,
                                      const std::optional<ApiOrigin>& api) {
    if (!send_action_) return;
    const SendActionResult result = send_action_(0, record, api);
    if (result.request_file.empty()) return;
    sender_.txrx().send(encode_broadcast_handoff(result.request_file, api.has_value()));
    trace("Job sent to txrx\r\n");
}

void JobQueue::serve_peer_broadcast(const BroadcastRecord& record,
                                    const std::optional<ApiOrigin>& api, uint16_t peer_port) {
    // Not from the API: the members' numbers also go to the per-modem side
    // file, for the modems to send after the peer.
    if (!api) {
        auto name = create_temp_file(rt_.request_dir(), "file");
        if (!name || write_permodem_request(record, *name) < 0 ||
            add_to_permodem_pending_jobs("send-sms " + *name) < 0)
            return;
    }
    SendActionResult result;
    if (send_action_) result = send_action_(1, record, api);
    PreparedJob job;
    job.job_path = result.request_file.empty() ? sender_.last_job_path() : result.request_file;
    job.api = api.has_value();
    sender_.reply_to_peer(job, peer_port);
}

int JobQueue::write_permodem_request(const BroadcastRecord& record, const std::string& path) {
    std::string numbers;
    for (auto field : split_fields(record.group, " ,\"", 4096)) {
        numbers.append(field);
        numbers.append(kSep);
    }
    Fd fd(::open(path.c_str(), O_WRONLY | O_TRUNC | O_NOFOLLOW | O_CLOEXEC));
    if (!fd) return -1;
    if (!write_all(fd.get(), encode_request_file("admin", record.text, numbers, "", ""))) return -1;
    return fd.close_checked() ? 0 : -1;
}

void JobQueue::bookkeeping(int mode, const JobHeader& h, bool from_permodem) {
    const long record = h.job_ln + static_cast<long>(JobHeader::kSize);
    trace("sz = %d, TOTAL_SIZE = %ld", h.job_ln, TOTAL_SIZE_);
    if (TOTAL_SIZE_ != 0) TOTAL_SIZE_ = std::max(0L, TOTAL_SIZE_ - record);
    if (mode == 0 && from_permodem) {
        remove_first_job(permodem_file());
        if (file_size(permodem_file()) == 0) {
            remove_file(permodem_file());
            permodem_pending_ = false;
            pause_(2);
        }
        return;
    }
    trace("sz = %d, TOTAL_SIZE = %ld, _job_pos.l_job_ln[L_POS] = %d\n", h.job_ln, TOTAL_SIZE_,
          l_job_ln_[L_POS_]);
    const std::string path = pending_file(P_POS_);
    remove_first_job(path);
    if (file_size(path) == 0) {
        l_job_ln_[P_POS_] = 0;
        store_table();
        remove_file(path);
        pause_(2);
    } else {
        store_table();
    }
    if (permodem_written_) {
        permodem_pending_ = true;
        permodem_written_ = false;
    }
}

}  // namespace smsgw
