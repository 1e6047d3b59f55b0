#include "client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "common/fileops.h"
#include "common/net.h"

namespace smsgw::ctl {
namespace {

constexpr size_t kMaxRequest = 65507;  // the largest UDP payload
constexpr size_t kMaxReply = 65536;
constexpr size_t kMaxFileRead = 16u << 20;

std::string where(int port) {
    return "127.0.0.1:" + std::to_string(port);
}

Failure not_listening(int port) {
    return Failure{
        kExitUnreachable, "smsgwd is not running: nothing listens on " + where(port), {}};
}

std::string real_path(const std::string& path) {
    char buf[PATH_MAX];
    return ::realpath(path.c_str(), buf) ? std::string(buf) : std::string();
}

}  // namespace

Client::Client(const Global& g) : g_(g), paths_(g.root) {}

std::string Client::request(const std::string& text) const {
    if (text.size() > kMaxRequest)
        throw usage_error("the request is longer than " + std::to_string(kMaxRequest) + " bytes");
    Fd fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in to = smsgw::loopback_address(static_cast<uint16_t>(port()));
    // Connected, so only the daemon's port can answer and a port nobody
    // holds is reported at once instead of after the timeout.
    if (!fd || ::connect(fd.get(), reinterpret_cast<sockaddr*>(&to), sizeof to) != 0)
        throw Failure{kExitLocal, std::string("cannot open a socket: ") + std::strerror(errno), {}};
    const std::string length = std::to_string(text.size());
    for (const std::string* d : {&length, &text}) {
        if (::send(fd.get(), d->data(), d->size(), 0) >= 0) continue;
        if (errno == ECONNREFUSED) throw not_listening(port());
        throw Failure{
            kExitLocal, "cannot send to " + where(port()) + ": " + std::strerror(errno), {}};
    }
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(g_.timeout_ms);
    std::vector<char> buf(kMaxReply);
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                        deadline - std::chrono::steady_clock::now())
                        .count();
        pollfd p{fd.get(), POLLIN, 0};
        int r = left > 0 ? ::poll(&p, 1, static_cast<int>(left)) : 0;
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) break;
        ssize_t n = ::recv(fd.get(), buf.data(), buf.size(), 0);
        if (n >= 0) return std::string(buf.data(), static_cast<size_t>(n));
        if (errno == ECONNREFUSED) throw not_listening(port());
    }
    throw Failure{kExitUnreachable,
                  "no answer from smsgwd on " + where(port()) + " within " +
                      std::to_string(g_.timeout_ms / 1000) + " s",
                  {}};
}

bool Client::names(const std::string& reply, std::string_view absolute) const {
    const std::string mine = path(absolute);
    if (reply == absolute || reply == mine) return true;
    if (reply.empty() || reply[0] != '/') return false;
    const std::string real = real_path(reply);
    return !real.empty() && real == real_path(mine);
}

std::string Client::read(std::string_view absolute) const {
    const std::string local = path(absolute);
    auto data = read_file(local, kMaxFileRead);
    if (!data) throw Failure{kExitLocal, "cannot read " + local + ": " + std::strerror(errno), {}};
    return *data;
}

void refused(const std::string& meaning, const std::string& reply) {
    throw Failure{kExitRefused, meaning, reply};
}

void garbled(const std::string& what, const std::string& reply) {
    throw Failure{kExitGarbled, "unexpected answer from smsgwd: " + what, reply};
}

void fail(const std::string& reply, const std::string& context) {
    const std::string meaning = plain_meaning(reply);
    if (!meaning.empty()) refused(context + ": " + meaning, reply);
    if (reply.compare(0, 5, "ERROR") == 0) refused(context, reply);
    garbled(context, reply);
}

std::string plain_meaning(std::string_view reply) {
    static const std::pair<std::string_view, std::string_view> kMeanings[] = {
        {"Invalid String to Parse", "the daemon could not read the request"},
        {"Duplicate Entry Exists.", "the contact already has this number"},
        {"Exceeded MAX Limit", "the address book is full"},
        {"ERROR:Key Not Found", "no such contact"},
        {"ERROR:Element Not Found", "no such contact"},
        {"ERROR:Key is not Present", "no such contact in the group"},
        {"ERROR:Group name doesnot exist", "no such group"},
        {"ERROR:Group Doesnot Exist", "no such group"},
        {"ERROR:Group Already exists with the name", "a group of that name exists"},
        {"ERROR:Contact is already in  the group", "the contact is already in the group"},
        {"ERROR:Contact is already int the group", "the contact is already in the group"},
        {"ERROR:Search is Unsuccesful.", "no contact name begins with that prefix"},
        {"ERROR:Search is Insucessfull", "no such group"},
        {"ERROR:Edit Failed", "the contact could not be changed"},
        {"ERROR:Rejected - Duplicate Entry", "the contact already has this number"},
        {"ERROR:Broadcast Trigger Already Exists.", "a broadcast trigger has this keyword"},
        {"ERROR:Pre Configured message already exists.", "this preconfigured message exists"},
        {"ERROR:Action Trigger already exists.", "another action uses this keyword"},
        {"Authenticate user already exists.", "the user is already authenticated"},
        {"ERROR:Authenticate users exceeded max limit 20.",
         "the list already holds 20 authenticated users"},
    };
    for (const auto& [text, meaning] : kMeanings)
        if (reply == text) return std::string(meaning);
    return {};
}

}  // namespace smsgw::ctl
