// The ZIP reader against archives made by Info-ZIP's zip and by 7z at test time, and against
// archives built byte by byte where the tools can't make the case (ZIP64 records, hostile names,
// an AES192 entry).
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "archive/tarnman.h"
#include "archive/zip.h"
#include "base/crc32.h"
#include "zip_teststreams.h"

namespace fs = std::filesystem;
using ziptest::CMemIn;
using ziptest::CMemMultiIn;
using ziptest::MemSink;

namespace {

std::string ReadFile(const fs::path& p) {
    std::ifstream f(p, std::ios::binary);
    std::ostringstream s;
    s << f.rdbuf();
    return s.str();
}

void WriteFile(const fs::path& p, const std::string& data) {
    fs::create_directories(p.parent_path());
    std::ofstream(p, std::ios::binary) << data;
}

// Text that compresses, and bytes that don't.
std::string Text(int lines) {
    std::string s;
    for (int i = 0; i < lines; ++i) s += "line " + std::to_string(i * 7919 % 1000) + " of a page\n";
    return s;
}
std::string Noise(size_t size, uint32_t seed) {
    std::string s(size, '\0');
    for (char& c : s) {
        seed = seed * 1664525u + 1013904223u;
        c = char(seed >> 24);
    }
    return s;
}

void Put16(std::string& s, uint32_t v) {
    s += char(v & 0xFF);
    s += char((v >> 8) & 0xFF);
}
void Put32(std::string& s, uint32_t v) {
    Put16(s, v & 0xFFFF);
    Put16(s, v >> 16);
}
void Put64(std::string& s, uint64_t v) {
    Put32(s, uint32_t(v));
    Put32(s, uint32_t(v >> 32));
}

// A stored entry for the hand-made archives.
struct RawEntry {
    std::string name;
    std::string data;
    bool zip64 = false;             // sizes and offset only in the ZIP64 extra field
    uint32_t dosTime = 0x5A210000;  // 2025-01-01 00:00
};

// A ZIP with stored entries; with `zip64End` the end record sends readers to the ZIP64 records.
// `prefix` is counted in the offsets, as a marker in front of the first header is.
std::string BuildZip(const std::vector<RawEntry>& entries, bool zip64End = false,
                     const std::string& prefix = "") {
    std::string out = prefix, dir;
    for (const RawEntry& e : entries) {
        const uint32_t offset = uint32_t(out.size());
        const uint32_t crc = Crc32(e.data.data(), e.data.size());
        const uint32_t size = e.zip64 ? 0xFFFFFFFF : uint32_t(e.data.size());
        std::string localExtra, centralExtra;
        if (e.zip64) {
            Put16(localExtra, 1);
            Put16(localExtra, 16);
            Put64(localExtra, e.data.size());
            Put64(localExtra, e.data.size());
            Put16(centralExtra, 1);
            Put16(centralExtra, 24);
            Put64(centralExtra, e.data.size());
            Put64(centralExtra, e.data.size());
            Put64(centralExtra, offset);
        }
        Put32(out, 0x04034B50);
        Put16(out, 45);
        Put16(out, 0);
        Put16(out, 0);
        Put32(out, e.dosTime);
        Put32(out, crc);
        Put32(out, size);
        Put32(out, size);
        Put16(out, uint32_t(e.name.size()));
        Put16(out, uint32_t(localExtra.size()));
        out += e.name + localExtra + e.data;

        Put32(dir, 0x02014B50);
        Put16(dir, 45);
        Put16(dir, 45);
        Put16(dir, 0);
        Put16(dir, 0);
        Put32(dir, e.dosTime);
        Put32(dir, crc);
        Put32(dir, size);
        Put32(dir, size);
        Put16(dir, uint32_t(e.name.size()));
        Put16(dir, uint32_t(centralExtra.size()));
        Put16(dir, 0);
        Put16(dir, 0);
        Put16(dir, 0);
        Put32(dir, 0x01);  // read-only
        Put32(dir, e.zip64 ? 0xFFFFFFFF : offset);
        dir += e.name + centralExtra;
    }
    const uint32_t dirOffset = uint32_t(out.size());
    out += dir;
    if (zip64End) {
        const uint64_t end64 = out.size();
        Put32(out, 0x06064B50);
        Put64(out, 44);
        Put16(out, 45);
        Put16(out, 45);
        Put32(out, 0);
        Put32(out, 0);
        Put64(out, entries.size());
        Put64(out, entries.size());
        Put64(out, dir.size());
        Put64(out, dirOffset);
        Put32(out, 0x07064B50);
        Put32(out, 0);
        Put64(out, end64);
        Put32(out, 1);
    }
    Put32(out, 0x06054B50);
    Put16(out, 0);
    Put16(out, 0);
    Put16(out, zip64End ? 0xFFFF : uint32_t(entries.size()));
    Put16(out, zip64End ? 0xFFFF : uint32_t(entries.size()));
    Put32(out, uint32_t(dir.size()));
    Put32(out, zip64End ? 0xFFFFFFFF : dirOffset);
    Put16(out, 0);
    return out;
}

// Every offset of `needle` in `hay`.
std::vector<size_t> FindAll(const std::string& hay, const std::string& needle) {
    std::vector<size_t> at;
    for (size_t p = hay.find(needle); p != std::string::npos; p = hay.find(needle, p + 1))
        at.push_back(p);
    return at;
}

class ZipTest : public ::testing::Test {
protected:
    void SetUp() override {
        const char* tmp = std::getenv("ORLIMO_TEST_TMP");
        dir_ = fs::path(tmp ? tmp : "/tmp") / "zip" /
               ::testing::UnitTest::GetInstance()->current_test_info()->name();
        fs::remove_all(dir_);
        fs::create_directories(dir_ / "in");
        zip_.SetOutStreamFactory(&ziptest::MakeMemOut, &sink_);
    }

    // Runs a command inside the test folder; the tool's chatter is dropped.
    void Run(const std::string& command) {
        const std::string full = "cd '" + dir_.string() + "' && " + command + " >/dev/null 2>&1";
        ASSERT_EQ(std::system(full.c_str()), 0) << command;
    }
    void Input(const std::string& name, const std::string& data) {
        WriteFile(dir_ / "in" / name, data);
    }

    bool Open(const std::string& bytes, int64_t offset = 0) {
        auto* in = new CMemIn<>(bytes);
        const bool ok = zip_.Open(in, offset);
        in->Release();
        return ok;
    }
    bool OpenFile(const std::string& name, int64_t offset = 0) {
        return Open(ReadFile(dir_ / name), offset);
    }

    const TarnFileItem* Item(const std::string& name) {
        const TarnFileList* list = zip_.GetFileList();
        for (uint32_t i = 0; i < list->GetCount(); ++i)
            if (list->Get(i)->fileName == name) return list->Get(i);
        return nullptr;
    }
    int Index(const std::string& name) {
        const TarnFileList* list = zip_.GetFileList();
        for (uint32_t i = 0; i < list->GetCount(); ++i)
            if (list->Get(i)->fileName == name) return int(i);
        return -1;
    }
    // Extracts one entry to memory; its bytes in *data.
    bool Extract(const std::string& name, std::string* data = nullptr) {
        const int index = Index(name);
        if (index < 0) return false;
        sink_.files.clear();
        const uint32_t i = uint32_t(index);
        const bool ok = zip_.ExtractFiles(&i, 1, nullptr);
        if (data) *data = sink_.files.empty() ? std::string() : sink_.files.begin()->second;
        return ok;
    }

    // ZipCrypto checks one byte, so one wrong password in 256 passes the check and fails later
    // in the data. Every wrong password must fail; nearly all of them at the check.
    void ExpectWrongPasswordsFail(const std::string& name) {
        int atCheck = 0;
        for (const char* password : {"wrong", "secreT", "Secret", "s", "secret1", "x y"}) {
            zip_.SetPassword(password);
            EXPECT_FALSE(Extract(name)) << password;
            const uint32_t error = zip_.GetLastError();
            EXPECT_TRUE(error == TARN_ERR_WRONG_PASSWORD || error == TARN_ERR_CORRUPT ||
                        error == TARN_ERR_CRC)
                << error;
            atCheck += error == TARN_ERR_WRONG_PASSWORD;
        }
        EXPECT_GE(atCheck, 3);
    }

    fs::path dir_;
    CTarnUnZip zip_;
    MemSink sink_;
};

TEST_F(ZipTest, StoredAndDeflatedEntriesListAndExtract) {
    const std::string text = Text(3000), noise = Noise(70000, 1);
    Input("book/001.txt", text);
    Input("book/002.bin", noise);
    Input("book/empty.txt", "");
    Run("cd in && zip -q -r -0 ../stored.zip book && zip -q -r -9 ../deflated.zip book");

    for (const char* archive : {"stored.zip", "deflated.zip"}) {
        SCOPED_TRACE(archive);
        zip_.Close();
        ASSERT_TRUE(OpenFile(archive));
        EXPECT_EQ(zip_.GetLastError(), TARN_OK);
        const TarnFileItem* folder = Item("book\\");
        ASSERT_NE(folder, nullptr);
        EXPECT_TRUE(folder->IsFolder());
        const TarnFileItem* page = Item("book\\001.txt");
        ASSERT_NE(page, nullptr);
        EXPECT_FALSE(page->IsFolder());
        EXPECT_EQ(page->uncompressedSize, int64_t(text.size()));
        EXPECT_EQ(page->compressionMethod, archive[0] == 's' ? 0 : 8);
        EXPECT_NE(page->fileTime, 0u);
        EXPECT_EQ(page->fileTimeNT, TarnTimeToFileTime(page->fileTime));
        EXPECT_EQ(page->dataPos, 0) << "the fast way reads only the directory";
        EXPECT_EQ(zip_.GetFileList()->GetFolderCount(), 1u);
        EXPECT_EQ(zip_.GetFileList()->GetFileCount(), 3u);

        std::string data;
        EXPECT_TRUE(Extract("book\\001.txt", &data));
        EXPECT_EQ(data, text);
        EXPECT_TRUE(Extract("book\\002.bin", &data));
        EXPECT_EQ(data, noise);
        EXPECT_TRUE(zip_.ExtractAll(nullptr)) << zip_.GetLastError();
    }
}

TEST_F(ZipTest, LargeDeflatedEntryStreamsThroughZlib) {
    // Beyond what is inflated whole: the streaming decoder, many blocks.
    std::string big;
    while (big.size() < (size_t(70) << 20)) big += Text(20000) + Noise(4096, uint32_t(big.size()));
    Input("big.txt", big);
    Run("cd in && zip -q -1 ../big.zip big.txt");
    ASSERT_TRUE(OpenFile("big.zip"));
    std::string data;
    EXPECT_TRUE(Extract("big.txt", &data));
    EXPECT_TRUE(data == big);
}

TEST_F(ZipTest, Utf8NamesAndFlagBit11) {
    Input("그림 01.txt", "a");
    Run("cd in && 7z a -tzip -mcu=on ../utf8.zip '그림 01.txt'");
    ASSERT_TRUE(OpenFile("utf8.zip"));
    const TarnFileItem* item = Item("그림 01.txt");
    ASSERT_NE(item, nullptr);
    EXPECT_TRUE(item->flags & 0x0800);
    EXPECT_EQ(item->fileNameW, "그림 01.txt");
}

TEST_F(ZipTest, ZipCryptoPasswordChecks) {
    const std::string text = Text(500);
    Input("p.txt", text);
    Input("s.bin", Noise(5000, 2));
    Run("cd in && zip -q -P secret ../zc.zip p.txt s.bin");
    ASSERT_TRUE(OpenFile("zc.zip"));
    EXPECT_TRUE(zip_.IsEncrypted());
    EXPECT_EQ(Item("p.txt")->encryptionMethod, 1u);
    EXPECT_STREQ(EncryptionMethod2Str(Item("p.txt")->encryptionMethod), "ZipCrypto");

    EXPECT_FALSE(Extract("p.txt"));
    EXPECT_EQ(zip_.GetLastError(), TARN_ERR_NEED_PASSWORD);
    ExpectWrongPasswordsFail("p.txt");
    zip_.SetPassword("secret");
    std::string data;
    EXPECT_TRUE(Extract("p.txt", &data));
    EXPECT_EQ(data, text);
    EXPECT_TRUE(Extract("s.bin", &data));
    EXPECT_EQ(data, Noise(5000, 2));

    // Written from a pipe: the CRC follows the data, so the check byte is the time's.
    Run("cd in && zip -q -P secret ../pipe.zip - < p.txt");
    zip_.Close();
    ASSERT_TRUE(OpenFile("pipe.zip"));
    ASSERT_TRUE(Item("-")->flags & 0x0008);
    EXPECT_TRUE(Extract("-", &data));
    EXPECT_EQ(data, text);
    ExpectWrongPasswordsFail("-");
}

TEST_F(ZipTest, WinZipAesEntries) {
    const std::string text = Text(4000);
    Input("a.txt", text);
    Run("cd in && 7z a -tzip -mem=AES256 -psecret ../aes256.zip a.txt");
    Run("cd in && 7z a -tzip -mem=AES128 -psecret ../aes128.zip a.txt");
    Run("cd in && 7z a -tzip -mem=AES256 -mm=Copy -psecret ../aescopy.zip a.txt");

    for (const auto& [archive, method] :
         {std::pair{"aes256.zip", 4u}, {"aes128.zip", 2u}, {"aescopy.zip", 4u}}) {
        SCOPED_TRACE(archive);
        zip_.Close();
        zip_.SetPassword(nullptr);
        ASSERT_TRUE(OpenFile(archive));
        const TarnFileItem* item = Item("a.txt");
        ASSERT_NE(item, nullptr);
        EXPECT_EQ(item->encryptionMethod, method);
        // Method 99 names the encryption; the real method comes from the AES field.
        EXPECT_EQ(item->compressionMethod, archive == std::string("aescopy.zip") ? 0 : 8);
        EXPECT_FALSE(Extract("a.txt"));
        EXPECT_EQ(zip_.GetLastError(), TARN_ERR_NEED_PASSWORD);
        zip_.SetPassword("secreT");
        EXPECT_FALSE(Extract("a.txt"));
        // The 2-byte verifier lets one wrong password in 65536 through to the
        // authentication code, which then fails the entry.
        EXPECT_TRUE(zip_.GetLastError() == TARN_ERR_WRONG_PASSWORD ||
                    zip_.GetLastError() == TARN_ERR_DATA_READ);
        zip_.SetPassword("secret");
        std::string data;
        EXPECT_TRUE(Extract("a.txt", &data));
        EXPECT_EQ(data, text);
    }

    // A flipped ciphertext byte of a stored entry fails the authentication code.
    std::string bytes = ReadFile(dir_ / "aescopy.zip");
    bytes[200] ^= 0x10;
    zip_.Close();
    ASSERT_TRUE(Open(bytes));
    EXPECT_FALSE(Extract("a.txt"));
    EXPECT_EQ(zip_.GetLastError(), TARN_ERR_DATA_READ);
}

TEST_F(ZipTest, Aes192ListsButDoesNotExtract) {
    Input("a.txt", Text(10));
    Run("cd in && 7z a -tzip -mem=AES256 -psecret ../aes.zip a.txt");
    // Strength 3 (256) becomes 2 (192) in both AES fields.
    std::string bytes = ReadFile(dir_ / "aes.zip");
    const auto fields = FindAll(bytes, std::string("\x01\x99\x07\x00", 4));
    ASSERT_EQ(fields.size(), 2u);
    for (size_t at : fields) bytes[at + 8] = 2;
    ASSERT_TRUE(Open(bytes));
    zip_.SetPassword("secret");
    const TarnFileItem* item = Item("a.txt");
    ASSERT_NE(item, nullptr);
    EXPECT_STREQ(EncryptionMethod2Str(item->encryptionMethod), "AES192");
    EXPECT_FALSE(Extract("a.txt"));
    EXPECT_EQ(zip_.GetLastError(), TARN_ERR_ENCRYPTION);
}

TEST_F(ZipTest, Bzip2AndLzmaEntries) {
    const std::string text = Text(20000) + Noise(3000, 3);
    Input("a.txt", text);
    Run("cd in && 7z a -tzip -mm=BZip2 ../bz.zip a.txt");
    Run("cd in && 7z a -tzip -mm=LZMA ../lz.zip a.txt");
    Run("cd in && 7z a -tzip -mm=LZMA:eos=on ../lzeos.zip a.txt");
    Run("cd in && 7z a -tzip -mm=LZMA -mem=AES256 -psecret ../lzaes.zip a.txt");
    for (const auto& [archive, method] :
         {std::pair{"bz.zip", 12}, {"lz.zip", 14}, {"lzeos.zip", 14}, {"lzaes.zip", 14}}) {
        SCOPED_TRACE(archive);
        zip_.Close();
        zip_.SetPassword("secret");
        ASSERT_TRUE(OpenFile(archive));
        EXPECT_EQ(Item("a.txt")->compressionMethod, method);
        std::string data;
        EXPECT_TRUE(Extract("a.txt", &data));
        EXPECT_TRUE(data == text);
    }
}

TEST_F(ZipTest, DamagedCompressedData) {
    const std::string text = Text(20000);
    Input("a.txt", text);
    Run("cd in && zip -q ../d.zip a.txt && 7z a -tzip -mm=BZip2 ../bz.zip a.txt");
    Run("cd in && 7z a -tzip -mm=LZMA ../lz.zip a.txt");
    for (const auto& [archive, error] :
         {std::pair{"d.zip", TARN_ERR_CORRUPT}, {"bz.zip", TARN_ERR_BZIP2}}) {
        SCOPED_TRACE(archive);
        std::string bytes = ReadFile(dir_ / archive);
        for (size_t i = 60; i < 400; ++i) bytes[i] = char(0xFF);
        zip_.Close();
        ASSERT_TRUE(Open(bytes));
        EXPECT_FALSE(Extract("a.txt"));
        EXPECT_EQ(zip_.GetLastError(), uint32_t(error));
    }
    // LZMA's short header claims a property block of another size.
    std::string bytes = ReadFile(dir_ / "lz.zip");
    const size_t data = 30 + 5;
    bytes[data + 2] = 6;
    zip_.Close();
    ASSERT_TRUE(Open(bytes));
    EXPECT_FALSE(Extract("a.txt"));
    EXPECT_EQ(zip_.GetLastError(), TARN_ERR_LZMA_HEADER);
}

TEST_F(ZipTest, Deflate64Entries) {
    // Long enough that matches reach beyond 32 KiB, and with stored stretches of noise.
    std::string data;
    while (data.size() < 600000) data += Text(3000) + Noise(20000, uint32_t(data.size()));
    Input("a.txt", data);
    Input("b.bin", Noise(100000, 12));
    Run("cd in && 7z a -tzip -mm=Deflate64 ../d64.zip a.txt b.bin");
    Run("cd in && 7z a -tzip -mm=Deflate64 -mem=AES256 -psecret ../d64aes.zip a.txt");
    for (const char* archive : {"d64.zip", "d64aes.zip"}) {
        SCOPED_TRACE(archive);
        zip_.Close();
        zip_.SetPassword("secret");
        ASSERT_TRUE(OpenFile(archive));
        EXPECT_EQ(Item("a.txt")->compressionMethod, 9);
        std::string out;
        EXPECT_TRUE(Extract("a.txt", &out));
        EXPECT_TRUE(out == data);
    }
    zip_.Close();
    ASSERT_TRUE(OpenFile("d64.zip"));
    std::string out;
    EXPECT_TRUE(Extract("b.bin", &out));
    EXPECT_TRUE(out == Noise(100000, 12));

    std::string bytes = ReadFile(dir_ / "d64.zip");
    for (size_t i = 45; i < 300; ++i) bytes[i] = char(0xFF);
    zip_.Close();
    ASSERT_TRUE(Open(bytes));
    EXPECT_FALSE(Extract("a.txt"));
    EXPECT_EQ(zip_.GetLastError(), TARN_ERR_CORRUPT);
}

TEST_F(ZipTest, UnknownMethodIsNotSupported) {
    Input("a.txt", Text(100));
    Run("cd in && 7z a -tzip -mm=PPMd ../ppmd.zip a.txt");
    ASSERT_TRUE(OpenFile("ppmd.zip"));
    EXPECT_EQ(Item("a.txt")->compressionMethod, 98);
    EXPECT_FALSE(Extract("a.txt"));
    EXPECT_EQ(zip_.GetLastError(), TARN_ERR_METHOD);
}

TEST_F(ZipTest, CrcMismatch) {
    Input("a.txt", Text(100));
    Input("b.txt", Noise(100, 4));
    Run("cd in && zip -q -0 ../s.zip a.txt && zip -q -9 ../d.zip b.txt");
    for (const char* archive : {"s.zip", "d.zip"}) {
        SCOPED_TRACE(archive);
        std::string bytes = ReadFile(dir_ / archive);
        const size_t central = bytes.find("PK\x01\x02");
        ASSERT_NE(central, std::string::npos);
        bytes[central + 16] ^= 1;
        zip_.Close();
        ASSERT_TRUE(Open(bytes));
        EXPECT_FALSE(Extract(archive[0] == 's' ? "a.txt" : "b.txt"));
        EXPECT_EQ(zip_.GetLastError(), TARN_ERR_CRC);
    }
}

TEST_F(ZipTest, SplitArchive) {
    const std::string noise = Noise(200000, 5), text = Text(5000);
    Input("r.bin", noise);
    Input("t.txt", text);
    Run("cd in && zip -q -s 64k ../sp.zip r.bin t.txt");
    std::vector<std::string> volumes;
    for (int i = 1; fs::exists(dir_ / ("sp.z0" + std::to_string(i))); ++i)
        volumes.push_back(ReadFile(dir_ / ("sp.z0" + std::to_string(i))));
    ASSERT_GE(volumes.size(), 3u);
    volumes.push_back(ReadFile(dir_ / "sp.zip"));
    auto* in = new CMemMultiIn(volumes);
    ASSERT_TRUE(zip_.Open(in, 0));
    in->Release();
    std::string data;
    EXPECT_TRUE(Extract("r.bin", &data));
    EXPECT_TRUE(data == noise);
    EXPECT_TRUE(Extract("t.txt", &data));
    EXPECT_EQ(data, text);
}

TEST_F(ZipTest, ExecutableStubTakesTheLocalScan) {
    const std::string text = Text(300);
    Input("a.txt", text);
    Input("b.bin", Noise(3000, 6));
    Run("cd in && zip -q ../plain.zip a.txt b.bin");
    const std::string stub = "MZ" + Noise(5000, 7);
    ASSERT_TRUE(Open(stub + ReadFile(dir_ / "plain.zip"), int64_t(stub.size())));
    EXPECT_EQ(zip_.GetLastError(), TARN_OK);
    ASSERT_EQ(zip_.GetFileList()->GetCount(), 2u);
    EXPECT_EQ(Item("a.txt")->headerPos, int64_t(stub.size()));
    EXPECT_NE(Item("a.txt")->dataPos, 0);
    std::string data;
    EXPECT_TRUE(Extract("a.txt", &data));
    EXPECT_EQ(data, text);
}

TEST_F(ZipTest, Zip64RecordsAreReadByTheLocalScan) {
    const std::string a = Text(50), b = Noise(1000, 8);
    ASSERT_TRUE(Open(BuildZip({{"a.txt", a, true}, {"dir/b.bin", b, false}}, true)));
    EXPECT_EQ(zip_.GetLastError(), TARN_OK);
    ASSERT_EQ(zip_.GetFileList()->GetCount(), 2u);
    const TarnFileItem* item = Item("dir\\b.bin");
    ASSERT_NE(item, nullptr);
    EXPECT_EQ(item->attributes & kTarnAttrReadOnly, kTarnAttrReadOnly) << "from the directory";
    EXPECT_EQ(Item("a.txt")->uncompressedSize, int64_t(a.size()));
    EXPECT_EQ(Item("a.txt")->compressedSize, int64_t(a.size()));
    std::string data;
    EXPECT_TRUE(Extract("dir\\b.bin", &data));
    EXPECT_EQ(data, b);
    EXPECT_TRUE(Extract("a.txt", &data));
    EXPECT_EQ(data, a);
}

TEST_F(ZipTest, TruncatedDirectoryStillListsTheEntries) {
    Input("a.txt", Text(300));
    Input("b.txt", Text(400));
    Run("cd in && zip -q ../t.zip a.txt b.txt");
    std::string bytes = ReadFile(dir_ / "t.zip");
    bytes.resize(bytes.find("PK\x01\x02") + 20);
    EXPECT_FALSE(Open(bytes));
    EXPECT_EQ(zip_.GetLastError(), TARN_ERR_BROKEN);
    EXPECT_EQ(zip_.GetFileList()->GetCount(), 2u);
    std::string data;
    EXPECT_TRUE(Extract("b.txt", &data));
    EXPECT_EQ(data, Text(400));

    // Cut inside the second entry's data: the first is listed, the archive is damaged.
    bytes.resize(bytes.find("b.txt") + 50);
    zip_.Close();
    EXPECT_FALSE(Open(bytes));
    EXPECT_EQ(zip_.GetLastError(), TARN_ERR_BROKEN);
    EXPECT_EQ(zip_.GetFileList()->GetCount(), 2u);
    EXPECT_TRUE(Extract("a.txt"));
    EXPECT_FALSE(Extract("b.txt"));
}

TEST_F(ZipTest, EntryTimesAreLocalTimes) {
    // Times around the spring and autumn changes of daylight saving time, odd minutes and
    // seconds, and fields out of range.
    std::vector<RawEntry> entries;
    const uint32_t dates[] = {(45u << 9) | (3u << 5) | 30, (45u << 9) | (10u << 5) | 26,
                              (44u << 9) | (11u << 5) | 3, (0u << 9) | (1u << 5) | 1,
                              (44u << 9) | (2u << 5) | 31};
    for (uint32_t date : dates)
        for (uint32_t hour : {0u, 1u, 2u, 3u, 13u, 23u, 25u})
            for (uint32_t minute : {0u, 1u, 30u, 59u, 63u})
                for (uint32_t second : {0u, 29u, 31u}) {
                    RawEntry e;
                    e.name = "t" + std::to_string(entries.size());
                    e.dosTime = date << 16 | hour << 11 | minute << 5 | second;
                    entries.push_back(e);
                }
    ASSERT_TRUE(Open(BuildZip(entries)));
    ASSERT_EQ(zip_.GetFileList()->GetCount(), entries.size());
    for (uint32_t i = 0; i < entries.size(); ++i) {
        const TarnFileItem* item = zip_.GetFileList()->Get(i);
        EXPECT_EQ(item->fileTime, TarnDosTimeToTime(entries[i].dosTime)) << item->fileName;
        EXPECT_EQ(item->dosTime, entries[i].dosTime);
    }
}

TEST_F(ZipTest, SplitMarkerInFrontOfASingleVolume) {
    // "PK00" then the first local header: the start offset is 4 and the fast way is taken.
    const std::string bytes = BuildZip({{"a.txt", "one"}, {"b.txt", "two"}}, false, "PK00");
    ASSERT_TRUE(Open(bytes, 4));
    EXPECT_EQ(zip_.GetFileList()->GetCount(), 2u);
    EXPECT_EQ(Item("b.txt")->dataPos, 0);
    std::string data;
    EXPECT_TRUE(Extract("b.txt", &data));
    EXPECT_EQ(data, "two");
}

TEST_F(ZipTest, OverlongNames) {
    const std::string longName(300, 'n');
    std::string bytes = BuildZip({{"a.txt", "one"}, {longName, "two"}, {"c.txt", "three"}});
    // Listed from the directory, the long name is skipped and the rest listed.
    ASSERT_TRUE(Open(bytes));
    EXPECT_EQ(zip_.GetFileList()->GetCount(), 2u);
    EXPECT_NE(Item("c.txt"), nullptr);
    // The local scan stops there.
    bytes.resize(bytes.find("PK\x01\x02"));
    zip_.Close();
    EXPECT_FALSE(Open(bytes));
    EXPECT_EQ(zip_.GetLastError(), TARN_ERR_NAME_REJECTED);
    EXPECT_EQ(zip_.GetFileList()->GetCount(), 1u);
}

TEST_F(ZipTest, NotAZip) {
    // An end record with nothing like a ZIP in front of it.
    std::string bytes = Noise(3000, 9);
    Put32(bytes, 0x06054B50);
    bytes += std::string(18, '\0');
    EXPECT_FALSE(Open(bytes));
    EXPECT_EQ(zip_.GetLastError(), TARN_ERR_NOT_THIS_FORMAT);
    EXPECT_EQ(zip_.GetFileList()->GetCount(), 0u);
    zip_.Close();
    EXPECT_FALSE(Open(Noise(3000, 10)));
    EXPECT_EQ(zip_.GetLastError(), TARN_ERR_NOT_THIS_FORMAT);
    zip_.Close();
    Open("PK");
    EXPECT_EQ(zip_.GetFileList()->GetCount(), 0u);
}

TEST_F(ZipTest, NamesLeavingTheFolderAreDropped) {
    const std::vector<RawEntry> entries = {
        {"../evil.txt", "x"}, {"ok.txt", "fine"}, {"a/..\\b.txt", "y"}};
    ASSERT_TRUE(Open(BuildZip(entries)));
    ASSERT_EQ(zip_.GetFileList()->GetCount(), 1u);
    EXPECT_EQ(zip_.GetFileList()->Get(0)->fileName, "ok.txt");
    std::string data;
    EXPECT_TRUE(Extract("ok.txt", &data));
    EXPECT_EQ(data, "fine");

    // The local scan stops at the refused name.
    std::string bytes = BuildZip(entries);
    bytes.resize(bytes.find("PK\x01\x02"));
    zip_.Close();
    EXPECT_FALSE(Open(bytes));
    EXPECT_EQ(zip_.GetLastError(), TARN_ERR_NAME_REJECTED);
    EXPECT_EQ(zip_.GetFileList()->GetCount(), 0u);
}

TEST_F(ZipTest, HostileSizesNeitherLoopNorAllocate) {
    // A ZIP64 field claims a compressed size of 2^63 + 1: negative as a signed size.
    std::string bytes = BuildZip({{"a.txt", "abc", true}}, true);
    const size_t extra = bytes.find("a.txt") + 5;
    bytes[extra + 4 + 15] = char(0x80);
    bytes.resize(bytes.find("PK\x01\x02"));
    EXPECT_FALSE(Open(bytes));
    // And 2^63 - 1: the scan must not seek by it.
    bytes[extra + 4 + 15] = char(0x7F);
    zip_.Close();
    EXPECT_FALSE(Open(bytes));
    EXPECT_EQ(zip_.GetLastError(), TARN_ERR_BROKEN);
    EXPECT_EQ(zip_.GetFileList()->GetCount(), 1u);

    // Sizes far beyond the file: the entry fails to read, nothing is allocated for it.
    bytes = BuildZip({{"b.bin", Noise(100, 11)}});
    bytes[14 + 4] = bytes[15 + 4] = bytes[16 + 4] = char(0x7F);
    const size_t central = bytes.find("PK\x01\x02");
    bytes[central + 20] = bytes[central + 21] = bytes[central + 22] = char(0x7F);
    bytes[central + 10] = 8;  // deflated
    zip_.Close();
    ASSERT_TRUE(Open(bytes));
    EXPECT_FALSE(Extract("b.bin"));
    EXPECT_EQ(zip_.GetLastError(), TARN_ERR_DATA_READ);
}

TEST_F(ZipTest, FullDiskIsReported) {
    Input("a.txt", Text(3000));
    Run("cd in && zip -q -0 ../s.zip a.txt");
    ASSERT_TRUE(OpenFile("s.zip"));
    sink_.writeLimit = 1000;
    EXPECT_FALSE(Extract("a.txt"));
    EXPECT_EQ(zip_.GetLastError(), TARN_ERR_DISK_FULL);
}

// The whole stack on files: the manager sniffs, makes the file or split stream, and picks this
// reader.
TEST_F(ZipTest, ThroughTheManagerOnFiles) {
    const std::string noise = Noise(200000, 13), text = Text(5000);
    Input("r.bin", noise);
    Input("t.txt", text);
    Run("cd in && zip -q -s 64k ../sp.zip r.bin t.txt && zip -q ../whole.zip r.bin t.txt");
    WriteFile(dir_ / "stub.exe", "MZ" + Noise(3000, 14) + ReadFile(dir_ / "whole.zip"));
    std::string cut = ReadFile(dir_ / "whole.zip");
    cut.resize(cut.find("PK\x01\x02") + 10);
    WriteFile(dir_ / "cut.zip", cut);

    struct Memory : ITarnSimpleOutStream {
        std::string data;
        bool Open(const char*) override { return true; }
        bool SetSize(int64_t) override { return true; }
        bool Write(const void* b, uint32_t n) override {
            data.append(static_cast<const char*>(b), n);
            return true;
        }
        bool Close() override { return true; }
        bool CreateFolder(const char*) override { return true; }
    };
    for (const char* name : {"sp.zip", "stub.exe", "cut.zip"}) {
        SCOPED_TRACE(name);
        CTarnMan man;
        ASSERT_TRUE(man.Open((dir_ / name).string(), nullptr)) << man.GetLastError();
        EXPECT_EQ(man.GetFileFormat(), TarnFormatZip);
        EXPECT_EQ(man.IsBrokenArchive(), name == std::string("cut.zip"));
        const int32_t r = man.FindIndex("r.bin", "r.bin", true);
        const int32_t t = man.FindIndex("t.txt", "t.txt", true);
        ASSERT_GE(r, 0);
        ASSERT_GE(t, 0);
        Memory out;
        EXPECT_TRUE(man.ExtractOneTo(uint32_t(r), &out)) << man.GetLastError();
        EXPECT_TRUE(out.data == noise);
        out.data.clear();
        EXPECT_TRUE(man.ExtractOneTo(uint32_t(t), &out)) << man.GetLastError();
        EXPECT_EQ(out.data, text);
    }
}

}  // namespace
