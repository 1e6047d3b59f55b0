#include "formats/request_file.h"

#include "formats/bytes.h"

namespace smsgw {

namespace {

constexpr std::string_view kTags[RequestFile::kSections] = {"NUMBER:", "NAME:", "GROUP:"};

// Takes up to n bytes from the front of `rest`.
std::string_view take(std::string_view& rest, size_t n) {
    std::string_view part = rest.substr(0, n);
    rest.remove_prefix(part.size());
    return part;
}

std::string up_to_nul(std::string_view text) {
    return std::string(text.substr(0, text.find('\0')));
}

}  // namespace

std::string RequestFile::sender() const {
    return up_to_nul(sender_field);
}

std::string RequestFile::text() const {
    return up_to_nul(text_field);
}

std::string_view request_section_tag(size_t section) {
    return section < RequestFile::kSections ? kTags[section] : std::string_view();
}

std::string encode_request_file(std::string_view sender, std::string_view text,
                                std::string_view numbers, std::string_view names,
                                std::string_view groups) {
    std::string out(RequestFile::kSenderSize + RequestFile::kTextSize, '\0');
    copy_field(out.data(), RequestFile::kSenderSize, sender);
    copy_field(out.data() + RequestFile::kSenderSize, RequestFile::kTextSize, text);
    const std::string_view lists[RequestFile::kSections] = {numbers, names, groups};
    for (size_t i = 0; i < RequestFile::kSections; ++i) {
        out += kTags[i];
        if (lists[i].empty()) {
            append_i32(out, 0);
            continue;
        }
        append_i32(out, static_cast<int32_t>(lists[i].size() + 1));
        out.append(lists[i]);
        out.push_back('\0');
    }
    return out;
}

RequestFile decode_request_file(std::string_view bytes) {
    RequestFile file;
    std::string_view rest = bytes;
    std::string_view sender = take(rest, RequestFile::kSenderSize);
    file.sender_field.replace(0, sender.size(), sender);
    std::string_view text = take(rest, RequestFile::kTextSize);
    file.text_field.replace(0, text.size(), text);
    for (size_t i = 0; i < RequestFile::kSections; ++i) {
        std::string_view tag = take(rest, kTags[i].size());
        if (tag.size() < kTags[i].size()) break;
        if (tag != kTags[i]) continue;
        std::string_view length = take(rest, 4);
        if (length.size() < 4) break;
        const int32_t len = get_i32(reinterpret_cast<const unsigned char*>(length.data()));
        if (len <= 0) continue;
        std::string_view recipients = take(rest, static_cast<size_t>(len));
        file.sections[i] = up_to_nul(recipients);
        if (recipients.size() < static_cast<size_t>(len)) break;
    }
    return file;
}

}  // namespace smsgw
