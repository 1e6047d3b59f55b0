// The operation log of the power-cut simulator: what the preloaded shim saw
// the daemon do to the files under its root (and to its sockets), one record
// per call, in the order of the calls. The driver appends its own records
// (files it wrote into the root, marks) to the same file.
//
// Record: u32 size of what follows, u8 type, 3 zero bytes, i64 a, i64 b,
// u32 |s1|, u32 |s2|, u32 |data|, then s1, s2 and data. Host byte order:
// the shim and the driver always run on the same machine.
#pragma once

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

namespace powercut {

enum class OpType : uint8_t {
    Create = 1,  // s1 path, a inode, b mode: a new name for a new file
    Write,       // a inode, b offset, data
    Trunc,       // a inode, b size
    Fsync,       // a inode (file or directory)
    Rename,      // s1 from, s2 to
    Unlink,      // s1 path
    Link,        // s1 existing, s2 new name
    Mkdir,       // s1 path, a inode
    MapWrite,    // a inode, b offset, data: a shared mapping's bytes changed
    Msync,       // a inode: the mapping's bytes are on disk
    Send,        // a port, data: a datagram sent to 127.0.0.1
    Recv,        // a local port, data: a datagram received
    ExtFile,     // s1 path, a inode, data: written by someone else, on disk
    Outside,     // s1 absolute path: a file created outside the root
    Mark,        // s1 text: a point the driver wants to find again
};

struct Record {
    OpType type = OpType::Mark;
    int64_t a = 0;
    int64_t b = 0;
    std::string s1;
    std::string s2;
    std::string data;
};

namespace detail {

template <class T>
void put(std::string& out, T v) {
    char b[sizeof v];
    std::memcpy(b, &v, sizeof v);
    out.append(b, sizeof v);
}

template <class T>
bool take(std::string_view& in, T& v) {
    if (in.size() < sizeof v) return false;
    std::memcpy(&v, in.data(), sizeof v);
    in.remove_prefix(sizeof v);
    return true;
}

}  // namespace detail

constexpr size_t kFixedPart = 4 + 8 + 8 + 4 + 4 + 4;

inline std::string encode_record(OpType type, int64_t a, int64_t b, std::string_view s1,
                                 std::string_view s2, std::string_view data) {
    std::string out;
    out.reserve(4 + kFixedPart + s1.size() + s2.size() + data.size());
    detail::put(out, static_cast<uint32_t>(kFixedPart + s1.size() + s2.size() + data.size()));
    detail::put(out, static_cast<uint8_t>(type));
    out.append(3, '\0');
    detail::put(out, a);
    detail::put(out, b);
    detail::put(out, static_cast<uint32_t>(s1.size()));
    detail::put(out, static_cast<uint32_t>(s2.size()));
    detail::put(out, static_cast<uint32_t>(data.size()));
    out.append(s1);
    out.append(s2);
    out.append(data);
    return out;
}

// The next record of `in`, which is advanced past it; nullopt at the end or
// at a record cut short.
inline std::optional<Record> decode_record(std::string_view& in) {
    std::string_view rest = in;
    uint32_t size = 0, n1 = 0, n2 = 0, n3 = 0;
    uint8_t type = 0;
    Record r;
    if (!detail::take(rest, size) || size < kFixedPart || rest.size() < size) return std::nullopt;
    std::string_view body = rest.substr(0, size);
    detail::take(body, type);
    body.remove_prefix(3);
    detail::take(body, r.a);
    detail::take(body, r.b);
    detail::take(body, n1);
    detail::take(body, n2);
    detail::take(body, n3);
    if (static_cast<uint64_t>(n1) + n2 + n3 != body.size()) return std::nullopt;
    r.type = static_cast<OpType>(type);
    r.s1.assign(body.substr(0, n1));
    r.s2.assign(body.substr(n1, n2));
    r.data.assign(body.substr(n1 + n2, n3));
    in = rest.substr(size);
    return r;
}

}  // namespace powercut
