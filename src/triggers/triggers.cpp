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
#include "common/bytes.h"
#include "common/fileops.h"
#include "common/net.h"
#include "common/text.h"
#include "common/trace.h"
#include "send/stats.h"
#include "triggers/time_settings.h"
#include "triggers/trigger_parser.h"

namespace smsgw {

namespace {

constexpr long kStatReceived = 20;  // triggers received
constexpr long kStatActed = 16;     // triggers that led to an action
constexpr size_t kBroadcastBody = 210;
constexpr size_t kApiMessage = 256;

// The GROUP section of a send request for the record's groups.
std::string group_section(const BroadcastRecord& record) {
    std::string section;
    for (const std::string& name : broadcast_groups(record.group)) section += name + "^|^";
    return section;
}

}  // namespace

struct Triggers::Impl {
    Impl(Runtime& r, AddressBook& a, RuleLists& rl, Sender& s, JobQueue& q,
         std::array<char, 100>& reply)
        : rt(r), ab(a), rules(rl), sender(s), queue(q), action_reply(reply) {}

    Runtime& rt;
    AddressBook& ab;
    RuleLists& rules;
    Sender& sender;
    JobQueue& queue;
    std::array<char, 100>& action_reply;

    bool time_settings_busy = false;
    // Set by api_ProcessTrigs while an "api2" trigger runs with no job
    // outstanding: the broadcast it starts is an api job.
    bool api_direct = false;
    int api_status_value = -1;

    using Handler = void (Impl::*)(ActionObject&);
    static const std::array<Handler, 10> kHandlers;

    void set_reply(std::string_view text) {
        action_reply.fill('\0');
        copy_field(action_reply.data(), action_reply.size(), text);
    }

    // ---- the ten handlers ----
    void send_handler(ActionObject& object) {
        if (auto* record = std::get_if<BroadcastRecord>(&object)) {
            queue.current_broadcast = std::move(*record);
            send_action(0);
        }
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
    SendActionResult send_action(int mode) {
        SendActionResult result;
        set_reply("");
        if (!queue.current_broadcast) return result;
        BroadcastRecord& record = *queue.current_broadcast;
        // While txrx works on a job, an idle-time broadcast waits in the
        // queue; a peer asking for work (mode 1) is served at once.
        if (mode == 0 && rt.job_outstanding == 1) {
            result.queued = queue_broadcast(record);
            return result;
        }
        std::string job = prepare_job(record);
        if (job.empty()) return result;
        result.request_file = job;
        set_reply(is_api_job() ? "api " + job : job);
        if (mode == 0) rt.job_outstanding = 1;
        return result;
    }

    bool is_api_job() const { return api_direct || queue.api_job == 1; }

    bool queue_broadcast(const BroadcastRecord& record) {
        std::string path = rt.path("/var/run/pending_jobs");
        std::string body = encode_broadcast_body(record);
        {
            FilePtr out = open_fixed_temp(path, "w+");
            if (!out) return false;
            if (std::fwrite(body.data(), 1, body.size(), out.get()) != body.size()) {
                remove_file(path);
                return false;
            }
            if (std::fclose(out.release()) != 0) {
                remove_file(path);
                return false;
            }
        }
        queue.add_to_pending_jobs_broadcasttrigger(&path, static_cast<long>(body.size()));
        return true;
    }

    // Writes the send request for the record's groups and turns it into a
    // job as a queued request would be. Returns the job path, "" when no
    // job was made.
    std::string prepare_job(const BroadcastRecord& record) {
        bool api = is_api_job();
        int api_id = queue.api_job == 1 ? c_atoi(queue.api_request_id_text) : rt.api_trigger.id;
        std::string user = record.sender;
        if (api) user = queue.api_job == 1 ? queue.api_user : rt.api_trigger.sender;

        auto request_file =
            write_request_file(record, user, api ? std::optional<int>(api_id) : std::nullopt);
        if (!request_file) return "";
        std::string request = (api ? "send-sms api " : "send-sms ") + *request_file;
        sender.job_path.clear();
        sender.send_sms_handler(request, 1);
        remove_file(*request_file);  // already gone unless the handler gave up early
        if (sender.job_path.empty() || !file_exists(sender.job_path)) return "";
        if (sender.api_request_failed == 1) {
            // None of the groups exists: there is nobody to send to.
            if (api) set_api_status(rt, api_id, 606);
            remove_file(sender.job_path);
            sender.api_request_failed = 0;
            return "";
        }
        return sender.job_path;
    }

    // The request file in the spool; an api job's name ends in "-ID" so the
    // send handler finds its request id there.
    std::optional<std::string> write_request_file(const BroadcastRecord& record,
                                                  const std::string& user,
                                                  std::optional<int> api_id) {
        Fd fd;
        auto path = create_temp_file(rt.request_dir(), "trg", &fd);
        if (!path) return std::nullopt;
        std::string image = build_request_file(user, record.text, "", "", group_section(record));
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

    // ---- api trigger requests ----
    void forward_to_txrx(const std::string& text) {
        Fd fd = forwarding_socket(rt, rt.ports.txrx_out());
        if (!fd) return;
        std::string payload = text;
        payload += '\0';
        if (::sendto(fd.get(), payload.data(), payload.size(), 0,
                     reinterpret_cast<const sockaddr*>(&rt.peer_addr), sizeof rt.peer_addr) < 0)
            trace(" Error sendto\n ");
    }
};

const std::array<Triggers::Impl::Handler, 10> Triggers::Impl::kHandlers = {
    &Impl::send_handler, &Impl::delete_entry,     &Impl::delete_group,  &Impl::add_entry,
    &Impl::add_grp,      &Impl::add_preconf,      &Impl::time_settings, &Impl::do_nothing,
    &Impl::api_status,   &Impl::delete_by_number,
};

Triggers::Triggers(Runtime& rt, AddressBook& ab, RuleLists& rules, Sender& sender, JobQueue& queue)
    : impl_(std::make_unique<Impl>(rt, ab, rules, sender, queue, action_reply_)) {
    queue.send_action = [this](int mode) { return send_action(mode); };
}

Triggers::~Triggers() {
    impl_->queue.send_action = nullptr;
}

SendActionResult Triggers::send_action(int mode) {
    return impl_->send_action(mode);
}

int Triggers::getactionobject(std::string_view message) {
    Impl& im = *impl_;
    trace("Before getactionobject()\n");
    action_reply_.fill('\0');
    ParseContext ctx{im.rt, trigger_work_buffer_size(im.ab.entry_count()), im.time_settings_busy};
    ParsedMessage parsed = parse_trigger_sms(ctx, message);
    if (!parsed.fail_log.empty()) syslog(LOG_INFO, "%s", fail_log_line(parsed.fail_log).c_str());
    if (parsed.count_received) count_sms_stat(im.rt, kStatReceived);
    if (parsed.count_acted) count_sms_stat(im.rt, kStatActed);

    int action = parsed.action;
    trace("action - %d\n", action);
    if (action != kActionTimeSettings && action != kActionNothing && action != kActionApiStatus) {
        count_sms_stat(im.rt, kStatReceived);
        if (action != kActionSend) count_sms_stat(im.rt, kStatActed);
    }
    im.api_status_value = parsed.api_status;
    if (action >= 0 && action < static_cast<int>(Impl::kHandlers.size()))
        (im.*Impl::kHandlers[static_cast<size_t>(action)])(parsed.object);
    return action;
}

int Triggers::api_ProcessTrigs(std::string_view request) {
    Impl& im = *impl_;
    Runtime& rt = im.rt;
    trace("In api_ProcessTrigs\n");
    size_t blank = request.find(' ');
    if (blank == std::string_view::npos) return 0;
    std::string_view argument = request.substr(blank + 1);
    int kind = 0;
    if (starts_with(argument, "api2 "))
        kind = 2;
    else if (starts_with(argument, "api3 "))
        kind = 3;
    else
        return 0;
    std::string_view rest = argument.substr(5);
    std::string path(rest.substr(0, rest.find_first_of(std::string_view("\r\n\0", 3))));
    // A file the policy refuses is left alone entirely.
    if (!im.sender.request_file_allowed(path)) return 1;

    int id = last_dash_number(path);
    Fd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat st {};
    if (!fd || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        trace("Unable to open file\n");
        if (fd) fd.reset();
        ::unlink(path.c_str());
        return 1;
    }
    im.sender.filename_from_gui = path;
    char head[kBroadcastBody] = {};
    size_t got = 0;
    while (got < sizeof head) {
        ssize_t n = ::read(fd.get(), head + got, sizeof head - got);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        got += static_cast<size_t>(n);
    }
    fd.reset();

    // The record of an incoming SMS whose sender is the kind's digit.
    std::string message(kApiMessage, '\0');
    message[0] = kind == 2 ? '2' : '3';
    std::memcpy(&message[50], head + 50, 160);
    std::string api_sender = field_text(head, 50).substr(0, kSenderMax);

    if (kind == 2) {
        rt.api_trigger.pending = 1;
        rt.api_trigger.id = id;
        rt.api_trigger.sender = api_sender;
        if (rt.job_outstanding == 0) {
            rt.api_trigger.job_id_text = std::to_string(id);
            im.api_direct = true;
        }
        int action = getactionobject(message);
        if (action == kActionNothing) {
            set_api_status(rt, id, 611);
        } else if (rt.txrx_hold == 0 && im.api_direct && action_reply_[0] != '\0') {
            // The job is prepared; this path hands it to txrx itself.
            im.forward_to_txrx(field_text(action_reply_.data(), action_reply_.size()));
        }
        // Whatever happened, this request's api state is used up (a queued
        // broadcast has already taken it into its job line).
        im.api_direct = false;
        im.sender.api_request = 0;
        rt.api_trigger.pending = 0;
    } else {
        int action = getactionobject(message);
        set_api_status(rt, id, action == kActionNothing ? 610 : 0);
    }
    ::unlink(path.c_str());
    return 1;
}

}  // namespace smsgw
