#include "txrx/log.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdio>

namespace smsgw::txrx {

namespace {
std::string g_device;
}

void set_log_device(const std::string& device) {
    g_device = device;
}

// printf-style; the format attribute in the header checks the arguments.
void log(const char* format, ...) {  // NOLINT(cert-dcl50-cpp)
    char text[600];
    va_list ap;
    va_start(ap, format);
    std::vsnprintf(text, sizeof text, format, ap);
    va_end(ap);
    std::fprintf(stderr, "txrx[%d] %s: %s\n", static_cast<int>(::getpid()), g_device.c_str(), text);
}

}  // namespace smsgw::txrx
