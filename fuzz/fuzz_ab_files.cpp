// The address-book files read at start-up: input is the contact file, then
// the groups file. What was loaded is saved as "save-address-book" does.
// A damaged file may change once on its way through (a description that
// ran to the end of the file without its separator can end in "^|", which
// then merges with the separator written after it), but from the first
// save on, every restart must load a book that saves to the same bytes.
#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>

#include "addressbook/address_book.h"
#include "addressbook/address_book_files.h"
#include "common/fileops.h"
#include "common/runtime.h"
#include "fuzz_support.h"

using namespace smsgw;

namespace {

constexpr const char* kContacts = "var/AddressBook/Address_Book";
constexpr const char* kGroups = "var/AddressBook/groups";

// Loads the two files into a fresh book and gives back what it saves.
std::pair<std::string, std::string> load_and_save(const fuzz::FuzzRoot& root,
                                                  const std::string& contacts,
                                                  const std::string& groups) {
    root.write(kContacts, contacts);
    root.write(kGroups, groups);
    Runtime rt(root.path(), root.port_offset());
    AddressBook ab(rt.reply_buffer);
    ab_load(ab, rt);
    if (ab.group_count() > AddressBook::MAX_GROUPS || ab.entry_count() > AddressBook::MAX_ELEMENTS)
        __builtin_trap();

    remove_file(root / kGroups);
    if (!ab_save(ab, rt)) __builtin_trap();
    return {read_file(root / kContacts).value_or(""), read_file(root / kGroups).value_or("")};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto& root = fuzz::FuzzRoot::get();
    root.reset();
    auto parts = fuzz::split_parts(data, size, 2);
    auto first = load_and_save(root, parts[0], parts[1]);
    // A NUL ends a name as the daemon's peers read it, so a group named by
    // one is written as an empty line that the next load skips: files the
    // daemon writes never hold one, and only the loading is checked then.
    if (parts[0].find('\0') != std::string::npos || parts[1].find('\0') != std::string::npos)
        return 0;
    auto second = load_and_save(root, first.first, first.second);
    auto third = load_and_save(root, second.first, second.second);
    if (second != third) {
        std::fprintf(stderr, "saved book changed on reload\n--- contacts\n%s\n--- again\n%s\n",
                     second.first.c_str(), third.first.c_str());
        std::fprintf(stderr, "--- groups\n%s\n--- again\n%s\n", second.second.c_str(),
                     third.second.c_str());
        __builtin_trap();
    }
    return 0;
}
