#include "output.h"

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>

#include "common/text.h"

namespace smsgw::ctl {
namespace {

// The code point of the UTF-8 sequence at the front of `s` and its length;
// 0 when the bytes are not well-formed UTF-8 (overlong forms and surrogates
// included).
size_t utf8_sequence(std::string_view s, uint32_t& cp) {
    const auto b0 = static_cast<unsigned char>(s[0]);
    size_t len = b0 >= 0xf0 ? 4 : b0 >= 0xe0 ? 3 : b0 >= 0xc0 ? 2 : 0;
    if (len == 0 || b0 > 0xf4 || s.size() < len) return 0;
    cp = b0 & (0x7fu >> len);
    for (size_t k = 1; k < len; ++k) {
        const auto b = static_cast<unsigned char>(s[k]);
        if ((b & 0xc0) != 0x80) return 0;
        cp = (cp << 6) | (b & 0x3fu);
    }
    static constexpr uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
    if (cp < kLeast[len] || cp > 0x10ffff || (cp >= 0xd800 && cp <= 0xdfff)) return 0;
    return len;
}

// Characters that move the cursor or reorder the line although they are
// well-formed UTF-8.
bool invisible_control(uint32_t cp) {
    return (cp >= 0x80 && cp <= 0x9f) || cp == 0x2028 || cp == 0x2029 ||
           (cp >= 0x202a && cp <= 0x202e) || (cp >= 0x2066 && cp <= 0x2069) ||
           (cp >= 0x200b && cp <= 0x200f);
}

std::string hex(uint32_t value, const char* format) {
    char b[12];
    std::snprintf(b, sizeof b, format, static_cast<unsigned>(value));
    return b;
}

std::string escaped_byte(unsigned char c) {
    switch (c) {
        case '\n':
            return "\\n";
        case '\r':
            return "\\r";
        case '\t':
            return "\\t";
        case 0x1b:
            return "\\e";
        case '\\':
            return "\\\\";
        default:
            return hex(c, "\\x%02x");
    }
}

bool wide(uint32_t cp) {
    return (cp >= 0x1100 && cp <= 0x115f) || (cp >= 0x2e80 && cp <= 0xa4cf && cp != 0x303f) ||
           (cp >= 0xac00 && cp <= 0xd7a3) || (cp >= 0xf900 && cp <= 0xfaff) ||
           (cp >= 0xfe30 && cp <= 0xfe4f) || (cp >= 0xff00 && cp <= 0xff60) ||
           (cp >= 0xffe0 && cp <= 0xffe6) || (cp >= 0x1f300 && cp <= 0x1f64f) ||
           (cp >= 0x1f900 && cp <= 0x1f9ff) || (cp >= 0x20000 && cp <= 0x3fffd);
}

bool combining(uint32_t cp) {
    return (cp >= 0x300 && cp <= 0x36f) || (cp >= 0x1ab0 && cp <= 0x1aff) ||
           (cp >= 0x1dc0 && cp <= 0x1dff) || (cp >= 0x20d0 && cp <= 0x20ff) ||
           (cp >= 0xfe20 && cp <= 0xfe2f) || cp == 0x200d || (cp >= 0xfe00 && cp <= 0xfe0f);
}

}  // namespace

std::string printable(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        const auto c = static_cast<unsigned char>(text[i]);
        uint32_t cp = 0;
        size_t len = c >= 0x80 ? utf8_sequence(text.substr(i), cp) : 0;
        if (c >= 0x20 && c < 0x7f && c != '\\') {
            out += static_cast<char>(c);
            ++i;
        } else if (len == 0) {
            out += escaped_byte(c);
            ++i;
        } else {
            out += invisible_control(cp) ? hex(cp, "\\u%04x") : std::string(text.substr(i, len));
            i += len;
        }
    }
    return out;
}

size_t display_width(std::string_view text) {
    size_t width = 0;
    for (size_t i = 0; i < text.size();) {
        uint32_t cp = static_cast<unsigned char>(text[i]);
        size_t len = cp >= 0x80 ? utf8_sequence(text.substr(i), cp) : 1;
        if (len == 0) len = 1;  // not printable() text: a byte a column
        width += combining(cp) ? 0 : wide(cp) ? 2 : 1;
        i += len;
    }
    return width;
}

std::string json_quote(std::string_view text) {
    std::string out = "\"";
    for (size_t i = 0; i < text.size();) {
        const auto c = static_cast<unsigned char>(text[i]);
        uint32_t cp = c;
        size_t len = c >= 0x80 ? utf8_sequence(text.substr(i), cp) : 1;
        if (len == 0) len = 1;  // a Latin-1 byte: cp is the byte itself
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c == '\n' || c == '\r' || c == '\t') {
            out += c == '\n' ? "\\n" : c == '\r' ? "\\r" : "\\t";
        } else if (cp < 0x20 || (cp >= 0x7f && cp <= 0x9f) || (c >= 0x80 && len == 1)) {
            out += hex(cp, "\\u%04x");
        } else {
            out.append(text.substr(i, len));
        }
        i += len;
    }
    return out + "\"";
}

JsonObject& JsonObject::raw(std::string_view key, std::string_view encoded) {
    out_ += out_.empty() ? "{" : ",";
    out_ += json_quote(key);
    out_ += ':';
    out_ += encoded;
    return *this;
}

JsonObject& JsonObject::str(std::string_view key, std::string_view value) {
    return raw(key, json_quote(value));
}

JsonObject& JsonObject::num(std::string_view key, long long value) {
    return raw(key, std::to_string(value));
}

JsonObject& JsonObject::boolean(std::string_view key, bool value) {
    return raw(key, value ? "true" : "false");
}

JsonObject& JsonObject::merge(const JsonObject& other) {
    if (!other.out_.empty()) out_ += (out_.empty() ? "{" : ",") + other.out_.substr(1);
    return *this;
}

std::string json_array(const std::vector<std::string>& encoded) {
    std::string out = "[";
    for (size_t i = 0; i < encoded.size(); ++i) out += (i ? "," : "") + encoded[i];
    return out + "]";
}

std::string json_strings(const std::vector<std::string>& values) {
    std::vector<std::string> encoded;
    encoded.reserve(values.size());
    for (const auto& v : values) encoded.push_back(json_quote(v));
    return json_array(encoded);
}

std::string Table::text() const {
    std::vector<std::vector<std::string>> shown;
    shown.push_back(columns);
    for (const auto& r : rows) {
        shown.emplace_back();
        for (size_t c = 0; c < columns.size(); ++c)
            shown.back().push_back(printable(c < r.size() ? r[c] : ""));
    }
    std::vector<size_t> width(columns.size());
    for (const auto& r : shown)
        for (size_t c = 0; c < r.size(); ++c) width[c] = std::max(width[c], display_width(r[c]));
    std::string out;
    for (const auto& r : shown) {
        std::string line;
        for (size_t c = 0; c < r.size(); ++c) {
            line += r[c];
            if (c + 1 < r.size()) line.append(width[c] - display_width(r[c]) + 2, ' ');
        }
        while (!line.empty() && line.back() == ' ') line.pop_back();
        out += line + "\n";
    }
    return out;
}

std::string Table::json() const {
    std::vector<std::string> objects;
    for (const auto& r : rows) {
        JsonObject o;
        for (size_t c = 0; c < columns.size(); ++c) {
            std::string key;
            for (char ch : columns[c])
                key += ch == ' ' ? '_' : static_cast<char>(ascii_tolower(ch));
            o.str(key, c < r.size() ? r[c] : "");
        }
        objects.push_back(o.done());
    }
    return json_array(objects);
}

void print(std::string_view text) {
    std::fwrite(text.data(), 1, text.size(), stdout);
}

void print_data(std::string_view data) {
    if (!::isatty(STDOUT_FILENO)) {
        print(data);
        return;
    }
    for (size_t pos = 0; pos < data.size();) {
        size_t nl = data.find('\n', pos);
        std::string_view line = data.substr(pos, nl == std::string_view::npos ? nl : nl - pos);
        pos = nl == std::string_view::npos ? data.size() : nl + 1;
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        print_line(line);
    }
}

void print_line(std::string_view text) {
    print(printable(text) + "\n");
}

void warn(std::string_view message) {
    std::string line = "smsgwctl: " + printable(message) + "\n";
    std::fwrite(line.data(), 1, line.size(), stderr);
}

}  // namespace smsgw::ctl
