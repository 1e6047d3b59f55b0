// This process's share of the jobs: registering a handed-over job (on the
// process that holds the job port), finding jobs through their ledgers
// (job_ledger.h), sending one claimed recipient at a time with bounded
// retries, and ending a job once its last recipient is recorded: the api
// status line for an api job, "P_JB", then the job file is deleted.
//
// A ledger stays for a minute after its job ended, so that the further
// datagrams of the same hand-off (the daemon sends one per modem, together)
// are known and dropped; the same path handed over again more than a second
// after the end is a new hand-off and is answered again.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "txrx/job_file.h"
#include "txrx/job_ledger.h"
#include "txrx/modem.h"
#include "txrx/options.h"
#include "txrx/reports.h"

namespace smsgw::txrx {

class JobWorker {
  public:
    using Clock = std::chrono::steady_clock;
    enum class Step { idle, worked, modem_timeout, modem_gone };

    JobWorker(const Options& options, std::string ledger_dir, std::string spool,
              const Reporter& reporter);

    // A hand-off datagram's job. True when it is new and others may take a
    // share (false for a repeat, a refused path or a job without
    // recipients, which is ended at once).
    bool accept(const Handoff& handoff);
    // Picks up jobs from the ledgers: at start, when woken by the port
    // holder, and now and then to take over recipients of a process that
    // died. Also ends jobs whose end was not reported and drops old ledgers.
    void rescan();
    // Sends one recipient (or retries one) when something is due.
    Step step(Modem& modem);
    // Whether step() has something to do now, and when it will next.
    bool ready_now() const;
    std::optional<Clock::time_point> next_due() const;
    bool has_jobs() const { return !active_.empty(); }

  private:
    struct Active {
        std::optional<JobLedger> ledger;
        std::optional<JobFile> job;
        std::string path;  // of the job file
        uint64_t created = 0;
        bool exhausted = false;  // nothing left to claim for now
    };
    struct Current {
        std::string key;
        uint32_t index = 0;
        std::string number;
        std::vector<std::string> tpdus;
        size_t next_part = 0;
        int tries = 0;
        Clock::time_point due;
    };

    bool claim_next();
    void record(const std::string& key, uint32_t index, Outcome outcome);
    void finish(JobLedger& ledger, int forced_status = -1);
    void end_at_once(const Handoff& handoff, int status, bool remove_job);

    const Options& opt_;
    std::string ledger_dir_;
    std::string spool_;
    const Reporter& reporter_;
    std::map<std::string, Active> active_;  // by ledger file
    std::optional<Current> cur_;
    uint8_t ref_;
};

}  // namespace smsgw::txrx
