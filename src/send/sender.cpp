#include "send/sender.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "common/bytes.h"
#include "common/net.h"
#include "common/text.h"
#include "common/trace.h"
#include "send/stats.h"

namespace smsgw {

namespace {

constexpr size_t kSenderSize = 50;
constexpr size_t kTextSize = 160;
constexpr size_t kJobPathSize = 100;
constexpr size_t kMaxRequestPath = 87;
constexpr const char* kSectionTags[3] = {"NUMBER:", "NAME:", "GROUP:"};

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

// Reads exactly n bytes unless the file ends first; the count read.
size_t read_some(FILE* in, char* buf, size_t n) {
    return std::fread(buf, 1, n, in);
}

bool write_i32(FILE* out, int32_t v) {
    unsigned char b[4];
    put_i32(b, v);
    return std::fwrite(b, 1, 4, out) == 4;
}

// Appends "," + item to the outbox record and counts its bytes into R.
void outbox_item(FILE* out, std::string_view item, int32_t& r) {
    std::fputc(',', out);
    std::fwrite(item.data(), 1, item.size(), out);
    r += static_cast<int32_t>(item.size() + 1);
}

// A 100-byte NUL-padded datagram to 127.0.0.1:port from a fresh socket.
void send_padded(uint16_t port, std::string_view text) {
    char buf[kJobPathSize];
    copy_field(buf, sizeof buf, text);
    send_udp(port, buf, sizeof buf);
}

void send_with_nul(uint16_t port, const std::string& text) {
    send_udp(port, text.c_str(), text.size() + 1);
}

}  // namespace

int last_dash_number(std::string_view text) {
    // The copy is bounded as the original 128-byte buffer was.
    std::string_view copy = text.substr(0, 127);
    size_t dash = copy.rfind('-');
    return c_atoi(dash == std::string_view::npos ? copy : copy.substr(dash + 1));
}

std::string format_time_stamp(const std::tm& tm) {
    return two_digits(tm.tm_year % 100) + "/" + two_digits(tm.tm_mon + 1) + "/" +
           two_digits(tm.tm_mday) + std::string(kSep) + two_digits(tm.tm_hour) + ":" +
           two_digits(tm.tm_min) + ":" + two_digits(tm.tm_sec);
}

std::string build_request_file(std::string_view sender, std::string_view text,
                               std::string_view numbers, std::string_view names,
                               std::string_view groups) {
    std::string out;
    char field[kTextSize];
    copy_field(field, kSenderSize, sender);
    out.append(field, kSenderSize);
    copy_field(field, kTextSize, text);
    out.append(field, kTextSize);
    std::string_view sections[3] = {numbers, names, groups};
    for (int i = 0; i < 3; ++i) {
        out += kSectionTags[i];
        if (sections[i].empty()) {
            append_i32(out, 0);
            continue;
        }
        // The reader treats the section as a C string: it carries its NUL.
        append_i32(out, static_cast<int32_t>(sections[i].size() + 1));
        out.append(sections[i]);
        out.push_back('\0');
    }
    return out;
}

Sender::Sender(Runtime& rt, AddressBook& ab) : rt_(rt), ab_(ab), recipients_(ab) {}

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

Fd Sender::open_request_file(const std::string& path) const {
    if (!request_path_allowed(path)) return Fd();
    // Look before opening: a device or FIFO named by a datagram is never opened.
    struct stat pre {};
    if (::lstat(path.c_str(), &pre) != 0 || !S_ISREG(pre.st_mode)) return Fd();
    Fd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat st {};
    if (!fd || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return Fd();
    return fd;
}

bool Sender::request_file_allowed(const std::string& path) const {
    return open_request_file(path).valid();
}

void Sender::send_sms_handler(std::string_view request, int is_slave) {
    recipients_.recipients_clear();
    request_refused_ = false;
    trace("send_sms_handler %.*s\n", static_cast<int>(request.size()), request.data());

    // "send-sms ARG": the argument runs to the end of the line.
    size_t space = request.find(' ');
    std::string_view arg =
        space == std::string_view::npos ? std::string_view() : request.substr(space + 1);
    arg = arg.substr(0, arg.find_first_of("\r\n"));
    if (starts_with(arg, "api ")) {
        trace("From API\n");
        arg.remove_prefix(4);
        api_request = 1;
        api_request_id = last_dash_number(arg);
    } else {
        api_request = 0;
        api_request_id = 0;
    }

    filename_from_gui = std::string(arg);
    Fd req_fd = open_request_file(filename_from_gui);
    if (!req_fd) {
        trace("fopen failed - filename_from_gui,\n");
        request_refused_ = true;
        return;
    }
    struct stat st {};
    ::fstat(req_fd.get(), &st);
    long long request_size = st.st_size;
    FilePtr req(::fdopen(req_fd.get(), "r"));
    if (!req) return;
    req_fd.release();
    // The request file is removed on every path once the job was attempted.
    auto drop_request = [&] {
        req.reset();
        remove_file(filename_from_gui);
    };

    // Name the job: a fresh exclusive file, "-ID" appended for the API.
    Fd job_fd;
    auto job_name = create_temp_file(rt_.path("/tmp"), "file", &job_fd);
    if (!job_name) return;
    if (api_request) {
        std::string api_name = *job_name + "-" + std::to_string(api_request_id);
        Fd api_fd(
            ::open(api_name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        remove_file(*job_name);
        if (!api_fd) return;
        job_fd = std::move(api_fd);
        job_name = api_name;
    }
    job_path = *job_name;
    auto drop_job = [&] {
        job_fd.reset();
        remove_file(job_path);
    };

    std::string scratch_path = rt_.path("/var/run/send_test_file");
    FilePtr scratch = open_fixed_temp(scratch_path, "w");
    if (!scratch) {
        drop_job();
        return;
    }
    if (api_request) set_api_status(rt_, api_request_id, 2);

    char sender_field[kSenderSize] = {};
    char text_field[kTextSize] = {};
    read_some(req.get(), sender_field, kSenderSize);
    read_some(req.get(), text_field, kTextSize);

    Fd outbox_fd;
    auto outbox_path = create_temp_file(rt_.path("/var/tmp"), "file", &outbox_fd);
    FilePtr outbox;
    if (outbox_path) {
        outbox.reset(::fdopen(outbox_fd.get(), "w"));
        if (outbox) outbox_fd.release();
    }
    if (!outbox) {
        drop_job();
        if (outbox_path) remove_file(*outbox_path);
        return;
    }
    int32_t r = 0;
    write_i32(outbox.get(), 0);  // provisional length, fixed up at the end

    bool last_read_ok = true;
    for (int i = 0; i < 3 && last_read_ok && !std::feof(req.get()); ++i) {
        const size_t tag_len = std::strlen(kSectionTags[i]);
        char tag[8] = {};
        if (read_some(req.get(), tag, tag_len) != tag_len) {
            last_read_ok = false;
            break;
        }
        if (std::memcmp(tag, kSectionTags[i], tag_len) != 0) continue;
        unsigned char len_bytes[4];
        if (read_some(req.get(), reinterpret_cast<char*>(len_bytes), 4) != 4) {
            last_read_ok = false;
            break;
        }
        int32_t len = get_i32(len_bytes);
        if (len <= 0) continue;
        // A length past the end of the file reads only what is there: the
        // allocation is bounded by the file, not by the claimed length.
        long long here = std::ftell(req.get());
        long long avail = here < 0 || here > request_size ? 0 : request_size - here;
        size_t want = static_cast<size_t>(len < avail ? len : avail);
        std::string buf(want, '\0');
        size_t got = read_some(req.get(), buf.data(), want);
        if (got != static_cast<size_t>(len)) last_read_ok = false;
        buf.resize(got);
        std::string_view text(buf.c_str());  // the section is a C string

        if (text == "__ALL__") {
            recipients_.recipients_add_all_contacts();
            outbox_item(outbox.get(), text, r);
            break;
        }
        if (text == "__GALL__") {
            recipients_.recipients_add_all_groups();
            outbox_item(outbox.get(), text, r);
            break;
        }
        FieldCutter items(text);
        while (auto item = items.next()) {
            if (i == 0 || (i == 1 && *item != "0")) {
                trace("In if==0\n");
                std::string number(item->substr(0, kSenderSize));  // 51-byte buffer
                std::fprintf(scratch.get(), "%s\n", number.c_str());
                if (i == 0) {
                    outbox_item(outbox.get(), *item, r);
                    continue;
                }
                auto name = items.next();
                if (!name) break;
                outbox_item(outbox.get(), *name, r);
            } else if (i == 1) {
                trace("In if==1\n");
                auto name = items.next();
                if (!name) break;
                if (api_request == 1 && api_request_failed == 0 && !ab_.ab_find(*name))
                    api_request_failed = 1;
                recipients_.recipients_add_contact(*name);
                outbox_item(outbox.get(), *name, r);
            } else {
                recipients_.recipients_add_group(*item);
                if (api_request_failed == 0 && !ab_.group_find(*item)) api_request_failed = 1;
                outbox_item(outbox.get(), *item, r);
            }
        }
        trace("Before free()\nAfter free()\n");
    }
    trace("After while()\n");
    scratch.reset();
    recipients_.recipients_add_file(scratch_path);

    FilePtr job(::fdopen(job_fd.get(), "a"));
    if (!job) {
        outbox.reset();
        drop_request();
        recipients_.recipients_clear();
        return;
    }
    job_fd.release();
    std::fwrite(text_field, 1, kTextSize, job.get());
    recipients_.recipients_write(job.get());
    job.reset();
    recipients_.recipients_clear();

    std::time_t now = std::time(nullptr);
    std::tm tm{};
    if (!::localtime_r(&now, &tm)) {
        outbox.reset();
        drop_request();
        return;
    }
    trace("time_buff - %s\n", format_time_stamp(tm).c_str());

    std::string text = field_text(text_field, kTextSize);
    std::string sender = field_text(sender_field, kSenderSize);
    write_i32(outbox.get(), is_slave);
    write_i32(outbox.get(), api_request_id);
    write_i32(outbox.get(), static_cast<int32_t>(text.size()));
    std::fwrite(text.data(), 1, text.size(), outbox.get());
    write_i32(outbox.get(), static_cast<int32_t>(sender.size()));
    std::fwrite(sender.data(), 1, sender.size(), outbox.get());
    std::fseek(outbox.get(), 0, SEEK_SET);
    write_i32(outbox.get(), r);
    std::fflush(outbox.get());
    // The slave record replaces a file others read; it must be whole on disk
    // before the rename makes it visible.
    if (is_slave != 0) ::fsync(fileno(outbox.get()));
    outbox.reset();

    if (is_slave == 0) {
        if (database_notice(rt_, *outbox_path) < 1) remove_file(*outbox_path);
    } else {
        replace_file(*outbox_path, rt_.path("/var/Outbox/outbox_slave_tmp"));
    }
    drop_request();
    trace("Before add_to_outbox()\n");
}

void Sender::hand_off_job(std::string_view request) {
    send_sms_handler(request, 0);
    trace("After send_sms_handler()\n");
    if (request_refused_) return;  // a refused request hands over nothing
    if (api_request_failed == 1) {
        set_api_status(rt_, api_request_id, 606);
        remove_file(job_path);
        api_request_failed = 0;
        return;
    }
    for (int m = 0; m < rt_.no_of_modems; ++m) {
        rt_.job_outstanding = 1;
        --rt_.jobs_to_txrx_count;
        if (++handoff_count < 0) handoff_count = 0;
        write_job_stats(rt_, rt_.jobs_to_txrx_count, peer_reply_count, handoff_count);
        if (api_request == 0) {
            send_padded(rt_.ports.txrx_out(), job_path);
        } else {
            send_with_nul(rt_.ports.txrx_out(), "api " + job_path);
            api_request = 0;
        }
    }
}

void Sender::reply_to_peer() {
    trace("After send_sms_handler()\n");
    uint16_t port = ntohs(rt_.peer_addr.sin_port);
    --rt_.jobs_to_txrx_count;
    if (++peer_reply_count < 0) peer_reply_count = 0;
    write_job_stats(rt_, rt_.jobs_to_txrx_count, peer_reply_count, handoff_count);
    if (api_request == 0) {
        send_padded(port, job_path);
    } else {
        send_with_nul(port, job_path + "api");
        api_request = 0;
    }
}

}  // namespace smsgw
