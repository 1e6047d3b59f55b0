#include "common/txrx_link.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "common/fileops.h"

namespace smsgw {

bool TxrxLink::send(std::string_view datagram) const {
    Fd fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (fd.get() <= 0) return false;
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port_);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::sendto(fd.get(), datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr*>(&to),
             sizeof to);
    return true;
}

}  // namespace smsgw
