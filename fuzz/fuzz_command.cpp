// The management command language: every part of the input is one command
// text as the web interface sends it, run in order on a fresh daemon
// context (a contact Ann in the group Team, one action trigger).
#include <cstdint>
#include <string>

#include "addressbook/address_book.h"
#include "book_check.h"
#include "commands/command_parser.h"
#include "commands/intl_dialing.h"
#include "commands/rule_lists.h"
#include "common/runtime.h"
#include "fuzz_support.h"

using namespace smsgw;

namespace {
constexpr size_t kMaxCommands = 8;
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto& root = fuzz::FuzzRoot::get();
    root.reset();
    root.write("var/config/trigger_ctrl", fuzz::rule_record("^|^Add^|^ADDENTRY^|^NO^|^"));
    root.write("var/config/international_dialing", "int-dialing=enable\nmax-digits=12\n");

    Runtime rt(root.path(), root.port_offset());
    AddressBook ab(rt.reply_buffer);
    RuleLists rules(rt);
    DialingSegment dialing;  // never attached: the word is shared machine-wide
    TrieNode* ann = ab.ab_insert("Ann", "555", "d");
    Group* team = ab.group_create("Team");
    ab.group_add_member_to(team, AddressBook::ab_find_number(ann->entries.get(), "555"));

    TxrxLink link(rt.ports);
    CommandParser parser(rt, ab, rules, dialing, link);
    for (const std::string& command : fuzz::split_parts(data, size, kMaxCommands)) {
        if (command.empty()) continue;
        std::string reply = parser.parse_command(command);
        parser.release_token();
        // The reply travels back in one datagram.
        if (reply.size() > 65507) __builtin_trap();
        fuzz::check_book(ab);
    }
    fuzz::reap_children();
    return 0;
}
