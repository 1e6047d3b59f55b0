// The real smsgwd against a local attacker who can send datagrams and plant
// files: request files it must refuse, symlinks planted at the fixed
// temporary names, and lengths that announce far more than arrives.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
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

const std::string kProbe = "get-sms total-entries phone_book^|^";
const std::string kPrecious = "precious bytes that must survive\n";

std::string rec(const std::string& text) {
    return std::to_string(text.size()) + text;
}

bool is_symlink(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
}

bool lexists(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

long long lsize(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : 0;
}

// Peak resident size of a process in kB (0 when it cannot be read).
long peak_rss_kb(pid_t pid) {
    std::istringstream status(test::read_file("/proc/" + std::to_string(pid) + "/status"));
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmHWM:", 0) == 0) return std::atol(line.c_str() + 6);
    return 0;
}

class DaemonSecurity : public ::testing::Test {
  protected:
    void SetUp() override {
        test::prepare_root(root_.path());
        test::write_file(root_ / "var/AddressBook/groups", "Staff\n");
        test::write_file(root_ / "var/AddressBook/Address_Book",
                         "Ann^|^111^|^^|^1,^|^\n"
                         "Ben^|^222^|^^|^1,^|^\n");
        // One api record for id 42, so a status written for a refused
        // "...-42" request would show.
        std::string api(4, '\0');
        std::string record(60, '\0');
        int32_t id = 42;
        std::memcpy(record.data(), &id, 4);
        record[4] = 1;
        api += record;
        test::write_file(root_ / "var/config/api_stat.st", api);
        ::mkdir((root_ / "etc").c_str(), 0755);
    }
    void TearDown() override {
        daemon_.reset();
        ::unsetenv("SMSGW_SIM_SILENT");
    }
    void start(std::vector<std::string> extra = {}) {
        daemon_ = std::make_unique<test::Daemon>(root_.path(), offset_, std::move(extra));
        ASSERT_TRUE(daemon_->wait_ready()) << daemon_->stderr_text();
        // A job handed over before txrx-sim listens would be lost.
        ASSERT_TRUE(test::wait_for([&] { return !sim_lines("START ").empty(); }, 10s));
    }
    std::string path(const std::string& rel) const { return root_ / rel; }
    std::vector<std::string> sim_lines(const std::string& prefix) const {
        std::vector<std::string> out;
        std::istringstream log(test::read_file(path("var/run/txrx-sim.log")));
        for (std::string line; std::getline(log, line);)
            if (line.rfind(prefix, 0) == 0) out.push_back(line);
        return out;
    }
    // Every datagram txrx-sim received, whatever it was, in order.
    std::vector<std::string> received_by_txrx() const {
        std::vector<std::string> out;
        for (auto& line : sim_lines(""))
            if (line.rfind("JOB ", 0) == 0 || line.rfind("CTL ", 0) == 0) out.push_back(line);
        return out;
    }
    std::optional<std::string> ask(const std::string& text) {
        return client_.request(20205 + offset_, text);
    }
    std::string request_image(const std::string& text, const std::string& number) {
        return build_request_file("admin", text, number + "^|^", "", "");
    }
    std::string request_file(const std::string& full_path, const std::string& text,
                             const std::string& number) {
        test::write_file(full_path, request_image(text, number));
        return full_path;
    }
    // The report txrx sends for an incoming SMS.
    void incoming(const std::string& sender, const std::string& text) {
        std::string field = sender;
        field.resize(50, '\0');
        client_.send_to(20206 + offset_, "SMS:" + field + text);
    }
    // A datagram to txrx's report port is read before a web request that
    // follows it, so the answer to a probe means the report was handled.
    void settle() { ASSERT_EQ(ask(kProbe).has_value(), true); }
    bool pending_files_empty() const {
        for (int i = 1; i <= 9; ++i)
            if (lsize(path("var/Jobs/Pending_Jobs_" + std::to_string(i))) > 0) return false;
        return true;
    }

    TempDir root_;
    int offset_ = test::random_port_offset();
    std::unique_ptr<test::Daemon> daemon_;
    test::UdpClient client_;
};

// One way of naming a file the daemon must not touch: what the datagram
// names, and the file whose bytes must survive.
struct Refused {
    std::string what;
    std::string named;
    std::string victim;
};

TEST_F(DaemonSecurity, RefusedRequestFilesAreLeftAloneAndNothingReachesTxrx) {
    ::setenv("SMSGW_SIM_SILENT", "1", 1);  // only the test reports jobs done
    start();
    const std::string victim = path("etc/req-42");
    const std::string image = request_image("stolen", "666");
    test::write_file(victim, image);

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
    test::write_file(path("tmp/inside-42"), image);
    test::write_file(path("tmp/relative-42"), image);
    ASSERT_EQ(::symlink(victim.c_str(), path("tmp/link-42").c_str()), 0);
    ASSERT_EQ(::symlink(path("etc").c_str(), path("tmp/dirlink").c_str()), 0);
    test::write_file(path("tmp/adir-42/inner"), image);
    ASSERT_EQ(::mkfifo(path("tmp/fifo-42").c_str(), 0600), 0);
    // 88 characters: one more than a request path may have.
    std::string long_name = path("tmp/");
    long_name += std::string(88 - long_name.size() - 3, 'x') + "-42";
    ASSERT_EQ(long_name.size(), 88u);
    test::write_file(long_name, image);
    cases.push_back({"88 characters", long_name, long_name});
    // A character device endless to read, where the system lets us make one.
    // (Its own bytes are never read here: reading it would not end.)
    if (::mknod(path("tmp/zero-42").c_str(), S_IFCHR | 0600, ::makedev(1, 5)) == 0)
        cases.push_back({"character device", path("tmp/zero-42"), victim});
    const std::string api_before = test::read_file(path("var/config/api_stat.st"));

    auto try_all = [&](bool outstanding) {
        for (const auto& c : cases) {
            const std::string before = test::read_file(c.victim);
            for (const std::string form : {"", "api ", "api2 ", "api3 "}) {
                SCOPED_TRACE(c.what + " as \"send-sms " + form + "\", job outstanding " +
                             std::to_string(outstanding));
                const bool trigger = form == "api2 " || form == "api3 ";
                auto reply = ask("send-sms " + form + c.named);
                ASSERT_TRUE(reply.has_value()) << daemon_->stderr_text();
                // The reply the loop gives any send request in this state.
                EXPECT_EQ(*reply, trigger || outstanding ? "OK" : "");
                EXPECT_TRUE(lexists(c.victim));
                EXPECT_EQ(test::read_file(c.victim), before);
                if (c.named.find('\0') == std::string::npos && c.named[0] == '/') {
                    EXPECT_TRUE(lexists(c.named));
                }
            }
        }
    };

    // A good job first, so a refused request could hand over its path again.
    const std::string good = request_file(path("tmp/good-1"), "first", "+4911");
    EXPECT_EQ(ask("send-sms " + good), "");
    ASSERT_TRUE(test::wait_for([&] { return received_by_txrx().size() == 1; }, 10s));

    try_all(true);  // queued requests are checked before they are queued
    EXPECT_TRUE(pending_files_empty());

    client_.send_to(20206 + offset_, "P_JB");
    settle();
    try_all(false);  // nothing is handed over, not even the previous job

    EXPECT_TRUE(pending_files_empty());
    EXPECT_EQ(test::read_file(path("var/config/api_stat.st")), api_before);
    EXPECT_EQ(test::read_file(victim), image);
    EXPECT_EQ(test::read_file(path("etc/req-42")), image);

    // The next good request is the second and last thing txrx sees.
    const std::string next = request_file(path("tmp/good-2"), "second", "+4922");
    EXPECT_EQ(ask("send-sms " + next), "");
    ASSERT_TRUE(test::wait_for([&] { return received_by_txrx().size() >= 2; }, 10s));
    auto seen = received_by_txrx();
    ASSERT_EQ(seen.size(), 2u) << test::read_file(path("var/run/txrx-sim.log"));
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
        auto reply = ask("send-sms " + c.file);
        ASSERT_TRUE(reply.has_value());
        if (!c.accepted) {
            EXPECT_EQ(*reply, "");
            EXPECT_TRUE(lexists(c.file));
            continue;
        }
        // A job may still be outstanding: handed over ("") or queued ("OK").
        EXPECT_TRUE(*reply == "" || *reply == "OK") << *reply;
        ++jobs;
        EXPECT_TRUE(test::wait_for([&] { return received_by_txrx().size() == jobs; }, 10s));
        EXPECT_FALSE(lexists(c.file));  // consumed
    }
    auto seen = received_by_txrx();
    ASSERT_EQ(seen.size(), 3u) << test::read_file(path("var/run/txrx-sim.log"));
    EXPECT_NE(seen[0].find("text=spool 3 "), std::string::npos) << seen[0];
    EXPECT_NE(seen[1].find("text=spool 4 "), std::string::npos) << seen[1];
    EXPECT_NE(seen[2].find("text=spool 5 "), std::string::npos) << seen[2];
}

// A symlink planted at each fixed temporary name points at a victim outside
// the daemon's files; the command or event that uses the name must replace
// the link, never write through it.
TEST_F(DaemonSecurity, PlantedSymlinksAtFixedTemporaryNamesAreNotFollowed) {
    ::setenv("SMSGW_SIM_SILENT", "1", 1);
    test::write_file(path("var/config/trigger_ctrl"), rec("^|^Del^|^DELENTRY^|^NO^|^"));
    test::write_file(path("var/config/trigger_broadcast"),
                     rec("^|^Open^|^Doors open^|^Staff]|[^|^NO^|^[null]]|[^|^"));
    test::write_file(path("var/config/international_dialing"),
                     "int-dialing=enable\nmax-digits=13\n");
    test::write_file(path("var/config/modem_conf"), "signal_strength_cmd=AT\n");
    test::write_file(path("var/config/api.conf"), "last-done=1\n");

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
        test::write_file(victims.back(), kPrecious);
        ASSERT_EQ(::symlink(victims.back().c_str(), path(names[i]).c_str()), 0) << names[i];
    }
    start();

    // Rule list rewrite (temp_file), service setting (temp_conf_gen),
    // international dialing (temp_file_test), a listing (RESPONSE_FILE),
    // an export (its location file).
    EXPECT_EQ(ask("add-sms trigger preconf_sms Hello^|^[null]]|[^|^"), "SUCCESS");
    EXPECT_EQ(test::read_file(path("var/config/preconf_sms")), rec("^|^Hello^|^[null]]|[^|^"));
    EXPECT_EQ(ask("add-sms modem x AT+CSQ "), "SUCCESS");
    EXPECT_EQ(test::read_file(path("var/config/modem_conf")), "signal_strength_cmd=AT+CSQ\n");
    EXPECT_EQ(ask("add-sms international-dialing max-digits^|^15^|^"), "SUCCESS");
    EXPECT_EQ(test::read_file(path("var/config/international_dialing")),
              "int-dialing=enable\nmax-digits=15\n");
    EXPECT_EQ(ask("get-sms phone_book 1^|^"), path("var/run/RESPONSE_FILE"));
    EXPECT_NE(test::read_file(path("var/run/RESPONSE_FILE")).find("^|^Ann^|^111^|^"),
              std::string::npos);
    EXPECT_EQ(ask("CSVEXPORT"), path("var/run/QX_Address_Book.csv"));

    // A send (send_test_file); two more queue behind it, and taking the
    // first off its ring file rewrites the rest (quayd_logrot_temp).
    EXPECT_EQ(ask("send-sms " + request_file(path("tmp/s1"), "one", "+4901")), "");
    ASSERT_TRUE(test::wait_for([&] { return sim_lines("JOB ").size() == 1; }, 10s));
    EXPECT_EQ(ask("send-sms " + request_file(path("tmp/s2"), "two", "+4902")), "OK");
    EXPECT_EQ(ask("send-sms " + request_file(path("tmp/s3"), "three", "+4903")), "OK");
    client_.send_to(20206 + offset_, "P_JB");
    settle();
    ASSERT_TRUE(test::wait_for([&] { return sim_lines("JOB ").size() == 2; }, 10s))
        << test::read_file(path("var/run/txrx-sim.log"));
    EXPECT_NE(sim_lines("JOB ")[1].find("text=two to=+4902"), std::string::npos)
        << test::read_file(path("var/run/txrx-sim.log"));

    // Incoming SMS (getactionbject): a broadcast while a job is outstanding
    // is queued (pending_jobs); a delete by number looks the name up
    // (enamefile); an api status line of 0 writes api.conf (temp_file.conf).
    incoming("+4990", "Open");
    incoming("+4990", "Del:;222");
    client_.send_to(20206 + offset_, "SMS:api " + path("tmp/req-42") + " 0");
    settle();
    EXPECT_TRUE(test::wait_for([&] { return ask(kProbe) == "1"; }));  // Ben is gone
    EXPECT_TRUE(test::wait_for(
        [&] { return test::read_file(path("var/config/api.conf")) == "last-done=42\n"; }));
    EXPECT_TRUE(test::wait_for([&] {
        for (int i = 1; i <= 9; ++i)
            if (test::read_file(path("var/Jobs/Pending_Jobs_" + std::to_string(i)))
                    .find("ISBRDTRIG") != std::string::npos)
                return true;
        return false;
    }));

    for (size_t i = 0; i < names.size(); ++i) {
        SCOPED_TRACE(names[i]);
        EXPECT_EQ(test::read_file(victims[i]), kPrecious);
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
        test::write_file(victims.back(), kPrecious);
        ASSERT_EQ(::symlink(victims.back().c_str(), path(cases[i].first).c_str()), 0);
    }
    start();
    for (size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(cases[i].second);
        EXPECT_TRUE(ask(cases[i].second).has_value());
        EXPECT_EQ(test::read_file(victims[i]), kPrecious);
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
            test::UdpClient cl;
            cl.send_to(20205 + offset_, length);
            cl.send_to(20205 + offset_, kProbe);
            EXPECT_TRUE(cl.receive().has_value());
        }
        EXPECT_EQ(ask(kProbe), "2");
    }
    // Each request was a few dozen bytes; even one buffer of the announced
    // size would show here.
    EXPECT_LT(peak_rss_kb(daemon_->pid()) - before, 32 * 1024);
    EXPECT_TRUE(daemon_->running());
}

}  // namespace
}  // namespace smsgw
