// Groups: order and limits, the reply texts of every operation, purging a
// removed contact, and the membership scan of the save.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "addressbook/address_book.h"
#include "addressbook/address_book_files.h"
#include "support/trie_shape.h"

using namespace smsgw;
using test::members;
using V = std::vector<std::string>;

namespace {

struct Groups : ::testing::Test {
    ReplyBuffer reply;
    AddressBook ab{reply};

    Entry* add(const std::string& name, const char* number = "1") {
        TrieNode* n = ab.ab_insert(name, number, "");
        return n ? AddressBook::ab_find_number(n->entries.get(), number) : nullptr;
    }
    // A result and the reply text it left.
    void expect(int result, int want, const char* text) {
        EXPECT_EQ(result, want) << text;
        EXPECT_EQ(reply.str(), text);
    }
    V names() {
        V v;
        for (Group* g = ab.first_group(); g; g = g->next.get()) v.push_back(g->group_name);
        return v;
    }
    // What fn writes into a listing.
    template <typename F>
    std::string listed(F fn) {
        test::Capture cap;
        fn(cap.listing);
        return cap.text();
    }
    // The membership part of a save: one group_write_memberships per entry.
    std::string memberships() {
        return listed([&](Listing& l) {
            ab.ab_for_each_entry(
                [&](Entry& e) { ab.group_write_memberships(l.output, e.name, e.number); });
        });
    }
    // The same part of what the save writes (it computes it group by group).
    std::string saved() {
        std::istringstream lines(listed([&](Listing& l) { ab_save_contacts(ab, l.output); }));
        std::string out;
        for (std::string line; std::getline(lines, line);)
            out +=
                line.substr(std::min(line.size(), line.rfind("^|^", line.size() - 4) + 3)) + "\n";
        return out;
    }
};

}  // namespace

TEST_F(Groups, CreationKeepsNameOrderUpToFiftyGroups) {
    reply.set("kept");
    for (const char* n : {"b", "A", "c", "team"}) ASSERT_NE(ab.group_create(n), nullptr);
    EXPECT_EQ(reply.str(), "kept");
    EXPECT_EQ(names(), (V{"A", "b", "c", "team"}));
    expect(ab.group_create("Team") != nullptr, 0, "ERROR:Group Already exists with the name");
    for (int i = 4; i < 50; ++i) ASSERT_NE(ab.group_create("g" + std::to_string(i)), nullptr) << i;
    reply.set("kept");
    EXPECT_EQ(ab.group_create("extra"), nullptr);
    EXPECT_EQ(reply.str(), "kept");
    EXPECT_EQ(ab.group_append_loaded("loaded"), 1);
    EXPECT_EQ(ab.group_count(), 50);
    // A rename is possible with all fifty.
    ASSERT_NE(ab.group_rename("g10", "zz"), nullptr);
    EXPECT_EQ(names().back(), "zz");
    EXPECT_EQ(ab.group_count(), 50);
}

TEST_F(Groups, FindAndDelete) {
    expect(ab.group_find("x") != nullptr, 0, "ERROR:Search is Insucessfull");
    expect(ab.group_delete("x", 0), 0, "ERROR:No elements are there in group");
    ab.group_create("Friends");
    expect(ab.group_find("FRIENDS") != nullptr, 1, "SUCCESS");
    expect(ab.group_find("Friend") != nullptr, 0, "ERROR:Search is Insucessfull");
    expect(ab.group_delete("Foes", 0), 0, "ERROR:Element Not Found in the Group");
    expect(ab.group_delete("friends", 0), 1, "SUCCESS");
    EXPECT_EQ(ab.first_group(), nullptr);
}

TEST_F(Groups, MembersStaySortedWithTheirReplyTexts) {
    Entry* bob = add("Bob", "2");
    Entry* ann2 = add("ann", "2");
    Entry* ann1 = add("Ann", "1");
    Group* g = ab.group_create("G");
    expect(ab.group_add_member("g", bob), 1, "SUCCESS");
    expect(ab.group_add_member_to(g, ann2), 1, "SUCCESS");
    expect(ab.group_add_member("G", ann1), 1, "SUCCESS");
    expect(ab.group_add_member("G", ann1), 0, "ERROR:Contact is already int the group");
    expect(ab.group_add_member_to(g, bob), 0, "ERROR:Contact is already in  the group");
    expect(ab.group_add_member("G", nullptr), 0, "ERROR:Key Not Found");
    expect(ab.group_add_member_to(g, nullptr), 0, "ERROR:Key Not Found");
    expect(ab.group_add_member("H", bob), 0, "ERROR:Group name doesnot exist");
    expect(ab.group_add_member_to(nullptr, bob), 0, "ERROR:Group name doesnot exist");
    EXPECT_EQ(members(g), (V{"Ann/1", "ann/2", "Bob/2"}));
    EXPECT_EQ(g->last_member->member_entry, bob);
    EXPECT_EQ(g->member_count, 3u);
    expect(ab.group_add_contact("G", "Carl"), 0, "ERROR:Key Not Found");
    Entry* carl = add("Carl", "9");
    expect(ab.group_add_contact("G", "carl"), 1, "SUCCESS");
    EXPECT_EQ(g->last_member->member_entry, carl);

    reply.set("x");
    EXPECT_EQ(ab.group_remove_member(g, carl), "SUCCESS");
    EXPECT_EQ(reply.str(), "x");
    EXPECT_EQ(g->last_member->member_entry, bob);
    EXPECT_EQ(ab.group_remove_member(g, nullptr), "ERROR:Key is not Present");
    expect(ab.group_remove_member(nullptr, bob) == "ERROR:Group name doesnot exist", 1,
           "ERROR:Group name doesnot exist");
    EXPECT_EQ(ab.group_remove_member(g, bob), "SUCCESS");  // not ann/2, who has its number
    EXPECT_EQ(members(g), (V{"Ann/1", "ann/2"}));
    for (Entry* e : {ann2, ann1}) EXPECT_EQ(ab.group_remove_member(g, e), "SUCCESS");
    expect(ab.group_remove_member(g, bob) == "ERROR:Key is not Present", 1,
           "ERROR:Key is not Present");
    EXPECT_EQ(g->members, nullptr);
    EXPECT_EQ(g->last_member, nullptr);
    EXPECT_EQ(g->member_count, 0u);
    ab.group_append_member(g, nullptr);  // nothing to append
    ab.group_append_member(g, bob);      // the list end is right for appends
    EXPECT_EQ(members(g), V{"Bob/2"});
}

// A member page holds the ten members from START on (nine when START is 0,
// as members count from 1) and stops once it is two past the tenth.
TEST_F(Groups, MemberPagesAreTenMembersFromTheStart) {
    Group* g = ab.group_create("G");
    test::Capture none;
    EXPECT_EQ(ab.group_list_members_page(none.listing, g, 1), 0);
    for (int i = 10; i < 23; ++i) ab.group_add_member_to(g, add("m" + std::to_string(i)));
    const int pages[][4] = {{1, 10, 19, 11}, {0, 10, 18, 11}, {11, 20, 22, 2}};
    for (const auto& [start, first, last, counted] : pages) {
        test::Capture cap;
        EXPECT_EQ(ab.group_list_members_page(cap.listing, g, start), 1);
        std::string want;
        for (int i = first; i <= last; ++i) want += "16^|^m" + std::to_string(i) + "^|^1^|^^|^";
        EXPECT_EQ(cap.text(), want) << start;
        EXPECT_EQ(cap.listing.listed_count, counted) << start;
    }
}

TEST_F(Groups, RemovingAContactPurgesItFromEveryGroup) {
    // Two entries whose numbers differ only in case: purging one must leave
    // the other's membership alone.
    Entry* a = add("Ann", "abc");
    Entry* b = add("Ann", "ABC");
    Entry* c = add("Cy", "3");
    Group* g1 = ab.group_create("one");
    ab.group_add_member_to(g1, a);
    EXPECT_EQ(saved(), "1,^|^\n1,^|^\n^|^\n");  // a member stands for both letter cases
    Group* g2 = ab.group_create("two");
    for (Entry* e : {a, b, c}) {
        ab.group_add_member_to(g1, e);
        ab.group_add_member_to(g2, e);
    }
    ab.ab_delete_entry("ann", "abc");
    EXPECT_EQ(members(g1), (V{"Ann/ABC", "Cy/3"}));
    EXPECT_EQ(g2->member_count, 2u);
    ab.ab_delete_name("Cy");
    EXPECT_EQ(members(g2), V{"Ann/ABC"});
    EXPECT_EQ(g2->last_member->member_entry, b);
    EXPECT_EQ(g1->member_count, 1u);
    // A replacement takes the place; where the re-add fails the count
    // stays one too high.
    Entry* fresh = add("Anne", "5");
    ab.group_add_member_to(g2, fresh);
    ab.group_purge_entry(b, 1, fresh);
    EXPECT_EQ(members(g1), V{"Anne/5"});
    EXPECT_EQ(g1->member_count, 1u);
    EXPECT_EQ(members(g2), V{"Anne/5"});
    EXPECT_EQ(g2->member_count, 2u);
    ab.ab_delete_name("Anne");
    EXPECT_EQ(g1->last_member, nullptr);
}

TEST_F(Groups, RenameMovesTheMembers) {
    Entry* e = add("Ann");
    ab.group_add_member_to(ab.group_create("old"), e);
    ab.group_create("empty");
    expect(ab.group_rename("old", "Empty") != nullptr, 0,
           "ERROR:Group Already exists with the name");
    Group* renamed = ab.group_rename("OLD", "new");
    EXPECT_EQ(names(), (V{"empty", "new"}));
    EXPECT_EQ(members(renamed), V{"Ann/1"});
    EXPECT_EQ(renamed->last_member->member_entry, e);
}

TEST_F(Groups, MembershipScanWritesPositionsAndTurnsEachListOnce) {
    std::vector<Entry*> entries;
    for (int i = 0; i < 6; ++i) entries.push_back(add("p" + std::to_string(i), "7"));
    for (const char* n : {"z", "odd", "all", "none"}) ab.group_append_loaded(n);
    EXPECT_EQ(names(), (V{"z", "odd", "all", "none"}));
    for (int pos : {0, -1, 5, 99999, 65537, 1}) ab.group_add_by_position(pos, entries[0]);
    Group* odd = ab.first_group()->next.get();
    for (int i = 1; i < 6; i += 2) ab.group_append_member(odd, entries[static_cast<size_t>(i)]);
    ab.group_fill_all(odd->next.get());
    const std::string expected = "1,3,^|^\n2,3,^|^\n3,^|^\n2,3,^|^\n3,^|^\n2,3,^|^\n";
    V before = members(odd);
    EXPECT_EQ(memberships(), expected);
    EXPECT_EQ(saved(), expected);
    EXPECT_EQ(members(odd), before);
    EXPECT_EQ(odd->last_member->member_entry, entries[5]);
    // A duplicate appended in bulk: the match behind the first member moves
    // alone and nothing is lost.
    Group* z = ab.first_group();
    ab.group_append_member(z, entries[0]);
    ab.group_append_member(z, entries[1]);
    const std::string with_duplicate = "1,3,^|^\n1,2,3,^|^\n3,^|^\n2,3,^|^\n3,^|^\n2,3,^|^\n";
    EXPECT_EQ(saved(), with_duplicate);
    EXPECT_EQ(memberships(), with_duplicate);
    EXPECT_EQ(members(z), (V{"p0/7", "p0/7", "p1/7"}));
    EXPECT_EQ(z->member_count, 3u);
}
