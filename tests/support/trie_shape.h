// The contact tree as text for comparisons: label[entries]{children}, with
// siblings separated by a blank. An entry shows its number, or NAME/NUMBER
// when the names matter too (letter case is kept per entry).
#pragma once

#include <string>

#include "addressbook/address_book.h"

namespace smsgw::test {

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

}  // namespace smsgw::test
