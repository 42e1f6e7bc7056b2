#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <numeric>
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

// A heap source that counts its destructions.
class CountedIO final : public IXDibIO {
public:
    explicit CountedIO(int& destroyed) : destroyed(destroyed) {}
    ~CountedIO() override { ++destroyed; }
    bool Read(void*, uint32_t) override { return false; }
    bool Write(const void*, uint32_t) override { return false; }
    int64_t Seek(int64_t, int) override { return 0; }
    int64_t Tell() override { return 0; }
    int64_t GetSize() override { return 0; }

private:
    int& destroyed;
};

size_t OpenDescriptors() {
    size_t n = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
        ++n;
    return n;
}

off_t HandlePosition(int fd) {
    return lseek(fd, 0, SEEK_CUR);
}

}  // namespace

TEST(MemIO, ReadsAreAllOrNothing) {
    const std::vector<uint8_t> data = Counting(10);
    CXDibMemIO io(data.data(), 10);
    uint8_t out[16] = {};
    EXPECT_TRUE(io.Read(out, 4));
    EXPECT_EQ(io.Tell(), 4);
    EXPECT_FALSE(io.Read(out, 7));  // one byte too many: nothing is delivered
    EXPECT_EQ(io.Tell(), 4);
    EXPECT_TRUE(io.Read(out, 6));
    EXPECT_EQ(std::memcmp(out, data.data() + 4, 6), 0);
    EXPECT_EQ(io.Tell(), 10);
    EXPECT_FALSE(io.Read(out, 1));
    EXPECT_TRUE(io.Read(out, 0));
}

TEST(MemIO, SeekOriginsClampOnlyAtTheUpperEnd) {
    const std::vector<uint8_t> data = Counting(100);
    CXDibMemIO io(data.data(), 100);
    EXPECT_EQ(io.Seek(30, 0), 30);
    EXPECT_EQ(io.Seek(5, 1), 35);
    EXPECT_EQ(io.Seek(-10, 1), 25);
    EXPECT_EQ(io.Seek(8, 2), 92);  // origin 2 counts backwards from the size
    uint8_t b;
    ASSERT_TRUE(io.Read(&b, 1));
    EXPECT_EQ(b, data[92]);
    EXPECT_EQ(io.Seek(0, 2), 100);
    EXPECT_EQ(io.Seek(500, 0), 100);  // clamped to the size
    EXPECT_EQ(io.Seek(50, 1), 100);
    EXPECT_EQ(io.Tell(), 100);
    // A negative position is reported as it stands; reading there delivers nothing.
    EXPECT_EQ(io.Seek(-5, 0), -5);
    EXPECT_EQ(io.Tell(), -5);
    EXPECT_FALSE(io.Read(&b, 1));
    EXPECT_EQ(io.Seek(120, 2), -20);
    EXPECT_FALSE(io.Read(&b, 1));
    EXPECT_EQ(io.GetSize(), 100);
}

TEST(MemIO, EmptySourceSeeksToZeroAndReadsNothing) {
    CXDibMemIO empty(nullptr, 0);
    EXPECT_EQ(empty.Seek(10, 0), 0);
    EXPECT_EQ(empty.Seek(-3, 2), 0);
    EXPECT_EQ(empty.Tell(), 0);
    EXPECT_EQ(empty.GetSize(), 0);
    uint8_t b;
    EXPECT_FALSE(empty.Read(&b, 1));
    // A null block is empty whatever size is claimed.
    CXDibMemIO nothing(nullptr, 50);
    EXPECT_EQ(nothing.GetSize(), 0);
    EXPECT_FALSE(nothing.Read(&b, 1));
}

TEST(MemIO, WritesFitOrFailAndMoveOnlyOnSuccess) {
    std::vector<uint8_t> block(8, 0);
    CXDibMemIO io(block.data(), 8);
    const uint8_t bytes[] = {1, 2, 3, 4, 5, 6};
    io.Seek(4, 0);
    EXPECT_FALSE(io.Write(bytes, 5));
    EXPECT_EQ(io.Tell(), 4);
    EXPECT_EQ(block[4], 0);
    EXPECT_TRUE(io.Write(bytes, 4));
    EXPECT_EQ(io.Tell(), 8);
    EXPECT_EQ(block, (std::vector<uint8_t>{0, 0, 0, 0, 1, 2, 3, 4}));
}

TEST(MemIO, OwnedCopyOutlivesTheCallersBlockAndEveryHolder) {
    XDibIOPtr io;
    {
        std::vector<uint8_t> data = Counting(64);
        io = CXDibMemIO::MakeCopy(data.data(), 64);
        std::fill(data.begin(), data.end(), 0);
    }
    ASSERT_TRUE(io);
    XDibIOPtr second = io;  // a second holder, like a pending decode in the cache
    io = XDibIOPtr();
    uint8_t out[64];
    ASSERT_TRUE(second->Read(out, 64));
    const std::vector<uint8_t> expected = Counting(64);
    EXPECT_EQ(std::memcmp(out, expected.data(), 64), 0);
    EXPECT_FALSE(CXDibMemIO::MakeCopy(expected.data(), -1));
}

TEST(SourceReference, HeapSourceIsDestroyedByTheLastReleaseExactlyOnce) {
    int destroyed = 0;
    {
        XDibIOPtr first(new CountedIO(destroyed));  // adopts the creator's reference
        XDibIOPtr copy = first;
        XDibIOPtr moved = std::move(copy);
        EXPECT_FALSE(copy);
        first->AddRef();  // a holder outside any smart pointer
        {
            XDibIOPtr third;
            third = moved;
        }
        first = XDibIOPtr();
        EXPECT_EQ(destroyed, 0);
        moved->Release();
        EXPECT_EQ(destroyed, 0);
    }
    EXPECT_EQ(destroyed, 1);
}

class BuffFileIOTest : public ::testing::Test {
protected:
    static constexpr size_t kSize = 10000;
    void SetUp() override {
        data = Counting(kSize);
        path = dir / "bytes.bin";
        ASSERT_TRUE(imgwrite::WriteFile(path, data));
        fd = ::open(path.c_str(), O_RDONLY);
        ASSERT_GE(fd, 0);
    }
    void TearDown() override {
        if (fd >= 0) ::close(fd);
    }
    bool ReadsAt(CXDibBuffFileIO& io, size_t at, uint32_t count) {
        std::vector<uint8_t> out(count);
        if (!io.Read(out.data(), count)) return false;
        return std::memcmp(out.data(), data.data() + at, count) == 0 &&
               io.Tell() == int64_t(at + count);
    }

    ScratchFolder dir;
    std::vector<uint8_t> data;
    std::string path;
    int fd = -1;
};

TEST_F(BuffFileIOTest, SmallReadsAcrossTheBufferBoundary) {
    CXDibBuffFileIO io(fd, false);
    EXPECT_EQ(io.GetSize(), int64_t(kSize));
    EXPECT_TRUE(ReadsAt(io, 0, 1));
    EXPECT_EQ(HandlePosition(fd), 4096);  // one block was buffered
    EXPECT_TRUE(ReadsAt(io, 1, 4000));
    EXPECT_TRUE(ReadsAt(io, 4001, 200));  // 95 from the buffer, 105 from a refill
    EXPECT_EQ(HandlePosition(fd), 8192);
    size_t at = 4201;
    for (uint32_t n : {1u, 3u, 1000u, 2900u, 7u, 1u}) {
        ASSERT_TRUE(ReadsAt(io, at, n)) << "read of " << n << " at " << at;
        at += n;
    }
}

TEST_F(BuffFileIOTest, LargeReadsBypassTheBuffer) {
    CXDibBuffFileIO io(fd, false);
    EXPECT_TRUE(ReadsAt(io, 0, 5000));
    EXPECT_EQ(HandlePosition(fd), 5000);  // read straight into the caller's memory
    EXPECT_TRUE(ReadsAt(io, 5000, 10));
    EXPECT_EQ(HandlePosition(fd), 9096);
    // Buffered bytes first, then a refill that reaches the end of the file.
    EXPECT_TRUE(ReadsAt(io, 5010, 4990));
    EXPECT_EQ(HandlePosition(fd), off_t(kSize));
}

TEST_F(BuffFileIOTest, SeekEmptiesTheBufferFromEveryOrigin) {
    CXDibBuffFileIO io(fd, false);
    ASSERT_TRUE(ReadsAt(io, 0, 10));
    EXPECT_EQ(io.Seek(6000, 0), 6000);
    EXPECT_TRUE(ReadsAt(io, 6000, 16));
    EXPECT_EQ(io.Seek(-100, 1), 5916);
    EXPECT_TRUE(ReadsAt(io, 5916, 300));
    EXPECT_EQ(io.Seek(50, 2), int64_t(kSize - 50));
    EXPECT_TRUE(ReadsAt(io, kSize - 50, 50));
    EXPECT_EQ(io.Seek(0, 0), 0);
    EXPECT_TRUE(ReadsAt(io, 0, 4096));
}

TEST_F(BuffFileIOTest, ShortReadAtTheEndFails) {
    CXDibBuffFileIO io(fd, false);
    io.Seek(kSize - 10, 0);
    uint8_t out[5000];
    EXPECT_FALSE(io.Read(out, 20));
    io.Seek(kSize - 10, 0);
    EXPECT_FALSE(io.Read(out, 5000));  // too short for the unbuffered path as well
    io.Seek(kSize - 10, 0);
    EXPECT_TRUE(ReadsAt(io, kSize - 10, 10));
    EXPECT_FALSE(io.Read(out, 1));
}

TEST_F(BuffFileIOTest, OpenedSourceClosesItsFileWithTheLastReference) {
    const size_t before = OpenDescriptors();
    {
        XDibIOPtr io = CXDibBuffFileIO::Open(path.c_str());
        ASSERT_TRUE(io);
        XDibIOPtr second = io;
        io = XDibIOPtr();
        EXPECT_EQ(OpenDescriptors(), before + 1);
        uint8_t b[3];
        ASSERT_TRUE(second->Read(b, 3));
        EXPECT_EQ(std::memcmp(b, data.data(), 3), 0);
    }
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_FALSE(CXDibBuffFileIO::Open((dir / "missing.bin").c_str()));
    // A borrowed handle stays open.
    { CXDibBuffFileIO borrowed(fd, false); }
    EXPECT_EQ(HandlePosition(fd), 0);
}
