#include "verbs.h"

namespace smsgw::ctl {

int dispatch(Global& g, const Words& words, const VerbTable& table, const char* what) {
    std::string names;
    for (const auto& [name, verb] : table) {
        if (!words.empty() && words[0] == name)
            return verb(g, Words(words.begin() + 1, words.end()));
        names += std::string(names.empty() ? "" : ", ") + name;
    }
    if (words.empty()) throw usage_error(std::string(what) + " needs one of: " + names);
    throw usage_error("unknown " + std::string(what) + " command '" + words[0].substr(0, 40) +
                      "' (one of: " + names + ")");
}

int succeed(const Global& g, const std::string& message, const JsonObject& extra) {
    if (g.json)
        print(JsonObject().boolean("ok", true).str("message", message).merge(extra).done() + "\n");
    else
        print_line(message);
    return kExitOk;
}

long long page_arg(const Args& a) {
    auto p = a.value("--page");
    return p ? number_arg("--page", *p, 1, 100000000) : 1;
}

std::vector<std::pair<std::string, std::string>> pairs_of(const std::vector<std::string>& words,
                                                          size_t from) {
    if (words.size() < from || (words.size() - from) % 2 != 0)
        throw usage_error("members come as NAME NUMBER pairs");
    std::vector<std::pair<std::string, std::string>> out;
    for (size_t i = from; i < words.size(); i += 2)
        out.emplace_back(lookup_field(words[i], kNameRoom, "name"),
                         lookup_field(words[i + 1], kNumberRoom, "number"));
    return out;
}

bool ends_with(std::string_view text, std::string_view suffix) {
    return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

}  // namespace smsgw::ctl
