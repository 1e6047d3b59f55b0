#include "core/startup.h"

#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/fileops.h"
#include "common/spawn.h"
#include "common/text.h"
#include "common/trace.h"
#include "send/stats.h"

namespace smsgw {

namespace {

// Unpacks an archive the firmware leaves behind across a reboot and removes
// it, so it is restored once. tar runs in `dir` and its listing is dropped.
void restore_archive(const std::string& dir, const std::string& archive,
                     const std::vector<std::string>& tar_args) {
    const std::string full = archive[0] == '/' ? archive : dir + "/" + archive;
    if (!file_exists(full)) return;
    std::vector<std::string> argv = {"tar"};
    argv.insert(argv.end(), tar_args.begin(), tar_args.end());
    argv.push_back(full);
    argv.push_back("-C");
    argv.push_back(dir);
    run_program(argv, ChildOutput::DevNull);
    remove_file(full);
}

// The directories usually exist; when one cannot be made, the log says so
// before the daemon fails further on for want of it.
void make_daemon_dir(const std::string& dir) {
    if (!make_dir(dir))
        syslog(LOG_ERR, "cannot make directory %s: %s", dir.c_str(), std::strerror(errno));
}

std::string current_directory() {
    char buf[4096];
    return ::getcwd(buf, sizeof buf) ? std::string(buf) : std::string(".");
}

}  // namespace

bool init_directories_and_files(const Runtime& rt) {
    restore_archive(rt.path("/var"), "AddressBook.tar", {"xvf"});
    // This archive is looked for in the daemon's own working directory.
    restore_archive(current_directory(), "Inbox.tar.gz", {"zxvf"});

    make_daemon_dir(rt.path("/var/Inbox"));
    touch_file(rt.path("/var/Inbox/smsinbox.dat"));
    make_daemon_dir(rt.path("/var/AddressBook"));
    touch_file(rt.path("/var/AddressBook/Address_Book"));
    write_file(rt.path("/var/run/init_address_book"), "");
    make_daemon_dir(rt.path("/var/Jobs"));

    if (ensure_sms_stats_file(rt)) return true;
    syslog(LOG_ERR, "cannot create %s: %s", rt.path("/var/config/sms_stats_file").c_str(),
           std::strerror(errno));
    return false;
}

}  // namespace smsgw
