// The address book's space- and time-saving paths: CompactText, which must
// read exactly like the text it was given across its inline/heap boundary,
// and insertion through a cursor, which must build exactly the tree that
// plain insertion builds.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "addressbook/address_book.h"
#include "addressbook/compact_text.h"
#include "support/trie_shape.h"

using namespace smsgw;

namespace {

// Texts around the 15 bytes held in place.
std::vector<std::string> sample_texts() {
    std::vector<std::string> v;
    for (size_t n : {0, 1, 7, 14, 15, 16, 17, 31, 200}) {
        std::string s;
        for (size_t i = 0; i < n; ++i) s += static_cast<char>('a' + i % 26);
        v.push_back(s);
    }
    return v;
}

void expect_reads_as(const CompactText& t, const std::string& want) {
    EXPECT_EQ(t.size(), want.size());
    EXPECT_EQ(t.empty(), want.empty());
    EXPECT_EQ(t.view(), want);
    EXPECT_EQ(std::string(t.c_str()), want);  // terminated where it ends
    EXPECT_EQ(static_cast<std::string>(t), want);
}

TEST(CompactText, HoldsEveryLengthAcrossTheInlineBoundary) {
    for (const std::string& s : sample_texts()) {
        SCOPED_TRACE(s.size());
        CompactText t(s);
        expect_reads_as(t, s);

        CompactText copy(t);
        expect_reads_as(copy, s);
        CompactText moved(std::move(copy));
        expect_reads_as(moved, s);
        expect_reads_as(copy, "");  // NOLINT(bugprone-use-after-move): left empty

        // Replacing in every direction: inline <-> heap, longer <-> shorter.
        for (const std::string& other : sample_texts()) {
            CompactText r(s);
            r = other;
            expect_reads_as(r, other);
            CompactText from(other);
            r = from;
            expect_reads_as(r, other);
            r = std::move(from);
            expect_reads_as(r, other);
        }
    }
}

// Labels are cut and re-assigned from their own bytes.
TEST(CompactText, AssignsFromAPieceOfItself) {
    for (const std::string& s : sample_texts()) {
        for (size_t from : {size_t{0}, size_t{1}, s.size() / 2}) {
            if (from > s.size()) continue;
            for (size_t len : {size_t{0}, size_t{3}, size_t{15}, size_t{16}, s.size()}) {
                CompactText t(s);
                t.assign(t.view().substr(from, len));
                expect_reads_as(t, s.substr(from, len));
            }
        }
        CompactText self(s);
        const CompactText& alias = self;
        self = alias;
        expect_reads_as(self, s);
    }
}

TEST(CompactText, ComparesAndJoinsLikeAString) {
    CompactText a("Anna"), b("Anna Lee-Smith Jr"), a2("Anna");
    EXPECT_TRUE(a == a2);
    EXPECT_TRUE(a == "Anna");
    EXPECT_TRUE("Anna" == a);
    EXPECT_TRUE(a == std::string("Anna"));
    EXPECT_TRUE(a != b);
    EXPECT_TRUE(a < b);
    EXPECT_LT(a.compare("Anne"), 0);
    EXPECT_GT(b.compare("Anna"), 0);
    EXPECT_EQ(a + "|" + b, "Anna|Anna Lee-Smith Jr");
    EXPECT_EQ(a + b, "AnnaAnna Lee-Smith Jr");
    EXPECT_EQ("<" + a, "<Anna");
    std::ostringstream out;
    out << b;
    EXPECT_EQ(out.str(), "Anna Lee-Smith Jr");
    EXPECT_EQ(sizeof(CompactText), 16u);
}

std::string shape(AddressBook& ab) {
    return test::trie_shape(ab, true);
}

// Names that share beginnings in many ways: prefixes of one another, the
// same name in other letter case, partings inside labels.
std::vector<std::pair<std::string, std::string>> contacts(std::mt19937& rng, int count) {
    std::vector<std::pair<std::string, std::string>> v;
    for (int i = 0; i < count; ++i) {
        std::string name(1 + rng() % 6, ' ');
        for (char& c : name) c = "aAbBc "[rng() % 6];
        v.emplace_back(name, std::to_string(rng() % 5));
    }
    return v;
}

TEST(InsertCursor, BuildsTheSameTreeAsPlainInsertion) {
    std::mt19937 rng(5);
    for (int round = 0; round < 60; ++round) {
        auto list = contacts(rng, 1 + static_cast<int>(rng() % 80));
        // Table order as a load sees it, then any order.
        if (round % 2 == 0) {
            std::stable_sort(list.begin(), list.end(), [](const auto& a, const auto& b) {
                std::string x = a.first, y = b.first;
                for (char& c : x)
                    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
                for (char& c : y)
                    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
                return x < y;
            });
        }
        ReplyBuffer r1, r2;
        AddressBook plain(r1), walked(r2);
        InsertCursor cursor;
        for (const auto& [name, number] : list) {
            TrieNode* a = plain.ab_insert(name, number, "d");
            TrieNode* b = walked.ab_insert(cursor, name, number, "d");
            ASSERT_EQ(a == nullptr, b == nullptr) << "round " << round << " " << name;
            ASSERT_EQ(r1.str(), r2.str());
            ASSERT_EQ(shape(plain), shape(walked)) << "round " << round << " after " << name;
        }
        EXPECT_EQ(plain.entry_count(), walked.entry_count());
        // The node returned is the one a find reaches.
        for (const auto& [name, number] : list) {
            TrieNode* found = walked.ab_find(name);
            ASSERT_NE(found, nullptr) << name;
            EXPECT_NE(AddressBook::ab_find_number(found->entries.get(), number), nullptr);
        }
    }
}

// A refused insertion (an empty name) does not walk: the next one
// must not resume from a walk that never happened.
TEST(InsertCursor, RefusalsLeaveTheCursorUsable) {
    ReplyBuffer r1, r2;
    AddressBook plain(r1), walked(r2);
    InsertCursor cursor;
    const char* names[] = {"Anna", "", "Anna Lee", "anna lee", "", "Annabel", "B", "Anna Lee"};
    int i = 0;
    for (const char* name : names) {
        std::string number = std::to_string(i++ % 3);
        plain.ab_insert(name, number, "");
        walked.ab_insert(cursor, name, number, "");
        EXPECT_EQ(r1.str(), r2.str()) << name;
        EXPECT_EQ(shape(plain), shape(walked)) << "after " << name;
    }
}

}  // namespace
