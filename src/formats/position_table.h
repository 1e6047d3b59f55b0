// The job position table "/var/Jobs/pos_offset": where the job ring is
// read and written, how many bytes it holds, and the length of the record
// appended last to each of its nine files.
//
//   bytes    field        type        meaning
//   0-3      P_POS/L_POS  uint32      read index in the high, write index in
//                                     the low 16 bits (each signed)
//   4-7      TOTAL_SIZE   int32       bytes of all queued records, headers included
//   8-43     l_job_ln[9]  int32 x 9   length of the last record of file 0-8
//
// Integers are in host byte order, so on a big-endian host bytes 0-1 hold
// P_POS.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace smsgw {

struct PositionTable {
    static constexpr size_t kSize = 44;
    static constexpr int kFiles = 9;

    int16_t P_POS = 0;
    int16_t L_POS = 0;
    int32_t TOTAL_SIZE = 0;
    std::array<int32_t, kFiles> l_job_ln{};
};

std::string encode_position_table(const PositionTable& table);

// nullopt when fewer than 44 bytes are given. The values come back as
// stored: range checks are the queue's.
std::optional<PositionTable> decode_position_table(std::string_view bytes);

}  // namespace smsgw
