#include "send_verb.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <optional>

#include "client.h"
#include "common/fileops.h"
#include "common/text.h"
#include "formats/job_header.h"
#include "formats/job_stats.h"
#include "formats/request_file.h"
#include "listings.h"
#include "queue_view.h"

namespace smsgw::ctl {
namespace {

// The daemon takes request file paths up to this length.
constexpr size_t kMaxRequestPath = 87;
constexpr size_t kTextRoom = 159;
// The queue takes no job once it holds this many bytes.
constexpr int32_t kQueueLimit = 4194304;

struct Sections {
    std::string numbers, names, groups;  // the recipient texts of the request file
};

Sections sections_of(const Args& a) {
    if (a.has("--all") && a.has("--all-groups"))
        throw usage_error("--all and --all-groups exclude each other");
    // The daemon stops reading at these words, so they stand alone.
    if (a.has("--all")) return {"__ALL__", "", ""};
    if (a.has("--all-groups")) return {"__GALL__", "", ""};
    Sections r;
    for (const auto& n : a.values("--to")) r.numbers += phone_number(n) + std::string(kSep);
    // A pair with the number "0" stands for every number of the contact.
    for (const auto& n : a.values("--contact"))
        r.names += "0^|^" + lookup_field(n, kNameRoom, "contact name") + std::string(kSep);
    for (const auto& n : a.values("--group"))
        r.groups += lookup_field(n, kGroupRoom, "group") + std::string(kSep);
    if (r.numbers.empty() && r.names.empty() && r.groups.empty())
        throw usage_error(
            "send needs a recipient: --to, --contact, --group, --all or --all-groups");
    return r;
}

void check_recipients(const Client& c, const Args& a) {
    for (const auto& n : a.values("--contact"))
        if (!contact_exists(c, n)) refused("no contact named '" + n + "'", {});
    for (const auto& grp : a.values("--group"))
        if (!group_exists(c, grp)) refused("no such group: '" + grp + "'", {});
    if (a.has("--all") && c_atoi(c.request("get-sms total-entries phone_book^|^")) <= 0)
        refused("the address book holds no contacts", {});
    if (a.has("--all-groups") && c_atoi(c.request("get-sms total-entries groups^|^")) <= 0)
        refused("there are no groups", {});
}

// The request file in the spool, removed again unless the daemon took it.
class SpoolFile {
  public:
    SpoolFile(const std::string& dir, const std::string& image) {
        Fd fd;
        auto path = create_temp_file(dir, "smsgwctl-", &fd);
        if (!path)
            throw Failure{kExitLocal,
                          "cannot create a request file in " + dir + ": " + std::strerror(errno),
                          {}};
        path_ = *path;
        if (path_.size() > kMaxRequestPath)
            throw Failure{kExitLocal,
                          "the request file path " + path_ + " is longer than " +
                              std::to_string(kMaxRequestPath) + " characters",
                          {}};
        // Readable for all: the daemon may run as another user.
        if (!write_all(fd.get(), image) || ::fchmod(fd.get(), 0644) != 0 || !fd.close_checked())
            throw Failure{kExitLocal, "cannot write " + path_ + ": " + std::strerror(errno), {}};
    }
    ~SpoolFile() {
        if (!path_.empty()) remove_file(path_);
    }
    SpoolFile(const SpoolFile&) = delete;
    SpoolFile& operator=(const SpoolFile&) = delete;

    const std::string& path() const { return path_; }
    // The daemon takes a request file by deleting it.
    bool taken() const {
        struct stat st {};
        return ::lstat(path_.c_str(), &st) != 0 && errno == ENOENT;
    }

  private:
    std::string path_;
};

// The daemon only takes absolute request file paths.
std::string absolute(const std::string& dir) {
    if (!dir.empty() && dir[0] == '/') return dir;
    char cwd[PATH_MAX];
    return ::getcwd(cwd, sizeof cwd) ? std::string(cwd) + "/" + dir : dir;
}

std::optional<JobStats> job_stats(const Client& c) {
    return decode_job_stats(read_file(c.path("/var/config/job_stats_file"), 4096).value_or(""));
}

int report_handed_over(const Global& g, const Client& c, const std::string& path,
                       const std::optional<JobStats>& before) {
    const auto after = job_stats(c);
    JsonObject j;
    j.str("request_file", path);
    if (!before || !after)
        return succeed(g, "handed to the daemon (no job counters to confirm a modem took it)",
                       j.str("state", "taken"));
    if (after->handoffs <= before->handoffs)
        refused("the daemon dropped the job: no modem took it, or a group it names does not exist",
                "");
    return succeed(g, "handed to the modem", j.str("state", "sent"));
}

int report_queued(const Global& g, const Client& c, const std::string& path) {
    const QueueState q = read_queue(c);
    JsonObject j;
    j.str("request_file", path);
    // The record keeps the request line as far as its field holds it.
    const std::string line = ("send-sms " + path).substr(0, JobHeader::kFromSize - 1);
    for (const auto& job : q.jobs) {
        if (job.request != line) continue;
        return succeed(
            g,
            "queued at position " + std::to_string(job.position) + " of " +
                std::to_string(q.jobs.size()),
            j.str("state", "queued").num("position", static_cast<long long>(job.position)));
    }
    if (q.full || (q.table && q.table->TOTAL_SIZE >= kQueueLimit))
        refused("the job queue is full", "OK");
    return succeed(g, "queued, and already handed on from the queue", j.str("state", "queued"));
}

}  // namespace

int cmd_send(Global& g, const Words& w) {
    Args a = parse_args(g, w,
                        {{"--to", 1},
                         {"--contact", 1},
                         {"--group", 1},
                         {"--all", 0},
                         {"--all-groups", 0},
                         {"--from", 1},
                         {"--spool", 1},
                         {"--force", 0}},
                        1, 1,
                        "send [--to NUMBER]... [--contact NAME]... [--group G]... "
                        "[--all|--all-groups] [--from SENDER] [--spool DIR] [--force] TEXT");
    const std::string& text = a.positional[0];
    if (text.size() > kTextRoom)
        throw usage_error("the message is longer than " + std::to_string(kTextRoom) + " bytes");
    const std::string sender = new_field(a.value("--from").value_or("admin"), kNameRoom, "sender");
    const Sections to = sections_of(a);
    Client c(g);
    if (!a.has("--force")) check_recipients(c, a);
    const SpoolFile file(absolute(a.value("--spool").value_or(c.path("/tmp"))),
                         encode_request_file(sender, text, to.numbers, to.names, to.groups));
    const auto before = job_stats(c);
    const std::string reply = c.request("send-sms " + file.path());
    if (!file.taken())
        refused("the daemon did not take the request file " + file.path() +
                    " (it must be a regular file in one of its spool directories)",
                reply);
    if (reply.empty()) return report_handed_over(g, c, file.path(), before);
    if (reply == "OK") return report_queued(g, c, file.path());
    fail(reply, "cannot send");
}

}  // namespace smsgw::ctl
