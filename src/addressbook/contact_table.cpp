// The contact table: a compressed prefix tree over names, compared ignoring
// letter case, each node holding the entries of one name ordered by number.
#include <cstdint>
#include <vector>

#include "addressbook/address_book.h"
#include "addressbook/address_book_util.h"
#include "common/trace.h"

namespace smsgw {

namespace {

// Frees a list of entries one by one: a name may hold thousands of numbers
// and the default destructor would recurse once per entry.
void free_entries(std::unique_ptr<Entry> e) {
    while (e) e = std::move(e->next);
}

std::unique_ptr<Entry> make_entry(std::string_view name, std::string_view number,
                                  std::string_view description) {
    auto e = std::make_unique<Entry>();
    e->name.assign(name);
    e->number.assign(number);
    e->description.assign(description);
    return e;
}

std::unique_ptr<TrieNode> make_leaf(std::string_view label, std::unique_ptr<Entry> e) {
    auto n = std::make_unique<TrieNode>();
    n->label.assign(label);
    n->entries = std::move(e);
    return n;
}

// Positions matched from the start, ignoring case.
size_t common_prefix(std::string_view a, std::string_view b) {
    size_t n = a.size() < b.size() ? a.size() : b.size();
    size_t i = 0;
    while (i < n && lower_byte(a[i]) == lower_byte(b[i])) ++i;
    return i;
}

}  // namespace

AddressBook::AddressBook(ReplyBuffer& reply) : reply_(reply) {}

AddressBook::~AddressBook() {
    // Sibling chains hold up to 20000 nodes: tear the tree down with an
    // explicit stack instead of the recursive unique_ptr destructors.
    std::vector<std::unique_ptr<TrieNode>> stack;
    if (trie_root_.sibling) stack.push_back(std::move(trie_root_.sibling));
    if (trie_root_.child) stack.push_back(std::move(trie_root_.child));
    while (!stack.empty()) {
        std::unique_ptr<TrieNode> n = std::move(stack.back());
        stack.pop_back();
        if (n->sibling) stack.push_back(std::move(n->sibling));
        if (n->child) stack.push_back(std::move(n->child));
        free_entries(std::move(n->entries));
    }
    std::unique_ptr<Group> g = std::move(group_list_.next);
    while (g) {
        free_members(std::move(g->members));
        g = std::move(g->next);
    }
    for (auto& d : detached_groups_) free_members(std::move(d->members));
}

template <typename F>
void AddressBook::visit_nodes(TrieNode* start, F&& visit) {
    std::vector<TrieNode*> stack;
    if (start) stack.push_back(start);
    while (!stack.empty()) {
        TrieNode* n = stack.back();
        stack.pop_back();
        Visit v = visit(*n);
        if (v == Visit::kStop) return;
        if (v == Visit::kSkipBranch) continue;
        if (n->sibling) stack.push_back(n->sibling.get());
        if (n->child) stack.push_back(n->child.get());
    }
}

TrieNode* AddressBook::stored(TrieNode* node) {
    ++entry_count_;
    return node;
}

TrieNode* AddressBook::ab_insert(std::string_view name, std::string_view number,
                                 std::string_view description) {
    return insert(nullptr, name, number, description);
}

TrieNode* AddressBook::ab_insert(InsertCursor& cursor, std::string_view name,
                                 std::string_view number, std::string_view description) {
    return insert(&cursor, name, number, description);
}

bool AddressBook::may_insert(std::string_view name) {
    if (entry_count_ > MAX_ELEMENTS - 1) {
        reply_.set("Exceeded MAX Limit");
        return false;
    }
    reply_.set("SUCCESS");
    // No label can spell the empty name: such a node could never be found
    // or deleted again, so it is refused instead of stored.
    if (name.empty()) {
        reply_.set("ERROR");
        return false;
    }
    return true;
}

namespace {

// The lower-cased first byte of a node's label; -1 for the empty label.
int first_byte(const TrieNode& node) {
    return node.label.empty() ? -1 : lower_byte(node.label[0]);
}

// A name that ends or parts from `node` inside its label, k bytes in: the
// node keeps the first k bytes. Returns the node holding `entry`.
TrieNode* split_node(TrieNode& node, size_t k, std::string_view rest,
                     std::unique_ptr<Entry> entry) {
    // The label's rest takes over what the node held.
    auto tail = std::make_unique<TrieNode>();
    tail->label.assign(node.label.view().substr(k));
    tail->entries = std::move(node.entries);
    tail->child = std::move(node.child);
    node.label.assign(node.label.view().substr(0, k));
    if (k == rest.size()) {
        // The new name is a proper prefix of the label.
        node.entries = std::move(entry);
        node.child = std::move(tail);
        return &node;
    }
    // The names part inside the label: both rests become children of a now
    // inner node, in the order of their first bytes.
    auto leaf = make_leaf(rest.substr(k), std::move(entry));
    TrieNode* holder = leaf.get();
    if (lower_byte(rest[k]) < first_byte(*tail)) {
        leaf->sibling = std::move(tail);
        node.child = std::move(leaf);
    } else {
        tail->sibling = std::move(leaf);
        node.child = std::move(tail);
    }
    return holder;
}

}  // namespace

TrieNode* AddressBook::insert(InsertCursor* cursor, std::string_view name, std::string_view number,
                              std::string_view description) {
    name = cstr(name);
    number = cstr(number);
    description = cstr(description);
    if (!may_insert(name)) return nullptr;

    size_t p = 0;
    std::unique_ptr<TrieNode>* link = &trie_root_.sibling;
    if (cursor) cursor->resume(name, p, link);
    for (;;) {
        TrieNode* node = link->get();
        std::string_view rest = name.substr(p);
        // Most nodes of a walk are passed, or inserted before, on their
        // first byte alone (a chain is ordered by it); a chain's end or a
        // node without children takes a new last node.
        int first = lower_byte(rest[0]);
        if (!node || first < first_byte(*node)) {
            auto fresh = make_leaf(rest, make_entry(name, number, description));
            fresh->sibling = std::move(*link);
            *link = std::move(fresh);
            return stored(link->get());
        }
        if (first != first_byte(*node)) {
            link = &node->sibling;
            continue;
        }
        size_t k = common_prefix(rest, node->label);
        if (k < node->label.size())
            return stored(split_node(*node, k, rest, make_entry(name, number, description)));
        if (k == rest.size()) return add_to_node(node, name, number, description);
        p += k;
        link = &node->child;
        if (cursor) cursor->path_.push_back({p, link});
    }
}

void InsertCursor::resume(std::string_view name, size_t& p, std::unique_ptr<TrieNode>*& link) {
    // The walk of `name` passes the same nodes as the one before as far as
    // the two names agree (ignoring case). A walk goes on below a node only
    // while the name goes on, so a descent at the name's end is dropped too.
    size_t shared = common_prefix(name, last_name_);
    while (!path_.empty() && (path_.back().end > shared || path_.back().end >= name.size()))
        path_.pop_back();
    if (!path_.empty()) {
        p = path_.back().end;
        link = path_.back().link;
    }
    last_name_.assign(name);
}

TrieNode* AddressBook::add_to_node(TrieNode* node, std::string_view name, std::string_view number,
                                   std::string_view description) {
    std::unique_ptr<Entry>* slot = &node->entries;
    while (*slot) {
        int c = std::string_view((*slot)->number).compare(number);
        if (c == 0) {
            reply_.set("Duplicate Entry Exists.");
            reply_.set("ERROR:Rejected - Duplicate Entry");
            return nullptr;
        }
        if (c > 0) break;  // the new number sorts before this one
        slot = &(*slot)->next;
    }
    auto e = make_entry(name, number, description);
    e->next = std::move(*slot);
    *slot = std::move(e);
    return stored(node);
}

AddressBook::Place AddressBook::walk_to(std::string_view name) {
    name = cstr(name);
    Place at;
    at.prev = &trie_root_;
    at.link = &trie_root_.sibling;
    size_t p = 0;
    while (TrieNode* node = at.link->get()) {
        std::string_view rest = name.substr(p);
        size_t k = common_prefix(rest, node->label);
        if (k == 0) {
            at.prev = node;
            at.link = &node->sibling;
            continue;
        }
        if (k == rest.size()) {
            if (k == node->label.size() && node->entries) at.node = node;
            return at;
        }
        if (k < node->label.size()) return at;
        p += k;
        at.prev = node;
        at.link = &node->child;
    }
    return at;
}

Entry* AddressBook::ab_find_number(Entry* first, std::string_view number) {
    number = cstr(number);
    for (Entry* e = first; e; e = e->next.get())
        if (e->number == number) return e;
    return nullptr;
}

TrieNode* AddressBook::ab_find(std::string_view name) {
    Place at = walk_to(name);
    reply_.set(at.node ? "SUCCESS" : "ERROR:Key Not Found");
    return at.node;
}

int AddressBook::ab_delete_entry(std::string_view name, std::string_view number) {
    Place at = walk_to(name);
    if (!at.node) {
        reply_.set("ERROR:Element Not Found");
        return 0;
    }
    // Lowered before the number is looked at: a number the name does not
    // hold still costs one from the count. Callers rely on this.
    --entry_count_;
    number = cstr(number);
    TrieNode* node = at.node;
    if (!node->entries->next) {
        if (node->entries->number != number) return 1;
        group_purge_entry(node->entries.get(), 0, nullptr);
        remove_node(at);
        return 1;
    }
    std::unique_ptr<Entry>* slot = &node->entries;
    while (*slot && (*slot)->number != number) slot = &(*slot)->next;
    if (!*slot) return 1;
    group_purge_entry(slot->get(), 0, nullptr);
    std::unique_ptr<Entry> dead = std::move(*slot);
    *slot = std::move(dead->next);
    return 1;
}

TrieNode* AddressBook::ab_replace_entry(std::string_view old_name, std::string_view old_number,
                                        std::string_view name, std::string_view number,
                                        std::string_view description) {
    --entry_count_;
    TrieNode* node = ab_insert(name, number, description);
    ++entry_count_;
    if (!node) return nullptr;
    Entry* fresh = ab_find_number(node->entries.get(), number);
    TrieNode* old_node = ab_find(old_name);
    Entry* old = old_node ? ab_find_number(old_node->entries.get(), old_number) : nullptr;
    if (fresh && old) group_purge_entry(old, 1, fresh);
    ab_delete_entry(old_name, old_number);
    return node;
}

void AddressBook::ab_set_description(Entry& entry, std::string_view description) {
    entry.description.assign(cstr(description));
}

int AddressBook::ab_delete_name(std::string_view name) {
    Place at = walk_to(name);
    if (!at.node) {
        reply_.set("ERROR:Element Not Found");
        return 0;
    }
    TrieNode* node = at.node;
    for (;;) {
        group_purge_entry(node->entries.get(), 0, nullptr);
        --entry_count_;
        if (!node->entries->next) break;
        std::unique_ptr<Entry> dead = std::move(node->entries);
        node->entries = std::move(dead->next);
    }
    remove_node(at);
    return 1;
}

void AddressBook::remove_node(const Place& at) {
    TrieNode* n = at.node;
    std::unique_ptr<TrieNode>& link = *at.link;
    free_entries(std::move(n->entries));

    if (!n->child && n->sibling) {
        std::unique_ptr<TrieNode> dead = std::move(link);
        link = std::move(dead->sibling);
        return;
    }
    if (!n->child) {
        link.reset();
        if (!at.prev->entries) prune();
        return;
    }
    // A node with several children stays as an inner node.
    if (n->child->sibling) return;
    // Its only child takes over, its label extended by the node's label.
    std::unique_ptr<TrieNode> dead = std::move(link);
    std::unique_ptr<TrieNode> x = std::move(dead->child);
    x->label.assign(dead->label + x->label);
    x->sibling = std::move(dead->sibling);
    link = std::move(x);
}

void AddressBook::prune() {
    // Post-order over the whole table (child subtree, sibling chain, node):
    // the reverse of a pre-order that takes the sibling chain before the
    // child subtree. Each node is recorded with the pointer that owns it,
    // which lies in a node that comes later in post-order.
    std::vector<std::unique_ptr<TrieNode>*> order;
    std::vector<std::unique_ptr<TrieNode>*> stack;
    if (trie_root_.sibling) stack.push_back(&trie_root_.sibling);
    while (!stack.empty()) {
        std::unique_ptr<TrieNode>* link = stack.back();
        stack.pop_back();
        order.push_back(link);
        TrieNode* n = link->get();
        if (n->child) stack.push_back(&n->child);
        if (n->sibling) stack.push_back(&n->sibling);
    }
    for (auto it = order.rbegin(); it != order.rend(); ++it) {
        TrieNode* n = (*it)->get();
        if (!n->entries && !n->child && !n->sibling) (*it)->reset();
    }
}

void write_entry_record(FILE* out, const Entry& e) {
    if (!out) return;
    size_t len = e.name.size() + e.number.size() + e.description.size() + 12;
    std::fprintf(out, "%zu^|^", len);
    std::fwrite(e.name.data(), 1, e.name.size(), out);
    std::fputs("^|^", out);
    std::fwrite(e.number.data(), 1, e.number.size(), out);
    std::fputs("^|^", out);
    std::fwrite(e.description.data(), 1, e.description.size(), out);
    std::fputs("^|^", out);
}

namespace {

// Position d of the entry at list_index on a page from `start`, taken as
// unsigned: 0 to 9 lie on the page.
uint32_t page_offset(const Listing& out, int start) {
    return static_cast<uint32_t>(out.list_index) - static_cast<uint32_t>(start);
}

void advance(Listing& out) {
    out.list_index = static_cast<int>(static_cast<uint32_t>(out.list_index) + 1u);
}

}  // namespace

int AddressBook::ab_list_page(Listing& out, int start) {
    visit_nodes(trie_root_.sibling.get(), [&](TrieNode& n) {
        for (Entry* e = n.entries.get(); e; e = e->next.get()) {
            uint32_t d = page_offset(out, start);
            if (d == 10) return Visit::kStop;
            if (d <= 9) {
                write_entry_record(out.output, *e);
                ++out.listed_count;
            }
            advance(out);
        }
        return Visit::kGoOn;
    });
    return out.list_index;
}

TrieNode* AddressBook::prefix_start(std::string_view prefix) {
    if (prefix.empty()) return &trie_root_;
    size_t p = 0;
    TrieNode* node = trie_root_.sibling.get();
    while (node) {
        std::string_view rest = prefix.substr(p);
        size_t k = common_prefix(rest, node->label);
        if (k == 0) {
            node = node->sibling.get();
            continue;
        }
        if (k == rest.size()) return node;
        if (k < node->label.size()) return nullptr;
        p += k;
        node = node->child.get();
    }
    return nullptr;
}

int AddressBook::ab_list_prefix_page(Listing& out, std::string_view prefix, int start) {
    prefix = cstr(prefix);
    TrieNode* from = prefix_start(prefix);
    if (!from) return out.list_index;
    visit_nodes(from, [&](TrieNode& n) {
        if (!n.entries) return Visit::kGoOn;
        if (!istarts_with(n.entries->name, prefix)) return Visit::kSkipBranch;
        for (Entry* e = n.entries.get(); e; e = e->next.get()) {
            uint32_t d = page_offset(out, start);
            trace("res-%d\n", static_cast<int>(d));
            if (d <= 9) {
                write_entry_record(out.output, *e);
                ++out.listed_count;
            } else if (d == 10 && start != 1) {
                return Visit::kStop;
            }
            // The first page counts every match, which the caller reports
            // as the total.
            advance(out);
        }
        return Visit::kGoOn;
    });
    return out.list_index;
}

int AddressBook::ab_list_by_number(Listing& out, std::string_view number) {
    number = cstr(number);
    visit_nodes(trie_root_.sibling.get(), [&](TrieNode& n) {
        for (Entry* e = n.entries.get(); e; e = e->next.get()) {
            // Nodes with children compare ignoring case and are not counted.
            bool match = n.child ? iequal(e->number, number) : e->number == number;
            if (!match) continue;
            if (out.output) {
                std::fwrite(e->name.data(), 1, e->name.size(), out.output);
                std::fputs("^|^", out.output);
                std::fwrite(e->number.data(), 1, e->number.size(), out.output);
                std::fputs("^|^", out.output);
                std::fwrite(e->description.data(), 1, e->description.size(), out.output);
                std::fputs("^|^\n", out.output);
            }
            if (!n.child) advance(out);
        }
        return Visit::kGoOn;
    });
    return out.list_index;
}

void AddressBook::ab_for_each_entry(const std::function<void(Entry&)>& visitor) {
    visit_nodes(trie_root_.sibling.get(), [&](TrieNode& n) {
        for (Entry* e = n.entries.get(); e; e = e->next.get()) visitor(*e);
        return Visit::kGoOn;
    });
}

}  // namespace smsgw
