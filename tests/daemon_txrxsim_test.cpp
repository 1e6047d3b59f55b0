// txrx-sim as a development modem beside the real smsgwd: the loop-back
// clock message, a slow and a hung modem, and an injected trigger SMS (its
// job log, every recipient listed, is what the send tests read).
#include <chrono>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "formats/request_file.h"
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
    std::string send(const std::string& name) {
        return ask("send-sms " +
                   spool_file(name, encode_request_file("admin", name, "+4951^|^", "", "")));
    }
    std::string contacts() { return ask("get-sms total-entries phone_book^|^"); }
    std::string calls() const { return file("calls.log"); }
    std::string inbox() const { return file("var/Inbox/smsinbox.dat"); }
};

TEST_F(TxrxSim, LoopBackWithAStampSetsThatTime) {
    start();
    ASSERT_EQ(sim({"loopback", "+4999", "24/03/01 12:05:09+04"}), 0) << file("sim.out");
    const std::string first = inbox_record("+4999^|^24/03/01^|^12:05:09+04^|^");
    EXPECT_EQ(inbox(), first);
    ASSERT_TRUE(wait_for([&] { return count_of(calls(), "date 030112052024.09\n") == 1; }, 10s))
        << calls() << daemon_log();

    // The stamp as two words, appended: the daemon acts on the report
    // again, and the earlier record stays the one that counts.
    ASSERT_EQ(sim({"loopback", "+4998", "25/12/31", "23:59:58-08"}), 0);
    EXPECT_EQ(inbox(), first + inbox_record("+4998^|^25/12/31^|^23:59:58-08^|^"));
    EXPECT_TRUE(wait_for([&] { return count_of(calls(), "date 030112052024.09\n") == 2; }, 10s))
        << calls();
    EXPECT_EQ(count_of(calls(), "date "), 2u) << calls();
}

// "date MMDDhhmmYYYY.ss" in UTC.
std::string date_call(std::time_t t) {
    char text[32];
    std::strftime(text, sizeof text, "date %m%d%H%M%Y.%S\n", std::gmtime(&t));
    return text;
}

TEST_F(TxrxSim, LoopBackWithoutAStampSetsNow) {
    start();
    const std::time_t before = std::time(nullptr);
    ASSERT_EQ(sim({"loopback"}), 0) << file("sim.out");
    const std::time_t after = std::time(nullptr);
    ASSERT_TRUE(wait_for([&] { return count_of(calls(), "date ") == 1; }, 10s)) << daemon_log();
    bool now = false;
    for (std::time_t t = before; t <= after; ++t)
        now = now || calls().find(date_call(t)) != std::string::npos;
    EXPECT_TRUE(now) << calls();
    // A default sender was filled in before the stamp.
    EXPECT_NE(inbox().find("^|^"), 4u) << inbox();
}

TEST_F(TxrxSim, SilentModemNeverReleasesTheQueue) {
    write_file(path("var/config/trigger_ctrl"), rec("^|^ADD^|^ADDENTRY^|^NO^|^"));
    set_env("SMSGW_SIM_SILENT", "1");
    start();
    ASSERT_EQ(send("one"), "");
    ASSERT_TRUE(wait_jobs(1));
    EXPECT_EQ(send("two"), "OK");
    // An SMS report behind any answer the simulator might have sent: once
    // the daemon has acted on it, and answered one more request, a released
    // queue would have handed over the second job. Any letter case names
    // the trigger; the sender needs no authentication.
    ASSERT_EQ(sim({"inject", "+4999", "add:Dora;+4960"}), 0);
    ASSERT_TRUE(wait_for([&] { return contacts() == "1"; }, 10s)) << daemon_log();
    EXPECT_NE(ask("get-sms phone_number +4960^|^"), "ERROR");
    EXPECT_EQ(contacts(), "1");
    EXPECT_EQ(jobs().size(), 1u);

    // Playing the modem's answer by hand releases it.
    report("P_JB");
    EXPECT_TRUE(wait_jobs(2));
}

}  // namespace
}  // namespace smsgw::test
