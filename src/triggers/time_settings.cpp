#include "triggers/time_settings.h"

#include "common/fileops.h"
#include "common/spawn.h"
#include "common/text.h"
#include "common/timer.h"
#include "common/trace.h"
#include "formats/inbox_record.h"

namespace smsgw {

namespace {

constexpr std::string_view kLoopBack = "TIMESETTINGS_LOOP_BACK_MSG";

bool is_stamp_field(std::string_view field) {
    if (field.empty() || field.size() > 2) return false;
    for (char c : field)
        if (c < '0' || c > '9') return false;
    return true;
}

// Cuts the text before the first of `ends`; the whole rest when none occurs.
std::string_view cut(std::string_view& rest, std::string_view ends) {
    size_t p = rest.find_first_of(ends);
    std::string_view field = rest.substr(0, p);
    rest = p == std::string_view::npos ? std::string_view() : rest.substr(p + 1);
    return field;
}

}  // namespace

std::optional<std::string> date_argument(std::string_view date_stamp, std::string_view time_stamp) {
    std::string_view date = date_stamp, time = time_stamp;
    std::string_view year = cut(date, "/");
    std::string_view month = cut(date, "/");
    std::string_view day = date;
    std::string_view hour = cut(time, ":");
    std::string_view minute = cut(time, ":");
    std::string_view second = cut(time, "-+");
    for (std::string_view f : {year, month, day, hour, minute, second})
        if (!is_stamp_field(f)) return std::nullopt;
    int year4 = c_atoi(year) + 2000;
    std::string arg;
    arg.append(month).append(day).append(hour).append(minute);
    arg += std::to_string(year4);
    arg.append(".").append(second);
    trace("hour - %s :: min - %s :: sec - %s :: year - %d :: month - %s :: day - %s\n",
          std::string(hour).c_str(), std::string(minute).c_str(), std::string(second).c_str(),
          year4, std::string(month).c_str(), std::string(day).c_str());
    return arg;
}

LoopBackTime read_loop_back_time(const std::string& inbox_path) {
    LoopBackTime out;
    const std::optional<std::string> bytes = read_file(inbox_path);
    if (!bytes) return out;
    out.opened = true;
    std::string_view rest = *bytes;
    while (auto record = next_inbox_record(rest)) {
        trace("i - %d\n", static_cast<int>(record->size()));
        auto fields = split_inbox_record(*record);
        if (!fields || !starts_with(fields->text, kLoopBack)) continue;
        out.found = true;
        out.date = date_argument(fields->date, fields->time);
        break;
    }
    return out;
}

bool set_time_from_loop_back(const Runtime& rt) {
    LoopBackTime t = read_loop_back_time(rt.path("/var/Inbox/smsinbox.dat"));
    if (!t.opened) return false;
    bool ran = false;
    if (t.date) {
        trace("date %s\n", t.date->c_str());
        run_program({rt.path("/bin/date"), *t.date}, ChildOutput::DevNull);
        ran = true;
    }
    stop_time_settings_Timer();
    return ran;
}

}  // namespace smsgw
