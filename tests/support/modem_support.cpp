#include "support/modem_support.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "formats/job_file.h"

namespace smsgw::test {

SimModem::SimModem(const std::string& root, const std::string& tty)
    : log_(root + "/var/run/modem-sim." + tty + ".log"),
      control_(root + "/var/run/modem-sim." + tty + ".ctl") {
    std::vector<std::string> argv = exec_prefix();
    argv.insert(argv.end(), {MODEM_SIM_PATH, "--root", root, "--tty", tty});
    child_ = std::make_unique<Child>(argv, root + "/modem-sim." + tty + ".out");
    wait_for([&] { return !lines("START").empty() && exists(control_); });
}

std::string SimModem::ctl(const std::string& cmd) const {
    int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un self{AF_UNIX, {}}, to{AF_UNIX, {}};
    std::strncpy(to.sun_path, control_.c_str(), sizeof to.sun_path - 1);
    char buf[256];
    ssize_t n = -1;
    pollfd p{fd, POLLIN, 0};
    if (::bind(fd, reinterpret_cast<sockaddr*>(&self), sizeof(sa_family_t)) == 0 &&
        ::sendto(fd, cmd.data(), cmd.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to) >= 0 &&
        ::poll(&p, 1, 5000) > 0)
        n = ::recv(fd, buf, sizeof buf, 0);
    ::close(fd);
    return std::string(buf, static_cast<size_t>(std::max<ssize_t>(n, 0)));
}

std::vector<std::string> SimModem::lines(const std::string& prefix) const {
    return lines_starting(read_file(log_), prefix);
}

bool SimModem::wait_lines(const std::string& prefix, size_t n, Ms deadline) const {
    return wait_for([&] { return lines(prefix).size() >= n; }, deadline);
}

std::vector<std::string> fast_txrx_options() {
    return {"--timeout-ms", "300", "--send-timeout-ms", "600",
            "--backoff-ms", "50",  "--reopen-ms",       "100"};
}

std::unique_ptr<Child> start_txrx(const std::string& root, int offset, const std::string& device,
                                  std::vector<std::string> options) {
    std::vector<std::string> argv = exec_prefix();
    argv.push_back(TXRX_PATH);
    argv.insert(argv.end(), options.begin(), options.end());
    argv.push_back(device);
    return std::make_unique<Child>(
        argv, root + "/txrx." + device.substr(device.rfind('/') + 1) + ".err", "",
        std::vector<std::string>{"SMSGW_ROOT=" + root,
                                 "SMSGW_PORT_OFFSET=" + std::to_string(offset)});
}

void install_txrx(const std::string& root, const std::vector<std::string>& options) {
    std::vector<std::string> argv = exec_prefix();
    argv.push_back(TXRX_PATH);
    argv.insert(argv.end(), options.begin(), options.end());
    write_txrx_wrapper(root, argv, " 2>>\"$SMSGW_ROOT/txrx.err\"");
}

std::string write_job(const std::string& root, const std::string& name, const std::string& text,
                      const std::vector<std::string>& numbers) {
    std::string image = encode_job_file(text, {});
    for (const std::string& n : numbers) image += padded(n, 50);
    write_file(root + "/tmp/" + name, image);
    return root + "/tmp/" + name;
}

std::string handoff(const std::string& path, bool api) {
    return api ? "api " + path + std::string(1, '\0') : padded(path, 100);
}

}  // namespace smsgw::test
