// A fresh incoming-message stack for one fuzz input: rule lists with a few
// records of every kind, a small address book, an empty job queue, and the
// trigger handlers on top. Jobs go to a txrx port nobody listens on.
#pragma once
#include <cstring>
#include <string>

#include "addressbook/address_book.h"
#include "commands/rule_lists.h"
#include "common/runtime.h"
#include "formats/api_status.h"
#include "fuzz_support.h"
#include "jobs/job_queue.h"
#include "send/sender.h"
#include "send/stats.h"
#include "triggers/triggers.h"

namespace smsgw::fuzz {

inline void seed_trigger_files(const FuzzRoot& root) {
    root.write("var/config/trigger_ctrl",
               rule_record("^|^Add^|^ADDENTRY^|^NO^|^") + rule_record("^|^Grp^|^ADDGROUP^|^NO^|^") +
                   rule_record("^|^Pre^|^ADDPRECONFSMS^|^NO^|^") +
                   rule_record("^|^Del^|^DELENTRY^|^YES^|^") +
                   rule_record("^|^DelG^|^DELGROUP^|^NO^|^") +
                   rule_record("^|^Time^|^TIMESETTINGS_LOOP_BACK_MSG^|^NO^|^"));
    root.write("var/config/trigger_broadcast",
               rule_record("^|^Open^|^Doors open^|^Staff]|[^|^NO^|^[null]]|[^|^") +
                   rule_record("^|^Ghost^|^Boo^|^Nobody]|[^|^NO^|^[null]]|[^|^") +
                   rule_record("^|^Alarm^|^Fire^|^Staff]|[^|^YES^|^Bob]|[+4930]|[^|^"));
    root.write("var/config/authenticate_list", rule_record("^|^Bob]|[+4930]|[^|^"));
    root.write("var/config/preconf_sms", rule_record("^|^Meeting^|^Staff]|[^|^"));
    // api status records for the request ids 1 to 8.
    std::string api(ApiStatRecord::kHeaderSize, '\0');
    for (int32_t id = 1; id <= 8; ++id) {
        ApiStatRecord r;
        r.id = id;
        r.status = 1;
        api += encode_api_stat_record(r);
    }
    root.write("var/config/api_stat.st", api);
}

struct TriggerStack {
    explicit TriggerStack(FuzzRoot& root)
        : rt(root.path(), root.port_offset()),
          ab(rt.reply_buffer),
          rules(rt),
          link(rt.ports),
          sender(rt, ab, link),
          queue(rt, sender) {
        seed_trigger_files(root);
        ensure_sms_stats_file(rt);
        rt.no_of_modems = 1;
        queue.set_pause([](unsigned) {});
        queue.try_init_job_pos_table();
        ab.ab_insert("Ann", "+4911", "");
        ab.ab_insert("Bob", "+4930", "");
        ab.group_create("Staff");
        ab.group_add_contact("Staff", "Ann");
        ab.group_add_contact("Staff", "Bob");
        triggers = std::make_unique<Triggers>(rt, ab, rules, sender, queue);
    }

    Runtime rt;
    AddressBook ab;
    RuleLists rules;
    TxrxLink link;
    Sender sender;
    JobQueue queue;
    std::unique_ptr<Triggers> triggers;
};

}  // namespace smsgw::fuzz
