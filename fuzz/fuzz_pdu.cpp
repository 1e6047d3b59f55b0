// The PDU codec with whatever a modem might give: the input as hex (as AT+CMGR
// shows a PDU) or as raw bytes is decoded as an SMS-DELIVER and an
// SMS-SUBMIT, and as a text it is encoded into parts that must decode back.
#include <cstdint>
#include <string>

#include "formats/gsm_alphabet.h"
#include "formats/sms_pdu.h"

using namespace smsgw;

namespace {

void check_text(const std::string& text) {
    // Decoded texts are valid UTF-8.
    if (gsm::to_utf8(gsm::decode_utf8(text)) != text) __builtin_trap();
}

void check_concat(const std::optional<pdu::Concat>& c) {
    if (c && (c->seq == 0 || c->seq > c->total)) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string in(reinterpret_cast<const char*>(data), size);
    std::string raw = pdu::from_hex(in).value_or(in);
    if (auto d = pdu::decode_deliver(raw)) {
        check_text(d->text);
        check_text(d->from.text);
        check_concat(d->concat);
        if (pdu::date_stamp(d->scts).size() != 8 || pdu::time_stamp(d->scts).size() != 11)
            __builtin_trap();
    }
    if (auto s = pdu::decode_submit(raw)) {
        check_text(s->text);
        check_concat(s->concat);
    }
    std::string text = in.substr(0, 480);
    std::string joined;
    for (const std::string& tpdu : pdu::encode_submit("+4912345", text, 7)) {
        auto s = pdu::decode_submit(tpdu);
        if (!s || tpdu.size() > 160) __builtin_trap();
        joined += s->text;
    }
    if (joined != gsm::to_utf8(gsm::decode_utf8(text))) __builtin_trap();
    return 0;
}
