#include "modem_sim.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <ctime>
#include <vector>

#include "common/paths.h"
#include "common/text.h"
#include "formats/gsm_alphabet.h"
#include "formats/sms_pdu.h"

namespace smsgw::modemsim {

namespace {

constexpr size_t kMaxInput = 4096;
const std::string kOk = "\r\nOK\r\n";  // NOLINT(cert-err58-cpp): a short string at start-up

bool begins(const std::string& s, std::string_view p) {
    return s.compare(0, p.size(), p) == 0;
}

bool unix_address(const std::string& path, sockaddr_un& a) {
    a = {};
    a.sun_family = AF_UNIX;
    if (path.size() >= sizeof a.sun_path) return false;
    std::memcpy(a.sun_path, path.c_str(), path.size() + 1);
    return true;
}

std::string escaped(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else {
            out.push_back(c);
        }
    }
    return out;
}

pdu::Address address_of(const std::string& from) {
    if (pdu::number_problem(from).empty())
        return {from, from[0] == '+' ? pdu::kTypeInternational : pdu::kTypeUnknown};
    return {from, pdu::kTypeAlphanumeric};
}

pdu::Timestamp now_stamp() {
    std::time_t t = std::time(nullptr);
    std::tm tm{};
    ::gmtime_r(&t, &tm);
    return {tm.tm_year % 100, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, 0};
}

std::string listing_entry(const char* header, int stat, const std::string& hex) {
    size_t sca = hex.size() >= 2 ? std::strtoul(hex.substr(0, 2).c_str(), nullptr, 16) : 0;
    size_t len = hex.size() / 2 >= sca + 1 ? hex.size() / 2 - sca - 1 : 0;
    return std::string(header) + std::to_string(stat) + ",," + std::to_string(len) + "\r\n" + hex +
           "\r\n";
}

}  // namespace

ModemSim::ModemSim(Config config) : cfg_(std::move(config)) {
    Paths paths(cfg_.root);
    link_ = paths.map("/dev/" + cfg_.tty);
    if (cfg_.log.empty()) cfg_.log = paths.map("/var/run/modem-sim." + cfg_.tty + ".log");
    if (cfg_.control.empty()) cfg_.control = paths.map("/var/run/modem-sim." + cfg_.tty + ".ctl");
}

ModemSim::~ModemSim() {
    if (!vanished_) ::unlink(link_.c_str());
    ::unlink(cfg_.control.c_str());
}

bool ModemSim::start(std::string* why) {
    master_.reset(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (!master_ || ::grantpt(master_.get()) != 0 || ::unlockpt(master_.get()) != 0) {
        *why = "no pseudo-terminal";
        return false;
    }
    const char* name = ::ptsname(master_.get());
    std::string slave_path = name ? name : "";
    // Kept open so the line does not hang up between the probe and txrx.
    slave_.reset(::open(slave_path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    termios tio{};
    if (!slave_ || ::tcgetattr(slave_.get(), &tio) != 0) {
        *why = "cannot open " + slave_path;
        return false;
    }
    ::cfmakeraw(&tio);
    ::tcsetattr(slave_.get(), TCSANOW, &tio);
    ::fcntl(master_.get(), F_SETFL, ::fcntl(master_.get(), F_GETFL) | O_NONBLOCK);
    make_dirs(link_.substr(0, link_.rfind('/')));
    ::unlink(link_.c_str());
    if (::symlink(slave_path.c_str(), link_.c_str()) != 0) {
        *why = "cannot link " + link_;
        return false;
    }
    sockaddr_un a;
    make_dirs(cfg_.control.substr(0, cfg_.control.rfind('/')));
    ::unlink(cfg_.control.c_str());
    ctl_.reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!unix_address(cfg_.control, a) || !ctl_ ||
        ::bind(ctl_.get(), reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        *why = "cannot bind " + cfg_.control;
        return false;
    }
    log_line("START " + link_ + " -> " + slave_path);
    return true;
}

int ModemSim::run(const volatile int& stop) {
    while (!stop && !vanished_) {
        pollfd fds[2] = {{master_.get(), POLLIN, 0}, {ctl_.get(), POLLIN, 0}};
        int timeout = 1000;
        if (!pending_.empty()) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(pending_.front().at -
                                                                              Clock::now());
            timeout = static_cast<int>(std::clamp<long long>(left.count() + 1, 0, 1000));
        }
        ::poll(fds, 2, timeout);
        if (fds[0].revents & POLLIN) {
            char buf[1024];
            ssize_t n = ::read(master_.get(), buf, sizeof buf);
            if (n > 0) on_input(std::string_view(buf, static_cast<size_t>(n)));
        }
        if (fds[1].revents & POLLIN) on_control();
        flush_pending();
    }
    return 0;
}

void ModemSim::on_input(std::string_view bytes) {
    for (char c : bytes) {
        if (text_mode_) {
            if (c == '\x1A') {
                text_mode_ = false;
                on_submit(input_);
                input_.clear();
            } else if (c == '\x1B') {
                text_mode_ = false;
                input_.clear();
            } else if (c != '\r' && c != '\n' && input_.size() < kMaxInput) {
                input_.push_back(c);
            }
        } else if (c == '\r' || c == '\n') {
            if (!input_.empty()) on_command(input_);
            input_.clear();
        } else if (input_.size() < kMaxInput) {
            input_.push_back(c);
        }
    }
}

void ModemSim::on_command(const std::string& line) {
    log_line("CMD " + line);
    if (silent_) return;
    std::string echo = echo_ ? line + "\r" : "";
    std::string upper = line;
    for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    if (begins(upper, "AT+CMGS=")) {
        announced_ = static_cast<size_t>(c_atoi(upper.substr(8)));
        text_mode_ = true;
        reply(echo + "\r\n> ");
        return;
    }
    reply(echo + answer(upper));
}

std::string ModemSim::answer(const std::string& cmd) {
    if (cmd == "AT" || begins(cmd, "AT+CMEE") || begins(cmd, "AT+CMGF") || begins(cmd, "AT+CNMI"))
        return kOk;
    if (cmd == "ATE0" || cmd == "ATE1") {
        echo_ = cmd == "ATE1";
        return kOk;
    }
    if (cmd == "AT+CPIN?")
        return pin_ ? "\r\n+CPIN: SIM PIN\r\n" + kOk : "\r\n+CPIN: READY\r\n" + kOk;
    if (begins(cmd, "AT+CPMS=")) {
        std::string n = std::to_string(sim_.size());
        return "\r\n+CPMS: " + n + ",30," + n + ",30," + n + ",30\r\n" + kOk;
    }
    if (cmd == "AT+CSQ") return "\r\n+CSQ: " + std::to_string(cfg_.csq) + ",99\r\n" + kOk;
    if (begins(cmd, "AT+CMGL")) {
        std::string out = "\r\n";
        for (auto& [index, entry] : sim_) {
            out += listing_entry(("+CMGL: " + std::to_string(index) + ",").c_str(), entry.first,
                                 entry.second);
            entry.first = entry.first == 0 ? 1 : entry.first;
        }
        return out + kOk;
    }
    if (begins(cmd, "AT+CMGR=")) {
        auto it = sim_.find(c_atoi(cmd.substr(8)));
        if (it == sim_.end()) return "\r\n+CMS ERROR: 321\r\n";
        std::string out = "\r\n" + listing_entry("+CMGR: ", it->second.first, it->second.second);
        it->second.first = it->second.first == 0 ? 1 : it->second.first;
        return out + kOk;
    }
    if (begins(cmd, "AT+CMGD=")) {
        sim_.erase(c_atoi(cmd.substr(8)));
        return kOk;
    }
    if (begins(cmd, "AT+CFUN")) {
        echo_ = true;  // a restarted modem echoes again
        return kOk;
    }
    return "\r\nERROR\r\n";
}

void ModemSim::on_submit(const std::string& hex) {
    auto bytes = pdu::from_hex(hex);
    size_t sca = bytes && !bytes->empty() ? static_cast<uint8_t>((*bytes)[0]) : 0;
    std::optional<pdu::Submit> s;
    if (bytes && bytes->size() > sca && bytes->size() - sca - 1 == announced_)
        s = pdu::decode_submit(std::string_view(*bytes).substr(sca + 1));
    if (!s) {
        log_line("SUBMIT-BAD " + hex);
        reply("\r\n+CMS ERROR: 304\r\n");
        return;
    }
    std::string what = "to=" + s->to.text + " dcs=" + std::to_string(s->dcs);
    if (s->concat)
        what += " part=" + std::to_string(s->concat->seq) + "/" + std::to_string(s->concat->total) +
                " ref=" + std::to_string(s->concat->ref);
    what += " text=" + escaped(s->text);
    if (fail_at_ > 0 && --fail_at_ == 0) {
        log_line("SUBMIT-FAILED " + what);
        reply("\r\n+CMS ERROR: " + std::to_string(fail_code_) + "\r\n");
        return;
    }
    log_line("SUBMIT " + what);
    mr_ = (mr_ + 1) % 256;
    reply("\r\n+CMGS: " + std::to_string(mr_) + "\r\n" + kOk);
}

void ModemSim::reply(std::string text) {
    ++answers_;
    if (noise_every_ > 0 && answers_ % noise_every_ == 0)
        text = "\r\nRING\r\n\r\n~noise~\r\n" + text;
    pending_.push_back({Clock::now() + std::chrono::milliseconds(cfg_.delay_ms), std::move(text)});
    flush_pending();
}

void ModemSim::flush_pending() {
    while (!pending_.empty() && pending_.front().at <= Clock::now() && !vanished_) {
        write_all(master_.get(), pending_.front().bytes);
        pending_.pop_front();
    }
}

void ModemSim::store(const std::string& hex) {
    int index = 1;
    while (sim_.count(index)) ++index;
    sim_[index] = {0, hex};
    log_line("STORED " + std::to_string(index) + " " + hex);
    pending_.push_back({Clock::now(), "\r\n+CMTI: \"SM\"," + std::to_string(index) + "\r\n"});
}

void ModemSim::inject_text(const std::string& args, bool reverse, bool ref16) {
    size_t blank = args.find(' ');
    std::string from = args.substr(0, blank);
    std::string text = blank == std::string::npos ? "" : args.substr(blank + 1);
    pdu::SplitText split = pdu::split_text(gsm::decode_utf8(text));
    std::vector<std::string> hexes;
    ++ref_;
    for (size_t i = 0; i < split.parts.size(); ++i) {
        pdu::Deliver d;
        d.from = address_of(from);
        d.scts = now_stamp();
        d.dcs = split.coding == pdu::Coding::gsm7 ? pdu::kDcsGsm7 : pdu::kDcsUcs2;
        if (split.parts.size() > 1)
            d.concat = pdu::Concat{static_cast<uint16_t>(ref16 ? 0x1200 + ref_ : ref_ & 0xFF),
                                   static_cast<uint8_t>(split.parts.size()),
                                   static_cast<uint8_t>(i + 1), ref16};
        d.text = gsm::to_utf8(split.parts[i]);
        hexes.push_back(pdu::to_hex(pdu::encode_deliver(d)));
    }
    if (reverse) std::reverse(hexes.begin(), hexes.end());
    for (const auto& h : hexes) store(h);
}

void ModemSim::on_control() {
    sockaddr_un from{};
    socklen_t from_len = sizeof from;
    char buf[4096];
    ssize_t n =
        ::recvfrom(ctl_.get(), buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from), &from_len);
    if (n < 0) return;
    std::string result = control(std::string(buf, static_cast<size_t>(n)));
    ::sendto(ctl_.get(), result.data(), result.size(), MSG_DONTWAIT,
             reinterpret_cast<sockaddr*>(&from), from_len);
}

std::string ModemSim::control(const std::string& cmd) {
    size_t blank = cmd.find(' ');
    std::string verb = cmd.substr(0, blank);
    std::string arg = blank == std::string::npos ? "" : cmd.substr(blank + 1);
    log_line("CTL " + cmd);
    if (verb == "sms" || verb == "sms-reverse" || verb == "sms16") {
        inject_text(arg, verb == "sms-reverse", verb == "sms16");
    } else if (verb == "pdu") {
        store(arg);
    } else if (verb == "fail") {
        fail_at_ = c_atoi(arg);
        size_t code = arg.find(' ');
        fail_code_ = code == std::string::npos ? 500 : c_atoi(arg.substr(code + 1));
    } else if (verb == "silent" || verb == "pin") {
        (verb == "silent" ? silent_ : pin_) = arg == "on";
    } else if (verb == "delay") {
        cfg_.delay_ms = c_atoi(arg);
    } else if (verb == "noise") {
        pending_.push_back({Clock::now(), "\r\n" + arg + "\r\n"});
    } else if (verb == "noise-every") {
        noise_every_ = c_atoi(arg);
    } else if (verb == "csq") {
        cfg_.csq = c_atoi(arg);
    } else if (verb == "vanish") {
        vanish();
    } else if (verb == "stored") {
        return "OK " + std::to_string(sim_.size());
    } else {
        return "ERROR unknown command";
    }
    return "OK";
}

void ModemSim::vanish() {
    log_line("VANISH");
    vanished_ = true;
    pending_.clear();
    slave_.reset();
    master_.reset();
    ::unlink(link_.c_str());
}

void ModemSim::log_line(const std::string& line) {
    append_file(cfg_.log, line + "\n");
}

std::string send_control(const std::string& socket, const std::string& cmd,
                         std::chrono::milliseconds timeout) {
    Fd fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un self{};
    self.sun_family = AF_UNIX;
    // An abstract address of the kernel's choosing, so the answer can come back.
    if (!fd || ::bind(fd.get(), reinterpret_cast<sockaddr*>(&self), sizeof(sa_family_t)) != 0)
        return "";
    sockaddr_un to;
    if (!unix_address(socket, to) || ::sendto(fd.get(), cmd.data(), cmd.size(), 0,
                                              reinterpret_cast<sockaddr*>(&to), sizeof to) < 0)
        return "";
    pollfd p{fd.get(), POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(timeout.count())) <= 0) return "";
    char buf[512];
    ssize_t n = ::recv(fd.get(), buf, sizeof buf, 0);
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : "";
}

}  // namespace smsgw::modemsim
