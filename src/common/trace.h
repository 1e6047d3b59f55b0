// Diagnostic trace lines on standard error. They carry no meaning for the
// logic; they are printed only when SMSGW_TRACE is set in the environment
// (or trace_enable(true) was called), so a quiet daemon stays quiet.
#pragma once

namespace smsgw {

void trace_enable(bool on);
bool trace_enabled();

// printf-style; a no-op while tracing is off.
void trace(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

}  // namespace smsgw
