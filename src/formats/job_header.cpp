#include "formats/job_header.h"

#include "formats/bytes.h"

namespace smsgw {

namespace {
constexpr std::string_view kMarker("<JB/SRT>\0", 9);  // with its NUL
constexpr size_t kJobLnAt = 12;
constexpr size_t kPrevAt = 16;
constexpr size_t kFromAt = 20;
}  // namespace

std::string encode_job_header(int32_t job_ln, int32_t p_job_ln, std::string_view jobfromrom) {
    unsigned char b[JobHeader::kSize] = {};
    std::memcpy(b, kMarker.data(), kMarker.size());
    put_i32(b + kJobLnAt, job_ln);
    put_i32(b + kPrevAt, p_job_ln);
    copy_field(reinterpret_cast<char*>(b + kFromAt), JobHeader::kFromSize, jobfromrom);
    return std::string(reinterpret_cast<const char*>(b), sizeof b);
}

std::optional<JobHeader> decode_job_header(std::string_view bytes) {
    if (bytes.size() < JobHeader::kSize) return std::nullopt;
    const auto* b = reinterpret_cast<const unsigned char*>(bytes.data());
    JobHeader h;
    h.marker_ok = bytes.substr(0, kMarker.size()) == kMarker;
    h.job_ln = get_i32(b + kJobLnAt);
    h.p_job_ln = get_i32(b + kPrevAt);
    h.jobfromrom = field_text(bytes.data() + kFromAt, JobHeader::kFromSize);
    return h;
}

}  // namespace smsgw
