// File writes of this process fail beyond `bytes` a file (EFBIG) while a
// FullDevice lives, as they would on a full device: RLIMIT_FSIZE, with
// SIGXFSZ ignored.
#pragma once

#include <signal.h>
#include <sys/resource.h>

#include "support/test_support.h"

namespace smsgw::test {

class FullDevice : NoCopy {
  public:
    explicit FullDevice(rlim_t bytes) : old_handler_(::signal(SIGXFSZ, SIG_IGN)) {
        ::getrlimit(RLIMIT_FSIZE, &saved_);
        rlimit lower = saved_;
        lower.rlim_cur = bytes;
        ::setrlimit(RLIMIT_FSIZE, &lower);
    }
    ~FullDevice() {
        ::setrlimit(RLIMIT_FSIZE, &saved_);
        ::signal(SIGXFSZ, old_handler_);
    }

  private:
    rlimit saved_{};
    sighandler_t old_handler_;
};

}  // namespace smsgw::test
