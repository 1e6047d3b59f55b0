// CSV export and import: the exported bytes, the round trip, the column
// layout of the format file, quoting, and the uploads that are refused.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "addressbook/address_book.h"
#include "addressbook/csv.h"
#include "common/runtime.h"
#include "support/test_support.h"
#include "support/trie_shape.h"

using namespace smsgw;
using V = std::vector<std::string>;

namespace {

struct Csv : ::testing::Test {
    test::TempDir dir;
    Runtime rt{dir.path()};
    std::string upload = rt.path("/var/run/AddressBook.csv");
    std::string empty_marker = rt.path("/var/tmp/csv_empty_err");
    std::string blank_marker = rt.path("/var/tmp/csv_lsp_err");

    Csv() {
        test::write_file(rt.path("/var/tmp/.keep"), "");
        test::write_file(rt.path("/var/run/.keep"), "");
    }
    // The entries a fresh book holds after importing `content`.
    V import(const std::string& format, const std::string& content) {
        if (!format.empty()) test::write_file(rt.path("/var/run/csv_frmt.dat"), format);
        test::write_file(upload, content);
        ReplyBuffer reply;
        AddressBook ab(reply);
        csv_import(ab, rt, upload);
        return test::book_entries(ab);
    }
};

}  // namespace

TEST_F(Csv, ExportThenImportRestoresTheContacts) {
    ReplyBuffer reply;
    AddressBook ab(reply);
    ab.ab_insert("Ann Lee", "555", "office");
    ab.ab_insert("Bob", "777", "x\r\ny");
    ab.ab_insert("Cy Young", "+49 1", "");
    ab.ab_insert("Mary Ann Lee", "1", "\"quoted\"");
    // A link planted at the name is replaced, not written through.
    std::string path = rt.path("/var/run/QX_Address_Book.csv"), victim = dir / "victim";
    test::write_file(victim, "keep");
    ASSERT_EQ(::symlink(victim.c_str(), path.c_str()), 0);
    csv_export(ab, path);
    EXPECT_EQ(test::read_file(victim), "keep");
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
    // Odd format files never take a field past its room.
    for (const char* f : {"1\n1\n1\n1\n", "0\n0\n0\n0\n", "-5\n99999999\n7\n2\n", "abc\n\n\n",
                          "1234567890123\n2\n3\n4\n", "", "2147483647\n-2147483648\n1\n2\n"}) {
        ::unlink(empty_marker.c_str());
        for (const auto& e : import(f, "Ann,Lee,5,d\n\"x,y\",1,2,3,4,5,6\n"))
            EXPECT_LE(e.size(), 254u) << f;
    }
}

TEST_F(Csv, OneBadLineRefusesTheWholeUpload) {
    const std::pair<std::string, const char*> cases[] = {
        {"Ann,Lee,d,1\nBob,Lee,d,\nCy,,d,3\n", "/var/tmp/csv_empty_err"},
        {"Ann,Lee,d,1\n,Lee,d,2\n", "/var/tmp/csv_empty_err"},
        {"Ann,Lee,d,1\n\n", "/var/tmp/csv_empty_err"},
        {"Ann,Lee,d,1\n Bob,Lee,d,2\n", "/var/tmp/csv_lsp_err"},
        {"Ann,Lee,d, 1\n", "/var/tmp/csv_lsp_err"},
        {"Bob,\"un,closed,d,5\n", "/var/tmp/csv_empty_err"},  // the quote takes the number
    };
    for (const auto& [content, marker] : cases) {
        ::unlink(empty_marker.c_str());
        ::unlink(blank_marker.c_str());
        EXPECT_EQ(import("1\n2\n4\n3\n", content), V{}) << content;
        EXPECT_TRUE(test::exists(rt.path(marker))) << content;
        EXPECT_EQ(test::exists(empty_marker) + test::exists(blank_marker), 1) << content;
        EXPECT_EQ(test::read_file(upload), "");
    }
    // Repeated column numbers leave the number unfilled.
    ::unlink(empty_marker.c_str());
    EXPECT_EQ(import("1\n1\n2\n3\n", "Ann,5,d\n"), V{});
    EXPECT_TRUE(test::exists(empty_marker));
    // Without a format file nothing happens at all.
    ::unlink(rt.path("/var/run/csv_frmt.dat").c_str());
    EXPECT_EQ(import("", "Ann,Lee,d,1\n"), V{});
    EXPECT_EQ(test::read_file(upload), "Ann,Lee,d,1\n");
}
