// The load-balancer message. Its handler is private to the daemon object,
// so this target runs the pieces it is made of, in its order: the text up
// to the first NUL of a 64-byte datagram, the "LB_OK" test, the field split
// on blanks (at most six fields), the request id and the api status update
// on a fuzzed status table. Input: message, then the table bytes.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "common/runtime.h"
#include "common/text.h"
#include "fuzz_support.h"
#include "send/stats.h"

using namespace smsgw;

namespace {
constexpr size_t kLbMessageMax = 64;
constexpr size_t kLbMaxFields = 6;

// The splitter's promises: fields are non-empty slices of the text without
// a delimiter in them, in order, and there are never too many.
void check_fields(std::string_view text, const std::vector<std::string_view>& fields) {
    if (fields.size() > kLbMaxFields) __builtin_trap();
    const char* last_end = text.data();
    for (std::string_view f : fields) {
        if (f.empty() || f.find(' ') != std::string_view::npos) __builtin_trap();
        if (f.data() < last_end || f.data() + f.size() > text.data() + text.size())
            __builtin_trap();
        last_end = f.data() + f.size();
    }
}
// A message with more than four fields reports a failed send (8), one cut
// after the id or carrying "ERROR" a refusal (7), otherwise a result (6).
int api_status_for(const std::vector<std::string_view>& fields) {
    if (fields.size() > 4) return 8;
    if (fields.size() == 3 || starts_with(fields[3], "ERROR")) return 7;
    return 6;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto& root = fuzz::FuzzRoot::get();
    root.reset();
    auto parts = fuzz::split_parts(data, size, 2);
    root.write("var/config/api_stat.st", parts[1]);
    Runtime rt(root.path(), root.port_offset());

    char message[kLbMessageMax + 1] = {};
    std::memcpy(message, parts[0].data(), std::min(parts[0].size(), kLbMessageMax));
    std::string_view text(message);
    if (text.find("LB_OK") == std::string_view::npos) return 0;
    auto fields = split_fields(text, " ", kLbMaxFields);
    check_fields(text, fields);
    if (fields.size() < 3) return 0;
    const int request_id = c_atoi(fields[2]);
    if (request_id > 0) set_api_status(rt, request_id, api_status_for(fields));
    return 0;
}
