#include "formats/broadcast_record.h"

#include "formats/bytes.h"

namespace smsgw {

namespace {
void append_padded(std::string& out, std::string_view text, size_t size) {
    text = text.substr(0, size);
    out.append(text);
    out.append(size - text.size(), '\0');
}
}  // namespace

std::string encode_broadcast_body(const BroadcastRecord& record) {
    std::string body;
    append_padded(body, record.sender, BroadcastRecord::kSenderSize);
    append_padded(body, record.text, BroadcastRecord::kTextSize);
    body += record.group;
    return body;
}

std::optional<BroadcastRecord> decode_broadcast_body(std::string_view body) {
    if (body.size() < BroadcastRecord::kFixedSize) return std::nullopt;
    BroadcastRecord record;
    record.sender = field_text(body.data(), BroadcastRecord::kSenderSize - 1);
    record.text =
        field_text(body.data() + BroadcastRecord::kSenderSize, BroadcastRecord::kTextSize);
    std::string_view group = body.substr(BroadcastRecord::kFixedSize);
    record.group = field_text(group.data(), group.size());
    return record;
}

}  // namespace smsgw
