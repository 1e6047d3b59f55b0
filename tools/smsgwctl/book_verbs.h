// The address-book verbs: "contacts ..." and "groups ...". Where the
// daemon's reply reads the same for success and failure (a group deletion
// always answers "ERROR", a rename "Invalid String to Parse", a deletion of
// a number the contact does not hold "SUCCESS"), the verb looks at the book
// before and after the change and reports what it found.
#pragma once

#include "verbs.h"

namespace smsgw::ctl {

int cmd_contacts(Global& g, const Words& words);
int cmd_groups(Global& g, const Words& words);

}  // namespace smsgw::ctl
