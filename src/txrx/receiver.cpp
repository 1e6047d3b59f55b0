#include "txrx/receiver.h"

#include <dirent.h>
#include <sys/stat.h>

#include <ctime>
#include <map>

#include "common/fileops.h"
#include "common/paths.h"
#include "common/text.h"
#include "formats/inbox_record.h"
#include "txrx/log.h"

namespace smsgw::txrx {

namespace {

std::string part_file(const std::string& dir, const std::string& key, int seq) {
    return dir + "/" + key + "." + std::to_string(seq);
}

// The total in a key "HEXSENDER_REF_TOTAL"; 0 when the name is not one.
int total_of(const std::string& key) {
    size_t us = key.rfind('_');
    if (us == std::string::npos) return 0;
    auto total = parse_number(std::string_view(key).substr(us + 1), 1, 255);
    return total ? static_cast<int>(*total) : 0;
}

}  // namespace

Receiver::Receiver(const std::string& root, const Options& options, const Reporter& reporter)
    : opt_(options), reporter_(reporter) {
    Paths paths(root);
    inbox_ = paths.map("/var/Inbox/smsinbox.dat");
    parts_dir_ = paths.map("/var/Inbox/parts");
    undecodable_ = paths.map("/var/Inbox/undecodable");
    make_dirs(parts_dir_);
}

bool Receiver::take(const std::string& pdu_hex) {
    auto bytes = pdu::from_hex(pdu_hex);
    auto d = bytes ? pdu::decode_deliver(*bytes) : std::nullopt;
    if (!d) {
        log("undecodable message kept in %s: %.80s", undecodable_.c_str(), pdu_hex.c_str());
        return append_file(undecodable_, pdu_hex + "\n");
    }
    if (!d->concat || d->concat->total == 1) return deliver(*d, d->text);
    std::string key;
    if (!store_part(*d, pdu_hex, &key)) return false;
    assemble(key, d->concat->total, false);
    return true;
}

bool Receiver::store_part(const pdu::Deliver& d, const std::string& pdu_hex, std::string* key) {
    char ref[8];
    std::snprintf(ref, sizeof ref, "%04X%s", d.concat->ref, d.concat->ref16 ? "w" : "");
    *key = pdu::to_hex(d.from.text) + "_" + ref + "_" + std::to_string(d.concat->total);
    std::string file = part_file(parts_dir_, *key, d.concat->seq);
    return write_file_atomic(file, pdu_hex + "\n");
}

void Receiver::assemble(const std::string& key, int total, bool force) {
    std::optional<pdu::Deliver> first;
    std::string text;
    int present = 0;
    for (int seq = 1; seq <= total; ++seq) {
        auto hex = read_file(part_file(parts_dir_, key, seq), 1024);
        auto bytes = hex ? pdu::from_hex(hex->substr(0, hex->find('\n'))) : std::nullopt;
        auto part = bytes ? pdu::decode_deliver(*bytes) : std::nullopt;
        if (!part) {
            if (!force) return;
            continue;
        }
        if (!first) first = part;
        text += part->text;
        ++present;
    }
    if (!first) return;
    if (present < total)
        log("giving up waiting for %d of %d parts from %s", total - present, total,
            first->from.text.c_str());
    if (!deliver(*first, text)) return;
    for (int seq = 1; seq <= total; ++seq) remove_file(part_file(parts_dir_, key, seq));
}

bool Receiver::deliver(const pdu::Deliver& message, const std::string& text) {
    std::string record = encode_inbox_record(message.from.text, pdu::date_stamp(message.scts),
                                             pdu::time_stamp(message.scts), text);
    if (!append_inbox(inbox_, record)) {
        log("cannot write the inbox %s", inbox_.c_str());
        return false;
    }
    reporter_.send(incoming_report(message.from.text, text));
    log("received from %s: %zu bytes", message.from.text.c_str(), text.size());
    return true;
}

void Receiver::sweep() {
    // Oldest part time per set.
    std::map<std::string, time_t> sets;
    DIR* dir = ::opendir(parts_dir_.c_str());
    if (!dir) return;
    while (dirent* e = ::readdir(dir)) {
        std::string name = e->d_name;
        size_t dot = name.rfind('.');
        if (dot == std::string::npos || dot == 0) continue;
        struct stat st {};
        if (::stat((parts_dir_ + "/" + name).c_str(), &st) != 0) continue;
        auto [it, fresh] = sets.emplace(name.substr(0, dot), st.st_mtime);
        if (!fresh && st.st_mtime < it->second) it->second = st.st_mtime;
    }
    ::closedir(dir);
    const time_t now = std::time(nullptr);
    for (const auto& [key, oldest] : sets) {
        int total = total_of(key);
        if (total == 0) continue;
        assemble(key, total, now - oldest >= opt_.part_expiry.count());
    }
}

}  // namespace smsgw::txrx
