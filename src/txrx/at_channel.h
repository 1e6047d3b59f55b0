// The AT dialogue with one modem: a command and its answer up to the final
// result, with a deadline. Lines the modem sends on its own while an answer
// is awaited (+CMTI, RING, +CDS, ...) are queued for the caller, never
// taken as part of the answer.
#pragma once

#include <chrono>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "common/fileops.h"
#include "txrx/at_reader.h"

namespace smsgw::txrx {

struct AtResult {
    enum Status { ok, error, timeout, gone } status = timeout;
    int code = -1;                   // +CMS/+CME ERROR number
    std::vector<std::string> lines;  // the answer's lines before the final one
    bool good() const { return status == ok; }
    static AtResult of(Status s) {
        AtResult r;
        r.status = s;
        return r;
    }
};

class AtChannel {
  public:
    // Takes a descriptor of the open serial line (owned).
    explicit AtChannel(Fd fd) : fd_(std::move(fd)) {}

    int fd() const { return fd_.get(); }
    // True once the device reported an error or hang-up: it is gone.
    bool gone() const { return gone_; }

    // Sends "COMMAND\r" and collects the answer until its final result or
    // the deadline.
    AtResult command(std::string_view cmd, std::chrono::milliseconds timeout);
    // AT+CMGS=<length>, the PDU in hex after the "> " prompt, Ctrl-Z, and
    // the answer. Without a prompt in time the input is cancelled with ESC.
    AtResult send_pdu(size_t tpdu_length, std::string_view hex, std::chrono::milliseconds timeout);

    // Reads what is waiting without blocking; complete unsolicited lines go
    // to the queue. False when the device is gone.
    bool pump();
    std::deque<std::string>& unsolicited() { return unsolicited_; }
    // Drops buffered input (after a reset).
    void flush();

  private:
    bool write_text(std::string_view text);
    // Waits up to the deadline for input; false on timeout or when gone.
    bool read_some(std::chrono::steady_clock::time_point deadline);
    // Next answer line (unsolicited ones are queued); false at the deadline.
    bool next_line(AtLine& line, std::chrono::steady_clock::time_point deadline);
    AtResult collect(std::string_view echo, std::chrono::steady_clock::time_point deadline);
    void route(AtLine line);

    Fd fd_;
    AtReader reader_;
    std::deque<AtLine> answer_;
    std::deque<std::string> unsolicited_;
    bool pdu_follows_ = false;  // the last unsolicited line announced a PDU line
    bool gone_ = false;
};

}  // namespace smsgw::txrx
