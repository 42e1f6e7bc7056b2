#include "engine/archivepages.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "engine/compose.h"
#include "engine/manaproc.h"
#include "support/scratchfolder.h"
#include "zipwriter.h"

namespace {

using Bytes = std::vector<uint8_t>;
using samplewrite::ZipEntry;

Bytes BmpBytes(const ScratchFolder& dir, uint32_t w, uint32_t h, uint32_t colour) {
    XDib dib;
    EXPECT_TRUE(dib.Create(w, h, 24));
    dib.Fill(colour);
    const std::string path = dir / "made.bmp";
    EXPECT_TRUE(dib.SaveBmp(path.c_str()));
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), {});
}

std::string WriteFile(const ScratchFolder& dir, const std::string& name, const Bytes& bytes) {
    std::ofstream(dir / name, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
    return dir / name;
}

// A plain ustar archive of the given files.
Bytes MakeTar(const std::vector<std::pair<std::string, Bytes>>& files) {
    Bytes out;
    for (const auto& [name, data] : files) {
        char header[512] = {};
        std::memcpy(header, name.data(), std::min<size_t>(name.size(), 99));
        std::snprintf(header + 100, 8, "%07o", 0644);
        std::snprintf(header + 108, 8, "%07o", 0);
        std::snprintf(header + 116, 8, "%07o", 0);
        std::snprintf(header + 124, 12, "%011o", unsigned(data.size()));
        std::snprintf(header + 136, 12, "%011o", 0);
        header[156] = '0';
        std::memcpy(header + 257, "ustar", 6);
        std::memcpy(header + 263, "00", 2);
        std::memset(header + 148, ' ', 8);
        unsigned sum = 0;
        for (unsigned char c : header) sum += c;
        std::snprintf(header + 148, 8, "%06o", sum);
        out.insert(out.end(), header, header + 512);
        out.insert(out.end(), data.begin(), data.end());
        out.resize((out.size() + 511) / 512 * 512);
    }
    out.resize(out.size() + 1024);
    return out;
}

std::vector<std::string> Paths(const ArchiveListing& listing) {
    std::vector<std::string> paths;
    for (const auto& e : listing.entries) paths.push_back(e->szPath);
    return paths;
}

TEST(MemTarnOutStream, HoldsExactlyTheAnnouncedSizeUnderItsCap) {
    CMemTarnOutStream out(16);
    ASSERT_TRUE(out.Open(nullptr));
    EXPECT_FALSE(out.Write("a", 1));  // no room before a size is announced
    EXPECT_FALSE(out.SetSize(17));    // a header claiming more than the cap
    EXPECT_FALSE(out.SetSize(-1));
    ASSERT_TRUE(out.SetSize(5));
    EXPECT_TRUE(out.Write("abc", 3));
    EXPECT_FALSE(out.Write("def", 3));  // would pass the announced end
    EXPECT_TRUE(out.Write("de", 2));
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(out.data()), out.size()), "abcde");
    ASSERT_TRUE(out.Open(nullptr));
    EXPECT_TRUE(out.empty());
}

class ArchivePagesTest : public ::testing::Test {
protected:
    // Nested archives go to the temporary folder, as the engine's own tests keep it: beside the
    // scratch folders. Each archive's extractions are removed afterwards.
    void SetUp() override {
        setenv("TMPDIR", std::filesystem::path(dir.Path()).parent_path().c_str(), 1);
    }
    void TearDown() override {
        std::error_code ec;
        for (const std::string& path : archives) {
            std::filesystem::remove_all(CTarnLibPair::TempFolderOf(path), ec);
        }
    }
    std::string WriteArchive(const std::string& name, const Bytes& bytes) {
        archives.push_back(WriteFile(dir, name, bytes));
        return archives.back();
    }

    ScratchFolder dir;
    std::vector<std::string> archives;
};

TEST_F(ArchivePagesTest, ListingTakesPicturesAndOneLevelOfNestedArchives) {
    const Bytes bmp = BmpBytes(dir, 4, 4, 0x112233);
    const Bytes deeper = samplewrite::MakeZip({{"x.bmp", bmp}});
    const Bytes inner = samplewrite::MakeZip({{"q1.bmp", bmp}, {"deeper.zip", deeper}});
    const std::string book = WriteArchive("book.zip", samplewrite::MakeZip({
                                                          {"p2.bmp", bmp},
                                                          {"ch1/p1.bmp", bmp, false},
                                                          {"empty.bmp", {}},
                                                          {"folder/", {}},
                                                          {"notes.txt", bmp},
                                                          {"inner.cbz", inner, false},
                                                      }));
    CTarnLibPair pair;
    ArchiveListing listing;
    ASSERT_EQ(ListArchive(pair, book, "", false, &listing), 0u);
    EXPECT_EQ(listing.nFormat, TarnFormatZip);
    EXPECT_FALSE(listing.bBroken);
    EXPECT_FALSE(listing.bNeedsPassword);
    ASSERT_EQ(Paths(listing), (std::vector<std::string>{book + "|p2.bmp", book + "|ch1\\p1.bmp",
                                                        book + "?inner.cbz|q1.bmp"}));
    const PageEntry& folderPage = *listing.entries[1];
    EXPECT_EQ(folderPage.szGroup, book + "|");
    EXPECT_EQ(folderPage.szName, "ch1\\p1.bmp");
    EXPECT_EQ(folderPage.szRawName, "ch1\\p1.bmp");
    EXPECT_EQ(folderPage.nFileSize, int64_t(bmp.size()));
    EXPECT_EQ(folderPage.bEncrypted, 0u);
    EXPECT_EQ(listing.entries[2]->szGroup, book + "?inner.cbz|");
    EXPECT_EQ(listing.entries[2]->szName, "q1.bmp");

    // Every listed page comes out whole, the nested one through its own archive.
    CMemTarnOutStream out;
    for (const auto& page : listing.entries) {
        EXPECT_EQ(ExtractArchivePage(pair, *page, &out), ArchiveExtract::kOk) << page->szPath;
        EXPECT_EQ(Bytes(out.data(), out.data() + out.size()), bmp) << page->szPath;
    }
    // A bare path (no group known) splits at its "|".
    PageEntry bare;
    bare.szPath = book + "|p2.bmp";
    EXPECT_EQ(ExtractArchivePage(pair, bare, &out), ArchiveExtract::kOk);
    bare.szPath = book + "|missing.bmp";
    EXPECT_EQ(ExtractArchivePage(pair, bare, &out), ArchiveExtract::kFailed);
}

TEST_F(ArchivePagesTest, TarPagesAndArchivesThatCantBeOpened) {
    const Bytes bmp = BmpBytes(dir, 4, 4, 0x445566);
    const std::string tar = WriteFile(dir, "book.tar", MakeTar({{"a.bmp", bmp}, {"b.txt", bmp}}));
    CTarnLibPair pair;
    ArchiveListing listing;
    ASSERT_EQ(ListArchive(pair, tar, "", false, &listing), 0u);
    ASSERT_EQ(Paths(listing), std::vector<std::string>{tar + "|a.bmp"});
    CMemTarnOutStream out;
    EXPECT_EQ(ExtractArchivePage(pair, *listing.entries[0], &out), ArchiveExtract::kOk);
    EXPECT_EQ(out.size(), bmp.size());

    ArchiveListing none;
    EXPECT_EQ(ListArchive(pair, dir / "gone.zip", "", false, &none), kArchiveCantOpen);
    const std::string junk = WriteFile(dir, "junk.zip", Bytes(300, 7));
    EXPECT_EQ(ListArchive(pair, junk, "", false, &none), kArchiveCantOpen);
    EXPECT_TRUE(none.entries.empty());
}

// The engine thread over archives.
class ArchiveEngineTest : public ArchivePagesTest {
protected:
    void SetUp() override {
        ArchivePagesTest::SetUp();
        settings.nStretchMode = SHOW_STRETCH, settings.nFilterMode = 1;
        settings.nCanvasWidth = 400, settings.nCanvasHeight = 300;
    }
    // Opens `path` the way the window does: the engine lists, the pages are appended and sorted.
    void Open(const std::string& path, XResult expected = 0) {
        engine.bUsePreviewMode = 0;
        ASSERT_TRUE(engine.Start(&list));
        engine.ApplySettings(settings);
        ASSERT_EQ(engine.OpenArchive(path, &listing), expected);
        std::lock_guard hold(list.cs);
        list.Append(std::move(listing.entries));
        list.Sort();
        list.SetCurrent(0);
    }
    void Show(int32_t index) {
        {
            std::lock_guard hold(list.cs);
            list.SetCurrent(index);
        }
        ASSERT_TRUE(engine.ShowPage(false, false));
    }
    void Show(const std::string& path) {
        int32_t index = -1;
        {
            std::lock_guard hold(list.cs);
            for (int32_t i = 0; i < list.GetCount(); ++i) {
                if (list.GetEntry(i)->szPath == path) index = i;
            }
        }
        ASSERT_GE(index, 0) << path;
        Show(index);
    }
    uint32_t DecodedWidth() {
        std::lock_guard hold(list.cs);
        return list.fileInfo.nDecodedWidth;
    }
    uint32_t Pixel(uint32_t x, uint32_t y) {
        std::lock_guard hold(list.cs);
        if (!list.pComposed || !list.pComposed->GetPixelPtr(x, y)) return 0xDEAD;
        const uint8_t* p = list.pComposed->GetPixelPtr(x, y);
        return p[0] << 16 | p[1] << 8 | p[2];
    }

    ViewSettings settings;
    ArchiveListing listing;
    CPageList list;  // outlives the engine
    CManaProc engine;
};

TEST_F(ArchiveEngineTest, ShowsArchivePagesNestedPagesAndWhatACorruptEntryHolds) {
    const Bytes red = BmpBytes(dir, 200, 300, 0x0000FF);
    const Bytes green = BmpBytes(dir, 200, 300, 0x00FF00);
    Bytes damaged = BmpBytes(dir, 200, 300, 0xFF0000);
    // A stored entry whose bytes no longer match their CRC: the top rows turn white.
    std::memset(damaged.data() + damaged.size() - 200 * 3 * 20, 0xFF, 200 * 3 * 20);
    Bytes zip = samplewrite::MakeZip({
        {"a.bmp", red},
        {"b.bmp", BmpBytes(dir, 200, 300, 0xFF0000), false},
        {"c.cbz", samplewrite::MakeZip({{"n.bmp", green}})},
    });
    // Put the damage into b.bmp's stored data in place.
    const Bytes clean = BmpBytes(dir, 200, 300, 0xFF0000);
    auto at = std::search(zip.begin(), zip.end(), clean.begin(), clean.end());
    ASSERT_NE(at, zip.end());
    std::copy(damaged.begin(), damaged.end(), at);
    const std::string book = WriteArchive("book.cbz", zip);

    Open(book);
    ASSERT_EQ(list.GetCount(), 3);
    Show(book + "|a.bmp");
    EXPECT_EQ(Pixel(100, 150), 0x0000FFu);
    Show(book + "|b.bmp");
    EXPECT_EQ(DecodedWidth(), 200u);  // no error picture: the damaged entry is shown
    EXPECT_EQ(Pixel(100, 2), 0xFFFFFFu);
    EXPECT_EQ(Pixel(100, 150), 0xFF0000u);
    Show(book + "?c.cbz|n.bmp");
    EXPECT_EQ(Pixel(100, 150), 0x00FF00u);
    Show(book + "|a.bmp");  // back to the outer archive: the pair keeps both open
    EXPECT_EQ(Pixel(100, 150), 0x0000FFu);

    // An entry that is gone shows the error picture.
    engine.CloseArchive();
    {
        std::lock_guard hold(list.cs);
        PageEntry* gone = list.GetEntry(list.GetCurrent());
        gone->szPath = book + "|gone.bmp";
        gone->szRawName = "gone.bmp";
    }
    Show(book + "|gone.bmp");
    EXPECT_EQ(DecodedWidth(), 640u);
}

TEST_F(ArchiveEngineTest, ArchiveThatCantBeOpenedGivesNoPages) {
    Open(dir / "missing.cbz", kArchiveCantOpen);
    EXPECT_EQ(list.GetCount(), 0);
}

TEST_F(ArchiveEngineTest, EncryptedPagesWaitForTheRightPassword) {
    if (std::system("command -v zip >/dev/null 2>&1") != 0) GTEST_SKIP() << "no zip program";
    const std::string page = WriteFile(dir, "p.bmp", BmpBytes(dir, 200, 300, 0x00FF00));
    const std::string book = dir / "locked.zip";
    const std::string command =
        "cd '" + dir.Path() + "' && zip -q -P secret locked.zip p.bmp >/dev/null 2>&1";
    ASSERT_EQ(std::system(command.c_str()), 0);
    std::filesystem::remove(page);

    Open(book);
    EXPECT_TRUE(listing.bNeedsPassword);
    ASSERT_EQ(list.GetCount(), 1);
    EXPECT_EQ(list.GetEntry(0)->bEncrypted, 1u);
    Show(0);
    EXPECT_EQ(DecodedWidth(), 640u);  // no password: the error picture
    engine.SetPassword("wrong");
    Show(0);
    EXPECT_EQ(DecodedWidth(), 640u);
    engine.SetPassword("secret");  // a new password is a new key: the page is decoded anew
    Show(0);
    EXPECT_EQ(DecodedWidth(), 200u);
    EXPECT_EQ(Pixel(100, 150), 0x00FF00u);
}

}  // namespace
