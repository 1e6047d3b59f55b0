// The real smsgwd in a sandbox root: start-up files and children, the
// request framing and bad input, dial-out, txrx restarts and the
// load-balancer table.
#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "common/fileops.h"
#include "common/net.h"
#include "support/test_support.h"

namespace smsgw::test {
namespace {

using namespace std::chrono_literals;

const std::string kProbe = "get-sms total-entries groups^|^";

bool alive(pid_t pid) {
    std::string status = read_file("/proc/" + std::to_string(pid) + "/status");
    return !status.empty() && status.find("(zombie)") == std::string::npos;
}

// The /proc cmdline of a txrx the daemon started as `argv`. When
// DIR/bin/txrx is a wrapper that keeps argv[0] and execs the emulator, the
// emulator's options and the simulator's path sit in between.
std::string txrx_cmdline(const std::vector<std::string>& argv) {
    std::vector<std::string> seen = {argv.front()};
    const TxrxLaunch txrx = txrx_child_launch();
    if (!txrx.prefix.empty()) {
        seen.insert(seen.end(), txrx.prefix.begin() + 1, txrx.prefix.end());
        seen.push_back(txrx.program);
    }
    seen.insert(seen.end(), argv.begin() + 1, argv.end());
    std::string out;
    for (const auto& a : seen) out += a + '\0';
    return out;
}

class DaemonCore : public DaemonFixture {
  protected:
    int gui() const { return 20205 + offset_; }
    std::string sim_log() const { return file("var/run/txrx-sim.log"); }
    pid_t txrx_pid() const { return std::atoi(file("var/run/txrx_pid_file").c_str()); }
};

TEST_F(DaemonCore, StartUpPreparesFilesAndStartsOneTxrxForTheDefaultModem) {
    start();
    const std::string stats = file("var/config/sms_stats_file");
    EXPECT_EQ(stats, std::string(24, '\0'));
    EXPECT_EQ(file("var/run/wirelessmodems"), "/dev/ttyS0\n");
    EXPECT_TRUE(exists(path("var/Inbox/smsinbox.dat")));
    EXPECT_TRUE(exists(path("var/Jobs/pos_offset")));
    ASSERT_TRUE(wait_for([&] { return count_of(sim_log(), "START ") == 1; }));
    EXPECT_EQ(sim_log(), "START /dev/ttyS0\n");
    EXPECT_TRUE(alive(txrx_pid()));
    std::string cmdline = read_file("/proc/" + std::to_string(txrx_pid()) + "/cmdline");
    EXPECT_EQ(cmdline, txrx_cmdline({path("bin/txrx"), "/dev/ttyS0"}));
    // The time client is started once, about a second after start-up.
    EXPECT_TRUE(wait_for([&] { return count_of(file("calls.log"), "msntp") == 1; }));
}

TEST_F(DaemonCore, ExistingFilesAreKeptAndArchivesRestored) {
    const std::string stats(24, '\x07');
    write_file(path("var/config/sms_stats_file"), stats);
    write_file(path("var/run/wirelessmodems"), "/dev/ttyS9\n");  // from an earlier run
    // A saved address book left as an archive in /var is unpacked and removed.
    write_file(path("stage/restored/marker"), "restored");
    ASSERT_EQ(std::system(("tar cf '" + path("var/AddressBook.tar") + "' -C '" + path("stage") +
                           "' restored/marker")
                              .c_str()),
              0);
    start();
    EXPECT_EQ(file("var/config/sms_stats_file"), stats);
    EXPECT_EQ(file("var/run/wirelessmodems"), "/dev/ttyS0\n");
    EXPECT_FALSE(exists(path("var/AddressBook.tar")));
    EXPECT_EQ(file("var/restored/marker"), "restored");
}

TEST_F(DaemonCore, BadInputIsDroppedAndTheNextRequestAnswered) {
    start();
    // The reply goes to the sender of the last datagram.
    UdpClient first, second;
    first.send_to(gui(), std::to_string(kProbe.size()));
    second.send_to(gui(), kProbe);
    EXPECT_EQ(second.receive(), "0");
    EXPECT_FALSE(first.receive(300ms).has_value());

    struct Case {
        const char* what;
        std::string length;
        std::string request;
        std::optional<std::string> reply;
    };
    const std::string invalid = "Invalid String to Parse";
    const std::vector<Case> cases = {
        {"non-numeric length", "abc", kProbe, invalid},
        {"negative length", "-5", kProbe, invalid},
        {"length longer than six bytes", "0000000031", kProbe, invalid},
        {"length larger than the request", "65000", kProbe, "0"},
        {"length cuts the request", "10", kProbe, invalid},
        {"huge announced length", "999999", std::string(60000, 'x'), invalid},
        {"request over 600 bytes", "2000", std::string(2000, 'y'), invalid},
    };
    for (const auto& c : cases) {
        UdpClient cl;
        cl.send_to(gui(), c.length);
        cl.send_to(gui(), c.request);
        EXPECT_EQ(cl.receive(), c.reply) << c.what;
        EXPECT_EQ(ask(kProbe), "0") << "after " << c.what;
    }
    // An empty length datagram is dropped without a reply.
    UdpClient empty;
    empty.send_to(gui(), "");
    EXPECT_EQ(ask(kProbe), "0");
    EXPECT_FALSE(empty.receive(200ms).has_value());
    // A length whose request never comes: the next pair is still understood.
    UdpClient lone;
    lone.send_to(gui(), "31");
    EXPECT_EQ(ask(kProbe), "0");
    EXPECT_EQ(ask(kProbe), "0");
    EXPECT_FALSE(lone.receive(200ms).has_value());

    // Malformed reports and load-balancer results.
    UdpClient peer;
    for (const std::string& report :
         {std::string(), std::string("P"), std::string("SMS"), std::string("SMS:"),
          std::string(300, 'z'), std::string("SMS:") + std::string(60, '\0')})
        peer.send_to(20206 + offset_, report);
    for (const std::string& lb : {std::string(), std::string("LB_OK"), std::string("LB_OK request"),
                                  std::string("LB_OK request 0"), std::string("LB_OK x -3 ERROR"),
                                  std::string("LB_OK x 0 1.2.3.4"), std::string("   LB_OK   "),
                                  std::string("LB_OK a b c d e f g h i j k"), std::string(64, 'L'),
                                  std::string("LB_OK") + std::string(80, ' ')})
        peer.send_to(20207 + offset_, lb);
    EXPECT_EQ(ask(kProbe), "0");
    EXPECT_TRUE(daemon_->running());
}

TEST_F(DaemonCore, DeadTxrxIsRestartedUnlessADialOutHoldsTheModem) {
    start();
    ASSERT_TRUE(wait_for([&] { return alive(txrx_pid()); }));
    const pid_t first = txrx_pid();
    ::kill(first, SIGKILL);
    ASSERT_TRUE(wait_for([&] { return txrx_pid() != first && alive(txrx_pid()); })) << sim_log();
    EXPECT_TRUE(wait_for([&] { return count_of(sim_log(), "START /dev/ttyS0") == 2u; }));
    EXPECT_TRUE(wait_for([&] {
        return read_file("/proc/" + std::to_string(first) + "/status").empty();
    })) << "the dead txrx was never reaped";

    // A dial-out stops txrx and keeps it stopped until released.
    const pid_t second = txrx_pid();
    EXPECT_EQ(ask("DialoutRequest"), "");
    EXPECT_FALSE(alive(second));
    EXPECT_EQ(ask(kProbe), "0");
    EXPECT_EQ(count_of(sim_log(), "START /dev/ttyS0"), 2u);
    EXPECT_EQ(ask("DialoutRelease"), "");
    EXPECT_TRUE(wait_for([&] { return count_of(sim_log(), "START /dev/ttyS0") == 3u; }));
    EXPECT_TRUE(wait_for([&] { return txrx_pid() != second && alive(txrx_pid()); }));

    // Restarts work again after the release.
    const pid_t third = txrx_pid();
    ::kill(third, SIGKILL);
    EXPECT_TRUE(wait_for([&] { return count_of(sim_log(), "START /dev/ttyS0") == 4u; }));

    // Without a pid file a dial-out has nothing to stop, and still answers.
    ASSERT_TRUE(wait_for([&] { return txrx_pid() != third && alive(txrx_pid()); }));
    const pid_t fourth = txrx_pid();
    ::unlink(path("var/run/txrx_pid_file").c_str());
    EXPECT_EQ(ask("DialoutRequest"), "");
    EXPECT_TRUE(alive(fourth));
    EXPECT_EQ(ask("DialoutRelease"), "");
    EXPECT_EQ(ask(kProbe), "0");
}

// One datagram on the database writer's socket, nullopt when none comes.
std::optional<std::string> db_notice(const Fd& db) {
    pollfd p{db.get(), POLLIN, 0};
    if (::poll(&p, 1, 3000) <= 0) return std::nullopt;
    char buf[512];
    ssize_t n = ::recv(db.get(), buf, sizeof buf, 0);
    return n < 0 ? std::nullopt : std::optional<std::string>(std::string(buf, size_t(n)));
}

TEST_F(DaemonCore, LoadBalancerResultsUpdateApiStatusAndTheSlaveOutbox) {
    const std::string api_stat = path("var/config/api_stat.st");
    write_file(api_stat, api_stat_image({2, 3}, 0));
    const std::string outbox = path("var/Outbox/outbox_slave_tmp");
    auto slave_outbox = [&] {
        // Offset word 8: the result field lies at byte 12.
        write_file(outbox, i32_bytes(8) + std::string(12, '\x55'));
    };
    start();
    Fd db = bind_unix_dgram(path("var/run/SQL_SMS"));
    ASSERT_TRUE(db);
    UdpClient lb;
    const int lb_port = 20207 + offset_;
    auto status_of = [&](size_t record) {
        return i16_at(read_file(api_stat), 4 + record * 60 + 4);
    };

    // A result from another unit: status 6 with the slave's address and value.
    slave_outbox();
    lb.send_to(lb_port, "LB_OK other 2 10.0.0.5:1");
    ASSERT_TRUE(wait_for([&] { return status_of(0) == 6; }));
    std::string rec = read_file(api_stat).substr(4, 60);
    EXPECT_EQ(i32_at(rec, 0), 2);
    EXPECT_EQ(static_cast<uint32_t>(i32_at(rec, 52)), ::inet_addr("10.0.0.5"));
    EXPECT_EQ(i32_at(rec, 56), 1);
    EXPECT_EQ(db_notice(db), "add " + outbox + std::string(1, '\0'));
    EXPECT_EQ(i32_at(read_file(outbox), 12), 1);
    EXPECT_EQ(read_file(outbox).size(), 16u);

    // An error result: status 7, the slave outbox file is removed.
    lb.send_to(lb_port, "LB_OK request 3 ERROR");
    ASSERT_TRUE(wait_for([&] { return status_of(1) == 7; }));
    EXPECT_TRUE(wait_for([&] { return !exists(outbox); }));

    // Too many fields: status 8 and result 5.
    slave_outbox();
    lb.send_to(lb_port, "LB_OK x 2 a b");
    ASSERT_TRUE(wait_for([&] { return status_of(0) == 8; }));
    EXPECT_EQ(db_notice(db), "add " + outbox + std::string(1, '\0'));
    EXPECT_EQ(i32_at(read_file(outbox), 12), 5);

    // No result field: an error without touching the outbox file.
    lb.send_to(lb_port, "LB_OK request 2");
    ASSERT_TRUE(wait_for([&] { return status_of(0) == 7; }));
    EXPECT_TRUE(exists(outbox));

    // A forged offset must not grow the file; no notice is sent for it.
    write_file(outbox, i32_bytes(1 << 30) + std::string(12, '\0'));
    lb.send_to(lb_port, "LB_OK x 3 10.0.0.6:9");
    ASSERT_TRUE(wait_for([&] { return status_of(1) == 6; }));
    EXPECT_EQ(read_file(outbox).size(), 16u);
}

TEST_F(DaemonCore, AnsweringModemIsListedAndGetsItsTxrx) {
    PtyModem modem("\r\n+CSQ: 15,99\r\n\r\nOK\r\n");
    ASSERT_EQ(::symlink(modem.slave_path().c_str(), path("dev/ttyS1").c_str()), 0);
    start();
    EXPECT_EQ(modem.received(), "AT+CSQ\r\n");
    EXPECT_EQ(file("var/run/wirelessmodems"), "/dev/ttyS1\n");
    EXPECT_TRUE(wait_for([&] { return sim_log() == "START /dev/ttyS1\n"; })) << sim_log();
}

// smsgwd run to its end (it ends by itself on these command lines): the
// exit status and what it wrote.
std::pair<int, std::string> run_smsgwd(const std::vector<std::string>& args,
                                       const std::string& out) {
    std::vector<std::string> argv = exec_prefix();
    argv.emplace_back(SMSGWD_PATH);
    argv.insert(argv.end(), args.begin(), args.end());
    int status = Child(argv, out).finish(10s);
    return {status, read_file(out)};
}

TEST(DaemonCoreCommandLine, RefusedCommandLinesExitWithStatus2) {
    TempDir dir;
    for (const std::vector<std::string>& args :
         std::vector<std::vector<std::string>>{{"--bogus"},
                                               {"--port-offset", "abc"},
                                               {"--port-offset", "-1"},
                                               {"--port-offset", "40000"},
                                               {"--root"},
                                               {"extra"}}) {
        auto [status, out] = run_smsgwd(args, dir / "out");
        EXPECT_EQ(status, 2) << args[0];
        EXPECT_NE(out.find("usage: "), std::string::npos) << args[0];
    }
    auto [help_status, help] = run_smsgwd({"--help"}, dir / "out");
    EXPECT_EQ(help_status, 0);
    EXPECT_NE(help.find("--spool-dir"), std::string::npos);
    auto [version_status, version] = run_smsgwd({"--version"}, dir / "out");
    EXPECT_EQ(version_status, 0);
    EXPECT_EQ(version.rfind("smsgwd ", 0), 0u);
}

// The exit status stays 0 as on a router, but the log names what is missing.
TEST(DaemonCoreCommandLine, StartUpFailureEndsWithStatus0AndSaysWhy) {
    const int offset = random_port_offset();
    const auto port = [&](int base, const char* peer) {
        return "not started: cannot bind UDP port " + std::to_string(base + offset) +
               " on 127.0.0.1 (" + peer + "): Address already in use\n";
    };
    struct Case {
        int taken_port;           // 0: none
        const char* missing_dir;  // removed from the prepared root
        std::string why;          // ROOT stands for the root
    };
    const std::string no_entry = ": No such file or directory\n";
    for (const Case& c : std::vector<Case>{
             {20207, "", port(20207, "load balancer")},
             {20205, "", port(20205, "web interface")},
             {20206, "", port(20206, "txrx reports")},
             {0, "var/run",
              "not started: cannot bind ROOT/var/run/SQL_SMSTEMP (database notices)" + no_entry},
             {0, "var", "cannot make directory ROOT/var/Jobs" + no_entry}}) {
        TempDir root;
        prepare_root(root.path());
        std::optional<UdpListener> squatter;
        if (c.taken_port) {
            ASSERT_TRUE(squatter.emplace(c.taken_port + offset).ok());
        }
        if (*c.missing_dir) std::filesystem::remove_all(root / c.missing_dir);
        auto [status, out] = run_smsgwd(
            {"--root", root.path(), "--port-offset", std::to_string(offset)}, root / "out");
        EXPECT_EQ(status, 0);
        std::string why = c.why;
        if (why.find("ROOT") != std::string::npos) why.replace(why.find("ROOT"), 4, root.path());
        EXPECT_NE(out.find("modem: " + why), std::string::npos) << out;
        EXPECT_FALSE(exists(root / "var/run/txrx_pid_file"));  // no txrx was started
    }
}

pid_t start_as(const std::string& program, const std::string& arg0, const char* arg1,
               const std::vector<std::string>& env) {
    pid_t pid = ::fork();
    if (pid == 0) {
        for (const auto& e : env) ::putenv(const_cast<char*>(e.c_str()));
        ::execl(program.c_str(), arg0.c_str(), arg1, static_cast<char*>(nullptr));
        ::_exit(127);
    }
    return pid;
}

TEST_F(DaemonCore, StartUpEndsOnlyThisRootsLeftoverChildren) {
    TempDir other;
    prepare_root(other.path());
    // Its ports must not overlap ours (20202..20207 + offset).
    const int other_offset = offset_ >= 15000 ? offset_ - 7000 : offset_ + 7000;
    const pid_t foreign = start_as(
        other / "bin/txrx", other / "bin/txrx", "/dev/ttyS0",
        {"SMSGW_ROOT=" + other.path(), "SMSGW_PORT_OFFSET=" + std::to_string(other_offset)});
    const pid_t leftover = start_as("/bin/sleep", path("bin/msntp"), "30", {});
    // Both must have started their programs before the daemon looks.
    ASSERT_TRUE(wait_for([&] { return exists(other / "var/run/txrx_pid_file"); }));
    ASSERT_TRUE(wait_for([&] {
        std::string c = read_file("/proc/" + std::to_string(leftover) + "/cmdline");
        return c.rfind(path("bin/msntp"), 0) == 0;
    }));
    start();
    int status = 0;
    EXPECT_EQ(::waitpid(leftover, &status, 0), leftover);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    EXPECT_EQ(::waitpid(foreign, &status, WNOHANG), 0) << "another root's txrx was ended";
    ::kill(foreign, SIGKILL);
    ::waitpid(foreign, &status, 0);
}

}  // namespace
}  // namespace smsgw::test
