// The users allowed to send SMS from the web interface.
#pragma once

#include <cstddef>
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

// Reads "/var/config/sms-users": each line's text before its first "^|^".
SmsUsers read_sms_users(const Runtime& rt);

}  // namespace smsgw
