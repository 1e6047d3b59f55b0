// What every fuzz target shares: one sandbox root per process that is put
// back into a known state before each input, and the splitting of one input
// into the several files a parser reads.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace smsgw::fuzz {

// Separates the files packed into one input (seed files stay readable).
inline constexpr std::string_view kPartSeparator = "\n#--#\n";

// The input cut at the separator into at most `parts` pieces; the last
// piece keeps any further separators. Missing pieces are empty.
std::vector<std::string> split_parts(const uint8_t* data, size_t size, size_t parts);

class FuzzRoot {
  public:
    // The process-wide root, created on first use and removed at exit.
    static FuzzRoot& get();

    const std::string& path() const { return root_; }
    // Port offset for this process, so parallel runs do not share ports.
    int port_offset() const { return port_offset_; }
    std::string operator/(std::string_view rel) const { return root_ + "/" + std::string(rel); }

    // Empties the daemon's directories and recreates the files every run
    // starts from: empty rule lists and an api status table without records.
    // The harmless helper programs under bin/ and sbin/ are kept.
    void reset();
    void write(std::string_view rel, std::string_view bytes) const;

  private:
    FuzzRoot();
    std::string root_;
    int port_offset_ = 0;
};

// Collects the helper programs started without waiting, so a long run does
// not fill the process table with zombies.
void reap_children();

// How many entries the working directory has: a target that must create
// nothing outside the root compares it before and after an input.
size_t entries_in_working_dir();

// Replaces the first "%R" by the root path.
void expand_root(std::string& text, const FuzzRoot& root);

// The same inside a NUL-padded fixed field: as many padding NULs as the
// text grew by are dropped, so the records around it keep their sizes.
void expand_root_in_field(std::string& bytes, const FuzzRoot& root);

// Takes values off the front of an input: a choice, then strings of a
// length the input picks, as long as bytes remain.
class InputReader {
  public:
    InputReader(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    size_t remaining() const { return size_ - pos_; }
    // A value in [lo, hi] from one byte (lo when the input is used up).
    int in_range(int lo, int hi);
    // Bytes up to a backslash not followed by another one (which stands
    // for a backslash), at most `max` of them.
    std::string random_length_string(size_t max);

  private:
    const uint8_t* data_;
    size_t size_;
    size_t pos_ = 0;
};

// One rule-list record: decimal length, then the text.
std::string rule_record(std::string_view text);

}  // namespace smsgw::fuzz
