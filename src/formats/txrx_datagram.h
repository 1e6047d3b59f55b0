// Datagrams the daemon sends to a transceiver (UDP 127.0.0.1:20202):
//
//   job hand-off    100 bytes: the job file's path, NUL-padded
//   api job         "api " PATH NUL (length + 1 bytes)
//   control text    100 bytes: a command such as "cmd reset_modem",
//                   NUL-padded (at most 99 characters)
//   broadcast job   100 bytes: the path, or "api " and the path, NUL-padded;
//                   also the action reply sent after an incoming trigger
//                   (all zero when it prepared no job)
//
// and the answer to a peer that asked for work (scheduler mode 1): the
// 100-byte path, or PATH "api" NUL for an api job.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace smsgw {

inline constexpr size_t kTxrxDatagramSize = 100;

// A path is cut to 99 characters in every form, as its 100-byte buffer
// holds it.
std::string encode_job_handoff(std::string_view job_path, bool api);
std::string encode_peer_job_reply(std::string_view job_path, bool api);
std::string encode_broadcast_handoff(std::string_view job_path, bool api);
std::string encode_control_text(std::string_view text);

// What a transceiver makes of a datagram: its text ends at the first NUL;
// an absolute path is a job, "api " and an absolute path an api job,
// anything else a control text.
struct TxrxDatagram {
    enum class Kind { Job, ApiJob, Control };
    Kind kind = Kind::Control;
    std::string text;  // the job path, or the control text
};
TxrxDatagram decode_txrx_datagram(std::string_view bytes);

}  // namespace smsgw
