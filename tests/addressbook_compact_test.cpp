// The address book's space- and time-saving paths: CompactText must read
// exactly like the text it was given across its inline/heap boundary, and
// insertion through a cursor must build exactly the tree plain insertion
// builds.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "addressbook/address_book.h"
#include "addressbook/compact_text.h"
#include "support/trie_shape.h"

using namespace smsgw;

namespace {

// A text of n letters.
std::string letters(size_t n) {
    std::string s;
    for (size_t i = 0; i < n; ++i) s += static_cast<char>('a' + i % 26);
    return s;
}

TEST(CompactText, ReadsLikeItsTextAcrossTheInlineBoundary) {
    auto same = [](const CompactText& t, const std::string& want) {
        return t.view() == want && std::string(t.c_str()) == want;  // terminated where it ends
    };
    const size_t sizes[] = {0, 1, 15, 16, 200};
    for (size_t n : sizes) {
        const std::string s = letters(n);
        CompactText t(s), copy(t), moved(std::move(copy));
        EXPECT_TRUE(same(t, s) && same(moved, s) && same(copy, "")) << n;  // NOLINT: moved from
        for (size_t m : sizes) {
            CompactText r(s), from(letters(m));
            r = from;
            EXPECT_TRUE(same(r, letters(m))) << n << " = " << m;
            r = std::move(from);
            EXPECT_TRUE(same(r, letters(m))) << n << " = moved " << m;
            // Labels are cut and assigned from their own bytes.
            r = s;
            r.assign(r.view().substr(n / 2, m));
            EXPECT_TRUE(same(r, s.substr(n / 2, m))) << n << " piece " << m;
        }
        const CompactText& alias = t;
        t = alias;
        EXPECT_TRUE(same(t, s));
    }
    EXPECT_EQ(sizeof(CompactText), 16u);
}

TEST(InsertCursor, BuildsTheSameTreeAsPlainInsertion) {
    std::mt19937 rng(5);
    auto lower = [](std::string s) {
        for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        return s;
    };
    for (int round = 0; round < 60; ++round) {
        // Names that are prefixes of one another, differ in case, part
        // inside labels; now and then an empty one (refused, no walk).
        std::vector<std::pair<std::string, std::string>> list;
        for (int i = 1 + static_cast<int>(rng() % 80); i > 0; --i) {
            std::string name(rng() % 7, ' ');
            for (char& c : name) c = "aAbBc "[rng() % 6];
            list.emplace_back(name, std::to_string(rng() % 5));
        }
        if (round % 2 == 0) {  // table order, as a load sees it
            std::stable_sort(list.begin(), list.end(), [&](const auto& a, const auto& b) {
                return lower(a.first) < lower(b.first);
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
            ASSERT_EQ(test::trie_shape(plain, true), test::trie_shape(walked, true))
                << "round " << round << " after " << name;
            ASSERT_TRUE(!b || walked.ab_find(name) == b) << name;
        }
    }
}

}  // namespace
