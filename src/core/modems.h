// Modem discovery and the supervision of the txrx children: the probe
// writes "/var/run/wirelessmodems" (one device path per line), one txrx is
// started per line, and a txrx that became a zombie is started again.
//
// Devices are named as the peers know them ("/dev/ttyS0") in the modem list
// and in txrx's argument; only the probe opens the file under the root.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "common/runtime.h"

namespace smsgw {

// How long the probe lets the modem answer AT+CSQ before reading.
inline constexpr int kProbeSettleMs = 3000;

// Appends "line\n" to the file (created when missing).
void put_in_file(const std::string& file, std::string_view line);

// The device names "/dev/ttyS*" found under the root, sorted by name.
std::vector<std::string> list_serial_devices(const Runtime& rt);

// Opens a serial port raw at 115200 8N1 with RTS/CTS; -1 on failure.
int getserialfd(const std::string& real_path);

// 0 when the device answers AT+CSQ with a signal value from 1 to 31.
int probe_modem(const std::string& real_path, int settle_ms = kProbeSettleMs);

// The signal value of an AT+CSQ answer accepts the modem (1..31)?
bool signal_value_usable(std::string_view answer);

// Probes every serial device, appends the usable ones to the modem list and
// counts them in rt.no_of_modems.
void find_wireless_modems(Runtime& rt, int settle_ms = kProbeSettleMs);

// Starts and watches the txrx children. The daemon never reaps a txrx
// before looking at it: a dead txrx must still be a zombie when
// txrx_monitor() reads its state, or it would not be restarted.
class TxrxSupervisor {
  public:
    explicit TxrxSupervisor(const Runtime& rt) : rt_(rt) {}

    // Starts one txrx per line of the modem list; the pids started.
    std::vector<pid_t> spawn_txrx_for_each_modem();

    // Waits until a txrx listens on `port`, every child in `started` has
    // ended, or `limit` has passed. A job handed over before the new txrx
    // listens would be lost, and the queue would wait for its report
    // forever. True when the port is taken.
    bool wait_until_listening(const std::vector<pid_t>& started, uint16_t port,
                              std::chrono::milliseconds limit) const;

    // After a child exited: starts the children again when the txrx named in
    // "/var/run/txrx_pid_file" is a zombie, then reaps the children that have
    // exited. Returns whether it restarted them.
    bool txrx_monitor();

    // Other children the daemon starts and does not wait for (time client).
    void track(pid_t pid);

    // At the stop: SIGTERM to every child still running, SIGKILL to those
    // that outlast `grace`; all are reaped.
    void stop_children(std::chrono::milliseconds grace = std::chrono::seconds(3));

    // A dial-out holds the modem: txrx_monitor restarts nothing meanwhile.
    void set_enabled(bool enabled) { txrx_enabled_ = enabled; }

  private:
    void reap_exited(pid_t keep);

    const Runtime& rt_;
    std::vector<pid_t> children_;
    bool txrx_enabled_ = true;
};

// Whether some socket is bound to the UDP port (from /proc/net/udp).
bool udp_port_bound(uint16_t port);

// The text between the parentheses of the "State:" line of a
// /proc/PID/status file ("zombie", "sleeping", ...), or "".
std::string process_state(pid_t pid);

// Ends (SIGKILL) the txrx and time-client processes left from an earlier
// run of this root: those whose argv[0] is ROOT/bin/txrx or ROOT/bin/msntp,
// and with the root "/" also those named exactly txrx or msntp. Never this
// process. Returns how many were signalled.
int kill_stale_children(const Runtime& rt);

// First decimal number of the pid file, or 0 when missing or not a pid.
pid_t read_pid_file(const std::string& path);

}  // namespace smsgw
