#include "txrx/transceiver.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <vector>

#include "common/fileops.h"
#include "formats/signal_quality.h"
#include "txrx/log.h"
#include "txrx/serial_port.h"

namespace smsgw::txrx {

namespace {

constexpr auto kPortRetry = std::chrono::seconds(1);
constexpr auto kRescan = std::chrono::seconds(2);
constexpr int kDatagramsPerPass = 16;
constexpr size_t kDatagramMax = 65536;

// The text of a datagram up to its first NUL, for the log: printable
// characters only, at most 100.
std::string printable(std::string_view d) {
    std::string out;
    for (char c : d.substr(0, std::min(d.find('\0'), size_t{100})))
        out.push_back(c >= 0x20 && c < 0x7F ? c : '?');
    return out;
}

bool starts_with(std::string_view s, std::string_view p) {
    return s.substr(0, p.size()) == p;
}

}  // namespace

Transceiver::Transceiver(const Options& options)
    : opt_(options),
      paths_(options.root),
      reporter_(static_cast<uint16_t>(20206 + options.port_offset)),
      peers_(paths_.map("/var/run/txrx"), options.device,
             static_cast<uint16_t>(20202 + options.port_offset)),
      receiver_(options.root, options, reporter_),
      worker_(options, paths_.map("/var/run/txrx/jobs"), paths_.map("/tmp"), reporter_) {}

bool Transceiver::setup() {
    make_dirs(paths_.map("/var/run/txrx/jobs"));
    make_dirs(paths_.map("/var/Inbox"));
    if (!peers_.lock_device()) {
        log("another txrx serves this device");
        exit_ = 0;
        return false;
    }
    if (!peers_.open_private()) {
        log("cannot open the socket in %s", peers_.run_dir().c_str());
        exit_ = kExitSetup;
        return false;
    }
    // The port first: the daemon may hand a job over right after starting us.
    if (peers_.hold_port()) log("listening for jobs on port %d", 20202 + opt_.port_offset);
    pid_file_add(paths_.map("/var/run/txrx_pid_file"), ::getpid());
    worker_.rescan();
    receiver_.sweep();
    return true;
}

int Transceiver::run(const volatile std::sig_atomic_t& stop) {
    set_log_device(opt_.device);
    if (!setup()) return exit_;
    while (!stop && exit_ < 0) {
        wait_for_events();
        if (at_ && !at_->pump()) lost(kExitGone, "the device went away");
        serve_modem_lines();
        serve_port();
        serve_private();
        timers();
        work();
    }
    shutdown();
    return exit_ < 0 ? 0 : exit_;
}

void Transceiver::wait_for_events() {
    std::vector<pollfd> fds;
    if (at_) fds.push_back({at_->fd(), POLLIN, 0});
    if (peers_.holds_port()) fds.push_back({peers_.port_fd(), POLLIN, 0});
    fds.push_back({peers_.private_fd(), POLLIN, 0});
    auto next = signal_at_;
    if (!at_ || !ready_) next = std::min(next, open_at_);
    if (!peers_.holds_port()) next = std::min(next, port_at_);
    if (worker_.has_jobs()) next = std::min(next, rescan_at_);
    if (auto due = worker_.next_due()) next = std::min(next, *due);
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(next - Clock::now());
    int timeout = static_cast<int>(std::clamp<long long>(left.count() + 1, 0, 60000));
    if (ready_ && worker_.ready_now()) timeout = 0;
    ::poll(fds.data(), fds.size(), timeout);
}

void Transceiver::open_modem() {
    open_at_ = Clock::now() + opt_.reopen;
    if (!at_) {
        std::string why;
        Fd fd = open_serial(paths_.map(opt_.device), opt_.baud, opt_.rtscts, &why);
        if (!fd) {
            log("cannot open %s: %s", paths_.map(opt_.device).c_str(), why.c_str());
            return;
        }
        at_.emplace(std::move(fd));
        modem_.emplace(*at_, opt_);
    }
    switch (modem_->init()) {
        case Modem::InitResult::ready:
            modem_ready();
            break;
        case Modem::InitResult::gone:
            lost(kExitGone, "the device went away");
            break;
        case Modem::InitResult::sim_locked:
            // Ending at once would have the daemon restart us at once, over
            // and over; a locked SIM stays locked for a while.
            log("the SIM is not ready; enter its PIN or remove the lock");
            sim_exit_at_ = Clock::now() + opt_.reopen * 6;
            open_at_ = *sim_exit_at_;
            break;
        case Modem::InitResult::no_answer:
            log("the modem does not answer; trying again");
            break;
    }
}

void Transceiver::modem_ready() {
    ready_ = true;
    log("modem ready");
    signal_at_ = Clock::now();  // read the signal and the stored messages now
}

void Transceiver::lost(int status, const char* why) {
    log("%s; ending with status %d", why, status);
    ready_ = false;
    exit_ = status;
}

void Transceiver::shutdown() {
    if (peers_.holds_port()) {
        peers_.release_port();
        peers_.tell_others("port");
    }
    const std::string pid_file = paths_.map("/var/run/txrx_pid_file");
    // Ending on a failure: be the line the daemon looks at, so it restarts us.
    if (exit_ > 0) {
        pid_file_promote(pid_file, ::getpid());
    } else {
        pid_file_remove(pid_file, ::getpid());
    }
}

void Transceiver::serve_modem_lines() {
    if (!at_ || !ready_) return;
    auto& queue = at_->unsolicited();
    // Reading a message may bring new lines; the queue is bounded by what
    // the modem sends.
    for (int n = 0; !queue.empty() && n < 64 && exit_ < 0; ++n) {
        std::string line = std::move(queue.front());
        queue.pop_front();
        int index = indication_index(line);
        if (index >= 0 && starts_with(line, "+CMTI:")) {
            take_stored(index);
        } else if (starts_with(line, "+CDS")) {
            std::string pdu = queue.empty() ? "" : queue.front();
            if (!pdu.empty() && !queue.empty()) queue.pop_front();
            log("status report: %s %.80s", line.c_str(), pdu.c_str());
        }
    }
    if (at_->gone()) lost(kExitGone, "the device went away");
}

void Transceiver::take_stored(int index) {
    auto message = modem_->read(index);
    if (!message) return;
    // Delete from the SIM only once the message is reported and written.
    if (receiver_.take(message->pdu)) modem_->remove(index);
}

void Transceiver::serve_port() {
    for (int n = 0; n < kDatagramsPerPass && peers_.holds_port(); ++n) {
        auto d = receive_datagram(peers_.port_fd(), kDatagramMax);
        if (!d) return;
        std::string text = printable(*d);
        if (auto handoff = parse_handoff(*d)) {
            if (worker_.accept(*handoff)) peers_.tell_others("job");
        } else if (starts_with(text, "cmd ")) {
            control(text);
            peers_.tell_others(text);
        } else {
            log("ignored a datagram of %zu bytes: \"%s\"", d->size(), text.c_str());
        }
    }
}

void Transceiver::serve_private() {
    for (int n = 0; n < kDatagramsPerPass; ++n) {
        auto d = receive_datagram(peers_.private_fd(), kDatagramMax);
        if (!d) return;
        if (*d == "job") {
            worker_.rescan();
        } else if (*d == "port") {
            peers_.hold_port();
        } else if (starts_with(*d, "cmd ")) {
            control(printable(*d));
        }
    }
}

void Transceiver::control(const std::string& text) {
    log("control: %s", text.c_str());
    if (starts_with(text, "cmd reset_modem")) {
        if (!modem_) return;
        ready_ = false;
        at_->flush();
        open_at_ = Clock::now();
        modem_->at().command("AT+CFUN=1,1", opt_.timeout);
    } else if (starts_with(text, "cmd signal_strength_cmd ")) {
        std::string cmd = text.substr(24);
        while (!cmd.empty() && cmd.back() == ' ') cmd.pop_back();
        if (!starts_with(cmd, "AT") || cmd.size() > 60) {
            log("refused signal command \"%s\": it must be an AT command", cmd.c_str());
        } else if (modem_) {
            modem_->set_signal_command(cmd);
        }
    }
    // "cmd set-sms-timer" and "cmd set-sms-status" set up the HTTP relay of
    // the daemon; they change nothing here (logged above).
}

void Transceiver::timers() {
    const auto now = Clock::now();
    if (!peers_.holds_port() && now >= port_at_) {
        port_at_ = now + kPortRetry;
        if (peers_.hold_port()) log("took over the job port");
    }
    if (sim_exit_at_ && now >= *sim_exit_at_) lost(kExitSim, "the SIM is locked");
    if ((!at_ || !ready_) && now >= open_at_ && exit_ < 0) open_modem();
    if (worker_.has_jobs() && now >= rescan_at_) {
        rescan_at_ = now + kRescan;
        worker_.rescan();
    }
    if (now >= signal_at_) {
        signal_at_ = now + opt_.signal_interval;
        poll_signal();
    }
}

void Transceiver::poll_signal() {
    worker_.rescan();
    receiver_.sweep();
    if (!ready_) return;
    if (auto q = modem_->signal()) {
        SignalQuality s{opt_.device, q->first, q->second,
                        static_cast<long long>(std::time(nullptr))};
        write_file_atomic(paths_.map(signal_quality_file(opt_.device)), encode_signal_quality(s));
    }
    // Messages whose indication was lost, and those stored before we ran.
    for (const StoredMessage& m : modem_->list()) {
        if (m.stat == 0 || m.stat == 1) take_stored(m.index);
    }
    if (at_->gone()) lost(kExitGone, "the device went away");
}

void Transceiver::work() {
    if (!ready_ || exit_ >= 0) return;
    switch (worker_.step(*modem_)) {
        case JobWorker::Step::modem_gone:
            lost(kExitGone, "the device went away");
            break;
        case JobWorker::Step::modem_timeout:
            log("the modem stopped answering; starting it again");
            ready_ = false;
            at_->flush();
            open_at_ = Clock::now();
            break;
        default:
            break;
    }
}

}  // namespace smsgw::txrx
