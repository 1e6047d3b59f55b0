// The recipient set of one send: a compressed prefix tree over numbers that
// drops duplicates, bounds the count and writes 50-byte records.
#pragma once

#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "addressbook/address_book.h"

namespace smsgw {

struct RecipientNode {
    std::string label;
    std::optional<std::string> number;  // payload, at most one per node
    std::unique_ptr<RecipientNode> sibling;
    std::unique_ptr<RecipientNode> child;
};

class RecipientSet {
  public:
    static constexpr int kLimit = 20000;
    static constexpr size_t kRecordSize = 50;

    explicit RecipientSet(AddressBook& ab) : ab_(ab) {}
    ~RecipientSet() { recipients_clear(); }
    RecipientSet(const RecipientSet&) = delete;
    RecipientSet& operator=(const RecipientSet&) = delete;

    // The node stored, or nullptr when refused (limit) or already present.
    RecipientNode* recipients_add(std::string_view number, int unlimited);
    void recipients_add_all_contacts();
    int recipients_add_all_groups();
    int recipients_add_group(std::string_view group_name);
    int recipients_add_contact(std::string_view name);
    void recipients_add_file(const std::string& path);
    // One 50-byte record per number, in tree order. False on a write error.
    bool recipients_write(FILE* stream) const;
    // Frees every node below the root and resets recipient_count.
    void recipients_clear();

    int recipient_count = 0;

  private:
    AddressBook& ab_;
    RecipientNode root_;
};

}  // namespace smsgw
