// Signal handlers only raise flags; the loop does the work they ask for.
#pragma once

namespace smsgw {

// SIGUSR1 (save the address book), SIGUSR2 (reset the job counter), and
// SIGTERM/SIGINT (save, stop the children and end).
void install_user_signal_handlers();
// SIGCHLD: a child exited, so the loop checks txrx. Installed last at
// start-up (exits during start-up go unreported) and again after a dial-out.
void install_child_handler();
// A dial-out stops txrx on purpose; its exit must not cause a restart.
void ignore_child_signals();

// Each returns whether the signal arrived since the last call and clears it.
bool take_save_request();
bool take_counter_reset();
bool take_child_exited();
// Whether a stop was asked for; stays set.
bool stop_requested();

}  // namespace smsgw
