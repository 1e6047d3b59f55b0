#include "common/timer.h"

#include <signal.h>
#include <sys/time.h>

namespace smsgw {

namespace {
volatile sig_atomic_t g_alarm = 0;

void on_alarm(int) {
    g_alarm = 1;
}
}  // namespace

void start_time_client_timer() {
    struct sigaction sa {};
    sa.sa_handler = on_alarm;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;
    ::sigaction(SIGALRM, &sa, nullptr);
    itimerval it{};
    it.it_value.tv_sec = 1;
    ::setitimer(ITIMER_REAL, &it, nullptr);
}

void stop_time_settings_Timer() {
    itimerval it{};
    ::setitimer(ITIMER_REAL, &it, nullptr);
}

bool take_time_client_alarm() {
    if (!g_alarm) return false;
    g_alarm = 0;
    return true;
}

}  // namespace smsgw
