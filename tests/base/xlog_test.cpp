#include "base/xlog.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>

#include "base/utf.h"

namespace {

namespace fs = std::filesystem;

// A monitor socket in a runtime folder of its own, which XRecvSocketFolder() points at while
// the fixture lives.
class XLogTest : public ::testing::Test {
protected:
    void SetUp() override {
        const char* tmp = std::getenv("ORLIMO_TEST_TMP");
        const fs::path base = tmp && *tmp ? fs::path(tmp) : fs::temp_directory_path();
        fs::create_directories(base);
        std::string pattern = (base / "xlog-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        m_folder = pattern;
        if (const char* old = std::getenv("XDG_RUNTIME_DIR")) m_oldRuntimeDir = old;
        setenv("XDG_RUNTIME_DIR", m_folder.c_str(), 1);
        ASSERT_EQ(XRecvSocketFolder(), m_folder.string());
    }

    void TearDown() override {
        for (int fd : {m_debugFd, m_userFd}) {
            if (fd >= 0) close(fd);
        }
        if (m_oldRuntimeDir) {
            setenv("XDG_RUNTIME_DIR", m_oldRuntimeDir->c_str(), 1);
        } else {
            unsetenv("XDG_RUNTIME_DIR");
        }
        std::error_code ec;
        fs::remove_all(m_folder, ec);
    }

    int Bind(const char* name) {
        const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        const std::string path = (m_folder / name).string();
        EXPECT_LT(path.size(), sizeof(addr.sun_path));
        std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
        EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)), 0) << path;
        return fd;
    }

    // A datagram on a local socket is queued before sendto returns, so nothing here waits.
    static std::optional<std::pair<uint32_t, std::string>> Receive(int fd) {
        std::string buffer(64 * 1024, '\0');
        const ssize_t n = recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (n < 4) return std::nullopt;
        const auto* b = reinterpret_cast<const unsigned char*>(buffer.data());
        const uint32_t channel = b[0] | b[1] << 8 | b[2] << 16 | uint32_t(b[3]) << 24;
        return std::make_pair(channel, buffer.substr(4, size_t(n) - 4));
    }

    fs::path m_folder;
    std::optional<std::string> m_oldRuntimeDir;
    int m_debugFd = -1;
    int m_userFd = -1;
};

TEST_F(XLogTest, DebugLogIsCutAt4096CodePointsNotBytes) {
    m_debugFd = Bind("XRecv");
    // One-, two-, three- and four-byte characters: 5000 code points in 12500 bytes.
    std::string text;
    for (int i = 0; i < 1250; ++i) text += "a\xC3\xA9\xED\x95\x9C\xF0\x9F\x98\x80";
    ASSERT_EQ(utf::CodePointCount(text), 5000u);
    XTrace("%s", text.c_str());

    const auto message = Receive(m_debugFd);
    ASSERT_TRUE(message);
    EXPECT_EQ(message->first, kXRecvDebugChannel);
    EXPECT_EQ(utf::CodePointCount(message->second), 4096u);
    EXPECT_EQ(message->second, text.substr(0, 1024 * 10));
    EXPECT_FALSE(Receive(m_debugFd));  // one call, one datagram
}

TEST_F(XLogTest, UserLogPrefersItsOwnSocketAndFallsBackToTheDebugOne) {
    m_debugFd = Bind("XRecv");
    XTraceUser("@@rpage %d of %s", 3, "book.zip");
    auto message = Receive(m_debugFd);
    ASSERT_TRUE(message);
    EXPECT_EQ(message->first, kXRecvUserChannel);
    EXPECT_EQ(message->second, "@@rpage 3 of book.zip");

    m_userFd = Bind("XRecv_User");
    XTraceUser("only here");
    message = Receive(m_userFd);
    ASSERT_TRUE(message);
    EXPECT_EQ(message->first, kXRecvUserChannel);
    EXPECT_EQ(message->second, "only here");
    EXPECT_FALSE(Receive(m_debugFd));
}

TEST_F(XLogTest, NoMonitorOrASlowOneNeverFailsOrBlocks) {
    // Nobody listens: the calls return and leave nothing behind.
    XTrace("nobody %d", 1);
    XTraceUser("nobody %d", 2);
    EXPECT_TRUE(fs::is_empty(m_folder));

    // A monitor that does not read: its queue fills up and the rest is dropped, not waited for.
    m_debugFd = Bind("XRecv");
    for (int i = 0; i < 500; ++i) XTrace("line %d", i);
    const auto first = Receive(m_debugFd);
    ASSERT_TRUE(first);
    EXPECT_EQ(first->second, "line 0");
}

}  // namespace
