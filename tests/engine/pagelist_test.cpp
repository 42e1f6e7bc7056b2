#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "base/utf.h"
#include "engine/pagelist.h"
#include "support/scratchfolder.h"

namespace {

std::vector<std::string> Names(const CPageList& list) {
    std::vector<std::string> names;
    for (int32_t i = 0; i < list.GetCount(); ++i) names.push_back(list.GetEntry(i)->szName);
    return names;
}

// A list of `count` pages of known size (no file system involved), cursor on `current`.
void Fill(CPageList& list, int count, int current) {
    for (int i = 0; i < count; ++i) list.AddFile("/book/p" + std::to_string(i) + ".jpg", 100);
    list.SetCurrent(current);
}

std::unique_ptr<PageEntry> ArchiveEntry(const std::string& archive, const std::string& name) {
    auto entry = std::make_unique<PageEntry>();
    entry->szPath = archive + "|" + name;
    entry->szGroup = archive + "|";
    entry->szName = name;
    entry->szRawName = name;
    return entry;
}

}  // namespace

TEST(PageList, FileKindsByExtension) {
    EXPECT_EQ(CPageList::GetFileKind(".jpg"), FileKind::kImage);
    EXPECT_EQ(CPageList::GetFileKind(".JPEG"), FileKind::kImage);
    EXPECT_EQ(CPageList::GetFileKind(".Orl3"), FileKind::kArchive);
    EXPECT_EQ(CPageList::GetFileKind(".exe"), FileKind::kSelfExtracting);
    // Pieces of a pattern are no extension of it.
    for (const char* other :
         {"", ".", ".jp", ".peg", ".tif;", "*.jpg", ".jpg;*", "..jpg", ".gz", ".txt", "jpg"}) {
        EXPECT_EQ(CPageList::GetFileKind(other), FileKind::kUnknown) << other;
    }
    EXPECT_EQ(GetExtension("/a.d/README"), "");
}

TEST(PageList, EmptyAndMissingFoldersGiveNoPages) {
    ScratchFolder dir;
    CPageList list;
    EXPECT_TRUE(list.AddFolder(dir.Path()));
    EXPECT_EQ(list.GetCount(), 0);
    EXPECT_EQ(list.GetCurrent(), -1);
    EXPECT_EQ(list.GetCurrentPath(), "");
    EXPECT_EQ(list.GetEntry(0), nullptr);

    list.AddFile("/elsewhere/kept.png", 5);
    EXPECT_FALSE(list.AddFolder(dir / "missing"));
    EXPECT_EQ(Names(list), std::vector<std::string>{"kept.png"});
}

TEST(PageList, FolderListingAddsOnlyImagesWithTheirSizes) {
    ScratchFolder dir;
    dir.MakeFile("b.JPG", 300);
    dir.MakeFile("a.png", 20);
    dir.MakeFile("c.cbz", 10);
    dir.MakeFile("README");
    dir.MakeFile("notes.txt");
    dir.MakeFolder("folder.jpg/inner.jpg");  // neither a folder nor its contents are pages
    CPageList list;
    ASSERT_TRUE(list.AddFolder(dir.Path() + "/"));  // a trailing "/" makes no double slash
    list.Sort();
    ASSERT_EQ(Names(list), (std::vector<std::string>{"a.png", "b.JPG"}));
    EXPECT_EQ(list.GetCurrent(), 0);
    const PageEntry& a = *list.GetEntry(0);
    EXPECT_EQ(a.szPath, dir / "a.png");
    EXPECT_EQ(a.szGroup, dir.Path());
    EXPECT_EQ(a.nFileSize, 20);
    EXPECT_EQ(list.GetEntry(1)->nFileSize, 300);
}

TEST(PageList, AddFileSplitsThePathAndAsksForUnknownSizes) {
    ScratchFolder dir;
    const std::string file = dir.MakeFile("pic.gif", 42);
    CPageList list;
    list.AddFile(file, -1);
    list.AddFile("/arc/book.zip|ch1\\p1.jpg", 9);
    list.AddFile("/odd/a|b.jpg", 1);  // a "|" in a file name cuts the group there
    ASSERT_EQ(list.GetCount(), 3);
    EXPECT_EQ(list.GetEntry(0)->nFileSize, 42);
    EXPECT_EQ(list.GetEntry(1)->szGroup, "/arc/book.zip");
    EXPECT_EQ(list.GetEntry(1)->szName, "p1.jpg");
    EXPECT_EQ(list.GetEntry(2)->szGroup, "/odd/a");
    EXPECT_EQ(list.GetEntry(2)->szName, "b.jpg");
    EXPECT_EQ(list.GetCurrent(), 0);
}

TEST(PageList, SortPutsEndMarksAtTheEndsAndGroupsByPath) {
    CPageList list;
    for (const char* name : {"zzz.jpg", "##last.png", "a10.jpg", "000.jpg", "##first.png", "a9.jpg",
                             "##FIRST.png", "##LAST.png", "!x.jpg", "A9.jpg"}) {
        list.AddFile(std::string("/book/") + name, 1);
    }
    list.Sort();
    // "##FIRST." and "##LAST." are ordinary names: '#' sorts after '!' and before digits.
    EXPECT_EQ(Names(list), (std::vector<std::string>{"##first.png", "!x.jpg", "##FIRST.png",
                                                     "##LAST.png", "000.jpg", "A9.jpg", "a9.jpg",
                                                     "a10.jpg", "zzz.jpg", "##last.png"}));

    // Pages of different folders compare by path: "/x/a/2" before "/x/b/1" though 1 < 2.
    CPageList mixed;
    mixed.AddFile("/x/b/1.jpg", 1);
    mixed.AddFile("/x/a/2.jpg", 1);
    mixed.AddFile("/x/a/10.jpg", 1);
    mixed.Sort();
    EXPECT_EQ(Names(mixed), (std::vector<std::string>{"2.jpg", "10.jpg", "1.jpg"}));

    // Several pages with the same end mark must not upset the sort; they stay at their end.
    CPageList marks;
    for (int i = 0; i < 40; ++i) {
        marks.AddFile("/m/##first." + std::to_string(i), 1);
        marks.AddFile("/m/" + std::to_string(i) + ".jpg", 1);
        marks.AddFile("/m/##last." + std::to_string(i), 1);
    }
    marks.Sort();
    ASSERT_EQ(marks.GetCount(), 120);
    for (int i = 0; i < 120; ++i) {
        const std::string& name = marks.GetEntry(i)->szName;
        if (i < 40) {
            EXPECT_TRUE(name.starts_with("##first.")) << i << ": " << name;
        } else if (i < 80) {
            EXPECT_NE(name[0], '#') << i << ": " << name;
        } else {
            EXPECT_TRUE(name.starts_with("##last.")) << i << ": " << name;
        }
    }
}

TEST(PageList, StepFollowsSpreadsAndUprightPages) {
    CPageList list;
    list.Step(1);
    EXPECT_EQ(list.GetCurrent(), -1);  // an empty list has no cursor to move

    Fill(list, 6, 5);
    list.Step(1);
    EXPECT_EQ(list.GetCurrent(), 5);  // the last page stays
    list.bTwoPageShown = 1;
    list.SetCurrent(4);
    list.Step(1);
    EXPECT_EQ(list.GetCurrent(), 5);  // a spread at the end lands on the last page
    list.SetCurrent(1);
    list.Step(1);
    EXPECT_EQ(list.GetCurrent(), 3);
    list.Step(-10);
    EXPECT_EQ(list.GetCurrent(), 0);  // large deltas apply as they stand, clamped
    list.Step(10);
    EXPECT_EQ(list.GetCurrent(), 5);
    list.Step(-2);
    EXPECT_EQ(list.GetCurrent(), 3);
    list.bTwoPageShown = 0;

    // Backwards in a spread mode: -2 only over two pages known to be upright.
    list.bTwoPageMode = 1;
    list.SetCurrent(4);
    list.Step(-1);
    EXPECT_EQ(list.GetCurrent(), 3);  // sizes not known yet: one page at a time
    list.SetPageSize(1, "/book/p1.jpg", 600, 800);
    list.SetPageSize(2, "/book/p2.jpg", 800, 800);   // square is upright
    list.SetPageSize(3, "/book/p3.jpg", 1600, 800);  // the current page may be landscape
    list.Step(-1);
    EXPECT_EQ(list.GetCurrent(), 1);
    list.Step(-1);
    EXPECT_EQ(list.GetCurrent(), 0);  // only one page lies before index 1
    list.SetCurrent(3);
    list.SetPageSize(1, "/book/p1.jpg", 1200, 800);  // landscape before: no spread to pass
    list.Step(-1);
    EXPECT_EQ(list.GetCurrent(), 2);
    list.bTwoPageMode = 0;
    list.SetPageSize(0, "/book/p0.jpg", 600, 800);
    list.SetPageSize(1, "/book/p1.jpg", 600, 800);
    list.Step(-1);
    EXPECT_EQ(list.GetCurrent(), 1);  // outside a spread mode -1 is one page

    list.Clear();
    list.bTwoPageMode = 1;
    list.Step(-1);
    EXPECT_EQ(list.GetCurrent(), -1);
}

TEST(PageList, UprightTest) {
    PageEntry page;
    EXPECT_TRUE(IsUprightPage(page, true));  // size unknown: the caller's answer
    EXPECT_FALSE(IsUprightPage(page, false));
    page.nPageWidth = 10;
    EXPECT_FALSE(IsUprightPage(page, true));  // height alone 0
    page.nPageHeight = 10;
    EXPECT_TRUE(IsUprightPage(page, false));
    // Large sizes must not lose the comparison to integer rounding.
    page.nPageWidth = 4000000001u;
    page.nPageHeight = 4000000000u;
    EXPECT_FALSE(IsUprightPage(page, true));
}

TEST(PageList, FindSetSizeAndRemove) {
    CPageList list;
    list.AddFile("/Book/Page1.jpg", 1);
    list.AddFile("/book/page1.jpg", 1);
    list.AddFile("/book/page2.jpg", 1);
    EXPECT_TRUE(list.FindByPath("/BOOK/PAGE2.JPG"));  // case-blind
    EXPECT_EQ(list.GetCurrent(), 2);
    EXPECT_TRUE(list.FindByPath("/book/page1.jpg"));  // the exact spelling wins
    EXPECT_EQ(list.GetCurrent(), 1);
    EXPECT_TRUE(list.FindByPath("/BOOK/page1.JPG"));  // otherwise the first that matches
    EXPECT_EQ(list.GetCurrent(), 0);
    EXPECT_FALSE(list.FindByPath("/book/page3.jpg"));
    EXPECT_EQ(list.GetCurrent(), 0);
    EXPECT_FALSE(list.FindByName("PAGE2.JPG"));  // exact
    EXPECT_TRUE(list.FindByName("page2.jpg"));
    EXPECT_EQ(list.GetCurrentName(), "page2.jpg");

    // A decode that finished after the list changed must not write into another page.
    list.SetPageSize(2, "/book/page1.jpg", 10, 20);
    EXPECT_EQ(list.GetEntry(2)->nPageWidth, 0u);
    list.SetPageSize(2, "/book/page2.jpg", 10, 20);
    EXPECT_EQ(list.GetEntry(2)->nPageHeight, 20u);
    list.SetPageSize(7, "/book/page2.jpg", 1, 1);  // outside the list: ignored

    list.SetCurrent(1);
    list.RemoveCurrent();
    EXPECT_EQ(list.GetCurrentPath(), "/book/page2.jpg");  // the index stays
    list.RemoveCurrent();
    EXPECT_EQ(list.GetCurrent(), 0);  // fell off the end: the last page
    list.RemoveCurrent();
    EXPECT_EQ(list.GetCurrent(), -1);
    list.RemoveCurrent();  // nothing left to remove
    list.SetCurrent(3);
    EXPECT_EQ(list.GetCurrent(), -1);
}

TEST(PageList, AppendKeepsOrderAndNotesEncryption) {
    CPageList list;
    list.nGrowBy = 3;
    CPageList::EntryArray listed;
    listed.push_back(ArchiveEntry("/a/book.zip", "p2.jpg"));
    listed.push_back(ArchiveEntry("/a/book.zip", "p1.jpg"));
    list.Append(std::move(listed));
    EXPECT_EQ(Names(list), (std::vector<std::string>{"p2.jpg", "p1.jpg"}));
    EXPECT_EQ(list.GetCurrent(), 0);
    EXPECT_EQ(list.bHasEncrypted, 0u);

    CPageList::EntryArray more;
    for (int i = 3; i < 12; ++i) {
        more.push_back(ArchiveEntry("/a/book.zip", "p" + std::to_string(i) + ".jpg"));
    }
    more[4]->bEncrypted = 1;
    list.Append(std::move(more));
    EXPECT_EQ(list.GetCount(), 11);
    EXPECT_EQ(list.bHasEncrypted, 1u);
    list.Sort();
    EXPECT_EQ(list.GetEntry(10)->szName, "p11.jpg");

    list.Clear();
    EXPECT_EQ(list.GetCurrent(), -1);
    EXPECT_EQ(list.bHasEncrypted, 0u);
}

TEST(PageList, LongTextsAreCutAtWholeCodePoints) {
    std::string hangul;
    for (int i = 0; i < 600; ++i) hangul += "\xED\x95\x9C";  // 600 three-byte syllables
    const std::string path = "/d/" + hangul + ".jpg";
    CPageList list;
    list.AddFile(path, 10);
    const PageEntry& entry = *list.GetEntry(0);
    EXPECT_EQ(utf::CodePointCount(entry.szPath), kPageTextLimit);
    EXPECT_EQ(entry.szName, hangul.substr(0, 3 * kPageTextLimit));
    EXPECT_EQ(entry.szGroup, "/d");
    // Such a page is found by what was kept, not by its full path.
    EXPECT_FALSE(list.FindByPath(path));
    EXPECT_TRUE(list.FindByPath(entry.szPath));

    // Entries made elsewhere are held to the same limits; raw names count bytes.
    CPageList::EntryArray listed;
    listed.push_back(ArchiveEntry("/a.zip", hangul));
    listed[0]->szRawName = std::string(600, 'r');
    list.Append(std::move(listed));
    const PageEntry& appended = *list.GetEntry(1);
    EXPECT_EQ(utf::CodePointCount(appended.szName), kPageTextLimit);
    EXPECT_EQ(appended.szRawName.size(), kPageTextLimit);
}
