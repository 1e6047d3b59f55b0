// The daemon: one context object that owns every subsystem in dependency
// order, the start-up sequence and the main loop. main() creates one; an
// integration test starts the real program instead.
//
// SIGTERM or SIGINT end the loop after its select: the address book is saved
// as on SIGUSR1, the children are stopped and run() returns 0.
//
// Each pass of the loop (start_waiting_on_select):
//   select (2 s) -> scheduler when no job is outstanding -> pending save
//   (ends the pass) -> txrx check after a child exit -> one datagram per
//   ready endpoint: txrx report, load-balancer message (one carrying
//   "LB_OK" ends the pass), web-interface request.
#pragma once

#include <netinet/in.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "addressbook/address_book.h"
#include "commands/command_parser.h"
#include "commands/intl_dialing.h"
#include "commands/rule_lists.h"
#include "common/runtime.h"
#include "common/txrx_link.h"
#include "core/endpoints.h"
#include "core/modems.h"
#include "core/startup.h"
#include "jobs/job_queue.h"
#include "send/sender.h"
#include "triggers/triggers.h"

namespace smsgw {

class SmsGateway {
  public:
    SmsGateway(std::string root, int port_offset, std::vector<std::string> spool_dirs);
    ~SmsGateway();
    SmsGateway(const SmsGateway&) = delete;
    SmsGateway& operator=(const SmsGateway&) = delete;

    // Start-up, then the loop until SIGTERM or SIGINT, then the stop.
    // 0 when an endpoint cannot be opened and after a stop.
    int run();

  private:
    enum class PassEnd { Continue, EndPass };

    bool start_up();
    void log_startup_notice() const;
    void start_waiting_on_select();  // returns when a stop was asked for
    void shut_down();

    void apply_signals();
    bool save_address_book_on_request();  // whether the save succeeded
    void handle_txrx_report();
    PassEnd handle_load_balancer();
    void handle_gui_request();
    // The request announced by a length datagram; nullopt when it does not
    // follow in time.
    std::optional<std::string> read_framed_request(int fd, long announced);
    // The next datagram whole, waiting up to `ms` for it to arrive.
    std::optional<std::string> next_datagram(int fd, int ms);

    // Web-interface requests; each returns whether a reply is due.
    bool on_send_sms(const std::string& request, std::string& reply);
    bool on_csv_file(std::string& reply);
    bool on_csv_export(std::string& reply);
    bool on_dialout_request(std::string& reply);
    bool on_dialout_release(std::string& reply);

    void send_gui_reply(std::string_view reply);
    ssize_t receive(int fd, void* buf, size_t len, int flags = 0);

    Runtime rt_;
    AddressBook ab_;
    RuleLists rules_;
    DialingSegment dialing_;
    TxrxLink link_;
    CommandParser parser_;
    Sender sender_;
    JobQueue queue_;
    Triggers triggers_;
    TxrxSupervisor txrx_;
    Endpoints ep_;
    SmsUsers sms_users_;
    int maxfd_ = -1;
    std::vector<char> datagram_;  // a web-interface datagram on its way in
    sockaddr_in peer_addr_{};     // sender of the datagram read last: replies go there
};

}  // namespace smsgw
