// The start-up work before the loop: the directories and files every
// subsystem expects, saved archives restored, and the SMS users table.
#pragma once

#include <string>
#include <vector>

#include "common/runtime.h"

namespace smsgw {

// Users allowed to send SMS from the web interface: "admin" always, then
// at most 20 names from "/var/config/sms-users".
struct SmsUsers {
    static constexpr size_t kMaxUsers = 20;
    static constexpr size_t kNameSize = 51;  // slot size including the NUL
    std::vector<std::string> names{"admin"};
    int count = 0;  // users besides "admin"
};

// Restores the address-book and inbox archives, creates the directories and
// empty files, and the 24-byte SMS statistics file when missing. Returns
// false when the statistics file cannot be created (the rest is skipped).
bool init_directories_and_files(const Runtime& rt);

// Reads "/var/config/sms-users": each line's text before its first "^|^".
SmsUsers read_sms_users(const Runtime& rt);

}  // namespace smsgw
