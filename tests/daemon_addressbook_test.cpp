// The address book through the real daemon: the start-up load empties
// "/var/AddressBook", SIGUSR1 writes both files back byte for byte, and the
// CSV requests of the web interface import and export contacts.
#include <signal.h>

#include <string>

#include "support/test_support.h"

namespace smsgw::test {
namespace {

using DaemonAddressBook = DaemonFixture;

const std::string kBook = "var/AddressBook/Address_Book";
const std::string kGroups = "var/AddressBook/groups";

TEST_F(DaemonAddressBook, SigusrOneSavesWhatWasLoaded) {
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
    ASSERT_EQ(::kill(daemon_->pid(), SIGUSR1), 0);
    EXPECT_TRUE(wait_file(kBook, contacts)) << file(kBook);
    EXPECT_TRUE(wait_file(kGroups, groups));
    EXPECT_TRUE(wait_file("var/run/save_flg_file", "save_flag==1\nafter strcpy,parse\n"));
    EXPECT_TRUE(wait_for([&] { return !exists(path("var/run/save_flag_file")); }));
    // A second save writes the same (member lists come back as they were).
    ::unlink(path(kBook).c_str());
    ASSERT_EQ(::kill(daemon_->pid(), SIGUSR1), 0);
    EXPECT_TRUE(wait_file(kBook, contacts));
}

TEST_F(DaemonAddressBook, CsvImportThenExport) {
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
