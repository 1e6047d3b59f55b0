// The real smsgwd against a local attacker who can send datagrams and plant
// files: request files it must refuse, symlinks planted at the fixed
// temporary names, and lengths that announce far more than arrives.
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "formats/request_file.h"
#include "send/sender.h"
#include "support/test_support.h"

namespace smsgw::test {
namespace {

using namespace std::chrono_literals;

const std::string kProbe = "get-sms total-entries phone_book^|^";
const std::string kPrecious = "precious bytes that must survive\n";

bool is_symlink(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
}

// Peak resident size of a process in kB (0 when it cannot be read).
long peak_rss_kb(pid_t pid) {
    std::istringstream status(read_file("/proc/" + std::to_string(pid) + "/status"));
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmHWM:", 0) == 0) return std::atol(line.c_str() + 6);
    return 0;
}

class DaemonSecurity : public DaemonFixture {
  protected:
    DaemonSecurity() {
        seed_contacts("Ann^|^111^|^^|^1,^|^\nBen^|^222^|^^|^1,^|^\n", "Staff\n");
        // One api record for id 42, so a status written for a refused
        // "...-42" request would show.
        write_file(path("var/config/api_stat.st"), api_stat_image({42}));
        ::mkdir(path("etc").c_str(), 0755);
    }
    // Every datagram txrx-sim received, whatever it was, in order.
    std::vector<std::string> received_by_txrx() const {
        std::vector<std::string> out;
        for (auto& line : sim_lines(""))
            if (line.rfind("JOB ", 0) == 0 || line.rfind("CTL ", 0) == 0) out.push_back(line);
        return out;
    }
    std::string request_image(const std::string& text, const std::string& number) {
        return encode_request_file("admin", text, number + "^|^", "", "");
    }
    std::string request_file(const std::string& full_path, const std::string& text,
                             const std::string& number) {
        write_file(full_path, request_image(text, number));
        return full_path;
    }
    bool pending_files_empty() const {
        for (int i = 1; i <= 9; ++i)
            if (!file("var/Jobs/Pending_Jobs_" + std::to_string(i)).empty()) return false;
        return true;
    }
};

// One way of naming a file the daemon must not touch: what the datagram
// names, and the file whose bytes must survive.
struct Refused {
    std::string what;
    std::string named;
    std::string victim;
};

TEST_F(DaemonSecurity, RefusedRequestFilesAreLeftAloneAndNothingReachesTxrx) {
    set_env("SMSGW_SIM_SILENT", "1");  // only the test reports jobs done
    start();
    const std::string victim = path("etc/req-42");
    const std::string image = request_image("stolen", "666");
    write_file(victim, image);

    std::vector<Refused> cases = {
        {"outside the spool", victim, victim},
        {"dot-dot out of the spool", path("tmp/../etc/req-42"), victim},
        {"dot-dot that stays inside", path("tmp/../tmp/inside-42"), path("tmp/inside-42")},
        {"relative path", "tmp/relative-42", path("tmp/relative-42")},
        {"symlink as last component", path("tmp/link-42"), victim},
        {"symlinked directory", path("tmp/dirlink/req-42"), victim},
        {"directory", path("tmp/adir-42"), path("tmp/adir-42/inner")},
        {"fifo", path("tmp/fifo-42"), victim},  // never read here: it would block
        {"NUL inside the path", path("tmp") + std::string(1, '\0') + "/../etc/req-42", victim},
    };
    write_file(path("tmp/inside-42"), image);
    write_file(path("tmp/relative-42"), image);
    ASSERT_EQ(::symlink(victim.c_str(), path("tmp/link-42").c_str()), 0);
    ASSERT_EQ(::symlink(path("etc").c_str(), path("tmp/dirlink").c_str()), 0);
    write_file(path("tmp/adir-42/inner"), image);
    ASSERT_EQ(::mkfifo(path("tmp/fifo-42").c_str(), 0600), 0);
    // 88 characters: one more than a request path may have.
    std::string long_name = path("tmp/");
    long_name += std::string(88 - long_name.size() - 3, 'x') + "-42";
    ASSERT_EQ(long_name.size(), 88u);
    write_file(long_name, image);
    cases.push_back({"88 characters", long_name, long_name});
    // A character device endless to read, where the system lets us make one.
    // (Its own bytes are never read here: reading it would not end.)
    if (::mknod(path("tmp/zero-42").c_str(), S_IFCHR | 0600, ::makedev(1, 5)) == 0)
        cases.push_back({"character device", path("tmp/zero-42"), victim});
    const std::string api_before = file("var/config/api_stat.st");

    auto try_all = [&](bool outstanding) {
        for (const auto& c : cases) {
            const std::string before = read_file(c.victim);
            for (const std::string form : {"", "api ", "api2 ", "api3 "}) {
                SCOPED_TRACE(c.what + " as \"send-sms " + form + "\", job outstanding " +
                             std::to_string(outstanding));
                const bool trigger = form == "api2 " || form == "api3 ";
                auto reply = request("send-sms " + form + c.named);
                ASSERT_TRUE(reply.has_value()) << daemon_->stderr_text();
                // The reply the loop gives any send request in this state.
                EXPECT_EQ(*reply, trigger || outstanding ? "OK" : "");
                EXPECT_TRUE(exists(c.victim));
                EXPECT_EQ(read_file(c.victim), before);
                if (c.named.find('\0') == std::string::npos && c.named[0] == '/') {
                    EXPECT_TRUE(exists(c.named));
                }
            }
        }
    };

    // A good job first, so a refused request could hand over its path again.
    const std::string good = request_file(path("tmp/good-1"), "first", "+4911");
    EXPECT_EQ(request("send-sms " + good), "");
    ASSERT_TRUE(wait_for([&] { return received_by_txrx().size() == 1; }, 10s));

    try_all(true);  // queued requests are checked before they are queued
    EXPECT_TRUE(pending_files_empty());

    report("P_JB");
    settle();
    try_all(false);  // nothing is handed over, not even the previous job

    EXPECT_TRUE(pending_files_empty());
    EXPECT_EQ(file("var/config/api_stat.st"), api_before);
    EXPECT_EQ(read_file(victim), image);
    EXPECT_EQ(file("etc/req-42"), image);

    // The next good request is the second and last thing txrx sees.
    const std::string next = request_file(path("tmp/good-2"), "second", "+4922");
    EXPECT_EQ(request("send-sms " + next), "");
    ASSERT_TRUE(wait_for([&] { return received_by_txrx().size() >= 2; }, 10s));
    auto seen = received_by_txrx();
    ASSERT_EQ(seen.size(), 2u) << file("var/run/txrx-sim.log");
    EXPECT_NE(seen[0].find("text=first to=+4911"), std::string::npos) << seen[0];
    EXPECT_NE(seen[1].find("text=second to=+4922"), std::string::npos) << seen[1];
    EXPECT_TRUE(daemon_->running());
}

TEST_F(DaemonSecurity, SpoolDirectoriesGivenReplaceTheDefaults) {
    TempDir first, second;
    start({"--spool-dir", first.path(), "--spool-dir", second.path()});
    // 87 characters is the longest request path taken.
    std::string longest = first / "";
    longest += std::string(87 - longest.size(), 'y');
    // The refused ones come first: with no job handed over yet, every reply
    // to a refused request is the empty hand-off reply.
    struct Case {
        std::string file;
        bool accepted;
    };
    const std::vector<Case> cases = {
        {path("tmp/req-a"), false}, {path("var/tmp/req-b"), false}, {path("var/run/req-c"), false},
        {first / "req-d", true},    {second / "req-e", true},       {longest, true},
    };
    size_t jobs = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        request_file(c.file, "spool " + std::to_string(&c - cases.data()), "+4933");
        auto reply = request("send-sms " + c.file);
        ASSERT_TRUE(reply.has_value());
        if (!c.accepted) {
            EXPECT_EQ(*reply, "");
            EXPECT_TRUE(exists(c.file));
            continue;
        }
        // A job may still be outstanding: handed over ("") or queued ("OK").
        EXPECT_TRUE(*reply == "" || *reply == "OK") << *reply;
        ++jobs;
        EXPECT_TRUE(wait_for([&] { return received_by_txrx().size() == jobs; }, 10s));
        EXPECT_FALSE(exists(c.file));  // consumed
    }
    auto seen = received_by_txrx();
    ASSERT_EQ(seen.size(), 3u) << file("var/run/txrx-sim.log");
    EXPECT_NE(seen[0].find("text=spool 3 "), std::string::npos) << seen[0];
    EXPECT_NE(seen[1].find("text=spool 4 "), std::string::npos) << seen[1];
    EXPECT_NE(seen[2].find("text=spool 5 "), std::string::npos) << seen[2];
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

    const std::vector<std::string> names = {
        "var/run/temp_file",
        "var/run/temp_conf_gen",
        "var/config/temp_file.conf",
        "var/run/quayd_logrot_temp",
        "var/run/send_test_file",
        "var/run/pending_jobs",
        "var/run/enamefile",
        "var/run/temp_file_test",
        "var/run/getactionbject",
        "var/run/RESPONSE_FILE",
        "var/run/csv_export_file_location_file",
    };
    std::vector<std::string> victims;
    for (size_t i = 0; i < names.size(); ++i) {
        victims.push_back(path("etc/victim-" + std::to_string(i)));
        write_file(victims.back(), kPrecious);
        ASSERT_EQ(::symlink(victims.back().c_str(), path(names[i]).c_str()), 0) << names[i];
    }
    start();

    // Rule list rewrite (temp_file), service setting (temp_conf_gen),
    // international dialing (temp_file_test), a listing (RESPONSE_FILE),
    // an export (its location file).
    EXPECT_EQ(request("add-sms trigger preconf_sms Hello^|^[null]]|[^|^"), "SUCCESS");
    EXPECT_EQ(file("var/config/preconf_sms"), rec("^|^Hello^|^[null]]|[^|^"));
    EXPECT_EQ(request("add-sms modem x AT+CSQ "), "SUCCESS");
    EXPECT_EQ(file("var/config/modem_conf"), "signal_strength_cmd=AT+CSQ\n");
    EXPECT_EQ(request("add-sms international-dialing max-digits^|^15^|^"), "SUCCESS");
    EXPECT_EQ(file("var/config/international_dialing"), "int-dialing=enable\nmax-digits=15\n");
    EXPECT_EQ(request("get-sms phone_book 1^|^"), path("var/run/RESPONSE_FILE"));
    EXPECT_NE(file("var/run/RESPONSE_FILE").find("^|^Ann^|^111^|^"), std::string::npos);
    EXPECT_EQ(request("CSVEXPORT"), path("var/run/QX_Address_Book.csv"));

    // A send (send_test_file); two more queue behind it, and taking the
    // first off its ring file rewrites the rest (quayd_logrot_temp).
    EXPECT_EQ(request("send-sms " + request_file(path("tmp/s1"), "one", "+4901")), "");
    ASSERT_TRUE(wait_for([&] { return sim_lines("JOB ").size() == 1; }, 10s));
    EXPECT_EQ(request("send-sms " + request_file(path("tmp/s2"), "two", "+4902")), "OK");
    EXPECT_EQ(request("send-sms " + request_file(path("tmp/s3"), "three", "+4903")), "OK");
    report("P_JB");
    settle();
    ASSERT_TRUE(wait_for([&] { return sim_lines("JOB ").size() == 2; }, 10s))
        << file("var/run/txrx-sim.log");
    EXPECT_NE(sim_lines("JOB ")[1].find("text=two to=+4902"), std::string::npos)
        << file("var/run/txrx-sim.log");

    // Incoming SMS (getactionbject): a broadcast while a job is outstanding
    // is queued (pending_jobs); a delete by number looks the name up
    // (enamefile); an api status line of 0 writes api.conf (temp_file.conf).
    incoming("+4990", "Open");
    incoming("+4990", "Del:;222");
    report("SMS:api " + path("tmp/req-42") + " 0");
    settle();
    EXPECT_TRUE(wait_for([&] { return request(kProbe) == "1"; }));  // Ben is gone
    EXPECT_TRUE(wait_for([&] { return file("var/config/api.conf") == "last-done=42\n"; }));
    EXPECT_TRUE(wait_for([&] {
        for (int i = 1; i <= 9; ++i)
            if (file("var/Jobs/Pending_Jobs_" + std::to_string(i)).find("ISBRDTRIG") !=
                std::string::npos)
                return true;
        return false;
    }));

    for (size_t i = 0; i < names.size(); ++i) {
        SCOPED_TRACE(names[i]);
        EXPECT_EQ(read_file(victims[i]), kPrecious);
        EXPECT_FALSE(is_symlink(path(names[i])));  // used, so the link is gone
    }
    EXPECT_TRUE(daemon_->running());
}

// Files at other fixed names that commands write or empty: a planted link
// there must not let a request overwrite or empty a file elsewhere.
TEST_F(DaemonSecurity, PlantedSymlinksAtCsvNamesAreNotFollowed) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"var/run/QX_Address_Book.csv", "CSVEXPORT"},
        {"var/run/AddressBook.csv", "CSVFILE"},
    };
    std::vector<std::string> victims;
    for (size_t i = 0; i < cases.size(); ++i) {
        victims.push_back(path("etc/csv-victim-" + std::to_string(i)));
        write_file(victims.back(), kPrecious);
        ASSERT_EQ(::symlink(victims.back().c_str(), path(cases[i].first).c_str()), 0);
    }
    start();
    for (size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(cases[i].second);
        EXPECT_TRUE(request(cases[i].second).has_value());
        EXPECT_EQ(read_file(victims[i]), kPrecious);
    }
    EXPECT_TRUE(daemon_->running());
}

TEST_F(DaemonSecurity, HugeAnnouncedLengthsAllocateOnlyWhatArrived) {
    start();
    const long before = peak_rss_kb(daemon_->pid());
    ASSERT_GT(before, 0);
    for (const std::string length :
         {"999999999", "2147483647", "4294967296", "99999999999999999999", "65508", "-1"}) {
        SCOPED_TRACE(length);
        for (int round = 0; round < 3; ++round) {
            UdpClient cl;
            cl.send_to(20205 + offset_, length);
            cl.send_to(20205 + offset_, kProbe);
            EXPECT_TRUE(cl.receive().has_value());
        }
        EXPECT_EQ(request(kProbe), "2");
    }
    // Each request was a few dozen bytes; even one buffer of the announced
    // size would show here.
    EXPECT_LT(peak_rss_kb(daemon_->pid()) - before, 32 * 1024);
    EXPECT_TRUE(daemon_->running());
}

}  // namespace
}  // namespace smsgw::test
