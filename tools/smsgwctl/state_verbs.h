// Verbs that show state: "status" (is the daemon of this root running and
// answering, its modems and transceiver, the queue and the counters),
// "jobs" (the queued jobs in the order they will be handed over) and
// "outbox" (the outbox records on disk).
#pragma once

#include "verbs.h"

namespace smsgw::ctl {

int cmd_status(Global& g, const Words& words);
int cmd_jobs(Global& g, const Words& words);
int cmd_outbox(Global& g, const Words& words);

}  // namespace smsgw::ctl
