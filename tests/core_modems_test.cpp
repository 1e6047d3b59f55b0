// The daemon's own pieces: command line, modem probe on pseudo-terminals,
// txrx supervision, the start-up clean-up of stale children, the
// endpoints and the SMS users table.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "common/runtime.h"
#include "core/modems.h"
#include "core/options.h"
#include "core/sms_users.h"
#include "support/test_support.h"

namespace smsgw {
namespace {

using test::PtyModem;
using test::TempDir;
using Strings = std::vector<std::string>;

Options parse(Strings args) {
    std::vector<const char*> argv{"smsgwd"};
    for (auto& a : args) argv.push_back(a.c_str());
    return parse_options(static_cast<int>(argv.size()), argv.data());
}

TEST(CoreOptions, CommandLinesAreAcceptedOrRefused) {
    using A = Options::Action;
    const struct {
        Strings args;
        A action;
        int offset;
    } cases[] = {
        {{}, A::Run, 0},
        {{"--port-offset", "100"}, A::Run, 100},
        {{"--port-offset=35232"}, A::Run, 35232},  // 30303 + N = 65535
        {{"--port-offset", "35233"}, A::UsageError, 0},
        {{"--port-offset", "-0"}, A::UsageError, 0},
        {{"--port-offset", ""}, A::UsageError, 0},
        {{"--port-offset"}, A::UsageError, 0},
        {{"--root"}, A::UsageError, 0},
        {{"--root", "relative/dir"}, A::UsageError, 0},
        {{"--spool-dir", "rel"}, A::UsageError, 0},
        {{"--bogus"}, A::UsageError, 0},
        {{"stray"}, A::UsageError, 0},
        {{"--help"}, A::Help, 0},
        {{"--version"}, A::Version, 0},
        {{"--version", "--help"}, A::Help, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args.empty() ? "" : c.args[0] + " " + c.args.back());
        Options o = parse(c.args);
        EXPECT_EQ(o.action, c.action);
        EXPECT_EQ(o.port_offset, c.offset);
        EXPECT_EQ(o.error.empty(), c.action != A::UsageError);
    }
    EXPECT_EQ(parse({"--root", "/srv/box/"}).spool_dirs,
              (Strings{"/srv/box/tmp", "/srv/box/var/tmp", "/srv/box/var/run"}));
    EXPECT_EQ(parse({"--root", "/r", "--spool-dir", "/a/", "--spool-dir=/b"}).spool_dirs,
              (Strings{"/a", "/b"}));
}

TEST(CoreModemProbe, OnlyModemsWithASignalFrom1To31AreListedInNameOrder) {
    for (const char* a : {"+CSQ: 31,0", "+CSQ: 1,99", "+CSQ: 20"})
        EXPECT_TRUE(signal_value_usable(a)) << a;
    for (const char* a :
         {"+CSQ: 99,99", "+CSQ: 0,0", "+CSQ: 32,0", "+CSQ: -5,0", "+CSQ: ,20", "ERROR", ""})
        EXPECT_FALSE(signal_value_usable(a)) << a;

    TempDir root;
    test::write_file(root / "var/run/.keep", "");
    PtyModem s1("\r\n+CSQ: 15,99\r\nOK\r\n"), s2("+CSQ: 99,99\r\n"), s3("+CSQ: 31,0\r\n"),
        s10("+CSQ: 0,0\r\n");
    ::mkdir((root / "dev").c_str(), 0755);
    for (auto [modem, name] : {std::pair{&s1, "1"}, {&s2, "2"}, {&s3, "3"}, {&s10, "10"}})
        ASSERT_EQ(::symlink(modem->slave_path().c_str(), (root / "dev/ttyS" + name).c_str()), 0);
    test::write_file(root / "dev/ttyS4", "not a device");  // rejected without a probe
    test::write_file(root / "dev/ttyUSB0", "");            // not a serial port name

    Runtime rt(root.path(), 0);
    EXPECT_EQ(list_serial_devices(rt),
              (Strings{"/dev/ttyS1", "/dev/ttyS10", "/dev/ttyS2", "/dev/ttyS3", "/dev/ttyS4"}));
    find_wireless_modems(rt, 800);
    EXPECT_EQ(test::read_file(root / "var/run/wirelessmodems"), "/dev/ttyS1\n/dev/ttyS3\n");
    EXPECT_EQ(rt.no_of_modems, 2);
    EXPECT_EQ(s10.received(), "AT+CSQ\r\n");

    EXPECT_EQ(getserialfd(""), -1);
    EXPECT_EQ(probe_modem(root / "dev/ttyS0", 10), -1);
    PtyModem mute("");  // reads the command, answers nothing
    EXPECT_EQ(probe_modem(mute.slave_path(), 200), -1);
}

TEST(CoreProcesses, PidFileAndProcessState) {
    TempDir dir;
    for (const char* text : {"-1\n", "0\n", "1\n", "abc\n", ""}) {
        test::write_file(dir / "pid", text);
        EXPECT_EQ(read_pid_file(dir / "pid"), 0) << text;
    }
    test::write_file(dir / "pid", "  77 trailing");
    EXPECT_EQ(read_pid_file(dir / "pid"), 77);
    EXPECT_EQ(read_pid_file(dir / "missing"), 0);

    EXPECT_EQ(process_state(::getpid()), "running");  // zombie and reaped: below
}

// The txrx stand-in records its arguments and exits at once, so each one
// becomes a zombie the supervisor has to notice.
TEST(CoreTxrxSupervisor, OneChildPerModemAndAZombieRestartsEveryModem) {
    TempDir root;
    Runtime rt{root.path(), 0};
    const std::string log = root / "started.log", pid_file = rt.path("/var/run/txrx_pid_file");
    test::write_file(root / "bin/txrx", "#!/bin/sh\necho \"$0 $*\" >> '" + log + "'\n");
    ::chmod((root / "bin/txrx").c_str(), 0755);
    test::write_file(root / "var/run/wirelessmodems", "/dev/ttyS0\n/dev/ttyS3\n");
    auto starts = [&] {
        const std::string t = test::read_file(log);
        return std::count(t.begin(), t.end(), '\n');
    };
    TxrxSupervisor sup(rt);
    std::vector<pid_t> first = sup.spawn_txrx_for_each_modem();
    ASSERT_EQ(first.size(), 2u);
    ASSERT_TRUE(test::wait_for([&] { return starts() == 2; }));
    const std::string started = test::read_file(log);
    EXPECT_NE(started.find(root / "bin/txrx /dev/ttyS0\n"), std::string::npos) << started;
    EXPECT_NE(started.find(root / "bin/txrx /dev/ttyS3\n"), std::string::npos) << started;
    ASSERT_TRUE(test::wait_for([&] { return process_state(first[1]) == "zombie"; }));
    // Ended children never come to listen: start-up stops waiting for them.
    ASSERT_TRUE(test::wait_for([&] { return process_state(first[0]) == "zombie"; }));
    EXPECT_FALSE(sup.wait_until_listening(first, 1, std::chrono::minutes(1)));

    // While a dial-out holds the modem nothing is restarted.
    test::write_file(pid_file, std::to_string(first[1]) + "\n");
    sup.set_enabled(false);
    EXPECT_FALSE(sup.txrx_monitor());
    EXPECT_EQ(process_state(first[1]), "zombie");
    sup.set_enabled(true);
    EXPECT_TRUE(sup.txrx_monitor());
    EXPECT_TRUE(test::wait_for([&] { return starts() == 4; }));
    EXPECT_EQ(process_state(first[1]), "");  // reaped after the look

    // A living txrx, a missing pid file: no restart.
    test::write_file(pid_file, std::to_string(::getpid()) + "\n");
    EXPECT_FALSE(sup.txrx_monitor());
    ::unlink(pid_file.c_str());
    EXPECT_FALSE(sup.txrx_monitor());
    EXPECT_EQ(starts(), 4);
}

TEST(CoreTxrxSupervisor, StartUpCleanUpEndsOnlyThisRootsTxrxAndTimeClient) {
    TempDir root, other;
    const Strings names = {root / "bin/txrx", root / "bin/msntp", other / "bin/txrx",
                           root / "bin/txrx-extra", "txrx"};
    std::vector<pid_t> pids;
    for (const auto& n : names) {
        pids.push_back(::fork());
        if (pids.back() == 0) {
            ::execl("/bin/sleep", n.c_str(), "30", static_cast<char*>(nullptr));
            ::_exit(127);
        }
        ASSERT_TRUE(test::wait_for([&] {
            return test::read_file("/proc/" + std::to_string(pids.back()) + "/cmdline")
                       .rfind(n + '\0', 0) == 0;
        }));
    }
    EXPECT_EQ(kill_stale_children(Runtime(root.path(), 0)), 2);
    for (size_t i = 0; i < pids.size(); ++i) {
        int status = 0;
        if (i >= 2) {
            EXPECT_EQ(::waitpid(pids[i], &status, WNOHANG), 0) << names[i] << " was ended";
            test::signal_process(pids[i], SIGKILL);
        }
        ASSERT_EQ(::waitpid(pids[i], &status, 0), pids[i]);
        EXPECT_EQ(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL, true) << names[i];
    }
}

// The SMS users table read at start-up from "/var/config/sms-users".
TEST(CoreSmsUsers, NamesBeforeTheSeparatorFollowAdminUpToTwenty) {
    std::string thirty;
    Strings twenty{"admin"};
    for (int i = 1; i <= 30; ++i) {
        thirty += "user" + std::to_string(i) + "^|^\n";
        if (i <= 20) twenty.push_back("user" + std::to_string(i));
    }
    const std::vector<std::pair<std::optional<std::string>, Strings>> cases = {
        {std::nullopt, {"admin"}},
        {"", {"admin"}},
        {"anna^|^secret^|^\nno separator here\nbob^|^x\n^|^\n", {"admin", "anna", "bob", ""}},
        {"anna^|^\n\nbob^|^\n", {"admin", "anna"}},  // a bare newline ends the table
        {std::string(80, 'n') + "^|^\n", {"admin", std::string(50, 'n')}},  // a slot's 50
        {thirty, twenty},
    };
    for (const auto& [text, names] : cases) {
        SCOPED_TRACE(text.value_or("<no file>"));
        TempDir root;
        if (text) test::write_file(root / "var/config/sms-users", *text);
        SmsUsers u = read_sms_users(Runtime(root.path(), 0));
        EXPECT_EQ(u.names, names);
        EXPECT_EQ(static_cast<size_t>(u.count) + 1, u.names.size());
    }
}

}  // namespace
}  // namespace smsgw
