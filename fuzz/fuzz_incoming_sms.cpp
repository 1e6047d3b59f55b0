// An incoming SMS as txrx reports it: the sender field (the first 50 bytes,
// NUL-padded when the input is shorter) and the text behind it. The
// action's handler runs too, and a broadcast goes through the scheduler.
#include <cstdint>
#include <string>

#include "book_check.h"
#include "fuzz_support.h"
#include "trigger_stack.h"

using namespace smsgw;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto& root = fuzz::FuzzRoot::get();
    root.reset();
    fuzz::TriggerStack stack(root);

    // The loop hands over at most the 210-byte report less its 4-byte tag.
    std::string message(reinterpret_cast<const char*>(data), std::min<size_t>(size, 206));
    if (message.size() < 50) message.resize(50, '\0');
    int action = stack.triggers->getactionobject(message);
    if (action < 0 || action > 9) __builtin_trap();
    stack.queue.create_job_from_pending_jobs(0);
    fuzz::check_book(stack.ab);
    fuzz::reap_children();
    return 0;
}
