#include "queue_view.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <ctime>

#include "common/fileops.h"
#include "common/text.h"
#include "formats/broadcast_record.h"
#include "formats/job_header.h"
#include "formats/request_file.h"

namespace smsgw::ctl {
namespace {

constexpr size_t kMaxRead = 16u << 20;

long long seconds_since_change(const std::string& path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) return 0;
    return std::max<long long>(0, static_cast<long long>(std::time(nullptr) - st.st_mtime));
}

// Items of a "^|^"-closed list (or "]|["-separated for a broadcast's groups).
int count_items(std::string_view text, std::string_view separator = kSep) {
    int n = 0;
    FieldCutter cut(text);
    while (auto item = cut.next(separator))
        if (*item != kNullList) ++n;
    return n;
}

Recipients request_recipients(const RequestFile& r) {
    Recipients to;
    for (size_t s = 0; s < RequestFile::kSections && to.all.empty(); ++s) {
        if (!r.sections[s]) continue;
        const std::string& text = *r.sections[s];
        if (text == "__ALL__" || text == "__GALL__") {
            to.all = text;
        } else if (s == kSectionNumbers) {
            to.numbers += count_items(text);
        } else if (s == kSectionGroups) {
            to.groups += count_items(text);
        } else {
            // NAME: pairs, "0" standing for every number of the contact.
            FieldCutter cut(text);
            while (auto number = cut.next()) {
                if (!cut.next()) break;
                ++(*number == "0" ? to.contacts : to.numbers);
            }
        }
    }
    return to;
}

void describe_body(QueuedJob& job, std::string_view body) {
    if (starts_with(job.request, "ISBRDTRIG")) {
        if (auto b = decode_broadcast_body(body)) {
            job.sender = b->sender;
            job.text = b->text;
            job.to.groups = b->group.find(kItemSep) == std::string::npos
                                ? (b->group.empty() ? 0 : 1)
                                : count_items(b->group, kItemSep);
        }
        return;
    }
    const RequestFile r = decode_request_file(body);
    job.sender = r.sender();
    job.text = r.text();
    job.to = request_recipients(r);
}

// The records of one job file; false when they stop short of its end.
bool read_records(const std::string& path, const std::string& name, std::vector<QueuedJob>& out) {
    const std::string data = read_file(path, kMaxRead).value_or("");
    const long long age = seconds_since_change(path);
    size_t pos = 0;
    while (pos < data.size()) {
        auto h = decode_job_header(std::string_view(data).substr(pos));
        if (!h || !h->marker_ok || h->job_ln < 0 ||
            static_cast<size_t>(h->job_ln) > data.size() - pos - JobHeader::kSize)
            return false;
        QueuedJob job;
        job.file = name;
        job.offset = static_cast<long long>(pos);
        job.size = static_cast<long long>(JobHeader::kSize) + h->job_ln;
        job.request = h->jobfromrom;
        job.min_age = age;
        describe_body(job, std::string_view(data).substr(pos + JobHeader::kSize,
                                                         static_cast<size_t>(h->job_ln)));
        pos += static_cast<size_t>(job.size);
        out.push_back(std::move(job));
    }
    return true;
}

}  // namespace

std::string Recipients::text() const {
    if (all == "__ALL__") return "all contacts";
    if (all == "__GALL__") return "all groups";
    std::string out;
    auto add = [&](int n, const char* one, const char* many) {
        if (n > 0)
            out += (out.empty() ? "" : ", ") + std::to_string(n) + " " + (n == 1 ? one : many);
    };
    add(numbers, "number", "numbers");
    add(contacts, "contact", "contacts");
    add(groups, "group", "groups");
    return out.empty() ? "none" : out;
}

std::string Recipients::json() const {
    JsonObject o;
    o.num("numbers", numbers).num("contacts", contacts).num("groups", groups);
    o.raw("all", all == "__ALL__" ? "\"contacts\"" : all == "__GALL__" ? "\"groups\"" : "null");
    return o.done();
}

QueueState read_queue(const Client& c) {
    QueueState q;
    auto table = read_file(c.path("/var/Jobs/pos_offset"), 4096);
    q.table_found = table.has_value();
    if (table && table->size() == PositionTable::kSize) q.table = decode_position_table(*table);
    const int first = q.table && q.table->P_POS >= 0 && q.table->P_POS < PositionTable::kFiles
                          ? q.table->P_POS
                          : 0;
    for (int i = 0; i < PositionTable::kFiles; ++i) {
        const std::string name = "Pending_Jobs_" + std::to_string((first + i) % 9 + 1);
        if (!read_records(c.path("/var/Jobs/" + name), name, q.jobs)) q.damaged.push_back(name);
    }
    for (size_t i = 0; i < q.jobs.size(); ++i) q.jobs[i].position = i + 1;
    if (!read_records(c.path("/var/Jobs/PerModem_PendingJob"), "PerModem_PendingJob", q.per_modem))
        q.damaged.emplace_back("PerModem_PendingJob");
    q.full = file_exists(c.path("/var/Jobs/jobfull"));
    return q;
}

std::vector<OutboxEntry> read_outbox(const Client& c) {
    std::vector<std::string> paths{c.path("/var/Outbox/outbox_slave_tmp")};
    const std::string dir = c.path("/var/tmp");
    if (DIR* d = ::opendir(dir.c_str())) {
        while (dirent* e = ::readdir(d))
            if (starts_with(e->d_name, "file")) paths.push_back(dir + "/" + e->d_name);
        ::closedir(d);
    }
    std::vector<OutboxEntry> out;
    for (const auto& p : paths) {
        struct stat st {};
        if (::lstat(p.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
        auto record = decode_outbox_record(read_file(p, kMaxRead).value_or(""));
        if (record) out.push_back({p, seconds_since_change(p), std::move(*record)});
    }
    std::sort(out.begin(), out.end(), [](const OutboxEntry& a, const OutboxEntry& b) {
        return a.age != b.age ? a.age > b.age : a.file < b.file;
    });
    return out;
}

std::string age_text(long long s) {
    auto two = [](long long v) { return (v < 10 ? "0" : "") + std::to_string(v); };
    if (s < 60) return std::to_string(s) + "s";
    if (s < 3600) return std::to_string(s / 60) + "m" + two(s % 60) + "s";
    if (s < 86400) return std::to_string(s / 3600) + "h" + two(s % 3600 / 60) + "m";
    return std::to_string(s / 86400) + "d" + two(s % 86400 / 3600) + "h";
}

}  // namespace smsgw::ctl
