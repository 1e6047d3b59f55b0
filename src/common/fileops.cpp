#include "common/fileops.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <random>

namespace smsgw {

void Fd::reset(int fd) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
}

bool Fd::close_checked() {
    if (fd_ < 0) return true;
    int r = ::close(fd_);
    fd_ = -1;
    return r == 0;
}

FilePtr open_file(const std::string& path, const char* mode) {
    std::string m = mode;
    m += 'e';  // O_CLOEXEC
    return FilePtr(std::fopen(path.c_str(), m.c_str()));
}

long long file_size(const std::string& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return 0;
    return static_cast<long long>(st.st_size);
}

bool file_exists(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

std::optional<std::string> read_file(const std::string& path, size_t max_bytes) {
    Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) return std::nullopt;
    std::string out;
    char buf[8192];
    while (out.size() < max_bytes) {
        size_t want = std::min(sizeof buf, max_bytes - out.size());
        ssize_t n = ::read(fd.get(), buf, want);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        out.append(buf, static_cast<size_t>(n));
    }
    return out;
}

bool write_all(int fd, std::string_view data) {
    while (!data.empty()) {
        ssize_t n = ::write(fd, data.data(), data.size());
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data.remove_prefix(static_cast<size_t>(n));
    }
    return true;
}

static std::string dir_of(const std::string& path) {
    size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

bool fsync_dir_of(const std::string& path) {
    Fd d(::open(dir_of(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!d) return false;
    return ::fsync(d.get()) == 0;
}

bool replace_file(const std::string& temp, const std::string& path) {
    if (::rename(temp.c_str(), path.c_str()) != 0) return false;
    fsync_dir_of(path);
    return true;
}

bool write_file_atomic(const std::string& path, std::string_view content) {
    size_t slash = path.rfind('/');
    std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    Fd fd;
    auto temp = create_temp_file(dir_of(path), "." + base + ".tmp", &fd);
    if (!temp) return false;
    // The temporary is private while written; the result is an ordinary
    // readable file, as one written in place would be.
    bool ok = ::fchmod(fd.get(), 0644) == 0;
    ok = ok && write_all(fd.get(), content) && ::fsync(fd.get()) == 0;
    ok = fd.close_checked() && ok;
    if (!ok || !replace_file(*temp, path)) {
        ::unlink(temp->c_str());
        return false;
    }
    return true;
}

namespace {

// The daemon's own files live at fixed names in directories others may
// write to: a symlink planted at such a name is replaced, never followed.
int open_own_file(const std::string& path, int flags) {
    flags |= O_NOFOLLOW | O_CLOEXEC;
    int fd = ::open(path.c_str(), flags, 0644);
    if (fd < 0 && errno == ELOOP && ::unlink(path.c_str()) == 0)
        fd = ::open(path.c_str(), flags, 0644);
    return fd;
}

}  // namespace

bool write_file(const std::string& path, std::string_view content) {
    Fd fd(open_own_file(path, O_WRONLY | O_CREAT | O_TRUNC));
    if (!fd) return false;
    bool ok = write_all(fd.get(), content);
    return fd.close_checked() && ok;
}

bool truncate_file(const std::string& path, long long size) {
    Fd fd(::open(path.c_str(), O_WRONLY | O_NOFOLLOW | O_CLOEXEC));
    return fd && ::ftruncate(fd.get(), static_cast<off_t>(size)) == 0;
}

bool append_file(const std::string& path, std::string_view content) {
    Fd fd(open_own_file(path, O_WRONLY | O_CREAT | O_APPEND));
    if (!fd) return false;
    bool ok = write_all(fd.get(), content);
    return fd.close_checked() && ok;
}

bool touch_file(const std::string& path) {
    Fd fd(open_own_file(path, O_WRONLY | O_CREAT));
    return fd.valid();
}

bool make_dir(const std::string& path) {
    return ::mkdir(path.c_str(), 0755) == 0 || errno == EEXIST;
}

bool make_dirs(const std::string& path) {
    for (size_t i = 1; i <= path.size(); ++i) {
        if (i == path.size() || path[i] == '/') {
            if (!make_dir(path.substr(0, i))) return false;
        }
    }
    return true;
}

bool remove_file(const std::string& path) {
    return ::unlink(path.c_str()) == 0;
}

bool rename_file(const std::string& from, const std::string& to) {
    return ::rename(from.c_str(), to.c_str()) == 0;
}

std::optional<std::string> create_temp_file(const std::string& dir, std::string_view prefix,
                                            Fd* out) {
    static std::mt19937_64 rng{std::random_device{}() ^ static_cast<unsigned>(::getpid())};
    static const char kChars[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    for (int attempt = 0; attempt < 100; ++attempt) {
        std::string path = dir;
        if (path.empty() || path.back() != '/') path += '/';
        path += prefix;
        for (int i = 0; i < 6; ++i) path += kChars[rng() % (sizeof kChars - 1)];
        int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (fd >= 0) {
            if (out)
                out->reset(fd);
            else
                ::close(fd);
            return path;
        }
        if (errno != EEXIST) return std::nullopt;
    }
    return std::nullopt;
}

FilePtr open_fixed_temp(const std::string& path, const char* mode) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) == 0) ::unlink(path.c_str());
    int flags = O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    bool plus = std::strchr(mode, '+') != nullptr;
    flags |= plus ? O_RDWR : O_WRONLY;
    if (mode[0] == 'a') flags |= O_APPEND;
    int fd = ::open(path.c_str(), flags, 0600);
    if (fd < 0) return FilePtr();
    FILE* f = ::fdopen(fd, mode);
    if (!f) {
        ::close(fd);
        return FilePtr();
    }
    return FilePtr(f);
}

}  // namespace smsgw
