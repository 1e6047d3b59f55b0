// File work done with system calls instead of shell commands: RAII owners
// for descriptors and streams, sizes, truncation, appends, atomic replace,
// exclusive temporary files.
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace smsgw {

// Move-only owner of a file descriptor; closes it on destruction.
class Fd {
  public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    Fd(Fd&& o) noexcept : fd_(o.release()) {}
    Fd& operator=(Fd&& o) noexcept {
        if (this != &o) reset(o.release());
        return *this;
    }
    ~Fd() { reset(); }
    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    explicit operator bool() const { return valid(); }
    int release() {
        int f = fd_;
        fd_ = -1;
        return f;
    }
    void reset(int fd = -1);
    // Closes and reports whether the close succeeded (write paths check it).
    bool close_checked();

  private:
    int fd_ = -1;
};

struct FileCloser {
    void operator()(FILE* f) const {
        if (f) std::fclose(f);
    }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

// fopen() with O_CLOEXEC.
FilePtr open_file(const std::string& path, const char* mode);

// Size in bytes; 0 when the file cannot be examined (never negative).
long long file_size(const std::string& path);
bool file_exists(const std::string& path);

// Whole-file read, at most max_bytes (nullopt when it cannot be opened).
std::optional<std::string> read_file(const std::string& path, size_t max_bytes = 64u << 20);

// Replaces the file's content: temporary file in the same directory,
// fsync, rename over the original, fsync of the directory.
bool write_file_atomic(const std::string& path, std::string_view content);

// Durable rename of an already written temporary file over `path`.
bool replace_file(const std::string& temp, const std::string& path);

// Writes all of `data` to `fd` (retrying short writes and EINTR).
bool write_all(int fd, std::string_view data);

// Plain (non-atomic) write, truncating: the "> FILE" of a shell. These
// writers (and touch_file) replace a symlink at the name instead of
// following it: they are only used on names the daemon forms itself.
bool write_file(const std::string& path, std::string_view content);
bool truncate_file(const std::string& path, long long size);  // never through a symlink
bool append_file(const std::string& path, std::string_view content);
bool touch_file(const std::string& path);
bool make_dir(const std::string& path);   // true also when it exists
bool make_dirs(const std::string& path);  // mkdir -p
bool remove_file(const std::string& path);
bool rename_file(const std::string& from, const std::string& to);
bool fsync_dir_of(const std::string& path);

// Creates a fresh file "DIR/PREFIXxxxxxx" exclusively (O_CREAT|O_EXCL|
// O_NOFOLLOW, mode 0600). Returns the path, with the descriptor in *fd
// when given (else it is closed). nullopt when no name could be created.
std::optional<std::string> create_temp_file(const std::string& dir, std::string_view prefix,
                                            Fd* fd = nullptr);

// Opens a fixed temporary name for writing without following a symlink
// planted there: a symlink (or any other non-regular file) at the name is
// removed first, then the file is created exclusively (mode 0600).
FilePtr open_fixed_temp(const std::string& path, const char* mode = "w");

}  // namespace smsgw
