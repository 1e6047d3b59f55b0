// The shared progress record of one job, through which the txrx processes
// of several modems split its recipients: every recipient is claimed by
// exactly one process, and the process that records the last outcome ends
// the job. Every change happens under an exclusive lock of the whole file,
// which the kernel drops when its holder dies; a claim whose holder died is
// taken over by another process.
//
// Layout (big-endian, fixed; one file per job, named after the job path):
//
//   0   "TXRXLDG1"         8  recipients (u32)     12 next unclaimed (u32)
//   16  recorded (u32)     20 delivered (u32)      24 api flag (u8)
//   25  finished (u8)      26 reported (u8)        28 created, ms (u64)
//   64  job path, NUL-padded (256 bytes)
//   320 one 8-byte entry per recipient: state (u8), tries (u8), 2 zero
//       bytes, claiming process id (u32)
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "common/fileops.h"

namespace smsgw::txrx {

struct LedgerHeader {
    uint32_t count = 0;
    uint32_t next = 0;
    uint32_t recorded = 0;
    uint32_t delivered = 0;
    bool api = false;
    bool finished = false;
    bool reported = false;
    uint64_t created_ms = 0;
    std::string job_path;
};

enum class Outcome : uint8_t { sent = 2, failed = 3, skipped = 4 };

class JobLedger {
  public:
    static constexpr size_t kPathSize = 256;

    // The ledger file for a job path inside `dir`.
    static std::string file_for(const std::string& dir, const std::string& job_path);
    // Creates the ledger; nullopt when it exists already (or on failure,
    // then *exists is false).
    static std::optional<JobLedger> create(const std::string& file, const LedgerHeader& h,
                                           bool* exists);
    static std::optional<JobLedger> open(const std::string& file);

    std::optional<LedgerHeader> header();
    // Sets the api flag (a later hand-off of the same job in the api form).
    void mark_api();
    // Claims a recipient for `self`: the next never-claimed one, else one
    // whose claimer is no longer `alive`. nullopt when none is left.
    std::optional<uint32_t> claim(pid_t self, const std::function<bool(pid_t)>& alive);
    // Records the outcome of a claimed recipient; true when this was the
    // last outstanding one (the caller then ends the job).
    bool record(uint32_t index, Outcome outcome);
    void set_reported();
    const std::string& file() const { return file_; }

  private:
    JobLedger(Fd fd, std::string file) : fd_(std::move(fd)), file_(std::move(file)) {}
    bool lock(bool on);

    Fd fd_;
    std::string file_;
};

// Encoded header (64 bytes + path) and back; nullopt when damaged.
std::string encode_ledger_header(const LedgerHeader& h);
std::optional<LedgerHeader> decode_ledger_header(std::string_view bytes);

}  // namespace smsgw::txrx
