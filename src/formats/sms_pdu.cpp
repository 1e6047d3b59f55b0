#include "formats/sms_pdu.h"

#include <cstdio>
#include <cstdlib>

#include "formats/gsm_alphabet.h"

namespace smsgw::pdu {

namespace {

constexpr uint8_t kUdhi = 0x40;
constexpr uint8_t kSrr = 0x20;
constexpr uint8_t kMtiMask = 0x03;
constexpr uint8_t kMtiDeliver = 0x00;
constexpr uint8_t kMtiSubmit = 0x01;
constexpr uint8_t kVpfRelative = 0x10;
constexpr uint8_t kValidity = 0xAA;  // four days
constexpr uint8_t kConcat8 = 0x00;
constexpr uint8_t kConcat16 = 0x08;

// Bounded cursor over a PDU: a read past the end clears ok and yields zero.
struct Reader {
    std::string_view in;
    size_t pos = 0;
    bool ok = true;

    uint8_t byte() {
        if (pos >= in.size()) {
            ok = false;
            return 0;
        }
        return static_cast<uint8_t>(in[pos++]);
    }
    std::string_view take(size_t n) {
        if (n > in.size() - pos) {
            ok = false;
            return {};
        }
        std::string_view s = in.substr(pos, n);
        pos += n;
        return s;
    }
    std::string_view rest() const { return in.substr(pos); }
};

uint8_t swapped_bcd(int v) {
    return static_cast<uint8_t>((v % 10) << 4 | (v / 10) % 10);
}

std::string udh_of(const std::optional<Concat>& c) {
    if (!c) return {};
    std::string h;
    if (c->ref16) {
        h = {'\x06', static_cast<char>(kConcat16), '\x04', static_cast<char>(c->ref >> 8),
             static_cast<char>(c->ref & 0xFF)};
    } else {
        h = {'\x05', static_cast<char>(kConcat8), '\x03', static_cast<char>(c->ref & 0xFF)};
    }
    h.push_back(static_cast<char>(c->total));
    h.push_back(static_cast<char>(c->seq));
    return h;
}

// Septets a header of `octets` bytes occupies in a 7-bit user data.
size_t header_septets(size_t octets) {
    return (octets * 8 + 6) / 7;
}

// UDL and user data of one part.
std::string user_data(Coding coding, std::u32string_view text, const std::string& udh) {
    std::string out;
    if (coding == Coding::gsm7) {
        std::vector<uint8_t> septets;
        for (char32_t c : text) {
            uint8_t s[2];
            size_t n = gsm::septets_for(c, s);
            if (n == 0) s[0] = '?', n = 1;
            septets.insert(septets.end(), s, s + n);
        }
        size_t skip = udh.empty() ? 0 : header_septets(udh.size());
        std::string packed = gsm::pack_septets(septets, skip);
        packed.replace(0, udh.size(), udh);
        out.push_back(static_cast<char>(skip + septets.size()));
        return out + packed;
    }
    std::string body = udh;
    if (coding == Coding::ucs2) {
        body += gsm::to_ucs2(text);
    } else {
        for (char32_t c : text) body.push_back(static_cast<char>(c & 0xFF));
    }
    out.push_back(static_cast<char>(body.size()));
    return out + body;
}

// Elements of a header; only concatenation is kept. False when an element
// runs beyond the header.
bool parse_udh(std::string_view h, std::optional<Concat>& concat) {
    Reader r{h};
    while (r.ok && r.pos < h.size()) {
        uint8_t iei = r.byte();
        std::string_view data = r.take(r.byte());
        if (!r.ok) return false;
        Concat c;
        if (iei == kConcat8 && data.size() == 3) {
            c.ref = static_cast<uint8_t>(data[0]);
        } else if (iei == kConcat16 && data.size() == 4) {
            c.ref = static_cast<uint16_t>(static_cast<uint8_t>(data[0]) << 8 |
                                          static_cast<uint8_t>(data[1]));
            c.ref16 = true;
            data.remove_prefix(1);
        } else {
            continue;
        }
        c.total = static_cast<uint8_t>(data[1]);
        c.seq = static_cast<uint8_t>(data[2]);
        // A part number of 0 or beyond the total voids the element.
        if (c.seq != 0 && c.seq <= c.total) concat = c;
    }
    return true;
}

// The user data (UDL and what follows) into text and concatenation.
bool parse_user_data(Reader& r, bool udhi, uint8_t dcs, std::optional<Concat>& concat,
                     std::string& text) {
    size_t udl = r.byte();
    Coding coding = coding_of(dcs);
    size_t octets = coding == Coding::gsm7 ? gsm::packed_size(udl) : udl;
    std::string_view ud = r.take(octets);
    if (!r.ok) return false;
    size_t header = 0;
    if (udhi) {
        if (ud.empty()) return false;
        header = 1 + static_cast<uint8_t>(ud[0]);
        if (header > ud.size() || !parse_udh(ud.substr(1, header - 1), concat)) return false;
    }
    if (coding == Coding::gsm7) {
        size_t skip = header_septets(header);
        if (skip > udl) return false;
        text = gsm::to_utf8(gsm::from_septets(gsm::unpack_septets(ud, udl, skip)));
    } else if (coding == Coding::ucs2) {
        text = gsm::to_utf8(gsm::from_ucs2(ud.substr(header)));
    } else {
        text.clear();
        for (char c : ud.substr(header)) gsm::append_utf8(text, static_cast<unsigned char>(c));
    }
    return true;
}

}  // namespace

Coding coding_of(uint8_t dcs) {
    uint8_t group = dcs >> 4;
    if (group <= 0x7) {                        // general data coding, possibly marked for deletion
        if (dcs & 0x20) return Coding::data8;  // compressed: passed on as bytes
        switch ((dcs >> 2) & 0x03) {
            case 1:
                return Coding::data8;
            case 2:
                return Coding::ucs2;
            default:
                return Coding::gsm7;
        }
    }
    if (group == 0xE) return Coding::ucs2;
    if (group == 0xF) return (dcs & 0x04) ? Coding::data8 : Coding::gsm7;
    return Coding::gsm7;
}

std::string to_hex(std::string_view bytes) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(bytes.size() * 2);
    for (unsigned char b : bytes) {
        out.push_back(kDigits[b >> 4]);
        out.push_back(kDigits[b & 0x0F]);
    }
    return out;
}

std::optional<std::string> from_hex(std::string_view hex) {
    if (hex.size() % 2 != 0) return std::nullopt;
    auto nibble = [](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        return -1;
    };
    std::string out;
    out.reserve(hex.size() / 2);
    for (size_t i = 0; i < hex.size(); i += 2) {
        int hi = nibble(hex[i]);
        int lo = nibble(hex[i + 1]);
        if (hi < 0 || lo < 0) return std::nullopt;
        out.push_back(static_cast<char>(hi << 4 | lo));
    }
    return out;
}

std::string number_problem(std::string_view number) {
    std::string_view digits = number;
    if (!digits.empty() && digits[0] == '+') digits.remove_prefix(1);
    if (digits.empty()) return "no digits";
    if (digits.size() > kMaxDigits) return "more than 20 digits";
    for (char c : digits)
        if (c < '0' || c > '9') return "not a digit in the number";
    return {};
}

std::string encode_number(std::string_view number) {
    bool international = !number.empty() && number[0] == '+';
    if (international) number.remove_prefix(1);
    std::string out;
    out.push_back(static_cast<char>(number.size()));
    out.push_back(static_cast<char>(international ? kTypeInternational : kTypeUnknown));
    for (size_t i = 0; i < number.size(); i += 2) {
        int lo = number[i] - '0';
        int hi = i + 1 < number.size() ? number[i + 1] - '0' : 0xF;
        out.push_back(static_cast<char>(hi << 4 | lo));
    }
    return out;
}

std::string encode_alphanumeric(std::string_view name) {
    std::vector<uint8_t> septets;
    for (char32_t c : gsm::decode_utf8(name)) {
        uint8_t s[2];
        size_t n = gsm::septets_for(c, s);
        if (n == 0) s[0] = '?', n = 1;
        if (septets.size() + n > 11) break;
        septets.insert(septets.end(), s, s + n);
    }
    std::string out;
    out.push_back(static_cast<char>((septets.size() * 7 + 3) / 4));
    out.push_back(static_cast<char>(kTypeAlphanumeric));
    return out + gsm::pack_septets(septets);
}

std::optional<Address> decode_address(std::string_view in, size_t* used) {
    Reader r{in};
    size_t len = r.byte();
    uint8_t type = r.byte();
    std::string_view value = r.take((len + 1) / 2);
    if (!r.ok || len > kMaxDigits) return std::nullopt;
    *used = r.pos;
    Address a;
    a.type = type;
    if ((type & 0x70) == 0x50) {
        a.text = gsm::to_utf8(gsm::from_septets(gsm::unpack_septets(value, len * 4 / 7)));
        return a;
    }
    static constexpr char kDigits[] = "0123456789*#abc";
    if ((type & 0x70) == 0x10) a.text = "+";
    for (size_t i = 0; i < len; ++i) {
        auto octet = static_cast<uint8_t>(value[i / 2]);
        unsigned nibble = i % 2 == 0 ? octet & 0x0Fu : octet >> 4u;
        if (nibble == 0xF) break;
        a.text.push_back(kDigits[nibble]);
    }
    return a;
}

std::string encode_timestamp(const Timestamp& t) {
    std::string out;
    for (int v : {t.year, t.month, t.day, t.hour, t.minute, t.second})
        out.push_back(static_cast<char>(swapped_bcd(v)));
    int q = std::abs(t.zone_quarters);
    out.push_back(static_cast<char>(swapped_bcd(q) | (t.zone_quarters < 0 ? 0x08 : 0)));
    return out;
}

std::optional<Timestamp> decode_timestamp(std::string_view seven) {
    if (seven.size() < 7) return std::nullopt;
    int v[7];
    for (size_t i = 0; i < 7; ++i) {
        auto o = static_cast<uint8_t>(seven[i]);
        int tens = i == 6 ? (o & 0x07) : (o & 0x0F);
        int units = o >> 4;
        if (tens > 9 || units > 9) return std::nullopt;
        v[i] = tens * 10 + units;
    }
    Timestamp t{v[0], v[1], v[2], v[3], v[4], v[5], v[6]};
    if (static_cast<uint8_t>(seven[6]) & 0x08) t.zone_quarters = -t.zone_quarters;
    return t;
}

std::string date_stamp(const Timestamp& t) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "%02d/%02d/%02d", t.year % 100, t.month % 100, t.day % 100);
    return buf;
}

std::string time_stamp(const Timestamp& t) {
    char buf[24];
    std::snprintf(buf, sizeof buf, "%02d:%02d:%02d%c%02d", t.hour % 100, t.minute % 100,
                  t.second % 100, t.zone_quarters < 0 ? '-' : '+', std::abs(t.zone_quarters) % 100);
    return buf;
}

SplitText split_text(std::u32string_view text) {
    SplitText out;
    std::vector<uint8_t> septets;
    const bool gsm7 = gsm::to_septets(text, septets);
    out.coding = gsm7 ? Coding::gsm7 : Coding::ucs2;
    auto cost = [gsm7](char32_t c) {
        uint8_t s[2];
        return gsm7 ? gsm::septets_for(c, s) : gsm::ucs2_units(c);
    };
    size_t total = 0;
    for (char32_t c : text) total += cost(c);
    if (total <= (gsm7 ? kMaxSeptets : kMaxUnits)) {
        out.parts.emplace_back(text);
        return out;
    }
    const size_t room = gsm7 ? kPartSeptets : kPartUnits;
    std::u32string part;
    size_t used = 0;
    for (char32_t c : text) {
        size_t n = cost(c);
        if (used + n > room) {
            out.parts.push_back(std::move(part));
            if (out.parts.size() == kMaxParts) return out;
            part.clear();
            used = 0;
        }
        part.push_back(c);
        used += n;
    }
    if (!part.empty()) out.parts.push_back(std::move(part));
    return out;
}

std::vector<std::string> encode_submit(std::string_view number, std::string_view text_utf8,
                                       uint8_t ref, bool status_report) {
    SplitText split = split_text(gsm::decode_utf8(text_utf8));
    const size_t n = split.parts.size();
    std::vector<std::string> out;
    for (size_t i = 0; i < n; ++i) {
        std::optional<Concat> concat;
        if (n > 1) concat = Concat{ref, static_cast<uint8_t>(n), static_cast<uint8_t>(i + 1)};
        std::string tpdu;
        tpdu.push_back(static_cast<char>(kMtiSubmit | kVpfRelative | (n > 1 ? kUdhi : 0) |
                                         (status_report ? kSrr : 0)));
        tpdu.push_back('\0');  // message reference: the modem assigns it
        tpdu += encode_number(number);
        tpdu.push_back('\0');  // protocol identifier
        tpdu.push_back(static_cast<char>(split.coding == Coding::gsm7 ? kDcsGsm7 : kDcsUcs2));
        tpdu.push_back(static_cast<char>(kValidity));
        tpdu += user_data(split.coding, split.parts[i], udh_of(concat));
        out.push_back(std::move(tpdu));
    }
    return out;
}

std::optional<Submit> decode_submit(std::string_view tpdu) {
    Reader r{tpdu};
    Submit s;
    uint8_t first = r.byte();
    if (!r.ok || (first & kMtiMask) != kMtiSubmit) return std::nullopt;
    s.status_report = (first & kSrr) != 0;
    s.mr = r.byte();
    size_t used = 0;
    auto to = decode_address(r.rest(), &used);
    if (!r.ok || !to) return std::nullopt;
    s.to = *to;
    r.take(used);
    r.byte();  // protocol identifier
    s.dcs = r.byte();
    static constexpr size_t kValiditySize[4] = {0, 7, 1, 7};
    r.take(kValiditySize[(first >> 3) & 0x03]);
    if (!r.ok || !parse_user_data(r, first & kUdhi, s.dcs, s.concat, s.text)) return std::nullopt;
    return s;
}

std::optional<Deliver> decode_deliver(std::string_view pdu) {
    Reader r{pdu};
    r.take(r.byte());  // service-centre address
    uint8_t first = r.byte();
    if (!r.ok || (first & kMtiMask) != kMtiDeliver) return std::nullopt;
    Deliver d;
    size_t used = 0;
    auto from = decode_address(r.rest(), &used);
    if (!from) return std::nullopt;
    d.from = *from;
    r.take(used);
    d.pid = r.byte();
    d.dcs = r.byte();
    auto scts = decode_timestamp(r.take(7));
    if (!r.ok || !scts) return std::nullopt;
    d.scts = *scts;
    if (!parse_user_data(r, first & kUdhi, d.dcs, d.concat, d.text)) return std::nullopt;
    return d;
}

std::string encode_deliver(const Deliver& d) {
    std::string pdu(1, '\0');  // service-centre address: none
    pdu.push_back(static_cast<char>(kMtiDeliver | (d.concat ? kUdhi : 0)));
    bool alphanumeric = d.from.type == kTypeAlphanumeric || !number_problem(d.from.text).empty();
    pdu += alphanumeric ? encode_alphanumeric(d.from.text) : encode_number(d.from.text);
    pdu.push_back(static_cast<char>(d.pid));
    pdu.push_back(static_cast<char>(d.dcs));
    pdu += encode_timestamp(d.scts);
    pdu += user_data(coding_of(d.dcs), gsm::decode_utf8(d.text), udh_of(d.concat));
    return pdu;
}

}  // namespace smsgw::pdu
