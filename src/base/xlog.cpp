#include "base/xlog.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/utf.h"

std::string XRecvSocketFolder() {
    if (const char* dir = std::getenv("XDG_RUNTIME_DIR"); dir && *dir) return dir;
    return "/tmp/orlimo3-" + std::to_string(getuid());
}

namespace {

// One unbound datagram socket for the whole process; sendto is safe from any thread.
int LogSocket() {
    static const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    return fd;
}

bool SendTo(const char* socketName, uint32_t channel, const std::string& text) {
    const int fd = LogSocket();
    if (fd < 0) return false;
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    const std::string path = XRecvSocketFolder() + "/" + socketName;
    if (path.size() >= sizeof(addr.sun_path)) return false;
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);

    std::string packet(4, '\0');
    for (int i = 0; i < 4; ++i) packet[i] = static_cast<char>((channel >> (8 * i)) & 0xFF);
    packet += text;
    // Never blocks: a monitor that falls behind loses lines rather than slowing the program.
    return sendto(fd, packet.data(), packet.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                  reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) >= 0;
}

std::string Format(const char* format, va_list args) {
    // 4096 characters of at most 4 bytes each, plus the terminator.
    char buffer[kXRecvMaxChars * 4 + 1];
    const int n = std::vsnprintf(buffer, sizeof(buffer), format, args);
    if (n < 0) return {};
    std::string text(buffer, std::min<size_t>(size_t(n), sizeof(buffer) - 1));
    utf::Truncate(text, kXRecvMaxChars);
    return text;
}

}  // namespace

void XTrace(const char* format, ...) {
    va_list args;
    va_start(args, format);
    const std::string text = Format(format, args);
    va_end(args);
    SendTo("XRecv", kXRecvDebugChannel, text);
}

void XTraceUser(const char* format, ...) {
    va_list args;
    va_start(args, format);
    const std::string text = Format(format, args);
    va_end(args);
    if (!SendTo("XRecv_User", kXRecvUserChannel, text)) SendTo("XRecv", kXRecvUserChannel, text);
}
