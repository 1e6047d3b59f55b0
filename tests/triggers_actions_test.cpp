// The action handlers behind getactionobject, the trigger send action and
// its queueing, and api trigger requests, on a sandbox root.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "addressbook/address_book.h"
#include "commands/rule_lists.h"
#include "common/runtime.h"
#include "formats/job_file.h"
#include "formats/request_file.h"
#include "formats/txrx_datagram.h"
#include "jobs/job_queue.h"
#include "send/sender.h"
#include "send/stats.h"
#include "support/test_support.h"
#include "triggers/triggers.h"

namespace smsgw {
namespace {

using test::api_status_of;
using test::exists;
using test::i32_at;
using test::rec;
using test::TempDir;
using test::UdpListener;
using test::write_file;
using namespace std::chrono_literals;

std::string sms(const std::string& sender, const std::string& text) {
    return test::sms_record(sender, text);
}

class ActionsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        test::prepare_root(dir.path());
        ASSERT_TRUE(ensure_sms_stats_file(rt));
        ASSERT_TRUE(queue.try_init_job_pos_table());
        queue.set_pause([](unsigned) {});
        write("var/config/trigger_ctrl",
              rec("^|^Add^|^ADDENTRY^|^NO^|^") + rec("^|^Grp^|^ADDGROUP^|^NO^|^") +
                  rec("^|^Pre^|^ADDPRECONFSMS^|^NO^|^") + rec("^|^Del^|^DELENTRY^|^NO^|^") +
                  rec("^|^DelG^|^DELGROUP^|^NO^|^"));
        write("var/config/trigger_broadcast",
              rec("^|^Open^|^Doors open^|^Staff]|[^|^NO^|^[null]]|[^|^") +
                  rec("^|^Ghost^|^Boo^|^Nobody]|[^|^NO^|^[null]]|[^|^") +
                  rec("^|^Alarm^|^Fire^|^Staff]|[^|^YES^|^Bob]|[+4930]|[^|^"));
        triggers = std::make_unique<Triggers>(rt, ab, rules, sender, queue);
    }
    void write(const std::string& rel, const std::string& content) {
        write_file(dir / rel, content);
    }
    std::string read(const std::string& rel) { return test::read_file(dir / rel); }
    int32_t stat_counter(size_t offset) {
        return i32_at(read("var/config/sms_stats_file"), offset);
    }
    Entry* entry(const std::string& name, const std::string& number) {
        TrieNode* node = ab.ab_find(name);
        return node ? AddressBook::ab_find_number(node->entries.get(), number) : nullptr;
    }
    void staff_group() {
        ab.ab_insert("Ann", "+4911", "");
        ab.ab_insert("Ben", "+4922", "");
        ab.group_create("Staff");
        ab.group_add_contact("Staff", "Ann");
        ab.group_add_contact("Staff", "Ben");
    }
    // api_stat.st with a header and one pending record per id.
    void api_records(std::initializer_list<int32_t> ids) {
        write("var/config/api_stat.st", test::api_stat_image(ids, 1));
    }
    int api_status(int32_t id) { return api_status_of(read("var/config/api_stat.st"), id); }
    std::string reply_text() const {
        const std::string& r = triggers->action_reply();
        EXPECT_EQ(r.size(), 100u);
        return r.substr(0, r.find('\0'));
    }
    std::string request_file(const std::string& name, const std::string& text) {
        write_file(dir / ("tmp/" + name), encode_request_file("admin", text, "", "", ""));
        return dir / ("tmp/" + name);
    }

    TempDir dir;
    Runtime rt{dir.path(), test::random_port_offset()};
    AddressBook ab{rt.reply_buffer};
    RuleLists rules{rt};
    TxrxLink link{rt.ports};
    Sender sender{rt, ab, link};
    JobQueue queue{rt, sender};
    std::unique_ptr<Triggers> triggers;
};

TEST_F(ActionsTest, StatisticsCountTriggersAndCommands) {
    staff_group();
    link.job_handed_over();  // keep the broadcast in the queue
    struct Step {
        std::string message;
        int action, received, acted;
    };
    const Step steps[] = {
        {sms("+4999", "Add:Bob;+4930"), 3, 1, 1},
        {sms("+4999", "Open"), 0, 2, 1},
        {sms("+4999", "what is this"), 7, 2, 1},
        {sms("+4999", "TIMESETTINGS_LOOP_BACK_MSG"), 6, 2, 1},
        {"api /tmp/req-3 0", 8, 2, 1},
        {sms("+4931", "Alarm"), 7, 2, 1},  // refused broadcast
        {sms("2", "Add:Bob;1"), 7, 3, 1},  // wrong api kind
        {sms("3", "Open"), 7, 4, 2},
    };
    for (const Step& s : steps) {
        SCOPED_TRACE(s.message.size() > 50 ? s.message.substr(50) : s.message);
        EXPECT_EQ(triggers->getactionobject(s.message), s.action);
        EXPECT_EQ(stat_counter(20), s.received);
        EXPECT_EQ(stat_counter(16), s.acted);
    }
}

TEST_F(ActionsTest, AddressBookCommandsAndTheFilesTheyClean) {
    write("var/config/authenticate_list", rec("^|^Bob^|^+4930^|^") + rec("^|^Zed^|^+4940^|^"));
    ab.ab_insert("Carl", "+4940", "");
    ab.ab_insert("Dora", "+4950", "");
    ab.ab_insert("Dora", "+4951", "");
    const std::pair<std::string, int> steps[] = {
        {"add:Bob;+4930", 3},      {"Add:Bob;+4931", 3},      {"Add", 3},
        {"Grp:Team;Eve;+4960", 4}, {"Grp:Team;Eve;+4961", 4}, {"Pre:Meeting at 10", 5},
        {"Del:;+4977", 9},         {"Del:Bob;+4930", 1},      {"Del:;+4951", 9},
    };
    for (const auto& [text, action] : steps)
        EXPECT_EQ(triggers->getactionobject(sms("+4999", text)), action) << text;
    EXPECT_NE(entry("+4999", "+4999"), nullptr);
    Group* team = ab.group_find("Team");
    ASSERT_TRUE(team && team->members && team->members->next);
    // A second number of Eve goes into the group as that number.
    EXPECT_EQ(team->members->member_entry, entry("Eve", "+4960"));
    EXPECT_EQ(team->members->next->member_entry, entry("Eve", "+4961"));
    EXPECT_EQ(read("var/config/preconf_sms"), rec("^|^Meeting at 10^|^[null]]|[^|^"));
    EXPECT_EQ(entry("Dora", "+4951"), nullptr);
    EXPECT_NE(entry("Dora", "+4950"), nullptr);
    EXPECT_EQ(read("var/run/enamefile"), "Dora^|^+4951^|^^|^\n");
    EXPECT_EQ(entry("Bob", "+4930"), nullptr);
    EXPECT_NE(entry("Bob", "+4931"), nullptr);
    EXPECT_EQ(read("var/config/authenticate_list"), rec("^|^Zed^|^+4940^|^"));
    EXPECT_EQ(read("var/config/trigger_broadcast"),
              rec("^|^Open^|^Doors open^|^Staff]|[^|^NO^|^[null]]|[^|^") +
                  rec("^|^Ghost^|^Boo^|^Nobody]|[^|^NO^|^[null]]|[^|^") +
                  rec("^|^Alarm^|^Fire^|^Staff]|[^|^YES^|^[null]]|[^|^"));

    EXPECT_EQ(triggers->getactionobject(sms("+4999", "DelG:Team")), 2);
    EXPECT_EQ(ab.group_find("Team"), nullptr);
    EXPECT_NE(entry("Eve", "+4960"), nullptr);  // contacts stay
    // A name alone removes every number of it; the sender's own number goes too.
    EXPECT_EQ(triggers->getactionobject(sms("+4999", "Del:bob")), 1);
    EXPECT_EQ(ab.ab_find("Bob"), nullptr);
    EXPECT_EQ(triggers->getactionobject(sms("+4940", "Del")), 9);
    EXPECT_EQ(ab.ab_find("Carl"), nullptr);
}

TEST_F(ActionsTest, ApiStatusLines) {
    api_records({5, 6, 7});
    EXPECT_EQ(triggers->getactionobject("api /tmp/req-6 0"), 8);
    EXPECT_EQ(api_status(6), 0);
    EXPECT_EQ(read("var/config/api.conf"), "last-done=6\n");
    EXPECT_EQ(triggers->getactionobject("api /tmp/req-7 3"), 8);
    EXPECT_EQ(api_status(7), 3);
    EXPECT_EQ(triggers->getactionobject("api /tmp/req-5"), 8);
    EXPECT_EQ(api_status(5), 1);
    EXPECT_EQ(read("var/config/api.conf"), "last-done=6\n");
}

TEST_F(ActionsTest, BroadcastGoesToTheMembersOrWaitsInTheQueue) {
    staff_group();
    link.job_handed_over();
    EXPECT_EQ(triggers->getactionobject(sms("+4999", "Open")), 0);
    EXPECT_EQ(triggers->action_reply(), std::string(100, '\0'));
    // An api broadcast waits with its user.
    EXPECT_EQ(triggers->api_ProcessTrigs("send-sms api2 " + request_file("req-42", "Open")), 1);
    const std::string sms_body = encode_broadcast_body({"+4999", "Staff]|[", "Doors open"});
    const std::string api_body = encode_broadcast_body({"0", "Staff]|[", "Doors open"});
    EXPECT_EQ(
        read("var/Jobs/Pending_Jobs_1"),
        encode_job_header(static_cast<int32_t>(sms_body.size()), 0, "ISBRDTRIG") + sms_body +
            encode_job_header(static_cast<int32_t>(api_body.size()),
                              static_cast<int32_t>(sms_body.size()) + 108, "ISBRDTRIGapi42-admin") +
            api_body);
    EXPECT_FALSE(exists(dir / "var/run/pending_jobs"));

    // The scheduler feeds it back once txrx is done, and txrx gets the job.
    UdpListener txrx(rt.ports.txrx_out());
    ASSERT_TRUE(txrx.ok());
    link.job_done();
    queue.create_job_from_pending_jobs(0);
    EXPECT_TRUE(link.job_outstanding());
    auto datagram = txrx.receive();
    ASSERT_TRUE(datagram);
    EXPECT_EQ(*datagram, encode_job_handoff(reply_text(), false));
    EXPECT_EQ(test::read_file(reply_text()), encode_job_file("Doors open", {"+4911", "+4922"}));
    EXPECT_TRUE(exists(dir / "var/Outbox/outbox_slave_tmp"));

    // A broadcast to a missing group makes no job.
    link.job_done();
    EXPECT_EQ(triggers->getactionobject(sms("+4999", "Ghost")), 0);
    EXPECT_FALSE(link.job_outstanding());
    EXPECT_EQ(reply_text(), "");
}

TEST_F(ActionsTest, ApiTriggerRequests) {
    for (const char* other :
         {"send-sms api4 /tmp/x", "send-sms api /tmp/x-1", "send-sms /tmp/x", "send-sms"})
        EXPECT_EQ(triggers->api_ProcessTrigs(other), 0) << other;
    staff_group();
    api_records({6, 7, 8, 9, 10});
    UdpListener txrx(rt.ports.txrx_out());
    ASSERT_TRUE(txrx.ok());
    // A command through api3, a broadcast through api2; each kind refuses the other.
    struct Case {
        std::string request, text;
        int id, status;
    } cases[] = {
        {"api3", "Add:Fred;+4970", 6, 0},
        {"api3", "Open", 7, 610},
        {"api2", "Add:Gus;+4971", 8, 611},
    };
    for (const auto& c : cases) {
        std::string path = request_file("req-" + std::to_string(c.id), c.text);
        EXPECT_EQ(triggers->api_ProcessTrigs("send-sms " + c.request + " " + path), 1);
        EXPECT_EQ(api_status(c.id), c.status) << c.text;
        EXPECT_FALSE(exists(path));
    }
    EXPECT_NE(entry("Fred", "+4970"), nullptr);
    EXPECT_EQ(ab.ab_find("Gus"), nullptr);
    EXPECT_FALSE(txrx.receive(300ms));

    std::string path = request_file("req-9", "Open");
    EXPECT_EQ(triggers->api_ProcessTrigs("send-sms api2 " + path), 1);
    auto datagram = txrx.receive();
    ASSERT_TRUE(datagram);
    std::string job = reply_text().substr(4);
    EXPECT_EQ(*datagram, encode_job_handoff(job, true));
    EXPECT_EQ(job.substr(job.size() - 2), "-9");
    EXPECT_EQ(decode_job_file(test::read_file(job))->text(), "Doors open");
    EXPECT_TRUE(link.job_outstanding());
    EXPECT_EQ(api_status(9), kApiTaken);
    EXPECT_FALSE(exists(path));

    // Request files outside the spool, behind links or missing are left alone.
    std::string outside = dir / "elsewhere/req-10";
    write_file(outside, encode_request_file("admin", "Add:Mal;+4966", "", "", ""));
    std::string link_path = dir / "tmp/req-10";
    ASSERT_EQ(::symlink(outside.c_str(), link_path.c_str()), 0);
    for (const std::string& p : {outside, link_path, dir / "tmp/../elsewhere/req-10",
                                 std::string("tmp/req-10"), dir / "tmp/missing-10"})
        EXPECT_EQ(triggers->api_ProcessTrigs("send-sms api3 " + p), 1) << p;
    EXPECT_TRUE(exists(outside));
    EXPECT_TRUE(exists(link_path));
    EXPECT_EQ(ab.ab_find("Mal"), nullptr);
    EXPECT_EQ(api_status(10), 1);
}

}  // namespace
}  // namespace smsgw
