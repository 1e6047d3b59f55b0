#include "formats/txrx_report.h"

#include <algorithm>

#include "common/text.h"
#include "formats/bytes.h"

namespace smsgw {

namespace {
constexpr std::string_view kJobDone = "P_JB";
constexpr std::string_view kSmsTag = "SMS:";
constexpr std::string_view kApiPrefix = "api ";
}  // namespace

std::string encode_job_done_report() {
    return std::string(kJobDone);
}

std::string encode_incoming_sms(std::string_view sender, std::string_view text) {
    std::string sms(IncomingSms::kSenderSize, '\0');
    copy_field(sms.data(), sms.size(), sender);
    return sms.append(text);
}

std::string encode_incoming_report(std::string_view sender, std::string_view text) {
    return std::string(kSmsTag) + encode_incoming_sms(sender, text);
}

std::string encode_api_status_report(std::string_view file, int status) {
    return std::string(kSmsTag) + std::string(kApiPrefix) + std::string(file) + " " +
           std::to_string(status);
}

TxrxReport decode_txrx_report(std::string_view datagram) {
    TxrxReport report;
    if (datagram.empty() || starts_with(datagram, kJobDone)) {
        report.job_done = true;
        return report;
    }
    report.message = datagram.substr(std::min(kReportTagSize, datagram.size()));
    return report;
}

IncomingSms decode_incoming_sms(std::string_view message) {
    IncomingSms sms;
    std::string_view sender = message.substr(0, IncomingSms::kSenderSize);
    sms.sender_field.replace(0, sender.size(), sender);
    if (message.size() > IncomingSms::kTextAt) {
        std::string_view text = message.substr(IncomingSms::kTextAt, IncomingSms::kTextMax);
        sms.text = std::string(text.substr(0, text.find('\0')));
    }
    return sms;
}

std::optional<ApiStatusLine> decode_api_status_line(std::string_view message) {
    if (!starts_with(message, kApiPrefix)) return std::nullopt;
    std::string_view line = message.substr(0, message.find('\0'));
    line.remove_prefix(kApiPrefix.size());
    const size_t blank = line.find(' ');
    ApiStatusLine out;
    out.file = std::string(line.substr(0, blank));
    if (blank != std::string_view::npos) {
        std::string_view rest = line.substr(blank);
        rest.remove_prefix(std::min(rest.find_first_not_of(' '), rest.size()));
        if (!rest.empty()) out.status = c_atoi(rest.substr(0, rest.find(' ')));
    }
    return out;
}

}  // namespace smsgw
