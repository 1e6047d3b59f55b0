// Reports a transceiver sends to the daemon (UDP 20206), at most 210 bytes:
//
//   "P_JB"...            the job handed over last is done (the rest unused)
//   TAG(4) MESSAGE       anything else: a 4-byte tag, then an incoming
//                        message for the trigger processing
//
// The message is either an incoming SMS record
//
//   bytes      field    meaning
//   0-49       sender   char[50], the sender's number, NUL-padded
//   50-210     text     the SMS text, up to its NUL (at most 161 bytes)
//
// or an api status line: "api " FILE " " STATUS.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace smsgw {

inline constexpr size_t kTxrxReportMax = 210;
inline constexpr size_t kReportTagSize = 4;

std::string encode_job_done_report();
// An incoming SMS record: the sender cut to 49 characters and NUL-padded,
// then the text.
std::string encode_incoming_sms(std::string_view sender, std::string_view text);
// The same behind "SMS:" as the tag.
std::string encode_incoming_report(std::string_view sender, std::string_view text);
std::string encode_api_status_report(std::string_view file, int status);

struct TxrxReport {
    bool job_done = false;     // "P_JB", or an empty datagram
    std::string_view message;  // otherwise: everything behind the tag
};
// The view points into `datagram`.
TxrxReport decode_txrx_report(std::string_view datagram);

struct IncomingSms {
    static constexpr size_t kSenderSize = 50;
    static constexpr size_t kTextAt = 50;
    static constexpr size_t kTextMax = 161;

    std::string sender_field = std::string(kSenderSize, '\0');  // as sent, zero-filled
    std::string text;                                           // up to its NUL
};
// Any message decodes: missing bytes read as NUL.
IncomingSms decode_incoming_sms(std::string_view message);

struct ApiStatusLine {
    std::string file;
    int status = -1;  // -1 when the line carries no status
};
// nullopt unless the message begins with "api ". The file runs to the next
// blank; the status is the next word's number (atoi).
std::optional<ApiStatusLine> decode_api_status_line(std::string_view message);

}  // namespace smsgw
