#include "commands/command_parser.h"

#include <cstdio>

#include "addressbook/address_book_files.h"
#include "commands/command_context.h"
#include "commands/service_settings.h"
#include "common/fileops.h"
#include "common/net.h"
#include "common/trace.h"
#include "formats/txrx_datagram.h"

namespace smsgw {

namespace {

constexpr const char* kInvalid = "Invalid String to Parse";

// The rule file a "get-sms trigger" kind names, as the web page reads it.
std::optional<std::string> rule_file_of(const RuleLists& rules, std::string_view kind) {
    if (kind == "sms") return rules.broadcast_path();
    if (kind == "ctrl_data") return rules.ctrl_path();
    if (kind == "preconf_sms") return rules.preconf_path();
    if (kind == "auth-list") return rules.auth_path();
    return std::nullopt;
}

std::string get_trigger(CommandContext& ctx) {
    auto kind = ctx.next_field();
    if (!kind) return ctx.reply_buffer();
    return rule_file_of(ctx.rules, *kind).value_or("ERROR");
}

std::string get_international(CommandContext& ctx) {
    auto key = ctx.next_field();
    if (!key) return "ERROR";
    std::string reply = get_international_dialing(ctx.rt, ctx.dialing, *key);
    if (reply == "ERROR") return reply;
    ctx.rt.reply_buffer.set(reply);
    return ctx.reply_buffer();
}

std::string get_dispatch(CommandContext& ctx) {
    // The listing of the last request never survives into the next one.
    empty_response_file(ctx.response_file());
    auto word = ctx.next(" ");
    if (!word) return ctx.reply_buffer();
    if (*word == "phone_book") return get_phone_book(ctx);
    if (*word == "phone_number") return get_phone_number(ctx);
    if (*word == "groups") return get_groups(ctx);
    if (*word == "group") return get_group_members(ctx);
    if (*word == "total-entries") return get_total_entries(ctx);
    if (*word == "international-dialing") return get_international(ctx);
    if (*word == "trigger") return get_trigger(ctx);
    return "ERROR";
}

std::string add_trigger(CommandContext& ctx) {
    auto kind = ctx.next(" ");
    if (!kind) return ctx.reply_buffer();
    if (*kind == "sms") {
        // The record is the command text from the keyword on.
        std::string_view rest = ctx.cursor;
        auto keyword = ctx.next_field();
        if (!keyword) return ctx.reply_buffer();
        return ctx.rules.add_broadcast_trigger(*keyword, rest);
    }
    if (*kind == "ctrl_data") return "ERROR";
    if (*kind == "preconf_sms") {
        auto text = ctx.next_field();
        if (!text) return "ERROR";
        auto groups = ctx.next_field();
        if (!groups) return "ERROR";
        return ctx.rules.add_preconf_sms(*text, *groups);
    }
    if (*kind == "auth-list") {
        for (;;) {
            auto name = ctx.next_field(kNameRoom);
            if (!name) break;
            auto number = ctx.next_field(kNumberRoom);
            if (!number) break;
            ctx.rules.add_auth_user(*name, *number);
        }
        return "SUCCESS";
    }
    return "ERROR";
}

std::string add_international(CommandContext& ctx) {
    auto key = ctx.next_field();
    if (!key) return "ERROR";
    auto value = ctx.next_field();
    if (!value) return "ERROR";
    return set_international_dialing(ctx.rt, ctx.dialing, *key, *value);
}

std::string add_modem(CommandContext& ctx) {
    if (!ctx.next(" ")) return "ERROR";
    auto command = ctx.next(" ");
    if (!command) return "ERROR";
    return set_signal_strength_cmd(ctx.rt, ctx.txrx, *command);
}

std::string add_dispatch(CommandContext& ctx) {
    auto word = ctx.next(" ");
    if (!word) return ctx.reply_buffer();
    if (*word == "phone_book") return add_phone_book_entry(ctx);
    if (*word == "groups") return add_group(ctx);
    if (*word == "group") return add_group_members(ctx);
    if (*word == "trigger") return add_trigger(ctx);
    if (*word == "international-dialing") return add_international(ctx);
    if (*word == "modem") return add_modem(ctx);
    return "ERROR";
}

std::string del_trigger(CommandContext& ctx) {
    auto kind = ctx.next(" ");
    if (!kind) return ctx.reply_buffer();
    if (*kind == "sms" || *kind == "preconf_sms") {
        auto index = ctx.next_field();
        if (!index) return "";
        int i = c_atoi(*index);
        return *kind == "sms" ? ctx.rules.delete_broadcast_trigger(i)
                              : ctx.rules.delete_preconf_sms(i);
    }
    if (*kind == "auth-list") {
        for (;;) {
            auto name = ctx.next_field(kNameRoom);
            if (!name) break;
            auto number = ctx.next_field(kNumberRoom);
            if (!number) break;
            ctx.rules.delete_auth_user(*name, *number);
            std::string member = *name + std::string(kItemSep) + *number + std::string(kItemSep);
            ctx.rules.update_trigger_members(member, "[null]]|[", 1);
        }
        return "SUCCESS";
    }
    return "ERROR";
}

std::string del_dispatch(CommandContext& ctx) {
    auto word = ctx.next(" ");
    if (!word) return ctx.reply_buffer();
    if (*word == "phone_book") return delete_phone_book_entries(ctx);
    if (*word == "group") return delete_group_members(ctx);
    if (*word == "groups") return delete_groups(ctx);
    if (*word == "trigger") return del_trigger(ctx);
    return "ERROR";
}

std::string edit_trigger_kind(CommandContext& ctx, const std::string& kind) {
    if (kind == "sms") {
        auto index = ctx.next_field();
        if (!index) return ctx.reply_buffer();
        std::string_view rest = ctx.cursor;
        auto keyword = ctx.next_field();
        if (!keyword) return ctx.reply_buffer();
        return ctx.rules.edit_broadcast_trigger(c_atoi(*index), *keyword, rest);
    }
    if (kind == "ctrl_data") {
        auto label = ctx.next_field();
        if (!label) return "ERROR";
        auto keyword = ctx.next_field();
        if (!keyword) return "ERROR";
        auto auth = ctx.next_field();
        if (!auth) return "ERROR";
        return ctx.rules.set_action_trigger(*label, *keyword, *auth);
    }
    if (kind == "preconf_sms") {
        auto index = ctx.next_field();
        if (!index) return ctx.reply_buffer();
        auto text = ctx.next_field();
        if (!text) return ctx.reply_buffer();
        return ctx.rules.edit_preconf_sms(c_atoi(*index), *text, ctx.cursor);
    }
    return "ERROR";
}

std::string edit_trigger(CommandContext& ctx) {
    auto kind = ctx.next(" ");
    if (!kind) return ctx.reply_buffer();
    std::string reply = edit_trigger_kind(ctx, *kind);
    trace("retval:%s", reply.c_str());
    return reply;
}

std::string edit_dispatch(CommandContext& ctx) {
    auto word = ctx.next(" ");
    if (!word) return "ERROR";
    if (*word == "phone_book") return edit_phone_book_entry(ctx);
    if (*word == "groups") return rename_group(ctx);
    if (*word == "trigger") return edit_trigger(ctx);
    return "ERROR";
}

std::string set_sms_http(CommandContext& ctx) {
    auto word = ctx.next(" ");
    if (!word) return ctx.reply_buffer();
    if (*word == "set-sms-timer") {
        // The seconds have never been checked for presence.
        auto seconds = ctx.next(" ");
        return set_sms_timer(ctx.rt, ctx.txrx, seconds.value_or(""));
    }
    if (*word == "set-sms-status") {
        auto state = ctx.next(" ");
        if (!state) return ctx.reply_buffer();
        return set_sms_status(ctx.rt, ctx.txrx, *state);
    }
    return "ERROR";
}

}  // namespace

struct CommandParser::Impl {
    Impl(Runtime& rt, AddressBook& ab, RuleLists& rules, DialingSegment& dialing,
         const TxrxLink& txrx)
        : ctx(rt, ab, rules, dialing, txrx) {}
    CommandContext ctx;
};

CommandParser::CommandParser(Runtime& rt, AddressBook& ab, RuleLists& rules,
                             DialingSegment& dialing, const TxrxLink& txrx)
    : impl_(std::make_unique<Impl>(rt, ab, rules, dialing, txrx)) {}

CommandParser::~CommandParser() = default;

std::string CommandParser::parse_command(std::string_view text) {
    CommandContext& ctx = impl_->ctx;
    ctx.rt.reply_buffer.set(kInvalid);
    // The command is a C string: whatever follows a NUL is not part of it.
    ctx.cursor = text.substr(0, text.find('\0'));
    auto verb = ctx.next(" ");
    if (!verb) return ctx.reply_buffer();
    if (*verb == "get-sms") return get_dispatch(ctx);
    if (*verb == "add-sms") return add_dispatch(ctx);
    if (*verb == "del-sms") return del_dispatch(ctx);
    if (*verb == "edit-sms") return edit_dispatch(ctx);
    if (*verb == "save-address-book") return ab_save(ctx.ab, ctx.rt) ? "SUCCESS" : "ERROR";
    if (*verb == "sms-modem-reset") {
        ctx.txrx.send(encode_control_text("cmd reset_modem"));
        return "SUCCESS";
    }
    if (*verb == "set-sms-http") return set_sms_http(ctx);
    return "ERROR";
}

void CommandParser::release_token() {
    impl_->ctx.tok.reset();
}

}  // namespace smsgw
