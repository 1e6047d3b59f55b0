// Send requests: send_sms_handler turns a request file into a job file and
// an outbox record; hand_off_job and reply_to_peer pass the job on.
//
// Request file (binary, host byte order): sender char[50], text char[160],
// then "NUMBER:" len32 bytes, "NAME:" len32 bytes, "GROUP:" len32 bytes.
#pragma once

#include <ctime>
#include <string>
#include <string_view>

#include "addressbook/address_book.h"
#include "common/fileops.h"
#include "common/runtime.h"
#include "send/recipients.h"

namespace smsgw {

// atoi of the text after the last "-" (the API request id of a file name).
int last_dash_number(std::string_view text);
// "yy/MM/dd^|^hh:mm:ss", each number two digits.
std::string format_time_stamp(const std::tm& tm);

// Builds a request file image (used by tools, tests and trigger actions).
std::string build_request_file(std::string_view sender, std::string_view text,
                               std::string_view numbers, std::string_view names,
                               std::string_view groups);

class Sender {
  public:
    // REQUIRES: rt and ab outlive the sender.
    Sender(Runtime& rt, AddressBook& ab);

    // request: "send-sms FILE" or "send-sms api FILE" (CR/LF end it). A
    // FILE refused by request_file_allowed is neither read nor deleted and
    // leaves job_path as it was. Numbers longer than 49 characters (or empty)
    // cannot fit a job record and are left out of the job.
    void send_sms_handler(std::string_view request, int is_slave);
    // The direct path: handler, then one datagram per modem to txrx. After a
    // refused request file nothing at all is sent.
    void hand_off_job(std::string_view request);
    // Scheduler mode 1: the prepared job to the peer read last.
    void reply_to_peer();

    // Whether a path named by a datagram may be used as a request file:
    // absolute, no "..", at most 87 characters, inside a spool directory,
    // and a regular file that is not a symlink.
    bool request_file_allowed(const std::string& path) const;
    // The same rules without requiring the file to exist yet.
    bool request_path_allowed(const std::string& path) const;

    std::string job_path;  // the payload handed to txrx (at most 99 chars)
    int api_request = 0;
    int api_request_id = 0;
    int api_request_failed = 0;
    std::string filename_from_gui;
    int handoff_count = 0;
    int peer_reply_count = 0;

    RecipientSet& recipients() { return recipients_; }

  private:
    // The request file opened under the policy of request_file_allowed;
    // an invalid Fd when the path is refused.
    Fd open_request_file(const std::string& path) const;

    Runtime& rt_;
    AddressBook& ab_;
    RecipientSet recipients_;
    bool request_refused_ = false;  // the last request named a refused file
};

}  // namespace smsgw
