// Modem output as it might come over the line: cut into chunks, split into
// lines by the reader, taken as a listing, indications and signal answers,
// and played to the AT dialogue as the answer to a command.
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "txrx/at_channel.h"
#include "txrx/at_reader.h"
#include "txrx/modem.h"

using namespace smsgw;
using namespace smsgw::txrx;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view in(reinterpret_cast<const char*>(data), size);
    AtReader reader;
    const size_t chunk = size > 0 ? 1 + data[0] % 64 : 1;
    for (size_t at = 0; at < in.size(); at += chunk) reader.feed(in.substr(at, chunk));
    std::vector<std::string> lines;
    while (reader.has_line()) {
        AtLine line = reader.take();
        if (line.text.size() > kMaxLine ||
            line.text.find_first_of(std::string("\r\n\0", 3)) != std::string::npos)
            __builtin_trap();
        lines.push_back(line.text);
        indication_index(line.text);
        error_code(line.text);
    }
    for (const StoredMessage& m : parse_listing(lines)) {
        if (m.pdu.empty() || m.pdu.size() % 2 != 0 || m.index < 0) __builtin_trap();
    }
    parse_signal(lines);

    ::signal(SIGPIPE, SIG_IGN);  // as in txrx: writing to a gone peer is an error
    int sv[2];
    if (size > 65536 || ::socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) return 0;
    if (::write(sv[1], data, size) != static_cast<ssize_t>(size)) {
        ::close(sv[1]);
        ::close(sv[0]);
        return 0;
    }
    ::close(sv[1]);
    AtChannel at{Fd(sv[0])};
    // The peer is gone after its output: every exchange ends without waiting.
    AtResult r = at.command("AT+CMGL=4", std::chrono::milliseconds(1000));
    if (r.status == AtResult::timeout) __builtin_trap();
    at.pump();
    return 0;
}
