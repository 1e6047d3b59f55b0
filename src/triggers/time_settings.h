// The clock is set from the network: the gateway sends itself an SMS that
// begins with "TIMESETTINGS_LOOP_BACK_MSG", and when it comes back, the
// service-centre time stamp stored with it in "/var/Inbox/smsinbox.dat"
// becomes the system time.
// The inbox records are those of formats/inbox_record.h.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "common/runtime.h"

namespace smsgw {

// The argument of "date" (MMDDhhmmYYYY.ss) for the two stamps; nullopt
// unless every field is one or two digits. The zone offset is not applied.
std::optional<std::string> date_argument(std::string_view date_stamp, std::string_view time_stamp);

// Outcome of reading the inbox.
struct LoopBackTime {
    bool opened = false;              // the inbox could be opened
    bool found = false;               // a loop-back record was found
    std::optional<std::string> date;  // its date argument when it was sound
};

// Finds the first loop-back record of the inbox file (a real path). A
// length that is not positive or runs past the end of the file ends the
// reading, like the end of the file.
LoopBackTime read_loop_back_time(const std::string& inbox_path);

// Runs "/bin/date" with the argument of the first loop-back record (no
// shell) and then stops the time-settings timer whenever the inbox could be
// opened. True when the date program was run.
bool set_time_from_loop_back(const Runtime& rt);

}  // namespace smsgw
