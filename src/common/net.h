// Local datagram endpoints and the outgoing messages several subsystems
// share: the database notice and the http-client sender.
#pragma once

#include <netinet/in.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "common/fileops.h"
#include "common/runtime.h"

namespace smsgw {

// The address 127.0.0.1:port, where every local peer of the gateway listens.
sockaddr_in loopback_address(uint16_t port);

// UDP socket bound to 127.0.0.1:port; invalid Fd on failure.
Fd bind_udp(uint16_t port);
// Unix datagram socket bound to path (any file there is removed first).
Fd bind_unix_dgram(const std::string& path);
bool set_nonblocking(int fd);

// Sends one datagram to 127.0.0.1:port from a fresh socket. Result of sendto.
ssize_t send_udp(uint16_t port, const void* data, size_t len);

// "add PATH" with its NUL from rt.sql_sms_fd to the database writer's
// socket "/var/run/SQL_SMS". Returns bytes sent or -1.
ssize_t database_notice(const Runtime& rt, const std::string& path);

// The text with its NUL to the settings listener (port 30303).
// "SUCCESS", or "ERROR" when no socket could be opened.
const char* send_to_http_client(const Runtime& rt, std::string_view text);

}  // namespace smsgw
