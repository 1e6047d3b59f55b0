#include "send/recipients.h"

#include <fcntl.h>

#include <algorithm>
#include <cstring>

#include "common/fileops.h"
#include "formats/job_file.h"

namespace smsgw {

namespace {

// tolower() of the C locale, inline: it runs for every byte hashed and
// compared.
inline unsigned char lower(char c) {
    auto u = static_cast<unsigned char>(c);
    return u >= 'A' && u <= 'Z' ? static_cast<unsigned char>(u + ('a' - 'A')) : u;
}

uint32_t folded_hash(std::string_view s) {
    uint32_t h = 2166136261U;  // FNV-1a
    for (char c : s) h = (h ^ lower(c)) * 16777619U;
    return h;
}

bool same_folded(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (a[i] != b[i] && lower(a[i]) != lower(b[i])) return false;
    return true;
}

// Byte order of the case-folded texts; a text comes before the longer ones
// it begins.
bool folded_less(std::string_view a, std::string_view b) {
    return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(),
                                        [](char x, char y) { return lower(x) < lower(y); });
}

// Zeros stand in past the end: two heads compare as folded_less orders the
// texts, or are equal.
uint64_t folded_head(std::string_view s) {
    uint64_t head = 0;
    for (size_t i = 0; i < 8; ++i) head = head << 8 | (i < s.size() ? lower(s[i]) : 0U);
    return head;
}

size_t slot_of(uint32_t hash, size_t slot_count) {
    return (hash ^ hash >> 16) & (slot_count - 1);
}

// Sets beyond this many numbers (only lists of numbers given directly get
// there) give their memory back when cleared.
constexpr size_t kKeptNumbers = size_t{2} * RecipientSet::kLimit;

}  // namespace

bool RecipientSet::contains(std::string_view number, uint32_t hash) const {
    if (slots_.empty()) return false;
    for (size_t s = slot_of(hash, slots_.size());; s = (s + 1) & (slots_.size() - 1)) {
        if (slots_[s] == 0) return false;
        if (same_folded(text_of(slots_[s] - 1), number)) return true;
    }
}

void RecipientSet::insert_slot(uint32_t index) {
    size_t s = slot_of(numbers_[index].hash, slots_.size());
    while (slots_[s] != 0) s = (s + 1) & (slots_.size() - 1);
    slots_[s] = index + 1;
}

void RecipientSet::grow_slots() {
    // At most half full with one more number, so that a probe ends soon.
    if ((numbers_.size() + 1) * 2 <= slots_.size()) return;
    slots_.assign(std::max<size_t>(64, slots_.size() * 2), 0);
    for (uint32_t i = 0; i < numbers_.size(); ++i) insert_slot(i);
}

bool RecipientSet::recipients_add(std::string_view number, int unlimited) {
    if (!unlimited && recipient_count() > kLimit - 1) return false;
    // A record holds at most 49 characters and its terminator; an empty or
    // longer number could not be sent, so it never enters the set.
    if (number.empty() || number.size() > kRecordSize - 1) return false;
    const uint32_t hash = folded_hash(number);
    if (contains(number, hash) || text_.size() > UINT32_MAX - kRecordSize) return false;
    grow_slots();
    numbers_.push_back(
        {static_cast<uint32_t>(text_.size()), static_cast<uint32_t>(number.size()), hash});
    text_.append(number);
    insert_slot(static_cast<uint32_t>(numbers_.size() - 1));
    return true;
}

void RecipientSet::recipients_add_all_contacts() {
    ab_.ab_for_each_entry([this](Entry& e) { recipients_add(e.number, 0); });
}

int RecipientSet::recipients_add_group(std::string_view group_name) {
    Group* group = ab_.group_find(group_name);
    if (!group || !group->members) return 1;
    if (recipient_count() > kLimit - 1) return 0;
    int result = 0;
    for (GroupMember* m = group->members.get(); m; m = m->next.get())
        if (m->member_entry) result = recipients_add(m->member_entry->number, 0) ? 1 : 0;
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

void RecipientSet::sort_numbers() {
    order_.clear();
    order_.reserve(numbers_.size());
    for (uint32_t i = 0; i < numbers_.size(); ++i) order_.push_back({folded_head(text_of(i)), i});
    std::sort(order_.begin(), order_.end(), [this](const SortKey& a, const SortKey& b) {
        if (a.head != b.head) return a.head < b.head;
        return folded_less(text_of(a.index), text_of(b.index));
    });
}

bool RecipientSet::recipients_write(FILE* stream) {
    sort_numbers();
    // Records go out in blocks, so a large set costs few writes.
    constexpr size_t kBlockRecords = 1024;
    block_.resize(std::min(order_.size(), kBlockRecords) * kRecordSize);
    size_t used = 0;
    for (const SortKey& key : order_) {
        std::string_view number = text_of(key.index);
        put_recipient_record(block_.data() + used, number);
        used += kRecordSize;
        if (used == block_.size()) {
            if (std::fwrite(block_.data(), 1, used, stream) != used) return false;
            used = 0;
        }
    }
    return used == 0 || std::fwrite(block_.data(), 1, used, stream) == used;
}

void RecipientSet::recipients_clear() {
    if (numbers_.capacity() > kKeptNumbers) {
        std::string().swap(text_);
        std::vector<Number>().swap(numbers_);
        std::vector<uint32_t>().swap(slots_);
        std::vector<SortKey>().swap(order_);
        std::vector<char>().swap(block_);
        return;
    }
    text_.clear();
    numbers_.clear();
    std::fill(slots_.begin(), slots_.end(), 0);
    order_.clear();
}

}  // namespace smsgw
