// The job queue: a ring of nine pending-job files "/var/Jobs/Pending_Jobs_N",
// the side file "/var/Jobs/PerModem_PendingJob", the 44-byte position table
// "/var/Jobs/pos_offset" (mapped shared) and the scheduler that feeds one job
// at a time to txrx.
//
// Each pending file is a run of job records: a JobHeader, then job_ln body
// bytes (the request file, or a queued broadcast body).
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "common/fileops.h"
#include "common/runtime.h"
#include "formats/broadcast_record.h"
#include "formats/job_header.h"
#include "send/sender.h"

namespace smsgw {

// Appends up to `length` bytes of the file at path to out_fd, then deletes
// the file (not when it cannot be opened). True when exactly `length` bytes
// were appended.
bool copy_job_body(int out_fd, const std::string& path, long long length);

// What the trigger send action did with the current broadcast record.
struct SendActionResult {
    bool queued = false;       // put back into the queue instead of sent
    std::string request_file;  // the prepared job path for txrx when sent
};

class JobQueue {
  public:
    static constexpr long kRotateSize = 524288;
    static constexpr long MAX_JOBS_FILE_LN = 4194304;
    static constexpr size_t kHeaderSize = 108;

    // REQUIRES: rt and sender outlive the queue.
    JobQueue(Runtime& rt, Sender& sender);
    ~JobQueue();
    JobQueue(const JobQueue&) = delete;
    JobQueue& operator=(const JobQueue&) = delete;

    // Position table. init exits the process on failure, as the daemon must
    // not run without it; try_init reports failure instead (tests).
    void init_job_pos_table();
    bool try_init_job_pos_table();
    void load_job_pos_table();
    void update_job_pos_table(int32_t length, int file_index);
    // 1 when the file cannot be opened, else 0.
    int remove_first_job(const std::string& path);
    // Cuts the read file down to the chain of records that ends at its end
    // (walking p_job_ln back-links), or empties it. A record that reaches the
    // file's start is kept when well-formed, so repeated repairs always end
    // with a well-formed first record or an empty file.
    void repair_pending_file();

    // A request file named in the line must pass the sender's request-file
    // policy; a refused one makes no record and is left alone.

    void add_to_pending_jobs(std::string_view line);
    void add_to_pending_jobs_broadcasttrigger(const std::string* path, long length);
    // 0, or -1 on any failure.
    int add_to_permodem_pending_jobs(std::string_view line);

    // Takes at most one job: mode 0 hands it to txrx (nothing while a job is
    // outstanding), mode 1 answers the peer that asked for work.
    void create_job_from_pending_jobs(int mode);

    // The trigger send action (action 0), run by the scheduler on
    // current_broadcast. Installed by whoever owns the trigger handlers.
    std::function<SendActionResult(int mode)> send_action;
    std::optional<BroadcastRecord> current_broadcast;

    // Broadcast jobs that came from the API.
    int api_job = 0;
    std::string api_request_id_text = "0";
    std::string api_user = "admin";

    // Working copies of the table. Loading clamps an index outside 0-8 to 0
    // and a negative total to 0, so a damaged table never names a file
    // outside the ring. The queued-job counter of the statistics is
    // rt.jobs_to_txrx_count: queueing adds one, a hand-off takes one, a
    // drained queue resets it to 0.
    int P_POS = 0;
    int L_POS = 0;
    long TOTAL_SIZE = 0;
    int32_t l_job_ln[9] = {};
    long A_sz = 0;
    int job_full = 0;
    int permodem_pending = 0;
    int permodem_written = 0;

    std::string pending_file(int index) const;  // real path of file index 0-8

    // The pause after a job file empties gives txrx time before the next
    // job; replaceable so tests can observe it without waiting.
    std::function<void(unsigned seconds)> sleep_seconds;

  private:
    struct Mapping;
    std::string permodem_file() const;
    void store_table() { update_job_pos_table(l_job_ln[P_POS], P_POS); }
    void advance_read_index();
    void queue_drained();
    // Drops the front of a damaged read file at `cut` (0: nothing).
    void cut_front(const std::string& path, long long cut);
    void take_broadcast(FILE* job_file, const JobHeader& h, int mode);
    // Removes the consumed record and stores the table.
    void bookkeeping(int mode, const JobHeader& h, bool from_permodem);
    int write_permodem_request(const std::string& path);
    // The queue is over its limit: "/var/Jobs/jobfull" marks it, and an api
    // request (request file `api_path`) is told so.
    void note_queue_full(const std::string* api_path);
    // `target` opened for appending a request's record, or nothing when it
    // cannot be opened or the queue is over its limit; the request file is
    // then deleted (an api request is told the queue is full).
    Fd open_for_request(const std::string& target, long long body, const std::string& request_file,
                        bool api);
    // Appends one record to `out`: the header, then the body copied from
    // `body_path`, synced. A failed header cuts `target`, a failed body
    // `body_rollback`, back to `old_size`.
    bool append_record(Fd& out, std::string_view header, const std::string& body_path,
                       int32_t job_ln, const std::string& target, const std::string& body_rollback,
                       long long old_size);
    void count_queued_job();

    Runtime& rt_;
    Sender& sender_;
    std::unique_ptr<Mapping> map_;
};

}  // namespace smsgw
