// The contact table: tree shapes after every kind of split and removal (also
// through an insert cursor), the reply texts, the limit, the listings byte
// for byte.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "addressbook/address_book.h"
#include "support/trie_shape.h"

using namespace smsgw;
using test::Capture;
using test::trie_shape;
using V = std::vector<std::string>;

namespace {

struct ContactTable : ::testing::Test {
    ReplyBuffer reply;
    AddressBook ab{reply};

    V names() {
        V v;
        ab.ab_for_each_entry([&](Entry& e) { v.push_back(e.name + "/" + e.number); });
        return v;
    }
};

std::string numbered(int i) {
    return (i < 10 ? "c0" : "c") + std::to_string(i);
}

}  // namespace

TEST_F(ContactTable, InsertionSplitsNodesAndKeepsTableOrder) {
    const std::pair<const char*, const char*> steps[] = {
        {"Anna", "Anna[1]"},
        {"Ann", "Ann[2]{a[1]}"},                            // a prefix of the label
        {"Anne", "Ann[2]{a[1] e[3]}"},                      // label used up: a child
        {"Anja", "An{ja[4] n[2]{a[1] e[3]}}"},              // parts inside: new rest first
        {"Bob", "An{ja[4] n[2]{a[1] e[3]}} Bob[5]"},        // end of the chain
        {"al", "A{l[6] n{ja[4] n[2]{a[1] e[3]}}} Bob[5]"},  // parts: old rest first
        {"Aaron", "A{aron[7] l[6] n{ja[4] n[2]{a[1] e[3]}}} Bob[5]"},  // before the first child
        {"0", "0[8] A{aron[7] l[6] n{ja[4] n[2]{a[1] e[3]}}} Bob[5]"},
        {"bz", "0[8] A{aron[7] l[6] n{ja[4] n[2]{a[1] e[3]}}} B{ob[5] z[9]}"},
        {"Anjas", "0[8] A{aron[7] l[6] n{ja[4]{s[10]} n[2]{a[1] e[3]}}} B{ob[5] z[9]}"},
        {"Anja",
         "0[8] A{aron[7] l[6] n{ja[11,4]{s[10]} n[2]{a[1] e[3]}}} B{ob[5] z[9]}"},  // walked past
    };
    // The same through an insert cursor, in this order and in table order
    // (as a load inserts).
    ReplyBuffer r1, r2;
    AddressBook walked(r1), loaded(r2);
    InsertCursor walk, load;
    int number = 1;
    for (const auto& [name, shape] : steps) {
        reply.set("x");
        ASSERT_NE(ab.ab_insert(name, std::to_string(number), ""), nullptr) << name;
        walked.ab_insert(walk, name, std::to_string(number++), "");
        EXPECT_EQ(reply.str() + r1.str(), "SUCCESSSUCCESS");
        EXPECT_EQ(trie_shape(ab), shape) << "after " << name;
        EXPECT_EQ(trie_shape(walked), shape) << "after " << name;
    }
    EXPECT_EQ(ab.entry_count(), 11);
    const V order = {"0/8",   "Aaron/7", "al/6",   "Anja/11", "Anja/4", "Anjas/10",
                     "Ann/2", "Anna/1",  "Anne/3", "Bob/5",   "bz/9"};
    EXPECT_EQ(names(), order);
    for (const auto& e : order)
        loaded.ab_insert(load, e.substr(0, e.find('/')), e.substr(e.find('/') + 1), "");
    EXPECT_EQ(trie_shape(loaded, true), trie_shape(ab, true));
}

TEST_F(ContactTable, DuplicatesNulsAndEmptyNames) {
    TrieNode* n = ab.ab_insert("John Smith", "555", "a");
    EXPECT_EQ(ab.ab_insert("JOHN SMITH", "1234", "b"), n);
    EXPECT_EQ(ab.ab_insert("jOhN sMiTh", "555", "x"), nullptr);
    EXPECT_EQ(reply.str(), "ERROR:Rejected - Duplicate Entry");
    EXPECT_EQ(AddressBook::ab_find_number(n->entries.get(), "555")->description, "a");
    EXPECT_EQ(AddressBook::ab_find_number(n->entries.get(), "55"), nullptr);
    // A NUL ends a text; the empty name cannot be stored.
    EXPECT_NE(ab.ab_insert(std::string("Ann\0x", 5), std::string("12\0", 3), "d"), nullptr);
    EXPECT_EQ(ab.ab_insert("", "1", ""), nullptr);
    EXPECT_EQ(reply.str(), "ERROR");
    EXPECT_EQ(ab.ab_delete_name("JOHN smith"), 1);
    EXPECT_EQ(names(), V{"Ann/12"});
    EXPECT_EQ(ab.entry_count(), 1);
}

TEST_F(ContactTable, TheLimitIsTwentyThousandEntries) {
    for (int i = 0; i < AddressBook::MAX_ELEMENTS; ++i)
        ASSERT_NE(ab.ab_insert("n" + std::to_string(100000 + i), "1", ""), nullptr);
    EXPECT_EQ(ab.ab_insert("new", "2", ""), nullptr);
    EXPECT_EQ(reply.str(), "Exceeded MAX Limit");
    EXPECT_EQ(ab.ab_find("new"), nullptr);
    // A replacement does not count the entry it replaces.
    EXPECT_NE(ab.ab_replace_entry("n100001", "1", "new", "2", ""), nullptr);
    EXPECT_EQ(ab.ab_find("n100001"), nullptr);
    EXPECT_EQ(ab.entry_count(), 20000);
    EXPECT_EQ(ab.ab_delete_name("n100000"), 1);
    EXPECT_NE(ab.ab_insert("newer", "2", ""), nullptr);
}

// Each case: contacts (number 1), removals in order, the tree left.
TEST_F(ContactTable, RemovalsMergeAndPruneNodes) {
    struct Case {
        V names, removals;
        const char* shape;
    } cases[] = {
        {{"Ann", "Bob"}, {"Ann"}, "Bob[1]"},                   // relinked to the sibling
        {{"Ann", "Anna"}, {"Ann"}, "Anna[1]"},                 // the only child merges up
        {{"Ann", "Anna", "Bob"}, {"Ann"}, "Anna[1] Bob[1]"},   // ... keeping the sibling
        {{"Ann", "Anna", "Anne"}, {"Ann"}, "Ann{a[1] e[1]}"},  // stays an inner node
        {{"Ann", "Anna", "Bob"}, {"Bob"}, "Ann[1]{a[1]}"},
        {{"Ann", "Anna"}, {"Anna"}, "Ann[1]"},  // under a holding parent: no pruning
        {{"Anja", "Anna", "Bob"}, {"Bob"}, "An{ja[1] na[1]}"},
        {{"Anna", "Anne", "Bob"}, {"Anne", "Anna"}, "Ann Bob[1]"},  // pruned from the end only
        {{"Anna", "Anne", "Bob"}, {"Anne", "Anna", "Bob"}, ""},
    };
    for (const auto& c : cases) {
        ReplyBuffer r;
        AddressBook book(r);
        for (const auto& n : c.names) book.ab_insert(n, "1", "");
        for (const auto& n : c.removals) ASSERT_EQ(book.ab_delete_entry(n, "1"), 1) << n;
        EXPECT_EQ(trie_shape(book), c.shape) << c.names[0] << " - " << c.removals[0];
        EXPECT_EQ(book.entry_count(), static_cast<int>(c.names.size() - c.removals.size()));
        EXPECT_NE(book.ab_insert("Anj", "2", ""), nullptr);  // a pruned tree takes names again
    }
}

TEST_F(ContactTable, PagesAreTenRecordsFromTheStart) {
    for (int i = 1; i <= 25; ++i) ab.ab_insert(numbered(i), "1", "d");
    const std::pair<int, int> pages[] = {{1, 10}, {11, 20}, {21, 25}, {26, 25}};
    for (const auto& [start, last] : pages) {
        Capture cap;
        cap.listing = {cap.listing.output, 1, 1};
        EXPECT_EQ(ab.ab_list_page(cap.listing, start), std::min(start + 10, 26));
        std::string want;
        for (int i = start; i <= last; ++i) want += "17^|^" + numbered(i) + "^|^1^|^d^|^";
        EXPECT_EQ(cap.text(), want) << start;
        EXPECT_EQ(cap.listing.listed_count, 2 + last - start) << start;
    }
}

TEST_F(ContactTable, PrefixPagesCountEveryMatchOnTheFirstPageOnly) {
    for (const char* n : {"Al", "Anja", "Ann", "anna", "Anne", "Annette", "Bob", "Bo"})
        ab.ab_insert(n, "7", "");
    Capture first, later;
    first.listing.list_index = later.listing.list_index = 1;
    EXPECT_EQ(ab.ab_list_prefix_page(first.listing, "aNn", 1), 5);
    EXPECT_EQ(first.text(),
              "16^|^Ann^|^7^|^^|^17^|^anna^|^7^|^^|^17^|^Anne^|^7^|^^|^20^|^Annette^|^7^|^^|^");
    EXPECT_EQ(ab.ab_list_prefix_page(later.listing, "ann", 3), 5);
    EXPECT_EQ(later.text(), "17^|^Anne^|^7^|^^|^20^|^Annette^|^7^|^^|^");
    const std::pair<const char*, int> counts[] = {{"a", 6},        {"an", 5}, {"annette", 1},
                                                  {"annettes", 0}, {"c", 0},  {"bo", 2},
                                                  {"", 8},         {"Anx", 0}};
    for (const auto& [prefix, matches] : counts) {
        Listing l{nullptr, 1, 1};
        EXPECT_EQ(ab.ab_list_prefix_page(l, prefix, 1) - 1, matches) << prefix;
    }
    // A later page stops behind its tenth record; the first goes on counting.
    for (int i = 1; i <= 30; ++i) ab.ab_insert(numbered(i), "1", "");
    for (const auto& [start, end] : {std::pair{11, 21}, std::pair{1, 31}}) {
        Listing l{nullptr, 1, 1};
        EXPECT_EQ(ab.ab_list_prefix_page(l, "c", start), end);
        EXPECT_EQ(l.listed_count, 11);
    }
}
