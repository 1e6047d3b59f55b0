// The job file a transceiver sends from: the message text, then one record
// per recipient.
//
//   bytes                field    meaning
//   0-159                text     char[160], the request's text field as read
//   160 + 50*i .. +49    number   char[50], the i-th number, NUL-padded
//
// No header, count or separator; a number has at most 49 characters.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace smsgw {

struct JobFile {
    static constexpr size_t kTextSize = 160;
    static constexpr size_t kRecordSize = 50;

    std::string text_field = std::string(kTextSize, '\0');  // exactly as stored
    std::vector<std::string> numbers;

    std::string text() const;  // the text field up to its NUL
};

// Appends one 50-byte recipient record (the number cut to 49 characters).
void append_recipient_record(std::string& out, std::string_view number);
// The same into a record of the caller's. REQUIRES: 50 bytes at `record`.
void put_recipient_record(char* record, std::string_view number);

// The 160-byte text field (cut or zero-filled to size), then the records.
std::string encode_job_file(std::string_view text_field, const std::vector<std::string>& numbers);

// nullopt when the text field is incomplete; a partial record at the end is
// not a recipient and is ignored.
std::optional<JobFile> decode_job_file(std::string_view bytes);

}  // namespace smsgw
