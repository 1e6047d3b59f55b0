// The real daemon with the real txrx on two emulated modems: the daemon
// probes them, starts one txrx each, hands jobs over and acts on what they
// receive.
#include <gtest/gtest.h>

#include <map>

#include "common/text.h"
#include "formats/request_file.h"
#include "support/modem_support.h"

namespace smsgw::test {
namespace {

using namespace std::chrono_literals;

class TxrxDaemon : public DaemonFixture {
  protected:
    void SetUp() override {
        seed_contacts("Bob^|^333^|^^|^1,^|^\nCarl^|^111^|^^|^1,^|^\nDora^|^444^|^^|^1,^|^\n",
                      "Friends\n");
        write_file(path("var/config/trigger_ctrl"), rec("^|^Add^|^ADDENTRY^|^NO^|^"));
        write_file(path("var/config/api_stat.st"), api_stat_image({7}, 257));
        install_txrx(root_.path(), fast_txrx_options());
        for (const char* tty : {"ttyS0", "ttyS1"})
            sims_[tty] = std::make_unique<SimModem>(root_.path(), tty);
        start({}, false);
        for (auto& [tty, sim] : sims_) ASSERT_TRUE(sim->wait_lines("CMD AT+CMGL", 1)) << tty;
    }
    std::string send(const std::string& name, const std::string& groups, const std::string& text) {
        return ask("send-sms " +
                   spool_file(name, encode_request_file("admin", text, "555^|^", "", groups)));
    }
    // How often each number was submitted, over both modems.
    std::map<std::string, int> sent(const std::string& text) const {
        std::map<std::string, int> out;
        for (const auto& [tty, sim] : sims_)
            for (const auto& l : sim->lines("SUBMIT to="))
                if (l.size() > text.size() &&
                    l.compare(l.size() - text.size(), text.size(), text) == 0)
                    ++out[l.substr(10, l.find(' ', 10) - 10)];
        return out;
    }
    int contacts() { return c_atoi(ask("get-sms total-entries phone_book^|^")); }

    std::map<std::string, std::unique_ptr<SimModem>> sims_;
};

TEST_F(TxrxDaemon, GroupSendsApiJobsAndTriggersGoThroughTheModems) {
    EXPECT_EQ(file("var/run/wirelessmodems"), "/dev/ttyS0\n/dev/ttyS1\n");
    const std::map<std::string, int> once = {{"111", 1}, {"333", 1}, {"444", 1}, {"555", 1}};
    EXPECT_EQ(send("req1", "Friends^|^", "to friends"), "");
    ASSERT_TRUE(wait_for([&] { return sent("text=to friends") == once; })) << daemon_log();

    // The daemon takes the next request directly once txrx reported the job:
    // txrx deletes the job file after its report, so the report is waiting
    // on the daemon's socket when the next request arrives.
    ASSERT_TRUE(wait_for([&] {
        for (const auto& f : tree_below(root_.path(), false))
            if (f.compare(0, 8, "tmp/file") == 0) return false;
        return true;
    }));
    EXPECT_EQ(ask("send-sms api " +
                  spool_file("areq-7",
                             encode_request_file("admin", "api text", "555^|^", "", "Friends^|^"))),
              "");
    ASSERT_TRUE(wait_for([&] { return api_status_of(file("var/config/api_stat.st"), 7) == 0; }))
        << daemon_log();
    EXPECT_EQ(sent("text=api text"), once);

    // A trigger in two parts adds a contact.
    const int before = contacts();
    std::string trigger = "Add:Zed;+4999\r\n" + std::string(170, '.');
    EXPECT_EQ(sims_["ttyS1"]->ctl("sms-reverse +4917 " + trigger), "OK");
    ASSERT_TRUE(wait_for([&] { return contacts() == before + 1; }, 10s)) << daemon_log();
    EXPECT_NE(ask("get-sms phone_number +4999^|^"), "ERROR");
    EXPECT_NE(file("var/run/RESPONSE_FILE").find("Zed^|^+4999"), std::string::npos);
}

}  // namespace
}  // namespace smsgw::test
