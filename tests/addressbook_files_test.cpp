// The address-book files: the bytes a save writes, what a load makes of
// every kind of line, a save that cannot write. CSV export and
// import: the exported bytes, the round trip, the column layout of the
// format file, quoting, and the uploads that are refused.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <tuple>
#include <vector>

#include "addressbook/address_book.h"
#include "addressbook/address_book_files.h"
#include "addressbook/csv.h"
#include "common/fileops.h"
#include "common/runtime.h"
#include "support/full_device.h"
#include "support/test_support.h"
#include "support/trie_shape.h"

using namespace smsgw;
using test::book_entries;
using test::members;
using V = std::vector<std::string>;

namespace {

struct Files : ::testing::Test {
    test::TempDir dir;
    Runtime rt{dir.path()};
    ReplyBuffer reply;
    const std::string book = rt.path("/var/AddressBook/Address_Book");
    const std::string groups = rt.path("/var/AddressBook/groups");
    const std::string upload = rt.path("/var/run/AddressBook.csv");
    const std::string empty_marker = rt.path("/var/tmp/csv_empty_err");
    const std::string blank_marker = rt.path("/var/tmp/csv_lsp_err");

    Files() {
        for (const char* d : {"/var/AddressBook", "/var/tmp", "/var/run"}) make_dirs(rt.path(d));
    }
    // Loads the two files into a fresh book.
    void load(AddressBook& ab, const std::string& contacts, const std::string& group_lines = "") {
        test::write_file(book, contacts);
        if (!group_lines.empty()) test::write_file(groups, group_lines);
        ab_load(ab, rt);
    }
    // The entries a fresh book holds after importing `content`.
    V import(const std::string& format, const std::string& content) {
        if (!format.empty()) test::write_file(rt.path("/var/run/csv_frmt.dat"), format);
        test::write_file(upload, content);
        AddressBook ab(reply);
        csv_import(ab, rt, upload);
        return test::book_entries(ab);
    }
};
using Csv = Files;

}  // namespace

TEST_F(Files, SaveWritesEachEntryWithItsGroupPositions) {
    AddressBook ab(reply);
    ab.ab_insert("Bob", "777", "");
    TrieNode* ann = ab.ab_insert("Ann Lee", "555123", "office");
    ab.ab_insert("carl", "1", "two\nlines");
    for (const char* g : {"c", "a", "b"}) ab.group_create(g);
    ab.group_add_member("a", ann->entries.get());
    ab.group_add_member("c", ann->entries.get());
    ab.group_add_contact("b", "CARL");
    test::write_file(groups, "stale\n");
    ASSERT_TRUE(ab_save(ab, rt));
    const std::string contacts =
        "Ann Lee^|^555123^|^office^|^1,3,^|^\n"
        "Bob^|^777^|^^|^^|^\n"
        "carl^|^1^|^two\nlines^|^2,^|^\n";
    EXPECT_EQ(test::read_file(book), contacts);
    EXPECT_EQ(test::read_file(groups), "a\nb\nc\n");
    EXPECT_EQ(test::tree_below(rt.path("/var/AddressBook")),
              (std::set<std::string>{"Address_Book", "groups"}));

    // No contacts: an empty contact file; no groups: the groups file stays.
    AddressBook empty(reply);
    ASSERT_TRUE(ab_save(empty, rt));
    EXPECT_EQ(test::read_file(book), "");
    EXPECT_EQ(test::read_file(groups), "a\nb\nc\n");
}

TEST_F(Files, ASaveThatCannotWriteFailsAndKeepsTheLastSave) {
    AddressBook small(reply), big(reply);
    small.ab_insert("Ann", "1", "");
    for (int i = 0; i < 3000; ++i) big.ab_insert("contact" + std::to_string(i), "1", "note");
    big.group_create(std::string(150000, 'g'));  // a groups file larger than the contacts
    test::write_file(book, "last good save\n");
    test::write_file(groups, "last groups\n");
    const std::pair<AddressBook*, rlim_t> cases[] = {
        {&small, 10},        // the write fails only when the stream is flushed
        {&big, 1000},        // a write fails while the contacts go out
        {&big, 120 * 1024},  // the contacts fit, the groups do not
    };
    for (const auto& [ab, limit] : cases) {
        {
            test::FullDevice full(limit);
            EXPECT_FALSE(ab_save(*ab, rt)) << limit;
        }
        EXPECT_EQ(test::read_file(groups), "last groups\n");
        if (limit != 120 * 1024) {
            EXPECT_EQ(test::read_file(book), "last good save\n");
        }
        EXPECT_EQ(test::tree_below(rt.path("/var/AddressBook")),
                  (std::set<std::string>{"Address_Book", "groups"}));
    }
    EXPECT_TRUE(ab_save(big, rt));
    EXPECT_EQ(test::read_file(groups).size(), 150001u);
    // No directory to write in.
    ::rename(rt.path("/var/AddressBook").c_str(), rt.path("/var/gone").c_str());
    EXPECT_FALSE(ab_save(small, rt));
}

TEST_F(Files, LoadKeepsTheGroupsFileOrderAndItsFirstFifty) {
    std::string lines = "zeta\n\nalpha\n" + std::string(60, 'g') + "\n";
    for (int i = 4; i <= 55; ++i) lines += "g" + std::to_string(i) + "\n";
    AddressBook ab(reply);
    load(ab, "Ann^|^1^|^^|^2,10,50,51,^|^\n\nBob^|^2^|^d^|^1,2,3,^|^\n", lines);
    V names;
    for (Group* g = ab.first_group(); g; g = g->next.get()) names.push_back(g->group_name);
    ASSERT_EQ(names.size(), 50u);
    EXPECT_EQ(V(names.begin(), names.begin() + 4),
              (V{"zeta", "alpha", std::string(51, 'g'), "g4"}));
    EXPECT_EQ(names.back(), "g50");
    Group* zeta = ab.first_group();
    Group* alpha = zeta->next.get();
    EXPECT_EQ(members(zeta), V{"Bob/2"});
    EXPECT_EQ(members(alpha), (V{"Ann/1", "Bob/2"}));
    Group* last = alpha;
    while (last->next) last = last->next.get();
    EXPECT_EQ(members(last), V{"Ann/1"});
    test::Capture saved;
    ASSERT_TRUE(ab_save_contacts(ab, saved.listing.output));
    EXPECT_EQ(saved.text(), "Ann^|^1^|^^|^2,10,50,^|^\nBob^|^2^|^d^|^1,2,3,^|^\n");
}

TEST_F(Files, LoadTakesWhatALineHoldsAndSkipsTheRest) {
    const std::string tail_with_separators = std::string(520, 'x') + "Evil^|^666^|^^|^^|^\n";
    const std::pair<std::string, V> cases[] = {
        {"Name only^|^\n", {}},
        {"^|^123^|^empty name^|^^|^\n", {}},
        {"Bob^|^777^|^no group field\n", {"Bob|777|no group field\n"}},
        // name and number lie in the first 499 bytes, else the line goes;
        // the rest of a line is never read as a line of its own
        {std::string(600, 'n') + "^|^1^|^^|^^|^\n", {}},
        {std::string(490, 'n') + "^|^1^|^^|^^|^\n", {std::string(51, 'n') + "|1|"}},
        {tail_with_separators, {}},
        {std::string(80, 'a') + "^|^" + std::string(80, '5') + "^|^" + std::string(300, 'd') +
             "^|^^|^\n",
         {std::string(51, 'a') + "|" + std::string(51, '5') + "|" + std::string(200, 'd')}},
        {"D^|^1^|^" + std::string(10000, 'd') + "^|^1,^|^\n", {"D|1|" + std::string(200, 'd')}},
        {std::string("Nul^|^1^|^a\0b^|^^|^\n", 20), {"Nul|1|a"}},  // a NUL ends its line
        {std::string("Nul^|^1\0^|^x^|^^|^\n", 19), {}},
        {"Open^|^5^|^never closed\nmore", {"Open|5|never closed\nmore"}},
        {"Ann^|^1^|^first^|^^|^\nANN^|^1^|^second^|^^|^\nAnn^|^2^|^^|^^|^\n",
         {"Ann|1|first", "Ann|2|"}},
        {"  Lead^|^ 1^|^ d^|^^|^\n", {"  Lead| 1| d"}},
    };
    for (const auto& [line, want] : cases) {
        AddressBook ab(reply);
        load(ab, line);
        EXPECT_EQ(book_entries(ab), want) << line.substr(0, 60);
        EXPECT_EQ(ab.entry_count(), static_cast<int>(want.size()));
    }
}

TEST_F(Files, GroupPositionsThatAreNotGroupsAreIgnored) {
    AddressBook ab(reply);
    load(ab,
         "A^|^1^|^^|^-1,99999999999,abc,0,3,,2^|^\n"
         "B^|^2^|^^|^1,1x,^|^\n"
         "C^|^3^|^^|^2,\n",
         "one\ntwo\n");
    EXPECT_EQ(members(ab.first_group()), (V{"B/2", "B/2"}));
    EXPECT_EQ(members(ab.first_group()->next.get()), V{"A/1"});
    EXPECT_EQ(ab.entry_count(), 3);
}

// The reader looks at lines where they lie in its 64 KiB blocks; a line
// that a block boundary cuts, at any byte, must load as if it were whole.
TEST_F(Files, LinesAcrossReadBlocksLoadWhole) {
    constexpr size_t kBlock = size_t{64} * 1024;
    const std::string targets =
        "Target^|^42^|^two\nlines^|^1,^|^\n" + std::string("Nul^|^7^|^a\0b^|^1,^|^\n", 22);
    for (size_t at = 0; at <= targets.size(); ++at) {
        std::string file;
        V want;
        for (int i = 0; file.size() < kBlock - at; ++i) {
            std::string name = "f" + std::to_string(100000 + i), number = std::to_string(i);
            size_t room = kBlock - at - file.size() - name.size() - number.size() - 13;
            std::string desc(room < 60 ? room : 30, 'd');
            file += name + "^|^" + number + "^|^" + desc + "^|^^|^\n";
            want.push_back(name + "|" + number + "|" + desc);
        }
        ASSERT_EQ(file.size(), kBlock - at);
        want.insert(want.end(), {"Nul|7|a", "Target|42|two\nlines"});
        AddressBook ab(reply);
        load(ab, file + targets, "g\n");
        ASSERT_EQ(book_entries(ab), want) << "boundary at byte " << at;
        EXPECT_EQ(members(ab.first_group()), V{"Target/42"});
    }
}

// A save stages both files and commits by renaming the contacts in place; a
// power cut anywhere in it leaves one complete save for the next start.
TEST_F(Files, AStartAfterAnInterruptedSaveLoadsOneCompleteSave) {
    const std::pair<std::string, std::string> before = {"Ann^|^555^|^^|^1,^|^\n", "a\n"};
    const std::pair<std::string, std::string> after = {"Ann^|^555^|^^|^1,2,^|^\n", "a\nb\n"};
    const std::string none = "<none>";
    struct Case {
        const char* what;
        std::string book, groups, staged_book, staged_groups;
        std::pair<std::string, std::string> expect;
    };
    const Case cases[] = {
        {"cut while staging the contacts", before.first, before.second, after.first, none, before},
        {"cut before the commit", before.first, before.second, after.first, after.second, before},
        {"cut after the commit", after.first, before.second, none, after.second, after},
        {"complete", after.first, after.second, none, none, after},
    };
    const std::string staged_book = rt.path("/var/AddressBook/.Address_Book.new");
    const std::string staged_groups = rt.path("/var/AddressBook/.groups.new");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        test::write_file(book, c.book);
        test::write_file(groups, c.groups);
        for (const auto& [path, bytes] :
             {std::pair{staged_book, c.staged_book}, std::pair{staged_groups, c.staged_groups}}) {
            if (bytes == none)
                remove_file(path);
            else
                test::write_file(path, bytes);
        }
        AddressBook ab(reply);
        ab_load(ab, rt);
        ASSERT_TRUE(ab_save(ab, rt));
        EXPECT_EQ(std::make_pair(test::read_file(book), test::read_file(groups)), c.expect);
        EXPECT_FALSE(test::exists(staged_book) || test::exists(staged_groups));
    }
}

TEST_F(Csv, ExportThenImportRestoresTheContacts) {
    AddressBook ab(reply);
    ab.ab_insert("Ann Lee", "555", "office");
    ab.ab_insert("Bob", "777", "x\r\ny");
    ab.ab_insert("Cy Young", "+49 1", "");
    ab.ab_insert("Mary Ann Lee", "1", "\"quoted\"");
    const std::string path = rt.path("/var/run/QX_Address_Book.csv");
    csv_export(ab, path);
    std::string text = test::read_file(path);
    EXPECT_EQ(text,
              "Firstname,Lastname,Description,Phone-Number\r\n"
              "Ann,Lee,office,555\r\n"
              "Bob,,x  y,777\r\n"
              "Cy,Young,,+49 1\r\n"
              "Mary,Ann Lee,\"quoted\",1\r\n");
    // The header is skipped ("Phone-Number" holds no digit).
    EXPECT_EQ(import("1\n2\n4\n3\n", text), (V{"Ann Lee|555|office", "Bob |777|x  y",
                                               "Cy Young|+49 1|", "Mary Ann Lee|1|quoted"}));
    EXPECT_FALSE(test::exists(empty_marker));
}

TEST_F(Csv, LinesAndColumnsFollowTheFormatFile) {
    struct Case {
        const char* format;
        std::string lines;
        V want;
    } cases[] = {
        {"1\n2\n3\n4\n", "Ann,Lee,123,desc\n", {"Ann Lee|123|desc"}},
        {"3\n1\n4\n2\n", "Lee,desc,Ann,123\n", {"Ann |123|desc"}},  // column 1 is dropped...
        {"2\n3\n1\n4\n", "123,Ann,Lee,desc\n", {}},                 // ...even the number
        {"2\n1\n3\n4\n", "Lee,Ann,5,d\n", {"Ann |5|d"}},
        {"1\n3\n5\n7\n", "Ann,x,Lee,y,42,z,d,w\n", {"Ann Lee|42|d"}},
        {"1\n2\n3\n", "Ann,Lee,7,d\n", {}},  // no description column: 0 sorts first
        // a CR before the final LF ends the line; any other final byte is
        // not examined, so a line without LF loses its last character
        {"1\n2\n4\n3\n",
         "Ann,Lee,d,555\r\nBob,,e,777\r\r\nCy,,f,999",
         {"Ann Lee|555|d", "Bob |777 |e", "Cy |99|f"}},
        // quotes: commas inside, doubled quotes, a closing quote at the end
        {"1\n2\n3\n4\n",
         "\"Lee, Ann\",x,\"12\"\"3\",\"say \"\"hi\"\"\"\nCy,,9,\"ends quoted\"\r\n",
         {"Cy |9|ends quoted", "Lee, Ann x|12 3|say  hi "}},
        // fields are held to their room; a long line's rest is no line
        {"1\n2\n3\n4\n",
         std::string(300, 'f') + ",Lee," + std::string(100, '7') + ",d\nAnn,Lee,42," +
             std::string(3000, 'd') + "\nCy,Z,43,\"" + std::string(2500, ',') + "\n",
         {"Ann Lee|42|" + std::string(200, 'd'), "Cy Z|43| " + std::string(199, ','),
          std::string(49, 'f') + "|" + std::string(51, '7') + "|d"}},
        {"1\n2\n4\n3\n", "Ann,Lee,d,none\nBob,B,d,x1\n", {"Bob B|x1|d"}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(import(c.format, c.lines), c.want) << c.format << c.lines.substr(0, 30);
}

TEST_F(Csv, OneBadLineRefusesTheWholeUpload) {
    const std::string format = "1\n2\n4\n3\n";
    const std::tuple<std::string, std::string, bool> cases[] = {
        // the blank marker or the empty
        {format, "Ann,Lee,d,1\nBob,Lee,d,\nCy,,d,3\n", false},
        {format, "Ann,Lee,d,1\n,Lee,d,2\n", false},
        {format, "Ann,Lee,d,1\n\n", false},
        {format, "Ann,Lee,d,1\n Bob,Lee,d,2\n", true},
        {format, "Ann,Lee,d, 1\n", true},
        {format, "Bob,\"un,closed,d,5\n", false},  // the quote takes the number
        {"1\n1\n2\n3\n", "Ann,5,d\n", false},      // repeated columns: no number
    };
    for (const auto& [columns, content, blank] : cases) {
        ::unlink(empty_marker.c_str());
        ::unlink(blank_marker.c_str());
        EXPECT_EQ(import(columns, content), V{}) << content;
        EXPECT_EQ(test::exists(empty_marker), !blank) << content;
        EXPECT_EQ(test::exists(blank_marker), blank) << content;
        EXPECT_EQ(test::read_file(upload), "");
    }
    // Without a format file nothing happens at all.
    ::unlink(rt.path("/var/run/csv_frmt.dat").c_str());
    EXPECT_EQ(import("", "Ann,Lee,d,1\n"), V{});
    EXPECT_EQ(test::read_file(upload), "Ann,Lee,d,1\n");
}
