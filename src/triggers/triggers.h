// Incoming SMS and triggers: getactionobject parses an incoming report into
// one of ten actions and runs its handler; api_ProcessTrigs takes "api2" and
// "api3" send requests; the send action broadcasts a trigger to a group.
#pragma once

#include <array>
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
    // action into queue.send_action.
    Triggers(Runtime& rt, AddressBook& ab, RuleLists& rules, Sender& sender, JobQueue& queue);
    ~Triggers();

    // message: the incoming record (sender char[50], text from byte 50) or
    // an api status line. Returns the action number 0-9.
    int getactionobject(std::string_view message);
    // 1 when the "send-sms ..." request was an api2/api3 trigger and was consumed.
    int api_ProcessTrigs(std::string_view request);
    // Action 0 on queue.current_broadcast.
    SendActionResult send_action(int mode);

    // The 100-byte action reply the loop forwards to txrx after action 0:
    // the prepared job path ("api " + path for an api job), NUL-padded. All
    // zero when the broadcast was queued or no job could be made, and after
    // every other action.
    const std::array<char, 100>& action_reply() const { return action_reply_; }

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
    std::array<char, 100> action_reply_{};
};

}  // namespace smsgw
