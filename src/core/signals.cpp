#include "core/signals.h"

#include <signal.h>
#include <unistd.h>

#include <cstring>

namespace smsgw {

namespace {

volatile sig_atomic_t g_save_request_flag = 0;
volatile sig_atomic_t g_counter_reset = 0;
volatile sig_atomic_t g_txrx_child_exited = 0;
volatile sig_atomic_t g_stop_request = 0;

void on_usr1(int) {
    g_save_request_flag = 1;
}

void on_usr2(int) {
    g_counter_reset = 1;
}

void on_stop(int) {
    g_stop_request = 1;
}

void on_child(int sig) {
    // "%d-mon\n" without stdio: only write(2) is safe in a handler.
    char line[16];
    size_t n = 0;
    char digits[8];
    size_t d = 0;
    unsigned v = static_cast<unsigned>(sig);
    do {
        digits[d++] = static_cast<char>('0' + v % 10);
        v /= 10;
    } while (v != 0 && d < sizeof digits);
    while (d > 0) line[n++] = digits[--d];
    // A length-counted line for write(2), not a C string.
    // NOLINTNEXTLINE(bugprone-not-null-terminated-result)
    std::memcpy(line + n, "-mon\n", 5);
    n += 5;
    ssize_t ignored = ::write(2, line, n);
    (void)ignored;
    g_txrx_child_exited = 1;
}

void install(int sig, void (*handler)(int)) {
    struct sigaction sa {};
    sa.sa_handler = handler;
    sigemptyset(&sa.sa_mask);
    // Restarted calls keep blocking reads and waits intact; select() is
    // interrupted anyway, which is what lets the loop react at once.
    sa.sa_flags = SA_RESTART;
    ::sigaction(sig, &sa, nullptr);
}

bool take(volatile sig_atomic_t& flag) {
    if (!flag) return false;
    flag = 0;
    return true;
}

}  // namespace

void install_user_signal_handlers() {
    install(SIGUSR1, on_usr1);
    install(SIGUSR2, on_usr2);
    install(SIGTERM, on_stop);
    install(SIGINT, on_stop);
}

void install_child_handler() {
    install(SIGCHLD, on_child);
}

void ignore_child_signals() {
    struct sigaction sa {};
    sa.sa_handler = SIG_IGN;
    sigemptyset(&sa.sa_mask);
    ::sigaction(SIGCHLD, &sa, nullptr);
}

bool take_save_request() {
    return take(g_save_request_flag);
}
bool take_counter_reset() {
    return take(g_counter_reset);
}
bool take_child_exited() {
    return take(g_txrx_child_exited);
}
bool stop_requested() {
    return g_stop_request != 0;
}

}  // namespace smsgw
