// The job files the daemon hands over: where they may lie, and reading
// their text and one recipient at a time (a job for every contact is large;
// it is never read whole).
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "common/fileops.h"

namespace smsgw::txrx {

// A hand-off datagram: "PATH" (NUL-padded) or "api PATH". Control texts
// ("cmd ...") and anything else give nullopt.
struct Handoff {
    std::string path;
    bool api = false;
};
std::optional<Handoff> parse_handoff(std::string_view datagram);

class JobFile {
  public:
    // Opens a job path the way the daemon checks request files: absolute,
    // directly inside `spool` (the directory the daemon writes jobs to,
    // resolved), no "..", a regular file reached without a symlink. An
    // empty *why on success.
    static std::optional<JobFile> open(const std::string& path, const std::string& spool,
                                       std::string* why);

    const std::string& text() const { return text_; }
    size_t recipients() const { return recipients_; }
    // The number of recipient `i` (text up to its NUL, all 50 bytes
    // without one); nullopt when it cannot be read.
    std::optional<std::string> recipient(size_t i) const;

  private:
    JobFile() = default;
    Fd fd_;
    std::string text_field_;
    std::string text_;
    size_t recipients_ = 0;
};

}  // namespace smsgw::txrx
