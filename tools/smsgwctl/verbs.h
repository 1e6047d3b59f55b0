// What every verb of smsgwctl shares: its signature, the dispatch to its
// sub-commands, and how a success is reported.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "command_line.h"
#include "output.h"

namespace smsgw::ctl {

using Words = std::vector<std::string>;
using Verb = int (*)(Global&, const Words&);
using VerbTable = std::vector<std::pair<const char*, Verb>>;

// Runs the entry of `table` named by words[0] with the words behind it.
int dispatch(Global& g, const Words& words, const VerbTable& table, const char* what);

// Prints `message`, or {"ok":true,"message":...} and the `extra` members
// under --json; returns kExitOk.
int succeed(const Global& g, const std::string& message, const JsonObject& extra = {});

// The 1-based --page option.
long long page_arg(const Args& a);

// Words that come as NAME NUMBER pairs, checked as lookup fields.
std::vector<std::pair<std::string, std::string>> pairs_of(const std::vector<std::string>& words,
                                                          size_t from);

bool ends_with(std::string_view text, std::string_view suffix);

}  // namespace smsgw::ctl
