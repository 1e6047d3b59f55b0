#include "state_verbs.h"

#include <algorithm>
#include <ctime>

#include "client.h"
#include "common/fileops.h"
#include "common/text.h"
#include "formats/job_stats.h"
#include "formats/signal_quality.h"
#include "formats/sms_stats.h"
#include "process_view.h"
#include "queue_view.h"

namespace smsgw::ctl {
namespace {

// The status report: one labelled line a subject for people, one member a
// subject for scripts.
struct Report {
    std::string text;
    JsonObject json;

    void line(const std::string& label, const std::string& value) {
        text += label + ":" + std::string(label.size() < 16 ? 16 - label.size() : 1, ' ') +
                printable(value) + "\n";
    }
};

std::vector<std::string> lines_of(const std::string& data) {
    std::vector<std::string> out;
    const std::string text = data + "\n";
    FieldCutter cut(text);
    while (auto l = cut.next("\n"))
        if (!l->empty()) out.emplace_back(*l);
    return out;
}

// Whether the daemon of this root runs, and whether it answers: why not,
// when it does not.
std::optional<std::string> report_daemon(Report& r, const Global& g) {
    const auto d = find_daemon(g);
    JsonObject dj;
    dj.boolean("running", d.has_value());
    if (d) dj.num("pid", d->pid).num("uptime_s", d->uptime);
    r.line("smsgwd", d ? "running, pid " + std::to_string(d->pid) + ", up " + age_text(d->uptime)
                       : "not running for root " + g.root + " and port offset " +
                             std::to_string(g.port_offset));
    r.json.raw("daemon", dj.done());
    Client c(g);
    try {
        const std::string contacts = c.request("get-sms total-entries phone_book^|^");
        const std::string groups = c.request("get-sms total-entries groups^|^");
        r.line("answers", "yes, on 127.0.0.1:" + std::to_string(c.port()) + " (" + contacts +
                              " contacts, " + groups + " groups)");
        r.json.boolean("answers", true)
            .num("contacts", c_atoi(contacts))
            .num("groups", c_atoi(groups));
    } catch (const Failure& f) {
        r.line("answers", "no: " + f.message);
        r.json.boolean("answers", false);
        return f.message;
    }
    if (!d)
        return "no smsgwd process runs for root " + g.root + " and port offset " +
               std::to_string(g.port_offset);
    return std::nullopt;
}

// The signal quality each modem's transceiver last read, where it left one.
void report_signal(Report& r, const Client& c, const std::vector<std::string>& modems) {
    std::vector<std::string> readings;
    for (const auto& m : modems) {
        auto q =
            decode_signal_quality(read_file(c.path(signal_quality_file(m)), 4096).value_or(""));
        if (!q) continue;
        const auto dbm = signal_dbm(q->rssi);
        const long long age = std::max(0LL, static_cast<long long>(std::time(nullptr)) - q->time);
        r.line("signal", q->device + " " + (dbm ? std::to_string(*dbm) + " dBm" : "unknown") +
                             " (rssi " + std::to_string(q->rssi) + ", ber " +
                             std::to_string(q->ber) + "), read " + age_text(age) + " ago");
        readings.push_back(JsonObject()
                               .str("device", q->device)
                               .num("rssi", q->rssi)
                               .num("ber", q->ber)
                               .raw("dbm", dbm ? std::to_string(*dbm) : "null")
                               .num("time", q->time)
                               .done());
    }
    r.json.raw("signal", json_array(readings));
}

void report_txrx(Report& r, const Client& c) {
    const auto modems = lines_of(read_file(c.path("/var/run/wirelessmodems"), 65536).value_or(""));
    std::string shown;
    for (const auto& m : modems) shown += (shown.empty() ? "" : " ") + m;
    r.line("modems", shown.empty() ? "none" : shown);
    r.json.raw("modems", json_strings(modems));
    report_signal(r, c, modems);
    const int pid = c_atoi(read_file(c.path("/var/run/txrx_pid_file"), 4096).value_or(""));
    JsonObject tj;
    if (pid <= 0) {
        r.line("txrx", "no pid file");
        r.json.raw("txrx", tj.raw("pid", "null").boolean("alive", false).done());
        return;
    }
    const std::string state = process_state(pid);
    // An exited child stays a zombie until the daemon restarts it.
    const bool alive = !state.empty() && state != "Z";
    r.line("txrx", "pid " + std::to_string(pid) +
                       (alive          ? " running"
                        : state == "Z" ? " exited (zombie)"
                                       : " gone"));
    r.json.raw("txrx", tj.num("pid", pid).boolean("alive", alive).str("state", state).done());
}

void report_queue(Report& r, const QueueState& q) {
    JsonObject qj;
    if (q.table) {
        const PositionTable& t = *q.table;
        r.line("queue position", "read file " + std::to_string(t.P_POS + 1) + ", write file " +
                                     std::to_string(t.L_POS + 1) + ", " +
                                     std::to_string(t.TOTAL_SIZE) + " bytes recorded");
        qj.num("read_index", t.P_POS).num("write_index", t.L_POS).num("total_size", t.TOTAL_SIZE);
    } else {
        r.line("queue position", q.table_found ? "pos_offset is not 44 bytes" : "no pos_offset");
        qj.raw("read_index", "null");
    }
    long long bytes = 0;
    for (const auto& j : q.jobs) bytes += j.size;
    std::string damaged;
    for (const auto& d : q.damaged) damaged += " " + d;
    r.line("queued jobs", std::to_string(q.jobs.size()) + " (" + std::to_string(bytes) + " bytes)" +
                              (q.full ? ", queue full" : "") +
                              (damaged.empty() ? "" : ", damaged:" + damaged));
    r.line("per-modem jobs", std::to_string(q.per_modem.size()));
    qj.num("jobs", static_cast<long long>(q.jobs.size())).num("bytes", bytes);
    qj.num("per_modem_jobs", static_cast<long long>(q.per_modem.size())).boolean("full", q.full);
    r.json.raw("queue", qj.raw("damaged", json_strings(q.damaged)).done());
}

void report_counters(Report& r, const Client& c) {
    auto js = decode_job_stats(read_file(c.path("/var/config/job_stats_file"), 4096).value_or("?"));
    if (js) {
        r.line("job counters", "queued " + std::to_string(js->jobs) + ", peer replies " +
                                   std::to_string(js->peer_replies) + ", hand-offs " +
                                   std::to_string(js->handoffs));
    }
    r.json.raw("job_stats", js ? JsonObject()
                                     .num("jobs", js->jobs)
                                     .num("peer_replies", js->peer_replies)
                                     .num("handoffs", js->handoffs)
                                     .done()
                               : "null");
    auto ss = decode_sms_stats(read_file(c.path("/var/config/sms_stats_file"), 4096).value_or(""));
    if (!ss) {
        r.json.raw("sms_stats", "null");
        return;
    }
    std::vector<std::string> v;
    for (int32_t n : ss->counters) v.push_back(std::to_string(n));
    r.line("sms counters", v[0] + " " + v[1] + " " + v[2] + " " + v[3] + ", triggers acted on " +
                               v[4] + ", triggers received " + v[5]);
    r.json.raw("sms_stats", json_array(v));
}

void report_dialing(Report& r, const Client& c) {
    auto dial = read_file(c.path("/var/config/international_dialing"), 4096);
    if (!dial) {
        r.json.raw("international_dialing", "null");
        return;
    }
    std::string state;
    std::optional<int> digits;
    for (const auto& l : lines_of(*dial)) {
        if (size_t p = l.find("int-dialing="); p != std::string::npos && state.empty())
            state = l.substr(p + 12);
        if (size_t p = l.find("max-digits="); p != std::string::npos && !digits)
            digits = c_atoi(l.substr(p + 11));
    }
    r.line("intl. dialing", (state.empty() ? std::string("?") : state) +
                                (digits ? ", at most " + std::to_string(*digits) + " digits" : ""));
    JsonObject dj;
    dj.str("int_dialing", state).raw("max_digits", digits ? std::to_string(*digits) : "null");
    r.json.raw("international_dialing", dj.done());
}

}  // namespace

int cmd_status(Global& g, const Words& w) {
    parse_args(g, w, {}, 0, 0, "status");
    Report r;
    const auto problem = report_daemon(r, g);
    const Client c(g);
    report_txrx(r, c);
    report_queue(r, read_queue(c));
    report_counters(r, c);
    report_dialing(r, c);
    print(g.json ? r.json.done() + "\n" : r.text);
    if (!problem) return kExitOk;
    warn(*problem);
    return kExitUnreachable;
}

int cmd_jobs(Global& g, const Words& w) {
    parse_args(g, w, {}, 0, 0, "jobs");
    const QueueState q = read_queue(Client(g));
    Table t{{"#", "FILE", "SIZE", "RECIPIENTS", "MIN AGE", "FROM", "TEXT"}, {}};
    std::vector<std::string> objects;
    for (const auto* list : {&q.jobs, &q.per_modem}) {
        for (const auto& j : *list) {
            const std::string pos = j.position ? std::to_string(j.position) : "modem";
            t.rows.push_back({pos, j.file, std::to_string(j.size), j.to.text(), age_text(j.min_age),
                              j.sender, j.text});
            JsonObject o;
            o.raw("position", j.position ? pos : "null")
                .str("file", j.file)
                .num("offset", j.offset);
            o.num("size", j.size).str("request", j.request).raw("recipients", j.to.json());
            o.num("min_age_s", j.min_age).str("sender", j.sender).str("text", j.text);
            objects.push_back(o.done());
        }
    }
    if (g.json)
        print(JsonObject()
                  .raw("jobs", json_array(objects))
                  .raw("damaged", json_strings(q.damaged))
                  .boolean("full", q.full)
                  .done() +
              "\n");
    else
        print(t.text() + std::to_string(q.jobs.size()) + " queued, " +
              std::to_string(q.per_modem.size()) + " for the modems" +
              (q.full ? "; the queue is full" : "") + "\n");
    if (q.damaged.empty()) return kExitOk;
    warn("damaged job file " + q.damaged.front() + ": its records stop short of its end");
    return kExitGarbled;
}

int cmd_outbox(Global& g, const Words& w) {
    parse_args(g, w, {}, 0, 0, "outbox");
    const Client c(g);
    const std::vector<OutboxEntry> entries = read_outbox(c);
    Table t{{"FILE", "AGE", "FROM", "TO", "API ID", "SLAVE", "TEXT"}, {}};
    std::vector<std::string> objects;
    for (const auto& e : entries) {
        const OutboxRecord& r = e.record;
        const std::string to = r.recipients.empty() ? "" : r.recipients.substr(1);
        t.rows.push_back({c.unmap(e.file), age_text(e.age), r.sender, to,
                          std::to_string(r.api_request_id), std::to_string(r.is_slave), r.text});
        std::vector<std::string> items;
        const std::string list = to.empty() ? "" : to + ",";
        FieldCutter cut(list);
        while (auto item = cut.next(",")) items.emplace_back(*item);
        JsonObject o;
        o.str("file", e.file).num("age_s", e.age).str("sender", r.sender);
        o.raw("recipients", json_strings(items)).num("api_request_id", r.api_request_id);
        objects.push_back(o.num("is_slave", r.is_slave).str("text", r.text).done());
    }
    print(g.json ? JsonObject().raw("records", json_array(objects)).done() + "\n"
                 : t.text() + std::to_string(entries.size()) + " outbox records\n");
    return kExitOk;
}

}  // namespace smsgw::ctl
