#include "jobs/load_balancer.h"

#include <arpa/inet.h>
#include <fcntl.h>

#include <cstdio>
#include <string>
#include <vector>

#include "common/bytes.h"
#include "common/fileops.h"
#include "common/net.h"
#include "common/text.h"
#include "send/stats.h"

namespace smsgw {

namespace {

constexpr size_t kLbMaxFields = 6;

void act_on_fields(const std::vector<std::string_view>& f, Runtime& rt, JobQueue& queue) {
    const size_t count = f.size();
    const bool wants_work = count >= 2 && starts_with(f[1], "request");
    if (count == 0) return;
    if (count == 1 || count == 2) {
        if (count == 1 || wants_work) queue.create_job_from_pending_jobs(1);
        return;
    }
    const int request_id = c_atoi(f[2]);
    if (count <= 4) {
        // A message cut after the id carries no result: like an error, but
        // there is nothing to say about the slave's outbox file.
        if (count == 3 || starts_with(f[3], "ERROR")) {
            if (request_id > 0) set_api_status(rt, request_id, 7);
            if (count == 4) remove_file(rt.path("/var/Outbox/outbox_slave_tmp"));
        } else {
            std::string_view result = f[3];
            size_t colon = result.find(':');
            std::string address(result.substr(0, colon));
            rt.slave_address = ::inet_addr(address.c_str());
            rt.slave_result =
                colon == std::string_view::npos ? 0 : c_atoi(result.substr(colon + 1));
            if (request_id > 0) set_api_status(rt, request_id, 6);
            outbox_slave_update(rt);
        }
    } else {
        rt.slave_result = 5;
        if (request_id > 0) set_api_status(rt, request_id, 8);
        outbox_slave_update(rt);
    }
    if (wants_work) queue.create_job_from_pending_jobs(1);
}

}  // namespace

bool handle_load_balancer_message(std::string_view text, Runtime& rt, JobQueue& queue) {
    text = text.substr(0, std::min(text.find('\0'), kLbMessageMax));
    if (text.find("LB_OK") == std::string_view::npos) return false;
    act_on_fields(split_fields(text, " ", kLbMaxFields), rt, queue);
    return true;
}

void outbox_slave_update(Runtime& rt) {
    const std::string path = rt.path("/var/Outbox/outbox_slave_tmp");
    // Rewritten in place, so never through a symlink planted at the name.
    Fd fd(::open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC));
    if (!fd) return;
    FilePtr file(::fdopen(fd.get(), "r+"));
    if (!file) return;
    fd.release();
    unsigned char word[4];
    if (std::fread(word, 1, sizeof word, file.get()) != sizeof word) return;
    const long long offset = static_cast<long long>(get_i32(word)) + 4;
    // Only a position inside the record or at its end: a forged offset
    // must not grow the file.
    if (offset < 4 || offset > file_size(path)) return;
    put_i32(word, rt.slave_result);
    if (std::fseek(file.get(), static_cast<long>(offset), SEEK_SET) != 0) return;
    std::fwrite(word, 1, sizeof word, file.get());
    file.reset();
    if (database_notice(rt, path) < 1) remove_file(path);
}

}  // namespace smsgw
