// The job queue and the outbox records as they lie on disk, read through the
// record codecs for the "jobs", "outbox", "status" and "send" verbs. Nothing
// here writes.
//
// The queue is a ring of nine files "/var/Jobs/Pending_Jobs_1..9", read
// from the file the position table "/var/Jobs/pos_offset" names, each a run
// of job records (a 108-byte header, then the body: the request file, or a
// broadcast record for "ISBRDTRIG" jobs); "/var/Jobs/PerModem_PendingJob"
// holds jobs that go back to a modem's transceiver.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "client.h"
#include "formats/outbox_record.h"
#include "formats/position_table.h"
#include "output.h"

namespace smsgw::ctl {

// Whom a queued job goes to, as its request names them.
struct Recipients {
    int numbers = 0, contacts = 0, groups = 0;
    std::string all;  // "__ALL__" or "__GALL__" when the request names everyone

    std::string text() const;  // "2 numbers, 1 group", "all contacts"
    std::string json() const;
};

struct QueuedJob {
    size_t position = 0;   // 1-based, in the order the queue hands jobs over
    std::string file;      // "Pending_Jobs_4"
    long long offset = 0;  // of the record in its file
    long long size = 0;    // header and body
    std::string request;   // the request line the job came from
    std::string sender, text;
    Recipients to;
    long long min_age = 0;  // seconds since its file was last written
};

struct QueueState {
    bool table_found = false;
    std::optional<PositionTable> table;  // nullopt when missing or short
    std::vector<QueuedJob> jobs;         // the ring, from the read file on
    std::vector<QueuedJob> per_modem;
    std::vector<std::string> damaged;  // files whose records stop short of their end
    bool full = false;                 // the "jobfull" marker is there
};

QueueState read_queue(const Client& c);

struct OutboxEntry {
    std::string file;
    long long age = 0;  // seconds since it was written
    OutboxRecord record;
};

// Outbox records left for the database writer ("/var/tmp/file*") and the
// one a peer took ("/var/Outbox/outbox_slave_tmp"), oldest first; files
// that do not hold a whole record are passed over.
std::vector<OutboxEntry> read_outbox(const Client& c);

// "45s", "3m05s", "2h03m", "4d07h".
std::string age_text(long long seconds);

}  // namespace smsgw::ctl
