// Every record decoder on the same bytes. A decoder never reads past what it
// is given (the sanitizers watch that), and whatever decodes is encoded back
// into bytes that decode to the same value.
#include <cstdint>
#include <string>
#include <string_view>

#include "formats/api_status.h"
#include "formats/broadcast_record.h"
#include "formats/inbox_record.h"
#include "formats/job_file.h"
#include "formats/job_header.h"
#include "formats/job_stats.h"
#include "formats/outbox_record.h"
#include "formats/position_table.h"
#include "formats/request_file.h"
#include "formats/sms_stats.h"
#include "formats/txrx_datagram.h"
#include "formats/txrx_report.h"

using namespace smsgw;

namespace {

void check(bool ok) {
    if (!ok) __builtin_trap();
}

// Fixed-size records come back byte for byte.
void fixed_records(std::string_view bytes) {
    if (auto t = decode_position_table(bytes))
        check(encode_position_table(*t) == bytes.substr(0, PositionTable::kSize));
    if (auto s = decode_sms_stats(bytes))
        check(encode_sms_stats(*s) == bytes.substr(0, SmsStats::kSize));
    if (auto r = decode_api_stat_record(bytes)) {
        std::string again = encode_api_stat_record(*r);
        // Bytes 6-7 are padding the encoder writes as zero.
        check(again.substr(0, 6) == bytes.substr(0, 6) && again.substr(8) == bytes.substr(8, 52));
    }
    if (auto h = decode_job_header(bytes)) {
        auto again = decode_job_header(encode_job_header(h->job_ln, h->p_job_ln, h->jobfromrom));
        check(again && again->marker_ok && again->job_ln == h->job_ln &&
              again->p_job_ln == h->p_job_ln && again->jobfromrom == h->jobfromrom.substr(0, 87));
    }
}

void variable_records(std::string_view bytes) {
    const RequestFile r = decode_request_file(bytes);
    const RequestFile again = decode_request_file(
        encode_request_file(r.sender(), r.text(), r.sections[0].value_or(""),
                            r.sections[1].value_or(""), r.sections[2].value_or("")));
    for (size_t i = 0; i < RequestFile::kSections; ++i)
        check(again.sections[i].value_or("") == r.sections[i].value_or(""));
    if (auto job = decode_job_file(bytes)) {
        check(job->numbers.size() == (bytes.size() - JobFile::kTextSize) / JobFile::kRecordSize);
        check(decode_job_file(encode_job_file(job->text_field, job->numbers))->text_field ==
              job->text_field);
    }
    if (auto b = decode_broadcast_body(bytes)) {
        auto again_b = decode_broadcast_body(encode_broadcast_body(*b));
        check(again_b && again_b->sender == b->sender && again_b->text == b->text &&
              again_b->group == b->group);
    }
    if (auto o = decode_outbox_record(bytes)) check(encode_outbox_record(*o) == bytes);
    std::string image(bytes);
    if (!set_outbox_slave_result(image, 5)) check(image == bytes);
    if (auto s = decode_job_stats(bytes)) check(decode_job_stats(encode_job_stats(*s)).has_value());
}

void datagrams(std::string_view bytes) {
    const TxrxDatagram d = decode_txrx_datagram(bytes);
    check(d.text.find('\0') == std::string::npos);
    const TxrxReport report = decode_txrx_report(bytes);
    check(report.message.size() <= bytes.size());
    const IncomingSms sms = decode_incoming_sms(report.message);
    check(sms.sender_field.size() == IncomingSms::kSenderSize &&
          sms.text.size() <= IncomingSms::kTextMax);
    if (auto line = decode_api_status_line(report.message))
        check(line->file.size() < report.message.size());
    std::string_view rest = bytes;
    while (auto record = next_inbox_record(rest)) {
        check(!record->empty() && record->data() >= bytes.data() &&
              record->data() + record->size() <= bytes.data() + bytes.size());
        split_inbox_record(*record);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    fixed_records(bytes);
    variable_records(bytes);
    datagrams(bytes);
    return 0;
}
