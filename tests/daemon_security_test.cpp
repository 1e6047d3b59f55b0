// The real smsgwd against a local attacker who can send datagrams and plant
// files: request files it must refuse and symlinks planted at the fixed
// temporary names; and what it does on incoming trigger SMS.
#include <sys/stat.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include "formats/request_file.h"
#include "support/test_support.h"

namespace smsgw::test {
namespace {

using namespace std::chrono_literals;

const std::string kPrecious = "precious bytes that must survive\n";

class DaemonSecurity : public DaemonFixture {
  protected:
    DaemonSecurity() {
        seed_contacts("Ann^|^111^|^^|^1,^|^\nBen^|^222^|^^|^1,^|^\n", "Staff\n");
        // One api record for id 42, so a status written for a refused
        // "...-42" request would show.
        write_file(path("var/config/api_stat.st"), api_stat_image({42}));
    }
    bool wait_jobs_exactly(size_t n) {
        return wait_for([&] { return jobs().size() == n; }, 10s);
    }
    std::string request_file(const std::string& full_path, const std::string& text,
                             const std::string& number = "+4911") {
        write_file(full_path, encode_request_file("admin", text, number + "^|^", "", ""));
        return full_path;
    }
    std::string queued_jobs() const {
        std::string all;
        for (int i = 1; i <= 9; ++i) all += file("var/Jobs/Pending_Jobs_" + std::to_string(i));
        return all;
    }
};

// Most path forms are checked where the request is read; here the daemon's
// answer to each send form, the length limit, and that nothing reaches txrx.
TEST_F(DaemonSecurity, RefusedRequestFilesAreLeftAloneAndNothingReachesTxrx) {
    set_env("SMSGW_SIM_SILENT", "1");  // only the test reports jobs done
    // The spool directories given replace the default ones.
    TempDir spool;
    start({"--spool-dir", path("tmp"), "--spool-dir", spool.path()});
    const std::string victim = request_file(path("etc/req-42"), "stolen", "666");
    const std::string in_run = request_file(path("var/run/req-42"), "stolen", "666");
    ASSERT_EQ(::symlink(victim.c_str(), path("tmp/link-42").c_str()), 0);
    ASSERT_EQ(::mkfifo(path("tmp/fifo-42").c_str(), 0600), 0);
    // 88 characters: one more than a request path may have.
    std::string too_long = path("tmp/");
    too_long += std::string(85 - too_long.size(), 'x') + "-42";
    request_file(too_long, "stolen", "666");
    // What the datagram names, and the file whose bytes must survive (a
    // fifo is never read here: that would block).
    const std::vector<std::pair<std::string, std::string>> cases = {
        {victim, victim},
        {path("tmp/link-42"), victim},
        {path("tmp/fifo-42"), victim},
        {too_long, too_long},
        {in_run, in_run},
    };
    const std::string api_before = file("var/config/api_stat.st");
    auto try_all = [&](bool outstanding) {
        for (const auto& [named, survivor] : cases) {
            const std::string before = read_file(survivor);
            for (const std::string form : {"", "api ", "api2 ", "api3 "}) {
                SCOPED_TRACE(named + " as \"send-sms " + form + "\", job outstanding " +
                             std::to_string(outstanding));
                // Trigger requests and queued ones are always taken.
                EXPECT_EQ(ask("send-sms " + form + named),
                          form.size() > 4 || outstanding ? "OK" : "");
                EXPECT_EQ(read_file(survivor), before);
                EXPECT_TRUE(exists(named));
            }
        }
    };
    // A good job first, so a refused request could hand over its path again.
    EXPECT_EQ(ask("send-sms " + request_file(path("tmp/good-1"), "first")), "");
    ASSERT_TRUE(wait_jobs_exactly(1));
    try_all(true);  // queued requests are checked before they are queued
    report("P_JB");
    settle();
    try_all(false);  // nothing is handed over, not even the previous job
    EXPECT_EQ(queued_jobs(), "");
    EXPECT_EQ(file("var/config/api_stat.st"), api_before);

    // The next good request, in the other spool directory with the longest
    // path taken (87 characters), is the second and last thing txrx sees.
    std::string longest = spool / "";
    longest += std::string(87 - longest.size(), 'y');
    const std::string second = request_file(longest, "second", "+4922");
    EXPECT_EQ(ask("send-sms " + second), "");
    // Every datagram txrx-sim received, whatever it was, in order.
    auto seen = jobs();
    ASSERT_TRUE(wait_for([&] { return (seen = jobs()).size() >= 2; }, 10s));
    for (auto& line : sim_lines("CTL ")) seen.push_back(line);
    ASSERT_EQ(seen.size(), 2u) << file("var/run/txrx-sim.log");
    EXPECT_NE(seen[0].find("text=first to=+4911"), std::string::npos) << seen[0];
    EXPECT_NE(seen[1].find("text=second to=+4922"), std::string::npos) << seen[1];
    EXPECT_FALSE(exists(second));  // consumed
    EXPECT_TRUE(daemon_->running());
}

// A symlink planted at each fixed temporary name points at a victim outside
// the daemon's files; the command or event that uses the name must replace
// the link, never write through it.
TEST_F(DaemonSecurity, PlantedSymlinksAtFixedTemporaryNamesAreNotFollowed) {
    set_env("SMSGW_SIM_SILENT", "1");
    write_file(path("var/config/trigger_ctrl"), rec("^|^Del^|^DELENTRY^|^NO^|^"));
    write_file(path("var/config/trigger_broadcast"),
               rec("^|^Open^|^Doors open^|^Staff]|[^|^NO^|^[null]]|[^|^"));
    write_file(path("var/config/international_dialing"), "int-dialing=enable\nmax-digits=13\n");
    write_file(path("var/config/modem_conf"), "signal_strength_cmd=AT\n");
    write_file(path("var/config/api.conf"), "last-done=1\n");
    std::vector<std::string> names;
    std::istringstream list(
        "var/run/temp_file var/run/temp_conf_gen var/config/temp_file.conf "
        "var/run/quayd_logrot_temp var/run/send_test_file var/run/pending_jobs "
        "var/run/enamefile var/run/temp_file_test var/run/getactionbject var/run/RESPONSE_FILE "
        "var/run/csv_export_file_location_file var/run/QX_Address_Book.csv "
        "var/run/AddressBook.csv");
    for (std::string n; list >> n;) names.push_back(n);
    const auto victim = [&](size_t i) { return path("etc/victim-" + std::to_string(i)); };
    for (size_t i = 0; i < names.size(); ++i) {
        write_file(victim(i), kPrecious);
        ASSERT_EQ(::symlink(victim(i).c_str(), path(names[i]).c_str()), 0);
    }
    start();

    // Rule list rewrite (temp_file), service setting (temp_conf_gen),
    // international dialing (temp_file_test), a listing (RESPONSE_FILE),
    // an export (its location file), an import (the upload emptied).
    EXPECT_EQ(ask("add-sms trigger preconf_sms Hello^|^[null]]|[^|^"), "SUCCESS");
    EXPECT_EQ(ask("add-sms modem x AT+CSQ "), "SUCCESS");
    EXPECT_EQ(ask("add-sms international-dialing max-digits^|^15^|^"), "SUCCESS");
    EXPECT_EQ(ask("get-sms phone_book 1^|^"), path("var/run/RESPONSE_FILE"));
    EXPECT_EQ(ask("CSVEXPORT"), path("var/run/QX_Address_Book.csv"));
    EXPECT_EQ(ask("CSVFILE"), "");

    // A send (send_test_file); two more queue behind it, and taking the
    // first off its ring file rewrites the rest (quayd_logrot_temp).
    EXPECT_EQ(ask("send-sms " + request_file(path("tmp/s1"), "one", "+4901")), "");
    ASSERT_TRUE(wait_jobs_exactly(1));
    EXPECT_EQ(ask("send-sms " + request_file(path("tmp/s2"), "two", "+4902")), "OK");
    EXPECT_EQ(ask("send-sms " + request_file(path("tmp/s3"), "three", "+4903")), "OK");
    report("P_JB");
    settle();
    ASSERT_TRUE(wait_jobs_exactly(2)) << file("var/run/txrx-sim.log");

    // Incoming SMS (getactionbject): a broadcast while a job is outstanding
    // is queued (pending_jobs); a delete by number looks the name up
    // (enamefile); an api status line of 0 writes api.conf (temp_file.conf).
    incoming("+4990", "Open");
    incoming("+4990", "Del:;222");
    report("SMS:api " + path("tmp/req-42") + " 0");
    settle();
    EXPECT_TRUE(wait_for([&] { return ask("get-sms total-entries phone_book^|^") == "1"; }));
    EXPECT_TRUE(wait_file("var/config/api.conf", "last-done=42\n"));
    EXPECT_TRUE(wait_for([&] { return queued_jobs().find("ISBRDTRIG") != std::string::npos; }));

    for (size_t i = 0; i < names.size(); ++i) {
        SCOPED_TRACE(names[i]);
        EXPECT_EQ(read_file(victim(i)), kPrecious);
        struct stat st {};  // used, so the link is gone
        EXPECT_FALSE(::lstat(path(names[i]).c_str(), &st) == 0 && S_ISLNK(st.st_mode));
    }

    // With the job still out, a broadcast that cannot be queued at all is
    // lost, and the log says so.
    ::unlink(path("var/run/pending_jobs").c_str());
    ASSERT_EQ(::mkdir(path("var/run/pending_jobs").c_str(), 0755), 0);
    const std::string queued = queued_jobs();
    incoming("+4990", "Open");
    const std::string dropped =
        "a broadcast trigger was dropped: cannot write " + path("var/run/pending_jobs");
    EXPECT_TRUE(wait_for([&] { return daemon_log().find(dropped) != std::string::npos; }))
        << daemon_log();
    EXPECT_EQ(queued_jobs(), queued);
    EXPECT_TRUE(daemon_->running());
}

// Incoming SMS reported by txrx: address-book commands from allowed
// senders, broadcasts to a group, refused senders in the system log, and
// api trigger requests.
// The same contacts and group as above.
class DaemonTriggers : public DaemonSecurity {
  protected:
    void SetUp() override {
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
