// The statistics files the web interface shows: job counters
// ("/var/config/job_stats_file"), SMS counters ("/var/config/sms_stats_file")
// and the status of API requests ("/var/config/api_stat.st").
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

#include "common/runtime.h"
#include "formats/api_status.h"
#include "formats/job_stats.h"
#include "formats/sms_stats.h"

namespace smsgw {

// The job counters: the one place they change. Every change that the
// statistics file reports rewrites it.
class JobCounters {
  public:
    // REQUIRES: rt outlives the counters.
    explicit JobCounters(const Runtime& rt) : rt_(rt) {}

    // A send request is about to be handed over directly (not written yet).
    void request_arrived() { ++stats_.jobs; }
    void job_queued();
    void handed_off();       // one hand-off datagram to txrx
    void replied_to_peer();  // one job given to a peer that asked for work
    void queue_drained();
    // SIGUSR2: the job count starts again from 0 (written with the next change).
    void reset_jobs() { stats_.jobs = 0; }

    const JobStats& stats() const { return stats_; }

  private:
    // What a stat() of the file shows; equal marks mean the file was not
    // touched in between.
    struct FileMark {
        dev_t dev;
        ino_t ino;
        off_t size;
        timespec mtime, ctime;
    };
    static std::optional<FileMark> file_mark(const std::string& path);
    static bool same(const std::optional<FileMark>& a, const std::optional<FileMark>& b);
    void write();

    const Runtime& rt_;
    JobStats stats_{1, 0, 0};
    std::string written_;                   // the content last written or found
    std::optional<FileMark> written_mark_;  // the file as it was then
};

// Creates "/var/config/sms_stats_file" as 24 zero bytes when it is missing.
// False when it is missing and cannot be created.
bool ensure_sms_stats_file(const Runtime& rt);

// Adds one to the counter at byte `offset` (SmsStats::kTriggersActed,
// SmsStats::kTriggersReceived). Missing file or short read: nothing happens.
void count_sms_stat(const Runtime& rt, long offset);

// What a load-balancer peer reported on an API request it took.
struct PeerResult {
    uint32_t address = 0;  // network byte order
    int32_t value = 0;
};

// Writes the status record of API request `id` (an ApiStatus code, or the
// number an api status line carries). A status-6 record carries `peer`. 1
// when written; 0 when the file or its first record is missing, or the
// record would lie past the end of the file.
int set_api_status(const Runtime& rt, int id, int status, const PeerResult& peer = {});

}  // namespace smsgw
