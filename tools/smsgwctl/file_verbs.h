// Verbs around the daemon's files and plain commands: "raw" (any command
// text), "save", "export-csv" and "import-csv".
#pragma once

#include "verbs.h"

namespace smsgw::ctl {

int cmd_raw(Global& g, const Words& words);
int cmd_save(Global& g, const Words& words);
int cmd_export_csv(Global& g, const Words& words);
int cmd_import_csv(Global& g, const Words& words);

}  // namespace smsgw::ctl
