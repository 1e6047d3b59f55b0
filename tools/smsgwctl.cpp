// smsgwctl: the operator's client for smsgwd. It builds the exact command
// texts of the management protocol, sends them with the web interface's
// framing (a datagram with the decimal length, then the text) and turns the
// replies and the files they name into tables for people or JSON for
// scripts.
//
// Exit status: 0 success or data, 1 the daemon refused ("ERROR..." or
// another failure text), 2 usage errors, local failures and no answer.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/bytes.h"
#include "common/fileops.h"
#include "common/paths.h"
#include "common/text.h"
#include "send/sender.h"

namespace smsgw::ctl {
namespace {

constexpr int kExitOk = 0;
constexpr int kExitRefused = 1;
constexpr int kExitUsage = 2;

constexpr std::string_view kResponseFile = "/var/run/RESPONSE_FILE";
// The daemon accepts request file paths up to this length.
constexpr size_t kMaxRequestPath = 87;
constexpr size_t kMaxReply = 65536;
constexpr size_t kMaxFileRead = 16u << 20;

const char kUsage[] =
    "usage: smsgwctl [--root DIR] [--port-offset N] [--timeout SECS] [--json] VERB ...\n"
    "\n"
    "  raw TEXT                          send TEXT as it stands, print the reply\n"
    "  contacts list [--page N] [--prefix P]\n"
    "  contacts count\n"
    "  contacts add NAME NUMBER [DESC] [--group G]...\n"
    "  contacts del NAME NUMBER\n"
    "  contacts edit OLDNAME OLDNUMBER NEWNAME NEWNUMBER [DESC]\n"
    "  contacts find-number NUMBER\n"
    "  groups list [--page N]\n"
    "  groups count\n"
    "  groups add GROUP [NAME NUMBER]...\n"
    "  groups del GROUP...\n"
    "  groups rename OLD NEW\n"
    "  groups members GROUP [--page N]\n"
    "  groups add-member GROUP NAME NUMBER [NAME NUMBER]...\n"
    "  groups del-member GROUP NAME NUMBER [NAME NUMBER]...\n"
    "  triggers list broadcast|preconf|ctrl|auth\n"
    "  triggers add broadcast KEYWORD TEXT [--group G]... [--auth YES|NO]\n"
    "                         [--allow NAME NUMBER]...\n"
    "  triggers add preconf TEXT [--group G]...\n"
    "  triggers add ctrl LABEL KEYWORD [--auth YES|NO]\n"
    "  triggers add auth NAME NUMBER [NAME NUMBER]...\n"
    "  triggers del broadcast|preconf INDEX\n"
    "  triggers del auth NAME NUMBER [NAME NUMBER]...\n"
    "  save\n"
    "  export-csv\n"
    "  import-csv FILE [--columns FIRST,LAST,NUMBER,DESC]\n"
    "  send [--to NUMBER]... [--contact NAME]... [--group G]... [--all|--all-groups]\n"
    "       [--from SENDER] [--spool DIR] TEXT\n"
    "  status\n";

// ---------------------------------------------------------------- errors

// Thrown for bad command lines; main prints the message and the usage.
struct UsageError {
    std::string message;
};

// Thrown for local failures (files, sockets, no answer).
struct Failure {
    std::string message;
};

// ------------------------------------------------------------- options

struct Global {
    std::string root = "/";
    int port_offset = 0;
    int timeout_ms = 3000;
    bool json = false;
};

long long number_arg(const std::string& opt, const std::string& text, long long lo, long long hi) {
    auto v = parse_number(text, lo, hi);
    if (!v)
        throw UsageError{opt + " needs a number from " + std::to_string(lo) + " to " +
                         std::to_string(hi) + ", not '" + text + "'"};
    return *v;
}

// Options a verb accepts: name -> number of values it takes (0 = a flag).
using OptionSpec = std::map<std::string, int>;

struct Args {
    std::vector<std::string> positional;
    std::map<std::string, std::vector<std::vector<std::string>>> options;

    bool has(const std::string& name) const { return options.count(name) != 0; }
    std::optional<std::string> value(const std::string& name) const {
        auto it = options.find(name);
        if (it == options.end() || it->second.back().empty()) return std::nullopt;
        return it->second.back().front();
    }
    std::vector<std::string> values(const std::string& name) const {
        std::vector<std::string> out;
        auto it = options.find(name);
        if (it != options.end())
            for (const auto& v : it->second)
                if (!v.empty()) out.push_back(v.front());
        return out;
    }
};

bool apply_global(Global& g, const std::string& name, const std::string& value) {
    if (name == "--root") {
        if (value.empty() || value[0] != '/') throw UsageError{"--root needs an absolute path"};
        g.root = value;
    } else if (name == "--port-offset") {
        g.port_offset = static_cast<int>(number_arg(name, value, 0, 65535 - 30303));
    } else if (name == "--timeout") {
        g.timeout_ms = static_cast<int>(number_arg(name, value, 1, 3600) * 1000);
    } else {
        return false;
    }
    return true;
}

const OptionSpec kGlobalOptions = {
    {"--root", 1}, {"--port-offset", 1}, {"--timeout", 1}, {"--json", 0}};

// Splits a verb's arguments into positional words and options; global
// options are also taken here so that "status --json" works. "--" ends the
// options, so a text starting with "--" can still be sent.
Args parse_args(Global& g, const std::vector<std::string>& in, const OptionSpec& known) {
    Args a;
    bool options_done = false;
    for (size_t i = 0; i < in.size(); ++i) {
        const std::string& w = in[i];
        if (options_done || w.size() < 3 || w.compare(0, 2, "--") != 0) {
            a.positional.push_back(w);
            continue;
        }
        if (w == "--") {
            options_done = true;
            continue;
        }
        auto it = known.find(w);
        bool global = false;
        if (it == known.end()) {
            it = kGlobalOptions.find(w);
            if (it == kGlobalOptions.end()) throw UsageError{"unknown option " + w};
            global = true;
        }
        int n = it->second;
        if (i + static_cast<size_t>(n) >= in.size() && n > 0)
            throw UsageError{w + " needs " + std::to_string(n) + " value(s)"};
        std::vector<std::string> vals(in.begin() + static_cast<long>(i) + 1,
                                      in.begin() + static_cast<long>(i) + 1 + n);
        i += static_cast<size_t>(n);
        if (global) {
            if (w == "--json")
                g.json = true;
            else
                apply_global(g, w, vals.front());
        } else {
            a.options[w].push_back(vals);
        }
    }
    return a;
}

void expect_positional(const Args& a, size_t min, size_t max, const char* what) {
    if (a.positional.size() < min || a.positional.size() > max)
        throw UsageError{std::string("wrong number of arguments: ") + what};
}

// A field may not carry the separators that frame it.
const std::string& field(const std::string& text) {
    if (text.find(kSep) != std::string::npos)
        throw UsageError{"'" + text + "' contains the field separator ^|^"};
    return text;
}

const std::string& item(const std::string& text) {
    field(text);
    if (text.find(kItemSep) != std::string::npos)
        throw UsageError{"'" + text + "' contains the item separator ]|["};
    return text;
}

std::string join_fields(const std::vector<std::string>& fields) {
    std::string out;
    for (const auto& f : fields) out += field(f) + std::string(kSep);
    return out;
}

// START of a page: pages are ten entries, the first entry is 1.
long long page_start(const Args& a) {
    auto p = a.value("--page");
    long long page = p ? number_arg("--page", *p, 1, 1000000) : 1;
    return (page - 1) * 10 + 1;
}

// ----------------------------------------------------------- JSON output

void json_string(std::string& out, std::string_view s) {
    out += '"';
    for (size_t i = 0; i < s.size(); ++i) {
        unsigned char c = static_cast<unsigned char>(s[i]);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c < 0x20 || c == 0x7f) {
            char b[8];
            std::snprintf(b, sizeof b, "\\u%04x", c);
            out += b;
        } else if (c < 0x80) {
            out += static_cast<char>(c);
        } else {
            // Valid UTF-8 passes through; other bytes (names typed in a
            // single-byte code page) are shown as the Latin-1 characters.
            size_t len = c >= 0xf0 && c < 0xf5 ? 4 : c >= 0xe0 ? 3 : c >= 0xc2 && c < 0xe0 ? 2 : 0;
            bool valid = len > 0 && i + len <= s.size();
            for (size_t k = 1; valid && k < len; ++k)
                valid = (static_cast<unsigned char>(s[i + k]) & 0xc0) == 0x80;
            if (valid) {
                out.append(s.substr(i, len));
                i += len - 1;
            } else {
                char b[8];
                std::snprintf(b, sizeof b, "\\u%04x", c);
                out += b;
            }
        }
    }
    out += '"';
}

// A small ordered JSON object builder; values are inserted already encoded.
class JsonObject {
  public:
    JsonObject& raw(std::string_view key, const std::string& encoded) {
        out_ += out_.empty() ? "{" : ",";
        json_string(out_, key);
        out_ += ":" + encoded;
        return *this;
    }
    JsonObject& str(std::string_view key, std::string_view value) {
        std::string v;
        json_string(v, value);
        return raw(key, v);
    }
    JsonObject& num(std::string_view key, long long value) {
        return raw(key, std::to_string(value));
    }
    JsonObject& boolean(std::string_view key, bool value) {
        return raw(key, value ? "true" : "false");
    }
    std::string done() const { return out_.empty() ? "{}" : out_ + "}"; }

  private:
    std::string out_;
};

std::string json_array(const std::vector<std::string>& encoded) {
    std::string out = "[";
    for (size_t i = 0; i < encoded.size(); ++i) out += (i ? "," : "") + encoded[i];
    return out + "]";
}

std::string json_strings(const std::vector<std::string>& values) {
    std::vector<std::string> enc;
    for (const auto& v : values) {
        std::string e;
        json_string(e, v);
        enc.push_back(e);
    }
    return json_array(enc);
}

// ---------------------------------------------------------- table output

struct Table {
    std::vector<std::string> columns;  // headings; JSON keys in lower case
    std::vector<std::vector<std::string>> rows;

    std::string text() const {
        std::vector<size_t> width(columns.size());
        for (size_t c = 0; c < columns.size(); ++c) width[c] = columns[c].size();
        for (const auto& r : rows)
            for (size_t c = 0; c < r.size() && c < width.size(); ++c)
                width[c] = std::max(width[c], r[c].size());
        auto line = [&](const std::vector<std::string>& cells) {
            std::string out;
            for (size_t c = 0; c < columns.size(); ++c) {
                std::string cell = c < cells.size() ? cells[c] : "";
                out += cell;
                if (c + 1 < columns.size()) out += std::string(width[c] - cell.size() + 2, ' ');
            }
            while (!out.empty() && out.back() == ' ') out.pop_back();
            return out + "\n";
        };
        std::string out = line(columns);
        for (const auto& r : rows) out += line(r);
        return out;
    }

    std::string json() const {
        std::vector<std::string> objs;
        for (const auto& r : rows) {
            JsonObject o;
            for (size_t c = 0; c < columns.size(); ++c) {
                std::string key;
                for (char ch : columns[c]) key += static_cast<char>(ascii_tolower(ch));
                o.str(key, c < r.size() ? r[c] : "");
            }
            objs.push_back(o.done());
        }
        return json_array(objs);
    }
};

// ------------------------------------------------------- response parsers

// Contact and group-member listings: records "L^|^name^|^number^|^desc^|^"
// back to back, L the decimal length of the text after it, then the
// trailer "N^|^MAX_ELEMENTS=M" in the same framing.
struct ContactListing {
    std::vector<std::vector<std::string>> rows;  // name, number, description
    std::optional<long long> max_elements;
    std::string error;  // why parsing stopped early, empty when it did not
};

// Fields of a record text "^|^f1^|^f2^|^...^|^": each field is closed by the
// separator; text after the last separator is not a field.
std::vector<std::string> record_fields(std::string_view text) {
    std::vector<std::string> out;
    if (text.substr(0, kSep.size()) != kSep) return out;
    FieldCutter cut(text.substr(kSep.size()));
    while (auto f = cut.next()) out.emplace_back(*f);
    return out;
}

// Reads "digits" at pos; the value must leave room for that many bytes.
std::optional<size_t> record_length(std::string_view data, size_t& pos) {
    size_t start = pos;
    unsigned long long v = 0;
    while (pos < data.size() && data[pos] >= '0' && data[pos] <= '9' && pos - start < 10)
        v = v * 10 + static_cast<unsigned>(data[pos++] - '0');
    if (pos == start) return std::nullopt;
    if (v > data.size() - pos) return std::nullopt;
    return static_cast<size_t>(v);
}

ContactListing parse_contact_listing(std::string_view data) {
    ContactListing out;
    constexpr std::string_view kTrailer = "^|^MAX_ELEMENTS=";
    size_t pos = 0;
    while (pos < data.size()) {
        size_t at = pos;
        auto len = record_length(data, pos);
        if (!len) {
            out.error = "bad record length at byte " + std::to_string(at);
            return out;
        }
        std::string_view rec = data.substr(pos, *len);
        pos += *len;
        if (rec.substr(0, kTrailer.size()) == kTrailer) {
            auto m = parse_number(rec.substr(kTrailer.size()), 0, 1000000000);
            if (!m) out.error = "bad MAX_ELEMENTS trailer";
            out.max_elements = m;
            if (pos != data.size()) out.error = "data after the trailer";
            return out;
        }
        auto f = record_fields(rec);
        if (f.size() != 3) {
            out.error = "bad record at byte " + std::to_string(at);
            return out;
        }
        out.rows.push_back(std::move(f));
    }
    out.error = "no MAX_ELEMENTS trailer";
    return out;
}

// Group listing: one name a line, then "MAX_ELEMENTS=%d\n".
struct GroupListing {
    std::vector<std::string> names;
    std::optional<long long> max_elements;
};

GroupListing parse_group_listing(std::string_view data) {
    GroupListing out;
    size_t pos = 0;
    while (pos < data.size()) {
        size_t nl = data.find('\n', pos);
        std::string_view line = data.substr(pos, nl == std::string_view::npos ? nl : nl - pos);
        pos = nl == std::string_view::npos ? data.size() : nl + 1;
        constexpr std::string_view kMax = "MAX_ELEMENTS=";
        if (line.substr(0, kMax.size()) == kMax && nl != std::string_view::npos &&
            pos == data.size()) {
            out.max_elements = parse_number(line.substr(kMax.size()), 0, 1000000000);
            break;
        }
        out.names.emplace_back(line);
    }
    return out;
}

// Search by number: "name^|^number^|^desc^|^\n" per match.
std::vector<std::vector<std::string>> parse_number_lines(std::string_view data) {
    std::vector<std::vector<std::string>> rows;
    size_t pos = 0;
    while (pos < data.size()) {
        size_t nl = data.find('\n', pos);
        std::string_view line = data.substr(pos, nl == std::string_view::npos ? nl : nl - pos);
        pos = nl == std::string_view::npos ? data.size() : nl + 1;
        FieldCutter cut(line);
        std::vector<std::string> f;
        while (auto x = cut.next()) f.emplace_back(*x);
        if (f.size() >= 3) {
            f.resize(3);
            rows.push_back(std::move(f));
        }
    }
    return rows;
}

// Rule files: records "L" + L bytes, the text starting with "^|^".
struct RuleRecords {
    std::vector<std::vector<std::string>> records;
    std::string error;
};

RuleRecords parse_rule_file(std::string_view data) {
    RuleRecords out;
    size_t pos = 0;
    while (pos < data.size()) {
        while (pos < data.size() &&
               (data[pos] == ' ' || data[pos] == '\n' || data[pos] == '\t' || data[pos] == '\r'))
            ++pos;
        if (pos == data.size()) break;
        size_t at = pos;
        auto len = record_length(data, pos);
        if (!len || *len < kSep.size()) {
            out.error = "bad record length at byte " + std::to_string(at);
            break;
        }
        out.records.push_back(record_fields(data.substr(pos, *len)));
        pos += *len;
    }
    return out;
}

// Items of a member-list field ("a]|[b]|[" or "[null]]|[").
std::vector<std::string> list_items(std::string_view text) {
    std::vector<std::string> out;
    FieldCutter cut(text);
    while (auto x = cut.next(kItemSep))
        if (*x != kNullList) out.emplace_back(*x);
    return out;
}

std::string list_field(const std::vector<std::string>& items) {
    if (items.empty()) return std::string(kNullList) + std::string(kItemSep);
    std::string out;
    for (const auto& i : items) out += item(i) + std::string(kItemSep);
    return out;
}

// ------------------------------------------------------------- transport

class Client {
  public:
    Client(const Global& g) : g_(g), paths_(g.root) {}

    uint16_t gui_port() const { return static_cast<uint16_t>(20205 + g_.port_offset); }

    // One request with the web interface's framing; the reply text, or a
    // Failure when nothing arrives in time.
    std::string request(const std::string& text) const {
        Fd fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        if (!fd) throw Failure{std::string("socket: ") + std::strerror(errno)};
        sockaddr_in local{};
        local.sin_family = AF_INET;
        local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::bind(fd.get(), reinterpret_cast<sockaddr*>(&local), sizeof local) != 0)
            throw Failure{std::string("bind: ") + std::strerror(errno)};
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(gui_port());
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        std::string length = std::to_string(text.size());
        for (const std::string* d : {static_cast<const std::string*>(&length), &text}) {
            if (::sendto(fd.get(), d->data(), d->size(), 0, reinterpret_cast<sockaddr*>(&to),
                         sizeof to) < 0)
                throw Failure{"cannot send to 127.0.0.1:" + std::to_string(gui_port()) + ": " +
                              std::strerror(errno)};
        }
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(g_.timeout_ms);
        std::vector<char> buf(kMaxReply);
        for (;;) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                            deadline - std::chrono::steady_clock::now())
                            .count();
            pollfd p{fd.get(), POLLIN, 0};
            int r = left > 0 ? ::poll(&p, 1, static_cast<int>(left)) : 0;
            if (r < 0 && errno == EINTR) continue;
            if (r <= 0) break;
            sockaddr_in from{};
            socklen_t flen = sizeof from;
            ssize_t n = ::recvfrom(fd.get(), buf.data(), buf.size(), 0,
                                   reinterpret_cast<sockaddr*>(&from), &flen);
            // A port-unreachable error means nobody listens: wait on, so the
            // message is the same as for a daemon that does not answer.
            if (n < 0) continue;
            if (from.sin_port != to.sin_port) continue;
            return std::string(buf.data(), static_cast<size_t>(n));
        }
        throw Failure{"no answer from smsgwd on 127.0.0.1:" + std::to_string(gui_port()) +
                      " within " + std::to_string(g_.timeout_ms / 1000) + " s"};
    }

    // Where a path named by the daemon lies here: the daemon names the real
    // paths of files under its root, older peers the plain "/var/..." names.
    std::string local_path(const std::string& named) const {
        if (paths_.is_default()) return named;
        const std::string& root = paths_.root();
        if (named.compare(0, root.size() + 1, root + "/") == 0) return named;
        return paths_.map(named);
    }

    bool is_response_file(const std::string& reply) const {
        return reply == kResponseFile || reply == paths_.map(kResponseFile);
    }

    std::string path(std::string_view absolute) const { return paths_.map(absolute); }

    std::string read(const std::string& local) const {
        auto data = read_file(local, kMaxFileRead);
        if (!data) throw Failure{"cannot read " + local + ": " + std::strerror(errno)};
        return *data;
    }

    const Global& global() const { return g_; }

  private:
    const Global& g_;
    Paths paths_;
};

// ------------------------------------------------------------ verb helpers

bool is_error(const std::string& reply) {
    return reply.compare(0, 5, "ERROR") == 0;
}

void print(const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stdout);
}

// Reports a short reply; `ok` decides the exit status.
int report(const Client& c, const std::string& reply, bool ok) {
    if (c.global().json) {
        print(JsonObject().boolean("ok", ok).str("reply", reply).done() + "\n");
    } else if (ok) {
        print(reply + "\n");
    } else {
        std::fprintf(stderr, "smsgwctl: %s\n", reply.c_str());
    }
    return ok ? kExitOk : kExitRefused;
}

int expect_success(const Client& c, const std::string& reply) {
    return report(c, reply, reply == "SUCCESS");
}

int expect_no_error(const Client& c, const std::string& reply) {
    return report(c, reply, !is_error(reply));
}

int malformed(const std::string& what) {
    std::fprintf(stderr, "smsgwctl: malformed response: %s\n", what.c_str());
    return kExitRefused;
}

// --------------------------------------------------------------- raw

int cmd_raw(Global& g, const std::vector<std::string>& in) {
    Args a = parse_args(g, in, {});
    expect_positional(a, 1, 1, "raw TEXT");
    Client c(g);
    std::string reply = c.request(a.positional[0]);
    std::optional<std::string> file;
    if (c.is_response_file(reply)) file = c.read(c.local_path(reply));
    if (g.json) {
        JsonObject o;
        o.boolean("ok", !is_error(reply)).str("reply", reply);
        if (file) o.str("file", *file);
        print(o.done() + "\n");
    } else if (file) {
        print(*file);
        if (!file->empty() && file->back() != '\n') print("\n");
    } else {
        print(reply + "\n");
    }
    return is_error(reply) ? kExitRefused : kExitOk;
}

// ---------------------------------------------------------- contacts

int show_contacts(const Client& c, const std::string& reply, long long start, const char* noun) {
    if (!c.is_response_file(reply)) return report(c, reply, false);
    ContactListing l = parse_contact_listing(c.read(c.local_path(reply)));
    Table t{{"NAME", "NUMBER", "DESCRIPTION"}, l.rows};
    if (c.global().json) {
        JsonObject o;
        o.num("start", start);
        if (l.max_elements) o.num("total", *l.max_elements);
        o.raw(noun, t.json());
        print(o.done() + "\n");
    } else {
        print(t.text());
        if (l.max_elements)
            print(std::to_string(l.rows.size()) + " shown from " + std::to_string(start) + ", " +
                  std::to_string(*l.max_elements) + " in all\n");
    }
    return l.error.empty() ? kExitOk : malformed(l.error);
}

int show_count(const Client& c, const std::string& reply) {
    auto n = parse_number(reply, 0, 1000000000);
    if (!n) return report(c, reply, false);
    if (c.global().json)
        print(JsonObject().num("count", *n).done() + "\n");
    else
        print(reply + "\n");
    return kExitOk;
}

int cmd_contacts(Global& g, const std::vector<std::string>& in) {
    if (in.empty()) throw UsageError{"contacts needs a sub-command"};
    const std::string& sub = in[0];
    std::vector<std::string> rest(in.begin() + 1, in.end());
    Client c(g);
    if (sub == "list") {
        Args a = parse_args(g, rest, {{"--page", 1}, {"--prefix", 1}});
        expect_positional(a, 0, 0, "contacts list [--page N] [--prefix P]");
        long long start = page_start(a);
        std::string cmd = "get-sms phone_book ";
        if (auto p = a.value("--prefix")) cmd += field(*p) + std::string(kSep);
        cmd += std::to_string(start) + std::string(kSep);
        return show_contacts(c, c.request(cmd), start, "contacts");
    }
    if (sub == "count") {
        Args a = parse_args(g, rest, {});
        expect_positional(a, 0, 0, "contacts count");
        return show_count(c, c.request("get-sms total-entries phone_book^|^"));
    }
    if (sub == "add") {
        Args a = parse_args(g, rest, {{"--group", 1}});
        expect_positional(a, 2, 3, "contacts add NAME NUMBER [DESC] [--group G]...");
        std::vector<std::string> f = a.positional;
        if (f.size() == 2) f.push_back("");
        for (const auto& grp : a.values("--group")) f.push_back(grp);
        return expect_success(c, c.request("add-sms phone_book " + join_fields(f)));
    }
    if (sub == "del") {
        Args a = parse_args(g, rest, {});
        expect_positional(a, 2, 2, "contacts del NAME NUMBER");
        return expect_success(c, c.request("del-sms phone_book " + join_fields(a.positional)));
    }
    if (sub == "edit") {
        Args a = parse_args(g, rest, {});
        expect_positional(a, 4, 5, "contacts edit OLDNAME OLDNUMBER NEWNAME NEWNUMBER [DESC]");
        std::vector<std::string> f = a.positional;
        if (f.size() == 4) f.push_back("");
        return expect_success(c, c.request("edit-sms phone_book " + join_fields(f)));
    }
    if (sub == "find-number") {
        Args a = parse_args(g, rest, {});
        expect_positional(a, 1, 1, "contacts find-number NUMBER");
        std::string reply = c.request("get-sms phone_number " + join_fields(a.positional));
        if (!c.is_response_file(reply)) {
            // "ERROR" here only means that no contact has the number.
            if (g.json) {
                print(JsonObject().boolean("ok", false).str("reply", reply).done() + "\n");
            } else {
                std::fprintf(stderr, "smsgwctl: no contact has the number %s (%s)\n",
                             a.positional[0].c_str(), reply.c_str());
            }
            return kExitRefused;
        }
        Table t{{"NAME", "NUMBER", "DESCRIPTION"}, parse_number_lines(c.read(c.local_path(reply)))};
        print(g.json ? JsonObject().raw("contacts", t.json()).done() + "\n" : t.text());
        return kExitOk;
    }
    throw UsageError{"unknown contacts sub-command '" + sub + "'"};
}

// ------------------------------------------------------------ groups

// NAME NUMBER pairs from the positional words after the first `skip`.
std::vector<std::string> member_pairs(const Args& a, size_t skip, const char* what) {
    if (a.positional.size() < skip || (a.positional.size() - skip) % 2 != 0)
        throw UsageError{std::string("members come as NAME NUMBER pairs: ") + what};
    return std::vector<std::string>(a.positional.begin() + static_cast<long>(skip),
                                    a.positional.end());
}

int cmd_groups(Global& g, const std::vector<std::string>& in) {
    if (in.empty()) throw UsageError{"groups needs a sub-command"};
    const std::string& sub = in[0];
    std::vector<std::string> rest(in.begin() + 1, in.end());
    Client c(g);
    if (sub == "list") {
        Args a = parse_args(g, rest, {{"--page", 1}});
        expect_positional(a, 0, 0, "groups list [--page N]");
        long long start = page_start(a);
        std::string reply = c.request("get-sms groups " + std::to_string(start) + "^|^");
        if (!c.is_response_file(reply)) return report(c, reply, false);
        GroupListing l = parse_group_listing(c.read(c.local_path(reply)));
        if (g.json) {
            JsonObject o;
            o.num("start", start);
            if (l.max_elements) o.num("total", *l.max_elements);
            print(o.raw("groups", json_strings(l.names)).done() + "\n");
        } else {
            Table t{{"GROUP"}, {}};
            for (const auto& n : l.names) t.rows.push_back({n});
            print(t.text());
            if (l.max_elements) print(std::to_string(*l.max_elements) + " groups in all\n");
        }
        return l.max_elements ? kExitOk : malformed("no MAX_ELEMENTS line");
    }
    if (sub == "count") {
        Args a = parse_args(g, rest, {});
        expect_positional(a, 0, 0, "groups count");
        return show_count(c, c.request("get-sms total-entries groups^|^"));
    }
    if (sub == "add") {
        Args a = parse_args(g, rest, {});
        expect_positional(a, 1, 100000, "groups add GROUP [NAME NUMBER]...");
        std::vector<std::string> f{a.positional[0]};
        for (const auto& m : member_pairs(a, 1, "groups add")) f.push_back(m);
        f.emplace_back(kNullList);
        return expect_success(c, c.request("add-sms groups " + join_fields(f)));
    }
    if (sub == "del") {
        Args a = parse_args(g, rest, {});
        expect_positional(a, 1, 100000, "groups del GROUP...");
        // The daemon answers "ERROR" to every group deletion once its list
        // ends, whatever it deleted; that answer is the only one it gives.
        std::string reply = c.request("del-sms groups " + join_fields(a.positional));
        return report(c, reply, reply == "ERROR");
    }
    if (sub == "rename") {
        Args a = parse_args(g, rest, {});
        expect_positional(a, 2, 2, "groups rename OLD NEW");
        // A rename leaves the parser's default text as its answer.
        return expect_no_error(c, c.request("edit-sms groups " + join_fields(a.positional)));
    }
    if (sub == "members") {
        Args a = parse_args(g, rest, {{"--page", 1}});
        expect_positional(a, 1, 1, "groups members GROUP [--page N]");
        long long start = page_start(a);
        std::string reply = c.request("get-sms group " + field(a.positional[0]) + "^|^" +
                                      std::to_string(start) + "^|^");
        // The daemon answers a listing of a missing group with "SUCCESS".
        if (reply == "SUCCESS") return report(c, "no such group: " + a.positional[0], false);
        return show_contacts(c, reply, start, "members");
    }
    if (sub == "add-member" || sub == "del-member") {
        Args a = parse_args(g, rest, {});
        expect_positional(a, 3, 100000, "groups add-member|del-member GROUP NAME NUMBER...");
        std::vector<std::string> f{a.positional[0]};
        for (const auto& m : member_pairs(a, 1, sub.c_str())) f.push_back(m);
        if (sub == "add-member")
            // Adding members answers with whatever text the last step left.
            return expect_no_error(c, c.request("add-sms group " + join_fields(f)));
        return expect_success(c, c.request("del-sms group " + join_fields(f)));
    }
    throw UsageError{"unknown groups sub-command '" + sub + "'"};
}

// ---------------------------------------------------------- triggers

struct RuleKind {
    const char* name;     // as typed on the command line
    const char* wire;     // as the protocol names it
    const char* aliases;  // other accepted spellings, blank separated
    std::vector<std::string> columns;
};

const std::vector<RuleKind>& rule_kinds() {
    static const std::vector<RuleKind> kinds = {
        {"broadcast", "sms", "sms", {"INDEX", "KEYWORD", "TEXT", "GROUPS", "AUTH", "ALLOWED"}},
        {"preconf", "preconf_sms", "preconf_sms", {"INDEX", "TEXT", "GROUPS"}},
        {"ctrl", "ctrl_data", "ctrl_data", {"INDEX", "KEYWORD", "CODE", "AUTH"}},
        {"auth", "auth-list", "auth-list", {"INDEX", "NAME", "NUMBER"}},
    };
    return kinds;
}

const RuleKind& rule_kind(const std::string& word) {
    for (const auto& k : rule_kinds())
        if (word == k.name || word == k.aliases) return k;
    throw UsageError{"unknown rule list '" + word + "' (broadcast, preconf, ctrl or auth)"};
}

std::string rule_row_cell(const std::vector<std::string>& f, size_t i) {
    return i < f.size() ? f[i] : "";
}

int triggers_list(const Client& c, const RuleKind& k) {
    std::string reply = c.request(std::string("get-sms trigger ") + k.wire + "^|^");
    if (is_error(reply) || reply.empty() || reply[0] != '/') return report(c, reply, false);
    RuleRecords r = parse_rule_file(c.read(c.local_path(reply)));
    Table t{k.columns, {}};
    std::vector<std::string> json_rows;
    for (size_t i = 0; i < r.records.size(); ++i) {
        const auto& f = r.records[i];
        std::vector<std::string> row{std::to_string(i + 1)};
        for (size_t col = 0; col + 1 < k.columns.size(); ++col)
            row.push_back(rule_row_cell(f, col));
        // Lists are shown readable in the table and as arrays in JSON.
        JsonObject o;
        o.num("index", static_cast<long long>(i + 1));
        for (size_t col = 1; col < k.columns.size(); ++col) {
            std::string key;
            for (char ch : k.columns[col]) key += static_cast<char>(ascii_tolower(ch));
            if (k.columns[col] == "GROUPS") {
                auto items = list_items(row[col]);
                o.raw(key, json_strings(items));
                row[col] = items.empty() ? "-" : "";
                for (size_t n = 0; n < items.size(); ++n) row[col] += (n ? "," : "") + items[n];
            } else if (k.columns[col] == "ALLOWED") {
                auto items = list_items(row[col]);
                std::vector<std::string> members;
                std::string shown;
                for (size_t n = 0; n + 1 < items.size(); n += 2) {
                    members.push_back(
                        JsonObject().str("name", items[n]).str("number", items[n + 1]).done());
                    shown += (n ? "," : "") + items[n] + " <" + items[n + 1] + ">";
                }
                o.raw(key, json_array(members));
                row[col] = shown.empty() ? "-" : shown;
            } else {
                o.str(key, row[col]);
            }
        }
        json_rows.push_back(o.done());
        t.rows.push_back(std::move(row));
    }
    if (c.global().json)
        print(JsonObject().str("list", k.name).raw("records", json_array(json_rows)).done() + "\n");
    else
        print(t.text());
    return r.error.empty() ? kExitOk : malformed(r.error);
}

std::string auth_value(const Args& a) {
    auto v = a.value("--auth").value_or("NO");
    if (v != "YES" && v != "NO") throw UsageError{"--auth takes YES or NO"};
    return v;
}

int triggers_add(Global& g, const Client& c, const RuleKind& k,
                 const std::vector<std::string>& in) {
    std::string kind = k.name;
    if (kind == "broadcast") {
        Args a = parse_args(g, in, {{"--group", 1}, {"--auth", 1}, {"--allow", 2}});
        expect_positional(a, 2, 2, "triggers add broadcast KEYWORD TEXT [options]");
        std::vector<std::string> allowed;
        auto it = a.options.find("--allow");
        if (it != a.options.end())
            for (const auto& pair : it->second)
                allowed.insert(allowed.end(), pair.begin(), pair.end());
        std::string cmd =
            "add-sms trigger sms " +
            join_fields({a.positional[0], a.positional[1], list_field(a.values("--group")),
                         auth_value(a), list_field(allowed)});
        return expect_success(c, c.request(cmd));
    }
    if (kind == "preconf") {
        Args a = parse_args(g, in, {{"--group", 1}});
        expect_positional(a, 1, 1, "triggers add preconf TEXT [--group G]...");
        return expect_success(
            c, c.request("add-sms trigger preconf_sms " +
                         join_fields({a.positional[0], list_field(a.values("--group"))})));
    }
    if (kind == "ctrl") {
        // Action triggers exist once per kind: "adding" one sets it.
        Args a = parse_args(g, in, {{"--auth", 1}});
        expect_positional(a, 2, 2, "triggers add ctrl LABEL KEYWORD [--auth YES|NO]");
        return expect_success(
            c, c.request("edit-sms trigger ctrl_data " +
                         join_fields({a.positional[0], a.positional[1], auth_value(a)})));
    }
    Args a = parse_args(g, in, {});
    expect_positional(a, 2, 100000, "triggers add auth NAME NUMBER [NAME NUMBER]...");
    return expect_success(
        c, c.request("add-sms trigger auth-list " + join_fields(member_pairs(a, 0, "auth"))));
}

int triggers_del(Global& g, const Client& c, const RuleKind& k,
                 const std::vector<std::string>& in) {
    std::string kind = k.name;
    Args a = parse_args(g, in, {});
    if (kind == "broadcast" || kind == "preconf") {
        expect_positional(a, 1, 1, "triggers del broadcast|preconf INDEX");
        number_arg("INDEX", a.positional[0], 1, 1000000);
        return expect_success(c, c.request(std::string("del-sms trigger ") + k.wire + " " +
                                           join_fields(a.positional)));
    }
    if (kind == "auth") {
        expect_positional(a, 2, 100000, "triggers del auth NAME NUMBER [NAME NUMBER]...");
        return expect_success(
            c, c.request("del-sms trigger auth-list " + join_fields(member_pairs(a, 0, "auth"))));
    }
    throw UsageError{"action triggers cannot be deleted, only set with 'triggers add ctrl'"};
}

int cmd_triggers(Global& g, const std::vector<std::string>& in) {
    if (in.size() < 2) throw UsageError{"triggers needs a sub-command and a list"};
    const RuleKind& k = rule_kind(in[1]);
    std::vector<std::string> rest(in.begin() + 2, in.end());
    Client c(g);
    if (in[0] == "list") {
        Args a = parse_args(g, rest, {});
        expect_positional(a, 0, 0, "triggers list KIND");
        return triggers_list(c, k);
    }
    if (in[0] == "add") return triggers_add(g, c, k, rest);
    if (in[0] == "del") return triggers_del(g, c, k, rest);
    throw UsageError{"unknown triggers sub-command '" + in[0] + "'"};
}

// ---------------------------------------------------------- address book

int cmd_save(Global& g, const std::vector<std::string>& in) {
    Args a = parse_args(g, in, {});
    expect_positional(a, 0, 0, "save");
    Client c(g);
    return expect_success(c, c.request("save-address-book ^|^"));
}

int cmd_export_csv(Global& g, const std::vector<std::string>& in) {
    Args a = parse_args(g, in, {});
    expect_positional(a, 0, 0, "export-csv");
    Client c(g);
    std::string reply = c.request("CSVEXPORT");
    if (reply.empty() || reply[0] != '/') return report(c, reply, false);
    std::string csv = c.read(c.local_path(reply));
    if (g.json)
        print(JsonObject().str("file", reply).str("csv", csv).done() + "\n");
    else
        print(csv);
    return kExitOk;
}

int cmd_import_csv(Global& g, const std::vector<std::string>& in) {
    Args a = parse_args(g, in, {{"--columns", 1}});
    expect_positional(a, 1, 1, "import-csv FILE [--columns FIRST,LAST,NUMBER,DESC]");
    // Without --columns the file is taken to be laid out as the export
    // writes it: first name, last name, description, number.
    std::string columns = a.value("--columns").value_or("1,2,4,3");
    std::vector<std::string> cols;
    const std::string list = columns + ",";
    FieldCutter cut(list);
    while (auto x = cut.next(",")) cols.emplace_back(*x);
    if (cols.size() != 4) throw UsageError{"--columns takes four column numbers"};
    std::string format;
    for (const auto& col : cols)
        format += std::to_string(number_arg("--columns", col, 1, 999)) + "\n";

    Client c(g);
    auto data = read_file(a.positional[0], kMaxFileRead);
    if (!data) throw Failure{"cannot read " + a.positional[0] + ": " + std::strerror(errno)};
    const std::string upload = c.path("/var/run/AddressBook.csv");
    const std::string empty_err = c.path("/var/tmp/csv_empty_err");
    const std::string space_err = c.path("/var/tmp/csv_lsp_err");
    if (!write_file_atomic(upload, *data) ||
        !write_file_atomic(c.path("/var/run/csv_frmt.dat"), format))
        throw Failure{"cannot write the upload under " + c.path("/var/run")};
    // The markers are the daemon's only verdict on the file; stale ones from
    // an earlier import must not be mistaken for this one's.
    remove_file(empty_err);
    remove_file(space_err);
    std::string reply = c.request("CSVFILE");
    std::string problem;
    if (file_exists(empty_err)) problem = "a line lacks the first name or the number";
    if (file_exists(space_err)) problem = "a first name or number begins with a blank";
    if (!problem.empty()) {
        if (g.json)
            print(JsonObject().boolean("ok", false).str("error", problem).done() + "\n");
        else
            std::fprintf(stderr, "smsgwctl: import refused: %s\n", problem.c_str());
        return kExitRefused;
    }
    if (g.json)
        print(JsonObject().boolean("ok", true).str("reply", reply).done() + "\n");
    else
        print("imported\n");
    return kExitOk;
}

// ------------------------------------------------------------- send

int cmd_send(Global& g, const std::vector<std::string>& in) {
    Args a = parse_args(g, in,
                        {{"--to", 1},
                         {"--contact", 1},
                         {"--group", 1},
                         {"--all", 0},
                         {"--all-groups", 0},
                         {"--from", 1},
                         {"--spool", 1}});
    expect_positional(a, 1, 1, "send [recipients] TEXT");
    const std::string& text = a.positional[0];
    if (text.size() > 159) throw UsageError{"the message is longer than 159 bytes"};
    std::string sender = a.value("--from").value_or("admin");
    if (sender.size() > 49) throw UsageError{"the sender is longer than 49 bytes"};

    std::string numbers, names, groups;
    for (const auto& n : a.values("--to")) numbers += field(n) + std::string(kSep);
    // A pair with the number "0" stands for every number of the contact.
    for (const auto& n : a.values("--contact")) names += "0^|^" + field(n) + std::string(kSep);
    for (const auto& n : a.values("--group")) groups += field(n) + std::string(kSep);
    if (a.has("--all") && a.has("--all-groups"))
        throw UsageError{"--all and --all-groups exclude each other"};
    // The daemon stops reading at these words, so they replace the lists.
    if (a.has("--all")) {
        numbers = "__ALL__";
        names.clear();
        groups.clear();
    } else if (a.has("--all-groups")) {
        numbers = "__GALL__";
        names.clear();
        groups.clear();
    }
    if (numbers.empty() && names.empty() && groups.empty())
        throw UsageError{"send needs at least one recipient"};

    Client c(g);
    std::string spool = a.value("--spool").value_or(c.path("/tmp"));
    Fd fd;
    auto path = create_temp_file(spool, "smsgwctl-", &fd);
    if (!path) throw Failure{"cannot create a request file in " + spool};
    if (path->size() > kMaxRequestPath) {
        remove_file(*path);
        throw Failure{"request file path " + *path + " is longer than " +
                      std::to_string(kMaxRequestPath) + " characters"};
    }
    std::string image = build_request_file(sender, text, numbers, names, groups);
    size_t off = 0;
    while (off < image.size()) {
        ssize_t n = ::write(fd.get(), image.data() + off, image.size() - off);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            remove_file(*path);
            throw Failure{"cannot write " + *path};
        }
        off += static_cast<size_t>(n);
    }
    // Group- and world-readable: the daemon may run as another user.
    ::fchmod(fd.get(), 0644);
    if (!fd.close_checked()) {
        remove_file(*path);
        throw Failure{"cannot write " + *path};
    }
    std::string reply;
    try {
        reply = c.request("send-sms " + *path);
    } catch (const Failure&) {
        // Nobody took the file; do not leave it behind.
        remove_file(*path);
        throw;
    }
    // "OK": queued or taken by the API path; empty: handed to txrx at once.
    bool ok = reply.empty() || reply == "OK";
    std::string state = reply.empty() ? "sent" : reply == "OK" ? "queued" : reply;
    if (g.json)
        print(JsonObject().boolean("ok", ok).str("state", state).str("request_file", *path).done() +
              "\n");
    else if (ok)
        print(state + "\n");
    else
        std::fprintf(stderr, "smsgwctl: %s\n", reply.c_str());
    return ok ? kExitOk : kExitRefused;
}

// ------------------------------------------------------------- status

struct PendingFile {
    std::string name;
    long long size = 0;
    long long jobs = 0;
    bool damaged = false;
};

// Counts the job records of a pending file by their headers; stops at the
// first header that is not well formed.
PendingFile scan_pending(const std::string& path, const std::string& name) {
    PendingFile pf{name, file_size(path), 0, false};
    if (pf.size == 0) return pf;
    auto data = read_file(path, kMaxFileRead);
    if (!data) return pf;
    constexpr size_t kHeader = 108;
    size_t pos = 0;
    while (pos < data->size()) {
        if (data->size() - pos < kHeader || std::memcmp(data->data() + pos, "<JB/SRT>", 9) != 0) {
            pf.damaged = true;
            break;
        }
        int32_t body = get_i32(reinterpret_cast<const unsigned char*>(data->data()) + pos + 12);
        if (body < 0 || static_cast<size_t>(body) > data->size() - pos - kHeader) {
            pf.damaged = true;
            break;
        }
        pos += kHeader + static_cast<size_t>(body);
        ++pf.jobs;
    }
    return pf;
}

std::vector<std::string> text_lines(const std::string& data) {
    std::vector<std::string> out;
    size_t pos = 0;
    while (pos < data.size()) {
        size_t nl = data.find('\n', pos);
        std::string line = data.substr(pos, nl == std::string::npos ? nl : nl - pos);
        pos = nl == std::string::npos ? data.size() : nl + 1;
        if (!line.empty()) out.push_back(line);
    }
    return out;
}

std::optional<long long> first_number(const std::string& data) {
    size_t i = data.find_first_of("0123456789");
    if (i == std::string::npos) return std::nullopt;
    size_t j = data.find_first_not_of("0123456789", i);
    return parse_number(data.substr(i, j == std::string::npos ? j : j - i).substr(0, 10), 0,
                        2147483647);
}

// State letter of a process from /proc ("R", "S", "Z"...), empty if gone.
std::string process_state(long long pid) {
    auto st = read_file("/proc/" + std::to_string(pid) + "/status", 8192);
    if (!st) return "";
    size_t p = st->find("\nState:");
    if (p == std::string::npos) return "?";
    size_t q = st->find_first_not_of(" \t", p + 7);
    return q == std::string::npos ? "?" : st->substr(q, 1);
}

int cmd_status(Global& g, const std::vector<std::string>& in) {
    Args a = parse_args(g, in, {});
    expect_positional(a, 0, 0, "status");
    Client c(g);
    JsonObject j;
    std::string txt;

    auto modems = text_lines(read_file(c.path("/var/run/wirelessmodems"), 65536).value_or(""));
    j.raw("modems", json_strings(modems));
    txt += "modems:          ";
    for (size_t i = 0; i < modems.size(); ++i) txt += (i ? " " : "") + modems[i];
    txt += modems.empty() ? "none\n" : "\n";

    auto pid = first_number(read_file(c.path("/var/run/txrx_pid_file"), 4096).value_or(""));
    JsonObject tj;
    if (pid) {
        std::string state = process_state(*pid);
        // An exited child stays a zombie until the daemon restarts it.
        bool alive = !state.empty() && state != "Z";
        tj.num("pid", *pid).boolean("alive", alive).str("state", state);
        txt += "txrx:            pid " + std::to_string(*pid) +
               (alive          ? " running"
                : state == "Z" ? " exited (zombie)"
                               : " gone") +
               "\n";
    } else {
        tj.raw("pid", "null").boolean("alive", false);
        txt += "txrx:            no pid file\n";
    }
    j.raw("txrx", tj.done());

    JsonObject qj;
    auto table = read_file(c.path("/var/Jobs/pos_offset"), 4096);
    if (table && table->size() == 44) {
        auto b = reinterpret_cast<const unsigned char*>(table->data());
        auto word = static_cast<uint32_t>(get_i32(b));
        auto p_pos = static_cast<int16_t>(word >> 16);
        auto l_pos = static_cast<int16_t>(word & 0xffffu);
        std::vector<std::string> lens;
        for (int i = 0; i < 9; ++i) lens.push_back(std::to_string(get_i32(b + 8 + 4 * i)));
        qj.num("read_index", p_pos).num("write_index", l_pos).num("total_size", get_i32(b + 4));
        qj.raw("last_record_lengths", json_array(lens));
        txt += "queue position:  read " + std::to_string(p_pos) + ", write " +
               std::to_string(l_pos) + ", " + std::to_string(get_i32(b + 4)) + " bytes recorded\n";
    } else {
        qj.raw("read_index", "null");
        txt += table ? "queue position:  pos_offset is not 44 bytes\n"
                     : "queue position:  no pos_offset\n";
    }
    long long jobs = 0, bytes = 0;
    std::vector<std::string> files;
    std::string damaged;
    for (int i = 1; i <= 9; ++i) {
        std::string name = "Pending_Jobs_" + std::to_string(i);
        PendingFile pf = scan_pending(c.path("/var/Jobs/" + name), name);
        jobs += pf.jobs;
        bytes += pf.size;
        if (pf.damaged) damaged += " " + name;
        files.push_back(JsonObject()
                            .str("file", name)
                            .num("size", pf.size)
                            .num("jobs", pf.jobs)
                            .boolean("damaged", pf.damaged)
                            .done());
    }
    PendingFile pm = scan_pending(c.path("/var/Jobs/PerModem_PendingJob"), "PerModem_PendingJob");
    bool full = file_exists(c.path("/var/Jobs/jobfull"));
    qj.num("jobs", jobs).num("bytes", bytes).raw("pending_files", json_array(files));
    qj.num("per_modem_jobs", pm.jobs).boolean("full", full);
    j.raw("queue", qj.done());
    txt += "queued jobs:     " + std::to_string(jobs) + " (" + std::to_string(bytes) + " bytes)" +
           (full ? ", queue full" : "") + (damaged.empty() ? "" : ", damaged:" + damaged) + "\n";
    txt += "per-modem jobs:  " + std::to_string(pm.jobs) + "\n";

    auto js = read_file(c.path("/var/config/job_stats_file"), 4096);
    if (js) {
        std::vector<long long> v;
        for (const auto& l : text_lines(*js)) v.push_back(c_atoi(l));
        v.resize(3, 0);
        j.raw("job_stats", JsonObject()
                               .num("jobs_to_txrx", v[0])
                               .num("peer_replies", v[1])
                               .num("handoffs", v[2])
                               .done());
        txt += "job counters:    to txrx " + std::to_string(v[0]) + ", peer replies " +
               std::to_string(v[1]) + ", hand-offs " + std::to_string(v[2]) + "\n";
    } else {
        j.raw("job_stats", "null");
    }

    auto ss = read_file(c.path("/var/config/sms_stats_file"), 4096);
    if (ss && ss->size() >= 24) {
        std::vector<std::string> v;
        auto b = reinterpret_cast<const unsigned char*>(ss->data());
        for (int i = 0; i < 6; ++i) v.push_back(std::to_string(get_i32(b + 4 * i)));
        j.raw("sms_stats", json_array(v));
        txt += "sms counters:    " + v[0] + " " + v[1] + " " + v[2] + " " + v[3] +
               ", triggers acted on " + v[4] + ", triggers received " + v[5] + "\n";
    } else {
        j.raw("sms_stats", "null");
    }

    auto dial = read_file(c.path("/var/config/international_dialing"), 4096);
    if (dial) {
        std::string state;
        std::optional<long long> digits;
        for (const auto& l : text_lines(*dial)) {
            size_t p = l.find("int-dialing=");
            if (p != std::string::npos && state.empty()) state = l.substr(p + 12);
            p = l.find("max-digits=");
            if (p != std::string::npos && !digits) digits = c_atoi(l.substr(p + 11));
        }
        JsonObject dj;
        dj.str("int_dialing", state);
        if (digits)
            dj.num("max_digits", *digits);
        else
            dj.raw("max_digits", "null");
        j.raw("international_dialing", dj.done());
        txt += "intl. dialing:   " + (state.empty() ? std::string("?") : state) +
               (digits ? ", at most " + std::to_string(*digits) + " digits" : "") + "\n";
    } else {
        j.raw("international_dialing", "null");
    }

    print(g.json ? j.done() + "\n" : txt);
    return kExitOk;
}

// -------------------------------------------------------------- main

int run(int argc, char** argv) {
    Global g;
    int i = 1;
    for (; i < argc; ++i) {
        std::string w = argv[i];
        if (w == "--json") {
            g.json = true;
        } else if (w == "--help" || w == "-h") {
            print(kUsage);
            return kExitOk;
        } else if (w == "--version") {
            print("smsgwctl " SMSGW_VERSION "\n");
            return kExitOk;
        } else if (kGlobalOptions.count(w)) {
            if (i + 1 >= argc) throw UsageError{w + " needs a value"};
            apply_global(g, w, argv[++i]);
        } else {
            break;
        }
    }
    if (i >= argc) throw UsageError{"no command given"};
    std::string verb = argv[i];
    std::vector<std::string> rest(argv + i + 1, argv + argc);
    if (verb == "raw") return cmd_raw(g, rest);
    if (verb == "contacts") return cmd_contacts(g, rest);
    if (verb == "groups") return cmd_groups(g, rest);
    if (verb == "triggers") return cmd_triggers(g, rest);
    if (verb == "save") return cmd_save(g, rest);
    if (verb == "export-csv") return cmd_export_csv(g, rest);
    if (verb == "import-csv") return cmd_import_csv(g, rest);
    if (verb == "send") return cmd_send(g, rest);
    if (verb == "status") return cmd_status(g, rest);
    throw UsageError{"unknown command '" + verb + "'"};
}

}  // namespace
}  // namespace smsgw::ctl

int main(int argc, char** argv) {
    using namespace smsgw::ctl;
    try {
        return run(argc, argv);
    } catch (const UsageError& e) {
        std::fprintf(stderr, "smsgwctl: %s\n%s", e.message.c_str(), kUsage);
        return kExitUsage;
    } catch (const Failure& e) {
        std::fprintf(stderr, "smsgwctl: %s\n", e.message.c_str());
        return kExitUsage;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "smsgwctl: %s\n", e.what());
        return kExitUsage;
    }
}
