// The rule-list files: input is the bytes of all four lists, then a few
// operations on them (chosen and fed by the rest of the input) as the
// commands and the address-book upkeep run them.

#include <cstdint>
#include <cstdio>
#include <string>

#include "commands/rule_lists.h"
#include "common/fileops.h"
#include "common/runtime.h"
#include "formats/rule_list_record.h"
#include "fuzz_support.h"

using namespace smsgw;

namespace {

void run_operation(RuleLists& rules, fuzz::InputReader& in) {
    const int index = in.in_range(-2, 40);
    std::string a = in.random_length_string(120);
    std::string b = in.random_length_string(300);
    std::string c = in.random_length_string(60);
    switch (in.in_range(0, 12)) {
        case 0:
            rules.add_broadcast_trigger(a, b);
            break;
        case 1:
            rules.delete_broadcast_trigger(index);
            break;
        case 2:
            rules.edit_broadcast_trigger(index, a, b);
            break;
        case 3:
            rules.add_preconf_sms(a, b);
            break;
        case 4:
            rules.delete_preconf_sms(index);
            break;
        case 5:
            rules.edit_preconf_sms(index, a, b);
            break;
        case 6:
            rules.set_action_trigger(a, b, c);
            break;
        case 7:
            rules.add_auth_user(a, b);
            break;
        case 8:
            rules.delete_auth_user(a, b);
            break;
        case 9:
            rules.update_trigger_members(a, b, index & 1);
            break;
        case 10:
            rules.update_rule_groups(a, b, index & 1);
            break;
        case 11:
            rules.count_records(rules.broadcast_path());
            break;
        default:
            rules.count_records(rules.auth_path());
            break;
    }
}

// Whether the reader accounts for every byte of the file: the records it
// returns, written back, give the file again.
bool well_formed(const std::string& path) {
    auto records = read_rule_records(path);
    auto bytes = read_file(path);
    if (!records || !bytes) return false;
    std::string again;
    for (const auto& r : *records) again += encode_rule_record(r);
    return again == *bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto& root = fuzz::FuzzRoot::get();
    root.reset();
    auto parts = fuzz::split_parts(data, size, 2);
    Runtime rt(root.path(), root.port_offset());
    RuleLists rules(rt);
    for (const std::string& path :
         {rules.broadcast_path(), rules.preconf_path(), rules.ctrl_path(), rules.auth_path()})
        root.write(path.substr(root.path().size() + 1), parts[0]);

    auto records = read_rule_records(rules.broadcast_path());
    if (!records) __builtin_trap();  // the file was just written
    size_t stored = 0;
    for (const auto& r : *records) stored += std::to_string(r.size()).size() + r.size();
    if (stored > parts[0].size()) __builtin_trap();

    // Lists the daemon wrote itself must stay readable to the last byte
    // whatever text the operations are given.
    const bool was_well_formed = well_formed(rules.broadcast_path());
    fuzz::InputReader in(reinterpret_cast<const uint8_t*>(parts[1].data()), parts[1].size());
    for (int n = 0; n < 4 && in.remaining() > 0; ++n) run_operation(rules, in);
    if (was_well_formed) {
        for (const std::string& path :
             {rules.broadcast_path(), rules.preconf_path(), rules.ctrl_path(), rules.auth_path()})
            if (!well_formed(path)) {
                std::fprintf(stderr, "%s is no longer well formed\n", path.c_str());
                __builtin_trap();
            }
    }
    return 0;
}
