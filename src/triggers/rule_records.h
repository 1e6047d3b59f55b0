// Read-only access to the rule lists for the trigger path: records are the
// decimal length L followed by L bytes of text that begins with "^|^".
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace smsgw {

// Every well-formed record of the file, each with its leading "^|^".
// Reading stops at the end, at an unreadable or non-positive length, or at
// a record cut short. nullopt when the file cannot be opened.
std::optional<std::vector<std::string>> read_trigger_rule_records(const std::string& path);

}  // namespace smsgw
