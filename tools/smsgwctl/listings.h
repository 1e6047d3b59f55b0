// The listings the daemon leaves in "/var/run/RESPONSE_FILE", and the
// questions smsgwctl asks it before and after a change to learn what the
// change did (some replies read the same for success and failure).
//
//   contact pages   records L "^|^" NAME "^|^" NUMBER "^|^" DESC "^|^" (the
//                   rule-list record framing), then the record
//                   "^|^MAX_ELEMENTS=" TOTAL
//   group pages     NAME "\n" per group, then "MAX_ELEMENTS=" TOTAL "\n"
//   number search   NAME "^|^" NUMBER "^|^" DESC "^|^" "\n" per match
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "client.h"

namespace smsgw::ctl {

struct Contact {
    std::string name, number, description;
};

struct ContactPage {
    std::vector<Contact> rows;
    long long total = 0;
};
struct GroupPage {
    std::vector<std::string> names;
    long long total = 0;
};

// A damaged listing is a Failure (kExitGarbled) saying where it broke.
ContactPage parse_contact_page(std::string_view data);
GroupPage parse_group_page(std::string_view data);
std::vector<Contact> parse_number_matches(std::string_view data);

// The first page number of page n (ten entries a page, from 1).
inline long long page_start(long long page) {
    return (page - 1) * 10 + 1;
}

// One page of contacts from `start` (names beginning with `prefix` when it
// is not empty); a prefix that matches nothing is refused by the daemon.
ContactPage contact_page(const Client& c, const std::string& prefix, long long start);
// One page of a group's members; nullopt when there is no such group.
std::optional<ContactPage> member_page(const Client& c, const std::string& group, long long start);
GroupPage group_page(const Client& c, long long start);
// The contacts holding `number` (none when the daemon finds none).
std::vector<Contact> holders_of(const Client& c, const std::string& number);

// Whether the contact `name` (letter case aside, as the book keys names)
// holds `number`.
bool holds(const Client& c, const std::string& name, const std::string& number);
bool contact_exists(const Client& c, const std::string& name);
bool group_exists(const Client& c, const std::string& group);
// Every member of a group, page by page (empty when there is no such group).
std::vector<Contact> all_members(const Client& c, const std::string& group);
bool is_member(const std::vector<Contact>& members, const std::string& name,
               const std::string& number);

}  // namespace smsgw::ctl
