// The job queue: a ring of nine pending-job files "/var/Jobs/Pending_Jobs_N",
// the side file "/var/Jobs/PerModem_PendingJob", the position table
// "/var/Jobs/pos_offset" (formats/position_table.h, mapped shared) and the
// scheduler that feeds one job at a time to txrx.
//
//   writer (L_POS) appends ──> Pending_Jobs_1 .. Pending_Jobs_9 ──> reader (P_POS)
//                              (ring: after file 9 comes file 1)
//
// Each pending file is a run of job records: a JobHeader
// (formats/job_header.h), then job_ln body bytes (the request file, or a
// queued broadcast body, formats/broadcast_record.h).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "common/fileops.h"
#include "common/runtime.h"
#include "formats/broadcast_record.h"
#include "formats/job_header.h"
#include "formats/position_table.h"
#include "send/sender.h"

namespace smsgw {

// Appends up to `length` bytes of the file at path to out_fd, then deletes
// the file (not when it cannot be opened). True when exactly `length` bytes
// were appended.
bool copy_job_body(int out_fd, const std::string& path, long long length);

// A broadcast started by an API request: its id and user travel in the job
// line ("ISBRDTRIGapi" ID "-" USER).
struct ApiOrigin {
    int id = 0;
    std::string user;
};

// What the trigger send action did with a broadcast.
struct SendActionResult {
    // The prepared job path for txrx when sent; empty when the broadcast
    // went back into the queue or no job could be made.
    std::string request_file;
};

// The trigger send action (action 0): mode 0 or 1 as the scheduler runs,
// the broadcast taken from the queue and, for one from the API, its origin.
using SendAction = std::function<SendActionResult(int mode, const BroadcastRecord& record,
                                                  const std::optional<ApiOrigin>& api)>;

class JobQueue {
  public:
    static constexpr long kRotateSize = 524288;
    static constexpr long MAX_JOBS_FILE_LN = 4194304;

    // REQUIRES: rt and sender outlive the queue.
    JobQueue(Runtime& rt, Sender& sender);
    ~JobQueue();
    JobQueue(const JobQueue&) = delete;
    JobQueue& operator=(const JobQueue&) = delete;

    // Position table. init exits the process on failure, as the daemon must
    // not run without it; try_init reports failure instead (tests).
    void init_job_pos_table();
    bool try_init_job_pos_table();
    // Loading clamps an index outside the ring to 0 and a negative total to
    // 0, so a damaged table never names a file outside the ring.
    void load_job_pos_table();
    void update_job_pos_table(int32_t length, int file_index);
    // 1 when the file cannot be opened, else 0.
    int remove_first_job(const std::string& path);
    // Cuts the read file down to the chain of records that ends at its end
    // (walking p_job_ln back-links), or empties it. A record that reaches the
    // file's start is kept when well-formed, so repeated repairs always end
    // with a well-formed first record or an empty file. A file whose end the
    // table does not describe (a torn last append) only loses its torn tail.
    void repair_pending_file();
    // After a power cut the file being appended to may end in a torn record,
    // and the table may be older than its last record. Start-up cuts such a
    // tail off every ring file but the read file (repair_pending_file deals
    // with that one) and takes each file's last record length from the file,
    // so that the next record appended there links to the one before it.
    void trim_torn_appends();

    // A request file named in the line must pass the sender's request-file
    // policy; a refused one makes no record and is left alone.
    void add_to_pending_jobs(std::string_view line);
    void add_to_pending_jobs_broadcasttrigger(const std::string* path, long length,
                                              const std::optional<ApiOrigin>& api = std::nullopt);
    // 0, or -1 on any failure.
    int add_to_permodem_pending_jobs(std::string_view line);

    // Takes at most one job: mode 0 hands it to txrx (nothing while a job is
    // outstanding), mode 1 answers the peer that asked for work, at its port.
    void create_job_from_pending_jobs(int mode, uint16_t peer_port = 0);

    // Installed by whoever owns the trigger handlers; without it a queued
    // broadcast is consumed unsent.
    void set_send_action(SendAction action) { send_action_ = std::move(action); }
    // The pause after a job file empties gives txrx time before the next
    // job; replaceable so tests can observe it without waiting.
    void set_pause(std::function<void(unsigned seconds)> pause) { pause_ = std::move(pause); }

    // The working copy of the position table (indices, total, lengths).
    PositionTable position() const;
    // A job was refused for a full queue since the reader last moved on.
    bool job_full() const { return job_full_; }
    std::string pending_file(int index) const;  // real path of file index 0-8

  private:
    struct Mapping;
    struct TakenJob;

    static int next_file(int index) { return index + 1 < PositionTable::kFiles ? index + 1 : 0; }
    std::string permodem_file() const;
    void store_table() { update_job_pos_table(l_job_ln_[P_POS_], P_POS_); }
    void advance_read_index();
    void queue_drained();
    // The read file after a power cut may end in a torn append, or the
    // table may have been stored before the last append reached the disk:
    // either way no whole record of the table's last length ends the file.
    // Then every whole record from the start is kept, a torn tail alone is
    // cut off, and the table takes the last record's length. False when the
    // file does not begin with a whole record (the back-link walk's case).
    bool cut_torn_tail(int fd, long long f_sz);
    // Keeps the whole records from the file's start when nothing but a torn
    // append follows them (cut off): the last one's length, or 0 when the
    // file holds no such run of records.
    int32_t keep_whole_records(int fd, long long f_sz);
    // Drops the front of a damaged read file at `cut` (0: nothing).
    void cut_front(const std::string& path, long long cut);

    // The appenders' shared steps.
    int rotate_write_file();
    Fd open_for_request(const std::string& target, long long body, const std::string& request_file,
                        bool api);
    void note_queue_full(const std::string* api_path);
    bool append_record(Fd& out, std::string_view header, const std::string& body_path,
                       int32_t job_ln, const std::string& target, const std::string& body_rollback,
                       long long old_size);

    // The scheduler's steps.
    void take_permodem_job();
    std::optional<TakenJob> take_ring_job();
    void report_corrupted(int32_t job_ln);
    void dispatch_request(TakenJob& job, int mode, uint16_t peer_port);
    void take_broadcast(TakenJob& job, int mode, uint16_t peer_port);
    void hand_broadcast_to_txrx(const BroadcastRecord& record, const std::optional<ApiOrigin>& api);
    void serve_peer_broadcast(const BroadcastRecord& record, const std::optional<ApiOrigin>& api,
                              uint16_t peer_port);
    int write_permodem_request(const BroadcastRecord& record, const std::string& path);
    // Removes the consumed record and stores the table.
    void bookkeeping(int mode, const JobHeader& h, bool from_permodem);

    Runtime& rt_;
    Sender& sender_;
    std::unique_ptr<Mapping> map_;
    SendAction send_action_;
    std::function<void(unsigned)> pause_;

    // Working copies of the table.
    int P_POS_ = 0;
    int L_POS_ = 0;
    long TOTAL_SIZE_ = 0;
    int32_t l_job_ln_[PositionTable::kFiles] = {};
    long A_sz_ = 0;  // length of the last record of the read file, for the repair walk
    bool job_full_ = false;
    bool permodem_pending_ = false;
    bool permodem_written_ = false;
};

}  // namespace smsgw
