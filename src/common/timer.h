// The one-shot time-client timer: SIGALRM one second after start-up starts
// "/bin/msntp" once (the handler only raises a flag; the loop starts it).
#pragma once

namespace smsgw {

// Arms the real-time timer for one shot after one second.
void start_time_client_timer();
// Cancels a pending alarm.
void stop_time_settings_Timer();
// True once the alarm fired; clears the flag.
bool take_time_client_alarm();

}  // namespace smsgw
