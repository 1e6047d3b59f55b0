#include "triggers/trigger_parser.h"

#include <algorithm>
#include <array>
#include <utility>

#include "commands/rule_lists.h"
#include "common/fileops.h"
#include "common/text.h"
#include "common/trace.h"
#include "formats/txrx_report.h"
#include "triggers/authentication.h"

namespace smsgw {

namespace {

constexpr std::string_view kFieldEnds = ":;\r\n";
constexpr std::string_view kLineEnds = "\r\n";

std::string clip(std::string_view text, size_t max) {
    return std::string(text.substr(0, max));
}

// The fields behind the trigger word. A field that reaches the end of the
// text is returned too; an empty field counts as missing.
class FieldReader {
  public:
    FieldReader() = default;
    explicit FieldReader(std::string_view rest) : rest_(rest) {}

    std::string_view next(std::string_view ends) {
        size_t p = rest_.find_first_of(ends);
        std::string_view field = rest_.substr(0, p);
        rest_ = p == std::string_view::npos ? std::string_view() : rest_.substr(p + 1);
        return field;
    }

  private:
    std::string_view rest_;
};

// Writes the per-SMS trace file; a missing file only loses the trace.
class TraceFile {
  public:
    explicit TraceFile(const Runtime& rt)
        : file_(open_fixed_temp(rt.path("/var/run/getactionbject"), "w")) {}
    void line(const char* label, const std::string& value) {
        if (file_) std::fprintf(file_.get(), "%s - %s\n", label, value.c_str());
        trace("%s - %s\n", label, value.c_str());
    }

  private:
    FilePtr file_;
};

ParsedMessage parse_api_status_line(const ApiStatusLine& line) {
    ParsedMessage out;
    out.action = kActionApiStatus;
    out.object = TextObject{line.file};
    out.api_status = line.status;
    out.result = line.status;
    return out;
}

// The sender of an SMS record; senders whose number value is below 4 (the
// api kinds and non-numeric senders) get "0" as their first character.
std::string sender_of(std::string field, int& kind) {
    kind = c_atoi(field.c_str());
    if (kind < 4) field[0] = '0';
    return field.substr(0, field.find('\0'));
}

void parse_broadcast(const std::string& sender, const std::optional<std::string>& value,
                     FieldReader& fields, ParsedMessage& out) {
    BroadcastRecord record;
    record.sender = clip(sender, kSenderMax);
    if (!value) {
        // The SMS text itself named the command: "TRIGGERSMS:GROUP:TEXT".
        std::string_view group = fields.next(":;");
        std::string_view text = fields.next(kLineEnds);
        if (group.empty()) return;
        record.group = std::string(group);
        record.text = clip(text, kSmsTextMax);
        out.object = std::move(record);
        out.action = kActionSend;
        return;
    }
    trace("In SMSTRIGGER\n");
    FieldCutter cutter(*value);
    cutter.next();  // "TRIGGERSMS"
    std::string_view text = cutter.next().value_or("");
    std::string_view groups = cutter.next().value_or("");
    trace("pre_conf_sms_text - %s\n", std::string(text).c_str());
    int auth = authenticate_sender_bcast_trg(cutter.rest(), sender);
    if (auth == 0 && !broadcast_groups(groups).empty()) {
        record.group = std::string(groups);
        record.text = clip(text, kSmsTextMax);
        trace("group_name - %s - %d\n", record.group.c_str(), auth);
        out.object = std::move(record);
        out.action = kActionSend;
        return;
    }
    out.fail_log = "Received Trigger from Unauthentic Number " + sender;
}

void parse_delete_entry(const std::string& sender, FieldReader& fields, ParsedMessage& out) {
    std::string_view entry = fields.next(kLineEnds);
    trace("entry_name - %s\n", std::string(entry).c_str());
    EntryObject object;
    if (entry.empty()) {
        object.number = clip(sender, kEntryNumberMax);
        out.action = kActionDeleteByNumber;
    } else if (entry.find_first_of(":;") == std::string_view::npos) {
        object.name = clip(entry, kEntryNameMax);
        object.by_name = true;
        out.action = kActionDeleteEntry;
    } else if (entry[0] == ':' || entry[0] == ';') {
        object.number = clip(entry.substr(1), kEntryNumberMax);
        out.action = kActionDeleteByNumber;
    } else {
        FieldReader parts(entry);
        object.name = clip(parts.next(":;"), kEntryNameMax);
        object.number = clip(parts.next(kFieldEnds), kEntryNumberMax);
        trace("entry->name - %s\nentry->number - %s\n", object.name.c_str(), object.number.c_str());
        out.action = kActionDeleteEntry;
    }
    out.object = std::move(object);
}

void parse_add_entry(const std::string& sender, FieldReader& fields, ParsedMessage& out) {
    std::string_view name = fields.next(kFieldEnds);
    std::string_view number = fields.next(kLineEnds);
    trace("name - %s\n", std::string(name).c_str());
    EntryObject object;
    if (name.empty()) {
        object.name = clip(sender, kEntryNameMax);
        object.number = clip(sender, kEntryNumberMax);
    } else {
        object.name = clip(name, kEntryNameMax);
        object.number = clip(number.empty() ? std::string_view(sender) : number, kEntryNumberMax);
    }
    out.object = std::move(object);
    out.action = kActionAddEntry;
}

void parse_add_group(FieldReader& fields, ParsedMessage& out) {
    std::string_view group = fields.next(kFieldEnds);
    trace("group_name - %s\n", std::string(group).c_str());
    if (group.empty()) return;
    GroupObject object;
    object.group_name = clip(group, kGroupNameMax);
    object.name = clip(fields.next(kFieldEnds), kEntryNameMax);
    object.number = clip(fields.next(kLineEnds), kGroupNumberMax);
    out.object = std::move(object);
    out.action = kActionAddGroup;
}

// One line of text (group name or preconfigured message): action or 7.
void parse_text(FieldReader& fields, size_t max, int action, ParsedMessage& out) {
    std::string_view text = fields.next(kLineEnds);
    if (text.empty()) return;
    out.object = TextObject{clip(text, max)};
    out.action = action;
}

// The fields behind the trigger word, read as the command `code` wants them.
void parse_command_fields(const ParseContext& ctx, int code, const std::string& sender,
                          const std::optional<std::string>& value, FieldReader& fields,
                          size_t text_size, ParsedMessage& out) {
    switch (code) {
        case kActionSend:
            parse_broadcast(sender, value, fields, out);
            break;
        case kActionDeleteEntry:
            parse_delete_entry(sender, fields, out);
            break;
        case kActionDeleteGroup:
            parse_text(fields, text_size, kActionDeleteGroup, out);
            break;
        case kActionAddEntry:
            parse_add_entry(sender, fields, out);
            break;
        case kActionAddGroup:
            parse_add_group(fields, out);
            break;
        case kActionAddPreconf:
            trace("PRE START\n");
            parse_text(fields, kSmsTextMax, kActionAddPreconf, out);
            trace("PRE END\n");
            break;
        case kActionTimeSettings:
            if (!ctx.time_settings_busy) out.action = kActionTimeSettings;
            break;
        default:
            break;
    }
}

}  // namespace

size_t trigger_work_buffer_size(int contacts) {
    return static_cast<size_t>(std::max(contacts, 0)) * 54 + 2440;
}

int classify_command(std::string_view word) {
    static constexpr std::pair<std::string_view, int> kCodes[] = {
        {"TRIGGERSMS", 0},
        {"DELENTRY", 1},
        {"DELGROUP", 2},
        {"ADDENTRY", 3},
        {"ADDGROUP", 4},
        {"ADDPRECONFSMS", 5},
        {"TIMESETTINGS_LOOP_BACK_MSG", 6},
    };
    for (const auto& [prefix, code] : kCodes)
        if (starts_with(word, prefix)) return code;
    return kActionNothing;
}

std::optional<std::string> find_trigger(const Runtime& rt, std::string_view name, size_t max_len) {
    static constexpr std::pair<std::string_view, bool> kFiles[] = {
        {"/var/config/trigger_ctrl", false},
        {"/var/config/trigger_broadcast", true},
    };
    for (const auto& [file, broadcast] : kFiles) {
        auto records = read_rule_records(rt.path(file));
        if (!records) return std::nullopt;
        for (const std::string& record : *records) {
            std::string_view text = record;
            if (text.size() < kSep.size()) continue;
            text.remove_prefix(kSep.size());
            size_t end = text.find(kSep);
            // The whole keyword must match, not just its beginning.
            if (end == std::string_view::npos || !iequals(text.substr(0, end), name)) continue;
            std::string value = broadcast ? "TRIGGERSMS" + std::string(text.substr(end))
                                          : std::string(text.substr(end + kSep.size()));
            if (max_len > 0 && value.size() > max_len - 1) value.resize(max_len - 1);
            return value;
        }
    }
    return std::nullopt;
}

std::vector<std::string> broadcast_groups(std::string_view groups) {
    std::vector<std::string> names;
    while (!groups.empty()) {
        size_t p = groups.find(kItemSep);
        std::string_view item = groups.substr(0, p);
        if (!item.empty() && item != kNullList) names.emplace_back(item);
        if (p == std::string_view::npos) break;
        groups.remove_prefix(p + kItemSep.size());
    }
    return names;
}

std::string fail_log_line(std::string_view message) {
    std::string line = "faillog: [FAILED TO] : TRIGGER : [MSG] : ";
    for (char c : message) {
        unsigned char u = static_cast<unsigned char>(c);
        line += (u < 0x20 || u == 0x7f) ? '?' : c;
    }
    return line;
}

ParsedMessage parse_trigger_sms(const ParseContext& ctx, std::string_view message) {
    if (auto line = decode_api_status_line(message)) return parse_api_status_line(*line);

    ParsedMessage out;
    TraceFile trace_file(ctx.rt);
    IncomingSms sms = decode_incoming_sms(message);
    int kind = 0;
    std::string sender = sender_of(std::move(sms.sender_field), kind);
    trace_file.line("sender_number", sender);
    const std::string& text = sms.text;
    trace_file.line("sms_text", text);

    size_t sep = text.find_first_of(":;");
    std::string trig_name = text.substr(0, sep);
    FieldReader fields = sep == std::string::npos
                             ? FieldReader()
                             : FieldReader(std::string_view(text).substr(sep + 1));
    trace_file.line("trig_name", trig_name);

    std::optional<std::string> value = find_trigger(ctx.rt, trig_name, ctx.work_buffer_size);
    std::string command;
    if (value) {
        command = value->substr(0, value->find(kSep));
    } else {
        command = clip(text, kCommandWordMax);
    }
    int code = classify_command(command);
    trace_file.line("command", command + " - " + std::to_string(code));

    if (kind >= 4) {
        code = authenticate_sender(ctx.rt, code, value.value_or(""), sender);
    } else if ((kind == 2 && code != kActionSend) || (kind == 3 && code == kActionSend)) {
        // An api trigger of the wrong kind: counted, never acted upon.
        out.count_received = true;
        out.count_acted = kind == 3;
        return out;
    }

    parse_command_fields(ctx, code, sender, value, fields, text.size(), out);
    return out;
}

}  // namespace smsgw
