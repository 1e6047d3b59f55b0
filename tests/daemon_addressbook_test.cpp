// The address book through the real daemon: the start-up load empties
// "/var/AddressBook", SIGUSR1 writes both files back byte for byte, and the
// CSV requests of the web interface import and export contacts.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include <memory>
#include <string>

#include "support/test_support.h"

using namespace smsgw::test;

namespace {

class DaemonAddressBook : public ::testing::Test {
  protected:
    void start(const std::string& contacts, const std::string& groups) {
        prepare_root(dir.path());
        if (!contacts.empty()) write_file(book(), contacts);
        if (!groups.empty()) write_file(groups_file(), groups);
        daemon = std::make_unique<Daemon>(dir.path(), offset);
        ASSERT_TRUE(daemon->wait_ready()) << daemon->stderr_text();
    }
    ~DaemonAddressBook() override {
        daemon.reset();
        int id = ::shmget(static_cast<key_t>(16384 + offset), 0, 0);
        if (id >= 0) ::shmctl(id, IPC_RMID, nullptr);
    }
    std::string ask(const std::string& text) {
        auto reply = client.request(20205 + offset, text);
        EXPECT_TRUE(reply.has_value()) << "no reply to " << text;
        std::string r = reply.value_or("<none>");
        return r.substr(0, r.find('\0'));
    }
    std::string book() const { return dir / "var/AddressBook/Address_Book"; }
    std::string groups_file() const { return dir / "var/AddressBook/groups"; }

    TempDir dir;
    int offset = random_port_offset();
    std::unique_ptr<Daemon> daemon;
    UdpClient client;
};

}  // namespace

TEST_F(DaemonAddressBook, SigusrOneSavesWhatWasLoaded) {
    const std::string contacts =
        "Ann Lee^|^555123^|^office^|^1,3,^|^\n"
        "ann lee^|^555124^|^two\nline note^|^2,^|^\n"
        "Bob^|^777^|^^|^^|^\n"
        "Carl^|^+49 30 1^|^x^|^1,2,3,^|^\n";
    const std::string groups = "Family\nwork\nAll\n";
    start(contacts, groups);

    // The memory copy is authoritative after the load: the files are gone.
    EXPECT_FALSE(exists(book()));
    EXPECT_FALSE(exists(groups_file()));
    EXPECT_FALSE(exists(dir / "var/run/init_address_book"));
    EXPECT_EQ(ask("get-sms total-entries phone_book^|^"), "4");
    EXPECT_EQ(ask("get-sms total-entries groups^|^"), "3");

    ASSERT_EQ(::kill(daemon->pid(), SIGUSR1), 0);
    EXPECT_TRUE(wait_for([&] { return read_file(book()) == contacts; }))
        << "got: " << read_file(book());
    EXPECT_TRUE(wait_for([&] { return read_file(groups_file()) == groups; }));

    // A second save writes the same (member lists come back as they were).
    ::unlink(book().c_str());
    ASSERT_EQ(::kill(daemon->pid(), SIGUSR1), 0);
    EXPECT_TRUE(wait_for([&] { return read_file(book()) == contacts; }));
    EXPECT_TRUE(daemon->running());
}

TEST_F(DaemonAddressBook, DamagedFileLoadsWhatItCan) {
    std::string contacts = "Bob^|^777^|^^|^9,-1,abc,99999999999,^|^\n";
    contacts += std::string(10000, 'x') + "^|^1^|^^|^^|^\n";
    contacts += "no separators at all\n";
    contacts += std::string("Nul^|^1^|^a\0b^|^^|^\n", 20);
    start(contacts, "g\n");
    EXPECT_EQ(ask("get-sms total-entries phone_book^|^"), "2");
    EXPECT_EQ(ask("save-address-book ^|^"), "SUCCESS");
    EXPECT_EQ(read_file(book()), "Bob^|^777^|^^|^^|^\nNul^|^1^|^a^|^^|^\n");
}

TEST_F(DaemonAddressBook, CsvImportThenExport) {
    start("Zed^|^1^|^^|^^|^\n", "");
    write_file(dir / "var/run/csv_frmt.dat", "1\n2\n4\n3\n");
    write_file(dir / "var/run/AddressBook.csv",
               "Firstname,Lastname,Description,Phone-Number\n"
               "Ann,Lee,\"desk, left\",555\n"
               "Bob,,,777\n");
    EXPECT_EQ(ask("CSVFILE"), "");
    EXPECT_EQ(ask("get-sms total-entries phone_book^|^"), "3");
    EXPECT_FALSE(exists(dir / "var/tmp/csv_empty_err"));

    EXPECT_EQ(ask("CSVEXPORT"), dir / "var/run/QX_Address_Book.csv");
    EXPECT_EQ(read_file(dir / "var/run/QX_Address_Book.csv"),
              "Firstname,Lastname,Description,Phone-Number\r\n"
              "Ann,Lee,desk, left,555\r\n"
              "Bob,,,777\r\n"
              "Zed,,,1\r\n");
}

TEST_F(DaemonAddressBook, CsvUploadWithABadLineImportsNothing) {
    start("", "");
    write_file(dir / "var/run/csv_frmt.dat", "1\n2\n4\n3\n");
    write_file(dir / "var/run/AddressBook.csv", "Ann,Lee,d,555\nBob,Lee,d,\n");
    EXPECT_EQ(ask("CSVFILE"), "");
    EXPECT_EQ(ask("get-sms total-entries phone_book^|^"), "0");
    EXPECT_TRUE(exists(dir / "var/tmp/csv_empty_err"));
    EXPECT_EQ(read_file(dir / "var/run/AddressBook.csv"), "");
}
