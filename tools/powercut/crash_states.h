// Crash states: what a disk may hold after the power is cut at some point of
// a recorded run (the operation log of oplog.h over a snapshot of the root
// taken before the run).
//
// The disk model. Every operation before the cut is durable or volatile:
//  - a write, truncation or store into a shared mapping is durable once a
//    later fsync/fdatasync/msync of the same file has returned;
//  - a new name, a rename or an unlink is durable once a later fsync of its
//    directory (for a rename: either directory) has returned;
//  - in a "barrier" state, additionally everything before a chosen sync
//    point is durable, as on a journaling file system that commits all
//    metadata with any fsync.
// A volatile operation is applied or not, at random; a volatile write may be
// torn: only a prefix of its 512-byte sectors reached the disk, and the file
// ends there, or it keeps the written length with zeros after the prefix.
// Operations are applied in their order to inodes; names point at inodes.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "oplog.h"

namespace powercut {

// A file system image: names (relative to the root) and their inodes.
struct Image {
    struct Name {
        char type = 'f';  // 'f' file, 'd' directory, 'l' symlink
        int inode = -1;
        mode_t mode = 0644;
        std::string target;  // of a symlink
    };
    std::map<std::string, Name> names;
    std::vector<std::string> inodes;  // file contents by model inode

    // The content at `path`, "" when missing (the daemon treats both alike).
    std::string content(const std::string& path) const;
    bool has(const std::string& path) const { return names.count(path) != 0; }
};

// The tree under `root` as it is now (regular files, directories, links),
// with each entry's inode number so that the log's inodes can be matched.
struct Snapshot {
    Image image;
    std::map<uint64_t, int> inode_of;  // real inode number -> model inode
};
Snapshot snapshot_tree(const std::string& root);

// Writes the image into `dir` (which must not exist yet).
bool materialise(const Image& image, const std::string& dir);

struct Op {
    OpType type = OpType::Mark;
    int inode = -1;  // the model inode the operation works on
    int64_t off = 0;
    std::string path, path2;
    std::string data;
    mode_t mode = 0644;
    std::vector<int> covered_by;  // a sync of any of these makes it durable
};

// How a volatile operation ends up on disk.
enum class Fate { Skipped, Whole, TornShort, TornZero };

class History {
  public:
    History(const Snapshot& start, std::string_view log);

    const std::vector<Op>& ops() const { return ops_; }
    const Image& start() const { return start_; }
    // The index of the first sync after op i that makes it durable, or
    // ops().size() when none does.
    size_t durable_at(size_t i) const { return durable_at_[i]; }
    bool is_sync(size_t i) const;
    // Applies op i to `image` as `fate` says (`sectors`: how many of its
    // 512-byte sectors a torn write kept).
    void apply(Image& image, size_t i, Fate fate = Fate::Whole, size_t sectors = 0) const;
    // The number of sectors a write spans (1 for other operations).
    size_t sectors_of(size_t i) const;

  private:
    void add(const Record& r, Image& full, std::map<uint64_t, int>& inode_of);
    std::vector<int> parents_of(const Image& full, const std::string& path) const;
    void compute_durability();

    Image start_;
    std::vector<Op> ops_;
    std::vector<size_t> durable_at_;
};

// A number in [0, n), for sizes on 32-bit targets too.
inline size_t random_below(std::mt19937_64& rng, size_t n) {
    return static_cast<size_t>(rng() % n);
}

// One crash state and how it was chosen.
struct CrashState {
    size_t cut = 0;   // operations [0, cut) happened before the power went
    size_t sync = 0;  // the sync point it was chosen after
    bool barrier = false;
    Image image;
    // What the volatile operations did (for the report).
    int skipped = 0, torn_short = 0, torn_zero = 0, applied = 0;
    std::string describe() const;
};

// A crash state sampled as described above: a sync point, a cut before the
// next sync point, then the fate of every volatile operation.
CrashState sample_state(const History& history, std::mt19937_64& rng);
// The state for a given cut and fates (tests, replays).
CrashState build_state(const History& history, size_t cut, bool barrier, size_t sync,
                       const std::vector<std::pair<Fate, size_t>>& fates);

}  // namespace powercut
