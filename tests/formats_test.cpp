// Golden bytes of every record that crosses a file or socket boundary, both
// ways, and the damaged shapes each decoder must survive. Expected images
// are built in host byte order, so the tables hold on either endianness.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "formats/api_status.h"
#include "formats/broadcast_record.h"
#include "formats/inbox_record.h"
#include "formats/job_file.h"
#include "formats/job_header.h"
#include "formats/job_stats.h"
#include "formats/outbox_record.h"
#include "formats/position_table.h"
#include "formats/request_file.h"
#include "formats/rule_list_record.h"
#include "formats/sms_stats.h"
#include "formats/txrx_datagram.h"
#include "formats/txrx_report.h"
#include "support/test_support.h"

namespace smsgw {
namespace {

using test::i32_bytes;

std::string pad(const std::string& text, size_t size) {
    std::string out = text.substr(0, size);
    out.resize(size, '\0');
    return out;
}
std::string i16_bytes(int16_t v) {
    return std::string(reinterpret_cast<const char*>(&v), 2);
}
const std::string kLong(10000, 'x');

TEST(JobHeaderFormat, GoldenBytesBothWays) {
    struct Case {
        int32_t job_ln, p_job_ln;
        std::string from, stored;
    } cases[] = {
        {5, 113, "send-sms /tmp/a", "send-sms /tmp/a"},
        {0, 0, "", ""},
        {-1, -7, "ISBRDTRIGapi7-admin", "ISBRDTRIGapi7-admin"},
        {9, 0, std::string(100, 'L'), std::string(87, 'L')},  // keeps its NUL
    };
    for (const auto& c : cases) {
        const std::string image = std::string("<JB/SRT>\0\0\0\0", 12) + i32_bytes(c.job_ln) +
                                  i32_bytes(c.p_job_ln) + pad(c.stored, 88);
        EXPECT_EQ(encode_job_header(c.job_ln, c.p_job_ln, c.from), image) << c.from;
        auto h = decode_job_header(image + "body");
        ASSERT_TRUE(h && h->marker_ok);
        EXPECT_EQ(encode_job_header(h->job_ln, h->p_job_ln, h->jobfromrom), image);
        EXPECT_EQ(h->jobfromrom, c.stored);
    }
    const std::string good = encode_job_header(3, 0, "send-sms /tmp/a");
    EXPECT_FALSE(decode_job_header(good.substr(0, 107)));
    // A damaged marker byte (but not one of the four NULs) is reported.
    const std::tuple<size_t, char, bool> damaged[] = {
        {9, 'x', true}, {11, 'x', true}, {8, 'x', false}, {0, '>', false}, {6, 'X', false}};
    for (const auto& [at, byte, marker_ok] : damaged) {
        std::string bad = good;
        bad[at] = byte;
        EXPECT_EQ(decode_job_header(bad)->marker_ok, marker_ok) << at;
    }
    std::string no_nul = good;  // a line filling all 88 bytes
    no_nul.replace(20, 88, std::string(88, 'z'));
    EXPECT_EQ(decode_job_header(no_nul)->jobfromrom, std::string(88, 'z'));
}

TEST(PositionTableFormat, GoldenBytesBothWays) {
    PositionTable t{2, 5, 300, {0, 0, 0, 0, 0, 216, 0, 0, -1}};
    std::string image = i32_bytes(0x00020005) + i32_bytes(300);
    for (int i = 0; i < 9; ++i) image += i32_bytes(i == 5 ? 216 : i == 8 ? -1 : 0);
    EXPECT_EQ(encode_position_table(t), image);
    EXPECT_EQ(encode_position_table(decode_position_table(image).value()), image);

    // Each half is signed; the halves never bleed into each other.
    auto halves = decode_position_table(i32_bytes(static_cast<int32_t>(0xffff8003u)) + pad("", 40));
    EXPECT_EQ(halves->P_POS, -1);
    EXPECT_EQ(halves->L_POS, -32765);
    t.P_POS = -1;
    t.L_POS = 0;
    EXPECT_EQ(encode_position_table(t).substr(0, 4), i32_bytes(static_cast<int32_t>(0xffff0000u)));
    EXPECT_FALSE(decode_position_table(image.substr(0, 43)));
}

std::string section(const std::string& tag, int32_t len, const std::string& bytes) {
    return tag + i32_bytes(len) + bytes;
}

TEST(RequestFileFormat, GoldenEncoding) {
    const std::string image = pad("admin", 50) + pad("Hi", 160) + section("NUMBER:", 0, "") +
                              section("NAME:", 11, std::string("0^|^Ann^|^\0", 11)) +
                              section("GROUP:", 11, std::string("Friends^|^\0", 11));
    EXPECT_EQ(encode_request_file("admin", "Hi", "", "0^|^Ann^|^", "Friends^|^"), image);
    EXPECT_EQ(encode_request_file(std::string(60, 's'), kLong, "", "", "").substr(0, 210),
              std::string(49, 's') + '\0' + std::string(159, 'x') + '\0');
}

TEST(RequestFileFormat, DecodesEveryShapeAsFarAsItGoes) {
    const std::string head = pad("admin", 50) + pad("Hi", 160);
    const std::string nums = section("NUMBER:", 6, std::string("+49^|^", 6));
    // The three sections as "NUMBER|NAME|GROUP", "-" for an absent one.
    const std::pair<std::string, std::string> cases[] = {
        {head + nums + section("NAME:", 0, "") + section("GROUP:", 4, "G^|^"), "+49^|^|-|G^|^"},
        {head.substr(0, 100), "-|-|-"},
        {head + "NUMB", "-|-|-"},
        {head + "NUMBER:" + i32_bytes(6).substr(0, 2), "-|-|-"},
        {head + section("NUMBER:", 500, "+49^|^+50^|^") + "NAME:", "+49^|^+50^|^NAME:|-|-"},
        {head + section("NUMBER:", -4, "") + section("NAME:", 4, "A^|^"), "-|A^|^|-"},
        {head + section("NUMBER:", 9, std::string("1^|^\0junk", 9)), "1^|^|-|-"},
        {head + section("NAME:", 4, "A^|^") + nums, "-|-|-"},  // out of order
        {head + nums + section("GROUP:", 4, "G^|^"), "+49^|^|-|-"},
        {head + section("NUMBER:", 10001, kLong + '\0'), kLong + "|-|-"},
    };
    for (const auto& [bytes, want] : cases) {
        RequestFile f = decode_request_file(bytes);
        EXPECT_EQ(f.sections[0].value_or("-") + "|" + f.sections[1].value_or("-") + "|" +
                      f.sections[2].value_or("-"),
                  want)
            << bytes.size();
    }
    RequestFile f = decode_request_file(head.substr(0, 60) + std::string("\0x", 2));
    EXPECT_EQ(f.sender(), "admin");
    EXPECT_EQ(f.text_field, pad(std::string("Hi") + std::string(9, '\0') + "x", 160));
    EXPECT_EQ(f.text(), "Hi");
}

TEST(JobFileFormat, GoldenBytesBothWays) {
    const std::string text = pad("Hi", 160);
    const std::string image = text + pad("+4911", 50) + pad(std::string(49, '9'), 50);
    EXPECT_EQ(encode_job_file("Hi", {"+4911", std::string(49, '9')}), image);
    EXPECT_EQ(encode_job_file(kLong, {std::string(60, '1')}),
              std::string(160, 'x') + std::string(49, '1') + '\0');
    auto job = decode_job_file(image + "+4999");  // a partial record is no recipient
    ASSERT_TRUE(job);
    EXPECT_EQ(job->text(), "Hi");
    EXPECT_EQ(job->numbers, (std::vector<std::string>{"+4911", std::string(49, '9')}));
    EXPECT_EQ(decode_job_file(std::string(160, 'x'))->numbers.size(), 0u);
    EXPECT_FALSE(decode_job_file(image.substr(0, 159)));
}

TEST(BroadcastRecordFormat, GoldenBytesBothWays) {
    const BroadcastRecord r{"+4911", "Staff]|[Crew]|[", "Open the door"};
    const std::string image = pad("+4911", 50) + pad("Open the door", 160) + "Staff]|[Crew]|[";
    EXPECT_EQ(encode_broadcast_body(r), image);
    EXPECT_EQ(encode_broadcast_body(decode_broadcast_body(image).value()), image);

    const std::string full = std::string(50, '5') + std::string(160, 't') + std::string("G\0x", 3);
    EXPECT_EQ(encode_broadcast_body(*decode_broadcast_body(full)),
              std::string(49, '5') + '\0' + std::string(160, 't') + "G");
    EXPECT_EQ(decode_broadcast_body(image.substr(0, 210))->group, "");
    EXPECT_FALSE(decode_broadcast_body(image.substr(0, 209)));
}

TEST(TxrxDatagramFormat, GoldenBytes) {
    const std::string path = "/tmp/fileAbC123-7";
    const std::string long_path = "/" + std::string(120, 'p');
    const std::pair<std::string, std::string> cases[] = {
        {encode_job_handoff(path, false), pad(path, 100)},
        {encode_job_handoff(path, true), "api " + path + '\0'},
        {encode_job_handoff(long_path, false), long_path.substr(0, 99) + '\0'},
        {encode_job_handoff(long_path, true), "api " + long_path.substr(0, 99) + '\0'},
        {encode_peer_job_reply(path, false), pad(path, 100)},
        {encode_peer_job_reply(path, true), path + "api" + '\0'},
        {encode_control_text("cmd reset_modem"), pad("cmd reset_modem", 100)},
        {encode_control_text(kLong), std::string(99, 'x') + '\0'},
        {encode_broadcast_handoff(path, false), pad(path, 100)},
        {encode_broadcast_handoff(path, true), pad("api " + path, 100)},
        {encode_broadcast_handoff(long_path, true), "api " + long_path.substr(0, 95) + '\0'},
    };
    for (const auto& [got, want] : cases) EXPECT_EQ(got, want);
}

TEST(TxrxDatagramFormat, DecodesWhatATransceiverIsSent) {
    using K = TxrxDatagram::Kind;
    const std::tuple<std::string, K, std::string> cases[] = {
        {pad("/tmp/j", 100), K::Job, "/tmp/j"},
        {"api /tmp/j-3" + std::string(1, '\0'), K::ApiJob, "/tmp/j-3"},
        {pad("cmd set-sms-timer 5 ", 100), K::Control, "cmd set-sms-timer 5 "},
        {"api cmd", K::Control, "api cmd"},
        {std::string(100, '\0'), K::Control, ""},
        {std::string("/a\0/b", 5), K::Job, "/a"},
        {"/" + kLong, K::Job, "/" + kLong},
    };
    for (const auto& [bytes, kind, text] : cases) {
        TxrxDatagram d = decode_txrx_datagram(bytes);
        EXPECT_EQ(d.kind, kind) << bytes.substr(0, 20);
        EXPECT_EQ(d.text, text);
    }
}

TEST(TxrxReportFormat, GoldenBytesAndDecoding) {
    EXPECT_EQ(encode_job_done_report(), "P_JB");
    EXPECT_EQ(encode_incoming_report("+4911", "ADD:Ann;+4912"),
              "SMS:" + pad("+4911", 50) + "ADD:Ann;+4912");
    EXPECT_EQ(encode_incoming_report(std::string(60, '1'), "x").substr(4, 50),
              std::string(49, '1') + '\0');
    EXPECT_EQ(encode_api_status_report("/tmp/req-4", 0), "SMS:api /tmp/req-4 0");

    const std::tuple<std::string, bool, std::string> cases[] = {
        {"P_JB", true, ""},    {"P_JBanything", true, ""},
        {"", true, ""},        {"P_J", false, ""},
        {"SMS:", false, ""},   {"SMS:abc", false, "abc"},
        {"p_jbX", false, "X"}, {std::string("P_\0B", 4), false, ""},
    };
    for (const auto& [datagram, done, message] : cases) {
        TxrxReport r = decode_txrx_report(datagram);
        EXPECT_EQ(r.job_done, done) << datagram;
        EXPECT_EQ(std::string(r.message), message) << datagram;
    }
}

TEST(TxrxReportFormat, IncomingMessages) {
    IncomingSms sms = decode_incoming_sms(pad("+4911", 50) + "Hello" + '\0' + "rest");
    EXPECT_EQ(sms.sender_field, pad("+4911", 50));
    EXPECT_EQ(sms.text, "Hello");
    EXPECT_EQ(decode_incoming_sms(std::string(50, '1') + kLong).text, std::string(161, 'x'));

    const std::pair<std::string, const char*> lines[] = {
        {"api /tmp/r-5 0", "/tmp/r-5 0"},
        {"api /tmp/r-5   606 x", "/tmp/r-5 606"},
        {"api /tmp/r-5", "/tmp/r-5 -1"},
        {"api /tmp/r-5 ", "/tmp/r-5 -1"},
        {std::string("api f 7\0 9", 10), "f 7"},
        {"api  12", " 12"},
        {"API f 1", "-"},
        {"ap", "-"},
    };
    for (const auto& [text, want] : lines) {
        auto line = decode_api_status_line(text);
        EXPECT_EQ(line ? line->file + " " + std::to_string(line->status) : "-", want) << text;
    }
}

TEST(OutboxRecordFormat, GoldenBytesBothWays) {
    OutboxRecord r{"", 1, 42, "Hi", "admin"};
    append_outbox_recipient(r.recipients, "Friends");
    const std::string image = i32_bytes(8) + ",Friends" + i32_bytes(1) + i32_bytes(42) +
                              i32_bytes(2) + "Hi" + i32_bytes(5) + "admin";
    EXPECT_EQ(encode_outbox_record(r), image);
    EXPECT_EQ(encode_outbox_record(decode_outbox_record(image).value()), image);

    for (const std::string& bad :
         {image.substr(0, image.size() - 1), image + "x", i32_bytes(-1) + image.substr(4),
          i32_bytes(9000) + image.substr(4), std::string("\0\0", 2)})
        EXPECT_FALSE(decode_outbox_record(bad)) << bad.size();
}

TEST(OutboxRecordFormat, PeerResultOverwritesTheSlaveField) {
    const std::string image = i32_bytes(3) + ",+1" + i32_bytes(1) + pad("", 12);
    // The field lying at the end grows the image; "-": refused, left as it was.
    const std::pair<std::string, std::string> cases[] = {
        {image, i32_bytes(3) + ",+1" + i32_bytes(77) + pad("", 12)},
        {i32_bytes(0), i32_bytes(0) + i32_bytes(77)},
        {i32_bytes(0) + "ab", i32_bytes(0) + i32_bytes(77)},
        {i32_bytes(1), "-"},
        {i32_bytes(-4) + "abcd", "-"},
        {"ab", "-"},
    };
    for (const auto& [before, after] : cases) {
        std::string patched = before;
        EXPECT_EQ(set_outbox_slave_result(patched, 77), after != "-") << before.size();
        EXPECT_EQ(patched, after == "-" ? before : after);
    }
}

TEST(StatisticsFormats, JobAndSmsCounters) {
    EXPECT_EQ(encode_job_stats({-3, 12, 7}), "-3\n12\n7");
    const std::pair<std::string, bool> cases[] = {
        {"0\n0\n1", true},  {"4\n5\n6\n", true}, {"1\n2", false},   {"1\n2\n3\n4", false},
        {"1\nx\n3", false}, {"", false},         {"1\n\n3", false}, {kLong, false}};
    for (const auto& [text, ok] : cases) EXPECT_EQ(decode_job_stats(text).has_value(), ok) << text;
    EXPECT_EQ(encode_job_stats(*decode_job_stats("-3\n12\n7")), "-3\n12\n7");

    SmsStats stats;
    stats.counters[4] = 9;
    stats.counters[5] = -1;
    const std::string image = pad("", 16) + i32_bytes(9) + i32_bytes(-1);
    EXPECT_EQ(encode_sms_stats(stats), image);
    EXPECT_EQ(decode_sms_stats(image)->counters, stats.counters);
    EXPECT_FALSE(decode_sms_stats(image.substr(0, 23)));
    EXPECT_EQ(encode_sms_counter(258), i32_bytes(258));
    EXPECT_EQ(decode_sms_counter(i32_bytes(-2)), -2);
    EXPECT_FALSE(decode_sms_counter("abc"));
}

TEST(StatisticsFormats, ApiStatRecords) {
    const ApiStatRecord r{42, kApiSentByPeer, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}, 0x0500000a, 3};
    std::string image = i32_bytes(42) + i16_bytes(6) + pad("", 2);
    for (int i = 0; i < 11; ++i) image += i32_bytes(i + 1);
    const std::string want = image + i32_bytes(0x0500000a) + i32_bytes(3);
    EXPECT_EQ(encode_api_stat_record(r), want);
    EXPECT_EQ(encode_api_stat_record(decode_api_stat_record(want).value()), want);
    EXPECT_FALSE(decode_api_stat_record(want.substr(0, 59)));

    // Records of ids 10, 11, 12 start at 4, 64 and 124.
    const std::pair<int, long long> cases[] = {{12, 124}, {10, 4},   {11, 64},
                                               {5, 64},   {13, 184}, {INT32_MIN, 64}};
    for (const auto& [id, offset] : cases) EXPECT_EQ(api_stat_record_offset(10, id), offset) << id;
}

TEST(InboxRecordFormat, GoldenBytesAndDamagedFiles) {
    const std::string text = "+4911^|^24/03/01^|^12:05:09+04^|^TIMESETTINGS_LOOP_BACK_MSG";
    const std::string image = i32_bytes(static_cast<int32_t>(text.size())) + text;
    EXPECT_EQ(encode_inbox_record("+4911", "24/03/01", "12:05:09+04", "TIMESETTINGS_LOOP_BACK_MSG"),
              image);
    auto f = split_inbox_record(text);
    ASSERT_TRUE(f);
    EXPECT_EQ(encode_inbox_record(f->sender, f->date, f->time, f->text), image);
    EXPECT_FALSE(split_inbox_record("a^|^b^|^c"));

    // Records up to a zero, negative or too long length, or a cut one.
    const std::pair<std::string, size_t> cases[] = {
        {image + i32_bytes(3) + "abc", 2},
        {image + i32_bytes(0) + image, 1},
        {i32_bytes(-1) + image, 0},
        {image + i32_bytes(4) + "abc", 1},
        {image + i32_bytes(4).substr(0, 3), 1},
        {i32_bytes(10000) + kLong, 1},
    };
    for (const auto& [file, records] : cases) {
        std::string_view rest = file;
        size_t n = 0;
        while (auto record = next_inbox_record(rest)) ++n;
        EXPECT_EQ(n, records) << file.size();
    }
}

std::vector<std::string> texts_of(const RuleFile& f) {
    std::vector<std::string> v;
    for (const RuleRecord& r : f.records) v.emplace_back(r.text);
    return v;
}

TEST(RuleListRecord, BytesBothWays) {
    const std::string long_field(10000, 'a');
    struct Case {
        std::vector<std::string_view> fields;
        std::string text, bytes;
    } cases[] = {
        {{"HELLO", "ab"}, "^|^HELLO^|^ab^|^", "16^|^HELLO^|^ab^|^"},
        {{}, "^|^", "3^|^"},
        {{"G]|[H]|[", "[null]]|["}, "^|^G]|[H]|[^|^[null]]|[^|^", "26^|^G]|[H]|[^|^[null]]|[^|^"},
        {{long_field}, "^|^" + long_field + "^|^", "10006^|^" + long_field + "^|^"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(rule_record_text(c.fields), c.text);
        EXPECT_EQ(encode_rule_record(c.text), c.bytes);
        RuleRecordResult r = decode_rule_record(c.bytes);
        ASSERT_EQ(r.status, RuleRead::kRecord) << c.bytes.substr(0, 20);
        EXPECT_EQ(r.record.text, c.text);
        EXPECT_EQ(r.record.fields, c.fields);
        EXPECT_EQ(r.next, c.bytes.size());
    }
}

TEST(RuleListRecord, FilesReadUpToTheirEndOrTheirFirstDamage) {
    const std::string a = "11^|^a^|^b^|^", b = "8^|^xy^|^";
    const std::vector<std::string> ab = {"^|^a^|^b^|^", "^|^xy^|^"}, only_a = {ab[0]};
    const std::tuple<std::string, std::vector<std::string>, bool> cases[] = {
        {"", {}, false},
        {" \n\t", {}, false},
        {a + b, ab, false},
        {" \n" + a + "\n" + b + "\n", ab, false},  // white space around lengths
        {"+8^|^xy^|^", {ab[1]}, false},
        {std::string("5^|^\0\0", 6), {std::string("^|^\0\0", 5)}, false},
        {"3^|^" + b, {"^|^", ab[1]}, false},
        {a + "8^|^xy^|", only_a, true},  // cut inside the text
        {a + "0^|^xy^|^", only_a, true},
        {"-8^|^xy^|^" + a, {}, true},
        {b + "99999999999999999999^|^x", {ab[1]}, true},
        {"2^|" + a, {}, true},
        {"-^|^" + a, {}, true},
        {std::string(10000, '9'), {}, true},
    };
    for (const auto& [bytes, texts, damaged] : cases) {
        RuleFile f = decode_rule_file(bytes);
        EXPECT_EQ(texts_of(f), texts) << bytes.substr(0, 30);
        EXPECT_EQ(f.damaged, damaged) << bytes.substr(0, 30);
    }
}

TEST(RuleListRecord, FieldsAndLimitsOfTheDataGiven) {
    // The leading three bytes are skipped unseen; a tail no separator
    // closes is no field.
    RuleRecordResult r = decode_rule_record("6abcdef");
    ASSERT_EQ(r.status, RuleRead::kRecord);
    EXPECT_TRUE(r.record.fields.empty());
    EXPECT_EQ(rule_record_fields("^|^a^|^tail"), std::vector<std::string_view>{"a"});
    EXPECT_TRUE(rule_record_fields("^|").empty());
    // A record that continues past the view given is damaged, not read on;
    // an offset at the end is the end.
    const std::string buffer = "11^|^a^|^b^|^";
    EXPECT_EQ(decode_rule_record(std::string_view(buffer).substr(0, 12)).status,
              RuleRead::kDamaged);
    EXPECT_EQ(decode_rule_record(buffer, buffer.size()).status, RuleRead::kEnd);
    EXPECT_EQ(decode_rule_record(buffer + buffer, buffer.size()).next, 2 * buffer.size());
}

}  // namespace
}  // namespace smsgw
