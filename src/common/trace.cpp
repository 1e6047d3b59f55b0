#include "common/trace.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace smsgw {

namespace {
int g_trace = -1;  // -1: not decided yet, read the environment once
}

void trace_enable(bool on) {
    g_trace = on ? 1 : 0;
}

bool trace_enabled() {
    if (g_trace < 0) {
        const char* env = std::getenv("SMSGW_TRACE");
        g_trace = (env != nullptr && *env != '\0' && *env != '0') ? 1 : 0;
    }
    return g_trace == 1;
}

// printf-style on purpose: the trace lines are format strings.
void trace(const char* fmt, ...) {  // NOLINT(cert-dcl50-cpp)
    if (!trace_enabled()) return;
    va_list ap;
    va_start(ap, fmt);
    std::vfprintf(stderr, fmt, ap);
    va_end(ap);
}

}  // namespace smsgw
