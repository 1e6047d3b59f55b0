#include "book_verbs.h"

#include "client.h"
#include "common/text.h"
#include "listings.h"

namespace smsgw::ctl {
namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

// Fields as a command carries them, each closed by "^|^".
std::string fields(const std::vector<std::string>& values) {
    std::string out;
    for (const auto& v : values) out += v + std::string(kSep);
    return out;
}

std::string fields(const Pairs& pairs) {
    std::string out;
    for (const auto& [name, number] : pairs) out += fields({name, number});
    return out;
}

std::string contact_text(const std::string& name, const std::string& number) {
    return "'" + name + "' (" + number + ")";
}

void require_contacts(const Client& c, const Pairs& pairs) {
    for (const auto& [name, number] : pairs)
        if (!holds(c, name, number)) refused("no contact " + contact_text(name, number), {});
}

void require_groups(const Client& c, const std::vector<std::string>& groups) {
    for (const auto& g : groups)
        if (!group_exists(c, g)) refused("no such group: '" + g + "'", {});
}

void show_contacts(const Global& g, const ContactPage& p, long long start, const char* key) {
    Table t{{"NAME", "NUMBER", "DESCRIPTION"}, {}};
    for (const auto& r : p.rows) t.rows.push_back({r.name, r.number, r.description});
    if (g.json) {
        print(JsonObject().num("start", start).num("total", p.total).raw(key, t.json()).done() +
              "\n");
        return;
    }
    print(t.text());
    print(std::to_string(p.rows.size()) + " shown from " + std::to_string(start) + ", " +
          std::to_string(p.total) + " in all\n");
}

int show_count(const Global& g, const std::string& reply, const std::string& what) {
    auto n = parse_number(reply, 0, 1000000000);
    if (!n) fail(reply, "cannot count the " + what);
    return succeed(g, std::to_string(*n), JsonObject().num("count", *n));
}

// ------------------------------------------------------------- contacts

int contacts_list(Global& g, const Words& w) {
    Args a = parse_args(g, w, {{"--page", 1}, {"--prefix", 1}}, 0, 0,
                        "contacts list [--page N] [--prefix P]");
    const std::string prefix = lookup_field(a.value("--prefix").value_or(""), kNameRoom, "prefix");
    const long long start = page_start(page_arg(a));
    Client c(g);
    show_contacts(g, contact_page(c, prefix, start), start, "contacts");
    return kExitOk;
}

int contacts_count(Global& g, const Words& w) {
    parse_args(g, w, {}, 0, 0, "contacts count");
    return show_count(g, Client(g).request("get-sms total-entries phone_book^|^"), "contacts");
}

int contacts_add(Global& g, const Words& w) {
    Args a =
        parse_args(g, w, {{"--group", 1}}, 2, 3, "contacts add NAME NUMBER [DESC] [--group G]...");
    const std::string& name = new_field(a.positional[0], kNameRoom, "name");
    const std::string& number = new_field(a.positional[1], kNumberRoom, "number");
    const std::string desc =
        new_field(a.positional.size() > 2 ? a.positional[2] : "", kDescRoom, "description");
    std::vector<std::string> groups = a.values("--group");
    for (const auto& grp : groups) lookup_field(grp, kGroupRoom, "group");
    Client c(g);
    // A missing group would fail only after the contact was added.
    require_groups(c, groups);
    std::vector<std::string> f{name, number, desc};
    f.insert(f.end(), groups.begin(), groups.end());
    const std::string reply = c.request("add-sms phone_book " + fields(f));
    if (reply != "SUCCESS") fail(reply, "cannot add " + contact_text(name, number));
    return succeed(g, "added " + contact_text(name, number));
}

int contacts_del(Global& g, const Words& w) {
    Args a = parse_args(g, w, {}, 2, 2, "contacts del NAME NUMBER");
    const Pairs pairs = pairs_of(a.positional, 0);
    Client c(g);
    // Deleting a number the contact does not hold answers "SUCCESS" too.
    require_contacts(c, pairs);
    const std::string reply = c.request("del-sms phone_book " + fields(pairs));
    const std::string what = contact_text(pairs[0].first, pairs[0].second);
    if (reply != "SUCCESS") fail(reply, "cannot delete " + what);
    if (holds(c, pairs[0].first, pairs[0].second)) refused(what + " was not deleted", reply);
    return succeed(g, "deleted " + what);
}

// The description of the contact `name` (letter case aside) at `number`;
// nullopt when it does not hold that number.
std::optional<std::string> description_of(const Client& c, const std::string& name,
                                          const std::string& number, bool exact_name = false) {
    for (const auto& h : holders_of(c, number))
        if (exact_name ? h.name == name : iequals(h.name, name)) return h.description;
    return std::nullopt;
}

// The edit answers "SUCCESS" also when it failed; the book after it tells.
int contacts_edit(Global& g, const Words& w) {
    Args a = parse_args(g, w, {}, 4, 5, "contacts edit OLDNAME OLDNUMBER NEWNAME NEWNUMBER [DESC]");
    const Pairs old = pairs_of({a.positional[0], a.positional[1]}, 0);
    const auto& [old_name, old_number] = old[0];
    const std::string& name = new_field(a.positional[2], kNameRoom, "new name");
    const std::string& number = new_field(a.positional[3], kNumberRoom, "new number");
    Client c(g);
    std::optional<std::string> desc = description_of(c, old_name, old_number);
    if (!desc) refused("no contact " + contact_text(old_name, old_number), {});
    // Without a new description the old one stays.
    if (a.positional.size() > 4) desc = new_field(a.positional[4], kDescRoom, "description");
    const std::string reply =
        c.request("edit-sms phone_book " + fields({old_name, old_number, name, number, *desc}));
    if (reply != "SUCCESS") fail(reply, "cannot change the contact");
    // A change of letter case only keeps the key: the name must read as given.
    const bool same_key = iequals(name, old_name) && number == old_number;
    const bool done = description_of(c, name, number, same_key) == desc &&
                      (same_key || !holds(c, old_name, old_number));
    if (!done)
        refused(contact_text(old_name, old_number) + " was not changed (is " +
                    contact_text(name, number) + " taken?)",
                reply);
    return succeed(
        g, "changed " + contact_text(old_name, old_number) + " to " + contact_text(name, number));
}

int contacts_find(Global& g, const Words& w) {
    Args a = parse_args(g, w, {}, 1, 1, "contacts find-number NUMBER");
    const std::string& number = lookup_field(a.positional[0], kNumberRoom, "number");
    const std::vector<Contact> found = holders_of(Client(g), number);
    if (found.empty()) refused("no contact has the number " + number, "ERROR");
    Table t{{"NAME", "NUMBER", "DESCRIPTION"}, {}};
    for (const auto& r : found) t.rows.push_back({r.name, r.number, r.description});
    print(g.json ? JsonObject().raw("contacts", t.json()).done() + "\n" : t.text());
    return kExitOk;
}

// --------------------------------------------------------------- groups

int groups_list(Global& g, const Words& w) {
    Args a = parse_args(g, w, {{"--page", 1}}, 0, 0, "groups list [--page N]");
    const long long start = page_start(page_arg(a));
    const GroupPage p = group_page(Client(g), start);
    if (g.json) {
        print(JsonObject()
                  .num("start", start)
                  .num("total", p.total)
                  .raw("groups", json_strings(p.names))
                  .done() +
              "\n");
        return kExitOk;
    }
    Table t{{"GROUP"}, {}};
    for (const auto& n : p.names) t.rows.push_back({n});
    print(t.text() + std::to_string(p.total) + " groups in all\n");
    return kExitOk;
}

int groups_count(Global& g, const Words& w) {
    parse_args(g, w, {}, 0, 0, "groups count");
    return show_count(g, Client(g).request("get-sms total-entries groups^|^"), "groups");
}

int groups_add(Global& g, const Words& w) {
    Args a = parse_args(g, w, {}, 1, SIZE_MAX, "groups add GROUP [NAME NUMBER]...");
    const std::string& group = new_field(a.positional[0], kGroupRoom, "group");
    const Pairs members = pairs_of(a.positional, 1);
    Client c(g);
    // A pair that names no contact would be skipped without a word.
    require_contacts(c, members);
    const std::string reply =
        c.request("add-sms groups " + fields({group}) + fields(members) + fields({"[null]"}));
    if (reply != "SUCCESS") fail(reply, "cannot create the group '" + group + "'");
    if (!group_exists(c, group)) refused("the group '" + group + "' was not created", reply);
    return succeed(g, "created the group '" + group + "' with " + std::to_string(members.size()) +
                          (members.size() == 1 ? " member" : " members"));
}

// The deletion answers "ERROR" whatever it did; the groups left tell.
int groups_del(Global& g, const Words& w) {
    Args a = parse_args(g, w, {}, 1, SIZE_MAX, "groups del GROUP...");
    for (const auto& grp : a.positional) lookup_field(grp, kGroupRoom, "group");
    Client c(g);
    require_groups(c, a.positional);
    const std::string reply = c.request("del-sms groups " + fields(a.positional));
    std::string names;
    for (const auto& grp : a.positional) {
        if (group_exists(c, grp)) refused("the group '" + grp + "' was not deleted", reply);
        names += (names.empty() ? "'" : ", '") + grp + "'";
    }
    return succeed(g, "deleted " + names, JsonObject().str("reply", reply));
}

// A rename answers "Invalid String to Parse" when it worked.
int groups_rename(Global& g, const Words& w) {
    Args a = parse_args(g, w, {}, 2, 2, "groups rename OLD NEW");
    const std::string& from = lookup_field(a.positional[0], kGroupRoom, "group");
    const std::string& to = new_field(a.positional[1], kGroupRoom, "new group name");
    Client c(g);
    require_groups(c, {from});
    const std::string reply = c.request("edit-sms groups " + fields({from, to}));
    if (starts_with(reply, "ERROR")) fail(reply, "cannot rename the group '" + from + "'");
    if (!group_exists(c, to) || (!iequals(from, to) && group_exists(c, from)))
        refused("the group '" + from + "' was not renamed (does '" + to + "' exist?)", reply);
    return succeed(g, "renamed the group '" + from + "' to '" + to + "'",
                   JsonObject().str("reply", reply));
}

int groups_members(Global& g, const Words& w) {
    Args a = parse_args(g, w, {{"--page", 1}}, 1, 1, "groups members GROUP [--page N]");
    const std::string& group = lookup_field(a.positional[0], kGroupRoom, "group");
    const long long start = page_start(page_arg(a));
    auto page = member_page(Client(g), group, start);
    if (!page) refused("no such group: '" + group + "'", "SUCCESS");
    show_contacts(g, *page, start, "members");
    return kExitOk;
}

// Adding and removing members: the members before and after tell what
// happened, since a pair the daemon cannot act on may be passed over.
int change_members(Global& g, const Words& w, bool add) {
    Args a = parse_args(g, w, {}, 3, SIZE_MAX,
                        add ? "groups add-member GROUP NAME NUMBER [NAME NUMBER]..."
                            : "groups del-member GROUP NAME NUMBER [NAME NUMBER]...");
    const std::string& group = lookup_field(a.positional[0], kGroupRoom, "group");
    const Pairs pairs = pairs_of(a.positional, 1);
    Client c(g);
    require_groups(c, {group});
    if (add) require_contacts(c, pairs);
    const std::vector<Contact> before = all_members(c, group);
    for (const auto& [name, number] : pairs)
        if (is_member(before, name, number) == add)
            refused(contact_text(name, number) + (add ? " is already" : " is not") +
                        " in the group '" + group + "'",
                    {});
    const std::string reply =
        c.request((add ? "add-sms group " : "del-sms group ") + fields({group}) + fields(pairs));
    const std::vector<Contact> after = all_members(c, group);
    for (const auto& [name, number] : pairs) {
        if (is_member(after, name, number) == add) continue;
        const std::string what = contact_text(name, number) +
                                 (add ? " was not added to '" : " was not removed from '") + group +
                                 "'";
        if (reply == "SUCCESS") refused(what, reply);
        fail(reply, what);
    }
    return succeed(g,
                   std::string(add ? "added " : "removed ") + std::to_string(pairs.size()) +
                       (pairs.size() == 1 ? " member" : " members") + (add ? " to '" : " from '") +
                       group + "'",
                   JsonObject().str("reply", reply));
}

int groups_add_member(Global& g, const Words& w) {
    return change_members(g, w, true);
}

int groups_del_member(Global& g, const Words& w) {
    return change_members(g, w, false);
}

}  // namespace

int cmd_contacts(Global& g, const Words& words) {
    static const VerbTable kTable = {{"list", contacts_list}, {"count", contacts_count},
                                     {"add", contacts_add},   {"del", contacts_del},
                                     {"edit", contacts_edit}, {"find-number", contacts_find}};
    return dispatch(g, words, kTable, "contacts");
}

int cmd_groups(Global& g, const Words& words) {
    static const VerbTable kTable = {{"list", groups_list},
                                     {"count", groups_count},
                                     {"add", groups_add},
                                     {"del", groups_del},
                                     {"rename", groups_rename},
                                     {"members", groups_members},
                                     {"add-member", groups_add_member},
                                     {"del-member", groups_del_member}};
    return dispatch(g, words, kTable, "groups");
}

}  // namespace smsgw::ctl
