#include "fuzz_support.h"

#include <ftw.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "common/fileops.h"

namespace smsgw::fuzz {
namespace {

constexpr const char* kDirs[] = {"var/run", "var/config", "var/Jobs", "var/Outbox",     "var/Inbox",
                                 "var/tmp", "tmp",        "dev",      "var/AddressBook"};

int remove_entry(const char* path, const struct stat*, int, struct FTW*) {
    ::remove(path);
    return 0;
}

// Empties a tree but keeps its top two levels of directories (the
// skeleton): creating directories is what costs most between inputs.
int empty_entry(const char* path, const struct stat*, int type, struct FTW* where) {
    if (type == FTW_DP && where->level <= 1) return 0;
    ::remove(path);
    return 0;
}

void remove_tree(const std::string& path) {
    ::nftw(path.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
}

std::string& root_for_exit() {
    static std::string root;
    return root;
}

void remove_root_at_exit() {
    if (!root_for_exit().empty()) remove_tree(root_for_exit());
}

}  // namespace

std::vector<std::string> split_parts(const uint8_t* data, size_t size, size_t parts) {
    std::string_view rest(reinterpret_cast<const char*>(data), size);
    std::vector<std::string> out;
    while (out.size() + 1 < parts) {
        size_t at = rest.find(kPartSeparator);
        if (at == std::string_view::npos) break;
        out.emplace_back(rest.substr(0, at));
        rest.remove_prefix(at + kPartSeparator.size());
    }
    out.emplace_back(rest);
    out.resize(parts);
    return out;
}

FuzzRoot& FuzzRoot::get() {
    static FuzzRoot root;
    return root;
}

FuzzRoot::FuzzRoot() {
    // Every input rewrites a dozen files: a memory file system keeps that
    // from dominating the run.
    const char* base = std::getenv("SMSGW_FUZZ_TMP");
    if (!base) base = ::access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    std::string name = std::string(base) + "/smsgw-fuzz-XXXXXX";
    if (!::mkdtemp(name.data())) throw std::runtime_error("mkdtemp failed");
    root_ = name;
    root_for_exit() = root_;
    std::atexit(remove_root_at_exit);
    port_offset_ = 5000 + static_cast<int>(::getpid() % 25000);
    // Programs the handlers start: they must do nothing.
    make_dirs(root_ + "/bin");
    make_dirs(root_ + "/sbin");
    for (const char* p :
         {"bin/txrx", "bin/msntp", "bin/http-client", "bin/date", "sbin/create_address_book_tar"}) {
        const std::string file = root_ + "/" + p;
        write_file(file, "#!/bin/sh\nexit 0\n");
        ::chmod(file.c_str(), 0755);
    }
    reset();
}

void FuzzRoot::reset() {
    ::nftw((root_ + "/var").c_str(), empty_entry, 16, FTW_DEPTH | FTW_PHYS);
    ::nftw((root_ + "/tmp").c_str(), empty_entry, 16, FTW_DEPTH | FTW_PHYS);
    for (const char* d : kDirs) make_dirs(root_ + "/" + d);
    write("var/config/api_stat.st", std::string(4, '\0'));
    for (const char* f : {"trigger_broadcast", "preconf_sms", "trigger_ctrl", "authenticate_list"})
        write(std::string("var/config/") + f, "");
    reap_children();
}

void FuzzRoot::write(std::string_view rel, std::string_view bytes) const {
    write_file(*this / rel, bytes);
}

void reap_children() {
    while (::waitpid(-1, nullptr, WNOHANG) > 0) {
    }
}

void expand_root(std::string& text, const FuzzRoot& root) {
    size_t at = text.find("%R");
    if (at != std::string::npos) text.replace(at, 2, root.path());
}

void expand_root_in_field(std::string& bytes, const FuzzRoot& root) {
    const std::string& path = root.path();
    for (size_t at = bytes.find("%R"); at != std::string::npos;
         at = bytes.find("%R", at + path.size())) {
        bytes.replace(at, 2, path);
        size_t pad = bytes.find('\0', at + path.size());
        if (pad == std::string::npos) return;
        size_t run = bytes.find_first_not_of('\0', pad);
        if (run == std::string::npos) run = bytes.size();
        bytes.erase(pad, std::min(run - pad, path.size() - 2));
    }
}

std::string rule_record(std::string_view text) {
    return std::to_string(text.size()) + std::string(text);
}

int InputReader::in_range(int lo, int hi) {
    if (pos_ >= size_ || hi <= lo) return lo;
    const unsigned span = static_cast<unsigned>(hi - lo) + 1;
    return lo + static_cast<int>(data_[pos_++] % span);
}

std::string InputReader::random_length_string(size_t max) {
    std::string out;
    while (pos_ < size_ && out.size() < max) {
        char c = static_cast<char>(data_[pos_++]);
        if (c == '\\') {
            if (pos_ < size_ && data_[pos_] == '\\') {
                ++pos_;
            } else {
                break;
            }
        }
        out.push_back(c);
    }
    return out;
}

size_t entries_in_working_dir() {
    size_t n = 0;
    std::error_code ec;
    for (auto it = std::filesystem::directory_iterator(".", ec);
         !ec && it != std::filesystem::directory_iterator(); it.increment(ec))
        ++n;
    return n;
}

}  // namespace smsgw::fuzz
