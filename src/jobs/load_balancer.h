// Messages from the load-balancer peer (UDP 20207). A message carrying
// "LB_OK" reports on the job it was given and may ask for the next one:
//
//   LB_OK                         -> hand the peer the next queued job
//   LB_OK request                 -> the same
//   LB_OK X ID [ERROR...]         -> api request ID refused (status 7)
//   LB_OK X ID ADDR:RESULT        -> sent by ADDR; api status 6, result
//                                    written into the slave's outbox record
//   LB_OK X ID A B ...            -> failed (result 5, api status 8)
//
// and any of these with "request" as its second word asks for more work.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "common/runtime.h"
#include "jobs/job_queue.h"

namespace smsgw {

// The longest message read from the peer; the text ends at its first NUL.
constexpr size_t kLbMessageMax = 64;

// Acts on one message from the peer at `peer_port`. False when it carries
// no "LB_OK" (the loop pass then goes on to the next endpoint).
bool handle_load_balancer_message(std::string_view text, uint16_t peer_port, const Runtime& rt,
                                  JobQueue& queue);

// Writes the peer's result into the slave's outbox record
// "/var/Outbox/outbox_slave_tmp" and passes the record to the database.
void outbox_slave_update(const Runtime& rt, int32_t result);

}  // namespace smsgw
