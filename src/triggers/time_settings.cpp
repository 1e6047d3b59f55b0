#include "triggers/time_settings.h"

#include <sys/stat.h>

#include <vector>

#include "common/bytes.h"
#include "common/fileops.h"
#include "common/spawn.h"
#include "common/text.h"
#include "common/timer.h"
#include "common/trace.h"

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

struct InboxFields {
    std::string_view sender, date, time, text;
};

// SENDER ^|^ DATE ^|^ TIME ^|^ TEXT; nullopt when a separator is missing.
std::optional<InboxFields> split_record(std::string_view record) {
    std::string_view parts[3];
    for (auto& part : parts) {
        size_t p = record.find(kSep);
        if (p == std::string_view::npos) return std::nullopt;
        part = record.substr(0, p);
        record.remove_prefix(p + kSep.size());
    }
    return InboxFields{parts[0], parts[1], parts[2], record};
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
    FilePtr in = open_file(inbox_path, "rb");
    if (!in) return out;
    out.opened = true;
    struct stat st {};
    if (::fstat(::fileno(in.get()), &st) != 0) return out;
    long long size = st.st_size;
    long long pos = 0;
    std::vector<char> buffer;
    for (;;) {
        unsigned char len_bytes[4];
        if (std::fread(len_bytes, 1, 4, in.get()) != 4) break;
        pos += 4;
        int32_t length = get_i32(len_bytes);
        trace("i - %d\n", length);
        // A damaged length must not make us allocate or read beyond the file.
        if (length <= 0 || length > size - pos) break;
        buffer.resize(static_cast<size_t>(length));
        if (std::fread(buffer.data(), 1, buffer.size(), in.get()) != buffer.size()) break;
        pos += length;
        auto fields = split_record(std::string_view(buffer.data(), buffer.size()));
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
