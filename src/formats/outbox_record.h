// The outbox record the send handler leaves for the database writer (a
// temporary file, or "/var/Outbox/outbox_slave_tmp" for a job a peer took).
// Integers are int32 in host byte order:
//
//   R            length of the recipients text
//   recipients   R bytes: "," and the item, for every recipient item of the
//                request (a number, a contact or group name, "__ALL__", ...)
//   is_slave     0 for a direct request; overwritten with the peer's
//                result when a peer reports on the job
//   api_id       the API request id, 0 for other requests
//   T, text      the message text (no NUL)
//   S, sender    the sender (no NUL)
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace smsgw {

struct OutboxRecord {
    std::string recipients;  // ",item,item..."
    int32_t is_slave = 0;
    int32_t api_request_id = 0;
    std::string text;
    std::string sender;
};

// Adds "," and the item to a recipients text.
void append_outbox_recipient(std::string& recipients, std::string_view item);

std::string encode_outbox_record(const OutboxRecord& record);

// nullopt when a length is negative or runs past the data, or bytes are
// left over.
std::optional<OutboxRecord> decode_outbox_record(std::string_view bytes);

// Writes `result` over the is_slave field of a record image, found through
// its first word (at most at the image's end, which grows it by four
// bytes). False, image unchanged, when the first word points elsewhere.
bool set_outbox_slave_result(std::string& image, int32_t result);

}  // namespace smsgw
