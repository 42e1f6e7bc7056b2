// xrecv: the log monitor. Binds the datagram socket that XTrace (socket "XRecv") or, with
// --user, XTraceUser (socket "XRecv_User") writes to, and prints every message as one line with
// a local time stamp and its channel. A text marked "@@r" is shown in red and one marked "@@<"
// dimmed when the output is a terminal; the mark itself is not printed.
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include "base/xlog.h"

namespace {

volatile std::sig_atomic_t g_bStop = 0;

void OnStopSignal(int) {
    g_bStop = 1;
}

int Usage(std::FILE* out, int code) {
    std::fputs(
        "usage: xrecv [--user]\n"
        "Prints the program's debug log; with --user, its user log.\n",
        out);
    return code;
}

int Fail(const std::string& what) {
    std::fprintf(stderr, "xrecv: %s: %s\n", what.c_str(), std::strerror(errno));
    return 1;
}

// Creates the socket folder and any missing parent with mode 0700; an existing folder must be
// ours, since anyone who can write it could stand in for the monitor.
bool EnsureFolder(const std::string& folder) {
    for (size_t slash = folder.find('/', 1);; slash = folder.find('/', slash + 1)) {
        const std::string part = folder.substr(0, slash);
        if (mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) return false;
        if (slash == std::string::npos) break;
    }
    struct stat st {};
    if (stat(folder.c_str(), &st) != 0) return false;
    if (!S_ISDIR(st.st_mode) || st.st_uid != getuid()) {
        errno = EACCES;
        return false;
    }
    return true;
}

// Removes the socket file that a monitor left behind when it was killed. A socket that still has
// a reader belongs to a running monitor and is left alone.
bool RemoveStaleSocket(const sockaddr_un& addr) {
    struct stat st {};
    if (lstat(addr.sun_path, &st) != 0) return errno == ENOENT;
    if (!S_ISSOCK(st.st_mode)) {
        errno = EEXIST;
        return false;
    }
    const int probe = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (probe < 0) return false;
    const int rc = connect(probe, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr));
    const int err = errno;
    close(probe);
    if (rc == 0) {
        errno = EADDRINUSE;
        return false;
    }
    if (err != ECONNREFUSED && err != ENOENT) {
        errno = err;
        return false;
    }
    return unlink(addr.sun_path) == 0 || errno == ENOENT;
}

std::string TimeStamp() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char text[32];
    const size_t n = std::strftime(text, sizeof(text), "%H:%M:%S", &local);
    std::snprintf(text + n, sizeof(text) - n, ".%03ld", now.tv_nsec / 1000000);
    return text;
}

std::string ChannelName(uint32_t channel) {
    if (channel == kXRecvDebugChannel) return "debug";
    if (channel == kXRecvUserChannel) return "user ";
    return "ch" + std::to_string(channel);
}

// One line per message: trailing line breaks go, other control characters are shown escaped so
// that a message can neither split the line nor send commands to the terminal.
std::string Printable(std::string_view text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.remove_suffix(1);
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else if ((byte < 0x20 && c != '\t') || byte == 0x7F) {
            char hex[8];
            std::snprintf(hex, sizeof(hex), "\\x%02X", byte);
            out += hex;
        } else {
            out.push_back(c);
        }
    }
    return out;
}

void PrintMessage(const unsigned char* data, size_t size, bool colour) {
    std::string line = TimeStamp() + " ";
    if (size < 4) {
        line += "(datagram of " + std::to_string(size) + " bytes without a channel)";
        std::printf("%s\n", line.c_str());
        std::fflush(stdout);
        return;
    }
    const uint32_t channel = uint32_t(data[0]) | uint32_t(data[1]) << 8 | uint32_t(data[2]) << 16 |
                             uint32_t(data[3]) << 24;
    std::string_view text(reinterpret_cast<const char*>(data + 4), size - 4);
    const char* start = "";
    if (text.starts_with("@@r")) {
        start = "\x1b[31m";
        text.remove_prefix(3);
    } else if (text.starts_with("@@<")) {
        start = "\x1b[2m";
        text.remove_prefix(3);
    }
    line += ChannelName(channel) + " ";
    if (colour && *start) {
        line += start + Printable(text) + "\x1b[0m";
    } else {
        line += Printable(text);
    }
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    const char* name = "XRecv";
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "--user") {
            name = "XRecv_User";
        } else if (arg == "-h" || arg == "--help") {
            return Usage(stdout, 0);
        } else {
            std::fprintf(stderr, "xrecv: unknown argument '%s'\n", argv[i]);
            return Usage(stderr, 2);
        }
    }

    const std::string folder = XRecvSocketFolder();
    if (!EnsureFolder(folder)) return Fail("cannot use the folder " + folder);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    const std::string path = folder + "/" + name;
    if (path.size() >= sizeof(addr.sun_path)) {
        errno = ENAMETOOLONG;
        return Fail(path);
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    if (!RemoveStaleSocket(addr)) {
        if (errno != EADDRINUSE) return Fail("cannot take over " + path);
        std::fprintf(stderr, "xrecv: another monitor is listening on %s\n", path.c_str());
        return 1;
    }

    // The stop signals stay blocked except inside ppoll, so a signal that comes between two
    // messages is never lost: the next ppoll returns at once.
    sigset_t stopSignals, waitMask;
    sigemptyset(&stopSignals);
    for (const int sig : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&stopSignals, sig);
        struct sigaction action {};
        action.sa_handler = OnStopSignal;
        sigaction(sig, &action, nullptr);
    }
    sigprocmask(SIG_BLOCK, &stopSignals, &waitMask);

    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return Fail("socket");
    if (bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0) {
        const int rc = Fail("cannot bind " + path);
        close(fd);
        return rc;
    }
    std::fprintf(stderr, "xrecv: listening on %s\n", path.c_str());

    const bool colour = isatty(STDOUT_FILENO) == 1;
    // The largest message is 4096 characters of 4 bytes after the channel; more is room to spare.
    std::vector<unsigned char> buffer(64 * 1024);
    int rc = 0;
    while (!g_bStop) {
        pollfd pfd{fd, POLLIN, 0};
        if (ppoll(&pfd, 1, nullptr, &waitMask) < 0) {
            if (errno == EINTR) continue;
            rc = Fail("poll");
            break;
        }
        const ssize_t n = recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (n < 0) {
            if (errno == EAGAIN || errno == EINTR) continue;
            rc = Fail("recv");
            break;
        }
        PrintMessage(buffer.data(), static_cast<size_t>(n), colour);
    }
    close(fd);
    unlink(path.c_str());
    return rc;
}
