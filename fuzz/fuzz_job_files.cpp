// The pending-job files and the position table as a restart finds them:
// input is the table (44 bytes), then the nine pending files, then the
// per-modem file. Start-up repair runs, then scheduler passes in both
// modes. "%R" in a part stands for the sandbox root (in place, inside the
// record's padding), so a seed's records can name request files that exist.
#include <cstdint>
#include <string>

#include "addressbook/address_book.h"
#include "common/runtime.h"
#include "formats/request_file.h"
#include "fuzz_support.h"
#include "jobs/job_queue.h"
#include "send/sender.h"
#include "send/stats.h"

using namespace smsgw;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto& root = fuzz::FuzzRoot::get();
    root.reset();
    auto parts = fuzz::split_parts(data, size, 11);
    for (auto& p : parts) fuzz::expand_root_in_field(p, root);
    root.write("var/Jobs/pos_offset", parts[0]);
    for (int i = 1; i <= 9; ++i)
        root.write("var/Jobs/Pending_Jobs_" + std::to_string(i), parts[static_cast<size_t>(i)]);
    root.write("var/Jobs/PerModem_PendingJob", parts[10]);
    root.write("tmp/req-1", encode_request_file("admin", "hello", "+4911^|^", "", ""));

    // Records name request files; a damaged one must not make the queue
    // create files wherever it points (relative names land here).
    const size_t entries_before = fuzz::entries_in_working_dir();
    Runtime rt(root.path(), root.port_offset());
    rt.no_of_modems = 1;
    ensure_sms_stats_file(rt);
    AddressBook ab(rt.reply_buffer);
    TxrxLink link(rt.ports);
    Sender sender(rt, ab, link);
    JobQueue queue(rt, sender);
    queue.set_pause([](unsigned) {});  // the pause only gives txrx time
    if (!queue.try_init_job_pos_table()) return 0;
    queue.load_job_pos_table();
    queue.repair_pending_file();
    for (int pass = 0; pass < 12; ++pass) {
        link.job_done();
        queue.create_job_from_pending_jobs(pass % 3 == 2 ? 1 : 0);
        const PositionTable t = queue.position();
        if (t.P_POS < 0 || t.P_POS > 8 || t.L_POS < 0 || t.L_POS > 8) __builtin_trap();
    }
    if (fuzz::entries_in_working_dir() != entries_before) __builtin_trap();
    fuzz::reap_children();
    return 0;
}
