// Persistence of the address book: "/var/AddressBook/Address_Book" (one
// line per contact with its group positions) and "/var/AddressBook/groups".
#pragma once

#include <cstdio>

#include "addressbook/address_book.h"
#include "common/runtime.h"

namespace smsgw {

// Start-up load of both files, then the directory is emptied and
// "/var/run/init_address_book" removed.
void ab_load(AddressBook& ab, const Runtime& rt);
// "save-address-book": the contact file is replaced durably (a fresh
// temporary file, fsync, rename; an empty file when there are no
// contacts), then the groups file when there are groups. False when either
// could not be written; a contact file that failed keeps the last save.
bool ab_save(AddressBook& ab, const Runtime& rt);
// The contact file body, in table order, with group positions; false when
// a write to the stream failed.
bool ab_save_contacts(AddressBook& ab, FILE* stream);
// Rewrites "/var/AddressBook/groups" durably; false when that failed.
bool ab_save_groups(AddressBook& ab, const Runtime& rt);

}  // namespace smsgw
