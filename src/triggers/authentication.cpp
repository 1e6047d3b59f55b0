#include "triggers/authentication.h"

#include "commands/rule_lists.h"
#include "common/text.h"
#include "common/trace.h"

namespace smsgw {

namespace {
constexpr int kRefused = 7;

// The "]|["-separated items of a member list; an unterminated tail counts as
// an item too, so a hand-edited list without the last "]|[" still works.
std::vector<std::string_view> member_items(std::string_view list) {
    std::vector<std::string_view> items;
    while (!list.empty()) {
        size_t p = list.find(kItemSep);
        if (p == std::string_view::npos) {
            items.push_back(list);
            break;
        }
        items.push_back(list.substr(0, p));
        list.remove_prefix(p + kItemSep.size());
    }
    return items;
}

// The field before the next "^|^", or the whole rest when none follows.
std::string_view take_field(std::string_view& rest) {
    size_t p = rest.find(kSep);
    std::string_view field = rest.substr(0, p);
    rest = p == std::string_view::npos ? std::string_view() : rest.substr(p + kSep.size());
    return field;
}
}  // namespace

std::string normalise_number(std::string_view number) {
    std::string out;
    size_t i = 0;
    if (!number.empty() && number[0] == '+') {
        out += '+';
        i = 1;
    }
    for (; i < number.size(); ++i)
        if (number[i] >= '0' && number[i] <= '9') out += number[i];
    return out;
}

bool number_matches(std::string_view stored, std::string_view sender) {
    return starts_with(normalise_number(stored), normalise_number(sender));
}

int authenticate_sender(const Runtime& rt, int code, std::string_view trigger_value,
                        std::string_view sender) {
    if (code == 0 || code == 6 || code == 7) return code;
    size_t p = trigger_value.find(kSep);
    if (p == std::string_view::npos || !starts_with(trigger_value.substr(p + kSep.size()), "YES"))
        return code;
    auto records = read_rule_records(rt.path("/var/config/authenticate_list"));
    if (!records) return code;
    bool found = false;
    for (const std::string& record : *records) {
        // "^|^" NAME "^|^" NUMBER "^|^": the number follows the second separator.
        std::string_view rest = record;
        size_t first = rest.find(kSep);
        size_t second =
            first == std::string_view::npos ? first : rest.find(kSep, first + kSep.size());
        if (second == std::string_view::npos) continue;
        rest.remove_prefix(second + kSep.size());
        std::string_view stored = take_field(rest);
        trace("auth_number %s sender_number %s\n", normalise_number(stored).c_str(),
              normalise_number(sender).c_str());
        if (number_matches(stored, sender)) {
            trace("Match found\n");
            found = true;  // the rest of the list is still read
        }
    }
    return found ? code : kRefused;
}

int authenticate_sender_bcast_trg(std::string_view auth_fields, std::string_view sender) {
    std::string_view rest = auth_fields;
    std::string_view status = take_field(rest);
    trace("auth_staus %.*s\n", static_cast<int>(status.size()), status.data());
    if (starts_with(status, "NO")) return 0;
    if (!starts_with(status, "YES")) return kRefused;
    std::vector<std::string_view> items = member_items(take_field(rest));
    // Members are NAME, NUMBER pairs: only every second item is a number.
    for (size_t i = 1; i < items.size(); i += 2) {
        trace("local_number %s sender_number %s\n", normalise_number(items[i]).c_str(),
              normalise_number(sender).c_str());
        if (number_matches(items[i], sender)) {
            trace("Match Found Bcast\n");
            return 0;
        }
    }
    return kRefused;
}

}  // namespace smsgw
