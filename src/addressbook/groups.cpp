// Groups: named member lists pointing at contact-table entries, at most 50,
// kept in name order when created by command and in file order when loaded.
#include <cstdint>

#include "addressbook/address_book.h"
#include "addressbook/address_book_util.h"
#include "common/trace.h"

namespace smsgw {

Group* AddressBook::find_group_from_head(std::string_view name) {
    name = cstr(name);
    // The head takes part: the empty name finds it while groups exist.
    for (Group* g = &group_list_; g; g = g->next.get())
        if (iequal(g->group_name, name)) return g;
    return nullptr;
}

Group* AddressBook::group_create(std::string_view name) {
    name = cstr(name);
    if (group_count_ > MAX_GROUPS - 1) return nullptr;
    if (group_list_.next && find_group_from_head(name)) {
        reply_.set("ERROR:Group Already exists with the name");
        return nullptr;
    }
    Group* after = &group_list_;
    while (after->next && icompare(after->next->group_name, name) <= 0) after = after->next.get();
    auto g = std::make_unique<Group>();
    g->group_name.assign(name);
    g->next = std::move(after->next);
    after->next = std::move(g);
    ++group_count_;
    return after->next.get();
}

Group* AddressBook::group_find(std::string_view name) {
    Group* g = group_list_.next ? find_group_from_head(name) : nullptr;
    reply_.set(g ? "SUCCESS" : "ERROR:Search is Insucessfull");
    return g;
}

int AddressBook::group_delete(std::string_view name, int keep) {
    if (!group_list_.next) {
        reply_.set("ERROR:No elements are there in group");
        return 0;
    }
    name = cstr(name);
    Group* prev = &group_list_;
    while (prev->next && !iequal(prev->next->group_name, name)) prev = prev->next.get();
    // The list head is not a group of its own and cannot be deleted.
    if (!prev->next) {
        reply_.set("ERROR:Element Not Found in the Group");
        return 0;
    }
    --group_count_;
    reply_.set("SUCCESS");
    trace("SUCCESS\n");
    std::unique_ptr<Group> g = std::move(prev->next);
    prev->next = std::move(g->next);
    if (keep != 0 && g->members) {
        // The caller may still hand these members on; keep them allocated.
        detached_groups_.push_back(std::move(g));
        return 1;
    }
    free_members(std::move(g->members));
    return 1;
}

Group* AddressBook::group_rename(std::string_view old_name, std::string_view new_name) {
    // The old group still counts until it is deleted: a full list must
    // still allow a rename.
    --group_count_;
    Group* fresh = group_create(new_name);
    ++group_count_;
    if (!fresh) return nullptr;
    old_name = cstr(old_name);
    Group* old = first_group();
    while (old && (old == fresh || !iequal(old->group_name, old_name))) old = old->next.get();
    if (old) {
        fresh->members = std::move(old->members);
        fresh->last_member = old->last_member;
        fresh->member_count = old->member_count;
        old->last_member = nullptr;
        old->member_count = 0;
    }
    group_delete(old_name, 1);
    return fresh;
}

int AddressBook::insert_member_sorted(Group* group, Entry* entry) {
    std::unique_ptr<GroupMember>* slot = &group->members;
    while (*slot) {
        const Entry& m = *(*slot)->member_entry;
        int c1 = icompare(entry->name, m.name);
        int c2 = entry->number.compare(m.number);
        if (c1 == 0 && c2 == 0) return 0;
        if (c1 < 0 || (c1 == 0 && c2 < 0)) break;
        slot = &(*slot)->next;
    }
    auto m = std::make_unique<GroupMember>();
    m->member_entry = entry;
    m->next = std::move(*slot);
    if (!m->next) group->last_member = m.get();
    *slot = std::move(m);
    ++group->member_count;
    return 1;
}

int AddressBook::group_add_member(std::string_view group_name, Entry* entry) {
    Group* g = group_find(group_name);
    reply_.set("SUCCESS");
    if (!entry) {
        reply_.set("ERROR:Key Not Found");
        return 0;
    }
    if (!g || is_head(g)) {
        reply_.set("ERROR:Group name doesnot exist");
        return 0;
    }
    if (!insert_member_sorted(g, entry)) {
        reply_.set("ERROR:Contact is already int the group");
        return 0;
    }
    return 1;
}

int AddressBook::group_add_member_to(Group* group, Entry* entry) {
    reply_.set("SUCCESS");
    if (!entry) {
        reply_.set("ERROR:Key Not Found");
        return 0;
    }
    if (!group || is_head(group)) {
        reply_.set("ERROR:Group name doesnot exist");
        return 0;
    }
    if (!insert_member_sorted(group, entry)) {
        reply_.set("ERROR:Contact is already in  the group");
        return 0;
    }
    return 1;
}

std::string AddressBook::group_remove_member(Group* group, Entry* entry) {
    if (!entry) {
        reply_.set("ERROR:Key is not Present");
        return reply_.str();
    }
    if (!group) {
        reply_.set("ERROR:Group name doesnot exist");
        return reply_.str();
    }
    GroupMember* before = nullptr;
    std::unique_ptr<GroupMember>* slot = &group->members;
    while (*slot) {
        const Entry& m = *(*slot)->member_entry;
        if (iequal(m.name, entry->name) && m.number == entry->number) break;
        before = slot->get();
        slot = &(*slot)->next;
    }
    if (!*slot) {
        reply_.set("ERROR:Key is not Present");
        return reply_.str();
    }
    std::unique_ptr<GroupMember> dead = std::move(*slot);
    *slot = std::move(dead->next);
    if (group->last_member == dead.get()) group->last_member = before;
    --group->member_count;
    return "SUCCESS";
}

void AddressBook::group_purge_entry(Entry* entry, int mode, Entry* replacement) {
    if (!entry) return;
    for (Group* g = group_list_.next.get(); g; g = g->next.get()) {
        GroupMember* before = nullptr;
        std::unique_ptr<GroupMember>* slot = &g->members;
        while (*slot && (*slot)->member_entry != entry) {
            before = slot->get();
            slot = &(*slot)->next;
        }
        if (!*slot) continue;
        std::unique_ptr<GroupMember> dead = std::move(*slot);
        *slot = std::move(dead->next);
        if (g->last_member == dead.get()) g->last_member = before;
        // Both branches lower the count, each for its own reason.
        // NOLINTNEXTLINE(bugprone-branch-clone)
        if (mode == 0) {
            --g->member_count;
        } else if (group_add_member(g->group_name, replacement) == 1) {
            // Only a member the replacement took lowers the count: after a
            // failed re-add it stays one too high, and listings report it so.
            --g->member_count;
        }
    }
}

int AddressBook::group_add_contact(std::string_view group_name, std::string_view contact_name) {
    TrieNode* node = ab_find(contact_name);
    if (!node) return 0;
    return group_add_member(group_name, node->entries.get());
}

void AddressBook::group_fill_all(Group* group) {
    if (!group || is_head(group)) return;
    ab_for_each_entry([&](Entry& e) { group_append_member(group, &e); });
}

void AddressBook::group_append_member(Group* group, Entry* entry) {
    if (!group || !entry || is_head(group)) return;
    auto m = std::make_unique<GroupMember>();
    m->member_entry = entry;
    GroupMember* raw = m.get();
    if (group->last_member)
        group->last_member->next = std::move(m);
    else
        group->members = std::move(m);
    group->last_member = raw;
    ++group->member_count;
}

int AddressBook::group_append_loaded(std::string_view name) {
    if (group_count_ > MAX_GROUPS - 1) return 1;
    Group* last = &group_list_;
    while (last->next) last = last->next.get();
    last->next = std::make_unique<Group>();
    last->next->group_name.assign(cstr(name));
    ++group_count_;
    return 1;
}

void AddressBook::group_add_by_position(int position, Entry* entry) {
    if (position <= 0) return;
    int i = 1;
    for (Group* g = group_list_.next.get(); g; g = g->next.get(), ++i) {
        if (i == position) {
            group_append_member(g, entry);
            return;
        }
    }
}

int AddressBook::group_list_page(Listing& out, int start) {
    if (!group_list_.next) return 0;
    long long last = static_cast<long long>(start / 10) * 10 + 10;
    long long i = 1;
    for (Group* g = group_list_.next.get(); g; g = g->next.get(), ++i) {
        if (i > last) break;
        if (i >= start && out.output) std::fprintf(out.output, "%s\n", g->group_name.c_str());
    }
    return 1;
}

int AddressBook::group_list_members_page(Listing& out, Group* group, int start) {
    trace("Display Individual to file\n");
    if (!group || !group->members) return 0;
    uint32_t j = 1;
    for (GroupMember* m = group->members.get(); m; m = m->next.get(), ++j) {
        uint32_t d = j - static_cast<uint32_t>(start);
        out.listed_count = static_cast<int>(d);
        if (d <= 9) {
            write_entry_record(out.output, *m->member_entry);
        } else if (out.listed_count > 10) {
            break;
        }
    }
    return 1;
}

void AddressBook::group_write_memberships(FILE* stream, std::string_view name,
                                          std::string_view number) {
    name = cstr(name);
    number = cstr(number);
    int i = 1;
    for (Group* g = group_list_.next.get(); g; g = g->next.get(), ++i) {
        std::unique_ptr<GroupMember>* slot = &g->members;
        while (*slot) {
            const Entry& m = *(*slot)->member_entry;
            int c = icompare(name, m.name);
            if (c < 0) break;
            if (c == 0 && iequal(number, m.number)) {
                std::fprintf(stream, "%d,", i);
                // Move the match to the end: as a save visits entries in
                // member order, the match is the first member and one save
                // turns the list once around. A match further in (a list out
                // of table order) moves alone; nothing before it is lost.
                if ((*slot)->next) {
                    std::unique_ptr<GroupMember> moved = std::move(*slot);
                    *slot = std::move(moved->next);
                    GroupMember* raw = moved.get();
                    g->last_member->next = std::move(moved);
                    g->last_member = raw;
                }
                break;
            }
            slot = &(*slot)->next;
        }
    }
    std::fputs("^|^\n", stream);
}

}  // namespace smsgw
