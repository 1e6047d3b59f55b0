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
    ++entry_count;
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

TrieNode* AddressBook::insert(InsertCursor* cursor, std::string_view name, std::string_view number,
                              std::string_view description) {
    name = cstr(name);
    number = cstr(number);
    description = cstr(description);
    if (entry_count > MAX_ELEMENTS - 1) {
        reply_.set("Exceeded MAX Limit");
        return nullptr;
    }
    reply_.set("SUCCESS");
    // No label can spell the empty name: such a node could never be found
    // or deleted again, so it is refused instead of stored.
    if (name.empty()) {
        reply_.set("ERROR");
        return nullptr;
    }

    size_t p = 0;
    std::unique_ptr<TrieNode>* link = &trie_root_.sibling;
    if (cursor) cursor->resume(name, p, link);
    for (;;) {
        TrieNode* node = link->get();
        std::string_view rest = name.substr(p);
        if (!node) {
            // End of a sibling chain, or a node without children.
            *link = make_leaf(rest, make_entry(name, number, description));
            return stored(link->get());
        }
        // Most nodes of a walk are passed, or inserted before, on their
        // first byte alone (a chain is ordered by it).
        int first = lower_byte(rest[0]);
        int label_first = node->label.empty() ? -1 : lower_byte(node->label[0]);
        if (first != label_first) {
            if (first < label_first) {
                auto fresh = make_leaf(rest, make_entry(name, number, description));
                fresh->sibling = std::move(*link);
                *link = std::move(fresh);
                return stored(link->get());
            }
            link = &node->sibling;
            continue;
        }
        size_t k = common_prefix(rest, node->label);
        bool name_ends = k == rest.size();
        bool label_ends = k == node->label.size();
        if (name_ends && label_ends) return add_to_node(node, name, number, description);
        if (name_ends) {
            // The new name is a proper prefix of the label.
            auto tail = std::make_unique<TrieNode>();
            tail->label.assign(node->label.view().substr(k));
            tail->entries = std::move(node->entries);
            tail->child = std::move(node->child);
            node->label.assign(node->label.view().substr(0, k));
            node->entries = make_entry(name, number, description);
            node->child = std::move(tail);
            return stored(node);
        }
        if (!label_ends) {
            // The names part inside the label: old rest (A) and new rest (B)
            // become the children of a now inner node.
            auto a = std::make_unique<TrieNode>();
            a->label.assign(node->label.view().substr(k));
            a->entries = std::move(node->entries);
            a->child = std::move(node->child);
            auto b = make_leaf(rest.substr(k), make_entry(name, number, description));
            TrieNode* holder = b.get();
            node->label.assign(node->label.view().substr(0, k));
            if (lower_byte(rest[k]) < lower_byte(a->label[0])) {
                b->sibling = std::move(a);
                node->child = std::move(b);
            } else {
                a->sibling = std::move(b);
                node->child = std::move(a);
            }
            return stored(holder);
        }
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
    --entry_count;
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

int AddressBook::ab_delete_name(std::string_view name) {
    Place at = walk_to(name);
    if (!at.node) {
        reply_.set("ERROR:Element Not Found");
        return 0;
    }
    TrieNode* node = at.node;
    for (;;) {
        group_purge_entry(node->entries.get(), 0, nullptr);
        --entry_count;
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

void AddressBook::write_record(const Entry& e) {
    if (!list_output) return;
    size_t len = e.name.size() + e.number.size() + e.description.size() + 12;
    std::fprintf(list_output, "%zu^|^", len);
    std::fwrite(e.name.data(), 1, e.name.size(), list_output);
    std::fputs("^|^", list_output);
    std::fwrite(e.number.data(), 1, e.number.size(), list_output);
    std::fputs("^|^", list_output);
    std::fwrite(e.description.data(), 1, e.description.size(), list_output);
    std::fputs("^|^", list_output);
}

int AddressBook::ab_list_page(int start) {
    visit_nodes(trie_root_.sibling.get(), [&](TrieNode& n) {
        for (Entry* e = n.entries.get(); e; e = e->next.get()) {
            uint32_t d = static_cast<uint32_t>(list_index) - static_cast<uint32_t>(start);
            if (d == 10) return Visit::kStop;
            if (d <= 9) {
                write_record(*e);
                ++listed_count;
            }
            list_index = static_cast<int>(static_cast<uint32_t>(list_index) + 1u);
        }
        return Visit::kGoOn;
    });
    return list_index;
}

int AddressBook::ab_list_prefix_page(std::string_view prefix, int start) {
    prefix = cstr(prefix);
    // Follow the prefix down to the first node whose name begins with it.
    TrieNode* from = &trie_root_;
    if (!prefix.empty()) {
        from = nullptr;
        size_t p = 0;
        TrieNode* node = trie_root_.sibling.get();
        while (node) {
            std::string_view rest = prefix.substr(p);
            size_t k = common_prefix(rest, node->label);
            if (k == 0) {
                node = node->sibling.get();
                continue;
            }
            if (k == rest.size()) {
                from = node;
                break;
            }
            if (k < node->label.size()) break;
            p += k;
            node = node->child.get();
        }
    }
    if (!from) return list_index;

    visit_nodes(from, [&](TrieNode& n) {
        if (!n.entries) return Visit::kGoOn;
        if (!istarts_with(n.entries->name, prefix)) return Visit::kSkipBranch;
        for (Entry* e = n.entries.get(); e; e = e->next.get()) {
            uint32_t d = static_cast<uint32_t>(list_index) - static_cast<uint32_t>(start);
            trace("res-%d\n", static_cast<int>(d));
            if (d <= 9) {
                write_record(*e);
                ++listed_count;
            } else if (d == 10 && start != 1) {
                return Visit::kStop;
            }
            // The first page counts every match, which the caller reports
            // as the total.
            list_index = static_cast<int>(static_cast<uint32_t>(list_index) + 1u);
        }
        return Visit::kGoOn;
    });
    return list_index;
}

int AddressBook::ab_list_by_number(std::string_view number) {
    number = cstr(number);
    visit_nodes(trie_root_.sibling.get(), [&](TrieNode& n) {
        for (Entry* e = n.entries.get(); e; e = e->next.get()) {
            // Nodes with children compare ignoring case and are not counted.
            bool match = n.child ? iequal(e->number, number) : e->number == number;
            if (!match) continue;
            if (list_output) {
                std::fwrite(e->name.data(), 1, e->name.size(), list_output);
                std::fputs("^|^", list_output);
                std::fwrite(e->number.data(), 1, e->number.size(), list_output);
                std::fputs("^|^", list_output);
                std::fwrite(e->description.data(), 1, e->description.size(), list_output);
                std::fputs("^|^\n", list_output);
            }
            if (!n.child) list_index = static_cast<int>(static_cast<uint32_t>(list_index) + 1u);
        }
        return Visit::kGoOn;
    });
    return list_index;
}

void AddressBook::ab_for_each_entry(const std::function<void(Entry&)>& visitor) {
    visit_nodes(trie_root_.sibling.get(), [&](TrieNode& n) {
        for (Entry* e = n.entries.get(); e; e = e->next.get()) visitor(*e);
        return Visit::kGoOn;
    });
}

}  // namespace smsgw
