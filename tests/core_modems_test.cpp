// The daemon's own pieces: command line, modem probe on pseudo-terminals,
// txrx supervision, the start-up clean-up of stale children and the
// endpoints.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "common/runtime.h"
#include "core/endpoints.h"
#include "core/modems.h"
#include "core/options.h"
#include "support/test_support.h"

namespace smsgw {
namespace {

using test::PtyModem;
using test::TempDir;
using namespace std::chrono_literals;

Options parse(std::vector<std::string> args) {
    std::vector<const char*> argv{"smsgwd"};
    for (auto& a : args) argv.push_back(a.c_str());
    return parse_options(static_cast<int>(argv.size()), argv.data());
}

TEST(CoreOptions, CommandLinesAreAcceptedOrRefused) {
    struct Case {
        std::vector<std::string> args;
        Options::Action action;
        int offset;
    };
    const std::vector<Case> cases = {
        {{}, Options::Action::Run, 0},
        {{"--port-offset", "100"}, Options::Action::Run, 100},
        {{"--port-offset=35232"}, Options::Action::Run, 35232},  // 30303 + N = 65535
        {{"--port-offset", "35233"}, Options::Action::UsageError, 0},
        {{"--port-offset", "-1"}, Options::Action::UsageError, 0},
        {{"--port-offset", "-0"}, Options::Action::UsageError, 0},
        {{"--port-offset", "12x"}, Options::Action::UsageError, 0},
        {{"--port-offset", ""}, Options::Action::UsageError, 0},
        {{"--port-offset"}, Options::Action::UsageError, 0},
        {{"--root"}, Options::Action::UsageError, 0},
        {{"--root", "relative/dir"}, Options::Action::UsageError, 0},
        {{"--bogus"}, Options::Action::UsageError, 0},
        {{"stray"}, Options::Action::UsageError, 0},
        {{"--help"}, Options::Action::Help, 0},
        {{"--version"}, Options::Action::Version, 0},
        {{"--version", "--help"}, Options::Action::Help, 0},
    };
    for (const auto& c : cases) {
        std::string shown;
        for (auto& a : c.args) shown += "[" + a + "]";
        Options o = parse(c.args);
        EXPECT_EQ(o.action, c.action) << shown;
        if (c.action == Options::Action::Run) {
            EXPECT_EQ(o.port_offset, c.offset) << shown;
        }
        if (c.action == Options::Action::UsageError) {
            EXPECT_FALSE(o.error.empty()) << shown;
        }
    }
}

TEST(CoreOptions, SpoolDirsDefaultUnderTheRootAndAreReplacedByTheOption) {
    Options o = parse({"--root", "/srv/box/"});
    EXPECT_EQ(o.root, "/srv/box/");
    EXPECT_EQ(o.spool_dirs,
              (std::vector<std::string>{"/srv/box/tmp", "/srv/box/var/tmp", "/srv/box/var/run"}));
    EXPECT_EQ(parse({}).spool_dirs, (std::vector<std::string>{"/tmp", "/var/tmp", "/var/run"}));
    Options s = parse({"--root", "/r", "--spool-dir", "/a/", "--spool-dir=/b"});
    EXPECT_EQ(s.spool_dirs, (std::vector<std::string>{"/a", "/b"}));
    EXPECT_EQ(parse({"--spool-dir", "rel"}).action, Options::Action::UsageError);
}

TEST(CoreModemProbe, SignalValueMustBeFrom1To31) {
    struct Case {
        const char* answer;
        bool usable;
    };
    for (const Case& c :
         {Case{"\r\n+CSQ: 15,99\r\n\r\nOK\r\n", true}, Case{"+CSQ: 31,0", true},
          Case{"+CSQ: 1,99", true}, Case{"+CSQ: 99,99", false}, Case{"+CSQ: 0,0", false},
          Case{"+CSQ: 32,0", false}, Case{"+CSQ: -5,0", false}, Case{"+CSQ: 20", true},
          Case{"+CSQ: ,20", false}, Case{"ERROR", false}, Case{"", false}})
        EXPECT_EQ(signal_value_usable(c.answer), c.usable) << c.answer;
}

TEST(CoreModemProbe, OnlyModemsWithAUsableSignalAreListedInNameOrder) {
    TempDir root;
    test::write_file(root / "var/run/.keep", "");
    PtyModem s1("\r\n+CSQ: 15,99\r\nOK\r\n"), s2("+CSQ: 99,99\r\n"), s3("+CSQ: 31,0\r\n"),
        s10("+CSQ: 0,0\r\n");
    ::mkdir((root / "dev").c_str(), 0755);
    ASSERT_EQ(::symlink(s1.slave_path().c_str(), (root / "dev/ttyS1").c_str()), 0);
    ASSERT_EQ(::symlink(s2.slave_path().c_str(), (root / "dev/ttyS2").c_str()), 0);
    ASSERT_EQ(::symlink(s3.slave_path().c_str(), (root / "dev/ttyS3").c_str()), 0);
    ASSERT_EQ(::symlink(s10.slave_path().c_str(), (root / "dev/ttyS10").c_str()), 0);
    test::write_file(root / "dev/ttyS4", "not a device");  // rejected without a probe
    test::write_file(root / "dev/ttyUSB0", "");            // not a serial port name

    Runtime rt(root.path(), 0);
    EXPECT_EQ(list_serial_devices(rt),
              (std::vector<std::string>{"/dev/ttyS1", "/dev/ttyS10", "/dev/ttyS2", "/dev/ttyS3",
                                        "/dev/ttyS4"}));
    find_wireless_modems(rt, 800);
    EXPECT_EQ(test::read_file(root / "var/run/wirelessmodems"), "/dev/ttyS1\n/dev/ttyS3\n");
    EXPECT_EQ(rt.no_of_modems, 2);
    EXPECT_EQ(s1.received(), "AT+CSQ\r\n");
    EXPECT_EQ(s10.received(), "AT+CSQ\r\n");
}

TEST(CoreModemProbe, MissingOrSilentDevicesAreRejected) {
    TempDir root;
    EXPECT_EQ(getserialfd(""), -1);
    EXPECT_EQ(probe_modem(root / "dev/ttyS0", 10), -1);
    PtyModem mute("");  // reads the command, answers nothing
    EXPECT_EQ(probe_modem(mute.slave_path(), 200), -1);
}

TEST(CoreProcesses, PidFileAndProcessState) {
    TempDir dir;
    struct Case {
        const char* text;
        pid_t pid;
    };
    for (const Case& c : {Case{"123\n", 123}, Case{"  77 trailing", 77}, Case{"-1\n", 0},
                          Case{"0\n", 0}, Case{"1\n", 0}, Case{"abc\n", 0}, Case{"", 0}}) {
        test::write_file(dir / "pid", c.text);
        EXPECT_EQ(read_pid_file(dir / "pid"), c.pid) << c.text;
    }
    EXPECT_EQ(read_pid_file(dir / "missing"), 0);

    pid_t child = ::fork();
    if (child == 0) ::_exit(0);
    ASSERT_GT(child, 0);
    EXPECT_TRUE(test::wait_for([&] { return process_state(child) == "zombie"; }));
    ::waitpid(child, nullptr, 0);
    EXPECT_EQ(process_state(child), "");
    EXPECT_EQ(process_state(::getpid()), "running");
}

// A txrx stand-in that records its arguments and exits at once, so each
// one becomes a zombie the daemon has to notice.
struct ShortLivedTxrx {
    TempDir root;
    Runtime rt{root.path(), 0};
    std::string log = root / "started.log";
    ShortLivedTxrx() {
        test::write_file(root / "bin/txrx", "#!/bin/sh\necho \"$0 $*\" >> '" + log + "'\n");
        ::chmod((root / "bin/txrx").c_str(), 0755);
        test::write_file(root / "var/run/wirelessmodems", "/dev/ttyS0\n/dev/ttyS3\n");
    }
    size_t starts() {
        std::string t = test::read_file(log);
        return static_cast<size_t>(std::count(t.begin(), t.end(), '\n'));
    }
};

TEST(CoreTxrxSupervisor, OneChildPerModemAndAZombieRestartsEveryModem) {
    ShortLivedTxrx s;
    TxrxSupervisor sup(s.rt);
    std::vector<pid_t> first = sup.spawn_txrx_for_each_modem();
    ASSERT_EQ(first.size(), 2u);
    // Each child gets its modem line's device as the argument.
    ASSERT_TRUE(test::wait_for([&] { return s.starts() == 2; }));
    const std::string log = test::read_file(s.log);
    EXPECT_NE(log.find(s.root.path() + "/bin/txrx /dev/ttyS0\n"), std::string::npos) << log;
    EXPECT_NE(log.find(s.root.path() + "/bin/txrx /dev/ttyS3\n"), std::string::npos) << log;
    ASSERT_TRUE(test::wait_for([&] { return process_state(first[1]) == "zombie"; }));

    // While a dial-out holds the modem nothing is restarted.
    test::write_file(s.rt.path("/var/run/txrx_pid_file"), std::to_string(first[1]) + "\n");
    sup.set_enabled(false);
    EXPECT_FALSE(sup.txrx_monitor());
    EXPECT_EQ(process_state(first[1]), "zombie");

    sup.set_enabled(true);
    EXPECT_TRUE(sup.txrx_monitor());
    EXPECT_TRUE(test::wait_for([&] { return s.starts() == 4; }));
    EXPECT_EQ(process_state(first[1]), "");  // reaped after the look

    // A living txrx, a missing pid file: no restart.
    test::write_file(s.rt.path("/var/run/txrx_pid_file"), std::to_string(::getpid()) + "\n");
    EXPECT_FALSE(sup.txrx_monitor());
    ::unlink(s.rt.path("/var/run/txrx_pid_file").c_str());
    EXPECT_FALSE(sup.txrx_monitor());
    EXPECT_EQ(s.starts(), 4u);
}

pid_t start_sleeper(const std::string& argv0) {
    pid_t pid = ::fork();
    if (pid == 0) {
        ::execl("/bin/sleep", argv0.c_str(), "30", static_cast<char*>(nullptr));
        ::_exit(127);
    }
    return pid;
}

std::string cmdline_arg0(pid_t pid) {
    std::string t = test::read_file("/proc/" + std::to_string(pid) + "/cmdline");
    return t.substr(0, t.find('\0'));
}

TEST(CoreTxrxSupervisor, StartUpCleanUpEndsOnlyThisRootsTxrxAndTimeClient) {
    TempDir root, other;
    Runtime rt(root.path(), 0);
    const std::vector<std::string> names = {root / "bin/txrx", root / "bin/msntp",
                                            other / "bin/txrx", root / "bin/txrx-extra", "txrx"};
    std::vector<pid_t> pids;
    for (const auto& n : names) pids.push_back(start_sleeper(n));
    for (size_t i = 0; i < pids.size(); ++i)
        ASSERT_TRUE(test::wait_for([&] { return cmdline_arg0(pids[i]) == names[i]; }));

    EXPECT_EQ(kill_stale_children(rt), 2);
    for (size_t i = 0; i < pids.size(); ++i) {
        int status = 0;
        if (i < 2) {
            ASSERT_EQ(::waitpid(pids[i], &status, 0), pids[i]);
            EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << names[i];
        } else {
            EXPECT_EQ(::waitpid(pids[i], &status, WNOHANG), 0) << names[i] << " was ended";
            ::kill(pids[i], SIGKILL);
            ::waitpid(pids[i], &status, 0);
        }
    }
}

TEST(CoreEndpoints, OpenOnceThenPortTaken) {
    TempDir root;
    test::write_file(root / "var/run/SQL_SMSTEMP", "stale");
    Runtime rt(root.path(), test::random_port_offset());
    Endpoints first;
    ASSERT_TRUE(first.open_all(rt));
    EXPECT_TRUE(::fcntl(first.txrx_in.get(), F_GETFL) & O_NONBLOCK);
    EXPECT_FALSE(::fcntl(first.gui.get(), F_GETFL) & O_NONBLOCK);
    struct stat st {};
    ASSERT_EQ(::stat((root / "var/run/SQL_SMSTEMP").c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));

    Endpoints second;
    EXPECT_FALSE(second.open_all(rt));  // the Unix socket is re-created, port 20207+N is taken
    EXPECT_TRUE(second.sql_sms.valid());
    EXPECT_FALSE(second.gui.valid());
}

}  // namespace
}  // namespace smsgw
