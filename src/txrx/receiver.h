// Incoming messages: decoding what the modem read from the SIM, keeping the
// parts of a concatenated message on disk until the set is complete (so a
// restart loses none), and handing each whole message to the daemon (a
// report) and to the inbox file.
//
// Parts live in DIR/var/Inbox/parts/, one file per part named
//   HEXSENDER_REF_TOTAL.SEQ   (REF as 4 hex digits, "w" appended for a
//                              16-bit reference)
// holding the part's PDU in hex. A set still incomplete after the expiry
// time is delivered with the parts it has.
#pragma once

#include <chrono>
#include <string>

#include "formats/sms_pdu.h"
#include "txrx/options.h"
#include "txrx/reports.h"

namespace smsgw::txrx {

class Receiver {
  public:
    Receiver(const std::string& root, const Options& options, const Reporter& reporter);

    // One message as the modem gave it (hex, service-centre address in
    // front). True once it is safe to delete it from the SIM: reported and
    // written to the inbox, stored as a part, or (undecodable) kept in
    // DIR/var/Inbox/undecodable.
    bool take(const std::string& pdu_hex);
    // Delivers complete sets found on disk, and incomplete ones whose first
    // part arrived longer ago than the expiry.
    void sweep();

  private:
    bool deliver(const pdu::Deliver& message, const std::string& text);
    bool store_part(const pdu::Deliver& d, const std::string& pdu_hex, std::string* key);
    // Assembles the set `key` of `total` parts when it is complete or
    // `force`d; removes its files once delivered.
    void assemble(const std::string& key, int total, bool force);

    std::string inbox_;
    std::string parts_dir_;
    std::string undecodable_;
    const Options& opt_;
    const Reporter& reporter_;
};

}  // namespace smsgw::txrx
