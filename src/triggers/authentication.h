// Sender authentication for trigger SMS. Two checks: the command check of
// action triggers against "/var/config/authenticate_list", and the check of
// broadcast triggers against the members listed in the trigger itself.
//
// Numbers are compared after normalisation (a leading "+" and the digits;
// everything else is dropped), and a stored number matches when it begins
// with the whole sender number. A sender that is a leading part of a stored
// number is therefore accepted, and an empty sender matches every entry.
#pragma once

#include <string>
#include <string_view>

#include "common/runtime.h"

namespace smsgw {

std::string normalise_number(std::string_view number);
bool number_matches(std::string_view stored, std::string_view sender);

// Returns `code` when the sender may run it and 7 when not. Codes 0, 6 and
// 7 pass unchanged; so does every code whose trigger value does not demand
// authentication ("YES" in the field after the command word), and every
// code while the list cannot be opened.
int authenticate_sender(const Runtime& rt, int code, std::string_view trigger_value,
                        std::string_view sender);

// auth_fields: AUTH "^|^" ALLOWED "^|^" of a broadcast trigger. 0 when the
// sender may trigger the broadcast, 7 when not.
int authenticate_sender_bcast_trg(std::string_view auth_fields, std::string_view sender);

}  // namespace smsgw
