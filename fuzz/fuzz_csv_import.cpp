// The CSV upload and its column-format file: input is the upload, then the
// format file. The imported book is exported again.
#include <cstdint>
#include <string>

#include "addressbook/address_book.h"
#include "addressbook/csv.h"
#include "common/runtime.h"
#include "fuzz_support.h"

using namespace smsgw;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto& root = fuzz::FuzzRoot::get();
    root.reset();
    auto parts = fuzz::split_parts(data, size, 2);
    const std::string upload = root / "var/run/AddressBook.csv";
    root.write("var/run/AddressBook.csv", parts[0]);
    root.write("var/run/csv_frmt.dat", parts[1]);

    Runtime rt(root.path(), root.port_offset());
    AddressBook ab(rt.reply_buffer);
    ab.ab_insert("Ann Lee", "555", "office");
    csv_import(ab, rt, upload);
    if (ab.entry_count() > AddressBook::MAX_ELEMENTS) __builtin_trap();
    csv_export(ab, root / "var/run/QX_Address_Book.csv");
    return 0;
}
