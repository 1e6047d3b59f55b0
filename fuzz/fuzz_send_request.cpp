// The send request file: sender, text and the NUMBER:/NAME:/GROUP: lists
// with their lengths, as the web interface writes it. The first input byte
// picks the request form ("send-sms FILE" or "send-sms api FILE-N") and the
// slave flag; the rest is the file.
#include <cstdint>
#include <string>

#include "addressbook/address_book.h"
#include "common/fileops.h"
#include "common/runtime.h"
#include "fuzz_support.h"
#include "send/sender.h"
#include "send/stats.h"

using namespace smsgw;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    auto& root = fuzz::FuzzRoot::get();
    root.reset();
    const std::string file = root / "tmp/sms-req-3";
    root.write("tmp/sms-req-3", std::string(reinterpret_cast<const char*>(data + 1), size - 1));

    Runtime rt(root.path(), root.port_offset());
    rt.no_of_modems = 1;
    ensure_sms_stats_file(rt);
    AddressBook ab(rt.reply_buffer);
    ab.ab_insert("Ann", "+4911", "");
    ab.ab_insert("Ann", "+4912", "");
    ab.ab_insert("Bob", "+4930", "");
    ab.group_create("Staff");
    ab.group_add_contact("Staff", "Ann");
    ab.group_add_contact("Staff", "Bob");
    ab.group_create("Empty");

    TxrxLink link(rt.ports);
    Sender sender(rt, ab, link);
    const bool api = data[0] & 1;
    const int is_slave = (data[0] >> 1) & 1;
    const PreparedJob prepared =
        sender.send_sms_handler((api ? "send-sms api " : "send-sms ") + file + "\r\n", is_slave);
    if (prepared.job_path.size() > 99) __builtin_trap();
    // txrx reads the job as the 160-byte text and whole 50-byte numbers.
    if (!prepared.job_path.empty()) {
        long long job = file_size(prepared.job_path);
        if (job >= 0 && (job < 160 || (job - 160) % 50 != 0)) __builtin_trap();
    }
    fuzz::reap_children();
    return 0;
}
