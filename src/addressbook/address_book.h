// The address book: contacts in a compressed prefix tree over names, and up
// to 50 groups whose members point at contacts. Results are reported as
// texts in the shared reply buffer and through return values.
//
// The contact table (names compared ignoring case):
//
//   trie_root ("")
//      |sibling
//      v
//     "An" --child--> "n" [Ann 555] --child--> "a" [Anna 123, Anna 456]
//      |sibling                |sibling
//      v                       v
//     "Bob" [Bob 777]         "ja" [Anja 42]
//
// A node's name is the concatenation of the labels on its path; entries of
// one name hang off its node ordered by number. Sibling chains are ordered
// by the lower-cased first byte of their labels.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "addressbook/compact_text.h"
#include "common/text.h"

namespace smsgw {

// Entries, nodes and members are many and small (up to 20000 each): they
// are carved from pooled blocks instead of taking one heap block each,
// which saves the heap's per-block overhead and keeps them close together.
#define SMSGW_POOLED                             \
    static void* operator new(std::size_t size); \
    static void operator delete(void* p, std::size_t size) noexcept

// Texts are CompactText rather than std::string: they read the same, and
// an entry takes 56 bytes instead of 104 (a node 40 instead of 56).
struct Entry {
    CompactText name;  // as supplied when inserted (letter case kept)
    CompactText number;
    CompactText description;      // may hold line breaks
    std::unique_ptr<Entry> next;  // next entry of the same name, by number
    SMSGW_POOLED;
};

struct TrieNode {
    CompactText label;
    std::unique_ptr<Entry> entries;  // none for an inner node
    std::unique_ptr<TrieNode> sibling;
    std::unique_ptr<TrieNode> child;
    SMSGW_POOLED;
};

struct GroupMember {
    Entry* member_entry = nullptr;  // never owned
    std::unique_ptr<GroupMember> next;
    SMSGW_POOLED;
};

#undef SMSGW_POOLED

struct Group {
    std::string group_name;
    uint32_t member_count = 0;
    std::unique_ptr<GroupMember> members;
    GroupMember* last_member = nullptr;
    std::unique_ptr<Group> next;
};

// Names inserted in table order, as the start-up load inserts them, share
// most of their walk with the name before: a cursor keeps the nodes that
// walk descended through, and the next insertion starts below those it
// shares. Holds pointers into one table. REQUIRES: while the cursor is in
// use, that table's tree changes only through insertions with this cursor
// (no deletion, no insertion without it).
class InsertCursor {
  private:
    friend class AddressBook;
    struct Descent {
        size_t end;                       // the name's bytes before `end` are matched
        std::unique_ptr<TrieNode>* link;  // the walk goes on here
    };
    // Sets the walk's start for `name` and remembers the name.
    void resume(std::string_view name, size_t& p, std::unique_ptr<TrieNode>*& link);

    std::vector<Descent> path_;
    std::string last_name_;
};

// One listing's output and progress, owned by its caller: set up before
// the listing, read back after it.
struct Listing {
    FILE* output = nullptr;  // nothing is written while null
    int list_index = 0;      // running position, advanced per entry visited
    int listed_count = 0;    // entries written so far
};

class AddressBook {
  public:
    static constexpr int MAX_ELEMENTS = 20000;
    static constexpr int MAX_GROUPS = 50;

    // REQUIRES: reply outlives the address book.
    explicit AddressBook(ReplyBuffer& reply);
    ~AddressBook();  // iterative teardown: no recursion over long chains
    AddressBook(const AddressBook&) = delete;
    AddressBook& operator=(const AddressBook&) = delete;

    ReplyBuffer& reply() { return reply_; }
    // Entries in the table (`entry_count`); see ab_delete_entry for when it
    // runs below the true number.
    int entry_count() const { return entry_count_; }
    int group_count() const { return group_count_; }

    // ---- contact table ----
    // The node holding the new entry, or nullptr when nothing was stored
    // (limit: "Exceeded MAX Limit"; duplicate: "ERROR:Rejected - Duplicate
    // Entry"). Success leaves "SUCCESS" in the reply buffer.
    TrieNode* ab_insert(std::string_view name, std::string_view number,
                        std::string_view description);
    // The same, walking from where the cursor's previous insertion went.
    TrieNode* ab_insert(InsertCursor& cursor, std::string_view name, std::string_view number,
                        std::string_view description);
    // "SUCCESS" and the node, or "ERROR:Key Not Found" and nullptr.
    TrieNode* ab_find(std::string_view name);
    // The entry of the list with that number (byte-wise), reply untouched.
    static Entry* ab_find_number(Entry* first, std::string_view number);
    // 1 when the name exists: the count is lowered even when the name does
    // not hold the number (nothing else changes then). 0 and "ERROR:Element
    // Not Found" when the name is absent.
    int ab_delete_entry(std::string_view name, std::string_view number);
    int ab_delete_name(std::string_view name);
    // An edit that changes name or number: the new entry is inserted while
    // the old one does not count against the limit, takes over the old
    // one's group places, and the old one is deleted. The new entry's node,
    // or nullptr (nothing changed) when the insertion was refused.
    TrieNode* ab_replace_entry(std::string_view old_name, std::string_view old_number,
                               std::string_view name, std::string_view number,
                               std::string_view description);
    static void ab_set_description(Entry& entry, std::string_view description);

    // Listings of ten-entry pages: records "L^|^name^|^number^|^desc^|^".
    // The entries at positions start to start + 9, counting from the
    // listing's list_index; returns the list_index reached.
    int ab_list_page(Listing& out, int start);
    // The same over the names that begin with `prefix` (ignoring case); the
    // first page (start 1) goes on counting to the last match.
    int ab_list_prefix_page(Listing& out, std::string_view prefix, int start);
    // Lines "name^|^number^|^desc^|^\n" of the entries with that number.
    int ab_list_by_number(Listing& out, std::string_view number);
    // Every entry in table order (name ignoring case, then number).
    // REQUIRES: the visitor does not insert or delete contacts.
    void ab_for_each_entry(const std::function<void(Entry&)>& visitor);

    // ---- groups ----
    Group* group_create(std::string_view name);
    Group* group_find(std::string_view name);
    int group_delete(std::string_view name, int keep);
    // Creates `new_name` with the members of the group `old_name` (a full
    // list still allows it) and deletes the old group. The new group, or
    // nullptr (nothing changed) when it cannot be created.
    Group* group_rename(std::string_view old_name, std::string_view new_name);
    int group_add_member(std::string_view group_name, Entry* entry);
    int group_add_member_to(Group* group, Entry* entry);
    // "SUCCESS" or the error text (also left in the reply buffer).
    std::string group_remove_member(Group* group, Entry* entry);
    // Members are matched by identity, so a contact whose number differs
    // from another's only in letter case never leaves a dangling member.
    void group_purge_entry(Entry* entry, int mode, Entry* replacement);
    int group_add_contact(std::string_view group_name, std::string_view contact_name);
    void group_fill_all(Group* group);
    // Group names, one a line, from position start to the next multiple of
    // ten; 0 when there are no groups.
    int group_list_page(Listing& out, int start);
    // A page of the group's members as entry records; 0 when it has none.
    int group_list_members_page(Listing& out, Group* group, int start);
    int group_append_loaded(std::string_view name);
    void group_append_member(Group* group, Entry* entry);
    void group_add_by_position(int position, Entry* entry);
    void group_write_memberships(FILE* stream, std::string_view name, std::string_view number);
    // Groups after the list head, in list order.
    Group* first_group() { return group_list_.next.get(); }

    const TrieNode& trie_root() const { return trie_root_; }

  private:
    // Where a walk ended: the node, the pointer that owns it (the previous
    // node's child or sibling) and that previous node.
    struct Place {
        TrieNode* node = nullptr;
        std::unique_ptr<TrieNode>* link = nullptr;
        TrieNode* prev = nullptr;
    };
    enum class Visit { kGoOn, kSkipBranch, kStop };

    Place walk_to(std::string_view name);
    TrieNode* insert(InsertCursor* cursor, std::string_view name, std::string_view number,
                     std::string_view description);
    // The checks before a walk: the limit, and a name a node can spell.
    bool may_insert(std::string_view name);
    TrieNode* add_to_node(TrieNode* node, std::string_view name, std::string_view number,
                          std::string_view description);
    TrieNode* stored(TrieNode* node);
    void remove_node(const Place& at);
    void prune();
    // The first node whose name begins with `prefix` (the root for ""), or
    // nullptr when no name does.
    TrieNode* prefix_start(std::string_view prefix);
    // Pre-order from `start`: entries, child subtree, sibling chain.
    template <typename F>
    void visit_nodes(TrieNode* start, F&& visit);

    Group* find_group_from_head(std::string_view name);
    bool is_head(const Group* g) const { return g == &group_list_; }
    // 1 when added, 0 when the same contact is already a member.
    static int insert_member_sorted(Group* group, Entry* entry);

    ReplyBuffer& reply_;
    int entry_count_ = 0;
    int group_count_ = 0;
    TrieNode trie_root_;
    Group group_list_;
    // Groups deleted with the keep flag while still holding members.
    std::vector<std::unique_ptr<Group>> detached_groups_;
};

}  // namespace smsgw
