// The real smsgwd in a sandbox root: start-up files and children, the
// request framing, the send-sms reply forms and the job hand-off, signals,
// dial-out, txrx restarts, the load-balancer table and bad input.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "send/sender.h"
#include "support/test_support.h"

namespace smsgw {
namespace {

using namespace std::chrono_literals;
using test::TempDir;
using test::UdpClient;

const std::string kProbe = "get-sms total-entries groups^|^";

size_t count_of(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

bool alive(pid_t pid) {
    std::string status = test::read_file("/proc/" + std::to_string(pid) + "/status");
    return !status.empty() && status.find("(zombie)") == std::string::npos;
}

int32_t i32_at(const std::string& bytes, size_t offset) {
    int32_t v = 0;
    if (offset + 4 <= bytes.size()) std::memcpy(&v, bytes.data() + offset, 4);
    return v;
}

int16_t i16_at(const std::string& bytes, size_t offset) {
    int16_t v = 0;
    if (offset + 2 <= bytes.size()) std::memcpy(&v, bytes.data() + offset, 2);
    return v;
}

std::string i32_bytes(int32_t v) {
    return std::string(reinterpret_cast<const char*>(&v), 4);
}

// One API status record: id, status, padding, 44 bytes of time, address, value.
std::string api_record(int32_t id) {
    std::string r = i32_bytes(id);
    r.resize(60, '\0');
    return r;
}

// The /proc cmdline of a txrx the daemon started as `argv`. When
// DIR/bin/txrx is a wrapper that keeps argv[0] and execs the emulator, the
// emulator's options and the simulator's path sit in between.
std::string txrx_cmdline(const std::vector<std::string>& argv) {
    std::vector<std::string> seen = {argv.front()};
    const test::TxrxLaunch txrx = test::txrx_child_launch();
    if (!txrx.prefix.empty()) {
        seen.insert(seen.end(), txrx.prefix.begin() + 1, txrx.prefix.end());
        seen.push_back(txrx.program);
    }
    seen.insert(seen.end(), argv.begin() + 1, argv.end());
    std::string out;
    for (const auto& a : seen) out += a + '\0';
    return out;
}

// A sandbox root with a running daemon that answers requests.
class DaemonCore : public ::testing::Test {
  protected:
    void start(std::vector<std::string> extra = {}) {
        daemon_ = std::make_unique<test::Daemon>(root_.path(), offset_, std::move(extra));
        ASSERT_TRUE(daemon_->wait_ready()) << "stderr: " << daemon_->stderr_text();
        // txrx-sim logs its start once it listens for jobs.
        ASSERT_TRUE(test::wait_for([&] { return count_of(sim_log(), "START ") >= 1; }));
    }
    void TearDown() override {
        daemon_.reset();
        ::unsetenv("SMSGW_SIM_SILENT");
    }
    int gui() const { return 20205 + offset_; }
    std::string path(const std::string& rel) const { return root_ / rel; }
    std::string sim_log() const { return test::read_file(path("var/run/txrx-sim.log")); }
    pid_t txrx_pid() const {
        return std::atoi(test::read_file(path("var/run/txrx_pid_file")).c_str());
    }
    std::optional<std::string> ask(const std::string& text) { return client_.request(gui(), text); }
    // A send request file in the spool directory "DIR/tmp".
    std::string request_file(const std::string& name, const std::string& text,
                             const std::string& numbers) {
        std::string p = path("tmp/" + name);
        test::write_file(p, build_request_file("admin", text, numbers, "", ""));
        return p;
    }

    TempDir root_;
    int offset_ = test::random_port_offset();
    std::unique_ptr<test::Daemon> daemon_;
    UdpClient client_;

    void SetUp() override { test::prepare_root(root_.path()); }
};

TEST_F(DaemonCore, StartUpPreparesFilesAndStartsOneTxrxForTheDefaultModem) {
    start();
    const std::string stats = test::read_file(path("var/config/sms_stats_file"));
    EXPECT_EQ(stats, std::string(24, '\0'));
    EXPECT_EQ(test::read_file(path("var/run/wirelessmodems")), "/dev/ttyS0\n");
    EXPECT_TRUE(test::exists(path("var/Inbox/smsinbox.dat")));
    EXPECT_TRUE(test::exists(path("var/Jobs/pos_offset")));
    ASSERT_TRUE(test::wait_for([&] { return count_of(sim_log(), "START ") == 1; }));
    EXPECT_EQ(sim_log(), "START /dev/ttyS0\n");
    EXPECT_TRUE(alive(txrx_pid()));
    std::string cmdline = test::read_file("/proc/" + std::to_string(txrx_pid()) + "/cmdline");
    EXPECT_EQ(cmdline, txrx_cmdline({path("bin/txrx"), "/dev/ttyS0"}));
    // The time client is started once, about a second after start-up.
    EXPECT_TRUE(
        test::wait_for([&] { return count_of(test::read_file(path("calls.log")), "msntp") == 1; }));
}

TEST_F(DaemonCore, ExistingFilesAreKeptAndArchivesRestored) {
    const std::string stats(24, '\x07');
    test::write_file(path("var/config/sms_stats_file"), stats);
    test::write_file(path("var/run/wirelessmodems"), "/dev/ttyS9\n");  // from an earlier run
    // A saved address book left as an archive in /var is unpacked and removed.
    test::write_file(path("stage/restored/marker"), "restored");
    ASSERT_EQ(std::system(("tar cf '" + path("var/AddressBook.tar") + "' -C '" + path("stage") +
                           "' restored/marker")
                              .c_str()),
              0);
    start();
    EXPECT_EQ(test::read_file(path("var/config/sms_stats_file")), stats);
    EXPECT_EQ(test::read_file(path("var/run/wirelessmodems")), "/dev/ttyS0\n");
    EXPECT_FALSE(test::exists(path("var/AddressBook.tar")));
    EXPECT_EQ(test::read_file(path("var/restored/marker")), "restored");
}

TEST_F(DaemonCore, ReplyGoesToTheSenderOfTheLastDatagram) {
    start();
    UdpClient first, second;
    first.send_to(gui(), std::to_string(kProbe.size()));
    second.send_to(gui(), kProbe);
    EXPECT_EQ(second.receive(), "0");
    EXPECT_FALSE(first.receive(300ms).has_value());
}

TEST_F(DaemonCore, BadFramingIsDroppedAndTheNextRequestAnswered) {
    start();
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
    EXPECT_TRUE(daemon_->running());
}

TEST_F(DaemonCore, MalformedPeerDatagramsDoNotDisturbTheDaemon) {
    start();
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

TEST_F(DaemonCore, SendSmsIsHandedOverOrQueuedWhileAJobIsOutstanding) {
    ::setenv("SMSGW_SIM_SILENT", "1", 1);  // txrx-sim does not report "P_JB"
    start();
    const std::string stats = path("var/config/job_stats_file");
    const std::string first = request_file("req-1", "first text", "+4915550001^|^");
    EXPECT_EQ(ask("send-sms " + first), "");  // handed over: an empty reply
    ASSERT_TRUE(test::wait_for([&] { return count_of(sim_log(), "JOB ") == 1; }));
    EXPECT_NE(sim_log().find(" api=0 text=first text to=+4915550001\n"), std::string::npos)
        << sim_log();
    EXPECT_EQ(test::read_file(stats), "0\n0\n1");

    // Queued behind the outstanding job, each counted in the statistics.
    for (int i = 2; i <= 3; ++i) {
        const std::string req =
            request_file("req-" + std::to_string(i), "text " + std::to_string(i),
                         "+491555000" + std::to_string(i) + "^|^");
        EXPECT_EQ(ask("send-sms " + req), "OK");
    }
    EXPECT_EQ(test::read_file(stats), "2\n0\n1");
    EXPECT_EQ(count_of(sim_log(), "JOB "), 1u);

    // SIGUSR2 resets the counter: the next queued request counts from 0.
    ::kill(daemon_->pid(), SIGUSR2);
    EXPECT_EQ(ask(kProbe), "0");
    EXPECT_EQ(ask("send-sms " + request_file("req-4", "text 4", "+4915550004^|^")), "OK");
    EXPECT_EQ(test::read_file(stats), "1\n0\n1");

    // txrx reports the first job done; the oldest queued one follows.
    UdpClient txrx;
    txrx.send_to(20206 + offset_, "P_JB and anything after");
    ASSERT_TRUE(test::wait_for([&] { return count_of(sim_log(), "JOB ") == 2; }, 8000ms))
        << sim_log();
    EXPECT_NE(sim_log().find("text=text 2 to=+4915550002\n"), std::string::npos) << sim_log();
}

TEST_F(DaemonCore, RequestFilesOnlyFromTheSpoolDirectoriesGiven) {
    TempDir spool;
    start({"--spool-dir", spool.path()});
    // DIR/tmp is a spool directory only by default.
    const std::string refused = request_file("req-tmp", "from tmp", "+4915550001^|^");
    EXPECT_EQ(ask("send-sms " + refused), "");
    const std::string accepted = spool / "req";
    test::write_file(accepted, build_request_file("admin", "from spool", "+4915550002^|^", "", ""));
    EXPECT_EQ(ask("send-sms " + accepted), "");
    ASSERT_TRUE(test::wait_for([&] { return count_of(sim_log(), "JOB ") == 1; }));
    EXPECT_NE(sim_log().find("text=from spool to=+4915550002\n"), std::string::npos) << sim_log();
    EXPECT_TRUE(test::exists(refused));  // neither used nor deleted
}

TEST_F(DaemonCore, SaveRequestSignalWritesTheAddressBook) {
    start();
    EXPECT_EQ(ask("add-sms phone_book Alice^|^+4915550001^|^friend^|^"), "SUCCESS");
    test::write_file(path("var/run/save_flag_file"), "set by the web interface");
    ::kill(daemon_->pid(), SIGUSR1);
    EXPECT_TRUE(test::wait_for([&] {
        return test::read_file(path("var/run/save_flg_file")) ==
               "save_flag==1\nafter strcpy,parse\n";
    }));
    EXPECT_TRUE(test::wait_for([&] { return !test::exists(path("var/run/save_flag_file")); }));
    EXPECT_NE(test::read_file(path("var/AddressBook/Address_Book")).find("Alice"),
              std::string::npos);
    EXPECT_EQ(ask("get-sms total-entries phone_book^|^"), "1");
}

TEST_F(DaemonCore, DeadTxrxIsRestartedUnlessADialOutHoldsTheModem) {
    start();
    ASSERT_TRUE(test::wait_for([&] { return alive(txrx_pid()); }));
    const pid_t first = txrx_pid();
    ::kill(first, SIGKILL);
    ASSERT_TRUE(test::wait_for([&] { return txrx_pid() != first && alive(txrx_pid()); }))
        << sim_log();
    EXPECT_TRUE(test::wait_for([&] { return count_of(sim_log(), "START /dev/ttyS0") == 2u; }));
    EXPECT_TRUE(test::wait_for([&] {
        return test::read_file("/proc/" + std::to_string(first) + "/status").empty();
    })) << "the dead txrx was never reaped";

    // A dial-out stops txrx and keeps it stopped until released.
    const pid_t second = txrx_pid();
    EXPECT_EQ(ask("DialoutRequest"), "");
    EXPECT_FALSE(alive(second));
    EXPECT_EQ(ask(kProbe), "0");
    EXPECT_EQ(count_of(sim_log(), "START /dev/ttyS0"), 2u);
    EXPECT_EQ(ask("DialoutRelease"), "");
    EXPECT_TRUE(test::wait_for([&] { return count_of(sim_log(), "START /dev/ttyS0") == 3u; }));
    EXPECT_TRUE(test::wait_for([&] { return txrx_pid() != second && alive(txrx_pid()); }));

    // Restarts work again after the release.
    const pid_t third = txrx_pid();
    ::kill(third, SIGKILL);
    EXPECT_TRUE(test::wait_for([&] { return count_of(sim_log(), "START /dev/ttyS0") == 4u; }));
}

TEST_F(DaemonCore, DialOutWithoutPidFileStillAnswers) {
    start();
    ASSERT_TRUE(test::wait_for([&] { return txrx_pid() > 0; }));
    const pid_t txrx = txrx_pid();
    ::unlink(path("var/run/txrx_pid_file").c_str());
    EXPECT_EQ(ask("DialoutRequest"), "");
    EXPECT_TRUE(alive(txrx));
    EXPECT_EQ(ask("DialoutRelease"), "");
    EXPECT_EQ(ask(kProbe), "0");
}

TEST_F(DaemonCore, CsvExportAnswersWithTheExportPath) {
    start();
    EXPECT_EQ(ask("add-sms phone_book Bob^|^+4915550009^|^^|^"), "SUCCESS");
    const std::string export_path = path("var/run/QX_Address_Book.csv");
    EXPECT_EQ(ask("CSVEXPORT"), export_path);
    EXPECT_EQ(test::read_file(path("var/run/csv_export_file_location_file")), export_path + "\n");
    EXPECT_NE(test::read_file(export_path).find("+4915550009"), std::string::npos);
    EXPECT_NE(test::read_file(path("calls.log")).find("create_address_book_tar"),
              std::string::npos);
    test::write_file(path("var/run/AddressBook.csv"), "");
    test::write_file(path("var/run/csv_frmt.dat"), "");
    EXPECT_EQ(ask("CSVFILE"), "");
    EXPECT_FALSE(test::exists(path("var/run/csv_frmt.dat")));
}

// A Unix datagram socket standing in for the database writer.
class DatabaseWriter {
  public:
    explicit DatabaseWriter(const std::string& path) {
        fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un a{};
        a.sun_family = AF_UNIX;
        std::strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
        ::unlink(path.c_str());
        EXPECT_EQ(::bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    }
    ~DatabaseWriter() { ::close(fd_); }
    std::optional<std::string> receive() {
        pollfd p{fd_, POLLIN, 0};
        if (::poll(&p, 1, 3000) <= 0) return std::nullopt;
        char buf[512];
        ssize_t n = ::recv(fd_, buf, sizeof buf, 0);
        return n < 0 ? std::nullopt : std::optional<std::string>(std::string(buf, size_t(n)));
    }

  private:
    int fd_ = -1;
};

TEST_F(DaemonCore, LoadBalancerResultsUpdateApiStatusAndTheSlaveOutbox) {
    const std::string api_stat = path("var/config/api_stat.st");
    test::write_file(api_stat, std::string(4, '\0') + api_record(2) + api_record(3));
    const std::string outbox = path("var/Outbox/outbox_slave_tmp");
    auto slave_outbox = [&] {
        // Offset word 8: the result field lies at byte 12.
        test::write_file(outbox, i32_bytes(8) + std::string(12, '\x55'));
    };
    start();
    DatabaseWriter db(path("var/run/SQL_SMS"));
    UdpClient lb;
    const int lb_port = 20207 + offset_;
    auto status_of = [&](size_t record) {
        return i16_at(test::read_file(api_stat), 4 + record * 60 + 4);
    };

    // A result from another unit: status 6 with the slave's address and value.
    slave_outbox();
    lb.send_to(lb_port, "LB_OK other 2 10.0.0.5:1");
    ASSERT_TRUE(test::wait_for([&] { return status_of(0) == 6; }));
    std::string rec = test::read_file(api_stat).substr(4, 60);
    EXPECT_EQ(i32_at(rec, 0), 2);
    EXPECT_EQ(static_cast<uint32_t>(i32_at(rec, 52)), ::inet_addr("10.0.0.5"));
    EXPECT_EQ(i32_at(rec, 56), 1);
    EXPECT_EQ(db.receive(), "add " + outbox + std::string(1, '\0'));
    EXPECT_EQ(i32_at(test::read_file(outbox), 12), 1);
    EXPECT_EQ(test::read_file(outbox).size(), 16u);

    // An error result: status 7, the slave outbox file is removed.
    lb.send_to(lb_port, "LB_OK request 3 ERROR");
    ASSERT_TRUE(test::wait_for([&] { return status_of(1) == 7; }));
    EXPECT_TRUE(test::wait_for([&] { return !test::exists(outbox); }));

    // Too many fields: status 8 and result 5.
    slave_outbox();
    lb.send_to(lb_port, "LB_OK x 2 a b");
    ASSERT_TRUE(test::wait_for([&] { return status_of(0) == 8; }));
    EXPECT_EQ(db.receive(), "add " + outbox + std::string(1, '\0'));
    EXPECT_EQ(i32_at(test::read_file(outbox), 12), 5);

    // No result field: an error without touching the outbox file.
    lb.send_to(lb_port, "LB_OK request 2");
    ASSERT_TRUE(test::wait_for([&] { return status_of(0) == 7; }));
    EXPECT_TRUE(test::exists(outbox));

    // A forged offset must not grow the file; no notice is sent for it.
    test::write_file(outbox, i32_bytes(1 << 30) + std::string(12, '\0'));
    lb.send_to(lb_port, "LB_OK x 3 10.0.0.6:9");
    ASSERT_TRUE(test::wait_for([&] { return status_of(1) == 6; }));
    EXPECT_EQ(test::read_file(outbox).size(), 16u);
}

TEST_F(DaemonCore, AnsweringModemIsListedAndGetsItsTxrx) {
    test::PtyModem modem("\r\n+CSQ: 15,99\r\n\r\nOK\r\n");
    ASSERT_EQ(::symlink(modem.slave_path().c_str(), path("dev/ttyS1").c_str()), 0);
    start();
    EXPECT_EQ(modem.received(), "AT+CSQ\r\n");
    EXPECT_EQ(test::read_file(path("var/run/wirelessmodems")), "/dev/ttyS1\n");
    EXPECT_TRUE(test::wait_for([&] { return sim_log() == "START /dev/ttyS1\n"; })) << sim_log();
}

// smsgwd run to completion (it ends by itself on these command lines).
struct Finished {
    int status = -1;
    std::string out;
};

Finished run_smsgwd(const std::vector<std::string>& args, const std::string& out_path) {
    std::vector<std::string> argv = test::exec_prefix();
    argv.emplace_back(SMSGWD_PATH);
    argv.insert(argv.end(), args.begin(), args.end());
    pid_t pid = ::fork();
    if (pid == 0) {
        int fd = ::open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ::dup2(fd, 1);
        ::dup2(fd, 2);
        std::vector<char*> a;
        for (auto& s : argv) a.push_back(s.data());
        a.push_back(nullptr);
        ::execvp(a[0], a.data());
        ::_exit(127);
    }
    Finished f;
    int status = 0;
    bool done = test::wait_for([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }, 10000ms);
    if (!done) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, &status, 0);
        return f;
    }
    f.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    f.out = test::read_file(out_path);
    return f;
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
        Finished f = run_smsgwd(args, dir / "out");
        EXPECT_EQ(f.status, 2) << args[0];
        EXPECT_NE(f.out.find("usage: "), std::string::npos) << args[0];
    }
    Finished help = run_smsgwd({"--help"}, dir / "out");
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("--spool-dir"), std::string::npos);
    Finished version = run_smsgwd({"--version"}, dir / "out");
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out.rfind("smsgwd ", 0), 0u);
}

TEST(DaemonCoreCommandLine, TakenWebPortEndsTheDaemonQuietly) {
    TempDir root;
    test::prepare_root(root.path());
    const int offset = test::random_port_offset();
    test::UdpListener squatter(20205 + offset);
    ASSERT_TRUE(squatter.ok());
    ::unsetenv("SMSGW_TRACE");
    Finished f =
        run_smsgwd({"--root", root.path(), "--port-offset", std::to_string(offset)}, root / "out");
    EXPECT_EQ(f.status, 0);
    EXPECT_EQ(f.out, "");
    struct stat st {};
    EXPECT_EQ(::stat((root / "var/run/SQL_SMSTEMP").c_str(), &st), 0);
    EXPECT_FALSE(test::exists(root / "var/run/txrx_pid_file"));  // no txrx was started
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
    test::prepare_root(other.path());
    // Its ports must not overlap ours (20202..20207 + offset).
    const int other_offset = offset_ >= 15000 ? offset_ - 7000 : offset_ + 7000;
    const pid_t foreign = start_as(
        other / "bin/txrx", other / "bin/txrx", "/dev/ttyS0",
        {"SMSGW_ROOT=" + other.path(), "SMSGW_PORT_OFFSET=" + std::to_string(other_offset)});
    const pid_t leftover = start_as("/bin/sleep", path("bin/msntp"), "30", {});
    // Both must have started their programs before the daemon looks.
    ASSERT_TRUE(test::wait_for([&] { return test::exists(other / "var/run/txrx_pid_file"); }));
    ASSERT_TRUE(test::wait_for([&] {
        std::string c = test::read_file("/proc/" + std::to_string(leftover) + "/cmdline");
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
}  // namespace smsgw
