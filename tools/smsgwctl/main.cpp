// smsgwctl: the operator's client for smsgwd. It speaks the management
// protocol the router's web interface speaks, shows replies and the files
// they name as tables for people or JSON for scripts, and tells by its exit
// status what happened (see command_line.h and smsgwctl(1)).
#include <cstdio>
#include <exception>
#include <string>

#include "book_verbs.h"
#include "file_verbs.h"
#include "rule_verbs.h"
#include "send_verb.h"
#include "state_verbs.h"

namespace smsgw::ctl {
namespace {

const char kUsage[] =
    "usage: smsgwctl [--root DIR] [--port-offset N] [--timeout SECS] [--json] COMMAND ...\n"
    "\n"
    "  status                            is smsgwd running and answering; modems, queue\n"
    "  jobs                              the queued jobs, next first\n"
    "  outbox                            the outbox records on disk\n"
    "  contacts list [--page N] [--prefix P]\n"
    "  contacts count\n"
    "  contacts add NAME NUMBER [DESC] [--group G]...\n"
    "  contacts del NAME NUMBER\n"
    "  contacts edit OLDNAME OLDNUMBER NEWNAME NEWNUMBER [DESC]\n"
    "  contacts find-number NUMBER\n"
    "  groups list [--page N]\n"
    "  groups count\n"
    "  groups add GROUP [NAME NUMBER]...\n"
    "  groups del GROUP...\n"
    "  groups rename OLD NEW\n"
    "  groups members GROUP [--page N]\n"
    "  groups add-member GROUP NAME NUMBER [NAME NUMBER]...\n"
    "  groups del-member GROUP NAME NUMBER [NAME NUMBER]...\n"
    "  triggers list broadcast|preconf|ctrl|auth\n"
    "  triggers add broadcast KEYWORD TEXT [--group G]... [--auth YES|NO]\n"
    "                         [--allow NAME NUMBER]...\n"
    "  triggers add preconf TEXT [--group G]...\n"
    "  triggers add ctrl LABEL KEYWORD [--auth YES|NO]\n"
    "  triggers add auth NAME NUMBER [NAME NUMBER]...\n"
    "  triggers del broadcast|preconf INDEX\n"
    "  triggers del auth NAME NUMBER [NAME NUMBER]...\n"
    "  send [--to NUMBER]... [--contact NAME]... [--group G]... [--all|--all-groups]\n"
    "       [--from SENDER] [--spool DIR] [--force] TEXT\n"
    "  save\n"
    "  export-csv\n"
    "  import-csv FILE [--columns FIRST,LAST,NUMBER,DESC]\n"
    "  raw TEXT                          send TEXT as it stands, print the reply\n"
    "\n"
    "DIR and N default to $SMSGW_ROOT and $SMSGW_PORT_OFFSET, else / and 0.\n"
    "Exit status: 0 done, 1 refused or without effect, 2 usage, 3 smsgwd not\n"
    "reachable, 4 local file error, 5 an answer that makes no sense.\n";

int run(int argc, char** argv) {
    int next = 1;
    Global g = parse_global(argc, argv, next);
    const std::string verb = next < argc ? argv[next] : "";
    if (verb == "--help" || verb == "-h" || verb == "help") {
        std::fputs(kUsage, stdout);
        return kExitOk;
    }
    if (verb == "--version") {
        std::puts("smsgwctl " SMSGW_VERSION);
        return kExitOk;
    }
    static const VerbTable kVerbs = {{"status", cmd_status},
                                     {"jobs", cmd_jobs},
                                     {"outbox", cmd_outbox},
                                     {"contacts", cmd_contacts},
                                     {"groups", cmd_groups},
                                     {"triggers", cmd_triggers},
                                     {"send", cmd_send},
                                     {"save", cmd_save},
                                     {"export-csv", cmd_export_csv},
                                     {"import-csv", cmd_import_csv},
                                     {"raw", cmd_raw}};
    return dispatch(g, Words(argv + next, argv + argc), kVerbs, "smsgwctl");
}

// Reports a failure: the message (and the daemon's words) on standard
// error, and under --json an error object on standard output.
int report(const Failure& f, bool json) {
    std::string message = f.message;
    if (!f.reply.empty()) message += " (smsgwd answered \"" + f.reply + "\")";
    if (f.status == kExitUsage) message += " (see smsgwctl --help)";
    warn(message);
    if (json) {
        JsonObject o;
        o.boolean("ok", false).num("exit_status", f.status).str("error", f.message);
        if (!f.reply.empty()) o.str("reply", f.reply);
        print(o.done() + "\n");
    }
    return f.status;
}

// --json anywhere before a "--" asks for JSON, also for errors found before
// the verb read it.
bool wants_json(int argc, char** argv) {
    for (int i = 1; i < argc && std::string(argv[i]) != "--"; ++i)
        if (std::string(argv[i]) == "--json") return true;
    return false;
}

}  // namespace
}  // namespace smsgw::ctl

int main(int argc, char** argv) {
    using namespace smsgw::ctl;
    try {
        return run(argc, argv);
    } catch (const Failure& f) {
        return report(f, wants_json(argc, argv));
    } catch (const std::exception& e) {
        return report(Failure{kExitLocal, e.what(), {}}, wants_json(argc, argv));
    }
}
