// Support for the transceiver's tests: an emulated modem (modem-sim) in a
// sandbox root, job files, and the real txrx started directly or installed
// as DIR/bin/txrx for the daemon.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "support/test_support.h"

namespace smsgw::test {

// modem-sim linked at DIR/dev/<tty>; stopped at the end.
class SimModem {
  public:
    SimModem(const std::string& root, const std::string& tty = "ttyS0");
    // A control command and its answer ("" when none came).
    std::string ctl(const std::string& cmd) const;
    // The log lines that begin with prefix ("SUBMIT ", "CMD ", ...).
    std::vector<std::string> lines(const std::string& prefix) const;
    bool wait_lines(const std::string& prefix, size_t n, Ms deadline = Ms(10000)) const;

  private:
    std::string log_;
    std::string control_;
    std::unique_ptr<Child> child_;
};

// Options that keep txrx's waits short in tests.
std::vector<std::string> fast_txrx_options();
// txrx DEVICE started directly with the root and port offset in its
// environment; its standard error goes to DIR/txrx.<tty>.err.
std::unique_ptr<Child> start_txrx(const std::string& root, int offset, const std::string& device,
                                  std::vector<std::string> options = fast_txrx_options());
// DIR/bin/txrx for the daemon to start: the real txrx with `options`.
void install_txrx(const std::string& root, const std::vector<std::string>& options);

// A job file in DIR/tmp: the 160-byte text field and 50-byte records.
std::string write_job(const std::string& root, const std::string& name, const std::string& text,
                      const std::vector<std::string>& numbers);
// The 100-byte hand-off datagram (plain) or "api PATH" with its NUL.
std::string handoff(const std::string& path, bool api = false);

}  // namespace smsgw::test
