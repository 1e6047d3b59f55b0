// What the command handlers share while one command runs: the daemon's
// objects, the tokenizer over the command text, and the listing state that
// outlives a command (the match total of the last first-page search).
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "addressbook/address_book.h"
#include "commands/intl_dialing.h"
#include "commands/rule_lists.h"
#include "common/fileops.h"
#include "common/runtime.h"
#include "common/txrx_link.h"

namespace smsgw {

// Room of the argument fields the web interface sends (terminator
// excluded); longer fields are cut to it.
inline constexpr size_t kNameRoom = 49;
inline constexpr size_t kNumberRoom = 49;
inline constexpr size_t kDescRoom = 199;
inline constexpr size_t kGroupRoom = 49;

struct CommandContext {
    CommandContext(Runtime& r, AddressBook& a, RuleLists& l, DialingSegment& d, const TxrxLink& t)
        : rt(r), ab(a), rules(l), dialing(d), txrx(t) {}

    Runtime& rt;
    AddressBook& ab;
    RuleLists& rules;
    DialingSegment& dialing;
    const TxrxLink& txrx;  // control texts for the transceivers

    Tokenizer tok;
    std::string_view cursor;  // the command text not yet cut
    int match_total = 0;

    // Cuts the next word; nullopt when no separator is left.
    std::optional<std::string> next(std::string_view separator);
    std::optional<std::string> next_field() { return next(kSep); }
    // A field cut to the room of its buffer.
    std::optional<std::string> next_field(size_t room);

    // The reply a handler gives when it hands back the shared buffer.
    std::string reply_buffer() const { return rt.reply_buffer.str(); }
    std::string response_file() const { return rt.path("/var/run/RESPONSE_FILE"); }
};

// Opens the response file for writing; it starts empty.
FilePtr open_response_file(const std::string& path);
// Leaves an empty response file at the name ("> FILE").
void empty_response_file(const std::string& path);

// The response file opened for a listing, with the listing's state; the
// file is closed on destruction.
class ResponseListing {
  public:
    explicit ResponseListing(const CommandContext& ctx);
    ResponseListing(const ResponseListing&) = delete;
    ResponseListing& operator=(const ResponseListing&) = delete;

    bool ok() const { return file_ != nullptr; }
    // What the address book's listings write to and advance.
    Listing& listing() { return listing_; }
    // The length-prefixed "^|^MAX_ELEMENTS=n" trailer of entry listings.
    void counted_trailer(int elements);
    void write(std::string_view text);
    void close();

  private:
    FilePtr file_;
    Listing listing_;
};

// Part of the phone-book handlers (cursor behind the second word).
std::string get_phone_book(CommandContext& ctx);
std::string get_phone_number(CommandContext& ctx);
std::string get_groups(CommandContext& ctx);
std::string get_group_members(CommandContext& ctx);
std::string get_total_entries(CommandContext& ctx);
std::string add_phone_book_entry(CommandContext& ctx);
std::string add_group(CommandContext& ctx);
std::string add_group_members(CommandContext& ctx);
std::string delete_phone_book_entries(CommandContext& ctx);
std::string delete_group_members(CommandContext& ctx);
std::string delete_groups(CommandContext& ctx);
std::string edit_phone_book_entry(CommandContext& ctx);
std::string rename_group(CommandContext& ctx);

}  // namespace smsgw
