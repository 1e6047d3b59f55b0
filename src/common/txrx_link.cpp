#include "common/txrx_link.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "common/fileops.h"
#include "common/net.h"

namespace smsgw {

bool TxrxLink::send(std::string_view datagram) const {
    Fd fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (fd.get() <= 0) return false;
    sockaddr_in to = loopback_address(port_);
    ::sendto(fd.get(), datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr*>(&to),
             sizeof to);
    return true;
}

}  // namespace smsgw
