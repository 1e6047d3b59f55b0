// The real smsgwd in a sandbox root: start-up files and children, the
// request framing and bad input, dial-out, txrx restarts and the
// load-balancer table, stopping it as a service, and txrx-sim beside it.
#include <arpa/inet.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "common/fileops.h"
#include "common/net.h"
#include "support/test_support.h"

namespace smsgw::test {
namespace {

using namespace std::chrono_literals;

const std::string kProbe = "get-sms total-entries groups^|^";
const std::string kInvalid = "Invalid String to Parse";

bool alive(pid_t pid) {
    std::string status = read_file("/proc/" + std::to_string(pid) + "/status");
    return !status.empty() && status.find("(zombie)") == std::string::npos;
}

class DaemonCore : public DaemonFixture {
  protected:
    int gui() const { return 20205 + offset_; }
    size_t starts() const { return count_of(file("var/run/txrx-sim.log"), "START /dev/ttyS0\n"); }
    pid_t txrx_pid() const { return std::atoi(file("var/run/txrx_pid_file").c_str()); }
    bool new_txrx(pid_t old) {
        return wait_for([&] { return txrx_pid() != old && alive(txrx_pid()); });
    }
};

TEST_F(DaemonCore, ExistingFilesAreKeptArchivesRestoredAndTheAnsweringModemGetsItsTxrx) {
    const std::string stats(24, '\x07');
    write_file(path("var/config/sms_stats_file"), stats);
    write_file(path("var/run/wirelessmodems"), "/dev/ttyS9\n");  // from an earlier run
    // A saved address book left as an archive in /var is unpacked and removed.
    write_file(path("stage/restored/marker"), "restored");
    const std::string tar = "tar cf " + path("var/AddressBook.tar") + " -C " + path("stage");
    ASSERT_EQ(std::system((tar + " restored/marker").c_str()), 0);
    PtyModem modem("\r\n+CSQ: 15,99\r\n\r\nOK\r\n");
    ASSERT_EQ(::symlink(modem.slave_path().c_str(), path("dev/ttyS1").c_str()), 0);
    start({}, false);
    EXPECT_EQ(file("var/run/wirelessmodems"), "/dev/ttyS1\n");
    EXPECT_TRUE(wait_file("var/run/txrx-sim.log", "START /dev/ttyS1\n"));
    EXPECT_EQ(file("var/config/sms_stats_file"), stats);
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

    const struct {
        std::string length, request;
        std::optional<std::string> reply;
    } cases[] = {
        {"abc", kProbe, kInvalid},
        {"-5", kProbe, kInvalid},
        {"0000000031", kProbe, kInvalid},            // longer than six bytes
        {"65000", kProbe, "0"},                      // more than came: what came is taken
        {"10", kProbe, kInvalid},                    // cuts the request
        {"2147483647", kProbe, "0"},                 // only six bytes are read
        {"2000", std::string(2000, 'y'), kInvalid},  // over 600 bytes
        {"", kProbe, std::nullopt},  // an empty length is dropped; the request is one
        {"31", "", std::nullopt},    // a length whose request never comes
    };
    for (const auto& c : cases) {
        SCOPED_TRACE("length " + c.length);
        UdpClient cl;
        cl.send_to(gui(), c.length);
        if (!c.request.empty()) cl.send_to(gui(), c.request);
        EXPECT_EQ(cl.receive(c.reply ? 3000ms : 200ms), c.reply);
        EXPECT_EQ(ask(kProbe), "0");
    }
    // A request that only starts like a length is still a request, even
    // when a datagram of that length follows it.
    UdpClient cl;
    for (const std::string& d : {std::string("3"), std::string("31 "), kProbe})
        cl.send_to(gui(), d);
    EXPECT_EQ(cl.receive(), "ERROR");
    EXPECT_EQ(ask(kProbe), "0");
    EXPECT_TRUE(daemon_->running());
}

TEST_F(DaemonCore, DeadTxrxIsRestartedUnlessADialOutHoldsTheModem) {
    start();
    EXPECT_EQ(file("var/config/sms_stats_file"), std::string(24, '\0'));
    EXPECT_EQ(file("var/run/wirelessmodems"), "/dev/ttyS0\n");
    // The time client is started once, about a second after start-up.
    EXPECT_TRUE(wait_for([&] { return count_of(file("calls.log"), "msntp") == 1; }));

    ASSERT_TRUE(new_txrx(0));
    const pid_t first = txrx_pid();
    ASSERT_TRUE(signal_process(first, SIGKILL));
    ASSERT_TRUE(new_txrx(first));
    EXPECT_TRUE(wait_for([&] { return starts() == 2; }));

    // A dial-out stops txrx and keeps it stopped until released.
    const pid_t second = txrx_pid();
    EXPECT_EQ(ask("DialoutRequest"), "");
    EXPECT_FALSE(alive(second));
    EXPECT_EQ(ask(kProbe), "0");
    EXPECT_EQ(starts(), 2u);
    EXPECT_EQ(ask("DialoutRelease"), "");
    EXPECT_TRUE(wait_for([&] { return starts() == 3; }));
    ASSERT_TRUE(new_txrx(second));
}

TEST_F(DaemonCore, LoadBalancerResultsUpdateApiStatusAndTheSlaveOutbox) {
    const std::string api_stat = path("var/config/api_stat.st");
    const std::string outbox = path("var/Outbox/outbox_slave_tmp");
    write_file(api_stat, api_stat_image({2, 3}, 0));
    start();
    Fd db = bind_unix_dgram(path("var/run/SQL_SMS"));
    ASSERT_TRUE(db);
    const std::string notice = "add " + outbox + std::string(1, '\0');
    // outbox: the result word at byte 12 afterwards (-1: the file is gone,
    // 0: untouched); no notice is sent for an error or a forged offset.
    const struct {
        std::string datagram;
        int record, status, result;
        bool forged = false;
    } cases[] = {
        {"LB_OK other 2 10.0.0.5:1", 0, 6, 1},  // another unit: its address and value
        {"LB_OK request 3 ERROR", 1, 7, -1},
        {"LB_OK x 2 a b", 0, 8, 5},  // too many fields
        {"LB_OK request 2", 0, 7, 0},
        {"LB_OK x 3 10.0.0.6:9", 1, 6, 0, true},  // the offset must not grow the file
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.datagram);
        // Offset word 8: the result field lies at byte 12.
        write_file(outbox, i32_bytes(c.forged ? 1 << 30 : 8) + std::string(12, '\0'));
        UdpClient().send_to(20207 + offset_, c.datagram);
        ASSERT_TRUE(
            wait_for([&] { return api_status_of(read_file(api_stat), 2 + c.record) == c.status; }));
        pollfd p{db.get(), POLLIN, 0};
        char buf[512];
        std::string got;
        if (::poll(&p, 1, c.result > 0 ? 3000 : 200) > 0)
            got.assign(buf, static_cast<size_t>(
                                std::max<ssize_t>(::recv(db.get(), buf, sizeof buf, 0), 0)));
        EXPECT_EQ(got, c.result > 0 ? notice : "");
        EXPECT_TRUE(wait_for([&] { return exists(outbox) == (c.result >= 0); }));
        EXPECT_EQ(read_file(outbox).size(), c.result >= 0 ? 16u : 0u);
        EXPECT_EQ(i32_at(read_file(outbox), 12), c.result > 0 ? c.result : 0);
    }
    const std::string rec = read_file(api_stat).substr(64, 60);
    EXPECT_EQ(i32_at(rec, 0), 3);
    EXPECT_EQ(static_cast<uint32_t>(i32_at(rec, 52)), ::inet_addr("10.0.0.6"));
    EXPECT_EQ(i32_at(rec, 56), 9);
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
    const std::tuple<const char*, int, const char*> cases[] = {
        {"--bogus", 2, "usage: "}, {"--help", 0, "--spool-dir"}, {"--version", 0, "smsgwd "}};
    for (const auto& [arg, status, says] : cases) {
        auto [got, out] = run_smsgwd({arg}, dir / "out");
        EXPECT_EQ(got, status) << arg;
        EXPECT_NE(out.find(says), std::string::npos) << arg;
    }
}

// The exit status stays 0 as on a router, but the log names what is missing.
TEST(DaemonCoreCommandLine, StartUpFailureEndsWithStatus0AndSaysWhy) {
    const int offset = random_port_offset();
    const auto port = [&](int base, const char* peer) {
        return "not started: cannot bind UDP port " + std::to_string(base + offset) +
               " on 127.0.0.1 (" + peer + "): Address already in use\n";
    };
    const std::string no_entry = ": No such file or directory\n";
    const struct {
        int taken_port;           // 0: none
        const char* missing_dir;  // removed from the prepared root
        std::string why;          // ROOT stands for the root
    } cases[] = {
        {20207, "", port(20207, "load balancer")},
        {20205, "", port(20205, "web interface")},
        {0, "var/run",
         "not started: cannot bind ROOT/var/run/SQL_SMSTEMP (database notices)" + no_entry},
        {0, "var", "cannot make directory ROOT/var/Jobs" + no_entry},
    };
    for (const auto& c : cases) {
        TempDir root;
        prepare_root(root.path());
        std::optional<UdpListener> squatter;
        if (c.taken_port) squatter.emplace(c.taken_port + offset);
        ASSERT_TRUE(!squatter || squatter->ok());
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

// The daemon as a service: SIGTERM and SIGINT save the address book as
// SIGUSR1 does and end the transceiver, and both init scripts keep the book
// across restarts and reboots.
class DaemonStop : public DaemonFixture {
  protected:
    std::string book() {
        EXPECT_EQ(ask("get-sms phone_book 1^|^"), path("var/run/RESPONSE_FILE"));
        return file("var/run/RESPONSE_FILE");
    }
    void add(const std::string& name) {
        ASSERT_EQ(ask("add-sms phone_book " + name + "^|^55" + name + "^|^^|^"), "SUCCESS");
    }
    pid_t pid_in(const std::string& rel) const { return std::atoi(file(rel).c_str()); }
};

TEST_F(DaemonStop, TermAndIntSaveTheBookAndEndTheChildren) {
    start();
    EXPECT_NE(daemon_log().find("smsgwd " SMSGW_VERSION " started: root " + root_.path() +
                                ", 1 modem (/dev/ttyS0), ports: web " +
                                std::to_string(20205 + offset_) + ", txrx "),
              std::string::npos)
        << daemon_log();
    int n = 0;
    for (int sig : {SIGTERM, SIGINT}) {
        add("P" + std::to_string(++n));
        const std::string before = book();
        const pid_t txrx = pid_in("var/run/txrx_pid_file");

        daemon_->kill_now(sig);
        ASSERT_TRUE(wait_for([&] { return !daemon_->running(); })) << sig;
        EXPECT_EQ(daemon_->exit_status(), 0);
        EXPECT_FALSE(alive(txrx));
        EXPECT_NE(daemon_log().find("stopped: the address book was saved"), std::string::npos);
        stop();
        start();
        EXPECT_EQ(book(), before) << sig;
    }
}

// Each script is run as the init system would, on a sandbox root through
// its settings; procd and rc.common are played by a small stub.
struct Script {
    const char* name;
    const char* save;  // the action that saves without stopping
};

class InitScript : public DaemonStop, public ::testing::WithParamInterface<Script> {
  protected:
    ~InitScript() override { signal_process(pid_in("var/run/smsgwd.pid"), SIGKILL); }
    int run(const std::string& action) {
        const std::string src = SMSGW_SOURCE_DIR "/packaging/";
        const std::string build = std::filesystem::path(SMSGWD_PATH).parent_path();
        std::vector<std::string> argv = {"sh", build + "/packaging/sysv/smsgwd", action};
        std::vector<std::string> env = {"DAEMON=" SMSGWD_PATH,
                                        "ARCHIVE_TOOL=" + src + "create_address_book_tar",
                                        "SERVICE_LIB=" + src + "service.sh",
                                        "SMSGWD_ROOT=" + root_.path(),
                                        "SMSGWD_OPTS=--port-offset " + std::to_string(offset_),
                                        "SMSGW_ARCHIVE_DIR=" + flash_.path()};
        if (std::string(GetParam().name) == "procd") {
            argv = {"sh", SMSGW_SOURCE_DIR "/tests/support/rc-common-stub.sh",
                    src + "openwrt/smsgwd/files/smsgwd.init", action};
            env = {"SMSGW_STUB_PROG=" SMSGWD_PATH,
                   "SMSGW_STUB_ARCHIVE_TOOL=" + src + "create_address_book_tar",
                   "SMSGW_STUB_SERVICE_LIB=" + src + "service.sh",
                   "SMSGW_STUB_STATE=" + flash_.path(),
                   "SMSGW_UCI_root=" + root_.path(),
                   "SMSGW_UCI_port_offset=" + std::to_string(offset_),
                   "SMSGW_UCI_archive_dir=" + flash_.path()};
        }
        return Child(argv, flash_ / "output", "", env).finish(60s);
    }
    std::string output() const { return read_file(flash_ / "output"); }

    TempDir flash_;
};

TEST_P(InitScript, RestartsAndRebootsKeepTheBook) {
    if (!exec_prefix().empty()) GTEST_SKIP() << "the scripts start the daemon natively";
    ASSERT_EQ(run("start"), 0) << output();
    add("A");
    ASSERT_EQ(run(GetParam().save), 0) << output();
    const std::string saved = book();
    // A power cut: what was saved is in flash, /var is empty at the boot.
    ASSERT_TRUE(signal_process(pid_in("var/run/smsgwd.pid"), SIGKILL));
    std::filesystem::remove_all(path("var"));
    ASSERT_EQ(run("start"), 0) << output();
    EXPECT_EQ(book(), saved);

    add("C");
    const std::string all = book();
    ASSERT_EQ(run("restart"), 0) << output();
    EXPECT_EQ(book(), all);
    ASSERT_EQ(run("stop"), 0) << output();  // then a reboot
    std::filesystem::remove_all(path("var"));
    ASSERT_EQ(run("start"), 0) << output();
    EXPECT_EQ(book(), all);
}

INSTANTIATE_TEST_SUITE_P(, InitScript,
                         ::testing::Values(Script{"sysv", "reload"}, Script{"procd", "save"}),
                         [](const auto& p) { return std::string(p.param.name); });

// txrx-sim as a development modem beside the daemon: the loop-back clock
// message it injects sets the router's time. A loop-back inbox record: a host-order 32-bit length,
// then the text.
std::string inbox_record(const std::string& head) {
    const std::string text = head + "TIMESETTINGS_LOOP_BACK_MSG";
    return i32_bytes(static_cast<int32_t>(text.size())) + text;
}

class TxrxSim : public DaemonFixture {
  protected:
    // Runs a txrx-sim command with the root and port offset in its
    // environment: its exit status, -1 when it does not end in time. In a
    // cross build it runs under the emulator, so the inbox record lengths
    // it writes have the daemon's byte order.
    int sim(const std::vector<std::string>& args) {
        std::vector<std::string> argv = exec_prefix();
        argv.push_back(TXRX_SIM_PATH);
        argv.insert(argv.end(), args.begin(), args.end());
        return Child(argv, path("sim.out"), "",
                     {"SMSGW_ROOT=" + root_.path(), "SMSGW_PORT_OFFSET=" + std::to_string(offset_)})
            .finish(10s);
    }
    std::string inbox() const { return file("var/Inbox/smsinbox.dat"); }
};

TEST_F(TxrxSim, BadArgumentsAreRefusedAndWriteNothing) {
    // No daemon: only a transceiver writes the pid file.
    const std::vector<std::vector<std::string>> bad = {
        {}, {"inject", "+49"}, {"/dev/ttyS0", "/dev/ttyS1"}, {"loopback", "24/03/01"}};
    for (const auto& args : bad) {
        EXPECT_EQ(sim(args), 2) << args.size();
        EXPECT_EQ(file("sim.out").rfind("txrx-sim: ", 0), 0u) << file("sim.out");
    }
    EXPECT_EQ(inbox(), "");
    EXPECT_FALSE(exists(path("var/run/txrx_pid_file")));
}

TEST_F(TxrxSim, LoopBackWithAStampSetsThatTime) {
    start();
    ASSERT_EQ(sim({"loopback", "+4999", "24/03/01 12:05:09+04"}), 0) << file("sim.out");
    const std::string first = inbox_record("+4999^|^24/03/01^|^12:05:09+04^|^");
    EXPECT_EQ(inbox(), first);
    ASSERT_TRUE(
        wait_for([&] { return count_of(file("calls.log"), "date 030112052024.09\n") == 1; }, 10s))
        << file("calls.log") << daemon_log();
}

}  // namespace
}  // namespace smsgw::test
