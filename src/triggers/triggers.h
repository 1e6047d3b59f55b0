// Incoming SMS and triggers: getactionobject parses an incoming report into
// one of ten actions and runs its handler; api_ProcessTrigs takes "api2" and
// "api3" send requests; the send action broadcasts a trigger to a group.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "addressbook/address_book.h"
#include "commands/rule_lists.h"
#include "common/runtime.h"
#include "jobs/job_queue.h"
#include "send/sender.h"

namespace smsgw {

class Triggers {
  public:
    // REQUIRES: every referenced object outlives this one. Installs the send
    // action (action 0) into the queue.
    Triggers(Runtime& rt, AddressBook& ab, RuleLists& rules, Sender& sender, JobQueue& queue);
    ~Triggers();

    // message: the incoming record (sender char[50], text from byte 50) or
    // an api status line. Returns the action number 0-9.
    int getactionobject(std::string_view message);
    // 1 when the "send-sms ..." request was an api2/api3 trigger and was consumed.
    int api_ProcessTrigs(std::string_view request);

    // The 100-byte action reply the loop forwards to txrx after a report:
    // the job action 0 prepared (formats/txrx_datagram.h, broadcast form).
    // All zero when the broadcast was queued or no job could be made, and
    // after every other action.
    const std::string& action_reply() const { return action_reply_; }

  private:
    struct Impl;
    void api_send_trigger(const std::string& message, const ApiOrigin& origin);

    std::unique_ptr<Impl> impl_;
    std::string action_reply_;
};

}  // namespace smsgw
