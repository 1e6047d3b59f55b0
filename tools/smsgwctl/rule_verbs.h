// The rule-list verbs: "triggers list|add|del" on the broadcast triggers,
// the preconfigured messages, the action triggers and the authenticated
// users. The daemon answers "SUCCESS" also where it stored nothing (a full
// list, an unknown action label, a user already listed); an addition or
// removal is therefore checked in the list afterwards.
#pragma once

#include "verbs.h"

namespace smsgw::ctl {

int cmd_triggers(Global& g, const Words& words);

}  // namespace smsgw::ctl
