// A broadcast trigger on its way to a group, as it is queued in a job
// record's body while a job is outstanding.
//
//   bytes        field    meaning
//   0-49         sender   char[50], the triggering number, NUL-padded
//   50-209       text     char[160], the preconfigured SMS, NUL-padded
//   210-         group    the group field's characters, no terminator
//
// so a body is 210 bytes plus the group field's length.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace smsgw {

struct BroadcastRecord {
    static constexpr size_t kSenderSize = 50;
    static constexpr size_t kTextSize = 160;
    static constexpr size_t kFixedSize = kSenderSize + kTextSize;

    std::string sender;  // at most 49 characters
    std::string group;   // the group field: names, "]|["-separated
    std::string text;    // at most 160 characters
};

// Sender and text are cut to their fields (a 160-character text fills its
// field without a NUL).
std::string encode_broadcast_body(const BroadcastRecord& record);

// The body exactly as queued (job_ln bytes). nullopt when it is shorter
// than its two fixed fields. Each text ends at its first NUL; the sender
// at 49 characters.
std::optional<BroadcastRecord> decode_broadcast_body(std::string_view body);

}  // namespace smsgw
