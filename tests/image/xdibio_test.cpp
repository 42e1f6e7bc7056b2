#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <vector>

#include "image/xdibio.h"
#include "imgwrite/imgwrite.h"
#include "support/scratchfolder.h"

namespace {

std::vector<uint8_t> Counting(size_t n) {
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; ++i) v[i] = uint8_t(i * 7 + i / 251);  // no short period
    return v;
}

}  // namespace

TEST(MemIO, ReadsAreAllOrNothingAndNeverBeforeTheBlock) {
    const std::vector<uint8_t> data = Counting(100);
    CXDibMemIO io(data.data(), 100);
    uint8_t out[16] = {}, b;
    EXPECT_EQ(io.Seek(90, 0), 90);
    EXPECT_FALSE(io.Read(out, 11));  // one byte too many: nothing is delivered
    EXPECT_EQ(io.Tell(), 90);
    EXPECT_TRUE(io.Read(out, 10));
    EXPECT_EQ(std::memcmp(out, data.data() + 90, 10), 0);
    EXPECT_FALSE(io.Read(out, 1));
    EXPECT_EQ(io.Seek(-10, 1), 90);
    EXPECT_EQ(io.Seek(8, 2), 92);  // origin 2 counts back from the end
    ASSERT_TRUE(io.Read(&b, 1));
    EXPECT_EQ(b, data[92]);
    EXPECT_EQ(io.Seek(500, 0), 100);  // clamped at the upper end only
    // A negative position is reported as it stands; reading there delivers nothing.
    EXPECT_EQ(io.Seek(-5, 0), -5);
    EXPECT_FALSE(io.Read(&b, 1));
    EXPECT_EQ(io.Seek(120, 2), -20);
    EXPECT_FALSE(io.Read(&b, 1));
    CXDibMemIO nothing(nullptr, 50);  // a null block is empty whatever size is claimed
    EXPECT_EQ(nothing.GetSize(), 0);
    EXPECT_FALSE(nothing.Read(&b, 1));
}

TEST(MemIO, OwnedCopyOutlivesTheCallersBlockAndItsFirstHolder) {
    XDibIOPtr io;
    {
        std::vector<uint8_t> data = Counting(64);
        io = CXDibMemIO::MakeCopy(data.data(), 64);
        std::fill(data.begin(), data.end(), 0);
    }
    XDibIOPtr second = io;
    io = XDibIOPtr();
    uint8_t out[64];
    ASSERT_TRUE(second->Read(out, 64));
    EXPECT_EQ(std::vector<uint8_t>(out, out + 64), Counting(64));
}

class BuffFileIOTest : public ::testing::Test {
protected:
    static constexpr size_t kSize = 10000;
    void SetUp() override {
        ASSERT_TRUE(imgwrite::WriteFile(path, data));
        fd = ::open(path.c_str(), O_RDONLY);
        ASSERT_GE(fd, 0);
    }
    void TearDown() override { ::close(fd); }
    bool ReadsAt(CXDibBuffFileIO& io, size_t at, uint32_t count) {
        std::vector<uint8_t> out(count);
        return io.Read(out.data(), count) &&
               std::memcmp(out.data(), data.data() + at, count) == 0 &&
               io.Tell() == int64_t(at + count);
    }
    off_t HandlePosition() const { return lseek(fd, 0, SEEK_CUR); }

    ScratchFolder dir;
    std::vector<uint8_t> data = Counting(kSize);
    std::string path = dir / "bytes.bin";
    int fd = -1;
};

TEST_F(BuffFileIOTest, BufferedUnbufferedAndSeekingReads) {
    CXDibBuffFileIO io(fd, false);
    EXPECT_TRUE(ReadsAt(io, 0, 1));
    EXPECT_EQ(HandlePosition(), 4096);  // one block was buffered
    EXPECT_TRUE(ReadsAt(io, 1, 4000));
    EXPECT_TRUE(ReadsAt(io, 4001, 200));  // 95 from the buffer, 105 from a refill
    EXPECT_EQ(HandlePosition(), 8192);
    size_t at = 4201;
    for (uint32_t n : {1u, 3u, 1000u, 2900u, 7u, 1u}) {
        ASSERT_TRUE(ReadsAt(io, at, n)) << "read of " << n << " at " << at;
        at += n;
    }
    EXPECT_EQ(io.Seek(0, 0), 0);  // a seek empties the buffer
    EXPECT_TRUE(ReadsAt(io, 0, 5000));
    EXPECT_EQ(HandlePosition(), 5000);  // straight into the caller's memory
    EXPECT_TRUE(ReadsAt(io, 5000, 10));
    EXPECT_TRUE(ReadsAt(io, 5010, 4990));  // buffered bytes, then a read to the end
    EXPECT_EQ(HandlePosition(), off_t(kSize));
    EXPECT_EQ(io.Seek(6000, 0), 6000);
    EXPECT_TRUE(ReadsAt(io, 6000, 16));
    EXPECT_EQ(io.Seek(-100, 1), 5916);
    EXPECT_TRUE(ReadsAt(io, 5916, 300));
    EXPECT_EQ(io.Seek(50, 2), int64_t(kSize - 50));
    EXPECT_TRUE(ReadsAt(io, kSize - 50, 50));
    // Reads past the end fail, buffered or not.
    uint8_t out[5000];
    for (uint32_t n : {20u, 5000u}) {
        io.Seek(kSize - 10, 0);
        EXPECT_FALSE(io.Read(out, n)) << n;
    }
    io.Seek(kSize - 10, 0);
    EXPECT_TRUE(ReadsAt(io, kSize - 10, 10));
    EXPECT_FALSE(io.Read(out, 1));
}

TEST_F(BuffFileIOTest, OpenedSourceClosesItsFileWithTheLastReference) {
    const auto openFiles = [] {
        const std::filesystem::directory_iterator fds("/proc/self/fd");
        return std::distance(begin(fds), end(fds));
    };
    const auto before = openFiles();
    {
        XDibIOPtr io = CXDibBuffFileIO::Open(path.c_str());
        ASSERT_TRUE(io);
        XDibIOPtr second = io;
        io = XDibIOPtr();
        EXPECT_EQ(openFiles(), before + 1);
        uint8_t b[3];
        ASSERT_TRUE(second->Read(b, 3));
        EXPECT_EQ(std::memcmp(b, data.data(), 3), 0);
    }
    EXPECT_EQ(openFiles(), before);
    EXPECT_FALSE(CXDibBuffFileIO::Open((dir / "missing.bin").c_str()));
    { CXDibBuffFileIO borrowed(fd, false); }  // a borrowed handle stays open
    EXPECT_EQ(HandlePosition(), 0);
}
