#include "formats/inbox_record.h"

#include "common/text.h"
#include "formats/bytes.h"

namespace smsgw {

std::string encode_inbox_record(std::string_view sender, std::string_view date,
                                std::string_view time, std::string_view text) {
    std::string record;
    for (std::string_view field : {sender, date, time}) record.append(field).append(kSep);
    record.append(text);
    std::string out;
    append_i32(out, static_cast<int32_t>(record.size()));
    return out + record;
}

std::optional<std::string_view> next_inbox_record(std::string_view& rest) {
    if (rest.size() < 4) return std::nullopt;
    const int32_t length = get_i32(reinterpret_cast<const unsigned char*>(rest.data()));
    if (length <= 0 || static_cast<size_t>(length) > rest.size() - 4) return std::nullopt;
    std::string_view text = rest.substr(4, static_cast<size_t>(length));
    rest.remove_prefix(4 + text.size());
    return text;
}

std::optional<InboxRecord> split_inbox_record(std::string_view text) {
    std::string_view parts[3];
    for (auto& part : parts) {
        const size_t p = text.find(kSep);
        if (p == std::string_view::npos) return std::nullopt;
        part = text.substr(0, p);
        text.remove_prefix(p + kSep.size());
    }
    return InboxRecord{parts[0], parts[1], parts[2], text};
}

}  // namespace smsgw
