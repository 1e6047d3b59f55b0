// powercut: does smsgwd keep what it acknowledged when the power is cut?
//
//   powercut SEED STATES OPS [--keep DIR] [--verbose]
//
// Records one run of the real daemon doing a mixed workload of OPS
// operations (chosen by SEED) through libpowercut-shim, then builds STATES
// crash states from the record (see crash_states.h), starts a fresh daemon
// on each and checks what it finds and does (see checks.h). Prints what it
// tried and what held; exits 1 when a state broke an invariant, 2 when the
// recorded run itself failed. --keep DIR copies each failing state there.
//
// smsgwd and txrx-sim come from the build directory it was built in, or from
// SMSGW_BUILD_DIR; a cross-built daemon runs under SMSGW_TEST_EXEC_PREFIX.
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "checks.h"
#include "crash_states.h"
#include "runner.h"
#include "sandbox.h"

namespace powercut {
namespace {

struct Options {
    uint64_t seed = 1;
    int states = 100;
    int ops = 60;
    std::string keep;
    bool verbose = false;
};

bool parse(int argc, char** argv, Options& o) {
    std::vector<std::string> plain;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--keep" && i + 1 < argc)
            o.keep = argv[++i];
        else if (a == "--verbose")
            o.verbose = true;
        else if (!a.empty() && a[0] != '-')
            plain.push_back(a);
        else
            return false;
    }
    if (plain.size() != 3) return false;
    auto number = [](const std::string& text, unsigned long long& out) {
        char* end = nullptr;
        out = std::strtoull(text.c_str(), &end, 10);
        return !text.empty() && *end == '\0';
    };
    unsigned long long seed = 0, states = 0, ops = 0;
    if (!number(plain[0], seed) || !number(plain[1], states) || !number(plain[2], ops))
        return false;
    o.seed = seed;
    o.states = static_cast<int>(std::min(states, 1000000ULL));
    o.ops = static_cast<int>(std::min(ops, 1000000ULL));
    return o.states > 0 && o.ops > 0;
}

Programs locate() {
    // The daemon under test may come from another build; the shim is ours.
    const char* env = std::getenv("SMSGW_BUILD_DIR");
    const std::string build = env && *env ? env : POWERCUT_BUILD_DIR;
    Programs p{build + "/smsgwd",
               build + "/txrx-sim",
               std::string(POWERCUT_BUILD_DIR) + "/libpowercut-shim.so",
               {}};
    std::istringstream prefix(
        std::getenv("SMSGW_TEST_EXEC_PREFIX") ? std::getenv("SMSGW_TEST_EXEC_PREFIX") : "");
    for (std::string w; prefix >> w;) p.exec_prefix.push_back(w);
    return p;
}

// A port offset whose ports nobody holds (other daemons run beside us).
int free_offset(std::mt19937_64& rng) {
    for (int attempt = 0; attempt < 100; ++attempt) {
        int offset = 100 + static_cast<int>(rng() % 3000) * 10;
        bool free = true;
        for (int base : {20202, 20203, 20204, 20205, 20206, 20207, 30303})
            free = free && Udp(base + offset).ok();
        if (free) return offset;
    }
    return -1;
}

std::string work_dir() {
    const char* base = std::getenv("TMPDIR");
    std::string tmpl = std::string(base && *base ? base : "/tmp") + "/powercut-XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (!::mkdtemp(buf.data())) return {};
    char real[4096];
    return ::realpath(buf.data(), real) ? real : buf.data();
}

struct Tally {
    int tried = 0, held = 0;
    int tried_by_kind[2] = {}, held_by_kind[2] = {};  // strict, barrier
    int with_torn = 0, with_zero = 0, with_notes = 0;
    long acked = 0, resent = 0, lost = 0, duplicated = 0;
    std::map<std::string, int> problems;  // kind of problem -> states
};

// A problem without its particulars (quoted texts, what follows a colon).
std::string kind_of(const std::string& problem) {
    std::string out;
    bool quoted = false;
    for (char c : problem.substr(0, problem.find(':'))) {
        if (c == '\'') {
            if (!quoted) out += "...";
            quoted = !quoted;
        } else if (!quoted) {
            out += c;
        }
    }
    return out;
}

void count(Tally& t, const CrashState& s, const Verdict& v) {
    ++t.tried;
    ++t.tried_by_kind[s.barrier];
    t.held += v.ok();
    t.held_by_kind[s.barrier] += v.ok();
    t.with_torn += s.torn_short > 0;
    t.with_zero += s.torn_zero > 0;
    t.with_notes += !v.notes.empty();
    t.acked += v.acked;
    t.resent += v.resent;
    t.lost += v.lost;
    t.duplicated += v.duplicated;
    std::set<std::string> kinds;
    for (const auto& p : v.problems) kinds.insert(kind_of(p));
    for (const auto& k : kinds) ++t.problems[k];
}

void report(const Options& o, const Tally& t) {
    std::printf(
        "powercut: seed %llu: %d crash states tried, %d held (strict %d/%d, barrier %d/%d)\n"
        "powercut: %d states with torn writes, %d with zero-filled tails, %d with notes\n"
        "powercut: acknowledged sends checked %ld: lost %ld, handed over twice %ld, "
        "re-sent once after the restart %ld\n",
        static_cast<unsigned long long>(o.seed), t.tried, t.held, t.held_by_kind[0],
        t.tried_by_kind[0], t.held_by_kind[1], t.tried_by_kind[1], t.with_torn, t.with_zero,
        t.with_notes, t.acked, t.lost, t.duplicated, t.resent);
    for (const auto& [kind, n] : t.problems)
        std::printf("powercut: %d states: %s\n", n, kind.c_str());
}

// The queue's files in a state, for a closer look.
std::string queue_files(const Image& image) {
    std::string out;
    for (const auto& [path, name] : image.names) {
        if (path.rfind("var/Jobs/", 0) != 0 || name.type != 'f') continue;
        const std::string& bytes = image.inodes[static_cast<size_t>(name.inode)];
        out += " " + path.substr(9) + "=" + std::to_string(bytes.size());
        if (path == "var/Jobs/pos_offset") {
            char hex[4];
            out += "[";
            for (size_t i = 0; i < bytes.size() && i < 44; ++i) {
                std::snprintf(hex, sizeof hex, "%02x", static_cast<unsigned char>(bytes[i]));
                out += hex;
            }
            out += "]";
        }
    }
    return out;
}

// The recording must account for every file the daemon left: replaying the
// whole log over the first snapshot gives the tree as it is now (but for the
// files the transceiver and the shell wrote).
std::vector<std::string> unrecorded(const History& history, const std::string& root) {
    Image replayed = history.start();
    for (size_t i = 0; i < history.ops().size(); ++i) history.apply(replayed, i);
    const Image now = snapshot_tree(root).image;
    static const std::set<std::string> others = {"daemon.stderr", "var/run/txrx-sim.log",
                                                 "var/run/txrx_pid_file"};
    std::vector<std::string> out;
    for (const auto& [path, name] : now.names)
        if (name.type == 'f' && !others.count(path) &&
            (!replayed.has(path) || replayed.content(path) != now.content(path)))
            out.push_back(path);
    for (const auto& [path, name] : replayed.names)
        if (name.type == 'f' && !now.has(path)) out.push_back(path + " (gone)");
    return out;
}

// What every crash state of one run is tried against.
struct Trial {
    Bench& bench;
    const Timeline& timeline;
    const std::string& root;
    const std::string& work;
};

// Writes one crash state at the recorded root's own path (job records and
// datagrams name files by their full paths), restarts the daemon on it and
// judges what it finds. False when the state could not even be written.
bool try_state(const Options& o, int k, const CrashState& state, const Trial& t, Tally& tally) {
    const std::string& dir = t.root;
    const std::string state_log = t.work + "/state.log";
    remove_tree(dir);
    ::unlink(state_log.c_str());
    if (!materialise(state.image, dir)) {
        std::fprintf(stderr, "powercut: state %d could not be written\n", k);
        return false;
    }
    Restart r = restart_on(t.bench, dir, state_log);
    Verdict v = judge(t.timeline, state, r);
    count(tally, state, v);
    if (!v.ok() || o.verbose) {
        std::printf("state %d: %s: %s\n", k, state.describe().c_str(), v.ok() ? "held" : "FAILED");
        for (const auto& p : v.problems) std::printf("  %s\n", p.c_str());
        for (const auto& n : v.notes) std::printf("  (%s)\n", n.c_str());
        std::printf("  queue:%s\n", queue_files(state.image).c_str());
    }
    if (!v.ok() && !o.keep.empty()) {
        smsgw::make_dirs(o.keep);
        const std::string kept = o.keep + "/state-" + std::to_string(k);
        ::rename(dir.c_str(), (kept + "-after").c_str());
        materialise(state.image, kept);
    }
    return true;
}

int run(const Options& o) {
    std::mt19937_64 rng(o.seed);
    const Programs programs = locate();
    const std::string work = work_dir();
    const int offset = free_offset(rng);
    if (work.empty() || offset < 0) {
        std::fprintf(stderr, "powercut: no work directory or no free ports\n");
        return 2;
    }
    Bench bench(programs, offset);
    const std::string root = work + "/run", log = work + "/run.log";
    prepare_root(root, programs);
    const Snapshot start = snapshot_tree(root);
    WorkloadStats stats = run_workload(bench, root, log, o.ops, o.seed);
    History history(start, smsgw::read_file(log, SIZE_MAX).value_or(""));
    Timeline timeline = extract_timeline(history, root, bench.ports);
    size_t syncs = 0;
    for (size_t i = 0; i < history.ops().size(); ++i) syncs += history.is_sync(i);
    std::printf(
        "powercut: recorded %s\npowercut: %zu operations, %zu syncs, %zu send requests, "
        "%zu hand-overs\n",
        stats.describe().c_str(), history.ops().size(), syncs, timeline.sends.size(),
        timeline.handovers.size());
    if (stats.sends == 0) return 2;
    for (const auto& path : unrecorded(history, root)) {
        std::printf("powercut: the record does not match the file %s\n", path.c_str());
        return 2;
    }

    Tally tally;
    for (int k = 0; k < o.states; ++k)
        if (!try_state(o, k, sample_state(history, rng), {bench, timeline, root, work}, tally))
            return 2;
    report(o, tally);
    int shm = ::shmget(static_cast<key_t>(16384 + offset), 0, 0);
    if (shm >= 0) ::shmctl(shm, IPC_RMID, nullptr);
    if (o.keep.empty())
        remove_tree(work);
    else
        std::printf("powercut: the record is in %s\n", work.c_str());
    return tally.held == tally.tried ? 0 : 1;
}

}  // namespace
}  // namespace powercut

int main(int argc, char** argv) {
    powercut::Options o;
    if (!powercut::parse(argc, argv, o)) {
        std::fprintf(stderr, "usage: powercut SEED STATES OPS [--keep DIR] [--verbose]\n");
        return 2;
    }
    return powercut::run(o);
}
