#include "formats/job_stats.h"

#include <climits>
#include <vector>

#include "common/text.h"

namespace smsgw {

std::string encode_job_stats(const JobStats& stats) {
    return std::to_string(stats.jobs) + "\n" + std::to_string(stats.peer_replies) + "\n" +
           std::to_string(stats.handoffs);
}

std::optional<JobStats> decode_job_stats(std::string_view text) {
    if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
    std::vector<int> values;
    for (;;) {
        const size_t end = text.find('\n');
        auto number = parse_number(text.substr(0, end), INT_MIN, INT_MAX);
        if (!number || values.size() == 3) return std::nullopt;
        values.push_back(static_cast<int>(*number));
        if (end == std::string_view::npos) break;
        text.remove_prefix(end + 1);
    }
    if (values.size() != 3) return std::nullopt;
    return JobStats{values[0], values[1], values[2]};
}

}  // namespace smsgw
