// Text lines that reach the trigger parser from the api front end ("api FILE
// STATUS") and the api2/api3 send requests taken by api_ProcessTrigs. The
// first byte chooses the entry point; "%R" in the line stands for the
// sandbox root, so seeds can name the request files written here.
#include <cstdint>
#include <string>

#include "book_check.h"
#include "formats/request_file.h"
#include "fuzz_support.h"
#include "trigger_stack.h"

using namespace smsgw;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    auto& root = fuzz::FuzzRoot::get();
    root.reset();
    fuzz::TriggerStack stack(root);

    const bool as_request = data[0] & 1;
    std::string line(reinterpret_cast<const char*>(data + 1), std::min<size_t>(size - 1, 512));
    fuzz::expand_root(line, root);
    if (as_request) {
        // api trigger requests name a request file: give them two to find.
        root.write("tmp/req-5", encode_request_file("admin", "Add:Fred;+4970", "", "", ""));
        root.write("tmp/req-6", encode_request_file("+4930", "Open", "", "", ""));
        stack.triggers->api_ProcessTrigs(line);
        stack.queue.create_job_from_pending_jobs(0);
    } else {
        int action = stack.triggers->getactionobject(line);
        if (action < 0 || action > 9) __builtin_trap();
    }
    fuzz::check_book(stack.ab);
    fuzz::reap_children();
    return 0;
}
