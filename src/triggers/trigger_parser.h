// Turns one incoming message into an action number and its action object.
//
// Incoming record: sender char[50] (NUL-padded), then the SMS text from byte
// 50 (at most 161 bytes, up to its NUL). A record that begins with "api "
// is an api status line instead: "api FILE STATUS".
//
// The SMS text starts with a trigger word ended by the first ":" or ";";
// the word is looked up (ignoring case, whole word only) in the action
// triggers, then in the broadcast triggers; the command word of the match,
// or the text itself when nothing matches, selects the action. The fields
// after the trigger word are read one by one, each up to ":" or ";" (and
// the line end), the last one up to the line end.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "common/runtime.h"
#include "jobs/job_queue.h"

namespace smsgw {

// Slots of the action table.
enum ActionNumber : int {
    kActionSend = 0,
    kActionDeleteEntry = 1,
    kActionDeleteGroup = 2,
    kActionAddEntry = 3,
    kActionAddGroup = 4,
    kActionAddPreconf = 5,
    kActionTimeSettings = 6,
    kActionNothing = 7,
    kActionApiStatus = 8,
    kActionDeleteByNumber = 9,
};

// Field limits of the action objects (characters, without terminator).
inline constexpr size_t kSenderMax = 49;
inline constexpr size_t kSmsTextMax = 160;
inline constexpr size_t kEntryNameMax = 50;
inline constexpr size_t kEntryNumberMax = 52;
inline constexpr size_t kGroupNameMax = 10;
inline constexpr size_t kGroupNumberMax = 50;
inline constexpr size_t kCommandWordMax = 99;

// Actions 1, 3 and 9.
struct EntryObject {
    std::string name;
    std::string number;
    bool by_name = false;  // action 1 with a name only: delete every number
};
// Action 4.
struct GroupObject {
    std::string name;
    std::string number;
    std::string group_name;
};
// Action 2 (group name), 5 (SMS text), 8 (api request file name).
struct TextObject {
    std::string text;
};

using ActionObject =
    std::variant<std::monostate, BroadcastRecord, EntryObject, GroupObject, TextObject>;

struct ParsedMessage {
    int action = kActionNothing;
    ActionObject object;
    int result = -1;      // -1 for an SMS, the status number for an api line
    int api_status = -1;  // action 8: the status to record, -1 for none
    // Counted by the sender-kind rule before any action was chosen.
    bool count_received = false;  // SMS statistics counter 20
    bool count_acted = false;     // SMS statistics counter 16
    // Message of the fail-log line for the system log; empty when none.
    std::string fail_log;
};

struct ParseContext {
    const Runtime& rt;
    size_t work_buffer_size;          // bound of a trigger value, with its NUL
    bool time_settings_busy = false;  // a loop-back message is being handled
};

// The bound of a trigger value for an address book of `contacts` entries.
size_t trigger_work_buffer_size(int contacts);

// Command word classification by prefix: "TRIGGERSMS" 0, "DELENTRY" 1,
// "DELGROUP" 2, "ADDENTRY" 3, "ADDGROUP" 4, "ADDPRECONFSMS" 5,
// "TIMESETTINGS_LOOP_BACK_MSG" 6, anything else 7.
int classify_command(std::string_view word);

// The trigger value of `name`: from "/var/config/trigger_ctrl" the record's
// text behind its keyword field, from "/var/config/trigger_broadcast"
// "TRIGGERSMS" followed by the text from the "^|^" behind the keyword on.
// Cut to max_len - 1 bytes. nullopt when nothing matches.
std::optional<std::string> find_trigger(const Runtime& rt, std::string_view name, size_t max_len);

// Writes the trace file "/var/run/getactionbject" for an SMS.
ParsedMessage parse_trigger_sms(const ParseContext& ctx, std::string_view message);

// The group names of a broadcast record's group field: items ended by
// "]|[" (an unterminated last item counts), without empty ones and the
// "[null]" placeholder.
std::vector<std::string> broadcast_groups(std::string_view groups);

// The fail-log line as it goes to the system log; control characters of
// the message are shown as "?" so a sender cannot forge log lines.
std::string fail_log_line(std::string_view message);

}  // namespace smsgw
