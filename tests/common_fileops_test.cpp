// The file primitives the daemon uses instead of shell commands, and what
// they do when someone has planted a symlink at one of its fixed names; the
// text and path helpers beside them.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <utility>

#include "common/fileops.h"
#include "common/paths.h"
#include "common/text.h"
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
    ASSERT_EQ(::fstat(fd.get(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    // Nothing else is left behind: the atomic write's temporary is gone.
    ASSERT_TRUE(make_dirs(dir / "d/bc/e"));
    EXPECT_EQ(test::tree_below(dir.path()).size(), 6u);  // f, two temporaries, d, d/bc, d/bc/e
    EXPECT_TRUE(test::exists(dir / "d/bc/e"));
}

// Cuts every word of `text` the tokenizer finds; "|rest" ends the list.
std::string tokens(std::string_view text, std::string_view sep) {
    Tokenizer t;
    std::string out;
    for (text = t.next_token(text, sep); t.token_found(); text = t.next_token(text, sep))
        out += "[" + t.word() + "]";
    EXPECT_FALSE(t.current_token().has_value());
    return out + "|" + std::string(text);
}

TEST(Text, TokensFieldsAndNumbers) {
    EXPECT_EQ(tokens("get-sms phone_book", " "), "[get-sms]|phone_book");
    EXPECT_EQ(tokens("^|^x^|^", "^|^"), "[][x]|");
    FieldCutter f("+4912345^|^+4967890");
    EXPECT_EQ(f.next().value_or("-"), "+4912345");
    EXPECT_FALSE(f.next());
    EXPECT_EQ(split_fields("  LB_OK  request 3 ERROR", " ", 6),
              (std::vector<std::string_view>{"LB_OK", "request", "3", "ERROR"}));
    EXPECT_TRUE(split_fields("   ", " ", 6).empty());
    EXPECT_EQ(split_fields("a b c d e f g h", " ", 6).size(), 6u);
    const std::pair<const char*, int> numbers[] = {{"  42abc", 42},
                                                   {"abc", 0},
                                                   {"99999999999999999999", 2147483647},
                                                   {"-99999999999999999999", -2147483647 - 1}};
    for (const auto& [text, value] : numbers) EXPECT_EQ(c_atoi(text), value) << text;
    ReplyBuffer r;
    r.set(std::string(1000, 'x'));
    EXPECT_EQ(r.str(), std::string(255, 'x'));
}

TEST(Paths, MapsUnderTheRootAndBack) {
    EXPECT_EQ(Paths().map("/var/run/x"), "/var/run/x");
    Paths p("/tmp/r/");
    EXPECT_EQ(p.map("/var/run/x"), "/tmp/r/var/run/x");
    EXPECT_EQ(p.unmap("/tmp/r/dev/ttyS0"), "/dev/ttyS0");
    EXPECT_EQ(p.unmap("/etc/passwd"), "/etc/passwd");
}

}  // namespace
}  // namespace smsgw
