// The tar, gzip and bzip2 readers on archives made by Debian's own tools, and on headers written
// here byte by byte where the tools can't make the case.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "archive/unbzip2.h"
#include "archive/ungzip.h"
#include "archive/untar.h"
#include "support/scratchfolder.h"

namespace {

std::string Pattern(size_t size, uint32_t seed) {
    std::string bytes(size, '\0');
    for (auto& b : bytes) {
        seed = seed * 1664525 + 1013904223;
        b = static_cast<char>(seed >> 24);
    }
    return bytes;
}

void WriteFile(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary);
    out << bytes;
    ASSERT_TRUE(out.good()) << path;
}

std::string ReadWhole(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

bool RunShell(const std::string& command) {
    return std::system(command.c_str()) == 0;
}

bool HaveTool(const char* tool) {
    return RunShell(std::string("command -v ") + tool + " >/dev/null");
}

// Opens `path` with `reader` through the library's own stream.
bool OpenWith(ITarnExtractor* reader, const std::string& path) {
    TarnPtr<ITarnInStream> stream = MakeInStream(path);
    if (!stream) return false;
    return reader->Open(stream.Get(), 0);
}

// name -> (size, is folder) of everything listed.
std::map<std::string, std::pair<int64_t, bool>> Listing(const ITarnExtractor& reader) {
    std::map<std::string, std::pair<int64_t, bool>> list;
    const TarnFileList* files = reader.GetFileList();
    for (uint32_t i = 0; i < files->GetCount(); ++i) {
        const TarnFileItem* item = files->Get(i);
        list[item->fileName] = {item->uncompressedSize, item->IsFolder()};
    }
    return list;
}

// ---------------------------------------------------------------------------------------------
// Tar

class TarReader : public ::testing::Test {
protected:
    void SetUp() override {
        if (!HaveTool("tar")) GTEST_SKIP() << "tar is not installed";
        std::filesystem::create_directories(dir / "src/sub");
        std::filesystem::create_directories(dir / ("src/" + longFolder));
        WriteFile(dir / "src/a.txt", a);
        WriteFile(dir / "src/sub/b.bin", b);
        WriteFile(dir / "src/e.txt", "");
        WriteFile(dir / ("src/" + longPath), c);
    }
    // Makes `name` with tar's `format` from the fixtures; `withLong` adds the long path.
    std::string MakeTar(const std::string& name, const std::string& format, bool withLong) {
        const std::string path = dir / name;
        std::string command = "cd '" + (dir / "src") + "' && tar --format=" + format +
                              " --no-recursion -cf '" + path + "' a.txt sub sub/b.bin e.txt";
        if (withLong) command += " '" + longPath + "'";
        EXPECT_TRUE(RunShell(command + " 2>/dev/null")) << command;
        return path;
    }
    void ExpectExtracted(CTarnUnTar& tar, bool withLong) {
        const std::string out = dir / "out";
        std::filesystem::remove_all(out);
        EXPECT_TRUE(tar.ExtractAll(&out)) << tar.GetLastError();
        EXPECT_EQ(ReadWhole(out + "/a.txt"), a);
        EXPECT_EQ(ReadWhole(out + "/sub/b.bin"), b);
        EXPECT_TRUE(std::filesystem::exists(out + "/e.txt"));
        if (withLong) {
            EXPECT_EQ(ReadWhole(out + "/" + longPath), c);
        }
    }

    ScratchFolder dir;
    const std::string a = Pattern(1000, 1), b = Pattern(70000, 2), c = Pattern(600, 3);
    const std::string longFolder = std::string(80, 'd');
    const std::string longPath = longFolder + "/" + std::string(60, 'f') + ".jpg";
};

TEST_F(TarReader, ListsAndExtractsEveryHeaderForm) {
    std::string longName = longPath;
    for (char& ch : longName)
        if (ch == '/') ch = '\\';
    for (const char* format : {"gnu", "ustar", "pax", "v7"}) {
        SCOPED_TRACE(format);
        const bool withLong = std::string(format) != "v7";  // old headers hold 100 bytes
        const std::string path = MakeTar(std::string(format) + ".tar", format, withLong);
        CTarnUnTar tar;
        ASSERT_TRUE(OpenWith(&tar, path)) << tar.GetLastError();
        auto list = Listing(tar);
        EXPECT_EQ(list["a.txt"], std::make_pair(int64_t{1000}, false));
        EXPECT_EQ(list["sub\\b.bin"], std::make_pair(int64_t{70000}, false));
        EXPECT_EQ(list["e.txt"], std::make_pair(int64_t{0}, false));
        EXPECT_EQ(list["sub\\"], std::make_pair(int64_t{0}, true));
        if (withLong) {
            EXPECT_EQ(list[longName], std::make_pair(int64_t{600}, false));
        }
        EXPECT_EQ(tar.GetFileList()->GetCount(), withLong ? 5u : 4u);
        const TarnFileItem* first = tar.GetFileList()->Get(0);
        EXPECT_EQ(first->dataPos, first->headerPos + 512);
        EXPECT_GT(first->fileTime, 1600000000u);
        EXPECT_EQ(first->fileTimeNT, TarnTimeToFileTime(first->fileTime));
        ExpectExtracted(tar, withLong);
    }
}

TEST_F(TarReader, ReadsThroughANumberedVolumeSet) {
    // Cut inside the data of sub/b.bin and inside the header of e.txt, so that both a copy and
    // the walk cross volumes.
    const std::string bytes = ReadWhole(MakeTar("whole.tar", "gnu", true));
    const size_t cuts[] = {0, 512 * 5 + 1234, 512 * 143 + 7, bytes.size()};
    for (int i = 0; i < 3; ++i) {
        char name[32];
        snprintf(name, sizeof name, "set.tar.%03d", i + 1);
        WriteFile(dir / name, bytes.substr(cuts[i], cuts[i + 1] - cuts[i]));
    }
    CTarnUnTar tar;
    ASSERT_TRUE(OpenWith(&tar, dir / "set.tar.001")) << tar.GetLastError();
    EXPECT_EQ(tar.GetFileList()->GetCount(), 5u);
    ExpectExtracted(tar, true);
}

TEST_F(TarReader, BadChecksumStillListsAndCutDataFailsOnlyItsEntry) {
    const std::string path = MakeTar("bad.tar", "gnu", false);
    std::string bytes = ReadWhole(path);
    bytes[100] ^= 1;  // the mode field of the first header
    WriteFile(path, bytes);
    CTarnUnTar tar;
    EXPECT_FALSE(OpenWith(&tar, path));
    EXPECT_EQ(tar.GetLastError(), TARN_ERR_BROKEN);
    EXPECT_EQ(tar.GetFileList()->GetCount(), 4u);

    // Cut inside the data of sub/b.bin: the entries before it still extract.
    bytes[100] ^= 1;
    const std::string cut = dir / "cut.tar";
    WriteFile(cut, bytes.substr(0, 512 * 4 + 30000));
    ASSERT_TRUE(OpenWith(&tar, cut));
    ASSERT_EQ(tar.GetFileList()->GetCount(), 3u);
    const std::string out = dir / "cutout";
    const uint32_t good[] = {0};
    EXPECT_TRUE(tar.ExtractFiles(good, 1, &out));
    const uint32_t cutEntry[] = {2};
    EXPECT_FALSE(tar.ExtractFiles(cutEntry, 1, &out));
    EXPECT_EQ(tar.GetLastError(), TARN_ERR_DATA_READ);

    // Cut inside the second header (a.txt's data fills two blocks).
    WriteFile(cut, bytes.substr(0, 512 * 3 + 100));
    EXPECT_FALSE(OpenWith(&tar, cut));
    EXPECT_EQ(tar.GetLastError(), TARN_ERR_HEADER);
}

// A header block written by hand; `size` goes into the 12-byte field as given.
std::string Header(const std::string& name, const std::string& sizeField, char type) {
    std::string block(512, '\0');
    memcpy(block.data(), name.data(), name.size());
    memcpy(block.data() + 100, "0000644", 7);
    memcpy(block.data() + 124, sizeField.data(), std::min<size_t>(12, sizeField.size()));
    memcpy(block.data() + 136, "14000000000", 11);
    block[156] = type;
    memset(block.data() + 148, ' ', 8);
    unsigned sum = 0;
    for (unsigned char ch : block) sum += ch;
    snprintf(block.data() + 148, 8, "%06o", sum);
    return block;
}

TEST(TarNumbers, OctalAndBase256Fields) {
    const uint8_t octal[12] = {' ', ' ', '1', '7', '7', '7', 0, '5'};
    EXPECT_EQ(TarnTarNumber(octal, 12), 01777u);
    const uint8_t stops[12] = {'1', '2', '8', '7'};  // 8 is no octal digit
    EXPECT_EQ(TarnTarNumber(stops, 12), 012u);
    const uint8_t big[12] = {0x80, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 5};
    EXPECT_EQ(TarnTarNumber(big, 12), (uint64_t{2} << 32) + 5);
    const uint8_t mode[8] = {0x80, 0, 0, 0, 0, 0, 1, 0};
    EXPECT_EQ(TarnTarNumber(mode, 8), 256u);

    // A base-256 size in a real header, and a negative one, which ends the walk.
    ScratchFolder dir;
    std::string size256(12, '\0');
    size256[0] = static_cast<char>(0x80);
    size256[10] = 2;
    size256[11] = static_cast<char>(0xBC);  // 700
    const std::string data = Pattern(700, 9);
    std::string tar = Header("big.bin", size256, '0') + data + std::string(1024 - 700, '\0') +
                      std::string(1024, '\0');
    WriteFile(dir / "b256.tar", tar);
    CTarnUnTar reader;
    ASSERT_TRUE(OpenWith(&reader, dir / "b256.tar"));
    ASSERT_EQ(reader.GetFileList()->GetCount(), 1u);
    EXPECT_EQ(reader.GetFileList()->Get(0)->uncompressedSize, 700);
    const std::string out = dir / "out";
    EXPECT_TRUE(reader.ExtractAll(&out));
    EXPECT_EQ(ReadWhole(out + "/big.bin"), data);

    std::string negative(12, static_cast<char>(0xFF));
    WriteFile(dir / "neg.tar", Header("x", negative, '0') + std::string(1024, '\0'));
    EXPECT_FALSE(OpenWith(&reader, dir / "neg.tar"));
    EXPECT_EQ(reader.GetFileList()->GetCount(), 0u);

    // A size just under the largest the walk accepts: listed as cut, no overflow past it.
    std::string huge(12, '\0');  // INT64_MAX - 512
    huge[0] = static_cast<char>(0x80);
    huge[4] = static_cast<char>(0x7F);
    for (int i = 5; i <= 9; ++i) huge[i] = static_cast<char>(0xFF);
    huge[10] = static_cast<char>(0xFD);
    huge[11] = static_cast<char>(0xFF);
    WriteFile(dir / "huge.tar", Header("huge", huge, '0') + std::string(1024, '\0'));
    OpenWith(&reader, dir / "huge.tar");
    ASSERT_EQ(reader.GetFileList()->GetCount(), 1u);
    EXPECT_GT(reader.GetFileList()->Get(0)->uncompressedSize, int64_t{1} << 62);

    // A name that climbs out is not listed; the rest is.
    WriteFile(dir / "climb.tar",
              Header("../evil", "0", '0') + Header("ok", "0", '0') + std::string(1024, '\0'));
    EXPECT_FALSE(OpenWith(&reader, dir / "climb.tar"));
    ASSERT_EQ(reader.GetFileList()->GetCount(), 1u);
    EXPECT_EQ(reader.GetFileList()->Get(0)->fileName, "ok");
}

// ---------------------------------------------------------------------------------------------
// Gzip and bzip2

TEST(GzipReader, NamesSizesAndData) {
    if (!HaveTool("gzip")) GTEST_SKIP() << "gzip is not installed";
    ScratchFolder dir;
    const std::string data = Pattern(300000, 20) + std::string(200000, 'z');
    WriteFile(dir / "inner.jpg", data);
    // No stored name: a .tgz lists its .tar.
    ASSERT_TRUE(
        RunShell("gzip -n -c '" + (dir / "inner.jpg") + "' > '" + (dir / "book.tgz") + "'"));
    CTarnUnGzip gz;
    ASSERT_TRUE(OpenWith(&gz, dir / "book.tgz")) << gz.GetLastError();
    ASSERT_EQ(gz.GetFileList()->GetCount(), 1u);
    const TarnFileItem* item = gz.GetFileList()->Get(0);
    EXPECT_EQ(item->fileName, "book.tar");
    EXPECT_EQ(item->uncompressedSize, static_cast<int64_t>(data.size()));
    EXPECT_EQ(item->compressedSize,
              static_cast<int64_t>(ReadWhole(dir / "book.tgz").size()) - item->dataPos - 8);
    EXPECT_NE(item->crc32, 0u);
    const std::string out = dir / "out";
    EXPECT_TRUE(gz.ExtractAll(&out)) << gz.GetLastError();
    EXPECT_EQ(ReadWhole(out + "/book.tar"), data);

    // The stored name wins over the file's own.
    ASSERT_TRUE(RunShell("cd '" + dir.Path() + "' && gzip -c inner.jpg > renamed.gz"));
    ASSERT_TRUE(OpenWith(&gz, dir / "renamed.gz"));
    EXPECT_EQ(gz.GetFileList()->Get(0)->fileName, "inner.jpg");

    // A broken CRC fails the extraction.
    std::string bytes = ReadWhole(dir / "book.tgz");
    bytes[bytes.size() - 8] ^= 0x40;
    WriteFile(dir / "crc.gz", bytes);
    ASSERT_TRUE(OpenWith(&gz, dir / "crc.gz"));
    EXPECT_FALSE(gz.ExtractAll(&out));
    EXPECT_EQ(gz.GetLastError(), TARN_ERR_CRC);

    // Data cut short is corrupt, not endless.
    WriteFile(dir / "short.gz", bytes.substr(0, 1000) + bytes.substr(bytes.size() - 8));
    ASSERT_TRUE(OpenWith(&gz, dir / "short.gz"));
    EXPECT_FALSE(gz.ExtractAll(&out));
    EXPECT_EQ(gz.GetLastError(), TARN_ERR_CORRUPT);
}

TEST(GzipReader, TheCommentEndsAtTheCharacterZero) {
    if (!HaveTool("gzip")) GTEST_SKIP() << "gzip is not installed";
    ScratchFolder dir;
    WriteFile(dir / "p.bmp", Pattern(5000, 21));
    ASSERT_TRUE(RunShell("gzip -n -c '" + (dir / "p.bmp") + "' > '" + (dir / "plain.gz") + "'"));
    const std::string plain = ReadWhole(dir / "plain.gz");
    auto withComment = [&](const std::string& comment) {
        std::string bytes = plain;
        bytes[3] = 0x10;
        return bytes.substr(0, 10) + comment + bytes.substr(10);
    };
    // "x0" ends at the '0'; what follows is the Deflate data.
    WriteFile(dir / "c.gz", withComment("x0"));
    CTarnUnGzip gz;
    ASSERT_TRUE(OpenWith(&gz, dir / "c.gz"));
    const std::string out = dir / "out";
    EXPECT_TRUE(gz.ExtractAll(&out));
    EXPECT_EQ(ReadWhole(out + "/c"), ReadWhole(dir / "p.bmp"));
    // A comment with no '0' runs through the file.
    std::string noZero = withComment("abc");
    for (char& ch : noZero)
        if (ch == '0') ch = '1';
    WriteFile(dir / "n.gz", noZero);
    EXPECT_FALSE(OpenWith(&gz, dir / "n.gz"));
    EXPECT_EQ(gz.GetFileList()->GetCount(), 0u);
}

TEST(Bzip2Reader, UnknownSizeConcatenatedStreamsAndDamage) {
    if (!HaveTool("bzip2")) GTEST_SKIP() << "bzip2 is not installed";
    ScratchFolder dir;
    const std::string one = Pattern(150000, 30), two = std::string(90000, 'q');
    WriteFile(dir / "one", one);
    WriteFile(dir / "two", two);
    ASSERT_TRUE(
        RunShell("cd '" + dir.Path() + "' && bzip2 -c one > pics.tbz && bzip2 -c two >> pics.tbz"));
    CTarnUnBzip2 bz;
    ASSERT_TRUE(OpenWith(&bz, dir / "pics.tbz")) << bz.GetLastError();
    const TarnFileItem* item = bz.GetFileList()->Get(0);
    ASSERT_NE(item, nullptr);
    EXPECT_EQ(item->fileName, "pics.tar");
    EXPECT_EQ(item->uncompressedSize, -1);
    EXPECT_EQ(item->compressionMethod, 12);
    const std::string out = dir / "out";
    EXPECT_TRUE(bz.ExtractAll(&out)) << bz.GetLastError();
    EXPECT_EQ(ReadWhole(out + "/pics.tar"), one + two);

    std::string bytes = ReadWhole(dir / "pics.tbz");
    bytes[200] ^= 0x55;
    WriteFile(dir / "bad.bz2", bytes);
    ASSERT_TRUE(OpenWith(&bz, dir / "bad.bz2"));
    EXPECT_EQ(bz.GetFileList()->Get(0)->fileName, "bad");
    EXPECT_FALSE(bz.ExtractAll(&out));
    EXPECT_EQ(bz.GetLastError(), TARN_ERR_BZIP2);
    WriteFile(dir / "cut.bz2", bytes.substr(0, 5000));
    ASSERT_TRUE(OpenWith(&bz, dir / "cut.bz2"));
    EXPECT_FALSE(bz.ExtractAll(&out));
    EXPECT_EQ(bz.GetLastError(), TARN_ERR_BZIP2);
}

TEST(CompressedNames, ExtensionsAndFallbacks) {
    EXPECT_EQ(TarnCompressedEntryName("/x/book.TGZ", "noname.gz", ".tgz"), "book.tar");
    EXPECT_EQ(TarnCompressedEntryName("/x/a.jpg.gz", "noname.gz", ".tgz"), "a.jpg");
    EXPECT_EQ(TarnCompressedEntryName("/x/", "noname.gz", ".tgz"), "noname");
    EXPECT_EQ(TarnCompressedEntryName("/x/s.tbz2", "noname.bz2", ".tbz|.tbz2"), "s.tar");
    EXPECT_EQ(TarnCompressedEntryName("plain", "noname.bz2", ".tbz|.tbz2"), "plain");
}

}  // namespace
