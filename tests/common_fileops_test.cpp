// The file primitives the daemon uses instead of shell commands, and what
// they do when someone has planted a symlink at one of its fixed names.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>

#include "common/fileops.h"
#include "support/test_support.h"

namespace smsgw {
namespace {

bool is_symlink(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
}

TEST(FileOps, WritersReplaceAPlantedSymlinkInsteadOfFollowingIt) {
    test::TempDir dir;
    const std::string victim = dir / "victim";
    const std::string name = dir / "fixed";
    struct Case {
        const char* what;
        std::function<bool()> write;
        std::string expect;
    };
    const Case cases[] = {
        {"write", [&] { return write_file(name, "new"); }, "new"},
        {"append", [&] { return append_file(name, "more"); }, "more"},
        {"touch", [&] { return touch_file(name); }, ""},
        {"atomic", [&] { return write_file_atomic(name, "whole"); }, "whole"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        test::write_file(victim, "keep");
        ::unlink(name.c_str());
        ASSERT_EQ(::symlink(victim.c_str(), name.c_str()), 0);
        EXPECT_TRUE(c.write());
        EXPECT_EQ(test::read_file(victim), "keep");
        EXPECT_FALSE(is_symlink(name));
        EXPECT_EQ(test::read_file(name), c.expect);
    }
    // A dangling link must not create its target either.
    const std::string nowhere = dir / "nowhere";
    ::unlink(name.c_str());
    ASSERT_EQ(::symlink(nowhere.c_str(), name.c_str()), 0);
    EXPECT_TRUE(append_file(name, "x"));
    EXPECT_FALSE(file_exists(nowhere));

    // A rollback cut does not reach through a link either.
    test::write_file(victim, "keep");
    ::unlink(name.c_str());
    ASSERT_EQ(::symlink(victim.c_str(), name.c_str()), 0);
    EXPECT_FALSE(truncate_file(name, 1));
    EXPECT_EQ(test::read_file(victim), "keep");
}

TEST(FileOps, AppendKeepsContentAndAtomicReplaceLeavesNoTemporary) {
    test::TempDir dir;
    const std::string name = dir / "f";
    ASSERT_TRUE(write_file(name, "a\n"));
    ASSERT_TRUE(append_file(name, "b\n"));
    EXPECT_EQ(test::read_file(name), "a\nb\n");
    ASSERT_TRUE(write_file_atomic(name, "c"));
    EXPECT_EQ(test::read_file(name), "c");
    struct stat st {};
    ASSERT_EQ(::stat(name.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
    int entries = 0;
    for (const auto& e : std::filesystem::directory_iterator(dir.path())) entries += e.exists();
    EXPECT_EQ(entries, 1);
}

TEST(FileOps, TemporaryFilesAreExclusiveAndPrivate) {
    test::TempDir dir;
    Fd fd;
    auto a = create_temp_file(dir.path(), "job", &fd);
    auto b = create_temp_file(dir.path(), "job");
    ASSERT_TRUE(a && b && fd);
    EXPECT_NE(*a, *b);
    EXPECT_EQ(a->rfind(dir / "job", 0), 0u);
    struct stat st {};
    ASSERT_EQ(::fstat(fd.get(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    const std::string fixed = dir / "temp_file";
    const std::string victim = dir / "victim";
    test::write_file(victim, "keep");
    ASSERT_EQ(::symlink(victim.c_str(), fixed.c_str()), 0);
    FilePtr f = open_fixed_temp(fixed, "w");
    ASSERT_TRUE(f);
    std::fputs("tmp", f.get());
    f.reset();
    EXPECT_EQ(test::read_file(victim), "keep");
    EXPECT_EQ(test::read_file(fixed), "tmp");
}

}  // namespace
}  // namespace smsgw
