#include "txrx/reports.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "common/net.h"
#include "formats/txrx_report.h"

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

std::string incoming_report(std::string_view sender, std::string_view text) {
    return encode_incoming_report(sender, cut_utf8(text, kReportTextMax));
}

Reporter::Reporter(uint16_t port)
    : fd_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)), port_(port) {}

bool Reporter::send(std::string_view datagram) const {
    const sockaddr_in to = loopback_address(port_);
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
