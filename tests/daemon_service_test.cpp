// The daemon as a service: SIGTERM and SIGINT save the address book as
// SIGUSR1 does and end the transceiver, and both init scripts keep the book
// across restarts and reboots.
#include <signal.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "support/test_support.h"

namespace smsgw::test {
namespace {

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
    static bool alive(pid_t pid) {
        std::string status = read_file("/proc/" + std::to_string(pid) + "/status");
        return !status.empty() && status.find("(zombie)") == std::string::npos;
    }
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
    ~InitScript() override {
        if (alive(pid_in("var/run/smsgwd.pid"))) ::kill(pid_in("var/run/smsgwd.pid"), SIGKILL);
    }
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
        return Child(argv, flash_ / "output", "", env).finish(std::chrono::seconds(60));
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
    ::kill(pid_in("var/run/smsgwd.pid"), SIGKILL);
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

}  // namespace
}  // namespace smsgw::test
