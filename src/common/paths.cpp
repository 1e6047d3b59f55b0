#include "common/paths.h"

namespace smsgw {

Paths::Paths(std::string root) : root_(std::move(root)) {
    while (!root_.empty() && root_.back() == '/') root_.pop_back();
}

std::string Paths::map(std::string_view absolute) const {
    std::string out = root_;
    if (!absolute.empty() && absolute.front() != '/') out += '/';
    out += absolute;
    return out;
}

std::string Paths::unmap(std::string_view real) const {
    if (root_.empty()) return std::string(real);
    if (real.size() > root_.size() && real.compare(0, root_.size(), root_) == 0 &&
        real[root_.size()] == '/')
        return std::string(real.substr(root_.size()));
    return std::string(real);
}

}  // namespace smsgw
