// The incoming-SMS inbox "/var/Inbox/smsinbox.dat", written by the
// receiving side and read when the clock is set from a returned SMS:
// records, each an int32 length L (host byte order) and L bytes of text:
//
//   SENDER "^|^" DATE "^|^" TIME "^|^" SMS TEXT
//
// DATE is yy/MM/dd; TIME is hh:mm:ss followed by the zone offset ("+zz" or
// "-zz").
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace smsgw {

struct InboxRecord {
    std::string_view sender, date, time, text;
};

std::string encode_inbox_record(std::string_view sender, std::string_view date,
                                std::string_view time, std::string_view text);

// The text of the record at the front of `rest`, which then moves past it.
// nullopt at the end of the data and wherever the reading must stop: a
// length that is not positive or runs past the data.
std::optional<std::string_view> next_inbox_record(std::string_view& rest);

// The four fields of a record's text; nullopt when a "^|^" is missing. The
// views point into `text`.
std::optional<InboxRecord> split_inbox_record(std::string_view text);

}  // namespace smsgw
