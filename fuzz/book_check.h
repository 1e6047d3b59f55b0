// The address book's own consistency, checked after each fuzzed operation.
#pragma once
#include <cstdint>
#include <unordered_set>

#include "addressbook/address_book.h"

namespace smsgw::fuzz {

// What every command and trigger must leave intact: the group counters match
// the groups, and every group member is a contact the table still holds (a
// member left behind by a delete or an edit would dangle). The entry count
// may run low, as deleting a number a name does not hold still lowers it,
// but never above the entries there are.
inline void check_book(AddressBook& ab) {
    std::unordered_set<const Entry*> entries;
    ab.ab_for_each_entry([&](Entry& e) { entries.insert(&e); });
    if (ab.entry_count() > 0 && static_cast<size_t>(ab.entry_count()) > entries.size())
        __builtin_trap();
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
    if (groups != ab.group_count()) __builtin_trap();
}

}  // namespace smsgw::fuzz
