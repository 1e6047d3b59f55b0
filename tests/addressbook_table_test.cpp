#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "addressbook/address_book.h"
#include "support/trie_shape.h"

using namespace smsgw;

namespace {

std::string shape(AddressBook& ab) {
    return test::trie_shape(ab);
}

std::vector<std::string> listing(AddressBook& ab) {
    std::vector<std::string> v;
    ab.ab_for_each_entry([&](Entry& e) { v.push_back(e.name + "/" + e.number); });
    return v;
}

// Captures what a listing writes to list_output.
class Capture {
  public:
    explicit Capture(AddressBook& ab) : ab_(ab), f_(std::tmpfile()) { l.output = f_; }
    Listing l;
    ~Capture() {
        (void)ab_;
        std::fclose(f_);
    }
    std::string text() {
        std::fflush(f_);
        std::rewind(f_);
        std::string s;
        char buf[4096];
        size_t n;
        while ((n = std::fread(buf, 1, sizeof buf, f_)) > 0) s.append(buf, n);
        return s;
    }

  private:
    AddressBook& ab_;
    FILE* f_;
};

struct Fixture : ::testing::Test {
    ReplyBuffer reply;
    AddressBook ab{reply};
};

using ContactTable = Fixture;

}  // namespace

TEST_F(ContactTable, SplitsKeepTheTreeShapeAndOrder) {
    struct Step {
        const char* name;
        const char* number;
        const char* shape;
    };
    const Step steps[] = {
        {"Anna", "1", "Anna[1]"},
        {"Ann", "2", "Ann[2]{a[1]}"},                // new name is a prefix of the label
        {"Anne", "3", "Ann[2]{a[1] e[3]}"},          // label exhausted, child appended
        {"Anja", "4", "An{ja[4] n[2]{a[1] e[3]}}"},  // parts inside the label, B first
        {"Bob", "5", "An{ja[4] n[2]{a[1] e[3]}} Bob[5]"},
        {"al", "6", "A{l[6] n{ja[4] n[2]{a[1] e[3]}}} Bob[5]"},  // splits "An" at "A"
        {"Aaron", "7", "A{aron[7] l[6] n{ja[4] n[2]{a[1] e[3]}}} Bob[5]"},
        {"0", "8", "0[8] A{aron[7] l[6] n{ja[4] n[2]{a[1] e[3]}}} Bob[5]"},
        {"Zed", "9", "0[8] A{aron[7] l[6] n{ja[4] n[2]{a[1] e[3]}}} Bob[5] Zed[9]"},
    };
    for (const auto& s : steps) {
        ASSERT_NE(ab.ab_insert(s.name, s.number, ""), nullptr) << s.name;
        EXPECT_EQ(reply.str(), "SUCCESS");
        EXPECT_EQ(shape(ab), s.shape) << "after " << s.name;
    }
    EXPECT_EQ(ab.entry_count(), 9);
    EXPECT_EQ(listing(ab), (std::vector<std::string>{"0/8", "Aaron/7", "al/6", "Anja/4", "Ann/2",
                                                     "Anna/1", "Anne/3", "Bob/5", "Zed/9"}));
}

TEST_F(ContactTable, OneNameHoldsSeveralNumbersInByteOrder) {
    ab.ab_insert("John Smith", "555", "a");
    TrieNode* n = ab.ab_insert("JOHN SMITH", "1234", "b");
    ASSERT_NE(n, nullptr);
    ab.ab_insert("john smith", "6", "c");
    EXPECT_EQ(shape(ab), "John Smith[1234,555,6]");
    EXPECT_EQ(n->entries->name, "JOHN SMITH");
    EXPECT_EQ(n->entries->next->name, "John Smith");

    // Same number under any spelling of the name is a duplicate.
    EXPECT_EQ(ab.ab_insert("jOhN sMiTh", "555", "x"), nullptr);
    EXPECT_EQ(reply.str(), "ERROR:Rejected - Duplicate Entry");
    EXPECT_EQ(ab.entry_count(), 3);
    EXPECT_EQ(AddressBook::ab_find_number(n->entries.get(), "555")->description, "a");
    EXPECT_EQ(AddressBook::ab_find_number(n->entries.get(), "55"), nullptr);
}

TEST_F(ContactTable, FindMatchesWholeNamesIgnoringCase) {
    ab.ab_insert("Anna", "1", "");
    ab.ab_insert("Anne", "2", "");
    struct {
        const char* name;
        bool found;
    } cases[] = {{"anna", true}, {"ANNE", true},   {"Ann", false},  // inner node
                 {"An", false},  {"Annab", false}, {"Bob", false}, {"", false}};
    for (const auto& c : cases) {
        reply.set("x");
        TrieNode* n = ab.ab_find(c.name);
        EXPECT_EQ(n != nullptr, c.found) << c.name;
        EXPECT_EQ(reply.str(), c.found ? "SUCCESS" : "ERROR:Key Not Found") << c.name;
    }
}

TEST_F(ContactTable, LimitRefusesTheInsertionAfterTwentyThousand) {
    char name[32];
    for (int i = 0; i < AddressBook::MAX_ELEMENTS; ++i) {
        std::snprintf(name, sizeof name, "n%05d", i);
        ASSERT_NE(ab.ab_insert(name, "1", ""), nullptr);
    }
    EXPECT_EQ(ab.entry_count(), 20000);
    EXPECT_EQ(ab.ab_insert("new", "2", ""), nullptr);
    EXPECT_EQ(reply.str(), "Exceeded MAX Limit");
    EXPECT_EQ(ab.ab_insert("n00001", "3", ""), nullptr);
    EXPECT_EQ(ab.entry_count(), 20000);
    EXPECT_EQ(ab.ab_find("new"), nullptr);
    // One deletion makes room again.
    EXPECT_EQ(ab.ab_delete_name("n00000"), 1);
    EXPECT_NE(ab.ab_insert("new", "2", ""), nullptr);
}

TEST_F(ContactTable, DeletingAMissingNumberStillLowersTheCount) {
    ab.ab_insert("Ann", "1", "");
    ab.ab_insert("Bob", "2", "");
    ab.ab_insert("Bob", "3", "");
    std::string before = shape(ab);
    reply.set("untouched");
    EXPECT_EQ(ab.ab_delete_entry("Ann", "9"), 1);  // single entry, other number
    EXPECT_EQ(ab.ab_delete_entry("bob", "9"), 1);  // several entries
    EXPECT_EQ(ab.entry_count(), 1);
    EXPECT_EQ(shape(ab), before);
    EXPECT_EQ(reply.str(), "untouched");

    EXPECT_EQ(ab.ab_delete_entry("Carl", "1"), 0);
    EXPECT_EQ(reply.str(), "ERROR:Element Not Found");
    EXPECT_EQ(ab.ab_delete_name("Bo"), 0);
    EXPECT_EQ(reply.str(), "ERROR:Element Not Found");
    EXPECT_EQ(ab.entry_count(), 1);
}

TEST_F(ContactTable, NodeRemovalMergesAndPrunes) {
    struct Case {
        std::vector<const char*> names;
        const char* remove;
        const char* shape;
    };
    const Case cases[] = {
        // no child, a sibling: relinked to the sibling
        {{"Ann", "Bob"}, "Ann", "Bob[1]"},
        // a single child: its label takes the node's label in front
        {{"Ann", "Anna"}, "Ann", "Anna[1]"},
        {{"Ann", "Anna", "Bob"}, "Ann", "Anna[1] Bob[1]"},
        // several children: stays as an inner node
        {{"Ann", "Anna", "Anne"}, "Ann", "Ann{a[1] e[1]}"},
        // last of its chain under a holding parent: no pruning, no merge
        {{"Ann", "Anna"}, "Anna", "Ann[1]"},
        {{"Anna", "Anne"}, "Anne", "Ann{a[1]}"},
        // after an inner predecessor the prune finds nothing to take
        {{"Anja", "Anna", "Bob"}, "Bob", "An{ja[1] na[1]}"},
        {{"Anna", "Anja"}, "Anna", "An{ja[1]}"},
        {{"Ann"}, "Ann", ""},
    };
    for (const auto& c : cases) {
        ReplyBuffer r;
        AddressBook book(r);
        for (const char* n : c.names) book.ab_insert(n, "1", "");
        ASSERT_EQ(book.ab_delete_entry(c.remove, "1"), 1) << c.remove;
        EXPECT_EQ(shape(book), c.shape) << "removing " << c.remove;
        EXPECT_EQ(book.entry_count(), static_cast<int>(c.names.size()) - 1);
        for (const char* n : c.names) {
            bool gone = std::string(n) == c.remove;
            EXPECT_EQ(book.ab_find(n) == nullptr, gone) << n;
        }
    }
}

TEST_F(ContactTable, PruneRemovesEmptyChainsFromTheirEnds) {
    ab.ab_insert("Anna", "1", "");
    ab.ab_insert("Anne", "1", "");
    ab.ab_insert("Bob", "1", "");
    // "Ann" is inner with children a, e; deleting both leaves nothing there.
    ab.ab_delete_entry("Anne", "1");
    EXPECT_EQ(shape(ab), "Ann{a[1]} Bob[1]");
    // Last child of an inner node: the inner node still has a sibling, so
    // it stays behind as an empty leaf until the chain's end goes.
    ab.ab_delete_entry("Anna", "1");
    EXPECT_EQ(shape(ab), "Ann Bob[1]");
    EXPECT_EQ(ab.ab_find("Ann"), nullptr);
    EXPECT_EQ(listing(ab), std::vector<std::string>{"Bob/1"});
    ab.ab_delete_name("Bob");
    EXPECT_EQ(shape(ab), "");
    EXPECT_EQ(ab.entry_count(), 0);
    EXPECT_NE(ab.ab_insert("Ann", "1", ""), nullptr);
    EXPECT_EQ(shape(ab), "Ann[1]");
}

TEST_F(ContactTable, DeleteNameTakesEveryNumber) {
    ab.ab_insert("Ann", "1", "");
    ab.ab_insert("ANN", "2", "");
    ab.ab_insert("Anna", "3", "");
    EXPECT_EQ(ab.ab_delete_name("ann"), 1);
    EXPECT_EQ(shape(ab), "Anna[3]");
    EXPECT_EQ(ab.entry_count(), 1);
    EXPECT_NE(ab.ab_find("anna"), nullptr);
}

TEST_F(ContactTable, PagedListingWritesTenRecords) {
    char name[16];
    for (int i = 1; i <= 25; ++i) {
        std::snprintf(name, sizeof name, "c%02d", i);
        ab.ab_insert(name, "1", i == 11 ? "" : "d");
    }
    Capture cap(ab);
    cap.l.list_index = 1;
    cap.l.listed_count = 1;
    int end = ab.ab_list_page(cap.l, 11);
    std::string expected = "16^|^c11^|^1^|^^|^";
    for (int i = 12; i <= 20; ++i) {
        std::snprintf(name, sizeof name, "c%02d", i);
        expected += "17^|^" + std::string(name) + "^|^1^|^d^|^";
    }
    EXPECT_EQ(cap.text(), expected);
    EXPECT_EQ(cap.l.listed_count, 11);
    EXPECT_EQ(end, 21);
}

TEST_F(ContactTable, RecordLengthCountsEverythingAfterIt) {
    ab.ab_insert("Ann", "123", "");
    ab.ab_insert("Zoe Long", "+4912345", "line one\nline two");
    Capture cap(ab);
    cap.l.list_index = 1;
    ab.ab_list_page(cap.l, 1);
    EXPECT_EQ(cap.text(),
              "18^|^Ann^|^123^|^^|^"
              "45^|^Zoe Long^|^+4912345^|^line one\nline two^|^");
}

TEST_F(ContactTable, PrefixListingCountsMatchesOnTheFirstPage) {
    const char* names[] = {"Al", "Anja", "Ann", "anna", "Anne", "Annette", "Bob", "Bo"};
    for (const char* n : names) ab.ab_insert(n, "7", "");
    {
        Capture cap(ab);
        cap.l.list_index = 1;
        cap.l.listed_count = 1;
        int total = ab.ab_list_prefix_page(cap.l, "aNn", 1);
        EXPECT_EQ(total - 1, 4);
        EXPECT_EQ(cap.text(),
                  "16^|^Ann^|^7^|^^|^17^|^anna^|^7^|^^|^17^|^Anne^|^7^|^^|^"
                  "20^|^Annette^|^7^|^^|^");
    }
    {
        Capture cap(ab);
        cap.l.list_index = 1;
        ab.ab_list_prefix_page(cap.l, "ann", 3);
        EXPECT_EQ(cap.text(), "17^|^Anne^|^7^|^^|^20^|^Annette^|^7^|^^|^");
    }
    struct {
        const char* prefix;
        int matches;
    } counts[] = {{"a", 6}, {"an", 5}, {"annette", 1}, {"annettes", 0},
                  {"c", 0}, {"bo", 2}, {"", 8},        {"Anx", 0}};
    for (const auto& c : counts) {
        Capture cap(ab);
        cap.l.list_index = 1;
        EXPECT_EQ(ab.ab_list_prefix_page(cap.l, c.prefix, 1) - 1, c.matches) << c.prefix;
    }
}

TEST_F(ContactTable, PrefixListingStopsAfterALaterPage) {
    char name[16];
    for (int i = 1; i <= 30; ++i) {
        std::snprintf(name, sizeof name, "x%02d", i);
        ab.ab_insert(name, "1", "");
    }
    Capture cap(ab);
    cap.l.list_index = 1;
    EXPECT_EQ(ab.ab_list_prefix_page(cap.l, "x", 11), 21);  // stopped at the 21st
    std::string text = cap.text();
    EXPECT_EQ(text.find("x10"), std::string::npos);
    EXPECT_NE(text.find("x11"), std::string::npos);
    EXPECT_NE(text.find("x20"), std::string::npos);
    EXPECT_EQ(text.find("x21"), std::string::npos);
}

TEST_F(ContactTable, ListByNumberComparesByNodeKind) {
    ab.ab_insert("Ann", "abc", "one");   // Ann has a child: ignores case
    ab.ab_insert("Anna", "ABC", "two");  // leaf: exact
    ab.ab_insert("Bob", "abc", "three");
    Capture cap(ab);
    cap.l.list_index = 0;
    EXPECT_EQ(ab.ab_list_by_number(cap.l, "ABC"), 1);
    EXPECT_EQ(cap.text(), "Ann^|^abc^|^one^|^\nAnna^|^ABC^|^two^|^\n");
}

TEST_F(ContactTable, NulEndsStoredTexts) {
    ASSERT_NE(ab.ab_insert(std::string("Ann\0x", 5), std::string("12\0", 3), "d"), nullptr);
    EXPECT_EQ(listing(ab), std::vector<std::string>{"Ann/12"});
    EXPECT_EQ(ab.ab_insert("", "1", ""), nullptr);
    EXPECT_EQ(ab.entry_count(), 1);
}

// Random operations checked against a multimap keyed by the lower-cased
// name; the table order must equal the model's order at every step.
TEST_F(ContactTable, RandomOperationsAgreeWithAReferenceModel) {
    std::mt19937 rng(12345);
    const std::string alphabet = "aAbBc";
    auto random_name = [&] {
        std::string s;
        size_t len = 1 + rng() % 4;
        for (size_t i = 0; i < len; ++i) s += alphabet[rng() % alphabet.size()];
        return s;
    };
    auto lower = [](std::string s) {
        for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        return s;
    };
    // lower-cased name -> (number -> stored name)
    std::map<std::string, std::map<std::string, std::string>> model;
    int count = 0;
    for (int step = 0; step < 6000; ++step) {
        std::string name = random_name();
        std::string number = std::to_string(rng() % 6);
        auto& numbers = model[lower(name)];
        switch (rng() % 4) {
            case 0:
            case 1: {
                bool dup = numbers.count(number) > 0;
                TrieNode* n = ab.ab_insert(name, number, "");
                ASSERT_EQ(n == nullptr, dup) << name << "/" << number;
                if (!dup) {
                    numbers[number] = name;
                    ++count;
                }
                break;
            }
            case 2: {
                bool present = numbers.count(number) > 0;
                int r = ab.ab_delete_entry(name, number);
                ASSERT_EQ(r, numbers.empty() ? 0 : 1);
                if (present) numbers.erase(number);
                if (r == 1) --count;  // even when the number was absent
                break;
            }
            default: {
                int r = ab.ab_delete_name(name);
                ASSERT_EQ(r, numbers.empty() ? 0 : 1);
                count -= static_cast<int>(numbers.size());
                numbers.clear();
                break;
            }
        }
        if (numbers.empty()) model.erase(lower(name));
        ASSERT_EQ(ab.entry_count(), count);
        if (step % 50 == 0 || step > 5900) {
            std::vector<std::string> want;
            for (auto& [key, nums] : model)
                for (auto& [num, stored] : nums) want.push_back(stored + "/" + num);
            ASSERT_EQ(listing(ab), want) << "step " << step;
            for (auto& [key, nums] : model) ASSERT_NE(ab.ab_find(key), nullptr) << key;
        }
    }
}
