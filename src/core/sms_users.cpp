#include "core/sms_users.h"

#include <cstdio>
#include <cstring>
#include <string_view>

#include "common/fileops.h"
#include "common/text.h"
#include "common/trace.h"

namespace smsgw {

SmsUsers read_sms_users(const Runtime& rt) {
    SmsUsers users;
    FilePtr file = open_file(rt.path("/var/config/sms-users"), "r");
    if (!file) return users;
    char line[200];
    while (users.names.size() <= SmsUsers::kMaxUsers && std::fgets(line, sizeof line, file.get())) {
        if (std::strcmp(line, "\n") == 0) break;
        std::string_view text(line);
        size_t sep = text.find(kSep);
        if (sep == std::string_view::npos) continue;
        std::string_view name = text.substr(0, sep);
        if (name.size() > SmsUsers::kNameSize - 1) name = name.substr(0, SmsUsers::kNameSize - 1);
        users.names.emplace_back(name);
        ++users.count;
    }
    trace("sms users - %d\n", users.count);
    return users;
}

}  // namespace smsgw
