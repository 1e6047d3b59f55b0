#include "commands/intl_dialing.h"

#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cstdio>

#include "commands/line_reader.h"
#include "common/fileops.h"
#include "common/trace.h"

namespace smsgw {

namespace {

// Lines are read in pieces of at most 29 characters; a key found anywhere
// in a piece counts.
constexpr size_t kLineBuffer = 30;

std::string settings_path(const Runtime& rt) {
    return rt.path("/var/config/international_dialing");
}

bool contains(std::string_view text, std::string_view word) {
    return text.find(word) != std::string_view::npos;
}

// The first piece of the file that contains `word`.
std::optional<std::string> find_line(FILE* in, std::string_view word) {
    while (auto piece = read_piece(in, kLineBuffer)) {
        if (contains(*piece, word)) return piece;
    }
    return std::nullopt;
}

}  // namespace

int load_international_dialing(const Runtime& rt) {
    FilePtr in = open_file(settings_path(rt), "r");
    if (!in) return 0;
    // Whichever of the two lines comes first decides: a disable line after
    // the limit is never seen.
    while (auto piece = read_piece(in.get(), kLineBuffer)) {
        if (contains(*piece, "int-dialing=disable")) return 0;
        if (contains(*piece, "max-digits"))
            return scan_int_after(*piece, "max-digits=").value_or(0);
    }
    return 0;
}

DialingSegment::~DialingSegment() {
    if (word_) ::shmdt(const_cast<int32_t*>(word_));
}

bool DialingSegment::attach_dialing_segment(const Runtime& rt) {
    if (word_) {
        ::shmdt(const_cast<int32_t*>(word_));
        word_ = nullptr;
    }
    int id = ::shmget(static_cast<key_t>(rt.ports.shm_key()), sizeof(int32_t), IPC_CREAT | 0666);
    if (id < 0) {
        std::fprintf(stderr, "smsgwd: international dialing segment unavailable\n");
        return false;
    }
    void* addr = ::shmat(id, nullptr, 0);
    // shmat's documented failure value.
    if (addr == reinterpret_cast<void*>(-1)) {  // NOLINT(performance-no-int-to-ptr)
        std::fprintf(stderr, "smsgwd: international dialing segment cannot be attached\n");
        return false;
    }
    word_ = static_cast<volatile int32_t*>(addr);
    store(load_international_dialing(rt));
    return true;
}

void DialingSegment::store(int32_t value) {
    if (word_) *word_ = value;
}

int32_t DialingSegment::value() const {
    return word_ ? *word_ : 0;
}

std::string get_international_dialing(const Runtime& rt, const DialingSegment& seg,
                                      std::string_view key) {
    if (key != "dialing" && key != "max-digits") return "ERROR";
    FilePtr in = open_file(settings_path(rt), "r");
    if (!in) return "ERROR";
    if (key == "dialing") {
        auto line = find_line(in.get(), "int-dialing");
        if (!line) return "";
        // The reply is the attribute the web page puts on its check box.
        return scan_word_after(*line, "int-dialing=").value_or("") == "enable" ? "checked" : "";
    }
    auto line = find_line(in.get(), "max-digits");
    int digits = line ? scan_int_after(*line, "max-digits=").value_or(0) : 0;
    trace("shared mem:%d", static_cast<int>(seg.value()));
    return std::to_string(digits);
}

std::string set_international_dialing(const Runtime& rt, DialingSegment& seg, std::string_view key,
                                      std::string_view value) {
    bool dialing = key == "dialing";
    if (!dialing && key != "max-digits") return "ERROR";
    FilePtr in = open_file(settings_path(rt), "r");
    if (!in) return "ERROR";
    std::string temp = rt.path("/var/run/temp_file_test");
    FilePtr out = open_fixed_temp(temp, "w");
    if (!out) return "ERROR";

    std::string_view marker = dialing ? "int-dialing" : "max-digits";
    std::string replacement;
    int digits = 0;
    if (dialing) {
        replacement = "int-dialing=" + std::string(value) + "\n";
    } else {
        digits = c_atoi(value);
        replacement = "max-digits=" + std::to_string(digits) + "\n";
    }
    bool ok = true;
    while (auto piece = read_piece(in.get(), kLineBuffer)) {
        const std::string& line = contains(*piece, marker) ? replacement : *piece;
        ok = std::fwrite(line.data(), 1, line.size(), out.get()) == line.size() && ok;
    }
    in.reset();
    ok = std::fflush(out.get()) == 0 && ::fsync(::fileno(out.get())) == 0 && ok;
    ok = std::fclose(out.release()) == 0 && ok;

    // Enabling leaves the published limit alone: it comes back when the
    // digits are next set, or at the next start.
    if (dialing && value == "disable") {
        seg.store(0);
        trace("*shared = %d\n", static_cast<int>(seg.value()));
    } else if (!dialing) {
        seg.store(digits);
    }
    if (!ok || !replace_file(temp, settings_path(rt))) ::unlink(temp.c_str());
    return "SUCCESS";
}

}  // namespace smsgw
