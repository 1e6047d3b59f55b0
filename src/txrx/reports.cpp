#include "txrx/reports.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "common/bytes.h"

namespace smsgw::txrx {

namespace {

// The longest prefix of a UTF-8 text within `max` bytes that does not end
// inside a character.
std::string_view cut_utf8(std::string_view text, size_t max) {
    if (text.size() <= max) return text;
    size_t n = max;
    while (n > 0 && (static_cast<unsigned char>(text[n]) & 0xC0) == 0x80) --n;
    return text.substr(0, n);
}

}  // namespace

std::string job_done_report() {
    return "P_JB";
}

std::string api_status_report(std::string_view job_path, int status) {
    return "API:api " + std::string(job_path) + " " + std::to_string(status);
}

std::string incoming_report(std::string_view sender, std::string_view text) {
    char field[50];
    copy_field(field, sizeof field, sender);
    std::string out = "SMS:";
    out.append(field, sizeof field);
    out.append(cut_utf8(text, kReportTextMax));
    return out;
}

std::string inbox_record(std::string_view sender, std::string_view date, std::string_view time,
                         std::string_view text) {
    std::string body = std::string(sender) + "^|^" + std::string(date) + "^|^" + std::string(time) +
                       "^|^" + std::string(text);
    std::string out;
    append_i32(out, static_cast<int32_t>(body.size()));
    return out + body;
}

Reporter::Reporter(uint16_t port)
    : fd_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)), port_(port) {}

bool Reporter::send(std::string_view datagram) const {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port_);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return ::sendto(fd_.get(), datagram.data(), datagram.size(), 0,
                    reinterpret_cast<const sockaddr*>(&to),
                    sizeof to) == static_cast<ssize_t>(datagram.size());
}

bool append_inbox(const std::string& path, std::string_view record) {
    Fd fd(::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!fd) return false;
    bool ok = write_all(fd.get(), record) && ::fsync(fd.get()) == 0;
    return fd.close_checked() && ok;
}

}  // namespace smsgw::txrx
