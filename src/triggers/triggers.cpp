#include "triggers/triggers.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cstring>
#include <utility>
#include <variant>

#include "commands/service_settings.h"
#include "common/fileops.h"
#include "common/net.h"
#include "common/text.h"
#include "common/trace.h"
#include "formats/request_file.h"
#include "formats/txrx_datagram.h"
#include "formats/txrx_report.h"
#include "send/stats.h"
#include "triggers/time_settings.h"
#include "triggers/trigger_parser.h"

namespace smsgw {

namespace {

// An API trigger request reads only the sender and text of its file.
constexpr size_t kApiRequestHead = RequestFile::kSenderSize + RequestFile::kTextSize;

// The GROUP section of a send request for the record's groups.
std::string group_section(const BroadcastRecord& record) {
    std::string section;
    for (const std::string& name : broadcast_groups(record.group)) section += name + "^|^";
    return section;
}

}  // namespace

struct Triggers::Impl {
    Impl(Runtime& r, AddressBook& a, RuleLists& rl, Sender& s, JobQueue& q, std::string& reply)
        : rt(r), ab(a), rules(rl), sender(s), queue(q), link(s.txrx()), action_reply(reply) {}

    Runtime& rt;
    AddressBook& ab;
    RuleLists& rules;
    Sender& sender;
    JobQueue& queue;
    TxrxLink& link;
    std::string& action_reply;

    bool time_settings_busy = false;
    // The "api2" request being processed: a broadcast it queues carries its
    // id and user. With no job outstanding it runs at once (api_direct) and
    // api_ProcessTrigs hands the job it prepared to txrx itself.
    std::optional<ApiOrigin> api_trigger;
    bool api_direct = false;
    std::string prepared_job;  // the job the last send action prepared
    int api_status_value = -1;

    using Handler = void (Impl::*)(ActionObject&);
    static const std::array<Handler, 10> kHandlers;

    // ---- the ten handlers ----
    void send_handler(ActionObject& object) {
        if (auto* record = std::get_if<BroadcastRecord>(&object))
            send_action(0, *record, std::nullopt);
    }

    void delete_entry(ActionObject& object) {
        if (auto* entry = std::get_if<EntryObject>(&object)) delete_contact(*entry);
    }

    void delete_contact(const EntryObject& entry) {
        if (entry.by_name) {
            ab.ab_delete_name(entry.name);
            return;
        }
        if (ab.ab_delete_entry(entry.name, entry.number) != 1) return;
        // A contact that is gone may neither authenticate nor be a member.
        std::string member =
            entry.name + std::string(kItemSep) + entry.number + std::string(kItemSep);
        rules.delete_auth_user(entry.name, entry.number);
        rules.update_trigger_members(member, "", 1);
    }

    void delete_group(ActionObject& object) {
        if (auto* name = std::get_if<TextObject>(&object)) ab.group_delete(name->text, 0);
    }

    void add_entry(ActionObject& object) {
        if (auto* entry = std::get_if<EntryObject>(&object))
            ab.ab_insert(entry->name, entry->number, "");
    }

    void add_grp(ActionObject& object) {
        auto* g = std::get_if<GroupObject>(&object);
        if (!g) return;
        if (g->group_name.empty()) {
            trace("In group_name == 0\n");
            return;
        }
        ab.group_create(g->group_name);  // an existing group is fine here
        Entry* entry = nullptr;
        if (!g->number.empty() && !g->name.empty()) {
            trace("In number != 0\n");
            ab.ab_insert(g->name, g->number, "");
            if (TrieNode* node = ab.ab_find(g->name))
                entry = AddressBook::ab_find_number(node->entries.get(), g->number);
        }
        if (!g->name.empty()) {
            trace("In name != 0\n");
            // The contact with the number given, else the name's first one.
            if (entry)
                ab.group_add_member(g->group_name, entry);
            else
                ab.group_add_contact(g->group_name, g->name);
        }
        trace("%s() - Group Name - %s; Name - %s; Number - %s - %s\n", "add_grp",
              g->group_name.c_str(), g->name.c_str(), g->number.c_str(), rt.reply_buffer.c_str());
    }

    void add_preconf(ActionObject& object) {
        if (auto* text = std::get_if<TextObject>(&object))
            rules.add_preconf_sms(text->text, "[null]]|[");
    }

    void time_settings(ActionObject&) {
        time_settings_busy = true;
        set_time_from_loop_back(rt);
        time_settings_busy = false;
    }

    void do_nothing(ActionObject&) { trace("%s() - entry_name - %s ; %s\n", "do_nothing", "", ""); }

    void api_status(ActionObject& object) {
        auto* file = std::get_if<TextObject>(&object);
        if (!file || api_status_value == -1) return;
        int id = last_dash_number(file->text);
        set_api_status(rt, id, api_status_value);
        if (api_status_value == 0)
            write_conf_value(rt, rt.path("/var/config/api.conf"), "last-done", std::to_string(id));
    }

    void delete_by_number(ActionObject& object) {
        auto* entry = std::get_if<EntryObject>(&object);
        if (!entry) return;
        std::string path = rt.path("/var/run/enamefile");
        {
            FilePtr out = open_fixed_temp(path, "w");
            if (!out) {
                trace("/var/run/RESPONSE_FILE file not found\n");
                return;
            }
            Listing listing{out.get()};
            ab.ab_list_by_number(listing, entry->number);
        }
        FilePtr in = open_file(path, "r");
        if (!in) {
            trace("/var/run/RESPONSE_FILE file not found\n");
            return;
        }
        char line[257] = {};
        if (!std::fgets(line, sizeof line, in.get())) return;
        std::string_view text(line);
        EntryObject found;
        found.name = std::string(text.substr(0, text.find(kSep)));
        found.number = entry->number;
        delete_contact(found);
    }

    // ---- the send action ----
    SendActionResult send_action(int mode, const BroadcastRecord& record,
                                 const std::optional<ApiOrigin>& queued_api) {
        SendActionResult result;
        action_reply = encode_broadcast_handoff("", false);
        prepared_job.clear();
        // While txrx works on a job, an idle-time broadcast waits in the
        // queue; a peer asking for work (mode 1) is served at once.
        if (mode == 0 && link.job_outstanding()) {
            queue_broadcast(record);
            return result;
        }
        std::optional<ApiOrigin> api = queued_api;
        if (!api && api_direct) api = api_trigger;
        std::string job = prepare_job(record, api);
        if (job.empty()) return result;
        result.request_file = job;
        action_reply = encode_broadcast_handoff(job, api.has_value());
        prepared_job = job;
        if (mode == 0) link.job_handed_over();
        return result;
    }

    // A broadcast that cannot be written for the queue is lost: the
    // administrator learns of it from the log, not from a silent gap.
    void queue_broadcast(const BroadcastRecord& record) {
        const std::string path = rt.path("/var/run/pending_jobs");
        const std::string body = encode_broadcast_body(record);
        if (!write_new_file(path, body)) {
            syslog(LOG_ERR, "a broadcast trigger was dropped: cannot write %s: %s", path.c_str(),
                   std::strerror(errno));
            remove_file(path);
            return;
        }
        queue.add_to_pending_jobs_broadcasttrigger(&path, static_cast<long>(body.size()),
                                                   api_trigger);
        api_trigger.reset();  // its id and user are in the job line now
    }

    static bool write_new_file(const std::string& path, const std::string& body) {
        FilePtr out = open_fixed_temp(path, "w+");
        if (!out) return false;
        const bool written = std::fwrite(body.data(), 1, body.size(), out.get()) == body.size();
        return std::fclose(out.release()) == 0 && written;
    }

    // Writes the send request for the record's groups and turns it into a
    // job as a queued request would be. Returns the job path, "" when no
    // job was made.
    std::string prepare_job(const BroadcastRecord& record, const std::optional<ApiOrigin>& api) {
        const std::string& user = api ? api->user : record.sender;
        auto request_file =
            write_request_file(record, user, api ? std::optional<int>(api->id) : std::nullopt);
        if (!request_file) return "";
        const std::string request = (api ? "send-sms api " : "send-sms ") + *request_file;
        const PreparedJob job = sender.send_sms_handler(request, 1);
        remove_file(*request_file);  // already gone unless the handler gave up early
        if (job.job_path.empty() || job.again || !file_exists(job.job_path)) return "";
        if (job.unknown_recipient) {
            // None of the groups exists: there is nobody to send to.
            if (api) set_api_status(rt, api->id, kApiUnknownRecipient);
            remove_file(job.job_path);
            return "";
        }
        return job.job_path;
    }

    // The request file in the spool; an api job's name ends in "-ID" so the
    // send handler finds its request id there.
    std::optional<std::string> write_request_file(const BroadcastRecord& record,
                                                  const std::string& user,
                                                  std::optional<int> api_id) {
        Fd fd;
        auto path = create_temp_file(rt.request_dir(), "trg", &fd);
        if (!path) return std::nullopt;
        std::string image = encode_request_file(user, record.text, "", "", group_section(record));
        bool ok = write_all(fd.get(), image);
        ok = fd.close_checked() && ok;
        if (ok && api_id) {
            std::string named = *path + "-" + std::to_string(*api_id);
            // link() never replaces an existing name, unlike rename().
            ok = ::link(path->c_str(), named.c_str()) == 0;
            ::unlink(path->c_str());
            if (ok) *path = named;
        }
        if (!ok) {
            ::unlink(path->c_str());
            return std::nullopt;
        }
        return path;
    }
};

const std::array<Triggers::Impl::Handler, 10> Triggers::Impl::kHandlers = {
    &Impl::send_handler, &Impl::delete_entry,     &Impl::delete_group,  &Impl::add_entry,
    &Impl::add_grp,      &Impl::add_preconf,      &Impl::time_settings, &Impl::do_nothing,
    &Impl::api_status,   &Impl::delete_by_number,
};

Triggers::Triggers(Runtime& rt, AddressBook& ab, RuleLists& rules, Sender& sender, JobQueue& queue)
    : impl_(std::make_unique<Impl>(rt, ab, rules, sender, queue, action_reply_)) {
    queue.set_send_action(
        [this](int mode, const BroadcastRecord& record, const std::optional<ApiOrigin>& api) {
            return impl_->send_action(mode, record, api);
        });
}

Triggers::~Triggers() {
    impl_->queue.set_send_action(nullptr);
}

int Triggers::getactionobject(std::string_view message) {
    Impl& im = *impl_;
    trace("Before getactionobject()\n");
    action_reply_ = encode_broadcast_handoff("", false);
    ParseContext ctx{im.rt, trigger_work_buffer_size(im.ab.entry_count()), im.time_settings_busy};
    ParsedMessage parsed = parse_trigger_sms(ctx, message);
    if (!parsed.fail_log.empty()) syslog(LOG_INFO, "%s", fail_log_line(parsed.fail_log).c_str());
    if (parsed.count_received) count_sms_stat(im.rt, SmsStats::kTriggersReceived);
    if (parsed.count_acted) count_sms_stat(im.rt, SmsStats::kTriggersActed);

    int action = parsed.action;
    trace("action - %d\n", action);
    if (action != kActionTimeSettings && action != kActionNothing && action != kActionApiStatus) {
        count_sms_stat(im.rt, SmsStats::kTriggersReceived);
        if (action != kActionSend) count_sms_stat(im.rt, SmsStats::kTriggersActed);
    }
    im.api_status_value = parsed.api_status;
    if (action >= 0 && action < static_cast<int>(Impl::kHandlers.size()))
        (im.*Impl::kHandlers[static_cast<size_t>(action)])(parsed.object);
    return action;
}

namespace {

// The sender and text of an API trigger request's file; nullopt when the
// file cannot be opened (or is no plain file any more).
std::optional<RequestFile> read_api_request(const std::string& path) {
    Fd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat st {};
    if (!fd || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return std::nullopt;
    std::string head(kApiRequestHead, '\0');
    size_t got = 0;
    while (got < head.size()) {
        ssize_t n = ::read(fd.get(), head.data() + got, head.size() - got);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        got += static_cast<size_t>(n);
    }
    head.resize(got);
    return decode_request_file(head);
}

}  // namespace

int Triggers::api_ProcessTrigs(std::string_view request) {
    trace("In api_ProcessTrigs\n");
    const size_t blank = request.find(' ');
    if (blank == std::string_view::npos) return 0;
    const std::string_view argument = request.substr(blank + 1);
    const bool send = starts_with(argument, "api2 ");
    if (!send && !starts_with(argument, "api3 ")) return 0;
    const std::string_view rest = argument.substr(5);
    const std::string path(rest.substr(0, rest.find_first_of(std::string_view("\r\n\0", 3))));
    // A file the policy refuses is left alone entirely.
    if (!impl_->sender.request_file_allowed(path)) return 1;
    const int id = last_dash_number(path);
    if (std::optional<RequestFile> file = read_api_request(path)) {
        // The record of an incoming SMS whose sender is the kind's digit.
        const std::string message = encode_incoming_sms(send ? "2" : "3", file->text());
        if (send)
            api_send_trigger(message, ApiOrigin{id, file->sender().substr(0, kSenderMax)});
        else
            set_api_status(
                impl_->rt, id,
                getactionobject(message) == kActionNothing ? kApiTriggerRefused : kApiAccepted);
    } else {
        trace("Unable to open file\n");
    }
    ::unlink(path.c_str());
    return 1;
}

void Triggers::api_send_trigger(const std::string& message, const ApiOrigin& origin) {
    Impl& im = *impl_;
    im.api_trigger = origin;
    im.api_direct = !im.link.job_outstanding();
    if (getactionobject(message) == kActionNothing) {
        set_api_status(im.rt, origin.id, kApiSendTriggerRefused);
    } else if (im.api_direct && !im.prepared_job.empty()) {
        // The job is prepared; this path hands it to txrx itself.
        im.link.send(encode_job_handoff(im.prepared_job, true));
    }
    // Whatever happened, this request's api state is used up (a queued
    // broadcast has already taken it into its job line).
    im.api_direct = false;
    im.api_trigger.reset();
}

}  // namespace smsgw
