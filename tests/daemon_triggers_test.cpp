// The real smsgwd acting on incoming SMS reported by txrx: address-book
// commands from allowed senders, broadcasts to a group, refused senders in
// the system log, the loop-back time setting, and api trigger requests.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "send/sender.h"
#include "support/test_support.h"

namespace smsgw {
namespace {

using namespace std::chrono_literals;
using test::TempDir;

std::string rec(const std::string& text) {
    return std::to_string(text.size()) + text;
}

// Whether some socket is bound to 127.0.0.1:port (read from the kernel's
// table, so probing never takes the port away from its owner).
bool udp_port_bound(int port) {
    char local[32];
    std::snprintf(local, sizeof local, "0100007F:%04X", port);
    std::istringstream table(test::read_file("/proc/net/udp"));
    for (std::string line; std::getline(table, line);)
        if (line.find(local) != std::string::npos) return true;
    return false;
}

int32_t i32_at(const std::string& bytes, size_t offset) {
    int32_t v = 0;
    if (bytes.size() >= offset + 4) std::memcpy(&v, bytes.data() + offset, 4);
    return v;
}

class DaemonTriggers : public ::testing::Test {
  protected:
    void SetUp() override {
        test::prepare_root(root_.path());
        test::write_file(root_ / "var/AddressBook/groups", "Staff\n");
        test::write_file(root_ / "var/AddressBook/Address_Book",
                         "Ann^|^111^|^^|^1,^|^\n"
                         "Ben^|^222^|^^|^1,^|^\n");
        test::write_file(root_ / "var/config/trigger_ctrl",
                         rec("^|^Add^|^ADDENTRY^|^NO^|^") + rec("^|^Del^|^DELENTRY^|^YES^|^") +
                             rec("^|^Grp^|^ADDGROUP^|^NO^|^") +
                             rec("^|^Pre^|^ADDPRECONFSMS^|^NO^|^") +
                             rec("^|^DelG^|^DELGROUP^|^NO^|^"));
        test::write_file(root_ / "var/config/authenticate_list", rec("^|^Boss^|^+49 90^|^"));
        test::write_file(root_ / "var/config/trigger_broadcast",
                         rec("^|^Open^|^Doors open^|^Staff]|[^|^NO^|^[null]]|[^|^") +
                             rec("^|^Alarm^|^Fire^|^Staff]|[^|^YES^|^Bob]|[+4930]|[^|^"));
        std::string api(4, '\0');
        for (int32_t id : {8, 9}) {
            std::string r(60, '\0');
            std::memcpy(r.data(), &id, 4);
            r[4] = 1;  // some status other than the ones expected below
            r[5] = 1;
            api += r;
        }
        test::write_file(root_ / "var/config/api_stat.st", api);
        daemon_ = std::make_unique<test::Daemon>(root_.path(), offset_);
        ASSERT_TRUE(daemon_->wait_ready()) << daemon_->stderr_text();
        // Jobs handed over before the simulated txrx listens would be lost.
        ASSERT_TRUE(test::wait_for([&] { return udp_port_bound(20202 + offset_); }, 10s));
    }

    // An incoming-SMS report as txrx sends it: tag, sender char[50], text.
    void incoming(const std::string& sender, const std::string& text) {
        std::string field = sender;
        field.resize(50, '\0');
        client_.send_to(20206 + offset_, "SMS:" + field + text);
    }
    std::string command(const std::string& text) {
        return client_.request(20205 + offset_, text).value_or("<no reply>");
    }
    bool wait_contacts(const std::string& count) {
        return test::wait_for(
            [&] { return command("get-sms total-entries phone_book^|^") == count; }, 10s);
    }
    std::vector<std::string> jobs() const {
        std::vector<std::string> out;
        std::istringstream log(test::read_file(root_ / "var/run/txrx-sim.log"));
        for (std::string line; std::getline(log, line);)
            if (line.rfind("JOB ", 0) == 0) out.push_back(line);
        return out;
    }
    int api_status(int32_t id) const {
        std::string file = test::read_file(root_ / "var/config/api_stat.st");
        for (size_t off = 4; off + 60 <= file.size(); off += 60) {
            if (i32_at(file, off) != id) continue;
            int16_t s;
            std::memcpy(&s, file.data() + off + 4, 2);
            return s;
        }
        return -1;
    }
    int32_t stat_counter(size_t offset) const {
        return i32_at(test::read_file(root_ / "var/config/sms_stats_file"), offset);
    }
    std::string request_file(const std::string& name, const std::string& text) {
        std::string p = root_ / ("tmp/" + name);
        test::write_file(p, build_request_file("admin", text, "", "", ""));
        return p;
    }

    TempDir root_;
    int offset_ = test::random_port_offset();
    std::unique_ptr<test::Daemon> daemon_;
    test::UdpClient client_;
};

TEST_F(DaemonTriggers, AddressBookCommandsFromAllowedSenders) {
    ASSERT_EQ(command("get-sms total-entries phone_book^|^"), "2");
    incoming("+4999", "add:Carl;+4940");
    ASSERT_TRUE(wait_contacts("3")) << daemon_->stderr_text();
    EXPECT_EQ(stat_counter(20), 1);
    EXPECT_EQ(stat_counter(16), 1);

    // Deleting needs an authenticated sender: this one is refused, and the
    // next SMS, handled after it, shows Carl still there.
    incoming("+4999", "Del:Carl;+4940");
    incoming("+4999", "Add:Dan;+4941");
    ASSERT_TRUE(wait_contacts("4"));
    incoming("+4990", "Del:Carl;+4940");
    ASSERT_TRUE(wait_contacts("3"));
    EXPECT_EQ(command("get-sms phone_number +4940^|^"), "ERROR");

    incoming("+4999", "Pre:Lunch at noon");
    ASSERT_TRUE(test::wait_for([&] {
        return test::read_file(root_ / "var/config/preconf_sms") ==
               rec("^|^Lunch at noon^|^[null]]|[^|^");
    }));
    EXPECT_EQ(stat_counter(20), 4);
    EXPECT_EQ(stat_counter(16), 4);
}

TEST_F(DaemonTriggers, BroadcastReachesTheGroupAndRefusalsAreLogged) {
    incoming("+4999", "OPEN");
    ASSERT_TRUE(test::wait_for([&] { return !jobs().empty(); }, 10s)) << daemon_->stderr_text();
    std::string job = jobs().front();
    EXPECT_NE(job.find(" api=0 text=Doors open to="), std::string::npos) << job;
    EXPECT_TRUE(job.find("to=111,222") != std::string::npos ||
                job.find("to=222,111") != std::string::npos)
        << job;

    incoming("+4931", "Alarm");
    const std::string line =
        "faillog: [FAILED TO] : TRIGGER : [MSG] : Received Trigger from Unauthentic Number +4931";
    EXPECT_TRUE(test::wait_for(
        [&] { return daemon_->stderr_text().find(line) != std::string::npos; }, 10s));
    EXPECT_EQ(jobs().size(), 1u);
    EXPECT_EQ(stat_counter(20), 1);
    EXPECT_EQ(stat_counter(16), 0);
}

TEST_F(DaemonTriggers, LoopBackMessageSetsTheClock) {
    std::string text = "+4999^|^24/03/01^|^12:05:09+04^|^TIMESETTINGS_LOOP_BACK_MSG";
    int32_t n = static_cast<int32_t>(text.size());
    std::string record(4, '\0');
    std::memcpy(record.data(), &n, 4);
    test::write_file(root_ / "var/Inbox/smsinbox.dat", record + text);
    incoming("+4999", "TIMESETTINGS_LOOP_BACK_MSG");
    EXPECT_TRUE(test::wait_for(
        [&] {
            return test::read_file(root_ / "calls.log").find("date 030112052024.09\n") !=
                   std::string::npos;
        },
        10s))
        << test::read_file(root_ / "calls.log");
}

TEST_F(DaemonTriggers, ApiTriggerRequests) {
    std::string add = request_file("req-8", "Add:Eve;+4950");
    EXPECT_EQ(command("send-sms api3 " + add), "OK");
    ASSERT_TRUE(wait_contacts("3"));
    EXPECT_EQ(api_status(8), 0);
    EXPECT_FALSE(test::exists(add));

    std::string open = request_file("req-9", "Open");
    EXPECT_EQ(command("send-sms api2 " + open), "OK");
    ASSERT_TRUE(test::wait_for([&] { return !jobs().empty(); }, 10s)) << daemon_->stderr_text();
    std::string job = jobs().front();
    EXPECT_NE(job.find("-9 api=1 text=Doors open to="), std::string::npos) << job;
    EXPECT_FALSE(test::exists(open));
    EXPECT_EQ(api_status(9), 2);
}

}  // namespace
}  // namespace smsgw
