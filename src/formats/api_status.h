// The API status file "/var/config/api_stat.st": a 4-byte header, then one
// 60-byte record per API request in increasing id. The API front end makes
// the records; the daemon rewrites them as a request moves on.
//
//   bytes    field     type        meaning
//   0-3      id        int32       the request id
//   4-5      status    int16       an ApiStatus code
//   6-7                            zero
//   8-51     time      int32 x 11  local time of the update: seconds,
//                                  minutes, hours, day, month 0-11, years
//                                  since 1900, weekday, yearday, DST flag,
//                                  UTC offset in seconds, zone word
//   52-55    address   4 bytes     the peer that sent it (network order),
//   56-59    result    int32       and its result; status 6 only, else zero
//
// Integers are in host byte order.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace smsgw {

// Status codes of api requests.
enum ApiStatus : int {
    kApiAccepted = 0,              // an api3 trigger was acted on
    kApiTaken = 2,                 // the send handler took the request
    kApiSentByPeer = 6,            // a load-balancer peer sent it
    kApiRefusedByPeer = 7,         // the peer reported an error
    kApiPeerFailed = 8,            // the peer's report could not be read
    kApiUnknownRecipient = 606,    // a named contact or group does not exist
    kApiQueueFull = 608,           // the job queue refused the job
    kApiTriggerRefused = 610,      // an api3 trigger was refused
    kApiSendTriggerRefused = 611,  // an api2 trigger was refused
    // Written by the transceiver when an api job ends (0 when every
    // recipient got the message).
    kApiSomeUndelivered = 620,  // at least one recipient did not get it
    kApiNoneDelivered = 621,    // no recipient got it, or there was none
    kApiJobRefused = 622,       // the job file was refused or damaged
};

struct ApiStatRecord {
    static constexpr size_t kSize = 60;
    static constexpr size_t kHeaderSize = 4;
    static constexpr size_t kTimeWords = 11;

    int32_t id = 0;
    int16_t status = 0;
    std::array<int32_t, kTimeWords> time{};
    uint32_t peer_address = 0;  // network byte order, as inet_addr gives it
    int32_t peer_result = 0;
};

std::string encode_api_stat_record(const ApiStatRecord& record);
// nullopt when fewer than 60 bytes are given.
std::optional<ApiStatRecord> decode_api_stat_record(std::string_view bytes);

// Where the record of request `id` is written, given the id of the file's
// first record: the record of that id counted from the first, except that
// the first id's successor and every id older than the first land on the
// second record.
long long api_stat_record_offset(int32_t first_id, int id);

}  // namespace smsgw
