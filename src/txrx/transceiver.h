// One txrx process: the loop that serves its modem (start-up settings,
// incoming messages, signal quality), its share of the jobs, the control
// texts of the daemon, and its place among the processes of the other
// modems (peers.h).
//
//   loop:  wait for the modem, the job port (when held), the private
//          socket, or the next timer
//          -> lines from the modem: +CMTI reads, stores, reports, deletes
//          -> datagrams: jobs are registered, control texts applied (and
//             passed on to the other processes)
//          -> timers: port bind retry, modem (re)start, signal poll with a
//             sweep of stored messages and parts, takeover check
//          -> one recipient of a job when the modem is ready
#pragma once

#include <chrono>
#include <csignal>
#include <optional>
#include <string>

#include "common/paths.h"
#include "txrx/at_channel.h"
#include "txrx/job_worker.h"
#include "txrx/modem.h"
#include "txrx/options.h"
#include "txrx/peers.h"
#include "txrx/receiver.h"
#include "txrx/reports.h"

namespace smsgw::txrx {

inline constexpr int kExitSetup = 1;
inline constexpr int kExitUsage = 2;
inline constexpr int kExitGone = 4;  // the device went away (read error, hang-up)
inline constexpr int kExitSim = 5;   // the SIM is not ready (needs a PIN)

class Transceiver {
  public:
    explicit Transceiver(const Options& options);

    // Runs until `stop` is set (status 0) or the modem is lost. Status 0
    // also when another txrx already serves the device.
    int run(const volatile std::sig_atomic_t& stop);

  private:
    using Clock = std::chrono::steady_clock;

    bool setup();
    void shutdown();
    void wait_for_events();
    void open_modem();
    void modem_ready();
    void lost(int status, const char* why);
    void serve_modem_lines();
    void take_stored(int index);
    void serve_port();
    void serve_private();
    void control(const std::string& text);
    void timers();
    void poll_signal();
    void work();

    const Options& opt_;
    Paths paths_;
    Reporter reporter_;
    Peers peers_;
    Receiver receiver_;
    JobWorker worker_;
    std::optional<AtChannel> at_;
    std::optional<Modem> modem_;
    bool ready_ = false;
    int exit_ = -1;
    Clock::time_point open_at_{};
    Clock::time_point port_at_{};
    Clock::time_point signal_at_{};
    Clock::time_point rescan_at_{};
    std::optional<Clock::time_point> sim_exit_at_;
};

}  // namespace smsgw::txrx
