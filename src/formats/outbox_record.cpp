#include "formats/outbox_record.h"

#include "formats/bytes.h"

namespace smsgw {

namespace {

constexpr size_t kWord = 4;

std::optional<int32_t> take_i32(std::string_view& rest) {
    if (rest.size() < kWord) return std::nullopt;
    int32_t v = get_i32(reinterpret_cast<const unsigned char*>(rest.data()));
    rest.remove_prefix(kWord);
    return v;
}

// A length-prefixed text.
std::optional<std::string> take_text(std::string_view& rest) {
    auto len = take_i32(rest);
    if (!len || *len < 0 || static_cast<size_t>(*len) > rest.size()) return std::nullopt;
    std::string text(rest.substr(0, static_cast<size_t>(*len)));
    rest.remove_prefix(text.size());
    return text;
}

void append_text(std::string& out, std::string_view text) {
    append_i32(out, static_cast<int32_t>(text.size()));
    out.append(text);
}

}  // namespace

void append_outbox_recipient(std::string& recipients, std::string_view item) {
    recipients.push_back(',');
    recipients.append(item);
}

std::string encode_outbox_record(const OutboxRecord& record) {
    std::string out;
    append_text(out, record.recipients);
    append_i32(out, record.is_slave);
    append_i32(out, record.api_request_id);
    append_text(out, record.text);
    append_text(out, record.sender);
    return out;
}

std::optional<OutboxRecord> decode_outbox_record(std::string_view bytes) {
    OutboxRecord record;
    auto recipients = take_text(bytes);
    if (!recipients) return std::nullopt;
    auto is_slave = take_i32(bytes);
    auto api_id = take_i32(bytes);
    if (!is_slave || !api_id) return std::nullopt;
    auto text = take_text(bytes);
    if (!text) return std::nullopt;
    auto sender = take_text(bytes);
    if (!sender || !bytes.empty()) return std::nullopt;
    record.recipients = std::move(*recipients);
    record.is_slave = *is_slave;
    record.api_request_id = *api_id;
    record.text = std::move(*text);
    record.sender = std::move(*sender);
    return record;
}

bool set_outbox_slave_result(std::string& image, int32_t result) {
    std::string_view head = image;
    auto r = take_i32(head);
    if (!r) return false;
    const long long at = static_cast<long long>(*r) + static_cast<long long>(kWord);
    if (at < static_cast<long long>(kWord) || at > static_cast<long long>(image.size()))
        return false;
    const auto offset = static_cast<size_t>(at);
    if (image.size() - offset < kWord) image.resize(offset + kWord, '\0');
    unsigned char word[kWord];
    put_i32(word, result);
    image.replace(offset, kWord, reinterpret_cast<const char*>(word), kWord);
    return true;
}

}  // namespace smsgw
