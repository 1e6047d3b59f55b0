// The send request file that the web interface or the API front end writes
// and a "send-sms FILE" request names.
//
//   bytes          field       meaning
//   0-49           sender      char[50], NUL-padded
//   50-209         text        char[160], NUL-padded
//   then, in this order, three sections, each:
//                  tag         "NUMBER:", "NAME:" or "GROUP:" (no NUL)
//                  L           int32, host order
//                  recipients  L bytes, a text carrying its own NUL;
//                              absent when L is 0 or negative
//
// Recipient texts are runs of items each ended by "^|^": numbers; NAME:
// pairs "NUMBER^|^NAME^|^" ("0" for every number of the contact NAME);
// group names. "__ALL__" (every contact) and "__GALL__" (every group
// member) stand alone.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace smsgw {

enum RequestSection : size_t { kSectionNumbers = 0, kSectionNames = 1, kSectionGroups = 2 };

struct RequestFile {
    static constexpr size_t kSenderSize = 50;
    static constexpr size_t kTextSize = 160;
    static constexpr size_t kSections = 3;

    // The two fields exactly as stored (zero-filled where the file ended).
    std::string sender_field = std::string(kSenderSize, '\0');
    std::string text_field = std::string(kTextSize, '\0');
    // Each section's text up to its NUL, or nullopt when the section is
    // missing, empty, or its tag is not where it belongs.
    std::array<std::optional<std::string>, kSections> sections;

    std::string sender() const;  // the sender field up to its NUL
    std::string text() const;    // the text field up to its NUL
};

// The tag of a section ("NUMBER:", "NAME:", "GROUP:").
std::string_view request_section_tag(size_t section);

// Sender and text are cut to fit their fields with a NUL; an empty list
// gives L = 0, any other is stored with its NUL.
std::string encode_request_file(std::string_view sender, std::string_view text,
                                std::string_view numbers, std::string_view names,
                                std::string_view groups);

// Reads as far as the data goes, as the send handler always has: a short
// file leaves fields zero and sections absent; a tag out of place drops that
// section (its bytes are consumed, so the next tag is looked for behind
// them); a length beyond the data takes what is there and ends the reading.
RequestFile decode_request_file(std::string_view bytes);

}  // namespace smsgw
