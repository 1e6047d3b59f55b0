// The management commands through the real daemon's web-interface socket:
// replies, the response file and the files each command family leaves.
#include <sys/ipc.h>
#include <sys/shm.h>

#include <string>

#include "support/test_support.h"

namespace smsgw::test {
namespace {

class DaemonCommands : public DaemonFixture {
  protected:
    void start_with(const std::string& address_book = "", const std::string& groups = "",
                    bool wait_txrx = true) {
        write_file(path("var/config/international_dialing"), "int-dialing=enable\nmax-digits=13\n");
        if (!address_book.empty()) seed_contacts(address_book, groups);
        start({}, wait_txrx);
    }
    std::string rf() const { return path("var/run/RESPONSE_FILE"); }
};

TEST_F(DaemonCommands, PhoneBookFamily) {
    start_with("Ann^|^555^|^desk^|^1,^|^\n", "Team\n");
    EXPECT_EQ(ask("get-sms total-entries phone_book^|^"), "1");
    EXPECT_EQ(ask("add-sms phone_book Bob^|^777^|^^|^Team^|^"), "SUCCESS");
    EXPECT_EQ(ask("add-sms phone_book bob^|^777^|^x^|^"), "ERROR:Rejected - Duplicate Entry");
    EXPECT_EQ(ask("get-sms phone_book 1^|^"), rf());
    EXPECT_EQ(read_file(rf()), "22^|^Ann^|^555^|^desk^|^18^|^Bob^|^777^|^^|^17^|^MAX_ELEMENTS=2");
    EXPECT_EQ(ask("get-sms phone_book zz^|^1^|^"), "ERROR:Search is Unsuccesful.");
    EXPECT_EQ(ask("get-sms phone_number 777^|^"), rf());
    EXPECT_EQ(read_file(rf()), "Bob^|^777^|^^|^\n");

    EXPECT_EQ(ask("edit-sms phone_book Bob^|^777^|^Bobby^|^778^|^new^|^"), "SUCCESS");
    EXPECT_EQ(ask("del-sms phone_book Ann^|^555^|^"), "SUCCESS");
    EXPECT_EQ(ask("get-sms phone_book"), "Invalid String to Parse");
    EXPECT_EQ(ask("save-address-book ^|^"), "SUCCESS");
    EXPECT_EQ(file("var/AddressBook/Address_Book"), "Bobby^|^778^|^new^|^1,^|^\n");
    EXPECT_EQ(file("var/AddressBook/groups"), "Team\n");
}

TEST_F(DaemonCommands, GroupFamily) {
    start_with("Ann^|^555^|^^|^^|^\n");
    EXPECT_EQ(ask("add-sms groups Crew^|^Ann^|^555^|^[null]^|^"), "SUCCESS");
    EXPECT_EQ(ask("get-sms total-entries groups^|^"), "1");
    EXPECT_EQ(ask("get-sms groups 1^|^"), rf());
    EXPECT_EQ(read_file(rf()), "Crew\nMAX_ELEMENTS=1\n");
    EXPECT_EQ(ask("get-sms group Crew^|^1^|^"), rf());
    EXPECT_EQ(read_file(rf()), "18^|^Ann^|^555^|^^|^17^|^MAX_ELEMENTS=1");
    EXPECT_EQ(ask("edit-sms groups Crew^|^Staff^|^"), "Invalid String to Parse");
    EXPECT_EQ(ask("edit-sms groups Crew^|^Staff^|^"), "ERROR:Group Doesnot Exist");
    EXPECT_EQ(ask("del-sms group Staff^|^Ann^|^555^|^"), "SUCCESS");
    EXPECT_EQ(ask("del-sms groups Staff^|^"), "ERROR");
    EXPECT_EQ(ask("get-sms total-entries groups^|^"), "0");
}

TEST_F(DaemonCommands, RuleListFamily) {
    start_with("Ann^|^555^|^^|^^|^\n");
    std::string rest = "Fire^|^Go^|^[null]]|[^|^YES^|^Ann]|[555]|[^|^";
    EXPECT_EQ(ask("add-sms trigger sms " + rest), "SUCCESS");
    EXPECT_EQ(ask("add-sms trigger sms FIRE^|^x^|^"), "ERROR:Broadcast Trigger Already Exists.");
    EXPECT_EQ(ask("get-sms total-entries trigger^|^sms^|^"), "1");
    EXPECT_EQ(ask("get-sms trigger sms^|^"), path("var/config/trigger_broadcast"));
    EXPECT_EQ(file("var/config/trigger_broadcast"), rec("^|^" + rest));
    EXPECT_EQ(ask("add-sms trigger auth-list Ann^|^555^|^"), "SUCCESS");
    EXPECT_EQ(file("var/config/authenticate_list"), rec("^|^Ann^|^555^|^"));
    EXPECT_EQ(ask("add-sms trigger preconf_sms Hello^|^[null]]|[^|^"), "SUCCESS");
    EXPECT_EQ(file("var/config/preconf_sms"), rec("^|^Hello^|^[null]]|[^|^"));

    // Deleting the contact takes it out of the rule lists.
    EXPECT_EQ(ask("del-sms phone_book Ann^|^555^|^"), "SUCCESS");
    EXPECT_EQ(file("var/config/authenticate_list"), "");
    EXPECT_EQ(file("var/config/trigger_broadcast"),
              rec("^|^Fire^|^Go^|^[null]]|[^|^YES^|^[null]]|[^|^"));
    EXPECT_EQ(ask("del-sms trigger sms 1^|^"), "SUCCESS");
    EXPECT_EQ(ask("del-sms trigger sms 1^|^"), "ERROR");
    EXPECT_EQ(file("var/config/trigger_broadcast"), "");
}

TEST_F(DaemonCommands, SettingsFamily) {
    UdpListener txrx(20202 + offset_);
    UdpListener http(30303 + offset_);
    ASSERT_TRUE(txrx.ok());
    ASSERT_TRUE(http.ok());
    start_with("", "", false);  // the test plays txrx
    int id = ::shmget(static_cast<key_t>(16384 + offset_), 4, 0);
    ASSERT_GE(id, 0);
    void* word = ::shmat(id, nullptr, SHM_RDONLY);
    ASSERT_NE(word, reinterpret_cast<void*>(-1));
    auto published = [&] { return *static_cast<volatile int32_t*>(word); };
    EXPECT_EQ(published(), 13);

    EXPECT_EQ(ask("get-sms international-dialing dialing^|^"), "checked");
    EXPECT_EQ(ask("add-sms international-dialing dialing^|^disable^|^"), "SUCCESS");
    EXPECT_EQ(published(), 0);
    EXPECT_EQ(ask("get-sms international-dialing dialing^|^"), "");
    EXPECT_EQ(ask("add-sms international-dialing max-digits^|^15^|^"), "SUCCESS");
    EXPECT_EQ(published(), 15);
    EXPECT_EQ(file("var/config/international_dialing"), "int-dialing=disable\nmax-digits=15\n");
    ::shmdt(word);

    EXPECT_EQ(ask("sms-modem-reset "), "SUCCESS");
    auto control = txrx.receive();
    ASSERT_TRUE(control);
    EXPECT_EQ(control->size(), 100u);
    EXPECT_EQ(control->substr(0, control->find('\0')), "cmd reset_modem");

    EXPECT_EQ(ask("set-sms-http set-sms-status disable "), "SUCCESS");
    control = txrx.receive();
    ASSERT_TRUE(control);
    EXPECT_EQ(control->substr(0, control->find('\0')), "cmd set-sms-status disable ");
    EXPECT_EQ(http.receive(), std::string("set-sms 1 status disable^|^") + '\0');
    EXPECT_EQ(file("var/config/http_server_conf"), "status=disable\n");

    EXPECT_EQ(ask("add-sms modem x AT+CSQ "), "SUCCESS");
    EXPECT_EQ(file("var/config/modem_conf"), "signal_strength_cmd=AT+CSQ\n");
    EXPECT_EQ(ask("set-sms-http set-sms-status enable "), "SUCCESS");
    EXPECT_TRUE(
        wait_for([&] { return file("calls.log").find("http-client") != std::string::npos; }));
}

}  // namespace
}  // namespace smsgw::test
