#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "addressbook/address_book.h"
#include "addressbook/csv.h"
#include "common/runtime.h"
#include "support/test_support.h"

using namespace smsgw;

namespace {

struct Csv : ::testing::Test {
    test::TempDir dir;
    Runtime rt{dir.path()};
    ReplyBuffer reply;
    AddressBook ab{reply};
    std::string upload = rt.path("/var/run/AddressBook.csv");
    std::string empty_marker = rt.path("/var/tmp/csv_empty_err");
    std::string blank_marker = rt.path("/var/tmp/csv_lsp_err");

    void SetUp() override {
        test::write_file(rt.path("/var/tmp/.keep"), "");
        test::write_file(rt.path("/var/run/.keep"), "");
    }

    void format(const std::string& text) {
        test::write_file(rt.path("/var/run/csv_frmt.dat"), text);
    }

    void import(const std::string& content) {
        test::write_file(upload, content);
        csv_import(ab, rt, upload);
    }

    std::vector<std::string> entries() {
        std::vector<std::string> v;
        ab.ab_for_each_entry(
            [&](Entry& e) { v.push_back(e.name + "|" + e.number + "|" + e.description); });
        return v;
    }
};

}  // namespace

TEST_F(Csv, ExportWritesHeaderAndUnquotedFields) {
    ab.ab_insert("Ann Lee", "555", "a\nb");
    ab.ab_insert("Bob", "777", "x\r\ny");
    ab.ab_insert("Mary Ann Lee", "1", "has, comma");
    std::string path = rt.path("/var/run/QX_Address_Book.csv");
    csv_export(ab, path);
    EXPECT_EQ(test::read_file(path),
              "Firstname,Lastname,Description,Phone-Number\r\n"
              "Ann,Lee,a b,555\r\n"
              "Bob,,x  y,777\r\n"
              "Mary,Ann Lee,has, comma,1\r\n");
}

TEST_F(Csv, ReimportingAnExportRestoresTheContacts) {
    ab.ab_insert("Ann Lee", "555", "office");
    ab.ab_insert("Cy Young", "+49 1", "");
    std::string path = rt.path("/var/run/QX_Address_Book.csv");
    csv_export(ab, path);
    std::string text = test::read_file(path);
    ReplyBuffer r2;
    AddressBook fresh(r2);
    format("1\n2\n4\n3\n");
    test::write_file(upload, text);
    csv_import(fresh, rt, upload);
    std::vector<std::string> got;
    fresh.ab_for_each_entry(
        [&](Entry& e) { got.push_back(e.name + "|" + e.number + "|" + e.description); });
    EXPECT_EQ(got, (std::vector<std::string>{"Ann Lee|555|office", "Cy Young|+49 1|"}));
    EXPECT_FALSE(test::exists(empty_marker));
}

TEST_F(Csv, TheLineEndIsNotPartOfTheLastField) {
    format("1\n2\n4\n3\n");
    // A CR before the final LF belongs to the line end; any other final
    // character is not examined, so a line without LF loses its last one.
    import("Ann,Lee,d,555\r\nBob,,e,777\r\r\nCy,,f,999");
    EXPECT_EQ(entries(), (std::vector<std::string>{"Ann Lee|555|d", "Bob |777 |e", "Cy |99|f"}));
}

TEST_F(Csv, QuotedFields) {
    format("1\n2\n3\n4\n");
    import(
        "\"Lee, Ann\",x,\"12\"\"3\",\"say \"\"hi\"\"\"\n"
        "Cy,,9,\"ends quoted\"\n");
    // Quotes left inside fields become blanks on the way into the table.
    EXPECT_EQ(entries(),
              (std::vector<std::string>{"Cy |9|ends quoted", "Lee, Ann x|12 3|say  hi "}));
}

TEST_F(Csv, ColumnsFollowTheFormatFile) {
    struct Case {
        const char* format;
        const char* line;
        const char* want;  // "" when nothing is imported
    } cases[] = {
        {"1\n2\n3\n4\n", "Ann,Lee,123,desc\n", "Ann Lee|123|desc"},
        {"3\n1\n4\n2\n", "Lee,desc,Ann,123\n", "Ann |123|desc"},  // column 1 is dropped...
        {"2\n3\n1\n4\n", "123,Ann,Lee,desc\n", ""},               // ...even when it is the number
        {"1\n3\n5\n7\n", "Ann,x,Lee,y,42,z,d,w\n", "Ann Lee|42|d"},
        {"1\n2\n3\n", "Ann,Lee,7,d\n", ""},  // no description column: 0 sorts first
    };
    for (const auto& c : cases) {
        ReplyBuffer r;
        AddressBook book(r);
        format(c.format);
        test::write_file(upload, c.line);
        csv_import(book, rt, upload);
        std::string got;
        book.ab_for_each_entry(
            [&](Entry& e) { got = e.name + "|" + e.number + "|" + e.description; });
        EXPECT_EQ(got, c.want) << c.format;
    }
}

TEST_F(Csv, FirstNameOutsideColumnOneDropsColumnOne) {
    format("2\n1\n3\n4\n");
    import("Lee,Ann,5,d\n");
    EXPECT_EQ(entries(), std::vector<std::string>{"Ann |5|d"});
}

TEST_F(Csv, OneBadLineRejectsTheWholeUpload) {
    struct Case {
        std::string content;
        std::string marker;
    };
    const Case cases[] = {
        {"Ann,Lee,d,1\nBob,Lee,d,\nCy,,d,3\n", "/var/tmp/csv_empty_err"},
        {"Ann,Lee,d,1\n,Lee,d,2\n", "/var/tmp/csv_empty_err"},
        {"Ann,Lee,d,1\n\n", "/var/tmp/csv_empty_err"},
        {"Ann,Lee,d,1\n Bob,Lee,d,2\n", "/var/tmp/csv_lsp_err"},
        {"Ann,Lee,d, 1\n", "/var/tmp/csv_lsp_err"},
        // an unbalanced quote swallows the rest of the line, number included
        {"Bob,\"un,closed,d,5\n", "/var/tmp/csv_empty_err"},
    };
    format("1\n2\n4\n3\n");
    for (const auto& c : cases) {
        ::unlink(empty_marker.c_str());
        ::unlink(blank_marker.c_str());
        import(c.content);
        EXPECT_TRUE(test::exists(rt.path(c.marker))) << c.content;
        EXPECT_EQ(test::exists(empty_marker) + test::exists(blank_marker), 1) << c.content;
        EXPECT_TRUE(test::exists(upload));
        EXPECT_EQ(test::read_file(upload), "");
        EXPECT_EQ(ab.entry_count(), 0);
    }
}

TEST_F(Csv, HeaderAndNumbersWithoutDigitsAreSkipped) {
    format("1\n2\n4\n3\n");
    import("Firstname,Lastname,Description,Phone-Number\nAnn,Lee,d,none\nBob,B,d,x1\n");
    EXPECT_EQ(entries(), std::vector<std::string>{"Bob B|x1|d"});
    EXPECT_FALSE(test::exists(empty_marker));
}

TEST_F(Csv, MissingFormatFileImportsNothing) {
    import("Ann,Lee,d,1\n");
    EXPECT_EQ(ab.entry_count(), 0);
    EXPECT_EQ(test::read_file(upload), "Ann,Lee,d,1\n");
}

TEST_F(Csv, OversizedInputStaysWithinTheFieldLimits) {
    format("1\n2\n3\n4\n");
    import(std::string(300, 'f') + ",Lee," + std::string(100, '7') + ",d\n" +
           // cut at 1999 characters; the rest must not come back as a line
           // (it would have no number and reject the upload)
           "Ann,Lee,42," + std::string(3000, 'd') + "\n" +
           // an unbalanced quote keeps commas in the description
           "Cy,Z,43,\"" + std::string(2500, ',') + "\n");
    EXPECT_FALSE(test::exists(empty_marker));
    EXPECT_EQ(entries(), (std::vector<std::string>{
                             "Ann Lee|42|" + std::string(200, 'd'),
                             "Cy Z|43| " + std::string(199, ','),
                             std::string(49, 'f') + "|" + std::string(51, '7') + "|d",
                         }));
}

TEST_F(Csv, OddFormatFilesDoNotBreakTheParser) {
    const char* formats[] = {"1\n1\n1\n1\n",
                             "0\n0\n0\n0\n",
                             "-5\n99999999\n7\n2\n",
                             "abc\n\n\n",
                             "1234567890123\n2\n3\n4\n",
                             "",
                             "2147483647\n-2147483648\n1\n2\n"};
    for (const char* f : formats) {
        ReplyBuffer r;
        AddressBook book(r);
        format(f);
        test::write_file(upload, "Ann,Lee,5,d\n\"x,y\",1,2,3,4,5,6\n");
        csv_import(book, rt, upload);
        book.ab_for_each_entry([&](Entry& e) {
            EXPECT_LE(e.number.size(), 51u);
            EXPECT_LE(e.description.size(), 200u);
        });
        EXPECT_LE(book.entry_count(), 2) << f;
    }
    // Repeated numbers leave later fields unfilled: the number stays empty.
    ::unlink(empty_marker.c_str());
    format("1\n1\n2\n3\n");
    import("Ann,5,d\n");
    EXPECT_TRUE(test::exists(empty_marker));
}
