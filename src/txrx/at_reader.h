// Splits what a modem writes into lines and the "> " prompt of AT+CMGS,
// and tells final results and unsolicited lines from the rest.
//
// Bounded: a line longer than kMaxLine is cut there and the rest of it, up
// to its newline, is dropped; NUL bytes are dropped; blank lines are not
// reported.
#pragma once

#include <cstddef>
#include <deque>
#include <string>
#include <string_view>

namespace smsgw::txrx {

inline constexpr size_t kMaxLine = 1024;

struct AtLine {
    enum class Kind { line, prompt } kind = Kind::line;
    std::string text;
};

class AtReader {
  public:
    void feed(std::string_view bytes);
    bool has_line() const { return !lines_.empty(); }
    AtLine take();
    // Forgets everything not yet taken (after a reset of the modem).
    void clear();

  private:
    void end_line();

    std::string partial_;
    bool overflow_ = false;
    std::deque<AtLine> lines_;
};

// "OK", "ERROR", "+CMS ERROR: n", "+CME ERROR: n", "NO CARRIER".
bool is_final(std::string_view line);
// The error number of "+CMS ERROR: n" / "+CME ERROR: n", -1 otherwise.
int error_code(std::string_view line);
// Lines the modem sends on its own: +CMTI, +CDS (its PDU follows on the
// next line), +CDSI, RING and the like.
bool is_unsolicited(std::string_view line);
// "+CDS:" announces a status report whose PDU is the next line.
bool announces_pdu(std::string_view line);

}  // namespace smsgw::txrx
