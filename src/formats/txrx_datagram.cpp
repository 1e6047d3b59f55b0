#include "formats/txrx_datagram.h"

#include "formats/bytes.h"

namespace smsgw {

namespace {

std::string padded(std::string_view text) {
    std::string out(kTxrxDatagramSize, '\0');
    copy_field(out.data(), out.size(), text);
    return out;
}

std::string with_nul(std::string text) {
    text.push_back('\0');
    return text;
}

std::string_view path_field(std::string_view path) {
    return path.substr(0, kTxrxDatagramSize - 1);
}

}  // namespace

std::string encode_job_handoff(std::string_view job_path, bool api) {
    if (!api) return padded(job_path);
    return with_nul("api " + std::string(path_field(job_path)));
}

std::string encode_peer_job_reply(std::string_view job_path, bool api) {
    if (!api) return padded(job_path);
    return with_nul(std::string(path_field(job_path)) + "api");
}

std::string encode_control_text(std::string_view text) {
    return padded(text);
}

std::string encode_broadcast_handoff(std::string_view job_path, bool api) {
    return padded(api ? "api " + std::string(job_path) : std::string(job_path));
}

TxrxDatagram decode_txrx_datagram(std::string_view bytes) {
    std::string_view text = bytes.substr(0, bytes.find('\0'));
    const bool api = text.substr(0, 4) == "api ";
    std::string_view path = api ? text.substr(4) : text;
    TxrxDatagram d;
    if (path.empty() || path[0] != '/') {
        d.text = std::string(text);
        return d;
    }
    d.kind = api ? TxrxDatagram::Kind::ApiJob : TxrxDatagram::Kind::Job;
    d.text = std::string(path);
    return d;
}

}  // namespace smsgw
