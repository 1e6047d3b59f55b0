#include "send/sender.h"

#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "common/net.h"
#include "common/text.h"
#include "common/trace.h"
#include "formats/job_file.h"
#include "formats/txrx_datagram.h"

namespace smsgw {

namespace {

constexpr size_t kMaxRequestPath = 87;
// A number named directly is copied into a buffer of this size (with its NUL).
constexpr size_t kScratchNumber = 51;

std::string two_digits(int v) {
    return (v < 10 ? "0" : "") + std::to_string(v);
}

// realpath() of a directory; empty when it does not resolve.
std::string resolved(const std::string& path) {
    char buf[PATH_MAX];
    if (!::realpath(path.c_str(), buf)) return std::string();
    return buf;
}

bool under_dir(const std::string& path, const std::string& dir) {
    if (dir.empty()) return false;
    if (dir == "/") return true;
    return path.size() > dir.size() && path.compare(0, dir.size(), dir) == 0 &&
           path[dir.size()] == '/';
}

bool has_dotdot(const std::string& path) {
    size_t start = 0;
    while (start <= path.size()) {
        size_t end = path.find('/', start);
        if (end == std::string::npos) end = path.size();
        if (path.compare(start, end - start, "..") == 0 && end - start == 2) return true;
        start = end + 1;
    }
    return false;
}

// The argument of "send-sms ARG" up to the line end; "api " in front of the
// path marks an API request, whose id ends the file name ("-ID").
struct RequestLine {
    std::string path;
    bool api = false;
    int api_request_id = 0;
};

RequestLine parse_request_line(std::string_view request) {
    const size_t space = request.find(' ');
    std::string_view arg =
        space == std::string_view::npos ? std::string_view() : request.substr(space + 1);
    arg = arg.substr(0, arg.find_first_of("\r\n"));
    RequestLine line;
    if (starts_with(arg, "api ")) {
        trace("From API\n");
        arg.remove_prefix(4);
        line.api = true;
        line.api_request_id = last_dash_number(arg);
    }
    line.path = std::string(arg);
    return line;
}

std::optional<std::string> read_all(int fd) {
    std::string bytes;
    char buf[8192];
    for (;;) {
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return std::nullopt;
        if (n == 0) return bytes;
        bytes.append(buf, static_cast<size_t>(n));
    }
}

// The job's name: a fresh exclusive file, "-ID" appended for the API.
std::optional<std::string> create_job_file(const Runtime& rt, bool api, int api_request_id,
                                           Fd& fd) {
    auto name = create_temp_file(rt.path("/tmp"), "file", &fd);
    if (!name || !api) return name;
    std::string api_name = *name + "-" + std::to_string(api_request_id);
    Fd api_fd(::open(api_name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    remove_file(*name);
    fd = std::move(api_fd);
    if (!fd) return std::nullopt;
    return api_name;
}

}  // namespace

int last_dash_number(std::string_view text) {
    // The file name is looked at within a 128-byte buffer.
    std::string_view copy = text.substr(0, 127);
    size_t dash = copy.rfind('-');
    return c_atoi(dash == std::string_view::npos ? copy : copy.substr(dash + 1));
}

std::string format_time_stamp(const std::tm& tm) {
    return two_digits(tm.tm_year % 100) + "/" + two_digits(tm.tm_mon + 1) + "/" +
           two_digits(tm.tm_mday) + std::string(kSep) + two_digits(tm.tm_hour) + ":" +
           two_digits(tm.tm_min) + ":" + two_digits(tm.tm_sec);
}

Sender::Sender(Runtime& rt, AddressBook& ab, TxrxLink& txrx)
    : rt_(rt), ab_(ab), txrx_(txrx), recipients_(ab), counters_(rt) {}

bool Sender::request_path_allowed(const std::string& path) const {
    if (path.empty() || path[0] != '/' || path.size() > kMaxRequestPath ||
        path.find('\0') != std::string::npos || has_dotdot(path))
        return false;
    std::vector<std::string> dirs = rt_.spool_dirs;
    if (dirs.empty()) dirs = {rt_.path("/tmp"), rt_.path("/var/tmp"), rt_.path("/var/run")};
    // The directory part is resolved so a symlinked directory cannot lead
    // the request out of the spool; the last component is never followed.
    size_t slash = path.rfind('/');
    std::string parent = resolved(slash == 0 ? std::string("/") : path.substr(0, slash));
    if (parent.empty()) return false;
    std::string real = (parent == "/" ? std::string() : parent) + path.substr(slash);
    bool inside = false;
    for (const auto& dir : dirs) inside = inside || under_dir(real, resolved(dir));
    return inside;
}

Sender::RequestRead Sender::read_request_file(const std::string& path, std::string& bytes) const {
    if (!request_path_allowed(path)) return RequestRead::Refused;
    // Look before opening: a link, device or FIFO named by a datagram is
    // never opened. A plain file that is missing or unreadable is not
    // refused: the request could not be opened.
    struct stat pre {};
    if (::lstat(path.c_str(), &pre) != 0) return RequestRead::Unopened;
    if (!S_ISREG(pre.st_mode)) return RequestRead::Refused;
    Fd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!fd) return errno == ELOOP ? RequestRead::Refused : RequestRead::Unopened;
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return RequestRead::Refused;
    auto content = read_all(fd.get());
    if (!content) return RequestRead::Unopened;
    bytes = std::move(*content);
    return RequestRead::Read;
}

bool Sender::request_file_allowed(const std::string& path) const {
    if (!request_path_allowed(path)) return false;
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
    Fd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    return fd && ::fstat(fd.get(), &st) == 0 && S_ISREG(st.st_mode);
}

PreparedJob Sender::send_sms_handler(std::string_view request, int is_slave) {
    recipients_.recipients_clear();
    trace("send_sms_handler %.*s\n", static_cast<int>(request.size()), request.data());
    const RequestLine line = parse_request_line(request);
    PreparedJob job;
    job.api = line.api;
    job.api_request_id = line.api_request_id;
    std::string bytes;
    switch (read_request_file(line.path, bytes)) {
        case RequestRead::Refused:
            trace("refused request file %s\n", line.path.c_str());
            return job;
        case RequestRead::Unopened:
            trace("cannot open request file %s\n", line.path.c_str());
            job.job_path = last_job_path_;
            job.again = true;
            return job;
        case RequestRead::Read:
            break;
    }
    return prepare_job(std::move(job), line.path, bytes, is_slave);
}

PreparedJob Sender::prepare_job(PreparedJob job, const std::string& request_path,
                                const std::string& request, int is_slave) {
    Fd job_fd;
    auto job_name = create_job_file(rt_, job.api, job.api_request_id, job_fd);
    if (!job_name) {
        job.job_path = last_job_path_;
        job.again = true;
        return job;
    }
    last_job_path_ = job.job_path = *job_name;
    const std::string scratch_path = rt_.path("/var/run/send_test_file");
    FilePtr scratch = open_fixed_temp(scratch_path, "w");
    if (scratch && job.api) set_api_status(rt_, job.api_request_id, kApiTaken);
    Fd outbox_fd;
    auto outbox_path =
        scratch ? create_temp_file(rt_.path("/var/tmp"), "file", &outbox_fd) : std::nullopt;
    if (!outbox_path) {
        remove_file(job.job_path);
        return job;
    }

    const RequestFile file = decode_request_file(request);
    OutboxRecord outbox;
    outbox.is_slave = is_slave;
    outbox.api_request_id = job.api_request_id;
    outbox.text = file.text();
    outbox.sender = file.sender();
    job.unknown_recipient = expand_recipients(file, job.api, scratch.get(), outbox.recipients);
    scratch.reset();
    recipients_.recipients_add_file(scratch_path);

    const bool written = write_job_file(job_fd, file.text_field);
    recipients_.recipients_clear();
    std::time_t now = std::time(nullptr);
    std::tm tm{};
    if (written && ::localtime_r(&now, &tm)) {
        trace("time_buff - %s\n", format_time_stamp(tm).c_str());
        write_outbox(outbox, std::move(outbox_fd), *outbox_path);
    } else {
        remove_file(*outbox_path);
    }
    remove_file(request_path);
    return job;
}

bool Sender::expand_recipients(const RequestFile& request, bool api, FILE* scratch,
                               std::string& items) {
    bool unknown = false;
    for (size_t i = 0; i < RequestFile::kSections; ++i) {
        if (!request.sections[i]) continue;
        const std::string& text = *request.sections[i];
        if (text == "__ALL__" || text == "__GALL__") {
            if (text == "__ALL__")
                recipients_.recipients_add_all_contacts();
            else
                recipients_.recipients_add_all_groups();
            append_outbox_recipient(items, text);
            break;  // later sections are not read
        }
        FieldCutter cutter(text);
        while (auto item = cutter.next()) {
            if (i == kSectionNumbers || (i == kSectionNames && *item != "0")) {
                const std::string number(item->substr(0, kScratchNumber - 1));
                std::fprintf(scratch, "%s\n", number.c_str());
                // A NAME: pair lists its name in the outbox, not the number.
                if (i == kSectionNames && !(item = cutter.next())) break;
            } else if (i == kSectionNames) {
                if (!(item = cutter.next())) break;
                if (api && !unknown && !ab_.ab_find(*item)) unknown = true;
                recipients_.recipients_add_contact(*item);
            } else {
                recipients_.recipients_add_group(*item);
                if (!unknown && !ab_.group_find(*item)) unknown = true;
            }
            append_outbox_recipient(items, *item);
        }
    }
    return unknown;
}

bool Sender::write_job_file(Fd& fd, std::string_view text_field) {
    FilePtr job(::fdopen(fd.get(), "a"));
    if (!job) return false;
    fd.release();
    const std::string head = encode_job_file(text_field, {});
    bool ok = std::fwrite(head.data(), 1, head.size(), job.get()) == head.size();
    ok = recipients_.recipients_write(job.get()) && ok;
    return std::fclose(job.release()) == 0 && ok;
}

void Sender::write_outbox(const OutboxRecord& record, Fd fd, const std::string& path) {
    const bool slave = record.is_slave != 0;
    bool ok = write_all(fd.get(), encode_outbox_record(record));
    // The slave record replaces a file others read; it must be whole on disk
    // before the rename makes it visible.
    if (slave) ok = ::fsync(fd.get()) == 0 && ok;
    ok = fd.close_checked() && ok;
    if (!slave) {
        if (!ok || database_notice(rt_, path) < 1) remove_file(path);
    } else if (!ok || !replace_file(path, rt_.path("/var/Outbox/outbox_slave_tmp"))) {
        remove_file(path);
    }
}

void Sender::hand_off_job(std::string_view request) {
    const PreparedJob job = send_sms_handler(request, 0);
    trace("After send_sms_handler()\n");
    if (job.job_path.empty()) return;  // nothing was, or ever has been, prepared
    if (job.unknown_recipient) {
        set_api_status(rt_, job.api_request_id, kApiUnknownRecipient);
        remove_file(job.job_path);
        return;
    }
    // Every modem's txrx gets the job; only the first in the api form.
    for (int m = 0; m < rt_.no_of_modems; ++m) {
        txrx_.job_handed_over();
        counters_.handed_off();
        txrx_.send(encode_job_handoff(job.job_path, job.api && m == 0));
    }
}

void Sender::reply_to_peer(const PreparedJob& job, uint16_t peer_port) {
    trace("After send_sms_handler()\n");
    counters_.replied_to_peer();
    const std::string datagram = encode_peer_job_reply(job.job_path, job.api);
    send_udp(peer_port, datagram.data(), datagram.size());
}

}  // namespace smsgw
