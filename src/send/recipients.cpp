#include "send/recipients.h"

#include <fcntl.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "common/fileops.h"
#include "common/text.h"

namespace smsgw {

namespace {

// tolower() of the C locale, inline: it runs for every byte compared while
// a large group is merged.
inline int lower(char c) {
    auto u = static_cast<unsigned char>(c);
    return u >= 'A' && u <= 'Z' ? u + ('a' - 'A') : u;
}

// Length of the prefix two texts share, letters compared ignoring case.
size_t common_prefix(std::string_view a, std::string_view b) {
    size_t n = std::min(a.size(), b.size());
    size_t k = 0;
    while (k < n && (a[k] == b[k] || lower(a[k]) == lower(b[k]))) ++k;
    return k;
}

int first_lower(std::string_view s) {
    return s.empty() ? 0 : lower(s[0]);
}

std::unique_ptr<RecipientNode> leaf(std::string_view label, std::string_view number) {
    auto node = std::make_unique<RecipientNode>();
    node->label = std::string(label);
    node->number = std::string(number);
    return node;
}

}  // namespace

RecipientNode* RecipientSet::recipients_add(std::string_view number, int unlimited) {
    if (!unlimited && recipient_count > kLimit - 1) return nullptr;
    // A record holds at most 49 characters and its terminator; an empty or
    // longer number could not be sent, so it never enters the set.
    if (number.empty() || number.size() > kRecordSize - 1) return nullptr;

    // `link` is the owning pointer of `node` (a child or sibling field), so
    // a new node can be linked in before the current one.
    std::unique_ptr<RecipientNode>* link = &root_.sibling;
    size_t p = 0;
    while (true) {
        RecipientNode* node = link->get();
        if (!node) {
            *link = leaf(number.substr(p), number);
            ++recipient_count;
            return link->get();
        }
        std::string_view rest = number.substr(p);
        size_t k = common_prefix(rest, node->label);
        if (k == 0) {
            if (first_lower(rest) < first_lower(node->label)) {
                auto fresh = leaf(rest, number);
                fresh->sibling = std::move(*link);
                *link = std::move(fresh);
                ++recipient_count;
                return link->get();
            }
            link = &node->sibling;
            continue;
        }
        bool number_ends = k == rest.size();
        bool label_ends = k == node->label.size();
        if (number_ends && label_ends) {
            if (node->number) return nullptr;  // duplicate
            node->number = std::string(number);
            ++recipient_count;
            return node;
        }
        if (number_ends) {
            // The number is a proper prefix of the label: split the node.
            auto tail = std::make_unique<RecipientNode>();
            tail->label = node->label.substr(k);
            tail->number = std::move(node->number);
            node->number.reset();
            tail->child = std::move(node->child);
            node->label.resize(k);
            node->label.shrink_to_fit();
            node->number = std::string(number);
            node->child = std::move(tail);
            ++recipient_count;
            return node;
        }
        if (!label_ends) {
            // They part inside the label: the old rest and the new rest
            // become two children, ordered by their first bytes.
            auto old_rest = std::make_unique<RecipientNode>();
            old_rest->label = node->label.substr(k);
            old_rest->number = std::move(node->number);
            node->number.reset();
            old_rest->child = std::move(node->child);
            auto fresh = leaf(rest.substr(k), number);
            RecipientNode* stored = fresh.get();
            node->label.resize(k);
            node->label.shrink_to_fit();
            if (first_lower(fresh->label) < first_lower(old_rest->label)) {
                fresh->sibling = std::move(old_rest);
                node->child = std::move(fresh);
            } else {
                old_rest->sibling = std::move(fresh);
                node->child = std::move(old_rest);
            }
            ++recipient_count;
            return stored;
        }
        p += k;
        link = &node->child;
    }
}

void RecipientSet::recipients_add_all_contacts() {
    ab_.ab_for_each_entry([this](Entry& e) { recipients_add(e.number, 0); });
}

int RecipientSet::recipients_add_group(std::string_view group_name) {
    Group* group = ab_.group_find(group_name);
    if (!group || !group->members) return 1;
    if (recipient_count > kLimit - 1) return 0;
    int result = 0;
    for (GroupMember* m = group->members.get(); m; m = m->next.get())
        if (m->member_entry) result = recipients_add(m->member_entry->number, 0) != nullptr;
    return result;
}

int RecipientSet::recipients_add_all_groups() {
    // Collect the names first: group_find walks the same list.
    std::vector<std::string> names;
    for (Group* g = ab_.first_group(); g; g = g->next.get()) names.push_back(g->group_name);
    for (const auto& name : names) recipients_add_group(name);
    return static_cast<int>(names.size());
}

int RecipientSet::recipients_add_contact(std::string_view name) {
    TrieNode* node = ab_.ab_find(name);
    if (!node) return 0;
    for (Entry* e = node->entries.get(); e; e = e->next.get()) recipients_add(e->number, 0);
    return 1;
}

void RecipientSet::recipients_add_file(const std::string& path) {
    // The list sits under a fixed name; a symlink planted there is not read.
    Fd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    FilePtr in(fd ? ::fdopen(fd.get(), "r") : nullptr);
    if (!in) return;  // an unreadable list counts as empty
    fd.release();
    std::string line;
    int c;
    bool overlong = false;
    while ((c = std::fgetc(in.get())) != EOF) {
        if (c != '\n') {
            // A line that cannot fit a record is dropped whole rather than
            // split into pieces that would look like other numbers.
            if (line.size() < kRecordSize)
                line.push_back(static_cast<char>(c));
            else
                overlong = true;
            continue;
        }
        if (!overlong) recipients_add(line, 1);
        line.clear();
        overlong = false;
    }
    in.reset();
    remove_file(path);
}

bool RecipientSet::recipients_write(FILE* stream) const {
    // Pre-order: payload, child subtree, then the sibling chain. An explicit
    // stack keeps long chains from exhausting the call stack.
    std::vector<const RecipientNode*> stack;
    if (root_.sibling) stack.push_back(root_.sibling.get());
    char record[kRecordSize];
    while (!stack.empty()) {
        const RecipientNode* node = stack.back();
        stack.pop_back();
        if (node->sibling) stack.push_back(node->sibling.get());
        if (node->child) stack.push_back(node->child.get());
        if (node->number) {
            std::memset(record, 0, sizeof record);
            // The record was zeroed above and at most size - 1 bytes are copied.
            // NOLINTNEXTLINE(bugprone-not-null-terminated-result)
            std::memcpy(record, node->number->data(),
                        std::min(node->number->size(), kRecordSize - 1));
            if (std::fwrite(record, 1, sizeof record, stream) != sizeof record) return false;
        }
    }
    return true;
}

void RecipientSet::recipients_clear() {
    // Detach every node onto a work list so each is destroyed without
    // recursing into its child and sibling chains.
    std::vector<std::unique_ptr<RecipientNode>> work;
    if (root_.sibling) work.push_back(std::move(root_.sibling));
    if (root_.child) work.push_back(std::move(root_.child));
    while (!work.empty()) {
        std::unique_ptr<RecipientNode> node = std::move(work.back());
        work.pop_back();
        if (node->child) work.push_back(std::move(node->child));
        if (node->sibling) work.push_back(std::move(node->sibling));
    }
    root_.number.reset();
    recipient_count = 0;
}

}  // namespace smsgw
