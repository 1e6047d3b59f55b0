#include "formats/job_file.h"

#include "formats/bytes.h"

namespace smsgw {

std::string JobFile::text() const {
    return text_field.substr(0, text_field.find('\0'));
}

void put_recipient_record(char* record, std::string_view number) {
    copy_field(record, JobFile::kRecordSize, number);
}

void append_recipient_record(std::string& out, std::string_view number) {
    char record[JobFile::kRecordSize];
    put_recipient_record(record, number);
    out.append(record, sizeof record);
}

std::string encode_job_file(std::string_view text_field, const std::vector<std::string>& numbers) {
    std::string out(text_field.substr(0, JobFile::kTextSize));
    out.resize(JobFile::kTextSize, '\0');
    for (const std::string& number : numbers) append_recipient_record(out, number);
    return out;
}

std::optional<JobFile> decode_job_file(std::string_view bytes) {
    if (bytes.size() < JobFile::kTextSize) return std::nullopt;
    JobFile job;
    job.text_field = std::string(bytes.substr(0, JobFile::kTextSize));
    for (size_t at = JobFile::kTextSize; bytes.size() - at >= JobFile::kRecordSize;
         at += JobFile::kRecordSize)
        job.numbers.push_back(field_text(bytes.data() + at, JobFile::kRecordSize));
    return job;
}

}  // namespace smsgw
