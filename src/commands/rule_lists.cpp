#include "commands/rule_lists.h"

#include <unistd.h>

#include <cstdio>
#include <functional>

#include "common/fileops.h"
#include "common/text.h"
#include "common/trace.h"
#include "formats/rule_list_record.h"

namespace smsgw {

namespace {

// Rule files hold at most a few hundred small records; anything beyond this
// is not a rule file and is read only up to here.
constexpr size_t kMaxRuleFileBytes = 4u << 20;

constexpr int kMaxTriggers = 100;
constexpr int kMaxAuthUsers = 20;

constexpr std::string_view kNullItem = "[null]]|[";

// Splits a "]|["-terminated item list; the "[null]" marker is no item.
std::vector<std::string_view> split_items(std::string_view list) {
    std::vector<std::string_view> items;
    FieldCutter cut(list);
    while (auto item = cut.next(kItemSep)) {
        if (*item != kNullList) items.push_back(*item);
    }
    return items;
}

std::string join_items(const std::vector<std::string>& items) {
    if (items.empty()) return std::string(kNullItem);
    std::string out;
    for (const auto& item : items) {
        out += item;
        out += kItemSep;
    }
    return out;
}

// One rewrite of a rule file: the records that stay are written to the
// fixed temporary file, which then replaces the list. A refused change
// discards the temporary file and leaves the list as it was.
class RuleRewrite {
  public:
    RuleRewrite(const Runtime& rt, std::string path)
        : path_(std::move(path)), temp_(rt.path("/var/run/temp_file")) {}
    RuleRewrite(const RuleRewrite&) = delete;  // records_ views into data_
    RuleRewrite& operator=(const RuleRewrite&) = delete;

    // False when the list cannot be read or the temporary file not made.
    bool open() {
        auto data = read_file(path_, kMaxRuleFileBytes);
        if (!data) return false;
        data_ = std::move(*data);
        records_ = decode_rule_file(data_).records;
        out_ = open_fixed_temp(temp_, "w");
        return out_ != nullptr;
    }
    // Records up to the first damaged one: a rewrite drops the rest.
    const std::vector<RuleRecord>& records() const { return records_; }

    void write(std::string_view text) {
        std::string rec = encode_rule_record(text);
        if (std::fwrite(rec.data(), 1, rec.size(), out_.get()) != rec.size()) failed_ = true;
        ++written_;
    }
    int written() const { return written_; }

    bool commit() {
        bool ok = !failed_ && std::fflush(out_.get()) == 0 && ::fsync(::fileno(out_.get())) == 0;
        ok = std::fclose(out_.release()) == 0 && ok;
        if (!ok || !replace_file(temp_, path_)) {
            ::unlink(temp_.c_str());
            return false;
        }
        return true;
    }
    void discard() {
        out_.reset();
        ::unlink(temp_.c_str());
    }

  private:
    std::string path_;
    std::string temp_;
    std::string data_;
    std::vector<RuleRecord> records_;
    FilePtr out_;
    int written_ = 0;
    bool failed_ = false;
};

std::string_view field_or_empty(const std::vector<std::string_view>& f, size_t i) {
    return i < f.size() ? f[i] : std::string_view();
}

const char* action_code(std::string_view label) {
    static const struct {
        std::string_view label;
        const char* code;
    } table[] = {
        {"Add Number to Address Book", "ADDENTRY"},
        {"Create new Group or Add Number to Group", "ADDGROUP"},
        {"Add New Preconfigured SMS", "ADDPRECONFSMS"},
        {"Delete Number from Address Book", "DELENTRY"},
        {"Delete a Group", "DELGROUP"},
    };
    for (const auto& row : table) {
        if (row.label == label) return row.code;
    }
    return nullptr;
}

// Byte order of the authenticated users: name ignoring case, then number.
bool auth_sorts_before(std::string_view name, std::string_view number, std::string_view rec_name,
                       std::string_view rec_number) {
    int c = strcasecmp_view(name, rec_name);
    return c < 0 || (c == 0 && number.compare(rec_number) < 0);
}

}  // namespace

std::optional<std::vector<std::string>> read_rule_records(const std::string& path) {
    auto data = read_file(path, kMaxRuleFileBytes);
    if (!data) return std::nullopt;
    std::vector<std::string> texts;
    for (const RuleRecord& r : decode_rule_file(*data).records) texts.emplace_back(r.text);
    return texts;
}

std::string RuleLists::add_broadcast_trigger(std::string_view keyword, std::string_view rest) {
    RuleRewrite rw(rt_, broadcast_path());
    if (!rw.open()) return "ERROR";
    for (const auto& rec : rw.records()) {
        const auto& f = rec.fields;
        if (f.empty()) continue;
        if (iequals(f[0], keyword)) {
            rw.discard();
            return "ERROR:Broadcast Trigger Already Exists.";
        }
        rw.write(rec.text);
    }
    // The list is full at a hundred: the new trigger is dropped silently.
    if (rw.written() == kMaxTriggers) {
        rw.discard();
        return "SUCCESS";
    }
    rw.write(std::string(kSep) + std::string(rest));
    return rw.commit() ? "SUCCESS" : "ERROR";
}

namespace {

// Copies every record but the one at the 1-based index.
std::string delete_by_index(const Runtime& rt, const std::string& path, int index) {
    RuleRewrite rw(rt, path);
    if (!rw.open()) return "ERROR";
    bool skipped = false;
    int position = 0;
    for (const auto& rec : rw.records()) {
        ++position;
        if (position == index) {
            skipped = true;
            continue;
        }
        if (rec.fields.empty()) continue;
        rw.write(rec.text);
    }
    return rw.commit() && skipped ? "SUCCESS" : "ERROR";
}

// Replaces the record at the 1-based index, refusing a first field that
// another record already has (ignoring case).
std::string edit_by_index(const Runtime& rt, const std::string& path, int index,
                          std::string_view first_field, const std::string& replacement,
                          const char* duplicate_message) {
    RuleRewrite rw(rt, path);
    if (!rw.open()) return "ERROR";
    int position = 0;
    for (const auto& rec : rw.records()) {
        ++position;
        if (position == index) {
            rw.write(replacement);
            continue;
        }
        const auto& f = rec.fields;
        if (f.empty()) continue;
        if (iequals(f[0], first_field)) {
            rw.discard();
            return duplicate_message;
        }
        rw.write(rec.text);
    }
    return rw.commit() ? "SUCCESS" : "ERROR";
}

}  // namespace

std::string RuleLists::delete_broadcast_trigger(int index) {
    return delete_by_index(rt_, broadcast_path(), index);
}

std::string RuleLists::edit_broadcast_trigger(int index, std::string_view keyword,
                                              std::string_view rest) {
    return edit_by_index(rt_, broadcast_path(), index, keyword,
                         std::string(kSep) + std::string(rest),
                         "ERROR:Broadcast Trigger Already Exists.");
}

std::string RuleLists::add_preconf_sms(std::string_view text, std::string_view groups) {
    RuleRewrite rw(rt_, preconf_path());
    if (!rw.open()) return "ERROR";
    for (const auto& rec : rw.records()) {
        const auto& f = rec.fields;
        if (f.empty()) continue;
        if (iequals(f[0], text)) {
            rw.discard();
            return "ERROR:Pre Configured message already exists.";
        }
        rw.write(rec.text);
    }
    if (rw.written() == kMaxTriggers) {
        rw.discard();
        return "SUCCESS";
    }
    rw.write(rule_record_text({text, groups}));
    return rw.commit() ? "SUCCESS" : "ERROR";
}

std::string RuleLists::delete_preconf_sms(int index) {
    return delete_by_index(rt_, preconf_path(), index);
}

std::string RuleLists::edit_preconf_sms(int index, std::string_view text, std::string_view rest) {
    std::string replacement(kSep);
    replacement.append(text);
    replacement.append(kSep);
    replacement.append(rest);
    return edit_by_index(rt_, preconf_path(), index, text, replacement,
                         "ERROR:Pre Configured message already exists.");
}

std::string RuleLists::set_action_trigger(std::string_view label, std::string_view keyword,
                                          std::string_view auth) {
    const char* known = action_code(label);
    std::string_view code = known ? std::string_view(known) : label;
    RuleRewrite rw(rt_, ctrl_path());
    if (!rw.open()) return "ERROR";
    for (const auto& rec : rw.records()) {
        const auto& f = rec.fields;
        if (f.empty()) continue;
        std::string_view rec_code = field_or_empty(f, 1);
        if (f[0] == keyword && rec_code != code) {
            rw.discard();
            return "ERROR:Action Trigger already exists.";
        }
        if (rec_code == code) {
            rw.write(rule_record_text({keyword, code, auth}));
        } else {
            rw.write(rec.text);
        }
    }
    return rw.commit() ? "SUCCESS" : "ERROR";
}

std::string RuleLists::add_auth_user(std::string_view name, std::string_view number) {
    RuleRewrite rw(rt_, auth_path());
    if (!rw.open()) return "ERROR";
    std::string fresh = rule_record_text({name, number});
    bool placed = false;
    for (const auto& rec : rw.records()) {
        const auto& f = rec.fields;
        if (f.empty()) continue;
        std::string_view rec_name = f[0];
        std::string_view rec_number = field_or_empty(f, 1);
        if (iequals(rec_name, name) && rec_number == number) {
            rw.discard();
            return "Authenticate user already exists.";
        }
        if (!placed && auth_sorts_before(name, number, rec_name, rec_number)) {
            rw.write(fresh);
            placed = true;
        }
        rw.write(rec.text);
    }
    if (!placed) rw.write(fresh);
    if (rw.written() > kMaxAuthUsers) {
        rw.discard();
        return "ERROR:Authenticate users exceeded max limit 20.";
    }
    return rw.commit() ? "SUCCESS" : "ERROR";
}

std::string RuleLists::delete_auth_user(std::string_view name, std::string_view number) {
    RuleRewrite rw(rt_, auth_path());
    if (!rw.open()) return "ERROR";
    bool dropped = false;
    for (const auto& rec : rw.records()) {
        const auto& f = rec.fields;
        if (f.empty()) continue;
        if (iequals(f[0], name) && field_or_empty(f, 1) == number) {
            dropped = true;
            continue;
        }
        rw.write(rec.text);
    }
    return rw.commit() && dropped ? "SUCCESS" : "ERROR";
}

std::string RuleLists::count_records(const std::string& path) {
    auto records = read_rule_records(path);
    if (!records) return "ERROR";
    return std::to_string(records->size());
}

namespace {

// Rewrites one item-list field of every record of a rule file; `field` is
// its 0-based position behind the leading separator.
void rewrite_list_field(const Runtime& rt, const std::string& path, size_t field,
                        const std::function<std::string(std::string_view)>& rewrite) {
    RuleRewrite rw(rt, path);
    if (!rw.open()) return;
    for (const auto& rec : rw.records()) {
        const auto& f = rec.fields;
        if (f.empty()) continue;
        if (f.size() <= field) {
            rw.write(rec.text);
            continue;
        }
        std::string text(kSep);
        for (size_t i = 0; i < f.size(); ++i) {
            if (i == field) {
                text += rewrite(f[i]);
            } else {
                text.append(f[i]);
            }
            text.append(kSep);
        }
        rw.write(text);
    }
    rw.commit();
}

}  // namespace

void RuleLists::update_trigger_members(std::string_view old_member, std::string_view new_member,
                                       int mode) {
    // The marker file is emptied first, as the web pages expect.
    open_fixed_temp(rt_.path("/var/run/test_file"), "w");
    auto rewrite = [&](std::string_view allowed) {
        auto items = split_items(allowed);
        std::vector<std::string> kept;
        size_t i = 0;
        for (; i + 1 < items.size(); i += 2) {
            std::string member(items[i]);
            member += kItemSep;
            member.append(items[i + 1]);
            member += kItemSep;
            if (member == old_member) {
                if (mode == 0) kept.emplace_back(new_member);
                continue;
            }
            kept.push_back(std::move(member));
        }
        // A name without its number stays as it was.
        if (i < items.size()) kept.push_back(std::string(items[i]) + std::string(kItemSep));
        std::string out;
        for (const auto& m : kept) {
            if (m == kNullItem) continue;
            out += m;
        }
        return out.empty() ? std::string(kNullItem) : out;
    };
    // ALLOWED is the fifth field of a broadcast trigger.
    rewrite_list_field(rt_, broadcast_path(), 4, rewrite);
}

void RuleLists::update_rule_groups(std::string_view old_group, std::string_view new_group,
                                   int mode) {
    auto rewrite = [&](std::string_view groups) {
        std::vector<std::string> kept;
        for (auto name : split_items(groups)) {
            if (name == old_group) {
                if (mode == 0 && !new_group.empty()) kept.emplace_back(new_group);
                continue;
            }
            kept.emplace_back(name);
        }
        return join_items(kept);
    };
    // GROUPS is the third field of a broadcast trigger and the second of a
    // preconfigured message.
    rewrite_list_field(rt_, broadcast_path(), 2, rewrite);
    rewrite_list_field(rt_, preconf_path(), 1, rewrite);
}

}  // namespace smsgw
