// Where the daemon's files live: every absolute path it forms itself is
// placed under one root directory ("/" on a router, a sandbox in tests).
#pragma once

#include <string>
#include <string_view>

namespace smsgw {

class Paths {
  public:
    explicit Paths(std::string root = "/");

    // Maps an absolute path such as "/var/run/RESPONSE_FILE" under the root.
    // With the root "/" the path is returned unchanged.
    std::string map(std::string_view absolute) const;

    // Inverse of map() for paths that lie under the root: gives the path as
    // the daemon's peers name it ("/dev/ttyS0"). Other paths come back as is.
    std::string unmap(std::string_view real) const;

    const std::string& root() const { return root_; }
    bool is_default() const { return root_.empty(); }

  private:
    std::string root_;  // without trailing slash; empty for "/"
};

}  // namespace smsgw
