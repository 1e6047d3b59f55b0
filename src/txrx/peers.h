// How the txrx processes of one root (one per modem) find each other.
//
// The daemon sends every job and control text to one port (20202+N). The
// first txrx to bind it holds it; the others retry the bind once a second
// and at once when the holder leaves. Each process also has a private Unix
// datagram socket DIR/var/run/txrx/<device>.sock; the holder passes control
// texts and "job" wake-ups to all the others through them. A lock file
// DIR/var/run/txrx/<device>.lock keeps a second txrx off a device that is
// already served (the daemon restarts every child when one has died).
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "common/fileops.h"

namespace smsgw::txrx {

class Peers {
  public:
    Peers(std::string run_dir, const std::string& device, uint16_t port);
    ~Peers();
    Peers(const Peers&) = delete;
    Peers& operator=(const Peers&) = delete;

    // False when another live txrx serves the device.
    bool lock_device();
    bool open_private();
    // Binds the job port unless it is held already; true while held.
    bool hold_port();
    bool holds_port() const { return port_.valid(); }
    void release_port();

    int private_fd() const { return private_.get(); }
    int port_fd() const { return port_.get(); }
    // Sends `text` to every other process's private socket.
    void tell_others(std::string_view text) const;

    const std::string& run_dir() const { return run_dir_; }

  private:
    std::string run_dir_;
    std::string name_;  // the device path with '/' as '_'
    uint16_t port_number_;
    Fd lock_;
    Fd private_;
    Fd port_;
};

// One datagram waiting on a non-blocking socket (at most `max` bytes);
// nullopt when none.
std::optional<std::string> receive_datagram(int fd, size_t max = 65536);

// Is the process alive (and not a zombie)?
bool process_alive(pid_t pid);

// The pid file the daemon reads ("/var/run/txrx_pid_file"): one line per
// running txrx, the first started first. Edits are serialised with a lock
// file beside it; lines of processes that are gone are dropped.
void pid_file_add(const std::string& file, pid_t pid);
void pid_file_remove(const std::string& file, pid_t pid);
// Moves the line of `pid` to the front: the daemon looks at the first line
// only, so a txrx that ends on a failure puts itself there to be restarted.
void pid_file_promote(const std::string& file, pid_t pid);

}  // namespace smsgw::txrx
