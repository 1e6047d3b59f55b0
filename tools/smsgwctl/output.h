// What smsgwctl prints: text made safe for a terminal, tables aligned by the
// columns their cells take on screen, and JSON for scripts.
//
// Names and texts come from SMS senders and other peers, so nothing they
// contain may reach a terminal as a control sequence or break a table's
// lines: every cell and message goes through printable().
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace smsgw::ctl {

// The text with everything a terminal could act on made visible: control
// bytes as \n, \r, \t, \e or \xNN, a backslash as \\, bytes that are not
// UTF-8 as \xNN, and C1 controls, line separators and direction overrides
// as \uNNNN. Other UTF-8 passes unchanged.
std::string printable(std::string_view text);

// Terminal columns of a printable() text: East Asian wide characters take
// two, combining marks none.
size_t display_width(std::string_view text);

// A JSON string literal. Bytes that are not UTF-8 are taken as Latin-1
// characters; controls (C1 included) are escaped.
std::string json_quote(std::string_view text);

// An ordered JSON object; values are given encoded (num/str encode them).
class JsonObject {
  public:
    JsonObject& raw(std::string_view key, std::string_view encoded);
    JsonObject& str(std::string_view key, std::string_view value);
    JsonObject& num(std::string_view key, long long value);
    JsonObject& boolean(std::string_view key, bool value);
    JsonObject& merge(const JsonObject& other);  // appends other's members
    std::string done() const { return out_.empty() ? "{}" : out_ + "}"; }

  private:
    std::string out_;
};

std::string json_array(const std::vector<std::string>& encoded);
std::string json_strings(const std::vector<std::string>& values);

// Rows of raw cell texts under headings; JSON keys are the headings in
// lower case with blanks as "_".
struct Table {
    std::vector<std::string> columns;
    std::vector<std::vector<std::string>> rows;

    std::string text() const;  // aligned, every cell printable()
    std::string json() const;  // an array of objects
};

void print(std::string_view text);  // to standard output as it stands
// File content: as it stands into a pipe or file; line by line made
// printable (CR LF ends read as line ends) when standard output is a terminal.
void print_data(std::string_view data);
void print_line(std::string_view text);  // printable(text) and a newline
void warn(std::string_view message);     // "smsgwctl: " message, made printable, on stderr

}  // namespace smsgw::ctl
