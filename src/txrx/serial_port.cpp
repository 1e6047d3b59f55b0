#include "txrx/serial_port.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <termios.h>

#include <cerrno>
#include <cstring>

namespace smsgw::txrx {

namespace {

speed_t speed_code(int baud) {
    struct Speed {
        int bits;
        speed_t code;
    };
    static constexpr Speed kSpeeds[] = {{1200, B1200},     {2400, B2400},     {4800, B4800},
                                        {9600, B9600},     {19200, B19200},   {38400, B38400},
                                        {57600, B57600},   {115200, B115200}, {230400, B230400},
                                        {460800, B460800}, {921600, B921600}};
    for (const Speed& s : kSpeeds)
        if (s.bits == baud) return s.code;
    return B115200;
}

}  // namespace

Fd open_serial(const std::string& path, int baud, bool rtscts, std::string* why) {
    Fd fd(::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    if (!fd) {
        *why = std::strerror(errno);
        return fd;
    }
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0 || !S_ISCHR(st.st_mode)) {
        *why = "not a character device";
        return Fd();
    }
    termios tio{};
    if (::tcgetattr(fd.get(), &tio) != 0) {
        *why = std::string("not a terminal: ") + std::strerror(errno);
        return Fd();
    }
    ::cfmakeraw(&tio);
    tio.c_cflag &= ~static_cast<tcflag_t>(CSIZE | PARENB | CSTOPB | CRTSCTS);
    tio.c_cflag |= CS8 | CREAD | CLOCAL | (rtscts ? CRTSCTS : 0);
    tio.c_cc[VMIN] = 0;
    tio.c_cc[VTIME] = 0;
    ::cfsetispeed(&tio, speed_code(baud));
    ::cfsetospeed(&tio, speed_code(baud));
    if (::tcsetattr(fd.get(), TCSANOW, &tio) != 0) {
        *why = std::string("cannot set the line: ") + std::strerror(errno);
        return Fd();
    }
    ::tcflush(fd.get(), TCIOFLUSH);
    return fd;
}

}  // namespace smsgw::txrx
