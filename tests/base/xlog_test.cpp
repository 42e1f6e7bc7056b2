#include "base/xlog.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "support/scratchfolder.h"

// Each test gets a runtime folder of its own for the monitor sockets.
class XLogTest : public ::testing::Test {
protected:
    void SetUp() override { setenv("XDG_RUNTIME_DIR", m_folder.Path().c_str(), 1); }
    ScratchFolder m_folder;
};

// A monitor's socket, bound in the test's runtime folder.
class Monitor {
public:
    Monitor(const ScratchFolder& folder, const char* name)
        : m_fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        const std::string path = folder / name;
        path.copy(addr.sun_path, sizeof(addr.sun_path) - 1);
        EXPECT_EQ(bind(m_fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)), 0) << path;
    }
    ~Monitor() { close(m_fd); }

    // "channel:text" of the next datagram, "" when none is queued. A datagram on a local socket
    // is queued before sendto returns, so nothing here waits.
    std::string Receive() const {
        unsigned char b[20000];
        const ssize_t n = recv(m_fd, b, sizeof(b), MSG_DONTWAIT);
        if (n < 4) return "";
        const uint32_t channel = b[0] | b[1] << 8 | b[2] << 16 | uint32_t(b[3]) << 24;
        return std::to_string(channel) + ":" + std::string(b + 4, b + n);
    }

private:
    int m_fd;
};

TEST_F(XLogTest, DebugLogIsCutAt4096CodePointsNotBytes) {
    const Monitor monitor(m_folder, "XRecv");
    // One-, two-, three- and four-byte characters: 5000 code points in 12500 bytes.
    std::string text;
    for (int i = 0; i < 1250; ++i) text += "a\xC3\xA9\xED\x95\x9C\xF0\x9F\x98\x80";
    XTrace("%s", text.c_str());
    EXPECT_EQ(monitor.Receive(), "1:" + text.substr(0, 1024 * 10));  // 4096 code points
    EXPECT_EQ(monitor.Receive(), "");                                // one call, one datagram
}

TEST_F(XLogTest, UserLogPrefersItsOwnSocketAndFallsBackToTheDebugOne) {
    const Monitor debug(m_folder, "XRecv");
    XTraceUser("@@rpage %d of %s", 3, "book.zip");
    EXPECT_EQ(debug.Receive(), "3:@@rpage 3 of book.zip");
    const Monitor user(m_folder, "XRecv_User");
    XTraceUser("only here");
    EXPECT_EQ(user.Receive(), "3:only here");
    EXPECT_EQ(debug.Receive(), "");
}

TEST_F(XLogTest, NoMonitorOrASlowOneNeverFailsOrBlocks) {
    // Nobody listens: the calls return and leave nothing behind.
    XTrace("nobody %d", 1);
    XTraceUser("nobody %d", 2);
    EXPECT_TRUE(std::filesystem::is_empty(m_folder.Path()));
    // A monitor that doesn't read: its queue fills up and the rest is dropped, not waited for.
    const Monitor monitor(m_folder, "XRecv");
    for (int i = 0; i < 500; ++i) XTrace("line %d", i);
    EXPECT_EQ(monitor.Receive(), "1:line 0");
}
