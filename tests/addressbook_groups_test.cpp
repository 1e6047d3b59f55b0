#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "addressbook/address_book.h"

using namespace smsgw;

namespace {

struct Groups : ::testing::Test {
    ReplyBuffer reply;
    AddressBook ab{reply};
    Listing out;

    Entry* add(const char* name, const char* number) {
        TrieNode* n = ab.ab_insert(name, number, "");
        EXPECT_NE(n, nullptr) << name;
        return n ? AddressBook::ab_find_number(n->entries.get(), number) : nullptr;
    }

    std::vector<std::string> names() {
        std::vector<std::string> v;
        for (Group* g = ab.first_group(); g; g = g->next.get()) v.push_back(g->group_name);
        return v;
    }

    static std::vector<std::string> members(const Group* g) {
        std::vector<std::string> v;
        for (GroupMember* m = g->members.get(); m; m = m->next.get())
            v.push_back(m->member_entry->name + "/" + m->member_entry->number);
        return v;
    }

    // Runs fn with list_output set to a temporary stream; returns its text.
    template <typename F>
    std::string capture(F fn) {
        FILE* f = std::tmpfile();
        out.output = f;
        fn(f);
        out.output = nullptr;
        std::fflush(f);
        std::rewind(f);
        std::string s;
        char buf[4096];
        size_t n;
        while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) s.append(buf, n);
        std::fclose(f);
        return s;
    }
};

}  // namespace

TEST_F(Groups, CreationKeepsNameOrderAndRefusesDuplicates) {
    ASSERT_NE(ab.group_create("b"), nullptr);
    ASSERT_NE(ab.group_create("A"), nullptr);
    ASSERT_NE(ab.group_create("c"), nullptr);
    ASSERT_NE(ab.group_create("team"), nullptr);
    EXPECT_EQ(names(), (std::vector<std::string>{"A", "b", "c", "team"}));

    reply.set("before");
    EXPECT_EQ(ab.group_create("Team"), nullptr);
    EXPECT_EQ(reply.str(), "ERROR:Group Already exists with the name");
    EXPECT_EQ(ab.group_count(), 4);
}

TEST_F(Groups, TheFiftyFirstGroupIsRefusedSilently) {
    char name[8];
    for (int i = 0; i < 50; ++i) {
        std::snprintf(name, sizeof name, "g%02d", i);
        ASSERT_NE(ab.group_create(name), nullptr);
    }
    reply.set("kept");
    EXPECT_EQ(ab.group_create("extra"), nullptr);
    EXPECT_EQ(reply.str(), "kept");
    EXPECT_EQ(ab.group_append_loaded("loaded"), 1);
    EXPECT_EQ(ab.group_count(), 50);
    EXPECT_EQ(names().size(), 50u);
}

TEST_F(Groups, FindAndDeleteTexts) {
    EXPECT_EQ(ab.group_find("x"), nullptr);
    EXPECT_EQ(reply.str(), "ERROR:Search is Insucessfull");
    EXPECT_EQ(ab.group_delete("x", 0), 0);
    EXPECT_EQ(reply.str(), "ERROR:No elements are there in group");

    ab.group_create("Friends");
    EXPECT_NE(ab.group_find("FRIENDS"), nullptr);
    EXPECT_EQ(reply.str(), "SUCCESS");
    EXPECT_EQ(ab.group_find("Friend"), nullptr);
    EXPECT_EQ(reply.str(), "ERROR:Search is Insucessfull");
    // The empty name finds the list head, which takes no members.
    Group* head = ab.group_find("");
    ASSERT_NE(head, nullptr);
    EXPECT_EQ(head->group_name, "");
    Entry* e = add("Ann", "1");
    EXPECT_EQ(ab.group_add_member("", e), 0);
    EXPECT_EQ(reply.str(), "ERROR:Group name doesnot exist");
    EXPECT_EQ(ab.group_delete("", 0), 0);
    EXPECT_EQ(reply.str(), "ERROR:Element Not Found in the Group");

    EXPECT_EQ(ab.group_delete("Foes", 0), 0);
    EXPECT_EQ(reply.str(), "ERROR:Element Not Found in the Group");
    EXPECT_EQ(ab.group_delete("friends", 0), 1);
    EXPECT_EQ(reply.str(), "SUCCESS");
    EXPECT_EQ(ab.group_count(), 0);
    EXPECT_EQ(ab.first_group(), nullptr);
}

TEST_F(Groups, MembersStaySortedAndDuplicatesAreRefused) {
    Entry* bob = add("Bob", "2");
    Entry* ann2 = add("ann", "2");
    Entry* ann1 = add("Ann", "1");
    Group* g = ab.group_create("G");
    EXPECT_EQ(ab.group_add_member("g", bob), 1);
    EXPECT_EQ(reply.str(), "SUCCESS");
    EXPECT_EQ(ab.group_add_member_to(g, ann2), 1);
    EXPECT_EQ(ab.group_add_member("G", ann1), 1);
    EXPECT_EQ(members(g), (std::vector<std::string>{"Ann/1", "ann/2", "Bob/2"}));
    EXPECT_EQ(g->last_member->member_entry, bob);
    EXPECT_EQ(g->member_count, 3u);

    EXPECT_EQ(ab.group_add_member("G", ann1), 0);
    EXPECT_EQ(reply.str(), "ERROR:Contact is already int the group");
    EXPECT_EQ(ab.group_add_member_to(g, bob), 0);
    EXPECT_EQ(reply.str(), "ERROR:Contact is already in  the group");
    EXPECT_EQ(ab.group_add_member("G", nullptr), 0);
    EXPECT_EQ(reply.str(), "ERROR:Key Not Found");
    EXPECT_EQ(ab.group_add_member("H", bob), 0);
    EXPECT_EQ(reply.str(), "ERROR:Group name doesnot exist");
    EXPECT_EQ(ab.group_add_member_to(nullptr, bob), 0);
    EXPECT_EQ(reply.str(), "ERROR:Group name doesnot exist");
    EXPECT_EQ(g->member_count, 3u);

    EXPECT_EQ(ab.group_add_contact("G", "Carl"), 0);
    add("Carl", "9");
    EXPECT_EQ(ab.group_add_contact("G", "carl"), 1);
    EXPECT_EQ(g->last_member->member_entry->name, "Carl");
}

TEST_F(Groups, RemoveMemberReturnsItsText) {
    Entry* a = add("Ann", "1");
    Entry* b = add("Bob", "2");
    Group* g = ab.group_create("G");
    ab.group_add_member_to(g, a);
    ab.group_add_member_to(g, b);
    reply.set("x");
    EXPECT_EQ(ab.group_remove_member(g, b), "SUCCESS");
    EXPECT_EQ(reply.str(), "x");
    EXPECT_EQ(g->last_member->member_entry, a);
    EXPECT_EQ(ab.group_remove_member(g, b), "ERROR:Key is not Present");
    EXPECT_EQ(ab.group_remove_member(g, nullptr), "ERROR:Key is not Present");
    EXPECT_EQ(ab.group_remove_member(nullptr, a), "ERROR:Group name doesnot exist");
    EXPECT_EQ(reply.str(), "ERROR:Group name doesnot exist");
    EXPECT_EQ(ab.group_remove_member(g, a), "SUCCESS");
    EXPECT_EQ(g->members, nullptr);
    EXPECT_EQ(g->last_member, nullptr);
    EXPECT_EQ(g->member_count, 0u);
    // The list end is kept right for the next append.
    ab.group_append_member(g, b);
    EXPECT_EQ(members(g), std::vector<std::string>{"Bob/2"});
}

TEST_F(Groups, DeletingAContactPurgesItFromEveryGroup) {
    Entry* a = add("Ann", "1");
    Entry* b = add("Ann", "2");
    Entry* c = add("Cy", "3");
    Group* g1 = ab.group_create("one");
    Group* g2 = ab.group_create("two");
    for (Entry* e : {a, b, c}) {
        ab.group_add_member_to(g1, e);
        ab.group_add_member_to(g2, e);
    }
    ab.ab_delete_entry("ann", "2");
    EXPECT_EQ(members(g1), (std::vector<std::string>{"Ann/1", "Cy/3"}));
    EXPECT_EQ(g2->member_count, 2u);
    ab.ab_delete_name("Cy");
    EXPECT_EQ(members(g2), std::vector<std::string>{"Ann/1"});
    EXPECT_EQ(g2->last_member->member_entry, a);
    EXPECT_EQ(g1->member_count, 1u);
    ab.ab_delete_entry("Ann", "1");
    EXPECT_EQ(g1->members, nullptr);
    EXPECT_EQ(g1->last_member, nullptr);
    EXPECT_EQ(g2->member_count, 0u);
}

TEST_F(Groups, PurgeMatchesTheEntryItselfNotALookAlike) {
    // Two entries whose numbers differ only in case: purging one must not
    // take the other's membership and leave its own behind.
    Entry* lower = add("Ann", "abc");
    Entry* upper = add("Ann", "ABC");
    Group* g = ab.group_create("G");
    ab.group_add_member_to(g, upper);
    ab.group_add_member_to(g, lower);
    ab.ab_delete_entry("Ann", "abc");
    ASSERT_EQ(members(g), std::vector<std::string>{"Ann/ABC"});
    EXPECT_EQ(g->members->member_entry, upper);
}

TEST_F(Groups, PurgeWithReplacementMovesTheMembership) {
    Entry* old_entry = add("Ann", "1");
    Entry* fresh = add("Anne", "5");
    Group* g1 = ab.group_create("one");
    Group* g2 = ab.group_create("two");
    ab.group_add_member_to(g1, old_entry);
    ab.group_add_member_to(g2, old_entry);
    ab.group_add_member_to(g2, fresh);  // the re-add will fail here
    ab.group_purge_entry(old_entry, 1, fresh);
    EXPECT_EQ(members(g1), std::vector<std::string>{"Anne/5"});
    EXPECT_EQ(g1->member_count, 1u);
    EXPECT_EQ(members(g2), std::vector<std::string>{"Anne/5"});
    EXPECT_EQ(g2->member_count, 2u);  // one too high: the failed re-add
}

TEST_F(Groups, ListPageEndsAtTheNextMultipleOfTen) {
    char name[8];
    for (int i = 1; i <= 12; ++i) {
        std::snprintf(name, sizeof name, "g%02d", i);
        ab.group_create(name);
    }
    struct {
        int start;
        const char* text;
    } cases[] = {
        {11, "g11\ng12\n"},
        {5, "g05\ng06\ng07\ng08\ng09\ng10\n"},
        {1, "g01\ng02\ng03\ng04\ng05\ng06\ng07\ng08\ng09\ng10\n"},
        {10, "g10\ng11\ng12\n"},  // 10 / 10 * 10 + 10 = 20
        {13, ""},
    };
    for (const auto& c : cases) {
        int r = 0;
        EXPECT_EQ(capture([&](FILE*) { r = ab.group_list_page(out, c.start); }), c.text) << c.start;
        EXPECT_EQ(r, 1);
    }
    ReplyBuffer r2;
    AddressBook empty(r2);
    EXPECT_EQ(empty.group_list_page(out, 1), 0);
}

TEST_F(Groups, MemberPagesUseTheContactRecord) {
    Group* g = ab.group_create("G");
    char name[8];
    for (int i = 1; i <= 23; ++i) {
        std::snprintf(name, sizeof name, "m%02d", i);
        ab.group_add_member_to(g, add(name, "1"));
    }
    std::string page =
        capture([&](FILE*) { EXPECT_EQ(ab.group_list_members_page(out, g, 11), 1); });
    std::string expected;
    for (int i = 11; i <= 20; ++i) {
        std::snprintf(name, sizeof name, "m%02d", i);
        expected += "16^|^" + std::string(name) + "^|^1^|^^|^";
    }
    EXPECT_EQ(page, expected);
    EXPECT_EQ(capture([&](FILE*) { ab.group_list_members_page(out, g, 21); }),
              "16^|^m21^|^1^|^^|^16^|^m22^|^1^|^^|^16^|^m23^|^1^|^^|^");
    Group* empty = ab.group_create("E");
    EXPECT_EQ(ab.group_list_members_page(out, empty, 1), 0);
}

TEST_F(Groups, SavingMembershipsTwiceWritesTheSameAndKeepsTheLists) {
    std::vector<Entry*> entries;
    char name[8];
    for (int i = 0; i < 6; ++i) {
        std::snprintf(name, sizeof name, "p%d", i);
        entries.push_back(add(name, "7"));
    }
    ab.group_append_loaded("odd");
    ab.group_append_loaded("all");
    ab.group_append_loaded("none");
    Group* odd = ab.first_group();
    Group* all = odd->next.get();
    for (int i = 1; i < 6; i += 2) ab.group_append_member(odd, entries[i]);
    ab.group_fill_all(all);
    auto save = [&] {
        return capture([&](FILE* f) {
            ab.ab_for_each_entry(
                [&](Entry& e) { ab.group_write_memberships(f, e.name, e.number); });
        });
    };
    const std::string expected = "2,^|^\n1,2,^|^\n2,^|^\n1,2,^|^\n2,^|^\n1,2,^|^\n";
    auto before_odd = members(odd);
    auto before_all = members(all);
    EXPECT_EQ(save(), expected);
    EXPECT_EQ(save(), expected);
    EXPECT_EQ(members(odd), before_odd);
    EXPECT_EQ(members(all), before_all);
    EXPECT_EQ(odd->last_member->member_entry, entries[5]);
}

TEST_F(Groups, AMatchBehindTheFirstMemberMovesAlone) {
    Entry* a = add("a", "1");
    Entry* b = add("b", "1");
    ab.group_append_loaded("G");
    Group* g = ab.first_group();
    // The bulk path appends without a duplicate check: a, a, b.
    ab.group_append_member(g, a);
    ab.group_append_member(g, a);
    ab.group_append_member(g, b);
    std::string text = capture([&](FILE* f) {
        ab.ab_for_each_entry([&](Entry& e) { ab.group_write_memberships(f, e.name, e.number); });
    });
    EXPECT_EQ(text, "1,^|^\n1,^|^\n");
    EXPECT_EQ(g->member_count, 3u);
    EXPECT_EQ(members(g), (std::vector<std::string>{"a/1", "a/1", "b/1"}));
    EXPECT_EQ(g->last_member->member_entry, b);
}

TEST_F(Groups, PositionsCountFromOneOverTheLoadedGroups) {
    Entry* e = add("Ann", "1");
    for (const char* n : {"z", "y", "x"}) ab.group_append_loaded(n);
    EXPECT_EQ(names(), (std::vector<std::string>{"z", "y", "x"}));
    for (int pos : {0, -1, 4, 99999, 65537, 2}) ab.group_add_by_position(pos, e);
    std::vector<uint32_t> counts;
    for (Group* g = ab.first_group(); g; g = g->next.get()) counts.push_back(g->member_count);
    EXPECT_EQ(counts, (std::vector<uint32_t>{0, 1, 0}));
}

TEST_F(Groups, DeleteWithKeepDetachesAGroupThatStillHasMembers) {
    Entry* e = add("Ann", "1");
    Group* old_group = ab.group_create("old");
    ab.group_add_member_to(old_group, e);
    ab.group_create("empty");
    EXPECT_EQ(ab.group_delete("empty", 1), 1);
    EXPECT_EQ(ab.group_delete("old", 1), 1);
    EXPECT_EQ(ab.group_count(), 0);
    EXPECT_EQ(ab.first_group(), nullptr);
    // The detached group's member list is still intact for the caller.
    EXPECT_EQ(old_group->member_count, 1u);
    EXPECT_EQ(old_group->members->member_entry, e);
    // Deleting the contact afterwards must not touch detached groups.
    EXPECT_EQ(ab.ab_delete_name("Ann"), 1);
}
