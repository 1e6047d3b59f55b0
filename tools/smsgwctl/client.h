// The management protocol as the web interface speaks it: one command text
// to 127.0.0.1:20205 (+ offset) as two datagrams, its decimal length and
// then the text; one reply datagram back. Bulky results are left in a file
// the reply names; the client knows which file each request should name and
// reads its own path of it under the root.
#pragma once

#include <string>
#include <string_view>

#include "command_line.h"
#include "common/paths.h"

namespace smsgw::ctl {

class Client {
  public:
    explicit Client(const Global& g);

    // The reply to one command text. Throws a Failure (kExitUnreachable)
    // when nothing listens or nothing answers within the timeout.
    std::string request(const std::string& text) const;

    // Whether a reply names the file the daemon keeps at `absolute` (a
    // "/var/..." name): as the daemon of this root writes it, as a peer
    // without a root writes it, or through a symlinked root.
    bool names(const std::string& reply, std::string_view absolute) const;
    // The content of the file at `absolute` under the root; a Failure
    // (kExitLocal) when it cannot be read.
    std::string read(std::string_view absolute) const;
    // `absolute` under the root.
    std::string path(std::string_view absolute) const { return paths_.map(absolute); }
    // A path under the root as the daemon's peers name it ("/var/tmp/x").
    std::string unmap(std::string_view real) const { return paths_.unmap(real); }

    int port() const { return 20205 + g_.port_offset; }
    const Global& global() const { return g_; }

  private:
    const Global& g_;
    Paths paths_;
};

// The reply is the daemon's error text ("ERROR", "ERROR:...", or another
// text that names a failure); a Failure (kExitRefused) carries `meaning` and
// the reply.
[[noreturn]] void refused(const std::string& meaning, const std::string& reply);
// A reply the protocol does not allow here (kExitGarbled).
[[noreturn]] void garbled(const std::string& what, const std::string& reply);

// A reply that is not the success a request waited for: refused() with
// `context` and the reply's plain meaning when it is one of the daemon's
// failure texts, else garbled().
[[noreturn]] void fail(const std::string& reply, const std::string& context);

// What a failure text of the daemon means, in plain words; empty when the
// text is not one of its known failure texts.
std::string plain_meaning(std::string_view reply);

}  // namespace smsgw::ctl
