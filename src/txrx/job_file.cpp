#include "txrx/job_file.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "formats/job_file.h"
#include "formats/txrx_datagram.h"

namespace smsgw::txrx {

namespace {

constexpr size_t kTextField = smsgw::JobFile::kTextSize;
constexpr size_t kNumberRecord = smsgw::JobFile::kRecordSize;
constexpr size_t kMaxPath = 99;  // a hand-off datagram is 100 bytes with its NUL

std::string real_dir(const std::string& dir) {
    char buf[PATH_MAX];
    return ::realpath(dir.c_str(), buf) ? std::string(buf) : std::string();
}

}  // namespace

std::optional<Handoff> parse_handoff(std::string_view datagram) {
    TxrxDatagram d = decode_txrx_datagram(datagram);
    if (d.kind == TxrxDatagram::Kind::Control) return std::nullopt;
    return Handoff{d.text, d.kind == TxrxDatagram::Kind::ApiJob};
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
    job.text_field_.resize(kTextField);
    auto decoded = ::pread(job.fd_.get(), job.text_field_.data(), kTextField, 0) ==
                           static_cast<ssize_t>(kTextField)
                       ? decode_job_file(job.text_field_)
                       : std::nullopt;
    if (!decoded) {
        *why = "shorter than its text field";
        return std::nullopt;
    }
    job.text_ = decoded->text();
    job.recipients_ = (static_cast<size_t>(st.st_size) - kTextField) / kNumberRecord;
    why->clear();
    return job;
}

std::optional<std::string> JobFile::recipient(size_t i) const {
    // The text field and the one record: a job file of one recipient.
    std::string image = text_field_ + std::string(kNumberRecord, '\0');
    auto at = static_cast<off_t>(kTextField + kNumberRecord * i);
    if (i >= recipients_ ||
        ::pread(fd_.get(), image.data() + kTextField, kNumberRecord, at) != kNumberRecord)
        return std::nullopt;
    auto job = decode_job_file(image);
    if (!job || job->numbers.size() != 1) return std::nullopt;
    return job->numbers[0];
}

}  // namespace smsgw::txrx
