// txrx against the emulated modem, with the test in the daemon's place:
// hand-offs go to the job port, reports are read from the report port.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <regex>

#include "formats/sms_pdu.h"
#include "support/modem_support.h"

namespace smsgw::test {
namespace {

using namespace std::chrono_literals;

class TxrxModem : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(reports_.ok());
        write_file(root_ / "tmp/.keep", "");
    }
    // Starts txrx for ttyN with its emulated modem; waits until it is ready.
    SimModem& modem(int n, std::vector<std::string> options = fast_txrx_options()) {
        std::string tty = "ttyS" + std::to_string(n);
        sims_.push_back(std::make_unique<SimModem>(root_.path(), tty));
        txrx_.push_back(start_txrx(root_.path(), offset_, "/dev/" + tty, options));
        EXPECT_TRUE(sims_.back()->wait_lines("CMD AT+CMGL", 1));
        return *sims_.back();
    }
    void hand(const std::string& datagram) { client_.send_to(20202 + offset_, datagram); }
    // Every report until none comes for a while.
    std::vector<std::string> reports(std::chrono::milliseconds quiet = 400ms) {
        std::vector<std::string> out;
        while (auto r = reports_.receive(out.empty() ? 10000ms : quiet)) out.push_back(*r);
        return out;
    }
    std::string err(int n) const {
        return read_file(root_ / ("txrx.ttyS" + std::to_string(n) + ".err"));
    }

    TempDir root_;
    int offset_ = random_port_offset();
    UdpListener reports_{20206 + offset_};
    UdpClient client_;
    std::vector<std::unique_ptr<SimModem>> sims_;
    std::vector<std::unique_ptr<Child>> txrx_;
};

TEST_F(TxrxModem, SendsEveryRecipientOnceAndReportsTheJobOnce) {
    SimModem& sim = modem(0);
    const std::string job = write_job(root_.path(), "file1-7", "Hello {1}",
                                      {"+4911", "0172", "12#4", std::string(50, '5')});
    hand(handoff(job, true));
    hand(handoff(job));  // the daemon's second datagram for the same job
    EXPECT_EQ(reports(), (std::vector<std::string>{"SMS:api " + job + " 620", "P_JB"}));
    EXPECT_EQ(sim.lines("SUBMIT"),
              (std::vector<std::string>{"SUBMIT to=+4911 dcs=0 text=Hello {1}",
                                        "SUBMIT to=0172 dcs=0 text=Hello {1}"}));
    EXPECT_FALSE(exists(job));
    EXPECT_NE(err(0).find("skipped: not a digit in the number"), std::string::npos);

    // Nothing to send, and jobs that are not in the spool: ended at once.
    const std::string empty = write_job(root_.path(), "file2", "x", {});
    write_file(root_ / "elsewhere", std::string(210, '1'));
    hand(handoff(empty));
    hand(handoff(root_ / "elsewhere", true));
    hand("cmd set-sms-timer 30 ");
    EXPECT_EQ(reports(), (std::vector<std::string>{
                             "P_JB", "SMS:api " + root_ / "elsewhere" + " 622", "P_JB"}));
    EXPECT_FALSE(exists(empty));
    EXPECT_TRUE(exists(root_ / "elsewhere"));

    EXPECT_EQ(read_file(root_ / "var/run/txrx_signal.ttyS0").rfind("/dev/ttyS0 23 ", 0), 0u);
    // A second txrx for the device leaves it to the one serving it.
    EXPECT_EQ(start_txrx(root_.path(), offset_, "/dev/ttyS0")->finish(5000ms), 0);
}

TEST_F(TxrxModem, ErrorsAreRetriedAndASilentModemIsStartedAgain) {
    SimModem& sim = modem(0);
    EXPECT_EQ(sim.ctl("fail 1 500"), "OK");
    const std::string job =
        write_job(root_.path(), "file3-9", "\xD0\x96 " + std::string(70, 'a'), {"+1"});
    hand(handoff(job, true));
    EXPECT_EQ(reports(), (std::vector<std::string>{"SMS:api " + job + " 0", "P_JB"}));
    // 72 characters in UCS-2: two parts, each sent once after the retry.
    EXPECT_EQ(sim.lines("SUBMIT-FAILED to=+1 dcs=8 part=1/2").size(), 1u);
    EXPECT_EQ(sim.lines("SUBMIT to=+1 dcs=8 part=1/2").size(), 1u);
    EXPECT_EQ(sim.lines("SUBMIT to=+1 dcs=8 part=2/2").size(), 1u);

    EXPECT_EQ(sim.ctl("silent on"), "OK");
    const std::string job2 = write_job(root_.path(), "file4", "later", {"+2"});
    hand(handoff(job2));
    EXPECT_TRUE(wait_for([&] { return err(0).find("stopped answering") != std::string::npos; }));
    size_t inits = sim.lines("CMD AT+CMGF=0").size();
    EXPECT_EQ(sim.ctl("silent off"), "OK");
    EXPECT_EQ(reports(), std::vector<std::string>{"P_JB"});
    EXPECT_GT(sim.lines("CMD AT+CMGF=0").size(), inits);
    EXPECT_EQ(sim.lines("SUBMIT to=+2").size(), 1u);
}

TEST_F(TxrxModem, IncomingMessagesAreReassembledReportedWrittenThenDeleted) {
    SimModem& sim = modem(0);
    std::string zhe;
    for (int i = 0; i < 300; ++i) zhe += "\xD0\xB6";
    EXPECT_EQ(sim.ctl("noise-every 3"), "OK");
    EXPECT_EQ(sim.ctl("sms-reverse +4917 " + zhe), "OK");  // five parts, last first
    EXPECT_EQ(sim.ctl("pdu 0044038121F30008993092516195800609000301020100"), "OK");
    // A part that comes twice is taken once.
    pdu::Deliver part{{"+4918", pdu::kTypeInternational}, {},   0, pdu::kDcsGsm7,
                      pdu::Concat{9, 2, 1, false},        "abc"};
    const std::string first_part = "pdu " + pdu::to_hex(pdu::encode_deliver(part));
    part.concat->seq = 2;
    part.text = "def";
    EXPECT_EQ(sim.ctl(first_part), "OK");
    EXPECT_EQ(sim.ctl(first_part), "OK");
    EXPECT_EQ(sim.ctl("pdu " + pdu::to_hex(pdu::encode_deliver(part))), "OK");
    std::vector<std::string> got = reports();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[1].substr(54), "abcdef");
    std::string sender(50, '\0');
    sender.replace(0, 5, "+4917");
    EXPECT_EQ(got[0], "SMS:" + sender + zhe.substr(0, 156));

    // Each record: its length, then sender^|^yy/MM/dd^|^hh:mm:ss+00^|^text.
    std::string inbox = read_file(root_ / "var/Inbox/smsinbox.dat");
    ASSERT_GE(inbox.size(), 4u);
    EXPECT_EQ(i32_at(inbox, 0), static_cast<int32_t>(8 + 25 + zhe.size()));
    EXPECT_TRUE(std::regex_search(
        inbox.substr(4),
        std::regex(R"(^\+4917\^\|\^\d\d/\d\d/\d\d\^\|\^\d\d:\d\d:\d\d\+00\^\|\^)" + zhe)))
        << inbox;
    EXPECT_EQ(read_file(root_ / "var/Inbox/undecodable"),
              "0044038121F30008993092516195800609000301020100\n");
    EXPECT_TRUE(wait_for([&] { return sim.ctl("stored") == "OK 0"; }));
    EXPECT_EQ(tree_below(root_ / "var/Inbox/parts").size(), 0u);
}

TEST_F(TxrxModem, AVanishedDeviceEndsTxrxFirstInThePidFile) {
    SimModem& sim = modem(0);
    std::string pid = read_file(root_ / "var/run/txrx_pid_file");
    ASSERT_FALSE(pid.empty());
    EXPECT_EQ(sim.ctl("vanish"), "OK");
    EXPECT_EQ(txrx_.back()->finish(5000ms), 4);
    EXPECT_EQ(read_file(root_ / "var/run/txrx_pid_file"), pid);
}

TEST_F(TxrxModem, TwoModemsShareAJobAndReportItOnce) {
    SimModem& a = modem(0);
    SimModem& b = modem(1);
    EXPECT_EQ(a.ctl("delay 20"), "OK");
    EXPECT_EQ(b.ctl("delay 20"), "OK");
    std::vector<std::string> numbers;
    for (int i = 10; i < 30; ++i) numbers.push_back("+49" + std::to_string(i));
    const std::string job = write_job(root_.path(), "file5-3", "shared", numbers);
    hand(handoff(job, true));
    hand(handoff(job));
    EXPECT_EQ(reports(), (std::vector<std::string>{"SMS:api " + job + " 0", "P_JB"}));
    std::map<std::string, int> sent;
    for (SimModem* m : {&a, &b}) {
        EXPECT_FALSE(m->lines("SUBMIT").empty());
        for (const auto& l : m->lines("SUBMIT to=")) ++sent[l.substr(10, l.find(' ', 10) - 10)];
    }
    ASSERT_EQ(sent.size(), numbers.size());
    for (const auto& [n, times] : sent) EXPECT_EQ(times, 1) << n;

    // Control texts reach every modem.
    hand("cmd reset_modem");
    EXPECT_TRUE(a.wait_lines("CMD AT+CFUN=1,1", 1));
    EXPECT_TRUE(b.wait_lines("CMD AT+CFUN=1,1", 1));
}

}  // namespace
}  // namespace smsgw::test
