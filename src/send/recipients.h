// The recipient set of one send: numbers without duplicates (letters
// compared ignoring case), their count bounded, written out as 50-byte
// zero-padded records in ascending byte order of the case-folded numbers,
// a number before the longer ones it begins.
//
// A hash table finds duplicates as numbers arrive; the order is made once,
// when the set is written. The set keeps its memory from one send to the
// next: giving it back and taking it again would cost a page fault per page,
// more than the work itself.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "addressbook/address_book.h"

namespace smsgw {

class RecipientSet {
  public:
    static constexpr int kLimit = 20000;
    static constexpr size_t kRecordSize = 50;

    explicit RecipientSet(AddressBook& ab) : ab_(ab) {}
    RecipientSet(const RecipientSet&) = delete;
    RecipientSet& operator=(const RecipientSet&) = delete;

    // True when the number was stored; false when it was refused (counted
    // insertions stop at kLimit unless `unlimited`; an empty number or one
    // of more than 49 characters never fits a record) or is already there.
    bool recipients_add(std::string_view number, int unlimited);
    void recipients_add_all_contacts();
    // Every group's members, group by group; the number of groups.
    int recipients_add_all_groups();
    // 1 when the group is missing or empty, 0 at the limit, otherwise
    // whether its last member was stored.
    int recipients_add_group(std::string_view group_name);
    // 1 when the contact exists (its numbers are added), 0 otherwise.
    int recipients_add_contact(std::string_view name);
    // Every line of the file, beyond the limit; then the file is removed.
    void recipients_add_file(const std::string& path);
    // One 50-byte record per number, in set order. False on a write error.
    bool recipients_write(FILE* stream);
    // Empties the set; the memory of an unusually large one is given back.
    void recipients_clear();

    // Numbers stored, whether counted against the limit or not.
    int recipient_count() const { return static_cast<int>(numbers_.size()); }

  private:
    struct Number {
        uint32_t offset;  // into text_
        uint32_t size;
        uint32_t hash;  // of the case-folded text, for growing the table
    };
    // A number's place in the written order: its first eight case-folded
    // bytes as a big-endian word decide, the whole text only on a tie.
    struct SortKey {
        uint64_t head;
        uint32_t index;
    };

    std::string_view text_of(uint32_t index) const {
        const Number& n = numbers_[index];
        return {text_.data() + n.offset, n.size};
    }
    bool contains(std::string_view number, uint32_t hash) const;
    void insert_slot(uint32_t index);
    void grow_slots();
    void sort_numbers();

    AddressBook& ab_;
    std::string text_;             // the numbers back to back
    std::vector<Number> numbers_;  // in arrival order
    std::vector<uint32_t> slots_;  // open addressing: index + 1, 0 when free
    std::vector<SortKey> order_;   // filled by recipients_write
    std::vector<char> block_;      // records on their way to the stream
};

}  // namespace smsgw
