// Reading job records back from the pending-job files: shared by the
// queue's appenders, its repair walk and the scheduler.
#pragma once

#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

#include "formats/job_header.h"

namespace smsgw {

// The header at `offset` of an open file; nullopt when the file holds fewer
// than 108 bytes there.
std::optional<JobHeader> read_header_at(int fd, long long offset);

// The header at the front of a job file; missing bytes read as zeros, so an
// empty file gives job_ln 0.
JobHeader read_front_header(FILE* job);

// A header at `offset` whose body fits in a file of `size` bytes.
bool well_formed(const JobHeader& h, long long offset, long long size);

// A request line up to its CR or LF.
std::string cut_request_line(std::string_view text);

}  // namespace smsgw
