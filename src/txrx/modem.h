// One GSM modem in PDU mode (AT commands of 3GPP TS 27.005/27.007): its
// start-up settings, signal quality, submitting a PDU, and the messages
// stored on the SIM.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "txrx/at_channel.h"
#include "txrx/options.h"

namespace smsgw::txrx {

struct StoredMessage {
    int index = -1;
    int stat = -1;    // 0 received unread, 1 received read, 2/3 stored outgoing
    std::string pdu;  // hex, as the modem gave it
};

class Modem {
  public:
    enum class InitResult { ready, no_answer, sim_locked, gone };

    Modem(AtChannel& at, const Options& options) : at_(at), opt_(options) {}

    // AT until OK (a few tries), echo off, numeric errors, SIM check, PDU
    // mode, new-message indications, SIM storage.
    InitResult init();
    // AT+CFUN=1,1 (full restart), then init().
    InitResult reset();

    // rssi,ber of the signal command's answer (AT+CSQ by default).
    std::optional<std::pair<int, int>> signal();
    void set_signal_command(const std::string& cmd) { signal_cmd_ = cmd; }

    AtResult submit(const std::string& tpdu);
    std::vector<StoredMessage> list();  // AT+CMGL=4
    std::optional<StoredMessage> read(int index);
    bool remove(int index);

    AtChannel& at() { return at_; }

  private:
    AtResult run(const std::string& cmd);

    AtChannel& at_;
    const Options& opt_;
    std::string signal_cmd_ = "AT+CSQ";
};

// The messages of an AT+CMGL or AT+CMGR answer: each "+CMGL:"/"+CMGR:"
// header and the PDU line after it. `index` is used for +CMGR.
std::vector<StoredMessage> parse_listing(const std::vector<std::string>& lines, int index = -1);
// "+CMTI: "SM",5" -> 5; -1 when the line is not a usable indication.
int indication_index(const std::string& line);
// "+CSQ: 23,99" (or any "...: a,b") -> {23, 99}.
std::optional<std::pair<int, int>> parse_signal(const std::vector<std::string>& lines);

}  // namespace smsgw::txrx
