// Sending reports to the daemon (UDP 20206+N) and writing inbox records;
// their layouts are the formats library's (txrx_report.h, inbox_record.h).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "common/fileops.h"

namespace smsgw::txrx {

// Api status codes txrx writes (the daemon's own are 0, 2, 6, 7, 8, 606,
// 608, 610 and 611).
inline constexpr int kApiAllSent = 0;
inline constexpr int kApiSomeFailed = 620;     // at least one recipient did not get it
inline constexpr int kApiNoneSent = 621;       // no recipient got it (or there was none)
inline constexpr int kApiJobUnreadable = 622;  // the job file was refused or damaged

// The longest text an incoming report carries (210 bytes less the tag and
// the 50-byte sender); longer texts are cut at a character boundary.
inline constexpr size_t kReportTextMax = 156;

// The incoming-message report, its text cut to kReportTextMax bytes.
std::string incoming_report(std::string_view sender, std::string_view text);

// Sends datagrams to the daemon's report port from one socket.
class Reporter {
  public:
    explicit Reporter(uint16_t port);
    bool send(std::string_view datagram) const;

  private:
    Fd fd_;
    uint16_t port_;
};

// Appends one record to the inbox with a single write, synced.
bool append_inbox(const std::string& path, std::string_view record);

}  // namespace smsgw::txrx
