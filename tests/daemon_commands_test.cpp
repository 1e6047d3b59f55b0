// The management commands through the real daemon's web-interface socket:
// replies, the response file and the files each command family leaves. The
// address book's start-up load empties "/var/AddressBook", SIGUSR1 writes
// both files back byte for byte, and the CSV requests of the web interface
// import and export contacts.
#include <signal.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include <string>

#include "support/test_support.h"

namespace smsgw::test {
namespace {

class DaemonCommands : public DaemonFixture {
  protected:
    std::string rf() const { return path("var/run/RESPONSE_FILE"); }
};

TEST_F(DaemonCommands, PhoneBookAndGroupFamilies) {
    seed_contacts("Ann^|^555^|^desk^|^1,^|^\n", "Team\n");
    start();
    EXPECT_EQ(ask("add-sms phone_book Bob^|^777^|^^|^Team^|^"), "SUCCESS");
    EXPECT_EQ(ask("get-sms phone_book 1^|^"), rf());
    EXPECT_EQ(read_file(rf()), "22^|^Ann^|^555^|^desk^|^18^|^Bob^|^777^|^^|^17^|^MAX_ELEMENTS=2");
    EXPECT_EQ(ask("get-sms phone_number 777^|^"), rf());
    EXPECT_EQ(read_file(rf()), "Bob^|^777^|^^|^\n");
    EXPECT_EQ(ask("edit-sms phone_book Bob^|^777^|^Bobby^|^778^|^new^|^"), "SUCCESS");
    EXPECT_EQ(ask("del-sms phone_book Ann^|^555^|^"), "SUCCESS");

    EXPECT_EQ(ask("add-sms groups Crew^|^Bobby^|^778^|^[null]^|^"), "SUCCESS");
    EXPECT_EQ(ask("get-sms groups 1^|^"), rf());
    EXPECT_EQ(read_file(rf()), "Crew\nTeam\nMAX_ELEMENTS=2\n");
    EXPECT_EQ(ask("get-sms group Crew^|^1^|^"), rf());
    EXPECT_EQ(read_file(rf()), "23^|^Bobby^|^778^|^new^|^17^|^MAX_ELEMENTS=1");
    EXPECT_EQ(ask("save-address-book ^|^"), "SUCCESS");
    EXPECT_EQ(file("var/AddressBook/Address_Book"), "Bobby^|^778^|^new^|^1,2,^|^\n");
    EXPECT_EQ(file("var/AddressBook/groups"), "Crew\nTeam\n");
}

TEST_F(DaemonCommands, RuleListFamily) {
    start();
    std::string rest = "Fire^|^Go^|^[null]]|[^|^YES^|^Ann]|[555]|[^|^";
    EXPECT_EQ(ask("add-sms trigger sms " + rest), "SUCCESS");
    EXPECT_EQ(ask("get-sms trigger sms^|^"), path("var/config/trigger_broadcast"));
    EXPECT_EQ(file("var/config/trigger_broadcast"), rec("^|^" + rest));
    EXPECT_EQ(ask("del-sms trigger sms 1^|^"), "SUCCESS");
    EXPECT_EQ(file("var/config/trigger_broadcast"), "");
}

// Most of what txrx and the HTTP client are told is pinned with the settings
// commands; here the shared word as another process sees it, and the reset.
TEST_F(DaemonCommands, SettingsFamily) {
    UdpListener txrx(20202 + offset_);
    ASSERT_TRUE(txrx.ok());
    write_file(path("var/config/international_dialing"), "int-dialing=enable\nmax-digits=13\n");
    start({}, false);  // the test plays txrx
    void* word = ::shmat(::shmget(static_cast<key_t>(16384 + offset_), 4, 0), nullptr, SHM_RDONLY);
    ASSERT_NE(word, reinterpret_cast<void*>(-1));
    auto published = [&] { return *static_cast<volatile int32_t*>(word); };
    EXPECT_EQ(published(), 13);
    EXPECT_EQ(ask("add-sms international-dialing dialing^|^disable^|^"), "SUCCESS");
    EXPECT_EQ(published(), 0);
    EXPECT_EQ(ask("add-sms international-dialing max-digits^|^15^|^"), "SUCCESS");
    EXPECT_EQ(published(), 15);
    EXPECT_EQ(file("var/config/international_dialing"), "int-dialing=disable\nmax-digits=15\n");
    ::shmdt(word);
    EXPECT_EQ(ask("sms-modem-reset "), "SUCCESS");
    EXPECT_EQ(txrx.receive(), "cmd reset_modem" + std::string(85, '\0'));
}

const std::string kBook = "var/AddressBook/Address_Book";
const std::string kGroups = "var/AddressBook/groups";

TEST_F(DaemonCommands, SigusrOneSavesWhatWasLoaded) {
    const std::string contacts =
        "Ann Lee^|^555123^|^office^|^1,3,^|^\n"
        "ann lee^|^555124^|^two\nline note^|^2,^|^\n"
        "Bob^|^777^|^^|^^|^\n"
        "Carl^|^+49 30 1^|^x^|^1,2,3,^|^\n";
    const std::string groups = "Family\nwork\nAll\n";
    seed_contacts(contacts, groups);
    start();
    // The memory copy is authoritative after the load: the files are gone.
    EXPECT_FALSE(exists(path(kBook)) || exists(path(kGroups)));
    EXPECT_FALSE(exists(path("var/run/init_address_book")));
    EXPECT_EQ(ask("get-sms total-entries phone_book^|^"), "4");
    EXPECT_EQ(ask("get-sms total-entries groups^|^"), "3");

    // The web interface marks its save request with a flag file.
    write_file(path("var/run/save_flag_file"), "set by the web interface");
    ASSERT_TRUE(daemon_->signal(SIGUSR1));
    EXPECT_TRUE(wait_file(kBook, contacts)) << file(kBook);
    EXPECT_TRUE(wait_file(kGroups, groups));
    EXPECT_TRUE(wait_file("var/run/save_flg_file", "save_flag==1\nafter strcpy,parse\n"));
    EXPECT_TRUE(wait_for([&] { return !exists(path("var/run/save_flag_file")); }));
    // A second save writes the same (member lists come back as they were).
    ::unlink(path(kBook).c_str());
    ASSERT_TRUE(daemon_->signal(SIGUSR1));
    EXPECT_TRUE(wait_file(kBook, contacts));
}

TEST_F(DaemonCommands, CsvImportThenExport) {
    seed_contacts("Zed^|^1^|^^|^^|^\n");
    start();
    write_file(path("var/run/csv_frmt.dat"), "1\n2\n4\n3\n");
    write_file(path("var/run/AddressBook.csv"),
               "Firstname,Lastname,Description,Phone-Number\n"
               "Ann,Lee,\"desk, left\",555\n"
               "Bob,,,777\n");
    EXPECT_EQ(ask("CSVFILE"), "");
    EXPECT_EQ(ask("get-sms total-entries phone_book^|^"), "3");
    EXPECT_FALSE(exists(path("var/tmp/csv_empty_err")));
    const std::string exported = path("var/run/QX_Address_Book.csv");
    EXPECT_EQ(ask("CSVEXPORT"), exported);
    EXPECT_EQ(read_file(exported),
              "Firstname,Lastname,Description,Phone-Number\r\n"
              "Ann,Lee,desk, left,555\r\n"
              "Bob,,,777\r\n"
              "Zed,,,1\r\n");
    EXPECT_EQ(file("var/run/csv_export_file_location_file"), exported + "\n");
    EXPECT_NE(file("calls.log").find("create_address_book_tar"), std::string::npos);
}

}  // namespace
}  // namespace smsgw::test
