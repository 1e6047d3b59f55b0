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
// The contact file body, in table order, with group positions.
void ab_save_contacts(AddressBook& ab, FILE* stream);
// Rewrites "/var/AddressBook/groups".
void ab_save_groups(AddressBook& ab, const Runtime& rt);

}  // namespace smsgw
