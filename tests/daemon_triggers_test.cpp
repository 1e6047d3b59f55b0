// The real smsgwd acting on incoming SMS reported by txrx: address-book
// commands from allowed senders, broadcasts to a group, refused senders in
// the system log, and api trigger requests.
#include <string>

#include "formats/request_file.h"
#include "support/test_support.h"

namespace smsgw::test {
namespace {

using namespace std::chrono_literals;

class DaemonTriggers : public DaemonFixture {
  protected:
    void SetUp() override {
        seed_contacts("Ann^|^111^|^^|^1,^|^\nBen^|^222^|^^|^1,^|^\n", "Staff\n");
        write_file(path("var/config/trigger_ctrl"), rec("^|^Add^|^ADDENTRY^|^NO^|^") +
                                                        rec("^|^Del^|^DELENTRY^|^YES^|^") +
                                                        rec("^|^Pre^|^ADDPRECONFSMS^|^NO^|^"));
        write_file(path("var/config/authenticate_list"), rec("^|^Boss^|^+49 90^|^"));
        write_file(path("var/config/trigger_broadcast"),
                   rec("^|^Open^|^Doors open^|^Staff]|[^|^NO^|^[null]]|[^|^") +
                       rec("^|^Alarm^|^Fire^|^Staff]|[^|^YES^|^Bob]|[+4930]|[^|^"));
        // Statuses other than the ones the requests below set.
        write_file(path("var/config/api_stat.st"), api_stat_image({8, 9}, 257));
        start();
    }
    bool wait_contacts(const std::string& count) {
        return wait_for([&] { return ask("get-sms total-entries phone_book^|^") == count; }, 10s);
    }
    int api_status(int32_t id) const { return api_status_of(file("var/config/api_stat.st"), id); }
    // The counters of received (20) and acted-on (16) trigger SMS.
    std::pair<int, int> counters() const {
        const std::string stats = file("var/config/sms_stats_file");
        return {i32_at(stats, 20), i32_at(stats, 16)};
    }
    std::string request_file(const std::string& name, const std::string& text) {
        return spool_file(name, encode_request_file("admin", text, "", "", ""));
    }
};

TEST_F(DaemonTriggers, AddressBookCommandsFromAllowedSenders) {
    incoming("+4999", "add:Carl;+4940");
    ASSERT_TRUE(wait_contacts("3")) << daemon_log();
    EXPECT_EQ(counters(), std::make_pair(1, 1));
    // Deleting needs an authenticated sender: this one is refused, and the
    // next SMS, handled after it, shows Carl still there.
    incoming("+4999", "Del:Carl;+4940");
    incoming("+4999", "Add:Dan;+4941");
    ASSERT_TRUE(wait_contacts("4"));
    incoming("+4990", "Del:Carl;+4940");
    ASSERT_TRUE(wait_contacts("3"));
    EXPECT_EQ(ask("get-sms phone_number +4940^|^"), "ERROR");
    incoming("+4999", "Pre:Lunch at noon");
    ASSERT_TRUE(wait_file("var/config/preconf_sms", rec("^|^Lunch at noon^|^[null]]|[^|^")));
    EXPECT_EQ(counters(), std::make_pair(4, 4));
}

TEST_F(DaemonTriggers, BroadcastsReachTheGroupAndRefusalsAreLogged) {
    incoming("+4999", "OPEN");
    ASSERT_TRUE(wait_jobs(1)) << daemon_log();
    EXPECT_NE(jobs()[0].find(" api=0 text=Doors open to="), std::string::npos) << jobs()[0];
    EXPECT_TRUE(jobs()[0].find("to=111,222") != std::string::npos ||
                jobs()[0].find("to=222,111") != std::string::npos)
        << jobs()[0];
    incoming("+4931", "Alarm");
    const std::string line =
        "faillog: [FAILED TO] : TRIGGER : [MSG] : Received Trigger from Unauthentic Number +4931";
    EXPECT_TRUE(wait_for([&] { return daemon_log().find(line) != std::string::npos; }, 10s));
    EXPECT_EQ(counters(), std::make_pair(1, 0));

    // An api broadcast: the request file is used up, the status set (what
    // each api form refuses is pinned with the trigger actions).
    const std::string open = request_file("req-9", "Open");
    EXPECT_EQ(ask("send-sms api2 " + open), "OK");
    ASSERT_TRUE(wait_jobs(2)) << daemon_log();
    EXPECT_NE(jobs()[1].find("-9 api=1 text=Doors open to="), std::string::npos) << jobs()[1];
    EXPECT_FALSE(exists(open));
    EXPECT_EQ(api_status(9), 2);
    EXPECT_EQ(jobs().size(), 2u);
}

}  // namespace
}  // namespace smsgw::test
