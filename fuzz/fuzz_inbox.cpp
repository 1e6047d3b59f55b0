// The inbox file read by the time-settings handler: length-prefixed
// records of sender, date, time and text. The date program under the
// sandbox root does nothing.
#include <cstdint>
#include <string>

#include "common/runtime.h"
#include "fuzz_support.h"
#include "triggers/time_settings.h"

using namespace smsgw;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto& root = fuzz::FuzzRoot::get();
    root.reset();
    root.write("var/Inbox/smsinbox.dat", std::string(reinterpret_cast<const char*>(data), size));
    Runtime rt(root.path(), root.port_offset());
    LoopBackTime t = read_loop_back_time(rt.path("/var/Inbox/smsinbox.dat"));
    if (!t.opened || (t.date && !t.found)) __builtin_trap();
    // The date argument (MMDDhhmmYYYY.ss) goes to a program: digits and
    // the one dot only.
    if (t.date && t.date->find_first_not_of("0123456789.") != std::string::npos) __builtin_trap();
    set_time_from_loop_back(rt);
    return 0;
}
