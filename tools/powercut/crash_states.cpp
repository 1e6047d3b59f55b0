#include "crash_states.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "common/fileops.h"

namespace powercut {

namespace {

constexpr int64_t kSector = 512;

std::string parent_of(const std::string& path) {
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

void walk(const std::string& root, const std::string& rel, Snapshot& out) {
    const std::string abs = rel.empty() ? root : root + "/" + rel;
    struct stat st {};
    if (::lstat(abs.c_str(), &st) != 0) return;
    Image::Name n;
    n.inode = static_cast<int>(out.image.inodes.size());
    n.mode = st.st_mode & 07777;
    std::string data;
    if (S_ISDIR(st.st_mode)) {
        n.type = 'd';
    } else if (S_ISLNK(st.st_mode)) {
        n.type = 'l';
        char buf[4096];
        ssize_t len = ::readlink(abs.c_str(), buf, sizeof buf);
        n.target.assign(buf, len > 0 ? static_cast<size_t>(len) : 0);
    } else if (S_ISREG(st.st_mode)) {
        data = smsgw::read_file(abs).value_or("");
    } else {
        return;  // sockets and the like are made again by the daemon
    }
    out.image.inodes.push_back(std::move(data));
    out.inode_of[st.st_ino] = n.inode;
    out.image.names[rel] = n;
    if (n.type != 'd') return;
    std::vector<std::string> children;
    if (DIR* d = ::opendir(abs.c_str())) {
        while (dirent* e = ::readdir(d)) {
            std::string name = e->d_name;
            if (name != "." && name != "..") children.push_back(name);
        }
        ::closedir(d);
    }
    for (const auto& c : children) {
        std::string child = rel;
        if (!child.empty()) child += '/';
        walk(root, child += c, out);
    }
}

// The bytes of a write, whole or torn after `sectors` of its sectors.
void write_bytes(std::string& file, int64_t off, const std::string& data, Fate fate,
                 size_t sectors) {
    const auto start = static_cast<size_t>(off);
    const size_t end = start + data.size();
    size_t keep = data.size();
    if (fate == Fate::TornShort || fate == Fate::TornZero) {
        auto boundary =
            static_cast<size_t>((off / kSector + static_cast<int64_t>(sectors)) * kSector);
        keep = sectors == 0 ? 0 : std::min(end, boundary) - start;
    }
    if (file.size() < start + keep) file.resize(start + keep, '\0');
    file.replace(start, keep, data, 0, keep);
    if (fate == Fate::TornZero && file.size() < end) file.resize(end, '\0');
}

}  // namespace

std::string Image::content(const std::string& path) const {
    auto it = names.find(path);
    if (it == names.end() || it->second.type != 'f') return {};
    return inodes[static_cast<size_t>(it->second.inode)];
}

Snapshot snapshot_tree(const std::string& root) {
    Snapshot s;
    walk(root, "", s);
    return s;
}

bool materialise(const Image& image, const std::string& dir) {
    if (::mkdir(dir.c_str(), 0755) != 0) return false;
    for (const auto& [path, n] : image.names) {
        if (path.empty()) continue;
        // A name whose directory did not survive cannot be reached.
        auto parent = image.names.find(parent_of(path));
        if (parent == image.names.end() || parent->second.type != 'd') continue;
        std::string abs = dir;
        abs += '/';
        abs += path;
        bool ok = true;
        if (n.type == 'd') {
            ok = ::mkdir(abs.c_str(), n.mode | 0700) == 0;
        } else if (n.type == 'l') {
            ok = ::symlink(n.target.c_str(), abs.c_str()) == 0;
        } else {
            ok = smsgw::write_file(abs, image.inodes[static_cast<size_t>(n.inode)]) &&
                 ::chmod(abs.c_str(), n.mode) == 0;
        }
        if (!ok) return false;
    }
    return true;
}

History::History(const Snapshot& start, std::string_view log) : start_(start.image) {
    Image full = start_;
    std::map<uint64_t, int> inode_of = start.inode_of;
    while (auto r = decode_record(log)) add(*r, full, inode_of);
    compute_durability();
}

std::vector<int> History::parents_of(const Image& full, const std::string& path) const {
    auto it = full.names.find(parent_of(path));
    if (it == full.names.end() || it->second.type != 'd') return {};
    return {it->second.inode};
}

// Turns a record into an operation on model inodes and applies it to
// `full`, the image of everything done so far.
void History::add(const Record& r, Image& full, std::map<uint64_t, int>& inode_of) {
    Op op;
    op.type = r.type;
    op.path = r.s1;
    op.path2 = r.s2;
    op.data = r.data;
    auto fresh_inode = [&](int64_t real) {
        int id = static_cast<int>(full.inodes.size());
        full.inodes.emplace_back();
        inode_of[static_cast<uint64_t>(real)] = id;
        return id;
    };
    auto inode = [&](int64_t real) {
        auto it = inode_of.find(static_cast<uint64_t>(real));
        return it != inode_of.end() ? it->second : fresh_inode(real);
    };
    auto named = [&](const std::string& path) {
        auto it = full.names.find(path);
        return it == full.names.end() ? -1 : it->second.inode;
    };
    switch (r.type) {
        case OpType::Create:
        case OpType::Mkdir:
        case OpType::ExtFile:
            op.inode = fresh_inode(r.a);
            op.mode = static_cast<mode_t>(r.type == OpType::Create ? r.b : 0644);
            op.covered_by = parents_of(full, op.path);
            break;
        case OpType::Write:
        case OpType::Trunc:
        case OpType::MapWrite:
            op.inode = inode(r.a);
            op.off = r.b;
            op.covered_by = {op.inode};
            break;
        case OpType::Fsync:
        case OpType::Msync:
            op.inode = inode(r.a);
            break;
        case OpType::Rename:
            op.inode = named(op.path);
            op.covered_by = parents_of(full, op.path);
            for (int d : parents_of(full, op.path2)) op.covered_by.push_back(d);
            if (op.inode >= 0) op.mode = full.names[op.path].mode;
            break;
        case OpType::Unlink:
            op.inode = named(op.path);
            op.covered_by = parents_of(full, op.path);
            break;
        case OpType::Link:
            op.inode = named(op.path);
            op.covered_by = parents_of(full, op.path2);
            break;
        default:
            op.off = r.a;  // the port of a datagram
            break;
    }
    ops_.push_back(std::move(op));
    apply(full, ops_.size() - 1);
}

void History::compute_durability() {
    const size_t n = ops_.size();
    durable_at_.assign(n, n);
    std::map<int, size_t> next_sync;
    for (size_t i = n; i-- > 0;) {
        const Op& op = ops_[i];
        if (op.type == OpType::ExtFile) durable_at_[i] = i;
        for (int x : op.covered_by) {
            auto it = next_sync.find(x);
            if (it != next_sync.end()) durable_at_[i] = std::min(durable_at_[i], it->second);
        }
        if (is_sync(i)) next_sync[op.inode] = i;
    }
}

bool History::is_sync(size_t i) const {
    return ops_[i].type == OpType::Fsync || ops_[i].type == OpType::Msync;
}

size_t History::sectors_of(size_t i) const {
    const Op& op = ops_[i];
    if ((op.type != OpType::Write && op.type != OpType::MapWrite) || op.data.empty()) return 1;
    int64_t first = op.off / kSector;
    int64_t last = (op.off + static_cast<int64_t>(op.data.size()) - 1) / kSector;
    return static_cast<size_t>(last - first + 1);
}

void History::apply(Image& image, size_t i, Fate fate, size_t sectors) const {
    const Op& op = ops_[i];
    if (fate == Fate::Skipped) return;
    if (op.inode >= 0 && static_cast<size_t>(op.inode) >= image.inodes.size())
        image.inodes.resize(static_cast<size_t>(op.inode) + 1);
    auto& names = image.names;
    switch (op.type) {
        case OpType::Create:
            names[op.path] = {'f', op.inode, op.mode, {}};
            break;
        case OpType::Mkdir:
            names[op.path] = {'d', op.inode, 0755, {}};
            break;
        case OpType::ExtFile:
            names[op.path] = {'f', op.inode, op.mode, {}};
            image.inodes[static_cast<size_t>(op.inode)] = op.data;
            break;
        case OpType::Write:
        case OpType::MapWrite:
            write_bytes(image.inodes[static_cast<size_t>(op.inode)], op.off, op.data, fate,
                        sectors);
            break;
        case OpType::Trunc:
            image.inodes[static_cast<size_t>(op.inode)].resize(static_cast<size_t>(op.off), '\0');
            break;
        case OpType::Rename: {
            if (op.inode < 0 || op.path == op.path2) break;
            auto from = names.find(op.path);
            bool here = from != names.end() && from->second.inode == op.inode;
            Image::Name moved = here ? from->second : Image::Name{'f', op.inode, op.mode, {}};
            if (here) names.erase(from);
            names[op.path2] = moved;
            break;
        }
        case OpType::Unlink: {
            auto it = names.find(op.path);
            if (it != names.end() && it->second.inode == op.inode) names.erase(it);
            break;
        }
        case OpType::Link:
            if (op.inode >= 0) names[op.path2] = {'f', op.inode, 0644, {}};
            break;
        default:
            break;
    }
}

std::string CrashState::describe() const {
    char buf[160];
    std::snprintf(buf, sizeof buf,
                  "cut=%zu sync=%zu %s volatile: applied=%d skipped=%d torn=%d zero-filled=%d", cut,
                  sync, barrier ? "barrier" : "strict", applied, skipped, torn_short, torn_zero);
    return buf;
}

CrashState build_state(const History& history, size_t cut, bool barrier, size_t sync,
                       const std::vector<std::pair<Fate, size_t>>& fates) {
    CrashState s;
    s.cut = cut;
    s.sync = sync;
    s.barrier = barrier;
    s.image = history.start();
    for (size_t i = 0; i < cut && i < history.ops().size(); ++i) {
        const bool durable = history.durable_at(i) < cut || (barrier && i < sync);
        auto [fate, sectors] =
            durable || i >= fates.size() ? std::make_pair(Fate::Whole, size_t{0}) : fates[i];
        if (!durable) {
            s.applied += fate == Fate::Whole;
            s.skipped += fate == Fate::Skipped;
            s.torn_short += fate == Fate::TornShort;
            s.torn_zero += fate == Fate::TornZero;
        }
        history.apply(s.image, i, fate, sectors);
    }
    return s;
}

CrashState sample_state(const History& history, std::mt19937_64& rng) {
    const size_t n = history.ops().size();
    std::vector<size_t> syncs = {0};  // the start counts as one
    for (size_t i = 0; i < n; ++i)
        if (history.is_sync(i)) syncs.push_back(i);
    size_t pick = random_below(rng, syncs.size());
    size_t sync = syncs[pick];
    size_t next = pick + 1 < syncs.size() ? syncs[pick + 1] : n;
    size_t cut =
        n == 0 ? 0 : std::min(n, sync + 1 + random_below(rng, std::max<size_t>(1, next - sync)));
    const bool barrier = rng() % 2 == 0;
    // How much of what was not synced got out: little, half or most of it.
    const size_t keep_percent = 20 + 30 * random_below(rng, 3);

    std::vector<std::pair<Fate, size_t>> fates(cut, {Fate::Whole, 0});
    for (size_t i = 0; i < cut; ++i) {
        if (random_below(rng, 100) >= keep_percent) {
            fates[i] = {Fate::Skipped, 0};
            continue;
        }
        const Op& op = history.ops()[i];
        if (op.type != OpType::Write || rng() % 3 != 0) continue;
        const size_t sectors = history.sectors_of(i);
        const bool zero = rng() % 2 == 0;
        if (sectors > 1 || zero)
            fates[i] = {zero ? Fate::TornZero : Fate::TornShort, random_below(rng, sectors)};
    }
    return build_state(history, cut, barrier, sync, fates);
}

}  // namespace powercut
