#include "listings.h"

#include "common/text.h"
#include "formats/rule_list_record.h"
#include "verbs.h"

namespace smsgw::ctl {
namespace {

constexpr std::string_view kResponseFile = "/var/run/RESPONSE_FILE";
constexpr std::string_view kTrailer = "^|^MAX_ELEMENTS=";
constexpr long long kMaxTotal = 1000000000;

[[noreturn]] void damaged(const std::string& what) {
    garbled("the listing in " + std::string(kResponseFile) + " is damaged (" + what + ")", {});
}

// The response file the reply names, read.
std::string listing(const Client& c, const std::string& reply, const std::string& context) {
    if (!c.names(reply, kResponseFile)) fail(reply, context);
    return c.read(kResponseFile);
}

// nullopt when a prefix search matches nothing.
std::optional<ContactPage> search_page(const Client& c, const std::string& prefix,
                                       long long start) {
    std::string cmd = "get-sms phone_book ";
    if (!prefix.empty()) cmd += prefix + std::string(kSep);
    std::string reply = c.request(cmd + std::to_string(start) + std::string(kSep));
    if (!prefix.empty() && reply == "ERROR:Search is Unsuccesful.") return std::nullopt;
    return parse_contact_page(listing(c, reply, "cannot list the contacts"));
}

}  // namespace

ContactPage parse_contact_page(std::string_view data) {
    ContactPage page;
    for (size_t pos = 0;;) {
        RuleRecordResult r = decode_rule_record(data, pos);
        if (r.status == RuleRead::kEnd) damaged("no MAX_ELEMENTS trailer");
        const std::string_view text = r.record.text;
        if (r.status != RuleRead::kRecord || !starts_with(text, kSep))
            damaged("bad record at byte " + std::to_string(pos));
        if (starts_with(text, kTrailer)) {
            auto total = parse_number(text.substr(kTrailer.size()), 0, kMaxTotal);
            if (!total || r.next != data.size()) damaged("bad MAX_ELEMENTS trailer");
            page.total = *total;
            return page;
        }
        const auto& f = r.record.fields;
        if (f.size() != 3 || !ends_with(text, kSep))
            damaged("bad record at byte " + std::to_string(pos));
        page.rows.push_back({std::string(f[0]), std::string(f[1]), std::string(f[2])});
        pos = r.next;
    }
}

GroupPage parse_group_page(std::string_view data) {
    constexpr std::string_view kMax = "MAX_ELEMENTS=";
    GroupPage page;
    for (size_t pos = 0; pos < data.size();) {
        const size_t nl = data.find('\n', pos);
        if (nl == std::string_view::npos) break;
        const std::string_view line = data.substr(pos, nl - pos);
        pos = nl + 1;
        if (pos == data.size() && starts_with(line, kMax)) {
            auto total = parse_number(line.substr(kMax.size()), 0, kMaxTotal);
            if (!total) break;
            page.total = *total;
            return page;
        }
        page.names.emplace_back(line);
    }
    damaged("no MAX_ELEMENTS line at its end");
}

std::vector<Contact> parse_number_matches(std::string_view data) {
    std::vector<Contact> out;
    FieldCutter cut(data);
    while (!cut.rest().empty()) {
        auto name = cut.next();
        auto number = name ? cut.next() : std::nullopt;
        auto desc = number ? cut.next() : std::nullopt;
        if (!desc || !starts_with(cut.rest(), "\n")) damaged("bad match line");
        out.push_back({std::string(*name), std::string(*number), std::string(*desc)});
        cut.start(cut.rest().substr(1));
    }
    return out;
}

ContactPage contact_page(const Client& c, const std::string& prefix, long long start) {
    auto page = search_page(c, prefix, start);
    if (!page)
        refused("no contact name begins with '" + prefix + "'", "ERROR:Search is Unsuccesful.");
    return *page;
}

std::optional<ContactPage> member_page(const Client& c, const std::string& group, long long start) {
    std::string reply = c.request("get-sms group " + group + std::string(kSep) +
                                  std::to_string(start) + std::string(kSep));
    // The daemon answers a listing of a group it does not have with "SUCCESS".
    if (reply == "SUCCESS") return std::nullopt;
    return parse_contact_page(listing(c, reply, "cannot list the group"));
}

GroupPage group_page(const Client& c, long long start) {
    std::string reply = c.request("get-sms groups " + std::to_string(start) + std::string(kSep));
    return parse_group_page(listing(c, reply, "cannot list the groups"));
}

std::vector<Contact> holders_of(const Client& c, const std::string& number) {
    std::string reply = c.request("get-sms phone_number " + number + std::string(kSep));
    // "ERROR" is the answer when no contact has the number.
    if (reply == "ERROR") return {};
    return parse_number_matches(listing(c, reply, "cannot search the number"));
}

bool holds(const Client& c, const std::string& name, const std::string& number) {
    for (const auto& h : holders_of(c, number))
        if (iequals(h.name, name) && h.number == number) return true;
    return false;
}

bool contact_exists(const Client& c, const std::string& name) {
    // Names are in the book's order, so the name itself comes before every
    // longer one it begins.
    auto page = search_page(c, name, 1);
    return page && !page->rows.empty() && iequals(page->rows.front().name, name);
}

bool group_exists(const Client& c, const std::string& group) {
    return member_page(c, group, 1).has_value();
}

std::vector<Contact> all_members(const Client& c, const std::string& group) {
    std::vector<Contact> out;
    for (long long start = 1;; start += 10) {
        auto page = member_page(c, group, start);
        if (!page) return out;
        out.insert(out.end(), page->rows.begin(), page->rows.end());
        if (page->rows.size() < 10 || static_cast<long long>(out.size()) >= page->total) return out;
    }
}

bool is_member(const std::vector<Contact>& members, const std::string& name,
               const std::string& number) {
    for (const auto& m : members)
        if (iequals(m.name, name) && m.number == number) return true;
    return false;
}

}  // namespace smsgw::ctl
