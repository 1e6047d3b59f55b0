// International dialing: "/var/config/international_dialing" and the
// System V shared-memory word (key 16384 + port offset) that publishes the
// allowed number of digits (0 while disabled) to other processes.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "common/runtime.h"

namespace smsgw {

int load_international_dialing(const Runtime& rt);

class DialingSegment {
  public:
    DialingSegment() = default;
    ~DialingSegment();  // detaches; the segment itself outlives the daemon
    DialingSegment(const DialingSegment&) = delete;
    DialingSegment& operator=(const DialingSegment&) = delete;

    // Gets/creates the segment, attaches it and stores the loaded value.
    // False (reported once) when it cannot be had; writes are then skipped.
    bool attach_dialing_segment(const Runtime& rt);
    void store(int32_t value);
    int32_t value() const;
    bool attached() const { return word_ != nullptr; }

  private:
    volatile int32_t* word_ = nullptr;
};

// "get-sms international-dialing KEY^|^": "checked" or "" for KEY "dialing",
// the number for "max-digits"; "ERROR" for another key or no file.
std::string get_international_dialing(const Runtime& rt, const DialingSegment& seg,
                                      std::string_view key);
// "add-sms international-dialing KEY^|^VALUE^|^": rewrites the matching
// line through "/var/run/temp_file_test" and updates the segment.
std::string set_international_dialing(const Runtime& rt, DialingSegment& seg, std::string_view key,
                                      std::string_view value);

}  // namespace smsgw
