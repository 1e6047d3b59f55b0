#include "txrx/job_worker.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>

#include "common/fileops.h"
#include "formats/api_status.h"
#include "formats/sms_pdu.h"
#include "formats/txrx_report.h"
#include "txrx/log.h"
#include "txrx/peers.h"

namespace smsgw::txrx {

namespace {

constexpr time_t kKeepEnded = 60;  // seconds a ledger outlives its job
// The daemon sends its datagrams for one job together; the same path
// handed over again later is a new hand-off (the daemon repeats the last
// job's path when a request could not be read) and is answered again.
constexpr time_t kRepeatAfter = 1;

time_t age_of(const std::string& file) {
    struct stat st {};
    return ::stat(file.c_str(), &st) == 0 ? std::time(nullptr) - st.st_mtime : 0;
}

uint64_t now_ms() {
    timespec ts{};
    ::clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000 + static_cast<uint64_t>(ts.tv_nsec) / 1000000;
}

int status_of(const LedgerHeader& h) {
    if (h.count > 0 && h.delivered == h.count) return kApiAccepted;
    return h.delivered > 0 ? kApiSomeUndelivered : kApiNoneDelivered;
}

bool starts_with(const std::string& s, std::string_view p) {
    return s.compare(0, p.size(), p) == 0;
}

}  // namespace

JobWorker::JobWorker(const Options& options, std::string ledger_dir, std::string spool,
                     const Reporter& reporter)
    : opt_(options),
      ledger_dir_(std::move(ledger_dir)),
      spool_(std::move(spool)),
      reporter_(reporter),
      ref_(static_cast<uint8_t>(::getpid())) {}

bool JobWorker::accept(const Handoff& handoff) {
    const std::string file = JobLedger::file_for(ledger_dir_, handoff.path);
    if (auto known = JobLedger::open(file)) {
        auto h = known->header();
        if (!h || !h->reported || age_of(file) <= kRepeatAfter) {
            if (handoff.api && h && !h->api && !h->finished) known->mark_api();
            return false;  // the same job again
        }
        remove_file(file);
    }
    std::string why;
    auto job = JobFile::open(handoff.path, spool_, &why);
    if (!job) {
        log("job %s refused: %s", handoff.path.c_str(), why.c_str());
        end_at_once(handoff, kApiJobRefused, false);
        return false;
    }
    if (job->recipients() == 0) {
        log("job %s has no recipients", handoff.path.c_str());
        end_at_once(handoff, kApiNoneDelivered, true);
        return false;
    }
    LedgerHeader h;
    h.count = static_cast<uint32_t>(job->recipients());
    h.api = handoff.api;
    h.created_ms = now_ms();
    h.job_path = handoff.path;
    bool exists = false;
    auto ledger = JobLedger::create(file, h, &exists);
    if (!ledger) {
        if (!exists) log("cannot record job %s in %s", handoff.path.c_str(), file.c_str());
        return false;
    }
    log("job %s: %u recipients%s", handoff.path.c_str(), h.count, h.api ? " (api)" : "");
    active_[file] = Active{std::move(ledger), std::move(job), h.job_path, h.created_ms, false};
    return true;
}

void JobWorker::end_at_once(const Handoff& handoff, int status, bool remove_job) {
    LedgerHeader h;
    h.api = handoff.api;
    h.finished = true;
    h.created_ms = now_ms();
    h.job_path = handoff.path;
    bool exists = false;
    auto ledger = JobLedger::create(JobLedger::file_for(ledger_dir_, handoff.path), h, &exists);
    if (exists) return;  // reported already
    if (remove_job) remove_file(handoff.path);
    if (ledger) {
        finish(*ledger, status);
    } else {
        if (h.api) reporter_.send(encode_api_status_report(h.job_path, status));
        reporter_.send(encode_job_done_report());
    }
}

void JobWorker::finish(JobLedger& ledger, int forced_status) {
    auto h = ledger.header();
    if (!h) return;
    int status = forced_status >= 0 ? forced_status : status_of(*h);
    if (h->api) reporter_.send(encode_api_status_report(h->job_path, status));
    reporter_.send(encode_job_done_report());
    if (h->count > 0) remove_file(h->job_path);
    ledger.set_reported();
    log("job %s ended: %u of %u sent", h->job_path.c_str(), h->delivered, h->count);
}

void JobWorker::rescan() {
    DIR* dir = ::opendir(ledger_dir_.c_str());
    if (!dir) return;
    std::vector<std::string> files;
    while (dirent* e = ::readdir(dir)) {
        std::string name = e->d_name;
        if (starts_with(name, "job-") && name.find('.') == std::string::npos)
            files.push_back(ledger_dir_ + "/" + name);
    }
    ::closedir(dir);
    for (auto& [key, a] : active_) a.exhausted = false;
    for (const std::string& file : files) {
        if (active_.count(file)) continue;
        auto ledger = JobLedger::open(file);
        auto h = ledger ? ledger->header() : std::nullopt;
        if (!h) continue;
        if (h->finished) {
            struct stat st {};
            if (!h->reported) {
                finish(*ledger);
            } else if (::stat(file.c_str(), &st) == 0 &&
                       std::time(nullptr) - st.st_mtime > kKeepEnded) {
                remove_file(file);
            }
            continue;
        }
        std::string why;
        auto job = JobFile::open(h->job_path, spool_, &why);
        if (!job) {
            log("job %s is gone (%s); its record is dropped", h->job_path.c_str(), why.c_str());
            remove_file(file);
            continue;
        }
        active_[file] =
            Active{std::move(ledger), std::move(job), h->job_path, h->created_ms, false};
    }
}

bool JobWorker::claim_next() {
    while (true) {
        // The oldest job first: jobs are sent in the order they came.
        Active* pick = nullptr;
        std::string key;
        for (auto& [k, a] : active_) {
            if (!a.exhausted && (!pick || a.created < pick->created)) {
                pick = &a;
                key = k;
            }
        }
        if (!pick) return false;
        auto index = pick->ledger->claim(::getpid(), process_alive);
        if (!index) {
            auto h = pick->ledger->header();
            if (!h || h->finished) {
                active_.erase(key);
            } else {
                pick->exhausted = true;
            }
            continue;
        }
        auto number = pick->job->recipient(*index);
        std::string problem = number ? pdu::number_problem(*number) : "unreadable record";
        if (!problem.empty()) {
            log("recipient %u of %s skipped: %s", *index, pick->path.c_str(), problem.c_str());
            record(key, *index, Outcome::skipped);
            continue;
        }
        cur_ = Current{key, *index, *number, {}, 0, 0, Clock::now()};
        cur_->tpdus = pdu::encode_submit(*number, pick->job->text(), ref_++, opt_.status_reports);
        return true;
    }
}

void JobWorker::record(const std::string& key, uint32_t index, Outcome outcome) {
    auto it = active_.find(key);
    if (it == active_.end()) return;
    if (it->second.ledger->record(index, outcome)) {
        finish(*it->second.ledger);
        active_.erase(it);
    }
}

JobWorker::Step JobWorker::step(Modem& modem) {
    if (!cur_ && !claim_next()) return Step::idle;
    if (cur_->due > Clock::now()) return Step::idle;
    AtResult r;
    while (cur_->next_part < cur_->tpdus.size()) {
        r = modem.submit(cur_->tpdus[cur_->next_part]);
        if (!r.good()) break;
        ++cur_->next_part;
    }
    if (cur_->next_part == cur_->tpdus.size()) {
        log("sent to %s (%zu part%s)", cur_->number.c_str(), cur_->tpdus.size(),
            cur_->tpdus.size() == 1 ? "" : "s");
        record(cur_->key, cur_->index, Outcome::sent);
        cur_.reset();
        return Step::worked;
    }
    if (r.status == AtResult::gone) return Step::modem_gone;
    ++cur_->tries;
    log("sending to %s failed (%s %d), try %d of %d", cur_->number.c_str(),
        r.status == AtResult::timeout ? "no answer" : "error", r.code, cur_->tries,
        opt_.retries + 1);
    if (cur_->tries > opt_.retries) {
        record(cur_->key, cur_->index, Outcome::failed);
        cur_.reset();
    } else {
        cur_->due = Clock::now() + opt_.backoff * (1 << (cur_->tries - 1));
    }
    return r.status == AtResult::timeout ? Step::modem_timeout : Step::worked;
}

bool JobWorker::ready_now() const {
    if (cur_) return cur_->due <= Clock::now();
    for (const auto& [k, a] : active_)
        if (!a.exhausted) return true;
    return false;
}

std::optional<JobWorker::Clock::time_point> JobWorker::next_due() const {
    if (cur_) return cur_->due;
    return std::nullopt;
}

}  // namespace smsgw::txrx
