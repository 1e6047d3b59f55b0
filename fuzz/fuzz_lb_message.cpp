// The load-balancer message, through the daemon's own handler. Input: the
// datagram, then the api status table, then the slave's outbox record. One
// well-formed job is queued first so a request for work has one to take.
#include <cstdint>
#include <string>

#include "addressbook/address_book.h"
#include "common/fileops.h"
#include "common/runtime.h"
#include "formats/request_file.h"
#include "fuzz_support.h"
#include "jobs/job_queue.h"
#include "jobs/load_balancer.h"
#include "send/sender.h"
#include "send/stats.h"

using namespace smsgw;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto& root = fuzz::FuzzRoot::get();
    root.reset();
    auto parts = fuzz::split_parts(data, size, 3);
    root.write("var/config/api_stat.st", parts[1]);
    if (!parts[2].empty()) root.write("var/Outbox/outbox_slave_tmp", parts[2]);
    root.write("tmp/req-1", encode_request_file("admin", "hello", "+4911^|^", "", ""));

    Runtime rt(root.path(), root.port_offset());
    rt.no_of_modems = 1;
    ensure_sms_stats_file(rt);
    AddressBook ab(rt.reply_buffer);
    TxrxLink link(rt.ports);
    Sender sender(rt, ab, link);
    JobQueue queue(rt, sender);
    queue.set_pause([](unsigned) {});
    if (!queue.try_init_job_pos_table()) return 0;
    queue.load_job_pos_table();
    queue.add_to_pending_jobs("send-sms " + root / "tmp/req-1");

    const long long status_before = file_size(root / "var/config/api_stat.st");
    const long long outbox_before = file_size(root / "var/Outbox/outbox_slave_tmp");
    const int32_t queued_before = queue.position().TOTAL_SIZE;
    handle_load_balancer_message(parts[0], 0, rt, queue);
    // A status is written at an existing record or one past the end, and
    // the result goes inside the outbox record (which only a job handed to
    // the peer writes anew): neither file may grow otherwise.
    if (file_size(root / "var/config/api_stat.st") > status_before + 60) __builtin_trap();
    if (queue.position().TOTAL_SIZE == queued_before &&
        file_size(root / "var/Outbox/outbox_slave_tmp") > outbox_before)
        __builtin_trap();
    const PositionTable t = queue.position();
    if (t.P_POS < 0 || t.P_POS > 8 || t.L_POS < 0 || t.L_POS > 8) __builtin_trap();
    fuzz::reap_children();
    return 0;
}
