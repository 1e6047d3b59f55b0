#include "rule_verbs.h"

#include <functional>

#include "client.h"
#include "common/text.h"
#include "formats/rule_list_record.h"
#include "listings.h"

namespace smsgw::ctl {
namespace {

struct RuleKind {
    const char* name;  // as typed on the command line
    const char* wire;  // as the protocol names it (also accepted when typed)
    const char* file;  // the rule file the listing request names
    std::vector<std::string> columns;
};

const std::vector<RuleKind>& rule_kinds() {
    static const std::vector<RuleKind> kinds = {
        {"broadcast",
         "sms",
         "/var/config/trigger_broadcast",
         {"INDEX", "KEYWORD", "TEXT", "GROUPS", "AUTH", "ALLOWED"}},
        {"preconf", "preconf_sms", "/var/config/preconf_sms", {"INDEX", "TEXT", "GROUPS"}},
        {"ctrl", "ctrl_data", "/var/config/trigger_ctrl", {"INDEX", "KEYWORD", "CODE", "AUTH"}},
        {"auth", "auth-list", "/var/config/authenticate_list", {"INDEX", "NAME", "NUMBER"}},
    };
    return kinds;
}

// The action labels the daemon knows and the codes it stores for them.
const std::vector<std::pair<std::string, std::string>>& action_labels() {
    static const std::vector<std::pair<std::string, std::string>> labels = {
        {"Add Number to Address Book", "ADDENTRY"},
        {"Create new Group or Add Number to Group", "ADDGROUP"},
        {"Add New Preconfigured SMS", "ADDPRECONFSMS"},
        {"Delete Number from Address Book", "DELENTRY"},
        {"Delete a Group", "DELGROUP"},
    };
    return labels;
}

const RuleKind& rule_kind(const std::string& word) {
    for (const auto& k : rule_kinds())
        if (word == k.name || word == k.wire) return k;
    throw usage_error("unknown rule list '" + word.substr(0, 40) +
                      "' (broadcast, preconf, ctrl or auth)");
}

using Record = std::vector<std::string>;  // the fields behind the leading "^|^"

struct RuleList {
    std::vector<Record> records;
    bool damaged = false;
};

RuleList read_rules(const Client& c, const RuleKind& k) {
    const std::string reply = c.request(std::string("get-sms trigger ") + k.wire + "^|^");
    if (!c.names(reply, k.file)) fail(reply, std::string("cannot read the ") + k.name + " list");
    const std::string data = c.read(k.file);
    const RuleFile file = decode_rule_file(data);
    RuleList out;
    out.damaged = file.damaged;
    for (const auto& r : file.records) out.records.emplace_back(r.fields.begin(), r.fields.end());
    return out;
}

std::string field_at(const Record& r, size_t i) {
    return i < r.size() ? r[i] : "";
}

// The items of a member-list field ("a]|[b]|[", "[null]]|[" for none).
std::vector<std::string> list_items(std::string_view text) {
    std::vector<std::string> out;
    FieldCutter cut(text);
    while (auto x = cut.next(kItemSep))
        if (*x != kNullList) out.emplace_back(*x);
    return out;
}

std::string list_field(const std::vector<std::string>& items) {
    if (items.empty()) return std::string(kNullList) + std::string(kItemSep);
    std::string out;
    for (const auto& i : items) out += i + std::string(kItemSep);
    return out;
}

// One record as a table row and as a JSON object: lists readable in the
// table ("G1,G2", "Ann <1>"), arrays in JSON.
std::pair<std::vector<std::string>, std::string> record_views(const RuleKind& k, const Record& r,
                                                              size_t index) {
    std::vector<std::string> row{std::to_string(index)};
    JsonObject o;
    o.num("index", static_cast<long long>(index));
    for (size_t col = 1; col < k.columns.size(); ++col) {
        const std::string& heading = k.columns[col];
        std::string key;
        for (char ch : heading) key += static_cast<char>(ascii_tolower(ch));
        const std::string cell = field_at(r, col - 1);
        if (heading != "GROUPS" && heading != "ALLOWED") {
            row.push_back(cell);
            o.str(key, cell);
            continue;
        }
        const std::vector<std::string> items = list_items(cell);
        std::vector<std::string> shown, members;
        for (size_t n = 0; n < items.size(); ++n) {
            if (heading == "GROUPS") {
                shown.push_back(items[n]);
            } else if (n % 2 == 1) {
                shown.push_back(items[n - 1] + " <" + items[n] + ">");
                members.push_back(
                    JsonObject().str("name", items[n - 1]).str("number", items[n]).done());
            }
        }
        std::string joined;
        for (const auto& s : shown) joined += (joined.empty() ? "" : ",") + s;
        row.push_back(joined.empty() ? "-" : joined);
        o.raw(key, heading == "GROUPS" ? json_strings(items) : json_array(members));
    }
    return {row, o.done()};
}

int rules_list(Global& g, const Words& w) {
    if (w.empty())
        throw usage_error("triggers list needs a list: broadcast, preconf, ctrl or auth");
    const RuleKind& k = rule_kind(w[0]);
    parse_args(g, Words(w.begin() + 1, w.end()), {}, 0, 0, "triggers list LIST");
    const RuleList list = read_rules(Client(g), k);
    Table t{k.columns, {}};
    std::vector<std::string> objects;
    for (size_t i = 0; i < list.records.size(); ++i) {
        auto [row, object] = record_views(k, list.records[i], i + 1);
        t.rows.push_back(std::move(row));
        objects.push_back(std::move(object));
    }
    JsonObject o;
    o.str("list", k.name).raw("records", json_array(objects)).boolean("damaged", list.damaged);
    print(g.json ? o.done() + "\n" : t.text());
    if (!list.damaged) return kExitOk;
    // What could be read is shown; the status tells that it is not all.
    warn(std::string(k.file) + " is damaged after record " + std::to_string(list.records.size()));
    return kExitGarbled;
}

// ------------------------------------------------------------- changes

std::string auth_value(const Args& a) {
    std::string v = a.value("--auth").value_or("NO");
    if (v != "YES" && v != "NO") throw usage_error("--auth takes YES or NO");
    return v;
}

// Sends a change and checks its effect: `took` tells from the list
// afterwards whether it did what it should.
struct Change {
    std::string command;
    std::string verb, past;  // "add", "added"
    std::string what;        // "the broadcast trigger 'MEET'"
    std::string hint;        // why a change may be dropped silently
};

int change_rules(const Global& g, const Client& c, const RuleKind& k, const Change& ch,
                 const std::function<bool(const RuleList&)>& took) {
    const std::string reply = c.request(ch.command);
    if (reply != "SUCCESS") fail(reply, "cannot " + ch.verb + " " + ch.what);
    if (!took(read_rules(c, k)))
        refused("the daemon did not " + ch.verb + " " + ch.what +
                    (ch.hint.empty() ? "" : " (" + ch.hint + ")"),
                reply);
    return succeed(g, ch.past + " " + ch.what, JsonObject().str("reply", reply));
}

bool has_record(const RuleList& list, const std::function<bool(const Record&)>& match) {
    for (const auto& r : list.records)
        if (match(r)) return true;
    return false;
}

std::string fields(const std::vector<std::string>& values) {
    std::string out;
    for (const auto& v : values) out += v + std::string(kSep);
    return out;
}

std::vector<std::string> checked_groups(const Client& c, const Args& a) {
    std::vector<std::string> groups = a.values("--group");
    for (const auto& grp : groups) {
        list_item(grp, kGroupRoom, "group");
        if (!group_exists(c, grp)) refused("no such group: '" + grp + "'", {});
    }
    return groups;
}

int add_broadcast(Global& g, const RuleKind& k, const Words& w) {
    Args a = parse_args(g, w, {{"--group", 1}, {"--auth", 1}, {"--allow", 2}}, 2, 2,
                        "triggers add broadcast KEYWORD TEXT [--group G]... [--auth YES|NO] "
                        "[--allow NAME NUMBER]...");
    const std::string& keyword = new_field(a.positional[0], kNameRoom, "keyword");
    const std::string& text = new_field(a.positional[1], 160, "text");
    std::vector<std::string> allowed;
    auto it = a.options.find("--allow");
    if (it != a.options.end())
        for (const auto& pair : it->second)
            for (const auto& v : pair) allowed.push_back(list_item(v, kNameRoom, "allowed member"));
    const std::string auth = auth_value(a);
    Client c(g);
    const std::vector<std::string> groups = checked_groups(c, a);
    Change ch{"add-sms trigger sms " +
                  fields({keyword, text, list_field(groups), auth, list_field(allowed)}),
              "add", "added", "the broadcast trigger '" + keyword + "'",
              "the list holds at most 100 triggers"};
    return change_rules(g, c, k, ch, [&](const RuleList& l) {
        return has_record(l, [&](const Record& r) {
            return iequals(field_at(r, 0), keyword) && field_at(r, 1) == text;
        });
    });
}

int add_preconf(Global& g, const RuleKind& k, const Words& w) {
    Args a = parse_args(g, w, {{"--group", 1}}, 1, 1, "triggers add preconf TEXT [--group G]...");
    const std::string& text = new_field(a.positional[0], 160, "text");
    Client c(g);
    const std::vector<std::string> groups = checked_groups(c, a);
    Change ch{"add-sms trigger preconf_sms " + fields({text, list_field(groups)}), "add", "added",
              "the preconfigured message '" + text + "'", "the list holds at most 100 messages"};
    return change_rules(g, c, k, ch, [&](const RuleList& l) {
        return has_record(l, [&](const Record& r) { return field_at(r, 0) == text; });
    });
}

// Action triggers exist once per kind: "adding" one sets its keyword.
int set_action(Global& g, const RuleKind& k, const Words& w) {
    Args a =
        parse_args(g, w, {{"--auth", 1}}, 2, 2, "triggers add ctrl LABEL KEYWORD [--auth YES|NO]");
    std::string code, labels;
    for (const auto& [label, c] : action_labels()) {
        if (a.positional[0] == label || a.positional[0] == c) code = c;
        labels += (labels.empty() ? "'" : ", '") + label + "'";
    }
    if (code.empty()) throw usage_error("the action label is one of " + labels);
    const std::string& keyword = new_field(a.positional[1], kNameRoom, "keyword");
    const std::string auth = auth_value(a);
    Client c(g);
    Change ch{"edit-sms trigger ctrl_data " + fields({a.positional[0], keyword, auth}), "set",
              "set", "the keyword of " + code + " to '" + keyword + "'",
              "the action list has no record for " + code};
    return change_rules(g, c, k, ch, [&](const RuleList& l) {
        return has_record(l, [&](const Record& r) {
            return field_at(r, 1) == code && field_at(r, 0) == keyword && field_at(r, 2) == auth;
        });
    });
}

bool lists_user(const RuleList& l, const std::pair<std::string, std::string>& user) {
    return has_record(l, [&](const Record& r) {
        return iequals(field_at(r, 0), user.first) && field_at(r, 1) == user.second;
    });
}

int add_users(Global& g, const RuleKind& k, const Words& w) {
    Args a = parse_args(g, w, {}, 2, SIZE_MAX, "triggers add auth NAME NUMBER [NAME NUMBER]...");
    const auto users = pairs_of(a.positional, 0);
    for (const auto& [name, number] : users) {
        new_field(name, kNameRoom, "name");
        new_field(number, kNumberRoom, "number");
    }
    Client c(g);
    // The daemon answers "SUCCESS" also for a user already listed.
    const RuleList before = read_rules(c, k);
    std::string list;
    for (const auto& u : users) {
        if (lists_user(before, u))
            refused("'" + u.first + "' (" + u.second + ") is already an authenticated user", {});
        list += fields({u.first, u.second});
    }
    Change ch{"add-sms trigger auth-list " + list, "add", "added",
              std::to_string(users.size()) + " authenticated user(s)",
              "the list holds at most 20 users"};
    return change_rules(g, c, k, ch, [&](const RuleList& l) {
        for (const auto& u : users)
            if (!lists_user(l, u)) return false;
        return true;
    });
}

int del_users(Global& g, const RuleKind& k, const Words& w) {
    Args a = parse_args(g, w, {}, 2, SIZE_MAX, "triggers del auth NAME NUMBER [NAME NUMBER]...");
    const auto users = pairs_of(a.positional, 0);
    Client c(g);
    const RuleList before = read_rules(c, k);
    std::string list;
    for (const auto& u : users) {
        if (!lists_user(before, u))
            refused("'" + u.first + "' (" + u.second + ") is not an authenticated user", {});
        list += fields({u.first, u.second});
    }
    Change ch{"del-sms trigger auth-list " + list, "remove", "removed",
              std::to_string(users.size()) + " authenticated user(s)", ""};
    return change_rules(g, c, k, ch, [&](const RuleList& l) {
        for (const auto& u : users)
            if (lists_user(l, u)) return false;
        return true;
    });
}

int del_record(Global& g, const RuleKind& k, const Words& w) {
    Args a = parse_args(g, w, {}, 1, 1, "triggers del broadcast|preconf INDEX");
    const long long index = number_arg("INDEX", a.positional[0], 1, 1000000);
    const std::string reply = Client(g).request(std::string("del-sms trigger ") + k.wire + " " +
                                                std::to_string(index) + "^|^");
    // "ERROR" here means that no record has the index.
    if (reply == "ERROR")
        refused("there is no record " + std::to_string(index) + " in the " + k.name + " list",
                reply);
    if (reply != "SUCCESS") fail(reply, "cannot delete record " + std::to_string(index));
    return succeed(g, "deleted record " + std::to_string(index) + " of the " + k.name + " list",
                   JsonObject().str("reply", reply));
}

using RuleVerb = int (*)(Global&, const RuleKind&, const Words&);

int rules_change(Global& g, const Words& w, bool add) {
    if (w.empty())
        throw usage_error(std::string("triggers ") + (add ? "add" : "del") +
                          " needs a list: broadcast, preconf, ctrl or auth");
    const RuleKind& k = rule_kind(w[0]);
    const std::string kind = k.name;
    RuleVerb verb = add ? (kind == "broadcast" ? add_broadcast
                           : kind == "preconf" ? add_preconf
                           : kind == "ctrl"    ? set_action
                                               : add_users)
                        : (kind == "auth" ? del_users : del_record);
    if (!add && kind == "ctrl")
        throw usage_error("action triggers cannot be deleted, only set with 'triggers add ctrl'");
    return verb(g, k, Words(w.begin() + 1, w.end()));
}

int rules_add(Global& g, const Words& w) {
    return rules_change(g, w, true);
}

int rules_del(Global& g, const Words& w) {
    return rules_change(g, w, false);
}

}  // namespace

int cmd_triggers(Global& g, const Words& words) {
    static const VerbTable kTable = {{"list", rules_list}, {"add", rules_add}, {"del", rules_del}};
    return dispatch(g, words, kTable, "triggers");
}

}  // namespace smsgw::ctl
