// An emulated GSM modem on a pseudo-terminal, for tests and the demo. It
// answers the AT subset txrx uses (and the daemon's AT+CSQ probe), logs
// every submitted PDU decoded, keeps received messages in a SIM store, and
// takes commands on a control socket to inject messages and faults.
//
// Control commands (one per datagram; the answer goes back to the sender):
//   sms FROM TEXT          inject a message (parts as needed, 7-bit or UCS-2)
//   sms-reverse FROM TEXT  the same, parts in reverse order
//   sms16 FROM TEXT        parts with a 16-bit reference
//   pdu HEX                inject one raw PDU as it would be stored
//   fail N [CODE]          the N-th submit from now answers +CMS ERROR CODE
//   silent on|off          answer nothing at all
//   delay MS               answer every command MS milliseconds late
//   noise TEXT             send TEXT as a line now
//   noise-every N          a noise line before every N-th answer (0: none)
//   csq N                  the signal value AT+CSQ reports
//   pin on|off             the SIM asks for a PIN
//   vanish                 close the line and remove the device link
//   stored                 answer with the number of stored messages
#pragma once

#include <chrono>
#include <deque>
#include <map>
#include <string>

#include "common/fileops.h"

namespace smsgw::modemsim {

struct Config {
    std::string root = "/";
    std::string tty = "ttyS0";  // link DIR/dev/<tty>
    std::string log;            // default DIR/var/run/modem-sim.<tty>.log
    std::string control;        // default DIR/var/run/modem-sim.<tty>.ctl
    int csq = 23;
    int delay_ms = 0;
};

class ModemSim {
  public:
    explicit ModemSim(Config config);
    ~ModemSim();
    bool start(std::string* why);
    // Serves until stopped or vanished.
    int run(const volatile int& stop);

  private:
    using Clock = std::chrono::steady_clock;
    struct Pending {
        Clock::time_point at;
        std::string bytes;
    };

    void on_input(std::string_view bytes);
    void on_command(const std::string& line);
    void on_submit(const std::string& hex);
    std::string answer(const std::string& cmd);
    void reply(std::string text);
    void flush_pending();
    void on_control();
    std::string control(const std::string& cmd);
    void store(const std::string& hex);
    void inject_text(const std::string& args, bool reverse, bool ref16);
    void log_line(const std::string& line);
    void vanish();

    Config cfg_;
    Fd master_;
    Fd slave_;
    Fd ctl_;
    std::string link_;
    std::string input_;
    bool echo_ = true;
    bool text_mode_ = false;  // after AT+CMGS, until Ctrl-Z
    size_t announced_ = 0;    // the TPDU length AT+CMGS gave
    bool silent_ = false;
    bool pin_ = false;
    bool vanished_ = false;
    int fail_at_ = 0;  // submits until a failure (0: none)
    int fail_code_ = 500;
    int noise_every_ = 0;
    int answers_ = 0;
    int mr_ = 0;
    uint16_t ref_ = 0;
    std::map<int, std::pair<int, std::string>> sim_;  // index -> stat, PDU hex
    std::deque<Pending> pending_;
};

// Client: sends one command to a control socket and returns the answer
// ("" when none came within `timeout`).
std::string send_control(const std::string& socket, const std::string& cmd,
                         std::chrono::milliseconds timeout);

}  // namespace smsgw::modemsim
