// The statistics files the web interface shows: job counters
// ("/var/config/job_stats_file"), SMS counters ("/var/config/sms_stats_file")
// and the status of API requests ("/var/config/api_stat.st").
#pragma once

#include <cstdint>

#include "common/runtime.h"

namespace smsgw {

// Rewrites the job statistics file: "%d\n%d\n%d", no final newline.
void write_job_stats(const Runtime& rt, int a, int b, int c);

// Creates "/var/config/sms_stats_file" as 24 zero bytes when it is missing.
// False when it is missing and cannot be created.
bool ensure_sms_stats_file(const Runtime& rt);

// Adds one to the 32-bit counter at byte `offset` (16: triggers acted on,
// 20: triggers received). Missing file or short read: nothing happens.
void count_sms_stat(const Runtime& rt, long offset);

// Writes the status record of API request `id`; for status 6 the record
// also carries rt.slave_address and rt.slave_result. 1 when written; 0 when
// the file or its first record is missing, or the record would lie past the
// end of the file.
int set_api_status(const Runtime& rt, int id, int status);

// Copies the eleven time words of request `id`'s record; false when absent.
bool get_api_time(const Runtime& rt, int id, int32_t out[11]);

}  // namespace smsgw
