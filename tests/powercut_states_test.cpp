// The power-cut simulator's disk model: which recorded operations a crash
// state must contain and which it may lose.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "crash_states.h"

namespace powercut {
namespace {

std::string rec(OpType t, int64_t a, int64_t b = 0, const std::string& s1 = "",
                const std::string& s2 = "", const std::string& data = "") {
    return encode_record(t, a, b, s1, s2, data);
}

using Fates = std::vector<std::pair<Fate, size_t>>;

TEST(PowerCutStates, SyncedOperationsSurviveAndOthersMayNot) {
    // 0 create d/f, 1 write, 2 fsync f, 3 write, 4 fsync d, 5 rename to d/g,
    // 6 map store, 7 msync, 8 map store.
    // A root holding the directory "d" (real inode 2 below it, root is 1).
    Snapshot root;
    root.image.inodes = {"", ""};
    root.image.names[""] = {'d', 0, 0755, {}};
    root.image.names["d"] = {'d', 1, 0755, {}};
    root.inode_of = {{1, 0}, {2, 1}};
    History h(root, rec(OpType::Create, 10, 0644, "d/f") +
                        rec(OpType::Write, 10, 0, "", "", "hello") + rec(OpType::Fsync, 10) +
                        rec(OpType::Write, 10, 5, "", "", "!") + rec(OpType::Fsync, 2) +
                        rec(OpType::Rename, 0, 0, "d/f", "d/g") +
                        rec(OpType::MapWrite, 10, 0, "", "", "HE") + rec(OpType::Msync, 10) +
                        rec(OpType::MapWrite, 10, 0, "", "", "XY"));
    const Fates lose_all(9, {Fate::Skipped, 0});
    struct Case {
        size_t cut;
        bool barrier;
        size_t sync;
        std::string f, g;  // content at d/f and d/g ("-" when missing)
    };
    const Case cases[] = {
        {2, false, 0, "-", "-"},       // nothing synced yet
        {3, false, 0, "-", "-"},       // data synced, the name not
        {5, false, 0, "hello", "-"},   // the directory sync keeps the name
        {5, true, 4, "hello!", "-"},   // a barrier keeps all before it
        {6, false, 0, "hello", "-"},   // an unsynced rename may be lost
        {8, false, 0, "HEllo!", "-"},  // an msync syncs the whole file
        {9, true, 8, "-", "HEllo!"},   // the later store is not
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.cut);
        CrashState s = build_state(h, c.cut, c.barrier, c.sync, lose_all);
        auto at = [&](const std::string& p) { return s.image.has(p) ? s.image.content(p) : "-"; };
        EXPECT_EQ(at("d/f"), c.f);
        EXPECT_EQ(at("d/g"), c.g);
    }
    // Applied, the same operations give the whole run.
    CrashState all = build_state(h, 9, false, 0, Fates(9, {Fate::Whole, 0}));
    EXPECT_FALSE(all.image.has("d/f"));
    EXPECT_EQ(all.image.content("d/g"), "XYllo!");
}

}  // namespace
}  // namespace powercut
