// The two kinds of daemon runs of the simulator: the recorded run of a
// mixed workload, and the run on a crash state that checks what survived.
#pragma once

#include <cstdint>
#include <string>

#include "checks.h"
#include "sandbox.h"

namespace powercut {

// Shared by all runs: the programs, the ports, the driver's two sockets.
struct Bench {
    Programs programs;
    Ports ports;
    Udp client;  // the web interface
    Udp txrx;    // holds txrx's port
    explicit Bench(Programs p, int offset);
};

struct WorkloadStats {
    int sends = 0, queued = 0, direct = 0, reports = 0, drains = 0, saves = 0, signal_saves = 0;
    int contact_edits = 0, group_edits = 0, rule_edits = 0, settings = 0, big = 0, odd_replies = 0;
    std::string describe() const;
};

// Runs `ops` operations (chosen from `seed`) against a daemon recording
// into `log`: sends while a job is outstanding or not (some large enough
// to turn the ring over), reports of jobs done and full drains, contact
// and group edits, saves on request and on SIGUSR1, rule-list edits and
// settings. The root must be prepared; the daemon is stopped at the end.
WorkloadStats run_workload(Bench& bench, const std::string& root, const std::string& log, int ops,
                           uint64_t seed);

// Starts a daemon on the crash state at `root`, sends two requests, lets it
// hand over everything queued (reporting each job done), and asks it to
// save the address book.
Restart restart_on(Bench& bench, const std::string& root, const std::string& log);

}  // namespace powercut
