#include "txrx/at_channel.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>

namespace smsgw::txrx {

namespace {

using Clock = std::chrono::steady_clock;

int ms_until(Clock::time_point deadline) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    return left.count() < 0 ? 0 : static_cast<int>(left.count());
}

}  // namespace

bool AtChannel::write_text(std::string_view text) {
    if (gone_) return false;
    if (!write_all(fd_.get(), text)) {
        gone_ = true;
        return false;
    }
    return true;
}

bool AtChannel::read_some(Clock::time_point deadline) {
    if (gone_) return false;
    pollfd p{fd_.get(), POLLIN, 0};
    int r = ::poll(&p, 1, ms_until(deadline));
    if (r < 0) return errno == EINTR;
    if (r == 0) return false;
    if (p.revents & POLLIN) {
        char buf[512];
        ssize_t n = ::read(fd_.get(), buf, sizeof buf);
        if (n > 0) {
            reader_.feed(std::string_view(buf, static_cast<size_t>(n)));
            while (reader_.has_line()) route(reader_.take());
            return true;
        }
        if (n < 0 && (errno == EAGAIN || errno == EINTR)) return true;
    }
    // End of file, a read error or a hang-up: the device has gone away.
    gone_ = true;
    return false;
}

void AtChannel::route(AtLine line) {
    if (pdu_follows_ && line.kind == AtLine::Kind::line) {
        pdu_follows_ = false;
        unsolicited_.push_back(std::move(line.text));
        return;
    }
    if (line.kind == AtLine::Kind::line && is_unsolicited(line.text)) {
        pdu_follows_ = announces_pdu(line.text);
        unsolicited_.push_back(std::move(line.text));
        return;
    }
    answer_.push_back(std::move(line));
}

bool AtChannel::pump() {
    while (!gone_) {
        pollfd p{fd_.get(), POLLIN, 0};
        if (::poll(&p, 1, 0) <= 0) break;
        if (!read_some(Clock::now())) break;
    }
    // Answer lines outside an exchange are noise.
    answer_.clear();
    return !gone_;
}

void AtChannel::flush() {
    reader_.clear();
    answer_.clear();
    pdu_follows_ = false;
}

bool AtChannel::next_line(AtLine& line, Clock::time_point deadline) {
    while (answer_.empty()) {
        if (gone_ || Clock::now() >= deadline) return false;
        read_some(deadline);
    }
    line = std::move(answer_.front());
    answer_.pop_front();
    return true;
}

AtResult AtChannel::collect(std::string_view echo, Clock::time_point deadline) {
    AtResult result;
    AtLine line;
    while (next_line(line, deadline)) {
        if (line.kind != AtLine::Kind::line || line.text == echo) continue;
        if (!is_final(line.text)) {
            result.lines.push_back(std::move(line.text));
            continue;
        }
        result.status = line.text == "OK" ? AtResult::ok : AtResult::error;
        result.code = error_code(line.text);
        return result;
    }
    result.status = gone_ ? AtResult::gone : AtResult::timeout;
    return result;
}

AtResult AtChannel::command(std::string_view cmd, std::chrono::milliseconds timeout) {
    answer_.clear();  // whatever came before belongs to no command
    std::string text(cmd);
    text += '\r';
    if (!write_text(text)) return AtResult::of(AtResult::gone);
    return collect(cmd, Clock::now() + timeout);
}

AtResult AtChannel::send_pdu(size_t tpdu_length, std::string_view hex,
                             std::chrono::milliseconds timeout) {
    answer_.clear();
    std::string cmd = "AT+CMGS=" + std::to_string(tpdu_length);
    if (!write_text(cmd + "\r")) return AtResult::of(AtResult::gone);
    const auto deadline = Clock::now() + timeout;
    AtLine line;
    while (next_line(line, deadline)) {
        if (line.kind == AtLine::Kind::prompt) {
            std::string body(hex);
            body += '\x1A';
            if (!write_text(body)) return AtResult::of(AtResult::gone);
            return collect(cmd, deadline);
        }
        if (line.kind == AtLine::Kind::line && is_final(line.text)) {
            AtResult refused = AtResult::of(AtResult::error);
            refused.code = error_code(line.text);
            return refused;
        }
    }
    write_text("\x1B");  // leave the text-input state the modem may be in
    return AtResult::of(gone_ ? AtResult::gone : AtResult::timeout);
}

}  // namespace smsgw::txrx
