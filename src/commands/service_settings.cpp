#include "commands/service_settings.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "commands/line_reader.h"
#include "common/fileops.h"
#include "common/net.h"
#include "common/spawn.h"
#include "common/trace.h"
#include "formats/txrx_datagram.h"

namespace smsgw {

namespace {

// Configuration lines are read with a 256-byte buffer: the rest of a longer
// line comes as a piece of its own.
constexpr size_t kLineBuffer = 256;

bool line_has_key(std::string_view line, std::string_view key) {
    return starts_with(line, key) && line.size() > key.size() && line[key.size()] == '=';
}

bool put(FILE* out, std::string_view text) {
    return std::fwrite(text.data(), 1, text.size(), out) == text.size();
}

std::string key_line(std::string_view key, std::string_view value) {
    std::string line(key);
    line += '=';
    line.append(value);
    line += '\n';
    return line;
}

// The shared steps of both writers: create the file with the one line, or
// copy it through `temp` replacing every line of the key.
bool write_key(const std::string& path, const std::string& temp, std::string_view key,
               std::string_view value) {
    FilePtr in = open_file(path, "r");
    if (!in) return write_file_atomic(path, key_line(key, value));
    FilePtr out = open_fixed_temp(temp, "w");
    if (!out) return false;
    bool matched = false;
    bool ok = true;
    while (auto piece = read_piece(in.get(), kLineBuffer)) {
        if (line_has_key(*piece, key)) {
            matched = true;
            ok = put(out.get(), key_line(key, value)) && ok;
        } else {
            ok = put(out.get(), *piece) && ok;
        }
    }
    if (!matched) ok = put(out.get(), key_line(key, value)) && ok;
    in.reset();
    ok = std::fflush(out.get()) == 0 && ::fsync(::fileno(out.get())) == 0 && ok;
    ok = std::fclose(out.release()) == 0 && ok;
    if (!ok || !replace_file(temp, path)) {
        ::unlink(temp.c_str());
        return false;
    }
    return true;
}

// Starts the HTTP client detached, as a shell's "( ... ) &" would: an
// intermediate child starts it and exits at once, so the client belongs to
// init and never lingers as a zombie of the daemon.
void start_http_client(const Runtime& rt) {
    const std::string program = rt.path("/bin/http-client");
    pid_t mid = ::fork();
    if (mid == 0) {
        spawn_program({program}, ChildOutput::DevNull);
        ::_exit(0);
    }
    if (mid > 0) {
        while (::waitpid(mid, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
}

}  // namespace

std::string set_conf_value(const Runtime& rt, const std::string& path, std::string_view key,
                           std::string_view value) {
    return write_key(path, rt.path("/var/run/temp_conf_gen"), key, value) ? "SUCCESS" : "ERROR";
}

std::string get_conf_value(const std::string& path, std::string_view key, std::string& out) {
    FilePtr in = open_file(path, "r");
    if (!in) return "ERROR";
    while (auto piece = read_piece(in.get(), kLineBuffer)) {
        if (!line_has_key(*piece, key)) continue;
        std::string_view value(*piece);
        value.remove_prefix(key.size() + 1);
        if (!value.empty() && value.back() == '\n') value.remove_suffix(1);
        out.assign(value);
        return "SUCCESS";
    }
    return "ERROR";
}

int write_conf_value(const Runtime& rt, const std::string& path, std::string_view key,
                     std::string_view value) {
    return write_key(path, rt.path("/var/config/temp_file.conf"), key, value) ? 1 : 0;
}

std::string set_sms_timer(const Runtime& rt, const TxrxLink& txrx, std::string_view seconds) {
    std::string s(seconds);
    txrx.send(encode_control_text("cmd set-sms-timer " + s + " "));
    send_to_http_client(rt, "set-sms-timer  " + s + "^|^");
    set_conf_value(rt, rt.path("/var/config/http_server_conf"), "timeout", seconds);
    return "SUCCESS";
}

std::string set_sms_status(const Runtime& rt, const TxrxLink& txrx, std::string_view state) {
    std::string s(state);
    txrx.send(encode_control_text("cmd set-sms-status " + s + " "));
    if (state != "disable") {
        // Every state but "disable" starts the client, whether one runs
        // already or not.
        start_http_client(rt);
    } else {
        std::string notice = "set-sms 1 status " + s + "^|^";
        trace("--%s--\r\n", notice.c_str());
        send_to_http_client(rt, notice);
    }
    set_conf_value(rt, rt.path("/var/config/http_server_conf"), "status", state);
    return "SUCCESS";
}

std::string set_signal_strength_cmd(const Runtime& rt, const TxrxLink& txrx,
                                    std::string_view command) {
    set_conf_value(rt, rt.path("/var/config/modem_conf"), "signal_strength_cmd", command);
    txrx.send(encode_control_text("cmd signal_strength_cmd " + std::string(command)));
    return "SUCCESS";
}

}  // namespace smsgw
