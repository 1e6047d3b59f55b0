// The address-book commands of the web interface. Each handler cuts its
// own fields, calls the contact table and the groups, keeps the rule lists
// in step and answers with the reply text the web pages expect, odd ones
// included.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "commands/command_context.h"
#include "common/trace.h"

namespace smsgw {

namespace {

constexpr const char* kInvalid = "Invalid String to Parse";

// A START field: the 1-based position of a page; 0 or text means 1.
int page_start(const std::string& field) {
    int start = c_atoi(field);
    return start <= 0 ? 1 : start;
}

std::string member_text(std::string_view name, std::string_view number) {
    std::string text(name);
    text += kItemSep;
    text.append(number);
    text += kItemSep;
    return text;
}

// The entry (name, number), or nullptr. Leaves the find's text in the
// reply buffer, as every lookup of a contact does.
Entry* find_entry(AddressBook& ab, std::string_view name, std::string_view number) {
    TrieNode* node = ab.ab_find(name);
    if (!node) return nullptr;
    return AddressBook::ab_find_number(node->entries.get(), number);
}

}  // namespace

std::optional<std::string> CommandContext::next(std::string_view separator) {
    cursor = tok.next_token(cursor, separator);
    if (!tok.token_found()) return std::nullopt;
    return tok.word();
}

std::optional<std::string> CommandContext::next_field(size_t room) {
    auto word = next(kSep);
    if (word && word->size() > room) word->resize(room);
    return word;
}

bool own_empty_file(const struct stat& st) {
    // Asked on every listing request; the daemon's user never changes.
    static const uid_t self = ::geteuid();
    return S_ISREG(st.st_mode) && st.st_size == 0 && st.st_nlink == 1 && st.st_uid == self;
}

FilePtr open_response_file(const std::string& path) {
    // The name usually holds the empty file the request began with; it is
    // used as it is. Anything else found there (a planted link, a second
    // name of another file, a pipe, old contents) is removed and the file
    // created afresh, never written through or truncated in place.
    int fd = ::open(path.c_str(), O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd >= 0) {
        struct stat st {};
        if (::fstat(fd, &st) == 0 && own_empty_file(st) && ::fcntl(fd, F_SETFL, 0) == 0) {
            if (FILE* f = ::fdopen(fd, "w")) return FilePtr(f);
        }
        ::close(fd);
    }
    return open_fixed_temp(path, "w");
}

void empty_response_file(const std::string& path) {
    // Already our own empty file: emptying it again would change nothing.
    struct stat st {};
    if (::lstat(path.c_str(), &st) == 0 && own_empty_file(st)) return;
    open_fixed_temp(path, "w");
}

ResponseListing::ResponseListing(const CommandContext& ctx)
    : file_(open_response_file(ctx.response_file())) {
    listing_.output = file_.get();
}

void ResponseListing::write(std::string_view text) {
    if (file_) std::fwrite(text.data(), 1, text.size(), file_.get());
}

void ResponseListing::counted_trailer(int elements) {
    std::string trailer = "^|^MAX_ELEMENTS=" + std::to_string(elements);
    write(std::to_string(trailer.size()) + trailer);
}

void ResponseListing::close() {
    listing_.output = nullptr;
    file_.reset();
}

std::string get_phone_book(CommandContext& ctx) {
    trace("In get _phone_book entered\n");
    auto first = ctx.next_field();
    if (!first) return ctx.reply_buffer();
    auto second = ctx.next_field();
    ResponseListing out(ctx);
    if (!out.ok()) return "ERROR";
    Listing& listing = out.listing();
    listing.listed_count = 1;
    listing.list_index = 1;
    int max_elements = 0;
    if (second) {
        int start = page_start(*second);
        std::string prefix = first->substr(0, kNameRoom);
        if (ctx.ab.ab_list_prefix_page(listing, prefix, start) < 0) return "ERROR";
        if (start == 1) {
            ctx.match_total = listing.list_index - 1;
            if (listing.list_index == 1) {
                ctx.rt.reply_buffer.set("ERROR:Search is Unsuccesful.");
                return ctx.reply_buffer();
            }
        }
        max_elements = ctx.match_total;
    } else {
        ctx.ab.ab_list_page(listing, page_start(*first));
        max_elements = ctx.ab.entry_count();
    }
    out.counted_trailer(max_elements);
    return ctx.response_file();
}

std::string get_phone_number(CommandContext& ctx) {
    auto number = ctx.next_field(kNumberRoom);
    if (!number) return ctx.reply_buffer();
    ResponseListing out(ctx);
    if (!out.ok()) return "ERROR";
    int found = ctx.ab.ab_list_by_number(out.listing(), *number);
    out.close();
    return found != 0 ? ctx.response_file() : "ERROR";
}

std::string get_groups(CommandContext& ctx) {
    auto field = ctx.next_field();
    int start = field ? c_atoi(*field) : 1;
    ResponseListing out(ctx);
    if (!out.ok()) return "ERROR";
    ctx.ab.group_list_page(out.listing(), start);
    out.write("MAX_ELEMENTS=" + std::to_string(ctx.ab.group_count()) + "\n");
    return ctx.response_file();
}

namespace {

// "get-sms group GROUP^|^KEY^|^START^|^": a page of a search through the
// members; the total comes from the first page.
std::string group_members_search(CommandContext& ctx, const std::string& group_name,
                                 const std::string& start_field) {
    ResponseListing out(ctx);
    if (!out.ok()) return "ERROR";
    Listing& listing = out.listing();
    listing.listed_count = 1;
    listing.list_index = 1;
    Group* group = ctx.ab.group_find(group_name);
    if (!group) {
        out.counted_trailer(1);
        return "SUCCESS";
    }
    int start = c_atoi(start_field);
    ctx.ab.group_list_members_page(listing, group, start);
    if (start == 1) ctx.match_total = listing.list_index - 1;
    out.counted_trailer(ctx.match_total);
    return ctx.response_file();
}

// "get-sms group GROUP^|^[START^|^]": a page of the group's members.
std::string group_members_page(CommandContext& ctx, const std::string& group_name,
                               const std::optional<std::string>& start_field) {
    int start = start_field ? c_atoi(*start_field) : 0;
    Group* group = ctx.ab.group_find(group_name);
    ResponseListing out(ctx);
    if (!out.ok()) return "ERROR";
    if (!group) {
        out.counted_trailer(0);
        return "SUCCESS";
    }
    ctx.ab.group_list_members_page(out.listing(), group, start);
    out.counted_trailer(static_cast<int>(group->member_count));
    return ctx.response_file();
}

}  // namespace

std::string get_group_members(CommandContext& ctx) {
    auto group = ctx.next_field(kGroupRoom);
    if (!group) return ctx.reply_buffer();
    auto second = ctx.next_field();
    auto third = ctx.next_field();
    if (third) return group_members_search(ctx, *group, *third);
    return group_members_page(ctx, *group, second);
}

std::string get_total_entries(CommandContext& ctx) {
    auto kind = ctx.next_field();
    if (!kind) return ctx.reply_buffer();
    int total = 0;
    if (*kind == "phone_book") {
        total = ctx.ab.entry_count();
    } else if (*kind == "groups") {
        total = ctx.ab.group_count();
    } else if (*kind == "trigger") {
        auto sub = ctx.next_field();
        if (!sub) return ctx.reply_buffer();
        if (*sub == "sms") {
            total = c_atoi(ctx.rules.count_records(ctx.rules.broadcast_path()));
        } else if (*sub == "preconf_sms") {
            total = c_atoi(ctx.rules.count_records(ctx.rules.preconf_path()));
        } else if (*sub == "ctrl_data") {
            // One record per action kind, always.
            total = 5;
        } else {
            return "ERROR";
        }
    } else {
        return "ERROR";
    }
    ctx.rt.reply_buffer.set(std::to_string(total));
    return ctx.reply_buffer();
}

std::string add_phone_book_entry(CommandContext& ctx) {
    AddressBook& ab = ctx.ab;
    if (ab.entry_count() >= AddressBook::MAX_ELEMENTS) {
        ctx.rt.reply_buffer.set("Exceeded MAX Limit");
        return ctx.reply_buffer();
    }
    auto name = ctx.next_field(kNameRoom);
    if (!name) return ctx.reply_buffer();
    auto number = ctx.next_field(kNumberRoom);
    if (!number) return ctx.reply_buffer();
    auto desc = ctx.next_field(kDescRoom);
    if (!desc) return ctx.reply_buffer();
    TrieNode* node = ab.ab_insert(*name, *number, *desc);
    if (!node) return ctx.reply_buffer();
    Entry* entry = AddressBook::ab_find_number(node->entries.get(), *number);
    if (!entry) return "ERROR";
    while (auto group = ctx.next_field(kGroupRoom)) ab.group_add_member(*group, entry);
    return ctx.reply_buffer();
}

std::string add_group(CommandContext& ctx) {
    AddressBook& ab = ctx.ab;
    auto group_name = ctx.next_field(kGroupRoom);
    if (!group_name) return ctx.reply_buffer();
    Group* group = ab.group_create(*group_name);
    if (!group) return ctx.reply_buffer();
    for (;;) {
        auto name = ctx.next_field(kNameRoom);
        if (!name) return ctx.reply_buffer();
        if (*name == kNullList) break;
        auto number = ctx.next_field(kNumberRoom);
        if (!number) return ctx.reply_buffer();
        if (Entry* entry = find_entry(ab, *name, *number)) ab.group_add_member_to(group, entry);
    }
    return "SUCCESS";
}

std::string add_group_members(CommandContext& ctx) {
    AddressBook& ab = ctx.ab;
    auto group_name = ctx.next_field(kGroupRoom);
    if (!group_name) return ctx.reply_buffer();
    Group* group = ab.group_find(*group_name);
    if (!group) return ctx.reply_buffer();
    for (;;) {
        auto name = ctx.next_field(kNameRoom);
        if (!name) return ctx.reply_buffer();
        auto number = ctx.next_field(kNumberRoom);
        if (!number) return ctx.reply_buffer();
        TrieNode* node = ab.ab_find(*name);
        if (!node) continue;
        Entry* entry = AddressBook::ab_find_number(node->entries.get(), *number);
        if (!entry) return "ERROR";
        ab.group_add_member_to(group, entry);
    }
}

std::string delete_phone_book_entries(CommandContext& ctx) {
    for (;;) {
        auto name = ctx.next_field(kNameRoom);
        if (!name) return "SUCCESS";
        auto number = ctx.next_field(kNumberRoom);
        if (!number) return "SUCCESS";
        if (!ctx.ab.ab_delete_entry(*name, *number)) return ctx.reply_buffer();
        ctx.rules.delete_auth_user(*name, *number);
        ctx.rules.update_trigger_members(member_text(*name, *number), "[null]]|[", 1);
    }
}

std::string delete_group_members(CommandContext& ctx) {
    AddressBook& ab = ctx.ab;
    auto group_name = ctx.next_field(kGroupRoom);
    if (!group_name) return "ERROR";
    Group* group = ab.group_find(*group_name);
    if (!group) return ctx.reply_buffer();
    for (;;) {
        auto name = ctx.next_field(kNameRoom);
        if (!name) return "SUCCESS";
        auto number = ctx.next_field(kNumberRoom);
        if (!number) return "SUCCESS";
        if (Entry* entry = find_entry(ab, *name, *number)) ab.group_remove_member(group, entry);
    }
}

std::string delete_groups(CommandContext& ctx) {
    while (auto group = ctx.next_field(kGroupRoom)) {
        trace("Entered groups :%s\n", group->c_str());
        ctx.ab.group_delete(*group, 0);
        ctx.rules.update_rule_groups(*group, "", 1);
    }
    // "ERROR" whatever was deleted: the only reply the web page expects here.
    return "ERROR";
}

namespace {

// A change of name or number: the new entry takes over the old one's group
// places and rule-list entries, then the old entry goes.
void replace_entry(CommandContext& ctx, const std::string& old_name, const std::string& old_number,
                   const std::string& new_name, const std::string& new_number,
                   const std::string& desc) {
    if (!ctx.ab.ab_replace_entry(old_name, old_number, new_name, new_number, desc)) return;
    if (ctx.rules.delete_auth_user(old_name, old_number) == "SUCCESS") {
        ctx.rules.add_auth_user(new_name, new_number);
    }
    ctx.rules.update_trigger_members(member_text(old_name, old_number),
                                     member_text(new_name, new_number), 0);
}

}  // namespace

std::string edit_phone_book_entry(CommandContext& ctx) {
    auto old_name = ctx.next_field(kNameRoom);
    if (!old_name) return "";
    auto old_number = ctx.next_field(kNumberRoom);
    if (!old_number) return "";
    auto new_name = ctx.next_field(kNameRoom);
    if (!new_name) return "ERROR";
    auto new_number = ctx.next_field(kNumberRoom);
    if (!new_number) return "ERROR";
    auto desc = ctx.next_field(kDescRoom);
    if (!desc) return "ERROR";

    AddressBook& ab = ctx.ab;
    if (*new_name == *old_name && *new_number == *old_number) {
        Entry* entry = find_entry(ab, *old_name, *old_number);
        if (!entry) {
            ctx.rt.reply_buffer.set("ERROR:Edit Failed");
            return ctx.reply_buffer();
        }
        AddressBook::ab_set_description(*entry, *desc);
        return "SUCCESS";
    }
    // A failed change is answered "SUCCESS" too, the failure left in the
    // reply buffer only: the web page expects no other reply.
    if (!find_entry(ab, *old_name, *old_number) || find_entry(ab, *new_name, *new_number)) {
        ctx.rt.reply_buffer.set("ERROR:Edit Failed");
        return "SUCCESS";
    }
    replace_entry(ctx, *old_name, *old_number, *new_name, *new_number, *desc);
    return "SUCCESS";
}

std::string rename_group(CommandContext& ctx) {
    auto old_name = ctx.next_field(kGroupRoom);
    if (!old_name) return "ERROR";
    auto new_name = ctx.next_field(kGroupRoom);
    if (!new_name) return "";
    if (!ctx.ab.group_find(*old_name)) {
        ctx.rt.reply_buffer.set("ERROR:Group Doesnot Exist");
        return ctx.reply_buffer();
    }
    if (!ctx.ab.group_rename(*old_name, *new_name)) return ctx.reply_buffer();
    ctx.rules.update_rule_groups(*old_name, *new_name, 0);
    // The web page is answered with the reply text as a command starts it.
    ctx.rt.reply_buffer.set(kInvalid);
    return ctx.reply_buffer();
}

}  // namespace smsgw
