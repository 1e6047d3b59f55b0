#include "jobs/job_records.h"

#include <unistd.h>

namespace smsgw {

std::optional<JobHeader> read_header_at(int fd, long long offset) {
    char b[JobHeader::kSize];
    if (::pread(fd, b, sizeof b, static_cast<off_t>(offset)) != static_cast<ssize_t>(sizeof b))
        return std::nullopt;
    return decode_job_header(std::string_view(b, sizeof b));
}

JobHeader read_front_header(FILE* job) {
    char b[JobHeader::kSize] = {};
    std::fread(b, 1, sizeof b, job);
    return *decode_job_header(std::string_view(b, sizeof b));
}

bool well_formed(const JobHeader& h, long long offset, long long size) {
    return h.marker_ok && h.job_ln >= 0 &&
           h.job_ln <= size - offset - static_cast<long long>(JobHeader::kSize);
}

std::string cut_request_line(std::string_view text) {
    return std::string(text.substr(0, text.find_first_of("\r\n")));
}

}  // namespace smsgw
