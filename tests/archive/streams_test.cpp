// The archive streams against the bytes of files made here: buffered reading and seeking, volume
// sets of every kind, the threaded writer and the simple-stream adapter.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "archive/tarnstreams.h"
#include "support/scratchfolder.h"

namespace {

std::vector<uint8_t> Pattern(size_t size, uint32_t seed) {
    std::vector<uint8_t> bytes(size);
    for (auto& b : bytes) {
        seed = seed * 1664525 + 1013904223;
        b = static_cast<uint8_t>(seed >> 24);
    }
    return bytes;
}

void WriteFile(const std::string& path, const std::vector<uint8_t>& bytes) {
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
    ASSERT_TRUE(out.good()) << path;
}

std::vector<uint8_t> ReadWhole(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::vector<uint8_t> Concat(std::initializer_list<std::vector<uint8_t>> parts) {
    std::vector<uint8_t> all;
    for (const auto& p : parts) all.insert(all.end(), p.begin(), p.end());
    return all;
}

std::vector<uint8_t> Bytes(const char* text, size_t size) {
    return std::vector<uint8_t>(text, text + size);
}

bool IsMulti(ITarnInStream* s) {
    void* multi = nullptr;
    if (s->QueryInterface(IID_ITarnMultiInStream, &multi) != 0) return false;
    static_cast<ITarnMultiInStream*>(multi)->Release();
    return true;
}

class XorFilter : public ITarnStreamFilter {
public:
    void Filter(uint8_t* buffer, uint32_t size) override {
        for (uint32_t i = 0; i < size; ++i) buffer[i] ^= 0x5A;
    }
};

// ---------------------------------------------------------------------------------------------

TEST(InFileStream, MixedReadsAndSeeksMatchTheFile) {
    ScratchFolder dir;
    const auto bytes = Pattern(300000, 1);
    const std::string path = dir / "data.bin";
    WriteFile(path, bytes);

    auto s = TarnPtr<ITarnInStream>::Adopt(new CTarnInFileStreamWin);
    ASSERT_TRUE(s->Open(path));
    EXPECT_EQ(s->GetSize(), 300000);
    int64_t pos = 0;
    std::vector<uint8_t> got(200000);
    auto expectRead = [&](uint32_t size) {
        ASSERT_TRUE(s->Read(got.data(), size)) << "at " << pos << " size " << size;
        ASSERT_EQ(0, memcmp(got.data(), bytes.data() + pos, size)) << "at " << pos;
        pos += size;
        ASSERT_EQ(s->GetPos(), pos);
    };
    expectRead(1);
    expectRead(17);
    expectRead(65536);  // crosses the buffer's end, refills
    expectRead(100);
    expectRead(70000);  // larger than the buffer: read straight through
    expectRead(3);

    // Within the buffered bytes backwards and forwards, then out of them.
    pos -= 50;
    EXPECT_EQ(s->Seek(-50, 1), pos);
    expectRead(10);
    pos += 1000;
    EXPECT_EQ(s->Seek(1000, 1), pos);
    expectRead(10);
    pos -= 100000;
    EXPECT_EQ(s->Seek(-100000, 1), pos);
    expectRead(64);
    EXPECT_EQ(s->Seek(0, 1), pos);

    pos = 12345;
    EXPECT_EQ(s->Seek(12345, 0), pos);
    expectRead(40000);
    // From the end, the offset is a distance back.
    pos = 300000 - 77;
    EXPECT_EQ(s->Seek(77, 2), pos);
    expectRead(77);
    EXPECT_TRUE(s->IsEOF());
    EXPECT_EQ(s->Seek(-1, 0), -1);
    EXPECT_EQ(s->GetPos(), 300000);
}

TEST(InFileStream, ShortReadsAtTheEndAndRefusedSizes) {
    ScratchFolder dir;
    const auto bytes = Pattern(1000, 2);
    const std::string path = dir / "small.bin";
    WriteFile(path, bytes);
    CTarnInFileStreamWin* raw = new CTarnInFileStreamWin;
    auto s = TarnPtr<ITarnInStream>::Adopt(raw);
    ASSERT_TRUE(s->Open(path));
    std::vector<uint8_t> got(200000);

    s->Seek(990, 0);
    uint32_t count = 99;
    EXPECT_TRUE(s->Read(got.data(), 100, &count));  // short is no failure
    EXPECT_EQ(count, 10u);
    EXPECT_EQ(0, memcmp(got.data(), bytes.data() + 990, 10));
    EXPECT_TRUE(s->Read(got.data(), 100, &count));
    EXPECT_EQ(count, 0u);
    s->Seek(990, 0);
    EXPECT_FALSE(s->Read(got.data(), 100));  // the exact form wants all of it
    s->Seek(500, 0);
    EXPECT_TRUE(s->Read(got.data(), 150000, &count));  // direct read past the end
    EXPECT_EQ(count, 500u);
    EXPECT_EQ(s->GetPos(), 1000);
    EXPECT_FALSE(s->Read(got.data(), 0x80000000u));

    void* out = nullptr;
    EXPECT_EQ(s->QueryInterface(IID_ITarnInStream, &out), 0u);
    static_cast<ITarnInStream*>(out)->Release();
    EXPECT_EQ(s->QueryInterface(IID_ITarnMultiInStream, &out), kTarnNoInterface);
    EXPECT_EQ(s->QueryInterface(IID_ITarnOutStream, &out), kTarnNoInterface);

    EXPECT_FALSE(s->Open(dir / "missing.bin"));
    EXPECT_FALSE(s->Open(dir.Path()));  // a folder is no file
}

TEST(InFileStream, FilterSeesEveryReadAndSeeksStayRaw) {
    ScratchFolder dir;
    const auto bytes = Pattern(200000, 3);
    const std::string path = dir / "f.bin";
    WriteFile(path, bytes);
    auto s = MakeInStream(path);
    ASSERT_TRUE(s);
    XorFilter filter;
    s->SetFilter(&filter);
    std::vector<uint8_t> got(100000);
    for (uint32_t size : {5u, 100u, 90000u, 7u}) {
        const int64_t at = s->GetPos();
        ASSERT_TRUE(s->Read(got.data(), size));
        for (uint32_t i = 0; i < size; ++i) ASSERT_EQ(got[i], bytes[at + i] ^ 0x5A) << at + i;
    }
    s->Seek(-7, 1);  // re-read of buffered bytes is filtered once, not twice
    ASSERT_TRUE(s->Read(got.data(), 7));
    EXPECT_EQ(got[0], bytes[90105] ^ 0x5A);
}

// ---------------------------------------------------------------------------------------------
// Volume sets

// Reads the whole stream in pieces of `piece` bytes; counts the volume changes seen.
std::vector<uint8_t> ReadAll(ITarnInStream* s, uint32_t piece, int* changes) {
    std::vector<uint8_t> all, buf(piece);
    auto* multi = static_cast<ITarnMultiInStream*>(s);
    *changes = 0;
    for (;;) {
        uint32_t count = 0;
        if (!s->Read(buf.data(), piece, &count)) break;
        all.insert(all.end(), buf.begin(), buf.begin() + count);
        if (multi->IsVolumeChanged()) ++*changes;
        if (count < piece) break;
    }
    return all;
}

TEST(VolumeSet, AlzSkipsHeadsAndTailsAndKeepsTheLastTail) {
    ScratchFolder dir;
    const auto a = Pattern(5000, 10), b = Pattern(3000, 11), c = Pattern(4000, 12);
    const auto head = Bytes("HEADHEAD", 8);
    const auto tail = Bytes("TAILTAILTAILCLZ\3", 16);
    WriteFile(dir / "book.alz", Concat({Bytes("ALZ\1", 4), a, tail}));
    WriteFile(dir / "book.a00", Concat({head, b, tail}));
    WriteFile(dir / "book.a01", Concat({head, c, tail}));
    WriteFile(dir / "book.a03", Concat({head, c, tail}));  // after a gap: not part of the set

    auto s = MakeInStream(dir / "book.alz");
    ASSERT_TRUE(s && IsMulti(s.Get()));
    auto* multi = static_cast<CTarnMultiInFileStream*>(s.Get());
    EXPECT_EQ(multi->GetVolumeCount(), 3u);
    const auto want = Concat({Bytes("ALZ\1", 4), a, b, c, tail});
    EXPECT_EQ(s->GetSize(), static_cast<int64_t>(want.size()));
    EXPECT_EQ(s->GetPos(), 0);

    int changes = 0;
    for (uint32_t piece : {1000u, 4099u, 70000u}) {
        ASSERT_EQ(s->Seek(0, 0), 0);
        multi->IsVolumeChanged();
        EXPECT_EQ(ReadAll(s.Get(), piece, &changes), want) << piece;
        // Once per crossing: a 1000-byte read crosses at most one boundary, a larger one both.
        EXPECT_EQ(changes, piece == 1000 ? 2 : 1) << piece;
        EXPECT_TRUE(s->IsEOF());
        EXPECT_EQ(multi->GetCurrentVolumePath(), nullptr);
    }

    EXPECT_EQ(multi->GetVolumeOffset(0), 0);
    EXPECT_EQ(multi->GetVolumeOffset(1), 5004 + 16);
    EXPECT_EQ(multi->GetVolumeOffset(2), 5004 + 16 + 8 + 3000 + 16);
    EXPECT_EQ(multi->GetVolumeOffset(3), 0);

    // Seeking into the second volume lands after its head.
    std::vector<uint8_t> got(10);
    EXPECT_EQ(s->Seek(5004 + 10, 0), 5014);
    EXPECT_EQ(std::string(multi->GetCurrentVolumePath()), dir / "book.a00");
    ASSERT_TRUE(s->Read(got.data(), 10));
    EXPECT_EQ(0, memcmp(got.data(), b.data() + 10, 10));
    EXPECT_EQ(s->Seek(-20, 1), 5004);
    ASSERT_TRUE(s->Read(got.data(), 10));
    EXPECT_EQ(0, memcmp(got.data(), b.data(), 10));
    EXPECT_EQ(s->Seek(100, 2), 0);  // from the end is not supported
    EXPECT_EQ(s->GetPos(), 5014);
    EXPECT_EQ(s->Seek(s->GetSize(), 0), s->GetSize());
    EXPECT_EQ(s->Seek(s->GetSize() + 1, 0), -1);
    EXPECT_FALSE(s->Read(got.data(), 1));
}

TEST(VolumeSet, NumberedEggAndRarNamesAreFollowed) {
    ScratchFolder dir;
    const auto a = Pattern(700, 20), b = Pattern(800, 21), c = Pattern(900, 22);
    WriteFile(dir / "pics.001", a);
    WriteFile(dir / "pics.002", b);
    WriteFile(dir / "pics.003", c);
    auto s = MakeInStream(dir / "pics.001");
    ASSERT_TRUE(s && IsMulti(s.Get()));
    int changes = 0;
    EXPECT_EQ(ReadAll(s.Get(), 256, &changes), Concat({a, b, c}));
    EXPECT_EQ(changes, 2);

    // EGG: later volumes begin with a 33-byte head.
    std::vector<uint8_t> egg = Bytes("EGGA\0\0\0\0\0\0\0\0\0\0\x62\xA2\xF5\x24", 18);
    egg.insert(egg.end(), a.begin(), a.end());
    const auto head33 = Pattern(33, 23);
    WriteFile(dir / "set.vol1.egg", egg);
    WriteFile(dir / "set.vol2.egg", Concat({head33, b}));
    s = MakeInStream(dir / "set.vol1.egg");
    ASSERT_TRUE(s && IsMulti(s.Get()));
    EXPECT_EQ(ReadAll(s.Get(), 100, &changes), Concat({egg, b}));

    // New RAR numbering: part1 alone is a one-volume set, with part2 a two-volume one.
    std::vector<uint8_t> rar = Bytes("Rar!\x1A\x07\x00\0\0\x73\0\x01", 12);
    WriteFile(dir / "book.part1.rar", rar);
    s = MakeInStream(dir / "book.part1.rar");
    ASSERT_TRUE(s && IsMulti(s.Get()));
    EXPECT_EQ(static_cast<CTarnMultiInFileStream*>(s.Get())->GetVolumeCount(), 1u);
    EXPECT_EQ(ReadAll(s.Get(), 100, &changes), rar);
    WriteFile(dir / "book.part2.rar", b);
    s = MakeInStream(dir / "book.part1.rar");
    EXPECT_EQ(static_cast<CTarnMultiInFileStream*>(s.Get())->GetVolumeCount(), 2u);

    // Old RAR numbering: name.rar, name.r00, name.r01.
    rar[11] = 0;
    WriteFile(dir / "old.rar", rar);
    WriteFile(dir / "old.r00", a);
    WriteFile(dir / "old.r01", b);
    s = MakeInStream(dir / "old.rar");
    ASSERT_TRUE(s && IsMulti(s.Get()));
    EXPECT_EQ(ReadAll(s.Get(), 333, &changes), Concat({rar, a, b}));
    EXPECT_EQ(changes, 2);
}

TEST(VolumeSet, SplitZipReadsItsPartsFirstAndAWholeZipStaysPlain) {
    ScratchFolder dir;
    const auto z1 = Pattern(1200, 30), z2 = Pattern(600, 31);
    std::vector<uint8_t> end = Bytes("PK\5\6", 4);
    end.resize(22, 0);
    const auto last = Concat({Pattern(100, 32), end});
    WriteFile(dir / "split.z01", z1);
    WriteFile(dir / "split.z02", z2);
    WriteFile(dir / "split.zip", last);
    auto s = MakeInStream(dir / "split.zip");
    ASSERT_TRUE(s && IsMulti(s.Get()));
    int changes = 0;
    EXPECT_EQ(ReadAll(s.Get(), 500, &changes), Concat({z1, z2, last}));
    EXPECT_EQ(s->GetFilePathName(), dir / "split.zip");

    // A whole archive with a comment: its last 22 bytes are not the end record's start.
    const auto comment = Bytes("a comment of some length", 24);
    const auto whole = Concat({Bytes("PK\3\4", 4), Pattern(300, 33), end,
                               std::vector<uint8_t>(comment.begin(), comment.end())});
    WriteFile(dir / "whole.zip", whole);
    WriteFile(dir / "whole.z01", z1);
    s = MakeInStream(dir / "whole.zip");
    ASSERT_TRUE(s);
    EXPECT_FALSE(IsMulti(s.Get()));
    EXPECT_EQ(s->GetSize(), static_cast<int64_t>(whole.size()));
    EXPECT_EQ(s->GetPos(), 0);

    // Names that say nothing, and an .alz without the split end mark.
    WriteFile(dir / "noext", z1);
    WriteFile(dir / "x.exe", z1);
    WriteFile(dir / "plain.alz", Concat({Bytes("ALZ\1", 4), Pattern(40, 34)}));
    for (const char* name : {"noext", "x.exe", "plain.alz"}) {
        s = MakeInStream(dir / name);
        ASSERT_TRUE(s) << name;
        EXPECT_FALSE(IsMulti(s.Get())) << name;
    }
    EXPECT_FALSE(MakeInStream(dir / "absent.zip"));
}

TEST(VolumeSet, VolumeNamesAndTinyVolumes) {
    EXPECT_EQ(TarnVolumeName("a/b.001", kTarnVolumeNumbered, 12), "a/b.012");
    EXPECT_EQ(TarnVolumeName("a/b.ZIP", kTarnVolumeZip, 3), "a/b.Z03");
    EXPECT_EQ(TarnVolumeName("a/b.alz", kTarnVolumeAlz, 0), "a/b.a00");
    EXPECT_EQ(TarnVolumeName("a/b.alz", kTarnVolumeAlz, 105), "a/b.b05");
    EXPECT_EQ(TarnVolumeName("a/b.part1.rar", kTarnVolumeRarNew, 2), "a/b.part2.rar");
    EXPECT_EQ(TarnVolumeName("a/b.vol1.EGG", kTarnVolumeEgg, 3), "a/b.vol3.EGG");
    EXPECT_EQ(TarnVolumeName("a/b.rar", kTarnVolumeRarOld, 0), "a/b.r00");
    EXPECT_EQ(TarnVolumeName(".001", kTarnVolumeNumbered, 2), "");

    // Later ALZ volumes smaller than their head and tail carry nothing and break nothing.
    ScratchFolder dir;
    const auto tail = Bytes("TAILTAILTAILCLZ\3", 16);
    const auto first = Concat({Bytes("ALZ\1", 4), Pattern(10, 24)});
    WriteFile(dir / "t.alz", Concat({first, tail}));
    WriteFile(dir / "t.a00", Bytes("abc", 3));
    WriteFile(dir / "t.a01", Concat({Bytes("HEADHEAD", 8), Bytes("xy", 2), tail}));
    auto s = MakeInStream(dir / "t.alz");
    ASSERT_TRUE(s && IsMulti(s.Get()));
    int changes = 0;
    EXPECT_EQ(ReadAll(s.Get(), 3, &changes), Concat({first, Bytes("xy", 2), tail}));
}

// ---------------------------------------------------------------------------------------------
// Writer

TEST(BufOutFileStream, LargeWritesThroughTheRingArriveWhole) {
    ScratchFolder dir;
    const auto bytes = Pattern(11 * 1024 * 1024 + 123, 40);
    auto* out = MakeOutStream(dir / "deep/er/file.bin", nullptr, false, nullptr);
    ASSERT_NE(out, nullptr);  // the folders were made
    size_t at = 0;
    for (size_t piece : {size_t{1}, size_t{65535}, size_t{5 * 1024 * 1024}, size_t{65537},
                         size_t{300}, size_t{4 * 1024 * 1024}}) {
        uint32_t written = 0;
        ASSERT_TRUE(out->Write(bytes.data() + at, static_cast<uint32_t>(piece), &written));
        EXPECT_EQ(written, piece);
        at += piece;
    }
    ASSERT_TRUE(out->Flush());
    EXPECT_EQ(out->GetWritten(), static_cast<int64_t>(at));
    ASSERT_TRUE(out->Write(bytes.data() + at, static_cast<uint32_t>(bytes.size() - at)));
    const uint64_t when = (1500000000ull + 11644473600ull) * 10000000ull;
    EXPECT_TRUE(out->SetFileTime(0, &when));
    EXPECT_TRUE(out->Close());
    EXPECT_EQ(out->GetWritten(), static_cast<int64_t>(bytes.size()));
    EXPECT_TRUE(out->Close());  // nothing open: fine
    out->Release();

    EXPECT_EQ(ReadWhole(dir / "deep/er/file.bin"), bytes);
    struct stat st {};
    ASSERT_EQ(stat((dir / "deep/er/file.bin").c_str(), &st), 0);
    EXPECT_EQ(st.st_mtime, 1500000000);
}

TEST(BufOutFileStream, RingGrowsInBlocksAndReopensCleanly) {
    ScratchFolder dir;
    auto out = TarnPtr<CTarnBufOutFileStream>::Adopt(new CTarnBufOutFileStream);
    EXPECT_EQ(out->GetRingCapacity(), 64u * 1024);
    uint32_t error = 1;
    ASSERT_TRUE(out->Open(dir / "one.bin", &error));
    EXPECT_EQ(error, 0u);
    const auto bytes = Pattern(200000, 41);
    ASSERT_TRUE(out->Write(bytes.data(), static_cast<uint32_t>(bytes.size())));
    // 200000 bytes need at least four 64 KB blocks; growth is in whole blocks.
    EXPECT_EQ(out->GetRingCapacity() % (64 * 1024), 0u);
    EXPECT_GE(out->GetRingCapacity(), 4u * 64 * 1024);
    // A second Open closes the first file and starts over.
    ASSERT_TRUE(out->Open(dir / "two.bin", &error));
    ASSERT_TRUE(out->Write(bytes.data(), 10));
    EXPECT_TRUE(out->Close());
    EXPECT_EQ(ReadWhole(dir / "one.bin"), bytes);
    EXPECT_EQ(ReadWhole(dir / "two.bin"), std::vector<uint8_t>(bytes.begin(), bytes.begin() + 10));
    EXPECT_FALSE(out->Write(bytes.data(), 1));  // closed

    void* q = nullptr;
    EXPECT_EQ(out->QueryInterface(IID_ITarnOutStream, &q), 0u);
    static_cast<ITarnOutStream*>(q)->Release();
    EXPECT_EQ(out->QueryInterface(IID_ITarnInStream, &q), kTarnNoInterface);
}

TEST(BufOutFileStream, OutputPathsAreCleaned) {
    EXPECT_EQ(TarnCleanOutputPath("/tmp/a*b<c>d?e|f"), "/tmp/a_b_c_d_e_f");
    EXPECT_EQ(TarnCleanOutputPath("C:/x:y"), "C:/x_y");
    EXPECT_EQ(TarnCleanOutputPath("/t/dir /file "), "/t/dir_/file_");
    EXPECT_EQ(TarnCleanOutputPath("/t/ lead/a  b\t"), "/t/_lead/a  b_");
    EXPECT_EQ(TarnCleanOutputPath("/t/two  /x"), "/t/two _/x");
    EXPECT_EQ(TarnCleanOutputPath("/t/\n/x"), "/t/_/x");

    ScratchFolder dir;
    auto* out = MakeOutStream(dir / "odd name /pic?.jpg ", nullptr, false, nullptr);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(out->GetFilePathName(), dir / "odd name_/pic_.jpg_");
    EXPECT_TRUE(out->Close());
    out->Release();
    EXPECT_TRUE(std::filesystem::exists(dir / "odd name_/pic_.jpg_"));

    // A folder entry only makes the folder.
    out = MakeOutStream(dir / "only/a/folder", nullptr, true, nullptr);
    ASSERT_NE(out, nullptr);
    out->Release();
    EXPECT_TRUE(std::filesystem::is_directory(dir / "only/a/folder"));
}

TEST(BufOutFileStream, FailuresReportTheirPlatformError) {
    ScratchFolder dir;
    uint32_t error = 0;
    const std::string longName(300, 'n');
    EXPECT_EQ(MakeOutStream(dir / longName, nullptr, false, &error), nullptr);
    EXPECT_EQ(error, kTarnPlatformPathTooLong);

    // A file where a folder should be.
    dir.MakeFile("blocker", 1);
    EXPECT_EQ(MakeOutStream(dir / "blocker/x", nullptr, false, &error), nullptr);
    EXPECT_EQ(error, kTarnPlatformErrnoBase + ENOTDIR);

    // The full device: the write fails and the stream says why.
    auto* out = MakeOutStream("/dev/full", nullptr, false, &error);
    ASSERT_NE(out, nullptr);
    const auto bytes = Pattern(300000, 42);
    bool failed = false;
    for (int i = 0; i < 100 && !failed; ++i) {
        failed = !out->Write(bytes.data(), static_cast<uint32_t>(bytes.size()));
        if (!failed) failed = !out->Flush();
    }
    EXPECT_TRUE(failed);
    EXPECT_FALSE(out->Close());
    EXPECT_EQ(out->GetLastError(), kTarnPlatformDiskFull);
    EXPECT_EQ(out->GetWritten(), 0);
    out->Release();
}

// ---------------------------------------------------------------------------------------------

class RecordingSimpleStream : public ITarnSimpleOutStream {
public:
    bool Open(const char* path) override {
        calls += std::string("open(") + (path ? path : "null") + ")";
        return true;
    }
    bool SetSize(int64_t size) override {
        calls += "size(" + std::to_string(size) + ")";
        return size < 1000;
    }
    bool Write(const void* buffer, uint32_t size) override {
        data.append(static_cast<const char*>(buffer), size);
        return !refuse;
    }
    bool Close() override {
        calls += "close";
        return true;
    }
    bool CreateFolder(const char* path) override {
        calls += std::string("folder(") + path + ")";
        return true;
    }
    std::string calls, data;
    bool refuse = false;
};

TEST(SimpleStreamAdapter, ForwardsAndCounts) {
    RecordingSimpleStream host;
    ITarnOutStream* out = MakeSimpleOutStreamAdapter(&host);
    EXPECT_TRUE(out->Open("a.jpg", nullptr));
    EXPECT_TRUE(out->SetSize(10));
    EXPECT_FALSE(out->SetSize(5000));  // the host's refusal comes through
    uint32_t written = 0;
    EXPECT_TRUE(out->Write("hello", 5, &written));
    EXPECT_EQ(written, 5u);
    EXPECT_TRUE(out->Write("!!", 2));
    EXPECT_EQ(out->GetWritten(), 7);
    host.refuse = true;
    EXPECT_FALSE(out->Write("x", 1, &written));
    EXPECT_EQ(written, 0u);
    EXPECT_EQ(out->GetWritten(), 7);
    EXPECT_TRUE(out->Flush());
    EXPECT_TRUE(out->SetAttribute(1));
    EXPECT_TRUE(out->SetFileTime(1, nullptr));
    EXPECT_TRUE(out->Close());
    EXPECT_TRUE(out->Open("", nullptr));  // resets the count
    EXPECT_EQ(out->GetWritten(), 0);
    EXPECT_TRUE(out->CreateFolder("dir"));
    out->Release();  // the host hears a last close
    EXPECT_EQ(host.calls, "open(a.jpg)size(10)size(5000)closeopen(null)folder(dir)close");
    EXPECT_EQ(host.data, "hello!!x");
}

}  // namespace
