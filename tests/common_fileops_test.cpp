// The file primitives the daemon uses instead of shell commands, and what
// they do when someone has planted a symlink at one of its fixed names.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <utility>

#include "common/fileops.h"
#include "support/test_support.h"

namespace smsgw {
namespace {

TEST(FileOps, WritersReplaceAPlantedSymlinkInsteadOfFollowingIt) {
    test::TempDir dir;
    const std::string victim = dir / "victim", name = dir / "fixed";
    const std::pair<std::function<bool()>, std::string> cases[] = {
        {[&] { return write_file(name, "new"); }, "new"},
        {[&] { return append_file(name, "more"); }, "more"},
        {[&] { return touch_file(name); }, ""},
        {[&] { return write_file_atomic(name, "whole"); }, "whole"},
        {[&] { return !truncate_file(name, 1); }, "keep"},  // a rollback cut does not reach through
        {[&] { return bool(open_fixed_temp(name, "w")); }, ""},
    };
    for (const auto& [write, expect] : cases) {
        SCOPED_TRACE(expect);
        test::write_file(victim, "keep");
        ::unlink(name.c_str());
        ASSERT_EQ(::symlink(victim.c_str(), name.c_str()), 0);
        EXPECT_TRUE(write());
        EXPECT_EQ(test::read_file(victim), "keep");
        EXPECT_EQ(test::read_file(name), expect);
    }
    // A dangling link must not create its target either.
    ::unlink(name.c_str());
    ASSERT_EQ(::symlink((dir / "nowhere").c_str(), name.c_str()), 0);
    EXPECT_TRUE(append_file(name, "x"));
    EXPECT_FALSE(file_exists(dir / "nowhere"));
}

TEST(FileOps, AppendKeepsContentAndFilesGetTheirModes) {
    test::TempDir dir;
    const std::string name = dir / "f";
    EXPECT_FALSE(write_file(dir / "missing/f", "a"));
    ASSERT_TRUE(write_file(name, "a\n"));
    ASSERT_TRUE(append_file(name, "b\n"));
    EXPECT_EQ(test::read_file(name), "a\nb\n");
    ASSERT_TRUE(write_file_atomic(name, "c"));
    EXPECT_EQ(test::read_file(name), "c");
    struct stat st {};
    ASSERT_EQ(::stat(name.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
    // Temporary names are fresh, private and exclusive.
    Fd fd;
    auto a = create_temp_file(dir.path(), "job", &fd);
    auto b = create_temp_file(dir.path(), "job");
    ASSERT_TRUE(a && b && fd);
    EXPECT_NE(*a, *b);
    EXPECT_EQ(a->rfind(dir / "job", 0), 0u);
    EXPECT_EQ(a->size(), (dir / "job").size() + 6);
    ASSERT_EQ(::fstat(fd.get(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    // Nothing else is left behind: the atomic write's temporary is gone.
    int entries = 0;
    for (const auto& e : std::filesystem::directory_iterator(dir.path())) entries += e.exists();
    EXPECT_EQ(entries, 3);
}

}  // namespace
}  // namespace smsgw
