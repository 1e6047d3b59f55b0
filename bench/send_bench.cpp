// Send path and queue throughput, each against a plain-file baseline
// measured in the same run:
//   1. a send to "__ALL__" with 20000 contacts through send_sms_handler vs.
//      writing the same 20000 50-byte records with one buffered stream;
//   2. queueing 1000 requests with add_to_pending_jobs vs. appending the same
//      record bytes to a file (with and without a flush to disk per record);
//   3. draining the 1000 jobs with create_job_from_pending_jobs (reported
//      per job; the pause after a file empties is not part of the timing).
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "addressbook/address_book.h"
#include "common/fileops.h"
#include "common/runtime.h"
#include "formats/request_file.h"
#include "jobs/job_queue.h"
#include "send/sender.h"

namespace {

using Clock = std::chrono::steady_clock;
using smsgw::AddressBook;
using smsgw::JobQueue;
using smsgw::Runtime;
using smsgw::Sender;

double seconds_since(Clock::time_point t0) {
    return std::chrono::duration<double>(Clock::now() - t0).count();
}

template <class F>
double best_of(int runs, F&& f) {
    double best = 1e9;
    for (int i = 0; i < runs; ++i) best = std::min(best, f());
    return best;
}

}  // namespace

int main() {
    char tmpl[] = "/tmp/send_bench.XXXXXX";
    if (!::mkdtemp(tmpl)) return 1;
    const std::string root = tmpl;
    for (const char* d : {"tmp", "var/tmp", "var/run", "var/Jobs", "var/config", "var/Outbox"})
        smsgw::make_dirs(root + "/" + d);

    Runtime rt(root, 0);
    AddressBook ab(rt.reply_buffer);
    smsgw::TxrxLink link(rt.ports);
    Sender sender(rt, ab, link);
    char name[32], number[32];
    for (int i = 0; i < 20000; ++i) {
        std::snprintf(name, sizeof name, "Contact %05d", i);
        std::snprintf(number, sizeof number, "+49%09d", i * 37);
        ab.ab_insert(name, number, "");
    }

    // 1. "__ALL__" through the handler vs. the records with one stream.
    const std::string request = root + "/tmp/all";
    const std::string image = smsgw::encode_request_file("admin", "to everyone", "__ALL__", "", "");
    double handler = best_of(15, [&] {
        smsgw::write_file(request, image);
        auto t0 = Clock::now();
        const smsgw::PreparedJob job = sender.send_sms_handler("send-sms " + request, 0);
        double s = seconds_since(t0);
        smsgw::remove_file(job.job_path);
        return s;
    });
    std::vector<std::string> numbers;
    ab.ab_for_each_entry([&](smsgw::Entry& e) { numbers.push_back(e.number); });
    double stream = best_of(15, [&] {
        auto t0 = Clock::now();
        FILE* f = std::fopen((root + "/tmp/baseline").c_str(), "w");
        char text[160] = {};
        std::fwrite(text, 1, sizeof text, f);
        char rec[50];
        for (const auto& n : numbers) {
            std::memset(rec, 0, sizeof rec);
            std::memcpy(rec, n.data(), std::min<size_t>(n.size(), 49));
            std::fwrite(rec, 1, sizeof rec, f);
        }
        std::fclose(f);
        return seconds_since(t0);
    });
    std::printf(
        "send to __ALL__ (20000 contacts): handler %.2f ms, one stream %.2f ms, ratio %.2f"
        " (goal <= 5)\n",
        handler * 1e3, stream * 1e3, handler / stream);

    // 2. Appending 1000 queued requests.
    const int kJobs = 1000;
    JobQueue queue(rt, sender);
    queue.set_pause([](unsigned) {});  // the pause is not what is measured here
    if (!queue.try_init_job_pos_table()) return 1;
    queue.load_job_pos_table();
    std::vector<std::string> bodies;
    for (int i = 0; i < kJobs; ++i)
        bodies.push_back(smsgw::encode_request_file(
            "admin", "queued text", "+4912345" + std::to_string(i) + "^|^", "", ""));
    // Interleaved with the baselines, so all three see the same disk load.
    double append = 0, plain_sync = 0, plain = 0;
    const std::string plain_path = root + "/tmp/plain";
    auto plain_append = [&](const std::string& bytes, bool sync) {
        auto t0 = Clock::now();
        int fd = ::open(plain_path.c_str(), O_WRONLY | O_APPEND | O_CREAT, 0644);
        bool ok = ::write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
        if (sync) ::fsync(fd);
        ::close(fd);
        return ok ? seconds_since(t0) : 0.0;
    };
    for (int i = 0; i < kJobs; ++i) {
        const std::string& body = bodies[static_cast<size_t>(i)];
        std::string path = root + "/tmp/q" + std::to_string(i);
        smsgw::write_file(path, body);
        std::string line = "send-sms " + path;
        auto t0 = Clock::now();
        queue.add_to_pending_jobs(line);
        append += seconds_since(t0);
        std::string bytes =
            smsgw::encode_job_header(static_cast<int32_t>(body.size()), 0, line) + body;
        plain_sync += plain_append(bytes, true);
        plain += plain_append(bytes, false);
    }
    std::printf(
        "queue 1000 requests: add_to_pending_jobs %.2f ms, plain append+fsync %.2f ms "
        "(ratio %.2f, goal <= 3), plain append %.2f ms (ratio %.2f)\n",
        append * 1e3, plain_sync * 1e3, append / plain_sync, plain * 1e3, append / plain);

    // 3. Draining them (no modems: the hand-off sends nothing).
    rt.no_of_modems = 0;
    auto t0 = Clock::now();
    int runs = 0;
    while (runs < 2 * kJobs && (queue.position().TOTAL_SIZE > 0 ||
                                smsgw::file_exists(queue.pending_file(queue.position().P_POS)))) {
        link.job_done();
        queue.create_job_from_pending_jobs(0);
        ++runs;
    }
    double drain = seconds_since(t0);
    std::printf("drain 1000 jobs: %.2f ms in %d scheduler runs (%.3f ms per job)\n", drain * 1e3,
                runs, drain * 1e3 / kJobs);

    std::filesystem::remove_all(root);
    return 0;
}
