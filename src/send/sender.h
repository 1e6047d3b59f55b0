// Send requests: send_sms_handler turns a request file
// (formats/request_file.h) into a job file (formats/job_file.h) and an
// outbox record (formats/outbox_record.h); hand_off_job and reply_to_peer
// pass the job on.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

#include "addressbook/address_book.h"
#include "common/fileops.h"
#include "common/runtime.h"
#include "common/txrx_link.h"
#include "formats/outbox_record.h"
#include "formats/request_file.h"
#include "send/recipients.h"
#include "send/stats.h"

namespace smsgw {

// atoi of the text after the last "-" (the API request id of a file name).
int last_dash_number(std::string_view text);
// "yy/MM/dd^|^hh:mm:ss", each number two digits.
std::string format_time_stamp(const std::tm& tm);

// What preparing one send request gave.
struct PreparedJob {
    std::string job_path;  // the job for the transceivers; "" when there is none
    bool api = false;      // "send-sms api FILE": handed over in the api form
    int api_request_id = 0;
    // A named group (for an API request also a contact) does not exist: the
    // job file was written, but is not to be sent.
    bool unknown_recipient = false;
    // The request file could not be opened: job_path is the previous job's,
    // which the caller hands over again.
    bool again = false;
};

class Sender {
  public:
    // REQUIRES: rt, ab and txrx outlive the sender.
    Sender(Runtime& rt, AddressBook& ab, TxrxLink& txrx);

    // request: "send-sms FILE" or "send-sms api FILE" (CR/LF end it). A FILE
    // refused by request_path_allowed, or one that is not a plain file, is
    // neither read nor deleted and gives no job. Numbers longer than 49
    // characters (or empty) cannot fit a job record and are left out.
    PreparedJob send_sms_handler(std::string_view request, int is_slave);
    // The direct path: the handler, then one datagram per modem to txrx.
    void hand_off_job(std::string_view request);
    // Scheduler mode 1: the prepared job to the peer that asked for work.
    void reply_to_peer(const PreparedJob& job, uint16_t peer_port);

    // Whether a path named by a datagram may be used as a request file:
    // absolute, no "..", at most 87 characters, inside a spool directory,
    // and a regular file that is not a symlink.
    bool request_file_allowed(const std::string& path) const;
    // The same rules without requiring the file to exist yet.
    bool request_path_allowed(const std::string& path) const;

    // The job prepared last (what a request whose file cannot be opened
    // hands over again).
    const std::string& last_job_path() const { return last_job_path_; }

    JobCounters& counters() { return counters_; }
    TxrxLink& txrx() { return txrx_; }
    RecipientSet& recipients() { return recipients_; }

  private:
    enum class RequestRead { Refused, Unopened, Read };
    RequestRead read_request_file(const std::string& path, std::string& bytes) const;
    PreparedJob prepare_job(PreparedJob job, const std::string& request_path,
                            const std::string& request, int is_slave);
    // Adds the request's recipients to the set (numbers named directly go
    // through `scratch`) and lists them in `items`. True when a named group,
    // or for the API a contact, does not exist.
    bool expand_recipients(const RequestFile& request, bool api, FILE* scratch, std::string& items);
    bool write_job_file(Fd& fd, std::string_view text_field);
    void write_outbox(const OutboxRecord& record, Fd fd, const std::string& path);

    Runtime& rt_;
    AddressBook& ab_;
    TxrxLink& txrx_;
    RecipientSet recipients_;
    JobCounters counters_;
    std::string last_job_path_;
};

}  // namespace smsgw
