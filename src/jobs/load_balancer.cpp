#include "jobs/load_balancer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "common/fileops.h"
#include "common/net.h"
#include "common/text.h"
#include "formats/outbox_record.h"
#include "send/stats.h"

namespace smsgw {

namespace {

constexpr size_t kLbMaxFields = 6;
// The result written for a report the daemon cannot read.
constexpr int32_t kUnreadableReport = 5;

// "ADDR:RESULT" of a peer that sent an API request's job.
PeerResult peer_result(std::string_view text) {
    const size_t colon = text.find(':');
    const std::string address(text.substr(0, colon));
    PeerResult r;
    r.address = ::inet_addr(address.c_str());
    r.value = colon == std::string_view::npos ? 0 : c_atoi(text.substr(colon + 1));
    return r;
}

// Fields 3 and 4 report on the API request whose id is field 2.
void act_on_report(const std::vector<std::string_view>& f, const Runtime& rt) {
    const int request_id = c_atoi(f[2]);
    if (f.size() > 4) {
        if (request_id > 0) set_api_status(rt, request_id, kApiPeerFailed);
        outbox_slave_update(rt, kUnreadableReport);
    } else if (f.size() == 3 || starts_with(f[3], "ERROR")) {
        // A message cut after the id carries no result: like an error, but
        // there is nothing to say about the slave's outbox file.
        if (request_id > 0) set_api_status(rt, request_id, kApiRefusedByPeer);
        if (f.size() == 4) remove_file(rt.path("/var/Outbox/outbox_slave_tmp"));
    } else {
        const PeerResult result = peer_result(f[3]);
        if (request_id > 0) set_api_status(rt, request_id, kApiSentByPeer, result);
        outbox_slave_update(rt, result.value);
    }
}

}  // namespace

bool handle_load_balancer_message(std::string_view text, uint16_t peer_port, const Runtime& rt,
                                  JobQueue& queue) {
    text = text.substr(0, std::min(text.find('\0'), kLbMessageMax));
    if (text.find("LB_OK") == std::string_view::npos) return false;
    const std::vector<std::string_view> f = split_fields(text, " ", kLbMaxFields);
    const bool wants_work = f.size() >= 2 && starts_with(f[1], "request");
    if (f.size() >= 3) act_on_report(f, rt);
    if (f.size() == 1 || wants_work) queue.create_job_from_pending_jobs(1, peer_port);
    return true;
}

void outbox_slave_update(const Runtime& rt, int32_t result) {
    const std::string path = rt.path("/var/Outbox/outbox_slave_tmp");
    // Rewritten in place, so never through a symlink planted at the name.
    Fd fd(::open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC));
    if (!fd) return;
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return;
    std::string image(static_cast<size_t>(st.st_size), '\0');
    if (::pread(fd.get(), image.data(), image.size(), 0) != static_cast<ssize_t>(image.size()))
        return;
    // Only a field inside the record or at its end: a forged length must
    // not grow the file.
    if (!set_outbox_slave_result(image, result)) return;
    if (!write_all(fd.get(), image)) return;
    fd.reset();
    if (database_notice(rt, path) < 1) remove_file(path);
}

}  // namespace smsgw
