// The manager and the page engine's pair over files on disk, with the made-up format of
// tarnfake.h standing in as the book container's reader.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <zlib.h>

#include <chrono>
#include <filesystem>
#include <fstream>

#include "archive/tarnman.h"
#include "archive/tarnsniff.h"
#include "platform/files.h"
#include "tarnfake.h"

namespace fs = std::filesystem;

namespace {

int g_nReadersMade = 0;

std::unique_ptr<ITarnExtractor> MakeFake() {
    ++g_nReadersMade;
    return std::make_unique<CFakeReader>();
}

class CMemSimple : public ITarnSimpleOutStream {
public:
    std::string data;
    int opens = 0;
    bool Open(const char*) override {
        ++opens;
        data.clear();
        return true;
    }
    bool SetSize(int64_t size) override {
        data.reserve(size_t(size));
        return true;
    }
    bool Write(const void* buffer, uint32_t size) override {
        data.append(static_cast<const char*>(buffer), size);
        return true;
    }
    bool Close() override { return true; }
    bool CreateFolder(const char*) override { return true; }
};

class TarnManTest : public ::testing::Test {
protected:
    void SetUp() override {
        const char* tmp = getenv("ORLIMO_TEST_TMP");
        dir = fs::path(tmp ? tmp : "/tmp") / "tarnman" /
              ::testing::UnitTest::GetInstance()->current_test_info()->name();
        fs::remove_all(dir);
        fs::create_directories(dir);
        // Temporary extractions of the pair land under this test's folder.
        setenv("TMPDIR", dir.c_str(), 1);
        RegisterTarnReader(TarnFormatBond, &MakeFake);
        g_nReadersMade = 0;
    }
    std::string Write(const std::string& name, const std::string& bytes) {
        const fs::path p = dir / name;
        fs::create_directories(p.parent_path());
        std::ofstream(p, std::ios::binary) << bytes;
        return p.string();
    }
    fs::path dir;
};

TEST_F(TarnManTest, OpenRefusals) {
    CTarnMan* man = new CTarnMan;
    EXPECT_EQ(man->GetFileSize(), -1);

    const std::string exe = Write("stub.exe", "MZ" + std::string(5000, '\x90'));
    EXPECT_EQ(man->CheckFormat(exe), TarnFormatNone);
    EXPECT_FALSE(man->Open(exe, nullptr));
    EXPECT_EQ(man->GetLastError(), uint32_t(TARN_ERR_UNKNOWN_FORMAT));

    std::string rar = std::string("Rar!\x1A\x07\x00\x00\x00\x73\x11\x00", 12);
    rar.resize(4000, '\0');
    const std::string later = Write("set.part2.rar", rar);
    EXPECT_EQ(man->CheckFormat(later), TarnFormatRarPart);
    EXPECT_FALSE(man->Open(later, nullptr));
    EXPECT_EQ(man->GetLastError(), uint32_t(TARN_ERR_LATER_VOLUME));
    EXPECT_EQ(man->GetFileItemCount(), 0u);

    std::string lzh = std::string("\x20\x00-lh5-", 7);
    lzh.resize(4000, '\0');
    EXPECT_FALSE(man->Open(Write("a.lzh", lzh), nullptr));
    EXPECT_EQ(man->GetLastError(), uint32_t(TARN_ERR_NO_READER));

    EXPECT_FALSE(man->Open((dir / "missing.zip").string(), nullptr));
    EXPECT_EQ(man->GetLastError(), uint32_t(TARN_ERR_OPEN_FILE));

    // Nothing open: extraction says so.
    EXPECT_FALSE(man->ExtractOneTo(0, std::string()));
    EXPECT_EQ(man->GetLastError(), uint32_t(TARN_ERR_NOT_OPEN));
    EXPECT_EQ(man->FindIndex("a", "a", true), -1);
    man->Release();
}

TEST_F(TarnManTest, OpenListFindAndExtract) {
    const std::string path = Write("book.orl3", MakeFakeArchive({{"Dir/", "", true},
                                                                 {"Dir/Page1.jpg", "one"},
                                                                 {"caf\x82.png", "two"},
                                                                 {"z.txt", "three"}}));
    CTarnLib lib;
    lib.SetCodePage(437);
    ASSERT_TRUE(lib.Open(path, "secret"));
    EXPECT_EQ(lib.GetFileFormat(), TarnFormatBond);
    EXPECT_EQ(lib.GetFileItemCount(), 4u);
    EXPECT_EQ(lib.GetFileSize(), int64_t(platform::GetFileSize(path)));
    EXPECT_EQ(lib.GetFilePathName(), path);
    EXPECT_FALSE(lib.IsBrokenArchive());
    EXPECT_EQ(lib.GetAlias(), nullptr);
    lib.SetAlias("my name");
    EXPECT_STREQ(lib.GetAlias(), "my name");
    EXPECT_EQ(lib.GetFileItem(4), nullptr);

    // Decoded names first, then stored ones; exact or case-blind.
    EXPECT_EQ(lib.FindIndex("Dir\\Page1.jpg", "", true), 1);
    EXPECT_EQ(lib.FindIndex("dir\\page1.JPG", "", true), -1);
    EXPECT_EQ(lib.FindIndex("dir\\page1.JPG", "", false), 1);
    EXPECT_EQ(lib.FindIndex("caf\xC3\xA9.png", "", true), 2);
    EXPECT_EQ(lib.FindIndex("nope", "caf\x82.png", true), 2);
    EXPECT_EQ(lib.FindIndex("nope", "nope", false), -1);

    // The extract list: sorted, unique, range-checked, emptied by the extraction.
    EXPECT_TRUE(lib.AddIndex2ExtractList(3));
    EXPECT_TRUE(lib.AddIndex2ExtractList(1));
    EXPECT_TRUE(lib.AddIndex2ExtractList(3));
    EXPECT_FALSE(lib.AddIndex2ExtractList(4));
    EXPECT_EQ(lib.GetExtractListCount(), 2u);

    CMemSimple mem;
    EXPECT_TRUE(lib.ExtractMultiFileTo(&mem));
    EXPECT_EQ(mem.opens, 2);
    EXPECT_EQ(mem.data, "three");  // the last one written, in index order
    EXPECT_EQ(lib.GetExtractListCount(), 0u);

    EXPECT_TRUE(lib.ExtractOneTo(2, &mem));
    EXPECT_EQ(mem.data, "two");
    EXPECT_FALSE(lib.ExtractOneTo(4, &mem));
    EXPECT_EQ(lib.GetLastError(), uint32_t(TARN_ERR_INDEX));

    // To a folder, then the folder forms work again after a stream form.
    const std::string out = (dir / "out").string();
    EXPECT_TRUE(lib.ExtractAllTo(out));
    EXPECT_EQ(platform::GetFileSize(out + "/Dir/Page1.jpg"), 3);
    EXPECT_EQ(platform::GetFileSize(out + "/caf\xC3\xA9.png"), 3);

    EXPECT_EQ(lib.GetBondMeta(), nullptr);
    EXPECT_STREQ(lib.CompressionMethod2Str(8), "Deflate");
    lib.Close();
    EXPECT_EQ(lib.GetAlias(), nullptr);
    EXPECT_EQ(lib.GetFileSize(), -1);
    EXPECT_EQ(lib.GetFileItemCount(), 0u);
}

TEST_F(TarnManTest, FailedEntryLeavesNoFileBehind) {
    // The reader refuses the climbing name and stops there: a broken archive of two entries.
    CTarnLib lib;
    ASSERT_TRUE(lib.Open(Write("mixed.orl3", MakeFakeArchive({{"good.jpg", "1234"},
                                                              {"bad.jpg", "5678"},
                                                              {"../../escape.jpg", "x"}})),
                         nullptr));
    EXPECT_TRUE(lib.IsBrokenArchive());
    EXPECT_EQ(lib.GetLastError(), uint32_t(TARN_ERR_NAME_REJECTED));
    EXPECT_EQ(lib.GetFileItemCount(), 2u);
    const std::string out = (dir / "out").string();
    EXPECT_FALSE(lib.ExtractAllTo(out));
    EXPECT_EQ(lib.GetLastError(), uint32_t(TARN_ERR_CORRUPT));
    EXPECT_EQ(platform::GetFileSize(out + "/good.jpg"), 4);
    EXPECT_EQ(platform::GetFileSize(out + "/bad.jpg"), -1);
}

TEST_F(TarnManTest, BrokenArchiveKeepsItsEntries) {
    std::string bytes = MakeFakeArchive({{"a.jpg", "1111"}, {"b.jpg", "2222"}});
    bytes[4] = 3;  // claims a third entry that isn't there
    CTarnLib lib;
    ASSERT_TRUE(lib.Open(Write("broken.orl3", bytes), nullptr));
    EXPECT_TRUE(lib.IsBrokenArchive());
    EXPECT_EQ(lib.GetLastError(), uint32_t(TARN_ERR_HEADER));
    EXPECT_EQ(lib.GetFileItemCount(), 2u);

    // With no entry at all the open fails, after the one retry by path.
    std::string empty = MakeFakeArchive({});
    empty[4] = 1;
    EXPECT_FALSE(lib.Open(Write("empty.orl3", empty), nullptr));
    EXPECT_EQ(lib.GetLastError(), uint32_t(TARN_ERR_HEADER));
    EXPECT_EQ(g_nReadersMade, 2);
}

TEST_F(TarnManTest, PairReusesByAliasAndSize) {
    const std::string a = Write("a.orl3", MakeFakeArchive({{"p.jpg", "AAAA"}}));
    const std::string b = Write("b.orl3", MakeFakeArchive({{"p.jpg", "BBBB"}}));
    CTarnLibPair pair;
    TarnArchiveInfo info;
    ASSERT_TRUE(pair.Open(a, &info, false));
    EXPECT_EQ(info.nFormat, TarnFormatBond);
    ITarn* first = pair.GetCurrent();
    ASSERT_TRUE(pair.Open(b, nullptr, false));
    ITarn* second = pair.GetCurrent();
    EXPECT_NE(first, second);
    EXPECT_EQ(g_nReadersMade, 2);

    // Both stay open: going back costs no open.
    ASSERT_TRUE(pair.Open(a, nullptr, false));
    EXPECT_EQ(pair.GetCurrent(), first);
    EXPECT_EQ(g_nReadersMade, 2);
    CMemSimple mem;
    ASSERT_TRUE(pair.ExtractToMemory("P.JPG", "", &mem));
    EXPECT_EQ(mem.data, "AAAA");

    // The file changed size: opened anew, into the slot of the older one (b's).
    Write("a.orl3", MakeFakeArchive({{"p.jpg", std::string(100, 'A')}}));
    ASSERT_TRUE(pair.Open(a, nullptr, false));
    EXPECT_EQ(g_nReadersMade, 3);
    EXPECT_EQ(pair.GetCurrent(), second);
    ASSERT_TRUE(pair.ExtractToMemory("p.jpg", "", &mem));
    EXPECT_EQ(mem.data, std::string(100, 'A'));

    // Forced: reopened in place of the current.
    ASSERT_TRUE(pair.Open(a, nullptr, true));
    EXPECT_EQ(g_nReadersMade, 4);

    EXPECT_FALSE(pair.ExtractToMemory("none", "none", &mem));
    EXPECT_FALSE(pair.Open(Write("x.bin", std::string(2000, 'x')), nullptr, false));
    EXPECT_EQ(pair.GetLastError(), uint32_t(TARN_ERR_UNKNOWN_FORMAT));
}

TEST_F(TarnManTest, NestedPathUsesTheTemporaryFile) {
    // The outer archive doesn't exist at all: the inner one already waits in the temp folder.
    const std::string outer = (dir / "gone.zip").string();
    const std::string folder = CTarnLibPair::TempFolderOf(outer);
    EXPECT_EQ(folder.substr(0, dir.string().size() + 12), dir.string() + "/OrlimoTemp/");
    EXPECT_EQ(folder.size(), dir.string().size() + 12 + 32);
    fs::create_directories(folder + "/sub");
    std::ofstream(folder + "/sub/inner.orl3", std::ios::binary)
        << MakeFakeArchive({{"q.jpg", "QQ"}});

    CTarnLibPair pair;
    ASSERT_TRUE(pair.Open(outer + "?sub\\inner.orl3", nullptr, false));
    CMemSimple mem;
    ASSERT_TRUE(pair.ExtractToMemory("q.jpg", "", &mem));
    EXPECT_EQ(mem.data, "QQ");
    EXPECT_STREQ(pair.GetCurrent()->GetAlias(), (outer + "?sub\\inner.orl3").c_str());

    // A real outer archive holding the inner one: unpacked on first use.
    const std::string inner = MakeFakeArchive({{"r.jpg", "RRR"}});
    const std::string real = Write("real.orl3", MakeFakeArchive({{"in.orl3", inner}}));
    ASSERT_TRUE(pair.Open(real + "?in.orl3", nullptr, false));
    ASSERT_TRUE(pair.ExtractToMemory("r.jpg", "", &mem));
    EXPECT_EQ(mem.data, "RRR");
    EXPECT_FALSE(pair.Open(real + "?missing.orl3", nullptr, false));

    // The engine's way to a nested archive.
    ASSERT_TRUE(pair.Open(real, nullptr, false));
    std::string placed;
    ASSERT_TRUE(pair.ExtractNestedToTemp("in.orl3", "", &placed));
    EXPECT_EQ(placed, CTarnLibPair::TempFolderOf(real) + "/in.orl3");
    EXPECT_EQ(platform::GetFileSize(placed), int64_t(inner.size()));
}

std::string ReadAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

TEST_F(TarnManTest, NestedCopyIsRenewedWhenTheOuterArchiveChanges) {
    const std::string first = MakeFakeArchive({{"r.jpg", "one"}});
    const std::string second = MakeFakeArchive({{"r.jpg", "two"}});
    ASSERT_EQ(first.size(), second.size());
    const std::string outer = Write("outer.orl3", MakeFakeArchive({{"in.orl3", first}}));
    // Rebuilds the outer archive around `inner`, dated after the copy in the temp folder.
    const auto rebuild = [&](const std::string& inner, const std::string& copy) {
        Write("outer.orl3", MakeFakeArchive({{"in.orl3", inner}}));
        fs::last_write_time(outer, fs::last_write_time(copy) + std::chrono::seconds(5));
    };

    std::string placed;
    {
        CTarnLibPair pair;
        ASSERT_TRUE(pair.Open(outer, nullptr, false));
        ASSERT_TRUE(pair.ExtractNestedToTemp("in.orl3", "", &placed));
        EXPECT_EQ(ReadAll(placed), first);
        // A copy of the listed size, made after the archive: reused as it stands.
        std::ofstream(placed, std::ios::binary) << std::string(first.size(), 'x');
        ASSERT_TRUE(pair.ExtractNestedToTemp("in.orl3", "", &placed));
        EXPECT_EQ(ReadAll(placed), std::string(first.size(), 'x'));
        // A copy of another size: extracted again.
        std::ofstream(placed, std::ios::binary) << "short";
        ASSERT_TRUE(pair.ExtractNestedToTemp("in.orl3", "", &placed));
        EXPECT_EQ(ReadAll(placed), first);
    }

    // The outer archive rebuilt with an inner one of the same size: the copy is stale.
    rebuild(second, placed);
    {
        CTarnLibPair pair;
        ASSERT_TRUE(pair.Open(outer, nullptr, false));
        ASSERT_TRUE(pair.ExtractNestedToTemp("in.orl3", "", &placed));
        EXPECT_EQ(ReadAll(placed), second);
    }

    // The same through the "outer?inner" form.
    CMemSimple mem;
    {
        CTarnLibPair pair;
        ASSERT_TRUE(pair.Open(outer + "?in.orl3", nullptr, false));
        ASSERT_TRUE(pair.ExtractToMemory("r.jpg", "", &mem));
        EXPECT_EQ(mem.data, "two");
    }
    rebuild(first, placed);
    {
        CTarnLibPair pair;
        ASSERT_TRUE(pair.Open(outer + "?in.orl3", nullptr, false));
        ASSERT_TRUE(pair.ExtractToMemory("r.jpg", "", &mem));
        EXPECT_EQ(mem.data, "one");
    }
}

TEST_F(TarnManTest, SolidArchiveGoesThroughTheTemporaryFolder) {
    const std::string path =
        Write("solid.orl3", MakeFakeArchive({{"solid1.jpg", "S1"}, {"d/solid2.jpg", "S22"}}));
    CTarnLibPair pair;
    ASSERT_TRUE(pair.Open(path, nullptr, false));
    ASSERT_TRUE(pair.GetCurrent()->IsSolidArchive());
    CMemSimple mem;
    ASSERT_TRUE(pair.ExtractToMemory("d\\solid2.jpg", "", &mem));
    EXPECT_EQ(mem.data, "S22");
    const std::string folder = CTarnLibPair::TempFolderOf(path);
    EXPECT_EQ(platform::GetFileSize(folder + "/solid1.jpg"), 2);
    // Later pages are plain file reads: change the file on disk and see it.
    std::ofstream(folder + "/solid1.jpg", std::ios::binary) << "changed";
    ASSERT_TRUE(pair.ExtractToMemory("solid1.jpg", "", &mem));
    EXPECT_EQ(mem.data, "changed");
}

TEST_F(TarnManTest, BuiltInReaderThroughThePair) {
    // A gzip file made by zlib, found by its signature and read by the library's own reader.
    const std::string path = (dir / "page.jpg.gz").string();
    const std::string payload(5000, 'g');
    gzFile gz = gzopen(path.c_str(), "wb");
    ASSERT_NE(gz, nullptr);
    ASSERT_EQ(gzwrite(gz, payload.data(), unsigned(payload.size())), int(payload.size()));
    ASSERT_EQ(gzclose(gz), Z_OK);

    CTarnLibPair pair;
    TarnArchiveInfo info;
    ASSERT_TRUE(pair.Open(path, &info, false)) << pair.GetLastError();
    EXPECT_EQ(info.nFormat, TarnFormatGzip);
    EXPECT_FALSE(info.bondMeta.has_value());
    ASSERT_EQ(pair.GetCurrent()->GetFileItemCount(), 1u);
    const TarnFileItem* item = pair.GetCurrent()->GetFileItem(0);
    CMemSimple mem;
    ASSERT_TRUE(pair.ExtractToMemory(item->fileNameW, item->fileName, &mem)) << pair.GetLastError();
    EXPECT_EQ(mem.data, payload);
}

}  // namespace
