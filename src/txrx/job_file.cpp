#include "txrx/job_file.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "common/bytes.h"

namespace smsgw::txrx {

namespace {

constexpr size_t kTextField = 160;
constexpr size_t kNumberRecord = 50;
constexpr size_t kMaxPath = 99;  // a hand-off datagram is 100 bytes with its NUL

std::string real_dir(const std::string& dir) {
    char buf[PATH_MAX];
    return ::realpath(dir.c_str(), buf) ? std::string(buf) : std::string();
}

}  // namespace

std::optional<Handoff> parse_handoff(std::string_view datagram) {
    datagram = datagram.substr(0, datagram.find('\0'));
    Handoff h;
    if (datagram.substr(0, 4) == "api ") {
        h.api = true;
        datagram.remove_prefix(4);
    }
    if (datagram.empty() || datagram[0] != '/') return std::nullopt;
    h.path = std::string(datagram);
    return h;
}

std::optional<JobFile> JobFile::open(const std::string& path, const std::string& spool,
                                     std::string* why) {
    size_t slash = path.rfind('/');
    if (path.empty() || path[0] != '/' || path.size() > kMaxPath ||
        path.find("/..") != std::string::npos || slash + 1 == path.size()) {
        *why = "not an absolute file path";
        return std::nullopt;
    }
    std::string parent = real_dir(slash == 0 ? "/" : path.substr(0, slash));
    if (parent.empty() || parent != real_dir(spool)) {
        *why = "outside the job spool";
        return std::nullopt;
    }
    JobFile job;
    job.fd_.reset(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat st {};
    if (!job.fd_) {
        *why = errno == ENOENT ? "no such job file" : errno == ELOOP ? "a symlink" : "unreadable";
        return std::nullopt;
    }
    if (::fstat(job.fd_.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        *why = "not a regular file";
        return std::nullopt;
    }
    char text[kTextField];
    if (st.st_size < static_cast<off_t>(kTextField) ||
        ::pread(job.fd_.get(), text, kTextField, 0) != static_cast<ssize_t>(kTextField)) {
        *why = "shorter than its text field";
        return std::nullopt;
    }
    job.text_ = field_text(text, kTextField);
    job.recipients_ = (static_cast<size_t>(st.st_size) - kTextField) / kNumberRecord;
    why->clear();
    return job;
}

std::optional<std::string> JobFile::recipient(size_t i) const {
    char rec[kNumberRecord];
    auto at = static_cast<off_t>(kTextField + kNumberRecord * i);
    if (i >= recipients_ || ::pread(fd_.get(), rec, sizeof rec, at) != sizeof rec)
        return std::nullopt;
    return field_text(rec, sizeof rec);
}

}  // namespace smsgw::txrx
