// txrx-sim as a development modem beside the real smsgwd: the loop-back
// clock message it injects sets the router's time.
#include <chrono>
#include <string>
#include <vector>

#include "support/test_support.h"

namespace smsgw::test {
namespace {

using namespace std::chrono_literals;

// A loop-back inbox record: a host-order 32-bit length, then the text.
std::string inbox_record(const std::string& head) {
    const std::string text = head + "TIMESETTINGS_LOOP_BACK_MSG";
    return i32_bytes(static_cast<int32_t>(text.size())) + text;
}

class TxrxSim : public DaemonFixture {
  protected:
    // Runs a txrx-sim command with the root and port offset in its
    // environment: its exit status, -1 when it does not end in time.
    int sim(const std::vector<std::string>& args) {
        const TxrxLaunch launch = txrx_launch();
        std::vector<std::string> argv = launch.prefix;
        argv.push_back(launch.program);
        argv.insert(argv.end(), args.begin(), args.end());
        return Child(argv, path("sim.out"), "",
                     {"SMSGW_ROOT=" + root_.path(), "SMSGW_PORT_OFFSET=" + std::to_string(offset_)})
            .finish(10s);
    }
    std::string calls() const { return file("calls.log"); }
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
    ASSERT_TRUE(wait_for([&] { return count_of(calls(), "date 030112052024.09\n") == 1; }, 10s))
        << calls() << daemon_log();
}

}  // namespace
}  // namespace smsgw::test
