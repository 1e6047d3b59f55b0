#include <gtest/gtest.h>

#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "addressbook/address_book.h"
#include "addressbook/address_book_files.h"
#include "common/fileops.h"
#include "common/runtime.h"
#include "support/test_support.h"

using namespace smsgw;

namespace {

struct Files : ::testing::Test {
    test::TempDir dir;
    Runtime rt{dir.path()};
    ReplyBuffer reply;

    std::string book_path() { return rt.path("/var/AddressBook/Address_Book"); }
    std::string groups_path() { return rt.path("/var/AddressBook/groups"); }

    void seed(const std::string& contacts, const std::string& groups) {
        test::write_file(book_path(), contacts);
        if (!groups.empty()) test::write_file(groups_path(), groups);
    }

    // What "save-address-book" writes, as text.
    std::pair<std::string, std::string> save(AddressBook& ab) {
        make_dirs(rt.path("/var/AddressBook"));
        {
            FilePtr f = open_file(book_path(), "w");
            if (ab.entry_count() != 0) ab_save_contacts(ab, f.get());
        }
        if (ab.group_count() != 0) ab_save_groups(ab, rt);
        return {test::read_file(book_path()), test::read_file(groups_path())};
    }

    static std::vector<std::string> entries(AddressBook& ab) {
        std::vector<std::string> v;
        ab.ab_for_each_entry(
            [&](Entry& e) { v.push_back(e.name + "|" + e.number + "|" + e.description); });
        return v;
    }

    static std::vector<std::string> members(Group* g) {
        std::vector<std::string> v;
        for (GroupMember* m = g->members.get(); m; m = m->next.get())
            v.push_back(m->member_entry->name + "/" + m->member_entry->number);
        return v;
    }
};

}  // namespace

TEST_F(Files, SaveWritesTheExactLinesAndGroupPositions) {
    AddressBook ab(reply);
    ab.ab_insert("Bob", "777", "");
    TrieNode* ann = ab.ab_insert("Ann Lee", "555123", "office");
    ab.ab_insert("carl", "1", "two\nlines");
    for (const char* g : {"c", "a", "b"}) ab.group_create(g);
    Entry* e = ann->entries.get();
    ab.group_add_member("a", e);
    ab.group_add_member("c", e);
    ab.group_add_member("b", ab.ab_find("carl")->entries.get());
    auto [contacts, groups] = save(ab);
    EXPECT_EQ(contacts,
              "Ann Lee^|^555123^|^office^|^1,3,^|^\n"
              "Bob^|^777^|^^|^^|^\n"
              "carl^|^1^|^two\nlines^|^2,^|^\n");
    EXPECT_EQ(groups, "a\nb\nc\n");
}

TEST_F(Files, SaveLoadSaveGivesTheSameBytes) {
    std::string first_contacts, first_groups;
    {
        AddressBook ab(reply);
        const char* names[] = {"Zoe", "anna", "Ann", "ANNE", "Bo", "Bob", "b"};
        int i = 0;
        for (const char* n : names) {
            std::string num = std::to_string(100 + i);
            ab.ab_insert(n, num, i % 3 == 0 ? "multi\nline\n\ndesc" : "plain");
            ab.ab_insert(n, "9" + num, "");
            ++i;
        }
        for (const char* g : {"Family", "work", "all", "Empty"}) ab.group_create(g);
        ab.group_fill_all(ab.group_find("all"));
        ab.group_add_contact("work", "bob");
        ab.group_add_contact("work", "ann");
        ab.group_add_contact("family", "zoe");
        std::tie(first_contacts, first_groups) = save(ab);
        // A second save in the same run writes the same (member lists are
        // turned once around and come back as they were).
        EXPECT_EQ(save(ab).first, first_contacts);
    }
    test::write_file(rt.path("/var/run/init_address_book"), "");
    test::write_file(rt.path("/var/AddressBook/leftover"), "x");
    AddressBook loaded(reply);
    ab_load(loaded, rt);
    EXPECT_EQ(loaded.entry_count(), 14);
    EXPECT_EQ(loaded.group_count(), 4);
    EXPECT_EQ(loaded.ab_find("ANNE")->entries->description, "multi\nline\n\ndesc");
    EXPECT_FALSE(test::exists(book_path()));
    EXPECT_FALSE(test::exists(groups_path()));
    EXPECT_FALSE(test::exists(rt.path("/var/AddressBook/leftover")));
    EXPECT_TRUE(test::exists(rt.path("/var/AddressBook")));
    EXPECT_FALSE(test::exists(rt.path("/var/run/init_address_book")));
    auto [contacts, groups] = save(loaded);
    EXPECT_EQ(contacts, first_contacts);
    EXPECT_EQ(groups, first_groups);
}

TEST_F(Files, LoadKeepsFileOrderOfGroupsAndSkipsBlankLines) {
    seed("Ann^|^1^|^^|^2,^|^\n\nBob^|^2^|^d^|^1,2,3,^|^\n",
         "zeta\n\nalpha\n" + std::string(60, 'g') + "\n");
    AddressBook ab(reply);
    ab_load(ab, rt);
    std::vector<std::string> names;
    for (Group* g = ab.first_group(); g; g = g->next.get()) names.push_back(g->group_name);
    EXPECT_EQ(names, (std::vector<std::string>{"zeta", "alpha", std::string(51, 'g')}));
    Group* zeta = ab.first_group();
    Group* alpha = zeta->next.get();
    EXPECT_EQ(members(zeta), std::vector<std::string>{"Bob/2"});
    EXPECT_EQ(members(alpha), (std::vector<std::string>{"Ann/1", "Bob/2"}));
    EXPECT_EQ(alpha->member_count, 2u);
}

TEST_F(Files, MoreThanFiftyGroupLinesKeepTheFirstFifty) {
    std::string groups;
    for (int i = 1; i <= 55; ++i) groups += "g" + std::to_string(i) + "\n";
    seed("Ann^|^1^|^^|^50,51,^|^\n", groups);
    AddressBook ab(reply);
    ab_load(ab, rt);
    EXPECT_EQ(ab.group_count(), 50);
    Group* last = ab.first_group();
    while (last->next) last = last->next.get();
    EXPECT_EQ(last->group_name, "g50");
    EXPECT_EQ(last->member_count, 1u);
}

TEST_F(Files, BadLinesAreSkippedWithoutHarm) {
    const std::string long_name(600, 'n');
    const std::string tail_with_separators = std::string(520, 'x') + "Evil^|^666^|^^|^^|^\n";
    struct Case {
        std::string line;
        std::vector<std::string> want;  // entries after loading it
    };
    const Case cases[] = {
        {"NoSeparators\n", {}},
        {"Name only^|^\n", {}},
        {"^|^123^|^empty name^|^^|^\n", {}},
        {"Bob^|^777^|^^|^^|^\n", {"Bob|777|"}},
        {"Bob^|^777^|^no group field\n", {"Bob|777|no group field\n"}},
        // the name and number must lie in the first 499 bytes; the rest of
        // the line is not read as a line of its own
        {long_name + "^|^1^|^^|^^|^\n", {}},
        {tail_with_separators, {}},
        // fields past the reader limits are cut, not overrun
        {std::string(80, 'a') + "^|^" + std::string(80, '5') + "^|^" + std::string(300, 'd') +
             "^|^^|^\n",
         {std::string(51, 'a') + "|" + std::string(51, '5') + "|" + std::string(200, 'd')}},
        {"Desc^|^1^|^" + std::string(10000, 'd') + "^|^1,^|^\n",
         {"Desc|1|" + std::string(200, 'd')}},
        {std::string(10000, 'z') + "\n", {}},
        // a NUL ends the line's text
        {std::string("Nul^|^1^|^a\0b^|^^|^\n", 20), {"Nul|1|a"}},
        {std::string("Nul^|^1\0^|^x^|^^|^\n", 19), {}},
        // the description runs to the end of the file
        {"Open^|^5^|^never closed\nmore", {"Open|5|never closed\nmore"}},
    };
    for (const auto& c : cases) {
        seed(c.line, "");
        AddressBook ab(reply);
        ab_load(ab, rt);
        EXPECT_EQ(entries(ab), c.want) << c.line.substr(0, 60);
        EXPECT_EQ(ab.entry_count(), static_cast<int>(c.want.size()));
    }
}

// The reader looks at lines where they lie in its 64 KiB blocks; a line
// that a block boundary cuts, at any byte, must load as if it were whole.
TEST_F(Files, LinesAcrossReadBlocksLoadWhole) {
    constexpr size_t kBlock = size_t{64} * 1024;
    // A description over two lines, then a NUL that ends its line's text
    // (so that description runs to the end of the file).
    const std::string targets =
        "Target^|^42^|^two\nlines^|^1,^|^\n" + std::string("Nul^|^7^|^a\0b^|^1,^|^\n", 22);
    for (size_t at = 0; at <= targets.size(); ++at) {
        std::string file;
        std::vector<std::string> want;
        for (int i = 0; file.size() < kBlock - at; ++i) {
            std::string head = "f" + std::to_string(100000 + i) + "^|^" + std::to_string(i) + "^|^";
            size_t room = kBlock - at - file.size() - head.size() - 7;  // "^|^^|^\n"
            std::string desc(room < 60 ? room : 30, 'd');
            file += head + desc + "^|^^|^\n";
            want.push_back("f" + std::to_string(100000 + i) + "|" + std::to_string(i) + "|" + desc);
        }
        ASSERT_EQ(file.size(), kBlock - at);
        file += targets;
        want.push_back("Nul|7|a");
        want.push_back("Target|42|two\nlines");
        seed(file, "g\n");
        AddressBook ab(reply);
        ab_load(ab, rt);
        ASSERT_EQ(entries(ab), want) << "boundary at byte " << at;
        EXPECT_EQ(members(ab.first_group()), std::vector<std::string>{"Target/42"});
    }
}

TEST_F(Files, GroupPositionsThatAreNotGroupsAreIgnored) {
    seed(
        "A^|^1^|^^|^-1,99999999999,abc,0,7,,2^|^\n"
        "B^|^2^|^^|^1,1x,^|^\n"
        "C^|^3^|^^|^2,\n",
        "one\ntwo\n");
    AddressBook ab(reply);
    ab_load(ab, rt);
    Group* one = ab.first_group();
    Group* two = one->next.get();
    EXPECT_EQ(members(one), (std::vector<std::string>{"B/2", "B/2"}));
    EXPECT_EQ(members(two), std::vector<std::string>{"A/1"});
    EXPECT_EQ(ab.entry_count(), 3);
}

TEST_F(Files, DuplicateLinesLoadOnce) {
    seed("Ann^|^1^|^first^|^1,^|^\nANN^|^1^|^second^|^1,^|^\nAnn^|^2^|^third^|^^|^\n", "g\n");
    AddressBook ab(reply);
    ab_load(ab, rt);
    EXPECT_EQ(entries(ab), (std::vector<std::string>{"Ann|1|first", "Ann|2|third"}));
    EXPECT_EQ(ab.first_group()->member_count, 1u);
}

TEST_F(Files, MissingFilesLeaveAnEmptyBook) {
    AddressBook ab(reply);
    test::write_file(rt.path("/var/run/init_address_book"), "");
    ab_load(ab, rt);
    EXPECT_EQ(ab.entry_count(), 0);
    EXPECT_EQ(ab.group_count(), 0);
    EXPECT_FALSE(test::exists(rt.path("/var/run/init_address_book")));
}

// The contact file's group positions must be what one group_write_memberships
// call per entry, in table order, finds and leaves behind, also for member
// lists out of table order (bulk appends, duplicates).
TEST_F(Files, SaveAgreesWithPerEntryMembershipScan) {
    std::mt19937 rng(99);
    for (int round = 0; round < 40; ++round) {
        ReplyBuffer r1, r2;
        AddressBook fast(r1), slow(r2);
        std::vector<std::pair<std::string, std::string>> contacts;
        int count = 5 + static_cast<int>(rng() % 40);
        for (int i = 0; i < count; ++i) {
            std::string name(1 + rng() % 3, 'a');
            for (char& c : name) c = "aAbB"[rng() % 4];
            std::string number = std::string(1, "xX1"[rng() % 3]) + std::to_string(rng() % 4);
            contacts.emplace_back(name, number);
        }
        // Now and then every group there may be: positions of two digits.
        const int group_total = round % 5 == 4 ? AddressBook::MAX_GROUPS : 4;
        for (auto* ab : {&fast, &slow}) {
            std::vector<Entry*> entries;
            for (auto& [n, num] : contacts)
                if (TrieNode* node = ab->ab_insert(n, num, "d"))
                    entries.push_back(AddressBook::ab_find_number(node->entries.get(), num));
            for (int g = 0; g < group_total; ++g) ab->group_append_loaded("g" + std::to_string(g));
            std::mt19937 same(static_cast<unsigned>(round));  // same lists in both books
            int gi = 0;
            for (Group* g = ab->first_group(); g; g = g->next.get(), ++gi) {
                if (gi == 0) ab->group_fill_all(g);
                size_t k = same() % (entries.size() + 1);
                for (size_t j = 0; j < k; ++j) {
                    Entry* e = entries[same() % entries.size()];
                    if (gi == 1)
                        ab->group_add_member_to(g, e);  // sorted
                    else
                        ab->group_append_member(g, e);  // any order, duplicates
                }
            }
        }
        for (int save_no = 0; save_no < 3; ++save_no) {
            FILE* f = std::tmpfile();
            ab_save_contacts(fast, f);
            std::string got;
            std::rewind(f);
            for (int c; (c = std::fgetc(f)) != EOF;) got += static_cast<char>(c);
            std::fclose(f);
            std::string want;
            FILE* w = std::tmpfile();
            slow.ab_for_each_entry([&](Entry& e) {
                std::fprintf(w, "%s^|^%s^|^%s^|^", e.name.c_str(), e.number.c_str(),
                             e.description.c_str());
                slow.group_write_memberships(w, e.name, e.number);
            });
            std::rewind(w);
            for (int c; (c = std::fgetc(w)) != EOF;) want += static_cast<char>(c);
            std::fclose(w);
            ASSERT_EQ(got, want) << "round " << round << " save " << save_no;
            Group* a = fast.first_group();
            Group* b = slow.first_group();
            for (; a && b; a = a->next.get(), b = b->next.get()) {
                std::vector<std::string> ma, mb;
                for (auto m = a->members.get(); m; m = m->next.get())
                    ma.push_back(m->member_entry->name + "/" + m->member_entry->number);
                for (auto m = b->members.get(); m; m = m->next.get())
                    mb.push_back(m->member_entry->name + "/" + m->member_entry->number);
                ASSERT_EQ(ma, mb) << "round " << round;
                ASSERT_EQ(a->last_member == nullptr, b->last_member == nullptr);
                if (a->last_member) {
                    ASSERT_EQ(a->last_member->member_entry->number,
                              b->last_member->member_entry->number);
                }
            }
        }
    }
}
