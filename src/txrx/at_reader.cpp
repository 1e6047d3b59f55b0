#include "txrx/at_reader.h"

#include <cstdlib>

namespace smsgw::txrx {

namespace {

bool begins(std::string_view s, std::string_view p) {
    return s.substr(0, p.size()) == p;
}

}  // namespace

void AtReader::feed(std::string_view bytes) {
    for (char c : bytes) {
        if (c == '\0') continue;
        if (c == '\n' || c == '\r') {
            end_line();
            continue;
        }
        if (partial_.size() >= kMaxLine) {
            overflow_ = true;
            continue;
        }
        partial_.push_back(c);
        // The prompt ends with a blank and no newline.
        if (partial_ == "> ") {
            lines_.push_back({AtLine::Kind::prompt, {}});
            partial_.clear();
        }
    }
}

void AtReader::end_line() {
    if (!partial_.empty()) lines_.push_back({AtLine::Kind::line, std::move(partial_)});
    partial_.clear();
    overflow_ = false;
}

AtLine AtReader::take() {
    AtLine line = std::move(lines_.front());
    lines_.pop_front();
    return line;
}

void AtReader::clear() {
    lines_.clear();
    partial_.clear();
    overflow_ = false;
}

bool is_final(std::string_view line) {
    return line == "OK" || line == "ERROR" || line == "NO CARRIER" || begins(line, "+CMS ERROR:") ||
           begins(line, "+CME ERROR:");
}

int error_code(std::string_view line) {
    if (!begins(line, "+CMS ERROR:") && !begins(line, "+CME ERROR:")) return -1;
    std::string rest(line.substr(11));
    char* end = nullptr;
    long v = std::strtol(rest.c_str(), &end, 10);
    if (end == rest.c_str() || v < 0 || v > 65535) return -1;
    return static_cast<int>(v);
}

bool is_unsolicited(std::string_view line) {
    for (std::string_view p : {"+CMTI:", "+CDS:", "+CDSI:", "+CMT:", "+CBM:", "RING",
                               "+CRING:", "+CLIP:", "+CREG:", "+CGREG:", "+CUSD:", "^"}) {
        if (begins(line, p)) return true;
    }
    return false;
}

bool announces_pdu(std::string_view line) {
    return begins(line, "+CDS:") || begins(line, "+CMT:") || begins(line, "+CBM:");
}

}  // namespace smsgw::txrx
