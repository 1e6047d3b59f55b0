// The management command language of the web interface: parse_command
// reads the words of one command, runs its handler and returns the reply.
// Listings go to "/var/run/RESPONSE_FILE" and the reply is that path.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "addressbook/address_book.h"
#include "commands/intl_dialing.h"
#include "commands/rule_lists.h"
#include "common/runtime.h"
#include "common/txrx_link.h"

namespace smsgw {

class CommandParser {
  public:
    // REQUIRES: all referenced objects outlive the parser.
    CommandParser(Runtime& rt, AddressBook& ab, RuleLists& rules, DialingSegment& dialing,
                  const TxrxLink& txrx);
    ~CommandParser();

    // The reply text for one command.
    std::string parse_command(std::string_view text);
    // Frees the tokenizer's current word (the loop does so after each command).
    void release_token();

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace smsgw
