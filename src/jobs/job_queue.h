// The job queue: a ring of nine pending-job files "/var/Jobs/Pending_Jobs_N",
// the side file "/var/Jobs/PerModem_PendingJob", the 44-byte position table
// "/var/Jobs/pos_offset" (mapped shared) and the scheduler that feeds one job
// at a time to txrx.
//
// Job record: marker char[12] "<JB/SRT>", job_ln int32, p_job_ln int32,
// jobfromrom char[88], then job_ln body bytes (host byte order).
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "common/runtime.h"
#include "send/sender.h"

namespace smsgw {

// A broadcast trigger on its way to a group (the 220-byte record).
struct BroadcastRecord {
    std::string sender;  // at most 49 characters
    std::string group;
    std::string text;  // at most 160 characters
    int queued = 0;    // set when the send action queued it again
};

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
    int remove_first_job(const std::string& path);
    void repair_pending_file();

    void add_to_pending_jobs(std::string_view line);
    void add_to_pending_jobs_broadcasttrigger(const std::string* path, long length);
    int add_to_permodem_pending_jobs(std::string_view line);

    void create_job_from_pending_jobs(int mode);

    // The trigger send action (action 0), run by the scheduler on
    // current_broadcast. Installed by whoever owns the trigger handlers.
    std::function<SendActionResult(int mode)> send_action;
    std::optional<BroadcastRecord> current_broadcast;

    // Broadcast jobs that came from the API.
    int api_job = 0;
    std::string api_request_id_text = "0";
    std::string api_user = "admin";

    // Working copies of the table.
    int P_POS = 0;
    int L_POS = 0;
    long TOTAL_SIZE = 0;
    int32_t l_job_ln[9] = {};
    long A_sz = 0;
    int job_full = 0;
    int queued_jobs = 1;  // the queued-job counter of the statistics
    int permodem_pending = 0;
    int permodem_written = 0;

    std::string pending_file(int index) const;  // real path of file index 0-8

  private:
    struct Mapping;
    Runtime& rt_;
    Sender& sender_;
    std::unique_ptr<Mapping> map_;
};

}  // namespace smsgw
