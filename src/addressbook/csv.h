// CSV export of the contact table and import of an uploaded CSV file with
// its column-format file "/var/run/csv_frmt.dat".
#pragma once

#include <string>

#include "addressbook/address_book.h"
#include "common/runtime.h"

namespace smsgw {

void csv_export(AddressBook& ab, const std::string& path);
// Imports the upload at `path` using rt's "/var/run/csv_frmt.dat"; marker
// files go to rt's "/var/tmp".
void csv_import(AddressBook& ab, const Runtime& rt, const std::string& path);

}  // namespace smsgw
