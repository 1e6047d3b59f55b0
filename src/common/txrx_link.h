// The one path to the transceivers: every job hand-off, control text and
// action reply leaves through one TxrxLink, which also knows whether a job
// it carried is still being worked on. The datagrams themselves are
// encoded by formats/txrx_datagram.h; the link only carries them.
#pragma once

#include <cstdint>
#include <string_view>

#include "common/runtime.h"

namespace smsgw {

class TxrxLink {
  public:
    explicit TxrxLink(const Ports& ports) : port_(ports.txrx_out()) {}
    TxrxLink(const TxrxLink&) = delete;
    TxrxLink& operator=(const TxrxLink&) = delete;

    // One datagram to 127.0.0.1:20202 (plus the port offset) from a fresh
    // socket; the send result is not checked. False when no socket could be
    // had (descriptor 0 counts as none).
    bool send(std::string_view datagram) const;

    // A job is with the transceivers until one of them reports it done (or
    // its report cannot be read); meanwhile new jobs wait in the queue.
    bool job_outstanding() const { return job_outstanding_; }
    void job_handed_over() { job_outstanding_ = true; }
    void job_done() { job_outstanding_ = false; }

  private:
    uint16_t port_;
    bool job_outstanding_ = false;
};

}  // namespace smsgw
