// libpowercut-shim: preloaded into smsgwd by the power-cut simulator. It
// records every call that changes a file under the daemon's root, with its
// data, and every datagram the daemon sends or receives, into the operation
// log (oplog.h). Nothing is changed on the way: each call is passed on.
//
// Environment (read once, then removed so that the daemon's children run
// without the shim):
//   POWERCUT_LOG   the log file (appended to)
//   POWERCUT_ROOT  the daemon's root, as an absolute path without links
//   POWERCUT_FILES 1: record file operations (else only datagrams and files
//                  created outside the root)
//   POWERCUT_FAST  1: the daemon's pauses (sleep) return at once and its
//                  2-second select waits last 10 ms, so a run takes no
//                  longer than its work
//
// Writes made through stdio streams never pass through write(): glibc calls
// its own internal copy. The shim reads such a file back whenever the
// process makes any call the shim sees, and records what changed, so the
// log keeps the order of the stream's writes relative to every other call.
// Stores into a shared mapping are found the same way.
//
// Built without sanitizers: an instrumented daemon loads it ahead of its
// sanitizer runtime (with ASAN_OPTIONS=verify_asan_link_order=0).
#undef _FILE_OFFSET_BITS
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): a feature macro
#define _LARGEFILE64_SOURCE 1
#include <dlfcn.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "oplog.h"

namespace {

using powercut::OpType;

// ------------------------------------------------------------ real calls --

template <class F>
F real(F& slot, const char* name) {
    if (!slot) slot = reinterpret_cast<F>(::dlsym(RTLD_NEXT, name));
    return slot;
}

#define REAL(name) real(real_##name, #name)
#define SLOT(name) decltype(&::name) real_##name = nullptr

SLOT(open);
SLOT(open64);
SLOT(openat);
SLOT(openat64);
SLOT(fopen);
SLOT(fopen64);
SLOT(fdopen);
SLOT(fclose);
SLOT(fflush);
SLOT(close);
SLOT(write);
SLOT(pwrite);
SLOT(pwrite64);
SLOT(ftruncate);
SLOT(ftruncate64);
SLOT(truncate);
SLOT(truncate64);
SLOT(rename);
SLOT(renameat);
SLOT(unlink);
SLOT(unlinkat);
SLOT(link);
SLOT(mkdir);
SLOT(fsync);
SLOT(fdatasync);
SLOT(msync);
SLOT(mmap);
SLOT(mmap64);
SLOT(munmap);
SLOT(sendto);
SLOT(recvfrom);
SLOT(select);
SLOT(sleep);
SLOT(usleep);
SLOT(nanosleep);
SLOT(clock_nanosleep);

// ----------------------------------------------------------------- state --

struct Tracked {
    uint64_t ino = 0;
    bool writable = false;
    bool append = false;
};

struct Stream {
    FILE* file;
    int fd;
    uint64_t ino;
};

struct Mapping {
    char* addr;
    size_t len;
    uint64_t ino;
    int64_t offset;
    std::string last;
};

struct Shim {
    bool active = false;
    bool files = false;
    bool fast = false;
    pid_t owner = -1;
    int log_fd = -1;
    int depth = 0;
    std::string root;
    std::map<int, Tracked> fds;
    std::vector<Stream> streams;
    std::vector<Mapping> maps;
    std::map<uint64_t, std::string> known;  // content of stream-written files
};

// Never destroyed: calls keep coming while the process exits.
Shim& shim() {
    static Shim* s = new Shim;
    return *s;
}

// Keeps errno as the real call left it while the shim does its own work.
struct Quiet {
    int saved = errno;
    Shim& s = shim();
    Quiet() { ++s.depth; }
    ~Quiet() {
        --s.depth;
        errno = saved;
    }
};

bool on() {
    Shim& s = shim();
    return s.active && s.depth == 0 && ::getpid() == s.owner;
}

// ------------------------------------------------------------------- log --

void emit(OpType type, int64_t a, int64_t b, std::string_view s1 = {}, std::string_view s2 = {},
          std::string_view data = {}) {
    Shim& s = shim();
    if (s.log_fd < 0) return;
    std::string rec = powercut::encode_record(type, a, b, s1, s2, data);
    // One write per record: the driver appends to the same file.
    const char* p = rec.data();
    size_t left = rec.size();
    while (left > 0) {
        ssize_t n = REAL(write)(s.log_fd, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        p += n;
        left -= static_cast<size_t>(n);
    }
}

// ----------------------------------------------------------------- paths --

std::string normalize(const std::string& path) {
    std::vector<std::string> parts;
    size_t i = 0;
    while (i < path.size()) {
        size_t j = path.find('/', i);
        if (j == std::string::npos) j = path.size();
        std::string part = path.substr(i, j - i);
        if (part == "..") {
            if (!parts.empty()) parts.pop_back();
        } else if (!part.empty() && part != ".") {
            parts.push_back(part);
        }
        i = j + 1;
    }
    std::string out;
    for (const auto& p : parts) out += "/" + p;
    return out.empty() ? "/" : out;
}

std::string fd_path(int fd) {
    char link[64], buf[4096];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    ssize_t n = ::readlink(link, buf, sizeof buf - 1);
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
}

std::string absolute(int dirfd, const char* path) {
    if (!path) return {};
    if (path[0] == '/') return normalize(path);
    std::string base;
    if (dirfd == AT_FDCWD) {
        char cwd[4096];
        if (::getcwd(cwd, sizeof cwd)) base = cwd;
    } else {
        base = fd_path(dirfd);
    }
    return normalize(base + "/" + path);
}

bool inside(const std::string& abs) {
    const std::string& r = shim().root;
    return abs.size() > r.size() && abs.compare(0, r.size(), r) == 0 && abs[r.size()] == '/';
}

std::string relative(const std::string& abs) {
    return abs.substr(shim().root.size() + 1);
}

bool exists(const std::string& abs, struct stat64* st = nullptr) {
    struct stat64 local {};
    return ::lstat64(abs.c_str(), st ? st : &local) == 0;
}

// --------------------------------------------------------- observations --

// The whole file behind `fd`, read through a descriptor of its own (the
// stream's may be write-only).
std::string read_back(int fd) {
    char link[64];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    int in = REAL(open)(link, O_RDONLY | O_CLOEXEC);
    std::string out;
    if (in < 0) return out;
    char buf[65536];
    for (;;) {
        ssize_t n = ::read(in, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        out.append(buf, static_cast<size_t>(n));
    }
    REAL(close)(in);
    return out;
}

void diff_stream(const Stream& st) {
    std::string now = read_back(st.fd);
    std::string& was = shim().known[st.ino];
    if (now == was) return;
    size_t same = 0;
    while (same < now.size() && same < was.size() && now[same] == was[same]) ++same;
    auto ino = static_cast<int64_t>(st.ino);
    if (now.size() < was.size()) emit(OpType::Trunc, ino, static_cast<int64_t>(now.size()));
    if (same < now.size())
        emit(OpType::Write, ino, static_cast<int64_t>(same), {}, {},
             std::string_view(now).substr(same));
    was = std::move(now);
}

void diff_mapping(Mapping& m) {
    if (std::memcmp(m.addr, m.last.data(), m.len) == 0) return;
    m.last.assign(m.addr, m.len);
    emit(OpType::MapWrite, static_cast<int64_t>(m.ino), m.offset, {}, {}, m.last);
}

// Records what stdio and stores into mappings changed since the last call.
void observe() {
    Shim& s = shim();
    if (!s.files) return;
    for (const Stream& st : s.streams) diff_stream(st);
    for (Mapping& m : s.maps) diff_mapping(m);
}

// A call the shim looks at: `enter()` observes first; the guard then keeps
// errno and blocks the shim's own calls from being seen.
struct Call {
    bool seen = on();
    std::unique_ptr<Quiet> quiet;
    Call() {
        if (!seen) return;
        Quiet q;
        observe();
    }
    // After the real call: start of the shim's own work.
    void after() {
        if (seen) quiet = std::make_unique<Quiet>();
    }
};

const Tracked* tracked(int fd) {
    auto it = shim().fds.find(fd);
    return it == shim().fds.end() ? nullptr : &it->second;
}

// The inode behind `fd` when it is a file under the root.
bool inode_under_root(int fd, uint64_t& ino) {
    if (const Tracked* t = tracked(fd)) {
        ino = t->ino;
        return true;
    }
    if (!inside(fd_path(fd))) return false;
    struct stat64 st {};
    if (::fstat64(fd, &st) != 0) return false;
    ino = st.st_ino;
    return true;
}

void patch_known(uint64_t ino, int64_t off, const char* data, size_t n) {
    auto it = shim().known.find(ino);
    if (it == shim().known.end()) return;
    std::string& k = it->second;
    auto end = static_cast<size_t>(off) + n;
    if (k.size() < end) k.resize(end, '\0');
    k.replace(static_cast<size_t>(off), n, data, n);
}

void note_write(int fd, int64_t off, const void* data, ssize_t n) {
    const Tracked* t = tracked(fd);
    if (!t || !t->writable || n <= 0 || !shim().files) return;
    auto ino = static_cast<int64_t>(t->ino);
    emit(OpType::Write, ino, off, {}, {},
         std::string_view(static_cast<const char*>(data), static_cast<size_t>(n)));
    patch_known(t->ino, off, static_cast<const char*>(data), static_cast<size_t>(n));
}

void note_trunc(uint64_t ino, int64_t size) {
    if (!shim().files) return;
    emit(OpType::Trunc, static_cast<int64_t>(ino), size);
    auto it = shim().known.find(ino);
    if (it != shim().known.end()) it->second.resize(static_cast<size_t>(size), '\0');
}

// A file that came into being outside the root: reported, whatever the mode.
void note_outside(const std::string& abs, bool existed) {
    if (!existed && !abs.empty()) emit(OpType::Outside, 0, 0, abs);
}

// After a successful open of `abs`: its creation or truncation, and the
// descriptor from now on.
void note_open(int fd, const std::string& abs, int flags, bool existed, int64_t old_size) {
    if (!inside(abs)) {
        if (flags & O_CREAT) note_outside(abs, existed);
        return;
    }
    struct stat64 st {};
    if (::fstat64(fd, &st) != 0) return;
    const int acc = flags & O_ACCMODE;
    Tracked t{st.st_ino, acc == O_WRONLY || acc == O_RDWR, (flags & O_APPEND) != 0};
    shim().fds[fd] = t;
    if (!shim().files) return;
    if (!existed && (flags & O_CREAT))
        emit(OpType::Create, static_cast<int64_t>(st.st_ino), st.st_mode & 07777, relative(abs));
    else if (existed && (flags & O_TRUNC) && t.writable && old_size > 0)
        note_trunc(st.st_ino, 0);
}

int flags_of_mode(const char* mode) {
    bool plus = std::strchr(mode, '+') != nullptr;
    switch (mode[0]) {
        case 'w':
            return (plus ? O_RDWR : O_WRONLY) | O_CREAT | O_TRUNC;
        case 'a':
            return (plus ? O_RDWR : O_WRONLY) | O_CREAT | O_APPEND;
        default:
            return plus ? O_RDWR : O_RDONLY;
    }
}

void add_stream(FILE* f, int fd) {
    const Tracked* t = tracked(fd);
    if (!t || !t->writable || !shim().files) return;
    shim().streams.push_back({f, fd, t->ino});
    // Inode numbers are reused: what is known of an older file is stale.
    shim().known[t->ino] = read_back(fd);
}

void drop_fd(int fd) {
    Shim& s = shim();
    s.fds.erase(fd);
    for (size_t i = 0; i < s.streams.size(); ++i) {
        if (s.streams[i].fd != fd) continue;
        s.known.erase(s.streams[i].ino);
        s.streams.erase(s.streams.begin() + static_cast<long>(i));
        break;
    }
}

int port_of(const sockaddr* a) {
    if (!a || a->sa_family != AF_INET) return -1;
    return ntohs(reinterpret_cast<const sockaddr_in*>(a)->sin_port);
}

template <class F>
int open_call(F realfn, int dirfd, const char* path, int flags, mode_t mode) {
    Call c;
    if (!c.seen) return realfn(dirfd, path, flags, mode);
    std::string abs = absolute(dirfd, path);
    struct stat64 before {};
    bool existed = exists(abs, &before);
    int fd = realfn(dirfd, path, flags, mode);
    c.after();
    if (fd >= 0) note_open(fd, abs, flags, existed, before.st_size);
    return fd;
}

FILE* fopen_call(FILE* (*realfn)(const char*, const char*), const char* path, const char* mode) {
    Call c;
    if (!c.seen) return realfn(path, mode);
    std::string abs = absolute(AT_FDCWD, path);
    struct stat64 before {};
    bool existed = exists(abs, &before);
    FILE* f = realfn(path, mode);
    c.after();
    if (!f) return f;
    note_open(::fileno(f), abs, flags_of_mode(mode), existed, before.st_size);
    add_stream(f, ::fileno(f));
    return f;
}

mode_t mode_arg(int flags, va_list ap) {
    return (flags & (O_CREAT | __O_TMPFILE)) ? static_cast<mode_t>(va_arg(ap, int)) : 0;
}

int open_at(int dirfd, const char* path, int flags, mode_t mode) {
    return dirfd == AT_FDCWD ? REAL(open)(path, flags, mode)
                             : REAL(openat)(dirfd, path, flags, mode);
}

void* map_call(void* addr, int prot, int flags, int fd, int64_t offset, void* result, size_t len) {
    if (result == MAP_FAILED || !(flags & MAP_SHARED) || !(prot & PROT_WRITE)) return result;
    const Tracked* t = tracked(fd);
    if (!t || !shim().files) return result;
    char* p = static_cast<char*>(result);
    shim().maps.push_back({p, len, t->ino, offset, std::string(p, len)});
    (void)addr;
    return result;
}

__attribute__((constructor)) void start_shim() {
    const char* log = ::getenv("POWERCUT_LOG");
    const char* root = ::getenv("POWERCUT_ROOT");
    if (!log || !root) return;
    Shim& s = shim();
    s.root = normalize(root);
    s.files = ::getenv("POWERCUT_FILES") && std::strcmp(::getenv("POWERCUT_FILES"), "1") == 0;
    s.fast = ::getenv("POWERCUT_FAST") && std::strcmp(::getenv("POWERCUT_FAST"), "1") == 0;
    s.log_fd = REAL(open)(log, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    s.owner = ::getpid();
    s.active = s.log_fd >= 0;
    for (const char* v :
         {"LD_PRELOAD", "POWERCUT_LOG", "POWERCUT_ROOT", "POWERCUT_FILES", "POWERCUT_FAST"})
        ::unsetenv(v);
}

bool fast() {
    return shim().fast && on();
}

}  // namespace

// ------------------------------------------------------------ interposers --

extern "C" {

int open(const char* path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    mode_t mode = mode_arg(flags, ap);
    va_end(ap);
    return open_call(open_at, AT_FDCWD, path, flags, mode);
}

int open64(const char* path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    mode_t mode = mode_arg(flags, ap);
    va_end(ap);
    return open_call([](int, const char* p, int f, mode_t m) { return REAL(open64)(p, f, m); },
                     AT_FDCWD, path, flags, mode);
}

int openat(int dirfd, const char* path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    mode_t mode = mode_arg(flags, ap);
    va_end(ap);
    return open_call([](int d, const char* p, int f, mode_t m) { return REAL(openat)(d, p, f, m); },
                     dirfd, path, flags, mode);
}

int openat64(int dirfd, const char* path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    mode_t mode = mode_arg(flags, ap);
    va_end(ap);
    return open_call(
        [](int d, const char* p, int f, mode_t m) { return REAL(openat64)(d, p, f, m); }, dirfd,
        path, flags, mode);
}

FILE* fopen(const char* path, const char* mode) {
    return fopen_call(REAL(fopen), path, mode);
}

FILE* fopen64(const char* path, const char* mode) {
    return fopen_call(REAL(fopen64), path, mode);
}

FILE* fdopen(int fd, const char* mode) {
    Call c;
    FILE* f = REAL(fdopen)(fd, mode);
    c.after();
    if (c.seen && f && flags_of_mode(mode) != O_RDONLY) add_stream(f, fd);
    return f;
}

int fflush(FILE* f) {
    int r = REAL(fflush)(f);
    Call c;  // observes what the flush wrote
    return r;
}

int fclose(FILE* f) {
    Call c;
    if (!c.seen || !f) return REAL(fclose)(f);
    {
        Quiet q;
        int fd = ::fileno(f);
        REAL(fflush)(f);
        for (const Stream& st : shim().streams)
            if (st.file == f) diff_stream(st);
        drop_fd(fd);
    }
    return REAL(fclose)(f);
}

int close(int fd) {
    Call c;
    int r = REAL(close)(fd);
    c.after();
    if (c.seen) drop_fd(fd);
    return r;
}

ssize_t write(int fd, const void* buf, size_t n) {
    Call c;
    if (!c.seen || !tracked(fd)) return REAL(write)(fd, buf, n);
    off64_t before = ::lseek64(fd, 0, SEEK_CUR);
    ssize_t r = REAL(write)(fd, buf, n);
    c.after();
    if (r > 0) {
        int64_t off = tracked(fd)->append ? ::lseek64(fd, 0, SEEK_CUR) - r : before;
        note_write(fd, off, buf, r);
    }
    return r;
}

ssize_t pwrite(int fd, const void* buf, size_t n, off_t off) {
    Call c;
    ssize_t r = REAL(pwrite)(fd, buf, n, off);
    c.after();
    if (c.seen) note_write(fd, off, buf, r);
    return r;
}

ssize_t pwrite64(int fd, const void* buf, size_t n, off64_t off) {
    Call c;
    ssize_t r = REAL(pwrite64)(fd, buf, n, off);
    c.after();
    if (c.seen) note_write(fd, off, buf, r);
    return r;
}

int ftruncate(int fd, off_t size) {
    Call c;
    int r = REAL(ftruncate)(fd, size);
    c.after();
    if (c.seen && r == 0 && tracked(fd)) note_trunc(tracked(fd)->ino, size);
    return r;
}

int ftruncate64(int fd, off64_t size) {
    Call c;
    int r = REAL(ftruncate64)(fd, size);
    c.after();
    if (c.seen && r == 0 && tracked(fd)) note_trunc(tracked(fd)->ino, size);
    return r;
}

static void note_path_trunc(const char* path, int64_t size) {
    std::string abs = absolute(AT_FDCWD, path);
    struct stat64 st {};
    if (inside(abs) && exists(abs, &st)) note_trunc(st.st_ino, size);
}

int truncate(const char* path, off_t size) {
    Call c;
    int r = REAL(truncate)(path, size);
    c.after();
    if (c.seen && r == 0) note_path_trunc(path, size);
    return r;
}

int truncate64(const char* path, off64_t size) {
    Call c;
    int r = REAL(truncate64)(path, size);
    c.after();
    if (c.seen && r == 0) note_path_trunc(path, size);
    return r;
}

static void note_rename(const std::string& from, const std::string& to, bool to_existed) {
    bool a = inside(from), b = inside(to);
    if (!b) note_outside(to, to_existed);
    if (!shim().files) return;
    if (a && b) emit(OpType::Rename, 0, 0, relative(from), relative(to));
    if (a && !b) emit(OpType::Unlink, 0, 0, relative(from));
}

int rename(const char* from, const char* to) {
    Call c;
    if (!c.seen) return REAL(rename)(from, to);
    std::string a = absolute(AT_FDCWD, from), b = absolute(AT_FDCWD, to);
    bool existed = exists(b);
    int r = REAL(rename)(from, to);
    c.after();
    if (r == 0) note_rename(a, b, existed);
    return r;
}

int renameat(int fromfd, const char* from, int tofd, const char* to) {
    Call c;
    if (!c.seen) return REAL(renameat)(fromfd, from, tofd, to);
    std::string a = absolute(fromfd, from), b = absolute(tofd, to);
    bool existed = exists(b);
    int r = REAL(renameat)(fromfd, from, tofd, to);
    c.after();
    if (r == 0) note_rename(a, b, existed);
    return r;
}

static void note_unlink(const std::string& abs) {
    if (shim().files && inside(abs)) emit(OpType::Unlink, 0, 0, relative(abs));
}

int unlink(const char* path) {
    Call c;
    if (!c.seen) return REAL(unlink)(path);
    std::string abs = absolute(AT_FDCWD, path);
    int r = REAL(unlink)(path);
    c.after();
    if (r == 0) note_unlink(abs);
    return r;
}

int unlinkat(int dirfd, const char* path, int flags) {
    Call c;
    if (!c.seen) return REAL(unlinkat)(dirfd, path, flags);
    std::string abs = absolute(dirfd, path);
    int r = REAL(unlinkat)(dirfd, path, flags);
    c.after();
    if (r == 0) note_unlink(abs);
    return r;
}

int link(const char* from, const char* to) {
    Call c;
    if (!c.seen) return REAL(link)(from, to);
    std::string a = absolute(AT_FDCWD, from), b = absolute(AT_FDCWD, to);
    int r = REAL(link)(from, to);
    c.after();
    if (r != 0) return r;
    if (!inside(b))
        note_outside(b, false);
    else if (shim().files && inside(a))
        emit(OpType::Link, 0, 0, relative(a), relative(b));
    return r;
}

int mkdir(const char* path, mode_t mode) {
    Call c;
    if (!c.seen) return REAL(mkdir)(path, mode);
    std::string abs = absolute(AT_FDCWD, path);
    int r = REAL(mkdir)(path, mode);
    c.after();
    if (r != 0) return r;
    struct stat64 st {};
    if (!inside(abs))
        note_outside(abs, false);
    else if (shim().files && exists(abs, &st))
        emit(OpType::Mkdir, static_cast<int64_t>(st.st_ino), 0, relative(abs));
    return r;
}

static int sync_call(int (*realfn)(int), int fd) {
    Call c;
    int r = realfn(fd);
    c.after();
    uint64_t ino = 0;
    if (c.seen && r == 0 && shim().files && inode_under_root(fd, ino))
        emit(OpType::Fsync, static_cast<int64_t>(ino), 0);
    return r;
}

int fsync(int fd) {
    return sync_call(REAL(fsync), fd);
}

int fdatasync(int fd) {
    return sync_call(REAL(fdatasync), fd);
}

void* mmap(void* addr, size_t len, int prot, int flags, int fd, off_t off) {
    Call c;
    void* r = REAL(mmap)(addr, len, prot, flags, fd, off);
    c.after();
    return c.seen ? map_call(addr, prot, flags, fd, off, r, len) : r;
}

void* mmap64(void* addr, size_t len, int prot, int flags, int fd, off64_t off) {
    Call c;
    void* r = REAL(mmap64)(addr, len, prot, flags, fd, off);
    c.after();
    return c.seen ? map_call(addr, prot, flags, fd, off, r, len) : r;
}

int munmap(void* addr, size_t len) {
    Call c;
    if (c.seen) {
        Quiet q;
        auto& maps = shim().maps;
        for (size_t i = 0; i < maps.size(); ++i) {
            if (maps[i].addr != addr) continue;
            maps.erase(maps.begin() + static_cast<long>(i));
            break;
        }
    }
    return REAL(munmap)(addr, len);
}

int msync(void* addr, size_t len, int flags) {
    Call c;
    int r = REAL(msync)(addr, len, flags);
    c.after();
    if (!c.seen || r != 0 || !(flags & MS_SYNC)) return r;
    char* lo = static_cast<char*>(addr);
    for (const Mapping& m : shim().maps)
        if (m.addr < lo + len && lo < m.addr + m.len)
            emit(OpType::Msync, static_cast<int64_t>(m.ino), 0);
    return r;
}

ssize_t sendto(int fd, const void* buf, size_t n, int flags, const sockaddr* to, socklen_t len) {
    Call c;
    ssize_t r = REAL(sendto)(fd, buf, n, flags, to, len);
    c.after();
    if (c.seen && r >= 0 && port_of(to) >= 0)
        emit(OpType::Send, port_of(to), 0, {}, {},
             std::string_view(static_cast<const char*>(buf), static_cast<size_t>(r)));
    return r;
}

ssize_t recvfrom(int fd, void* buf, size_t n, int flags, sockaddr* from, socklen_t* len) {
    Call c;
    ssize_t r = REAL(recvfrom)(fd, buf, n, flags, from, len);
    c.after();
    if (!c.seen || r < 0) return r;
    sockaddr_in local{};
    socklen_t local_len = sizeof local;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &local_len) == 0 &&
        local.sin_family == AF_INET)
        emit(OpType::Recv, ntohs(local.sin_port), 0, {}, {},
             std::string_view(static_cast<const char*>(buf), static_cast<size_t>(r)));
    return r;
}

int select(int nfds, fd_set* r, fd_set* w, fd_set* e, timeval* timeout) {
    timeval shortened{0, 10000};
    if (fast() && timeout && (timeout->tv_sec > 0 || timeout->tv_usec > 10000))
        timeout = &shortened;
    return REAL(select)(nfds, r, w, e, timeout);
}

unsigned sleep(unsigned seconds) {
    return fast() ? 0 : REAL(sleep)(seconds);
}

int usleep(useconds_t us) {
    return fast() ? 0 : REAL(usleep)(us);
}

int nanosleep(const timespec* req, timespec* rem) {
    return fast() ? 0 : REAL(nanosleep)(req, rem);
}

int clock_nanosleep(clockid_t clock, int flags, const timespec* req, timespec* rem) {
    return fast() ? 0 : REAL(clock_nanosleep)(clock, flags, req, rem);
}

}  // extern "C"
