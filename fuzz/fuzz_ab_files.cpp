// The address-book files read at start-up: input is the contact file, then
// the groups file. What was loaded is saved again, as "save-address-book"
// would, so the writers see whatever the reader let in.
#include <cstdint>
#include <cstdio>
#include <string>

#include "addressbook/address_book.h"
#include "addressbook/address_book_files.h"
#include "common/fileops.h"
#include "common/runtime.h"
#include "fuzz_support.h"

using namespace smsgw;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto& root = fuzz::FuzzRoot::get();
    root.reset();
    auto parts = fuzz::split_parts(data, size, 2);
    root.write("var/AddressBook/Address_Book", parts[0]);
    root.write("var/AddressBook/groups", parts[1]);

    Runtime rt(root.path(), root.port_offset());
    AddressBook ab(rt.reply_buffer);
    ab_load(ab, rt);
    if (ab.group_count > AddressBook::MAX_GROUPS || ab.entry_count > AddressBook::MAX_ELEMENTS)
        __builtin_trap();

    FilePtr out = open_file(root / "var/AddressBook/Address_Book", "w");
    if (out && ab.entry_count != 0) ab_save_contacts(ab, out.get());
    out.reset();
    if (ab.group_count != 0) ab_save_groups(ab, rt);
    return 0;
}
