// What a crash state must satisfy once a fresh daemon has run on it, and
// what the recorded run says it must satisfy: which send requests were
// answered before the cut, which jobs were handed to txrx before it, and
// which contents the address book, the rule lists and the settings files
// had at the points where the daemon had finished a request.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "crash_states.h"

namespace powercut {

struct Ports {
    int offset = 0;
    int client = 0;  // the driver's web-interface socket
    int gui() const { return 20205 + offset; }
    int txrx() const { return 20202 + offset; }
    int reports() const { return 20206 + offset; }
};

// The files whose content must be an old or a new one, never a mix. The
// first two (the address book) are judged together.
const std::vector<std::string>& watched_files();

struct Timeline {
    static constexpr size_t npos = SIZE_MAX;
    struct Send {
        std::string text;
        size_t received = npos;  // op index of the request datagram
        size_t answered = npos;  // op index of the reply
        std::string reply;
    };
    struct HandOver {
        size_t at;
        std::string text;
    };
    std::vector<Send> sends;
    std::vector<HandOver> handovers;
    // Points where no request was under way (ops applied), with the watched
    // files' contents there.
    std::vector<size_t> stable;
    std::vector<std::vector<std::string>> contents;
};

// `root`: the real path of the recorded run's root (job paths in the
// datagrams are real paths).
Timeline extract_timeline(const History& history, const std::string& root, const Ports& ports);

// What the daemon on a crash state did.
struct Restart {
    bool started = false;                 // it answered a first request
    bool answered = false;                // and one after the drain
    bool alive = false;                   // it still ran at the end
    bool drained = false;                 // every job file emptied
    std::vector<std::string> handed;      // texts handed to txrx, in order
    std::vector<std::string> post_texts;  // requests sent after the start
    std::vector<std::string> post_replies;
    std::vector<std::string> outside;  // files it created outside the root
    std::string resave_reply;
    std::string resaved_book, resaved_groups;
    std::string left_over;  // job files still holding records, for the report
};

struct Verdict {
    std::vector<std::string> problems;  // broken invariants
    std::vector<std::string> notes;     // allowed, but worth counting
    int acked = 0, resent = 0, lost = 0, duplicated = 0;
    bool ok() const { return problems.empty(); }
};

Verdict judge(const Timeline& timeline, const CrashState& state, const Restart& restart);

}  // namespace powercut
