// The job statistics file "/var/config/job_stats_file" for the web
// interface: three decimal counters, one per line, no final newline:
//
//   JOBS "\n" PEER_REPLIES "\n" HANDOFFS
//
// JOBS counts queued jobs (SIGUSR2 resets it), PEER_REPLIES the jobs handed
// to a peer that asked for work, HANDOFFS the direct hand-offs to txrx.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace smsgw {

struct JobStats {
    int jobs = 0;
    int peer_replies = 0;
    int handoffs = 0;
};

std::string encode_job_stats(const JobStats& stats);

// nullopt unless the text is exactly three numbers separated by "\n" (a
// final newline is allowed).
std::optional<JobStats> decode_job_stats(std::string_view text);

}  // namespace smsgw
