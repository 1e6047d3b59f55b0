// Address-book views for comparisons: the contact tree as text, the entries
// and members as strings, and what a listing writes.
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "addressbook/address_book.h"

namespace smsgw::test {

// label[entries]{children}, siblings separated by a blank. An entry shows
// its number, or NAME/NUMBER when the names matter too.
inline void dump_trie(const TrieNode* n, bool with_names, std::string& out) {
    for (; n; n = n->sibling.get()) {
        out += n->label;
        if (n->entries) {
            out += '[';
            for (const Entry* e = n->entries.get(); e; e = e->next.get()) {
                if (e != n->entries.get()) out += ',';
                if (with_names) out += e->name + "/";
                out += e->number;
            }
            out += ']';
        }
        if (n->child) {
            out += '{';
            dump_trie(n->child.get(), with_names, out);
            out += '}';
        }
        if (n->sibling) out += ' ';
    }
}

inline std::string trie_shape(AddressBook& ab, bool with_names = false) {
    std::string out;
    dump_trie(ab.trie_root().sibling.get(), with_names, out);
    return out;
}

// Every entry in table order as "name|number|description".
inline std::vector<std::string> book_entries(AddressBook& ab) {
    std::vector<std::string> v;
    ab.ab_for_each_entry(
        [&](Entry& e) { v.push_back(e.name + "|" + e.number + "|" + e.description); });
    return v;
}

// A group's members as "name/number", in list order.
inline std::vector<std::string> members(const Group* g) {
    std::vector<std::string> v;
    for (GroupMember* m = g->members.get(); m; m = m->next.get())
        v.push_back(m->member_entry->name + "/" + m->member_entry->number);
    return v;
}

// A listing into a temporary stream.
class Capture {
  public:
    Capture() { listing.output = f_.get(); }
    std::string text() {
        std::rewind(f_.get());  // flushes what the listing wrote
        std::string s;
        for (int c; (c = std::fgetc(f_.get())) != EOF;) s += static_cast<char>(c);
        return s;
    }
    Listing listing;

  private:
    std::unique_ptr<FILE, int (*)(FILE*)> f_{std::tmpfile(), &std::fclose};
};

}  // namespace smsgw::test
