// The start-up work before the loop: the directories and files every
// subsystem expects and the saved archives restored.
#pragma once

#include <string>
#include <vector>

#include "common/runtime.h"
#include "core/sms_users.h"

namespace smsgw {

// Restores the address-book and inbox archives, creates the directories and
// empty files, and the 24-byte SMS statistics file when missing. Returns
// false when the statistics file cannot be created (the rest is skipped).
bool init_directories_and_files(const Runtime& rt);

}  // namespace smsgw
