#include "common/net.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/trace.h"

namespace smsgw {

sockaddr_in loopback_address(uint16_t port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
}

Fd bind_udp(uint16_t port) {
    Fd fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd) return fd;
    sockaddr_in a = loopback_address(port);
    if (::bind(fd.get(), reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) return Fd();
    return fd;
}

Fd bind_unix_dgram(const std::string& path) {
    Fd fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd) return fd;
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    if (path.size() >= sizeof a.sun_path) {
        errno = ENAMETOOLONG;
        return Fd();
    }
    std::memcpy(a.sun_path, path.c_str(), path.size() + 1);
    ::unlink(path.c_str());
    if (::bind(fd.get(), reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) return Fd();
    return fd;
}

bool set_nonblocking(int fd) {
    int flags = ::fcntl(fd, F_GETFL);
    return flags >= 0 && ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

ssize_t send_udp(uint16_t port, const void* data, size_t len) {
    Fd fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd) return -1;
    sockaddr_in a = loopback_address(port);
    return ::sendto(fd.get(), data, len, 0, reinterpret_cast<sockaddr*>(&a), sizeof a);
}

ssize_t database_notice(const Runtime& rt, const std::string& path) {
    std::string msg = "add " + path;
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::string dest = rt.path("/var/run/SQL_SMS");
    if (dest.size() >= sizeof a.sun_path || rt.sql_sms_fd < 0) return -1;
    std::memcpy(a.sun_path, dest.c_str(), dest.size() + 1);
    return ::sendto(rt.sql_sms_fd, msg.c_str(), msg.size() + 1, 0, reinterpret_cast<sockaddr*>(&a),
                    sizeof a);
}

const char* send_to_http_client(const Runtime& rt, std::string_view text) {
    Fd fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (fd.get() < 1) return "ERROR";
    std::string msg(text);
    sockaddr_in a = loopback_address(rt.ports.http());
    ::sendto(fd.get(), msg.c_str(), msg.size() + 1, 0, reinterpret_cast<sockaddr*>(&a), sizeof a);
    trace("After Sending Message\r\n");
    return "SUCCESS";
}

}  // namespace smsgw
