#include "txrx/modem.h"

#include <cctype>

#include "common/text.h"
#include "formats/sms_pdu.h"
#include "txrx/log.h"

namespace smsgw::txrx {

namespace {

constexpr int kAttentionTries = 5;

bool begins(const std::string& s, std::string_view p) {
    return s.compare(0, p.size(), p) == 0;
}

bool is_hex(const std::string& s) {
    if (s.empty() || s.size() % 2 != 0) return false;
    for (char c : s)
        if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
    return true;
}

// The numbers after the header's ':' separated by commas (empty fields,
// such as an absent alpha tag, count as -1).
std::vector<int> header_numbers(const std::string& line) {
    std::vector<int> out;
    size_t pos = line.find(':');
    if (pos == std::string::npos) return out;
    std::string_view rest = std::string_view(line).substr(pos + 1);
    while (true) {
        size_t comma = rest.find(',');
        std::string_view field = rest.substr(0, comma);
        while (!field.empty() && field.front() == ' ') field.remove_prefix(1);
        auto v = parse_number(field, 0, 1 << 20);
        out.push_back(v ? static_cast<int>(*v) : -1);
        if (comma == std::string_view::npos) break;
        rest.remove_prefix(comma + 1);
    }
    return out;
}

}  // namespace

AtResult Modem::run(const std::string& cmd) {
    AtResult r = at_.command(cmd, opt_.timeout);
    if (!r.good())
        log("%s: %s (error %d)", cmd.c_str(),
            r.status == AtResult::timeout ? "no answer" : "refused", r.code);
    return r;
}

Modem::InitResult Modem::init() {
    bool awake = false;
    for (int i = 0; i < kAttentionTries && !awake && !at_.gone(); ++i) {
        awake = at_.command("AT", opt_.timeout).good();
    }
    if (at_.gone()) return InitResult::gone;
    if (!awake) return InitResult::no_answer;
    run("ATE0");
    run("AT+CMEE=1");
    AtResult pin = run("AT+CPIN?");
    bool ready = pin.good();
    for (const auto& line : pin.lines) ready = ready && line.find("READY") != std::string::npos;
    if (!ready) {
        log("the SIM is not ready (it may need a PIN): %s",
            pin.lines.empty() ? "no answer" : pin.lines.front().c_str());
        return at_.gone() ? InitResult::gone : InitResult::sim_locked;
    }
    if (!run("AT+CMGF=0").good()) return at_.gone() ? InitResult::gone : InitResult::no_answer;
    run(opt_.status_reports ? "AT+CNMI=2,1,0,1,0" : "AT+CNMI=2,1,0,0,0");
    run("AT+CPMS=\"SM\",\"SM\",\"SM\"");
    return at_.gone() ? InitResult::gone : InitResult::ready;
}

Modem::InitResult Modem::reset() {
    run("AT+CFUN=1,1");
    at_.flush();
    return init();
}

std::optional<std::pair<int, int>> Modem::signal() {
    AtResult r = run(signal_cmd_);
    if (!r.good()) return std::nullopt;
    return parse_signal(r.lines);
}

AtResult Modem::submit(const std::string& tpdu) {
    return at_.send_pdu(tpdu.size(), "00" + pdu::to_hex(tpdu), opt_.send_timeout);
}

std::vector<StoredMessage> Modem::list() {
    AtResult r = run("AT+CMGL=4");
    return r.good() ? parse_listing(r.lines) : std::vector<StoredMessage>{};
}

std::optional<StoredMessage> Modem::read(int index) {
    AtResult r = run("AT+CMGR=" + std::to_string(index));
    if (!r.good()) return std::nullopt;
    auto found = parse_listing(r.lines, index);
    if (found.empty()) return std::nullopt;
    return found.front();
}

bool Modem::remove(int index) {
    return run("AT+CMGD=" + std::to_string(index)).good();
}

std::vector<StoredMessage> parse_listing(const std::vector<std::string>& lines, int index) {
    std::vector<StoredMessage> out;
    std::optional<StoredMessage> pending;
    for (const std::string& line : lines) {
        if (begins(line, "+CMGL:") || begins(line, "+CMGR:")) {
            std::vector<int> n = header_numbers(line);
            pending = StoredMessage{};
            if (begins(line, "+CMGL:")) {
                pending->index = n.empty() ? -1 : n[0];
                pending->stat = n.size() > 1 ? n[1] : -1;
            } else {
                pending->index = index;
                pending->stat = n.empty() ? -1 : n[0];
            }
            continue;
        }
        // The PDU is the next hex line after its header; anything else
        // between them is noise.
        if (pending && is_hex(line)) {
            pending->pdu = line;
            if (pending->index >= 0) out.push_back(*pending);
            pending.reset();
        }
    }
    return out;
}

int indication_index(const std::string& line) {
    if (!begins(line, "+CMTI:") && !begins(line, "+CDSI:")) return -1;
    std::vector<int> n = header_numbers(line);
    return n.size() >= 2 ? n[1] : -1;
}

std::optional<std::pair<int, int>> parse_signal(const std::vector<std::string>& lines) {
    for (const std::string& line : lines) {
        std::vector<int> n = header_numbers(line);
        if (n.size() >= 2 && n[0] >= 0) return std::make_pair(n[0], n[1]);
    }
    return std::nullopt;
}

}  // namespace smsgw::txrx
