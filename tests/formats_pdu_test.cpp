// PDU codec against published vectors and the part boundaries.
#include <gtest/gtest.h>

#include <string>

#include "formats/gsm_alphabet.h"
#include "formats/signal_quality.h"
#include "formats/sms_pdu.h"

namespace smsgw::pdu {
namespace {

std::string bytes(std::string_view h) {
    auto b = from_hex(h);
    EXPECT_TRUE(b) << h;
    return b.value_or("");
}
std::string repeat(std::string_view s, size_t n) {
    std::string out;
    while (n--) out += s;
    return out;
}

TEST(PduSubmit, PublishedVectors) {
    struct Case {
        const char* number;
        const char* text;
        const char* tpdu;
    } cases[] = {
        {"+46708251358", "hellohello", "11000B916407281553F80000AA0AE8329BFD4697D9EC37"},
        // Odd digit count: F-padded; no '+': type 0x81.
        {"12345", "\xE2\x82\xAC", "110005812143F50000AA029B32"},   // euro: escape pair
        {"+1", "\xF0\x9F\x98\x80", "11000191F10008AA04D83DDE00"},  // U+1F600 surrogate pair
        {"0", "", "11000181F00000AA00"},
    };
    for (const auto& c : cases) {
        auto parts = encode_submit(c.number, c.text, 0);
        ASSERT_EQ(parts.size(), 1u) << c.text;
        EXPECT_EQ(to_hex(parts[0]), c.tpdu) << c.text;
        auto back = decode_submit(parts[0]).value();
        EXPECT_EQ(back.to.text, c.number);
        EXPECT_EQ(back.text, c.text);
        EXPECT_FALSE(back.concat);
    }
}

TEST(PduSubmit, PartBoundaries) {
    const std::string a152 = repeat("a", 152), a153 = a152 + "a", z67 = repeat("\xD0\xB6", 67);
    const std::string euro = "\xE2\x82\xAC";       // two septets
    const std::string smile = "\xF0\x9F\x98\x80";  // UCS-2, two units
    // The parts' texts: 160 septets or 70 units fit one part, 153 or 67 a
    // part of several; an escape pair or a surrogate pair moves whole.
    const std::vector<std::vector<std::string>> cases = {
        {repeat("a", 160)},
        {a153, repeat("a", 8)},
        {a153, repeat("a", 6) + euro},
        {repeat("a", 158) + euro},
        {a152, euro + repeat("b", 7)},
        {repeat("\xD0\xB6", 70)},
        {z67, repeat("\xD0\xB6", 4)},
        {repeat("\xD0\xB6", 66), smile + repeat("\xD0\xB6", 3)},
    };
    for (const auto& texts : cases) {
        std::string text;
        for (const auto& t : texts) text += t;
        auto parts = encode_submit("+4912", text, 0x42);
        ASSERT_EQ(parts.size(), texts.size()) << text.size();
        for (size_t i = 0; i < parts.size(); ++i) {
            auto s = decode_submit(parts[i]).value();
            EXPECT_EQ(s.text, texts[i]) << i;
            EXPECT_EQ(s.concat.has_value(), texts.size() > 1);
            if (!s.concat) continue;
            EXPECT_EQ(s.concat->ref, 0x42);
            EXPECT_EQ(s.concat->total, parts.size());
            EXPECT_EQ(s.concat->seq, i + 1);
        }
    }
    // The first part of a long 7-bit text: UDHI, UDL 160 = 7 header septets
    // + 153, the header, one fill bit, then the text.
    auto parts = encode_submit("+123", repeat("a", 161), 0xCC);
    EXPECT_EQ(to_hex(parts[0].substr(0, 18)), "5100039121F30000AAA0050003CC0201C2E1");
}

TEST(PduDeliver, PublishedAndBuiltVectors) {
    auto d = decode_deliver(
        bytes("07917283010010F5040BC87238880900F10000993092516195800AE8329BFD4697D9EC37"));
    ASSERT_TRUE(d);
    EXPECT_EQ(d->from.text, "27838890001");
    EXPECT_EQ(d->text, "hellohello");
    EXPECT_EQ(date_stamp(d->scts), "99/03/29");
    EXPECT_EQ(time_stamp(d->scts), "15:16:59+08");

    struct Case {
        Deliver in;
        const char* pdu;
    } cases[] = {
        // clang-format off
        // Negative zone (-4 h = -16 quarters: sign bit 0x08), 7-bit text.
        {{{"+4915", kTypeInternational}, {24, 3, 1, 12, 5, 9, -16}, 0, kDcsGsm7, {}, "Hi"},
         "00000491945100004230102150906902C834"},
        // Alphanumeric originator, 16-bit reference, UCS-2.
        {{{"Bank", kTypeAlphanumeric}, {26, 12, 31, 23, 59, 58, 4}, 0, kDcsUcs2, Concat{0x1234, 2, 1, true}, "\xC3\xA9"},
         "004007D0C2B07B0D000862211332958540090608041234020100E9"},
        // 8-bit data reads as Latin-1.
        {{{"1", kTypeUnknown}, {}, 0, kDcsData8, {}, "\xC3\xBF"}, "00000181F100040010100000000001FF"},
        // clang-format on
    };
    for (const auto& c : cases) {
        std::string pdu = encode_deliver(c.in);
        EXPECT_EQ(to_hex(pdu), c.pdu);
        auto back = decode_deliver(pdu).value();
        EXPECT_EQ(back.from.text, c.in.from.text);
        EXPECT_EQ(back.text, c.in.text);
        EXPECT_EQ(time_stamp(back.scts), time_stamp(c.in.scts));
        EXPECT_EQ(back.concat.has_value(), c.in.concat.has_value());
        EXPECT_EQ(back.concat.value_or(Concat{}).ref, c.in.concat.value_or(Concat{}).ref);
    }
}

TEST(PduDeliver, DamagedInputIsRefusedOrVoidsOnlyTheElement) {
    // 07.. "hellohello" with a header; each case damages one length.
    // What each decodes to: n nothing, y a message, c one with its part header.
    struct Case {
        const char* pdu;
        char outcome;
    } cases[] = {
        {"0004038121F300009930925161958005C8329BFD0E", 'y'},
        {"0004038121F300009930925161958006C8329BFD0E", 'n'},  // UDL beyond data
        {"0004038121F30000993092516195", 'n'},                // cut in the stamp
        {"0004158121F300009930925161958000", 'n'},            // address too long
        {"0044038121F30008993092516195800605000301020100", 'c'},
        {"0044038121F300089930925161958006050003010200", 'y'},    // part 0
        {"0044038121F300089930925161958006050003010203", 'y'},    // beyond the total
        {"0044038121F30008993092516195800609000301020100", 'n'},  // UDHL beyond data
        {"0044038121F30008993092516195800605000401020100", 'n'},  // element beyond UDH
        {"0044038121F30000993092516195800000", 'n'},              // UDHI, no data
        {"0001038121F300009930925161958000", 'n'},                // a SUBMIT
        {"00040381FFFF0000993092516195800000", 'y'},              // F digits stop
        {"0004038121F300F0993092516195800001", 'y'},              // class 0 7-bit
        {"0004038121F300009A30925161958000", 'n'},                // BCD A
    };
    for (const auto& c : cases) {
        auto d = decode_deliver(bytes(c.pdu));
        EXPECT_EQ(!d ? 'n' : d->concat ? 'c' : 'y', c.outcome) << c.pdu;
    }
    for (const char* h : {"0", "0G", "zz", "123"}) EXPECT_FALSE(from_hex(h)) << h;
    EXPECT_EQ(from_hex("aBcD"), std::string("\xAB\xCD"));
}

TEST(PduNumbers, AcceptedAndRefused) {
    for (const char* n : {"+12345678901234567890", "0", "+1", "00491234"})
        EXPECT_EQ(number_problem(n), "") << n;
    for (const char* n : {"", "+", "+123456789012345678901", "12a4", "+49 123", "++1", "1+2"})
        EXPECT_NE(number_problem(n), "") << n;
}

TEST(GsmAlphabet, Conversions) {
    // Every default character and every extension character round-trips.
    std::u32string all;
    for (uint8_t s = 0; s < 128; ++s)
        if (s != gsm::kEscape) all += gsm::from_septets({s});
    all += U"\f^{}\\[~]|\u20AC";
    std::vector<uint8_t> septets;
    ASSERT_TRUE(gsm::to_septets(all, septets));
    EXPECT_EQ(gsm::from_septets(septets), all);
    EXPECT_FALSE(gsm::to_septets(U"a\u00E7", septets));  // c-cedilla has no septet
    EXPECT_EQ(gsm::from_septets({0x1B, 0x41}), U"A");    // unknown extension
    EXPECT_EQ(gsm::from_septets({0x41, 0x1B}), U"A ");   // lone final escape

    // UTF-8 where valid, Latin-1 byte by byte elsewhere.
    struct Case {
        std::string in;
        std::u32string out;
    } cases[] = {
        {"a\xC3\xA9", U"a\u00E9"},
        {"\xE9t\xE9", U"\u00E9t\u00E9"},
        {"\xC0\x80", U"\u00C0\u0080"},            // overlong
        {"\xED\xA0\x80", U"\u00ED\u00A0\u0080"},  // surrogate
        {"\xF4\x90\x80\x80", U"\u00F4\u0090\u0080\u0080"},
        {"\xF0\x9F\x98\x80", U"\U0001F600"},
        {"\xE2\x82", U"\u00E2\u0082"},  // cut short
    };
    for (const auto& c : cases) {
        EXPECT_EQ(gsm::decode_utf8(c.in), c.out) << c.in;
        EXPECT_EQ(gsm::decode_utf8(gsm::to_utf8(c.out)), c.out);
    }
    // Each sequence length from its first code point (a Latin-1 reading
    // would round-trip the wrong bytes unnoticed).
    EXPECT_EQ(gsm::to_utf8(U"\u007F\u0080\u0800\U00010000"),
              "\x7F\xC2\x80\xE0\xA0\x80\xF0\x90\x80\x80");
    EXPECT_EQ(gsm::from_ucs2(std::string("\xD8\x3D\x00\x41", 4)), U"\uFFFDA");
    EXPECT_EQ(gsm::from_ucs2(std::string("\x00\x41\x00", 3)), U"A");
    EXPECT_EQ(to_hex(gsm::pack_septets({0x41}, 7)), "00000000000082");
}

TEST(SignalQualityFile, OneLineBothWays) {
    EXPECT_EQ(signal_quality_file("/dev/ttyS1"), "/var/run/txrx_signal.ttyS1");
    SignalQuality q{"/dev/ttyS1", 23, 99, 1700000000};
    EXPECT_EQ(encode_signal_quality(q), "/dev/ttyS1 23 99 1700000000\n");
    EXPECT_EQ(encode_signal_quality(decode_signal_quality("/dev/ttyS1 0 7 5\n").value()),
              "/dev/ttyS1 0 7 5\n");
    for (const char* bad : {"/dev/ttyS1 23 99 1\n\n", "/dev/ttyS1 23 99 1", "ttyS1 23 99 1\n",
                            "/dev/ttyS1 100 99 1\n", "/dev/ttyS1 23 99\n", "/d 1 2 3 4\n", "\n"})
        EXPECT_FALSE(decode_signal_quality(bad)) << bad;
    EXPECT_EQ(signal_dbm(0), -113);
    EXPECT_EQ(signal_dbm(31), -51);
    for (int bad : {32, -1, 99}) EXPECT_FALSE(signal_dbm(bad)) << bad;
}

}  // namespace
}  // namespace smsgw::pdu
