// The address book's own consistency, checked after each fuzzed operation.
#pragma once
#include <cstdint>
#include <unordered_set>

#include "addressbook/address_book.h"

namespace smsgw::fuzz {

// What every command and trigger must leave intact: the counters match the
// table and the groups, and every group member is a contact the table still
// holds (a member left behind by a delete or an edit would dangle).
inline void check_book(AddressBook& ab) {
    std::unordered_set<const Entry*> entries;
    ab.ab_for_each_entry([&](Entry& e) { entries.insert(&e); });
    if (entries.size() != static_cast<size_t>(ab.entry_count)) __builtin_trap();
    int groups = 0;
    for (Group* g = ab.first_group(); g; g = g->next.get()) {
        ++groups;
        uint32_t members = 0;
        for (GroupMember* m = g->members.get(); m; m = m->next.get()) {
            ++members;
            if (entries.count(m->member_entry) == 0) __builtin_trap();
        }
        if (members != g->member_count) __builtin_trap();
    }
    if (groups != ab.group_count) __builtin_trap();
}

}  // namespace smsgw::fuzz
