// Settings files, international dialing with its shared-memory word (another
// process's view of it is the daemon tests' business), and the notices the
// settings commands send to txrx and the HTTP client.
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cerrno>
#include <string>

#include "commands/intl_dialing.h"
#include "commands/line_reader.h"
#include "commands/service_settings.h"
#include "support/full_device.h"
#include "support/test_support.h"

using namespace smsgw;

namespace {

struct SettingsTest : ::testing::Test {
    SettingsTest() {
        test::write_file(dir / "var/run/.keep", "");
        test::write_file(dir / "var/config/.keep", "");
    }
    std::string conf() { return dir / "var/config/http_server_conf"; }
    std::string dialing_file() { return dir / "var/config/international_dialing"; }

    test::TempDir dir;
    Runtime rt{dir.path(), test::random_port_offset()};
    TxrxLink link{rt.ports};
};

// Removes the test's segment whatever the test did.
struct SegmentCleanup {
    int key;
    ~SegmentCleanup() {
        int id = ::shmget(static_cast<key_t>(key), 0, 0);
        if (id >= 0) ::shmctl(id, IPC_RMID, nullptr);
    }
};

}  // namespace

TEST_F(SettingsTest, SetConfValueCreatesReplacesAndAppends) {
    EXPECT_EQ(set_conf_value(rt, conf(), "timeout", "30"), "SUCCESS");
    EXPECT_EQ(test::read_file(conf()), "timeout=30\n");
    test::write_file(conf(), "status=on\nstatus_long=x\ntimeout=1\nstatus=dup\n");
    EXPECT_EQ(set_conf_value(rt, conf(), "status", "off"), "SUCCESS");
    EXPECT_EQ(set_conf_value(rt, conf(), "new", "v"), "SUCCESS");
    const std::string kept = "status=off\nstatus_long=x\ntimeout=1\nstatus=off\nnew=v\n";
    EXPECT_EQ(test::read_file(conf()), kept);
    std::string out;
    EXPECT_EQ(get_conf_value(conf(), "timeout", out) + out, "SUCCESS1");
    EXPECT_EQ(get_conf_value(conf(), "time", out), "ERROR");
    EXPECT_EQ(get_conf_value(dir / "none", "timeout", out), "ERROR");
    EXPECT_EQ(write_conf_value(rt, dir / "var/config/api.conf", "last-done", "7"), 1);
    EXPECT_EQ(write_conf_value(rt, dir / "var/config/api.conf", "last-done", "8"), 1);
    EXPECT_EQ(test::read_file(dir / "var/config/api.conf"), "last-done=8\n");
    EXPECT_EQ(write_conf_value(rt, dir / "no/such/dir/f", "k", "v"), 0);
    {
        test::FullDevice full(100);  // a file that cannot be written stays as it was
        EXPECT_EQ(set_conf_value(rt, conf(), "big", std::string(10000, 'v')), "ERROR");
        EXPECT_EQ(set_conf_value(rt, conf(), "status", std::string(10000, 'v')), "ERROR");
    }
    EXPECT_EQ(test::read_file(conf()), kept);
    // Lines are read in 255-byte pieces: a key at the start of a piece
    // counts as a line of its own.
    std::string first(255, 'a'), big(10000, 'z');
    test::write_file(conf(), first + "timeout=9\nother=1\n");
    EXPECT_EQ(set_conf_value(rt, conf(), "timeout", "5"), "SUCCESS");
    EXPECT_EQ(set_conf_value(rt, conf(), "other", big), "SUCCESS");
    EXPECT_EQ(test::read_file(conf()), first + "timeout=5\nother=" + big + "\n");
}

TEST_F(SettingsTest, DialingLoaderStopsAtTheFirstOfTheTwoLines) {
    const std::pair<std::string, int> cases[] = {
        {"int-dialing=enable\nmax-digits=14\n", 14},
        {"int-dialing=disable\nmax-digits=14\n", 0},
        {"max-digits=12\nint-dialing=disable\n", 12},
        {"nothing here\n", 0},
        {"int-dialing=enable\nmax-digits=abc\n", 0},
        {"int-dialing= enable\nmax-digits= \t12\n", 12},  // blanks before the number
        {"max-digits=-3\n", -3},
        // 500-byte lines are read in 29-byte pieces and hide no later line
        {std::string(500, 'x') + "\nint-dialing=enable\n" + std::string(500, 'y') +
             "\nmax-digits=9\n",
         9},
    };
    for (const auto& [content, value] : cases) {
        test::write_file(dialing_file(), content);
        EXPECT_EQ(load_international_dialing(rt), value) << content;
    }
    std::remove(dialing_file().c_str());
    EXPECT_EQ(load_international_dialing(rt), 0);
    // The number is looked for only inside the text handed over.
    for (std::string_view text : {"max-digits=7", "max-digits=-7"})
        EXPECT_EQ(scan_int_after(text.substr(0, text.size() - 1), "max-digits="), std::nullopt)
            << text;
}

TEST_F(SettingsTest, DialingGetSetAndTheSharedWord) {
    SegmentCleanup cleanup{rt.ports.shm_key()};
    DialingSegment seg;
    auto get = [&](const char* key) { return get_international_dialing(rt, seg, key); };
    auto set = [&](const char* key, const char* value) {
        return set_international_dialing(rt, seg, key, value);
    };
    test::write_file(dialing_file(), "int-dialing= \tenable\nmax-digits=  12\n");
    EXPECT_EQ(get("dialing") + "/" + get("max-digits"), "checked/12");
    test::write_file(dialing_file(), "int-dialing=disable\nmax-digits=12\n");
    ASSERT_TRUE(seg.attach_dialing_segment(rt));
    EXPECT_EQ(seg.value(), 0);
    EXPECT_EQ(get("dialing") + "/" + get("max-digits") + "/" + get("other"), "/12/ERROR");
    // Enabling does not publish the limit; setting the digits does, even
    // while disabled.
    EXPECT_EQ(set("dialing", "enable"), "SUCCESS");
    EXPECT_EQ(test::read_file(dialing_file()), "int-dialing=enable\nmax-digits=12\n");
    EXPECT_EQ(get("dialing"), "checked");
    EXPECT_EQ(seg.value(), 0);
    EXPECT_EQ(set("max-digits", "15"), "SUCCESS");
    EXPECT_EQ(test::read_file(dialing_file()), "int-dialing=enable\nmax-digits=15\n");
    EXPECT_EQ(seg.value(), 15);
    EXPECT_EQ(set("dialing", "disable"), "SUCCESS");
    EXPECT_EQ(seg.value(), 0);
    EXPECT_EQ(set("max-digits", "junk"), "SUCCESS");
    EXPECT_EQ(test::read_file(dialing_file()), "int-dialing=disable\nmax-digits=0\n");
    EXPECT_EQ(set("bogus", "1"), "ERROR");
    // A file without the line is rewritten unchanged; no file is an error.
    test::write_file(dialing_file(), "max-digits=3\n");
    EXPECT_EQ(set("dialing", "enable"), "SUCCESS");
    EXPECT_EQ(test::read_file(dialing_file()), "max-digits=3\n");
    std::remove(dialing_file().c_str());
    EXPECT_EQ(set("max-digits", "4") + get("dialing"), "ERRORERROR");
    EXPECT_FALSE(test::exists(dialing_file()));
}

// Settings changes go to txrx as control text; the timer and the state also
// to the HTTP client as a notice.
TEST_F(SettingsTest, ChangesNotifyTxrxAndTheHttpClient) {
    test::UdpListener txrx(rt.ports.txrx_out()), http(rt.ports.http());
    ASSERT_TRUE(txrx.ok() && http.ok());
    EXPECT_EQ(set_sms_timer(rt, link, "45"), "SUCCESS");
    EXPECT_EQ(txrx.receive(), "cmd set-sms-timer 45 " + std::string(79, '\0'));
    EXPECT_EQ(http.receive(), std::string("set-sms-timer  45^|^") + '\0');
    EXPECT_EQ(set_sms_status(rt, link, "disable"), "SUCCESS");
    EXPECT_EQ(txrx.receive(), "cmd set-sms-status disable " + std::string(73, '\0'));
    EXPECT_EQ(http.receive(), std::string("set-sms 1 status disable^|^") + '\0');
    EXPECT_EQ(test::read_file(conf()), "timeout=45\nstatus=disable\n");
    EXPECT_EQ(set_signal_strength_cmd(rt, link, "AT+CSQ"), "SUCCESS");
    EXPECT_EQ(txrx.receive(), "cmd signal_strength_cmd AT+CSQ" + std::string(70, '\0'));
    EXPECT_EQ(test::read_file(dir / "var/config/modem_conf"), "signal_strength_cmd=AT+CSQ\n");
}

TEST_F(SettingsTest, EnablingStartsTheHttpClient) {
    std::string marker = dir / "started";
    test::write_file(dir / "bin/http-client", "#!/bin/sh\ntouch '" + marker + "'\n");
    ASSERT_EQ(::chmod((dir / "bin/http-client").c_str(), 0755), 0);
    EXPECT_EQ(set_sms_status(rt, link, "enable"), "SUCCESS");
    EXPECT_TRUE(test::wait_for([&] { return test::exists(marker); }));
    // The client is not left to the caller to reap.
    errno = 0;
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
    EXPECT_EQ(test::read_file(conf()), "status=enable\n");
}
