// Loading and saving "/var/AddressBook/Address_Book" and
// "/var/AddressBook/groups".
//
// Reader limits. The files are text written by this daemon, but a hand-made
// or damaged file must not corrupt memory or shift the meaning of the lines
// that follow it, so over-long lines are read like this:
//  - groups: a line is one group; its first 51 bytes are the name and the
//    rest of an over-long line is dropped (so line n stays group n);
//  - contacts: a line is read in pieces of at most 499 bytes and the first
//    piece must hold the name and number separators, else the whole line is
//    skipped; the later pieces of a line are never taken for lines of their
//    own. Pieces join seamlessly, so the description and the group list may
//    run past the first piece. Name and number keep 51 bytes, the
//    description 200 (the rest is read and dropped);
//  - a NUL byte ends its line, as it ends a C string.
#include "addressbook/address_book_files.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <string>
#include <vector>

#include "addressbook/address_book_util.h"
#include "common/fileops.h"
#include "common/trace.h"

namespace smsgw {

namespace {

constexpr size_t kGroupLineMax = 51;
constexpr size_t kContactPiece = 499;
constexpr size_t kFieldMax = 51;
constexpr size_t kDescriptionMax = 200;
// A physical line longer than this is consumed but not kept: nothing the
// daemon writes comes near it.
constexpr size_t kLineKeep = size_t{64} * 1024;

void append_bounded(std::string& to, std::string_view text, size_t max) {
    if (to.size() < max) to.append(text.substr(0, max - to.size()));
}

void load_groups(AddressBook& ab, const std::string& path) {
    FilePtr f = open_file(path, "r");
    if (!f) return;
    LineReader reader(f.get());
    std::string line;
    while (reader.next(line, kLineKeep)) {
        std::string name = line.substr(0, kGroupLineMax);
        if (name == "\n") continue;
        trace("%s - %d\n", name.c_str(), static_cast<int>(name.size()));
        size_t nl = name.find('\n');
        if (nl != std::string::npos) name.resize(nl);
        trace("%s - %d\n", name.c_str(), static_cast<int>(name.size()));
        ab.group_append_loaded(name);
    }
}

// Field 3 when its separator lies on a later line: `rest` (the current
// line behind the number) and the following lines up to the separator.
// `rest` is left behind the separator, in the reader's current line.
void read_long_description(LineReader& reader, std::string_view& rest, std::string& description) {
    description.clear();
    for (;;) {
        size_t p = rest.find(kSep);
        if (p != std::string_view::npos) {
            append_bounded(description, rest.substr(0, p), kDescriptionMax);
            rest.remove_prefix(p + kSep.size());
            return;
        }
        append_bounded(description, rest, kDescriptionMax);
        if (!reader.next_view(rest, kLineKeep)) {
            rest = {};
            return;
        }
    }
}

// Field 4: "p," for each group position; `by_position` holds the groups in
// list order (position 1 first).
void add_positions(AddressBook& ab, const std::vector<Group*>& by_position, std::string_view list,
                   Entry* entry) {
    size_t p = list.find(kSep);
    if (p == std::string_view::npos) return;
    list = list.substr(0, p);
    while (!list.empty()) {
        size_t comma = list.find(',');
        int position = c_atoi(list.substr(0, comma));
        if (position > 0 && static_cast<size_t>(position) <= by_position.size())
            ab.group_append_member(by_position[static_cast<size_t>(position) - 1], entry);
        if (comma == std::string_view::npos) break;
        list.remove_prefix(comma + 1);
    }
}

// The word before the next separator, `cursor` moved behind it; false when
// there is no separator.
bool cut_field(std::string_view& cursor, std::string_view& word) {
    size_t p = cursor.find(kSep);
    if (p == std::string_view::npos) return false;
    word = cursor.substr(0, p);
    cursor.remove_prefix(p + kSep.size());
    return true;
}

// Lines are looked at in the reader's block where they lie; only a
// description that spans lines is gathered into a string of its own.
void load_contacts(AddressBook& ab, const std::string& path) {
    FilePtr f = open_file(path, "r");
    if (!f) return;
    std::vector<Group*> by_position;
    for (Group* g = ab.first_group(); g; g = g->next.get()) by_position.push_back(g);
    LineReader reader(f.get());
    // The file is in table order: each name mostly shares its walk with the
    // one before.
    InsertCursor walk;
    std::string_view line;
    std::string name_copy, number_copy, long_description;
    int counter = 1;
    while (reader.next_view(line, kLineKeep)) {
        if (line == "\n") continue;
        trace("%d\n", counter++);

        // Both separators must lie in the line's first piece.
        std::string_view cursor = line.substr(0, kContactPiece);
        std::string_view name, number;
        if (!cut_field(cursor, name) || !cut_field(cursor, number)) continue;
        name = name.substr(0, kFieldMax);
        number = number.substr(0, kFieldMax);

        std::string_view rest = line.substr(static_cast<size_t>(cursor.data() - line.data()));
        std::string_view description;
        size_t p = rest.find(kSep);
        if (p != std::string_view::npos) {
            description = rest.substr(0, std::min(p, kDescriptionMax));
            rest.remove_prefix(p + kSep.size());
        } else {
            // Reading on moves the block under the views.
            name = name_copy.assign(name);
            number = number_copy.assign(number);
            read_long_description(reader, rest, long_description);
            description = long_description;
        }

        TrieNode* node = ab.ab_insert(walk, name, number, description);
        if (!node) continue;
        Entry* entry = AddressBook::ab_find_number(node->entries.get(), number);
        if (!entry) continue;
        add_positions(ab, by_position, rest, entry);
    }
}

// The memory copy is authoritative from here on: the directory is emptied
// as "rm -f *" would (plain files, no dot files, no directories).
void empty_directory(const std::string& dir) {
    DIR* d = ::opendir(dir.c_str());
    if (!d) return;
    while (dirent* de = ::readdir(d)) {
        if (de->d_name[0] == '.') continue;
        ::unlinkat(::dirfd(d), de->d_name, 0);
    }
    ::closedir(d);
}

void write_entry_fields(FILE* stream, const Entry& e) {
    std::fwrite(e.name.data(), 1, e.name.size(), stream);
    std::fwrite("^|^", 1, 3, stream);
    std::fwrite(e.number.data(), 1, e.number.size(), stream);
    std::fwrite("^|^", 1, 3, stream);
    std::fwrite(e.description.data(), 1, e.description.size(), stream);
    std::fwrite("^|^", 1, 3, stream);
}

// The entries in table order, with the rank of the node holding each (one
// rank per name) and the first index of every rank.
struct TableOrder {
    std::vector<Entry*> entries;
    std::vector<uint32_t> rank;
    std::vector<uint32_t> first_of_rank;
};

TableOrder table_order(AddressBook& ab) {
    TableOrder t;
    size_t n = static_cast<size_t>(ab.entry_count() > 0 ? ab.entry_count() : 0);
    t.entries.reserve(n);
    t.rank.reserve(n);
    std::vector<TrieNode*> stack;
    if (ab.trie_root().sibling) stack.push_back(ab.trie_root().sibling.get());
    while (!stack.empty()) {
        TrieNode* node = stack.back();
        stack.pop_back();
        if (node->entries) {
            auto r = static_cast<uint32_t>(t.first_of_rank.size());
            t.first_of_rank.push_back(static_cast<uint32_t>(t.entries.size()));
            for (Entry* e = node->entries.get(); e; e = e->next.get()) {
                t.entries.push_back(e);
                t.rank.push_back(r);
            }
        }
        if (node->sibling) stack.push_back(node->sibling.get());
        if (node->child) stack.push_back(node->child.get());
    }
    return t;
}

// Entry address -> table index, open addressing: a save looks up every
// member once, and a node-based map would cost an allocation per entry.
class EntryIndex {
  public:
    explicit EntryIndex(size_t n) {
        size_t size = 16;
        while (size < 2 * n) size <<= 1;
        slots_.assign(size, Slot{});
        mask_ = size - 1;
    }
    void insert(const Entry* e, uint32_t value) {
        size_t i = slot(e);
        while (slots_[i].key && slots_[i].key != e) i = (i + 1) & mask_;
        slots_[i] = {e, value};
    }
    // The index, or UINT32_MAX when the entry is not in the table.
    uint32_t find(const Entry* e) const {
        for (size_t i = slot(e);; i = (i + 1) & mask_) {
            if (slots_[i].key == e) return slots_[i].value;
            if (!slots_[i].key) return UINT32_MAX;
        }
    }

  private:
    // Key and value side by side: one cache line per lookup.
    struct Slot {
        const Entry* key = nullptr;
        uint32_t value = 0;
    };
    size_t slot(const Entry* e) const {
        uint64_t h = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(e) >> 4);
        return static_cast<size_t>((h * 0x9E3779B97F4A7C15ull) >> 20) & mask_;
    }
    std::vector<Slot> slots_;
    size_t mask_ = 0;
};

// Group positions are 1 to at most 50: an entry's memberships fit in one
// word, bit p-1 for position p, and come out ascending.
using PositionSet = uint64_t;
constexpr int kMaxPositions = 64;

// Chains the group's member nodes anew in the given order (the same nodes,
// so pointers held elsewhere stay valid).
template <typename List>
void relink(Group& g, const List& order) {
    std::unique_ptr<GroupMember> cur = std::move(g.members);
    while (cur) {
        std::unique_ptr<GroupMember> next = std::move(cur->next);
        (void)cur.release();  // owned again below, through `order`
        cur = std::move(next);
    }
    std::unique_ptr<GroupMember> head;
    for (auto it = order.rbegin(); it != order.rend(); ++it) {
        it->member->next = std::move(head);
        head.reset(it->member);
    }
    g.members = std::move(head);
    g.last_member = order.empty() ? nullptr : order.back().member;
}

// The group positions of every entry, exactly as a call of
// group_write_memberships per entry in table order would find them, member
// lists rotated the same way; but computed group by group, so that a group
// costs work only at the entries where one of its members could match
// rather than a text comparison for every entry.
//
// A save visits entries in table order, so "name compared with the member's
// name, ignoring case" is the order of the two entries' nodes: the rank of
// the node (same rank: same name) replaces the text comparison. Returns
// false, without touching any list, when a member does not point at an
// entry of the table (the ranks would not apply) or there are more groups
// than a PositionSet holds.
bool group_memberships(AddressBook& ab, const TableOrder& table,
                       std::vector<PositionSet>& positions) {
    const std::vector<Entry*>& order = table.entries;
    const std::vector<uint32_t>& rank = table.rank;
    const std::vector<uint32_t>& first_of_rank = table.first_of_rank;
    const size_t n = order.size();
    EntryIndex index_of(n);
    for (size_t i = 0; i < n; ++i) index_of.insert(order[i], static_cast<uint32_t>(i));

    // Every list as (rank, member) in list order, before anything changes.
    struct Item {
        uint32_t rank;
        const Entry* entry;
        GroupMember* member;
    };
    std::vector<std::deque<Item>> lists;
    for (Group* g = ab.first_group(); g; g = g->next.get()) {
        if (lists.size() == kMaxPositions) return false;
        lists.emplace_back();
        for (GroupMember* m = g->members.get(); m; m = m->next.get()) {
            uint32_t at = index_of.find(m->member_entry);
            if (at == UINT32_MAX) return false;
            lists.back().push_back({rank[at], m->member_entry, m});
        }
    }

    positions.assign(n, 0);
    size_t li = 0;
    for (Group* g = ab.first_group(); g; g = g->next.get(), ++li) {
        const PositionSet bit = PositionSet{1} << li;
        std::deque<Item>& q = lists[li];
        // Past the last member's name every member compares lower and none
        // can match: the scan ends there instead of at the table's end.
        uint32_t last_rank = 0;
        for (const Item& it : q) last_rank = std::max(last_rank, it.rank);
        size_t i = 0;
        while (!q.empty() && i < n && rank[i] <= last_rank) {
            // Entries before the first member's node stop at the first member.
            size_t skip_to = first_of_rank[q.front().rank];
            if (skip_to > i) i = skip_to;
            for (size_t k = 0; k < q.size(); ++k) {
                if (rank[i] < q[k].rank) break;
                if (rank[i] == q[k].rank &&
                    (q[k].entry == order[i] || iequal(order[i]->number, q[k].entry->number))) {
                    positions[i] |= bit;
                    if (k + 1 < q.size()) {
                        Item moved = q[k];
                        q.erase(q.begin() + static_cast<std::ptrdiff_t>(k));
                        q.push_back(moved);
                    }
                    break;
                }
            }
            ++i;
        }
        relink(*g, q);
    }
    return true;
}

// Appends "p," for every position in the set, ascending.
void append_positions(std::string& out, PositionSet set) {
    while (set != 0) {
        int position = __builtin_ctzll(set) + 1;
        set &= set - 1;
        if (position >= 10) out += static_cast<char>('0' + position / 10);
        out += static_cast<char>('0' + position % 10);
        out += ',';
    }
}

// The records go out through one buffer, written whenever it fills.
void write_contacts(FILE* stream, const std::vector<Entry*>& order,
                    const std::vector<PositionSet>& positions) {
    constexpr size_t kFlushAt = size_t{64} * 1024;
    std::string chunk;
    chunk.reserve(kFlushAt + 1024);
    for (size_t i = 0; i < order.size(); ++i) {
        // Entries lie scattered on the heap: ask for the next ones early.
        if (i + 8 < order.size()) __builtin_prefetch(order[i + 8]);
        if (i + 4 < order.size()) __builtin_prefetch(order[i + 4]->description.data());
        const Entry& e = *order[i];
        chunk.append(e.name.view());
        chunk.append(kSep);
        chunk.append(e.number.view());
        chunk.append(kSep);
        chunk.append(e.description.view());
        chunk.append(kSep);
        append_positions(chunk, positions[i]);
        chunk.append("^|^\n");
        if (chunk.size() >= kFlushAt) {
            std::fwrite(chunk.data(), 1, chunk.size(), stream);
            chunk.clear();
        }
    }
    std::fwrite(chunk.data(), 1, chunk.size(), stream);
}

// The files of a save in progress, beside the ones they replace. Their
// names start with a dot, so the start-up load leaves them in place.
constexpr char kStagedContacts[] = "/var/AddressBook/.Address_Book.new";
constexpr char kStagedGroups[] = "/var/AddressBook/.groups.new";

std::string groups_text(AddressBook& ab) {
    std::string body;
    for (Group* g = ab.first_group(); g; g = g->next.get()) {
        body += g->group_name;
        body += '\n';
    }
    return body;
}

// Writes a staged file through `fill` and syncs it; false when any of it
// failed.
template <class Fill>
bool stage(const std::string& path, Fill fill) {
    FilePtr out = open_fixed_temp(path, "w");
    if (!out) return false;
    ::fchmod(::fileno(out.get()), 0644);  // as a plain create would have made it
    bool ok = fill(out.get());
    ok = std::fflush(out.get()) == 0 && ok;
    ok = ::fsync(::fileno(out.get())) == 0 && ok;
    return std::fclose(out.release()) == 0 && ok;
}

// The groups staged beside the staged contacts. Their name is synced too:
// a start-up after the commit that did not find them would pair the new
// contacts with the old groups.
bool stage_groups(AddressBook& ab, const std::string& path) {
    const std::string body = groups_text(ab);
    return stage(path,
                 [&](FILE* out) {
                     return std::fwrite(body.data(), 1, body.size(), out) == body.size();
                 }) &&
           fsync_dir_of(path);
}

// A save that a power cut interrupted. Staged groups exist only once the
// staged contacts were on disk, name included; so staged groups without
// staged contacts mean the contacts were already renamed in place, and the
// groups of that save follow them. Staged files of a save that got no
// further are dropped.
void finish_interrupted_save(const Runtime& rt) {
    const std::string contacts = rt.path(kStagedContacts), groups = rt.path(kStagedGroups);
    if (file_exists(groups)) {
        if (file_exists(contacts))
            remove_file(groups);
        else
            replace_file(groups, rt.path("/var/AddressBook/groups"));
    }
    remove_file(contacts);
}

}  // namespace

void ab_load(AddressBook& ab, const Runtime& rt) {
    finish_interrupted_save(rt);
    load_groups(ab, rt.path("/var/AddressBook/groups"));
    load_contacts(ab, rt.path("/var/AddressBook/Address_Book"));
    empty_directory(rt.path("/var/AddressBook"));
    remove_file(rt.path("/var/run/init_address_book"));
}

bool ab_save_contacts(AddressBook& ab, FILE* stream) {
    if (!stream) return false;
    TableOrder table = table_order(ab);
    std::vector<PositionSet> positions;
    if (group_memberships(ab, table, positions)) {
        write_contacts(stream, table.entries, positions);
    } else {
        // Some member is not a contact of the table: compare texts.
        for (Entry* e : table.entries) {
            write_entry_fields(stream, *e);
            ab.group_write_memberships(stream, e->name, e->number);
        }
    }
    return std::ferror(stream) == 0;
}

bool ab_save_groups(AddressBook& ab, const Runtime& rt) {
    return write_file_atomic(rt.path("/var/AddressBook/groups"), groups_text(ab));
}

bool ab_save(AddressBook& ab, const Runtime& rt) {
    // The contacts refer to the groups by their position, so the two files
    // are replaced as one: both are written in full under staging names
    // first; renaming the contacts in place commits the save, the groups
    // follow (at the next start if the power goes in between). Nothing is
    // truncated in place: a save cut short leaves the last complete one.
    const std::string contacts = rt.path(kStagedContacts), groups = rt.path(kStagedGroups);
    const bool with_groups = ab.group_count() != 0;
    bool ok =
        stage(contacts,
              [&](FILE* out) { return ab.entry_count() == 0 || ab_save_contacts(ab, out); }) &&
        fsync_dir_of(contacts);
    ok = ok && (!with_groups || stage_groups(ab, groups));
    if (!ok || !replace_file(contacts, rt.path("/var/AddressBook/Address_Book"))) {
        remove_file(groups);
        remove_file(contacts);
        return false;
    }
    return !with_groups || replace_file(groups, rt.path("/var/AddressBook/groups"));
}

}  // namespace smsgw
