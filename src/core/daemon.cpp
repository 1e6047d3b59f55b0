#include "core/daemon.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "addressbook/address_book_files.h"
#include "addressbook/csv.h"
#include "common/fileops.h"
#include "common/net.h"
#include "common/spawn.h"
#include "common/text.h"
#include "common/timer.h"
#include "common/trace.h"
#include "core/signals.h"
#include "formats/txrx_report.h"
#include "jobs/load_balancer.h"
#include "send/stats.h"

namespace smsgw {

namespace {

constexpr size_t kLengthDatagramMax = 6;
constexpr long kRequestMax = 65507;  // largest UDP payload
constexpr size_t kReplyMax = 599;
// A length datagram whose request does not follow within this time is
// dropped, so a half-sent request cannot stall the loop.
constexpr int kRequestWaitMs = 1000;
// How long start-up lets the new txrx children take their port before the
// first queued job is handed over.
constexpr std::chrono::milliseconds kTxrxListenWait{3000};
// Resynchronising on a length datagram found in the request's place waits
// this long for the request it announces.
constexpr int kRealignWaitMs = 100;
constexpr int kMaxRealign = 2;
constexpr auto kDialoutStopWait = std::chrono::seconds(2);

// Empties the upload ("> FILE") without writing through a link planted at
// its name: anything but a plain file of its own is removed first.
void empty_upload(const std::string& path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) == 0 && (!S_ISREG(st.st_mode) || st.st_nlink != 1))
        ::unlink(path.c_str());
    Fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644));
}

// Waits up to `ms` for a datagram; a signal arriving meanwhile (a child
// exiting, the time-client alarm) does not cut the wait short.
bool wait_readable(int fd, int ms) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() < 0) return false;
        pollfd p{fd, POLLIN, 0};
        int r = ::poll(&p, 1, static_cast<int>(left.count()));
        if (r > 0) return true;
        if (r == 0 || errno != EINTR) return false;
    }
}

bool looks_like_length(std::string_view text) {
    return !text.empty() && text.size() <= kLengthDatagramMax &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

bool process_gone(pid_t pid) {
    return ::kill(pid, 0) != 0 || process_state(pid) == "zombie";
}

}  // namespace

SmsGateway::SmsGateway(std::string root, int port_offset, std::vector<std::string> spool_dirs)
    : rt_(std::move(root), port_offset),
      ab_(rt_.reply_buffer),
      rules_(rt_),
      link_(rt_.ports),
      parser_(rt_, ab_, rules_, dialing_, link_),
      sender_(rt_, ab_, link_),
      queue_(rt_, sender_),
      triggers_(rt_, ab_, rules_, sender_, queue_),
      txrx_(rt_),
      datagram_(static_cast<size_t>(kRequestMax)) {
    rt_.spool_dirs = std::move(spool_dirs);
}

SmsGateway::~SmsGateway() = default;

int SmsGateway::run() {
    if (!start_up()) return 0;
    start_waiting_on_select();
    shut_down();
    return 0;
}

bool SmsGateway::start_up() {
    touch_file(rt_.path("/var/run/init_address_book"));
    ::openlog("modem", LOG_CONS | LOG_PERROR, LOG_LOCAL0);
    install_user_signal_handlers();
    remove_file(rt_.path("/var/run/wirelessmodems"));
    kill_stale_children(rt_);

    find_wireless_modems(rt_);
    trace("no_of_modems - %d\n", rt_.no_of_modems);
    if (rt_.no_of_modems < 1) {
        // The usual single modem is assumed even when it did not answer.
        put_in_file(rt_.path("/var/run/wirelessmodems"), "/dev/ttyS0");
        ++rt_.no_of_modems;
    }

    if (init_directories_and_files(rt_)) sms_users_ = read_sms_users(rt_);
    ab_load(ab_, rt_);
    dialing_.attach_dialing_segment(rt_);

    if (!ep_.open_all(rt_)) return false;
    rt_.sql_sms_fd = ep_.sql_sms.get();

    const std::vector<pid_t> started = txrx_.spawn_txrx_for_each_modem();
    if (!started.empty() &&
        !txrx_.wait_until_listening(started, rt_.ports.txrx_out(), kTxrxListenWait))
        syslog(LOG_WARNING, "txrx does not listen on port %u yet; jobs may wait for it",
               rt_.ports.txrx_out());
    start_time_client_timer();

    queue_.init_job_pos_table();
    queue_.load_job_pos_table();
    queue_.repair_pending_file();
    queue_.trim_torn_appends();

    install_child_handler();
    log_startup_notice();
    return true;
}

// One line for the administrator: where the daemon works, which modems it
// took and where it listens.
void SmsGateway::log_startup_notice() const {
    std::string modems = read_file(rt_.path("/var/run/wirelessmodems"), 4096).value_or("");
    while (!modems.empty() && modems.back() == '\n') modems.pop_back();
    for (size_t at; (at = modems.find('\n')) != std::string::npos;) modems.replace(at, 1, ", ");
    const Ports& p = rt_.ports;
    syslog(LOG_INFO,
           "smsgwd %s started: root %s, %d modem%s (%s), ports: web %u, txrx %u/%u, "
           "load balancer %u, settings %u",
           SMSGW_VERSION, rt_.paths.is_default() ? "/" : rt_.paths.root().c_str(), rt_.no_of_modems,
           rt_.no_of_modems == 1 ? "" : "s", modems.c_str(), p.gui(), p.txrx_in(), p.txrx_out(),
           p.lb(), p.http());
}

void SmsGateway::start_waiting_on_select() {
    trace("start_waiting_on_select function\n");
    for (;;) {
        fd_set read_set;
        FD_ZERO(&read_set);
        for (int fd : {ep_.txrx_in.get(), ep_.lb.get(), ep_.gui.get()}) {
            FD_SET(fd, &read_set);
            maxfd_ = std::max(maxfd_, fd);
        }
        timeval timeout{2, 0};
        int ready = ::select(maxfd_ + 1, &read_set, nullptr, nullptr, &timeout);
        // Nothing new is started once a stop was asked for.
        if (stop_requested()) return;
        apply_signals();

        if (!link_.job_outstanding()) queue_.create_job_from_pending_jobs(0);
        if (take_save_request()) {
            save_address_book_on_request();
            continue;
        }
        if (take_child_exited()) txrx_.txrx_monitor();
        if (ready <= 0) continue;

        if (FD_ISSET(ep_.txrx_in.get(), &read_set)) handle_txrx_report();
        if (FD_ISSET(ep_.lb.get(), &read_set) && handle_load_balancer() == PassEnd::EndPass)
            continue;
        if (FD_ISSET(ep_.gui.get(), &read_set)) handle_gui_request();
    }
}

// The handlers only raised flags; their work happens here, between passes.
void SmsGateway::apply_signals() {
    if (take_counter_reset()) sender_.counters().reset_jobs();
    if (take_time_client_alarm()) {
        txrx_.track(spawn_program({rt_.path("/bin/msntp")}));
    }
}

bool SmsGateway::save_address_book_on_request() {
    const std::string marker = rt_.path("/var/run/save_flg_file");
    append_file(marker, "save_flag==1\n");
    std::string reply = parser_.parse_command("save-address-book ^|^");
    append_file(marker, "after strcpy,parse\n");
    trace("save-address-book - %s\n", reply.c_str());
    parser_.release_token();
    remove_file(rt_.path("/var/run/save_flag_file"));
    return reply == "SUCCESS";
}

// SIGTERM/SIGINT: the book is saved as SIGUSR1 saves it, so a restart
// loads what was in memory, and no child outlives the daemon.
void SmsGateway::shut_down() {
    const bool saved = save_address_book_on_request();
    txrx_.stop_children();
    syslog(saved ? LOG_INFO : LOG_ERR, "stopped: the address book was %s in %s",
           saved ? "saved" : "NOT saved", rt_.path("/var/AddressBook").c_str());
}

ssize_t SmsGateway::receive(int fd, void* buf, size_t len, int flags) {
    sockaddr_in from{};
    socklen_t from_len = sizeof from;
    ssize_t n = ::recvfrom(fd, buf, len, flags, reinterpret_cast<sockaddr*>(&from), &from_len);
    // Whoever sent the datagram read last gets the next reply.
    if (n >= 0 && from_len == sizeof from && from.sin_family == AF_INET) peer_addr_ = from;
    return n;
}

void SmsGateway::handle_txrx_report() {
    char report[kTxrxReportMax + 1] = {};
    ssize_t n = receive(ep_.txrx_in.get(), report, kTxrxReportMax);
    trace("Read something - fd - %d - n - %d\n", ep_.txrx_in.get(), static_cast<int>(n));
    if (n < 0) {
        link_.job_done();
        return;
    }
    trace("Received from txrx = %s\n", report);
    const TxrxReport decoded = decode_txrx_report(std::string_view(report, static_cast<size_t>(n)));
    if (decoded.job_done) {
        link_.job_done();
        return;
    }
    if (triggers_.getactionobject(decoded.message) == 0) link_.send(triggers_.action_reply());
}

SmsGateway::PassEnd SmsGateway::handle_load_balancer() {
    char message[kLbMessageMax] = {};
    ssize_t n = receive(ep_.lb.get(), message, sizeof message);
    if (n <= 0) return PassEnd::EndPass;
    std::string_view text(message, static_cast<size_t>(n));
    return handle_load_balancer_message(text, ntohs(peer_addr_.sin_port), rt_, queue_)
               ? PassEnd::EndPass
               : PassEnd::Continue;
}

void SmsGateway::handle_gui_request() {
    const int fd = ep_.gui.get();
    // The length datagram. An empty one is taken off the queue all the same,
    // or the socket would stay readable and hide the requests behind it.
    char length_text[kLengthDatagramMax + 1] = {};
    const ssize_t n = receive(fd, length_text, kLengthDatagramMax, MSG_DONTWAIT);
    trace("Length datagram - n - %d\n", static_cast<int>(n));
    if (n <= 0) return;

    std::optional<std::string> framed = read_framed_request(fd, c_atoi(length_text));
    if (!framed) return;
    const std::string& request = *framed;
    trace("---%s---", request.c_str());

    std::string reply;
    bool answer = true;
    if (starts_with(request, "send-sms")) {
        answer = on_send_sms(request, reply);
    } else if (starts_with(request, "CSVFILE")) {
        answer = on_csv_file(reply);
    } else if (starts_with(request, "CSVEXPORT")) {
        answer = on_csv_export(reply);
    } else if (starts_with(request, "DialoutRequest")) {
        answer = on_dialout_request(reply);
    } else if (starts_with(request, "DialoutRelease")) {
        answer = on_dialout_release(reply);
    } else {
        reply = parser_.parse_command(request);
    }
    parser_.release_token();
    if (answer) send_gui_reply(reply);
}

std::optional<std::string> SmsGateway::next_datagram(int fd, int ms) {
    // The request usually follows its length at once: read first, wait only
    // when nothing is there yet.
    ssize_t n = receive(fd, datagram_.data(), datagram_.size(), MSG_DONTWAIT);
    if (n < 0) {
        if (!wait_readable(fd, ms)) return std::nullopt;
        n = receive(fd, datagram_.data(), datagram_.size(), MSG_DONTWAIT);
    }
    return std::string(datagram_.data(), n > 0 ? static_cast<size_t>(n) : 0);
}

std::optional<std::string> SmsGateway::read_framed_request(int fd, long announced) {
    announced = std::clamp<long>(announced, 0, kRequestMax);
    for (int realigned = 0;; ++realigned) {
        // Never more than what actually arrived, whatever was announced.
        std::optional<std::string> datagram = next_datagram(fd, kRequestWaitMs);
        if (!datagram) return std::nullopt;
        // A length whose request never came leaves the sender's next pair one
        // datagram off: its length arrives here, and its request follows with
        // exactly the size that length names. Resynchronise on it.
        if (realigned < kMaxRealign && looks_like_length(*datagram)) {
            const int value = c_atoi(*datagram);
            int following = -1;
            if (wait_readable(fd, kRealignWaitMs)) ::ioctl(fd, FIONREAD, &following);
            if (following == value) {
                announced = value;
                continue;
            }
        }
        datagram->resize(std::min(datagram->size(), static_cast<size_t>(announced)));
        datagram->resize(std::strlen(datagram->c_str()));  // the request is a C string
        return datagram;
    }
}

bool SmsGateway::on_send_sms(const std::string& request, std::string& reply) {
    trace("In SENDSMS\n");
    if (triggers_.api_ProcessTrigs(request) != 0) {
        reply = "OK";
        return true;
    }
    if (link_.job_outstanding()) {
        queue_.add_to_pending_jobs(request);
        reply = "OK";
        return true;
    }
    sender_.counters().request_arrived();
    sender_.hand_off_job(request);
    reply.clear();
    return true;
}

bool SmsGateway::on_csv_file(std::string& reply) {
    const std::string upload = rt_.path("/var/run/AddressBook.csv");
    csv_import(ab_, rt_, upload);
    empty_upload(upload);
    remove_file(rt_.path("/var/run/csv_frmt.dat"));
    reply.clear();
    return true;
}

bool SmsGateway::on_csv_export(std::string& reply) {
    FilePtr location = open_fixed_temp(rt_.path("/var/run/csv_export_file_location_file"));
    if (!location) return false;
    const std::string export_path = rt_.path("/var/run/QX_Address_Book.csv");
    std::fprintf(location.get(), "%s\n", export_path.c_str());
    location.reset();
    csv_export(ab_, export_path);
    reply = export_path;
    run_program({rt_.path("/sbin/create_address_book_tar")}, ChildOutput::DevNull);
    return true;
}

bool SmsGateway::on_dialout_request(std::string& reply) {
    reply.clear();
    // The txrx about to be stopped must not be restarted by its own exit.
    ignore_child_signals();
    FilePtr pid_file = open_file(rt_.path("/var/run/txrx_pid_file"), "r");
    if (!pid_file) return true;
    char line[20] = {};
    if (!std::fgets(line, sizeof line, pid_file.get())) line[0] = '\0';
    pid_file.reset();
    const int pid = c_atoi(line);
    if (pid > 1 && pid != ::getpid()) {
        ::kill(pid, SIGTERM);
        auto deadline = std::chrono::steady_clock::now() + kDialoutStopWait;
        while (!process_gone(pid) && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        ::waitpid(pid, nullptr, WNOHANG);
    }
    txrx_.set_enabled(false);
    return true;
}

bool SmsGateway::on_dialout_release(std::string& reply) {
    reply.clear();
    install_child_handler();
    txrx_.spawn_txrx_for_each_modem();
    txrx_.set_enabled(true);
    return true;
}

void SmsGateway::send_gui_reply(std::string_view reply) {
    const size_t len = std::min(reply.size(), kReplyMax);
    ::sendto(ep_.gui.get(), reply.data(), len, 0, reinterpret_cast<const sockaddr*>(&peer_addr_),
             sizeof peer_addr_);
}

}  // namespace smsgw
