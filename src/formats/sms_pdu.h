// SMS transfer-layer PDUs as a modem takes and gives them in PDU mode
// (AT+CMGS, AT+CMGR, AT+CMGL): SMS-SUBMIT and SMS-DELIVER, both ways.
//
//   SMS-SUBMIT  first octet (MTI 01, VPF relative, UDHI 0x40, SRR 0x20),
//               MR, DA, PID, DCS, VP, UDL, UD
//   SMS-DELIVER SCA, first octet (MTI 00, UDHI 0x40), OA, PID, DCS,
//               SCTS (7 octets), UDL, UD
//   address     length (digits, or semi-octets for alphanumeric), type
//               (0x91 international, 0x81 unknown/national, 0xD0
//               alphanumeric), BCD digits low nibble first, F-padded
//   UDH         UDHL, then elements; concatenation: 00 03 REF TOTAL SEQ
//               (8-bit reference) or 08 04 REFHI REFLO TOTAL SEQ (16-bit)
//   UDL         septets for the 7-bit alphabet (UDH included), else octets
//
// Bytes of a PDU are in transmission order; nothing here depends on the
// host's byte order. Decoders take whatever they are given and return
// nullopt for a PDU that is short, has lengths beyond its data or a type it
// is not; they never read past the input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace smsgw::pdu {

inline constexpr size_t kMaxSeptets = 160;   // one part without a header
inline constexpr size_t kPartSeptets = 153;  // one part of a concatenated 7-bit text
inline constexpr size_t kMaxUnits = 70;      // UCS-2 units in one part
inline constexpr size_t kPartUnits = 67;     // UCS-2 units with a header
inline constexpr size_t kMaxDigits = 20;     // digits of an address
inline constexpr size_t kMaxParts = 255;

inline constexpr uint8_t kDcsGsm7 = 0x00;
inline constexpr uint8_t kDcsData8 = 0x04;
inline constexpr uint8_t kDcsUcs2 = 0x08;
inline constexpr uint8_t kTypeInternational = 0x91;
inline constexpr uint8_t kTypeUnknown = 0x81;
inline constexpr uint8_t kTypeAlphanumeric = 0xD0;

enum class Coding { gsm7, data8, ucs2 };

// Alphabet of a data-coding scheme; reserved codings read as the 7-bit
// alphabet.
Coding coding_of(uint8_t dcs);

// Upper-case hex and back; from_hex refuses odd lengths and non-hex digits.
std::string to_hex(std::string_view bytes);
std::optional<std::string> from_hex(std::string_view hex);

struct Address {
    std::string text;  // "+4912345", "12345" or an alphanumeric name
    uint8_t type = kTypeUnknown;
};

// A number the network can take: an optional '+' then 1 to 20 digits.
// Empty when it is, else why not.
std::string number_problem(std::string_view number);
// Encoded address field of a number (REQUIRES: number_problem() is empty).
std::string encode_number(std::string_view number);
// Alphanumeric address field (7-bit alphabet, at most 11 characters).
std::string encode_alphanumeric(std::string_view name);
// Decodes the address at the start of `in`; *used gets its size.
std::optional<Address> decode_address(std::string_view in, size_t* used);

struct Timestamp {
    int year = 0;  // two digits
    int month = 1, day = 1, hour = 0, minute = 0, second = 0;
    int zone_quarters = 0;  // offset from UTC in quarters of an hour
};
std::string encode_timestamp(const Timestamp& t);
std::optional<Timestamp> decode_timestamp(std::string_view seven);
// "yy/MM/dd" and "hh:mm:ss+zz" (zone in quarter hours, as AT text mode).
std::string date_stamp(const Timestamp& t);
std::string time_stamp(const Timestamp& t);

struct Concat {
    uint16_t ref = 0;
    uint8_t total = 0;
    uint8_t seq = 0;
    bool ref16 = false;
};

// The parts a text is sent as: the 7-bit alphabet when every character has
// septets, else UCS-2. A text that fits one part is one part; a longer one
// is cut at 153 septets / 67 units, never inside an escape pair or a
// surrogate pair. Texts needing more than 255 parts are cut there.
struct SplitText {
    Coding coding = Coding::gsm7;
    std::vector<std::u32string> parts;
};
SplitText split_text(std::u32string_view text);

struct Submit {
    Address to;
    uint8_t mr = 0;
    uint8_t dcs = kDcsGsm7;
    bool status_report = false;
    std::optional<Concat> concat;
    std::string text;  // UTF-8
};

// The TPDUs (without the service-centre address) of a text to a number,
// one per part; concatenated parts carry the 8-bit reference `ref`.
// REQUIRES: number_problem(number) is empty.
std::vector<std::string> encode_submit(std::string_view number, std::string_view text_utf8,
                                       uint8_t ref, bool status_report = false);
// Decodes a TPDU (no service-centre address in front).
std::optional<Submit> decode_submit(std::string_view tpdu);

struct Deliver {
    Address from;
    Timestamp scts;
    uint8_t pid = 0;
    uint8_t dcs = kDcsGsm7;
    std::optional<Concat> concat;
    std::string text;  // UTF-8 (8-bit data as Latin-1)
};

// An SMS-DELIVER with the service-centre address in front, as AT+CMGR
// gives it. A concatenation element whose part number is 0 or beyond the
// total is ignored (the part reads as a message of its own).
std::optional<Deliver> decode_deliver(std::string_view pdu);
// The same built from parts (the service-centre address field is "00").
std::string encode_deliver(const Deliver& d);

}  // namespace smsgw::pdu
