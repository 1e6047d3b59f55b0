// "send": writes a request file into a spool directory, hands its path to
// the daemon, and reports what became of it. The daemon's reply alone does
// not tell (an empty reply also follows a dropped job), so the verb looks:
//
//   request file still there        refused (the file is removed)
//   empty reply, hand-offs counted  handed to the modem
//   empty reply, none counted       dropped (unknown group, no modem)
//   "OK", record in the queue       queued, at its position
//   "OK", queue full                refused
//
// Before sending it checks that the contacts and groups named exist
// (--force skips that); numbers must always look like numbers.
#pragma once

#include "verbs.h"

namespace smsgw::ctl {

int cmd_send(Global& g, const Words& words);

}  // namespace smsgw::ctl
