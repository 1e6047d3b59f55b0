// The header in front of every record of the pending-job files.
//
//   bytes    field       type       meaning
//   0-11     marker      char[12]   "<JB/SRT>", NUL-padded
//   12-15    job_ln      int32      length of the body that follows
//   16-19    p_job_ln    int32      length (108 + body) of the record appended
//                                   to the same file before this one; 0 when none
//   20-107   jobfromrom  char[88]   the request line, NUL-terminated
//
// Integers are in host byte order. The body (job_ln bytes) follows directly.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace smsgw {

struct JobHeader {
    static constexpr size_t kSize = 108;
    static constexpr size_t kFromSize = 88;

    bool marker_ok = false;  // the first nine bytes are "<JB/SRT>" and its NUL
    int32_t job_ln = 0;
    int32_t p_job_ln = 0;
    std::string jobfromrom;  // up to its NUL (88 characters when it has none)
};

// The request line is cut to 87 characters so the field keeps its NUL.
std::string encode_job_header(int32_t job_ln, int32_t p_job_ln, std::string_view jobfromrom);

// nullopt when fewer than 108 bytes are given; bytes past 108 are ignored.
std::optional<JobHeader> decode_job_header(std::string_view bytes);

}  // namespace smsgw
