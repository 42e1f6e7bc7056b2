// Diagnostics for the log monitor (tools/xrecv). Each call formats at most 4096 characters and
// sends them as one datagram to the monitor's socket in the runtime folder; when no monitor
// listens nothing happens. Texts starting with "@@<" or "@@r" carry marks for the monitor.
#pragma once

#include <cstdint>
#include <string>

// Datagram layout: a 4-byte little-endian channel number, then the UTF-8 text.
inline constexpr uint32_t kXRecvDebugChannel = 1;
inline constexpr uint32_t kXRecvUserChannel = 3;
inline constexpr size_t kXRecvMaxChars = 4096;

// The debug log, to the socket "XRecv".
void XTrace(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The user log, to the socket "XRecv_User", or failing that "XRecv".
void XTraceUser(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The folder that holds the monitor sockets: $XDG_RUNTIME_DIR, else /tmp/orlimo3-<uid>.
std::string XRecvSocketFolder();
