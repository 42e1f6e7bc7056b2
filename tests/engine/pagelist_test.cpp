#include "engine/pagelist.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/utf.h"
#include "engine/openpath.h"
#include "support/scratchfolder.h"

using Strings = std::vector<std::string>;

static Strings Names(const CPageList& list) {
    Strings names;
    for (int32_t i = 0; i < list.GetCount(); ++i) names.push_back(list.GetEntry(i)->szName);
    return names;
}

TEST(PageList, SortPutsEndMarksAtTheEndsAndOtherGroupsByPath) {
    const auto sorted = [](const std::string& folder, const Strings& names) {
        CPageList list;
        for (const std::string& name : names) list.AddFile(folder + name, 1);
        list.Sort();
        return Names(list);
    };
    // "##FIRST." and "##LAST." are ordinary names: '#' sorts after '!' and before digits.
    EXPECT_EQ(sorted("/b/", {"zzz.jpg", "##last.png", "a10.jpg", "000.jpg", "##first.png",
                             "##FIRST.png", "##LAST.png", "!x.jpg"}),
              (Strings{"##first.png", "!x.jpg", "##FIRST.png", "##LAST.png", "000.jpg", "a10.jpg",
                       "zzz.jpg", "##last.png"}));
    // Pages of different folders compare by path: "/x/a/2" before "/x/b/1" though 1 < 2.
    EXPECT_EQ(sorted("/x/", {"b/1.jpg", "a/2.jpg", "a/10.jpg"}),
              (Strings{"2.jpg", "10.jpg", "1.jpg"}));
    // Many pages with the same end mark don't upset the sort and keep their own order.
    Strings expected(120), shuffled;
    for (int i = 0; i < 40; ++i) {
        expected[i] = "##first." + std::to_string(i);
        expected[40 + i] = std::to_string(i) + ".jpg";
        expected[80 + i] = "##last." + std::to_string(i);
        for (int k = 2; k >= 0; --k) shuffled.push_back(expected[40 * k + i]);
    }
    EXPECT_EQ(sorted("/m/", shuffled), expected);
}

TEST(PageList, StepFollowsSpreadsAndUprightPages) {
    // Each page's width in hundreds over a height of 800: 6 upright, 8 square, 9 landscape; 0 for
    // a page not decoded yet.
    struct Case {
        const char* widths;
        bool mode, shown;
        int from, delta, to;
    } const cases[] = {
        {"", true, true, 0, -1, -1},         // an empty list has no cursor to move
        {"000000", false, true, 1, 1, 3},    // a spread on screen is passed whole,
        {"000000", false, true, 4, 1, 5},    // and at the end that lands on the last page
        {"000000", false, true, 3, -10, 0},  // other deltas move as they stand, clamped
        {"000000", false, true, 3, 10, 5},  {"000000", true, true, 5, -2, 3},
        {"666666", false, false, 3, -1, 2},  // outside a spread mode -1 is one page
        {"000000", true, false, 4, -1, 3},   // sizes not known yet: one page at a time
        {"068900", true, false, 3, -1, 1},   // both pages before upright: back over a spread
        {"060000", true, false, 3, -1, 2},   // only one of them known
        {"096000", true, false, 3, -1, 2},   // one of them landscape
        {"660000", true, false, 1, -1, 0},   // only one page lies before index 1
    };
    for (const Case& c : cases) {
        CPageList list;
        for (uint32_t i = 0; c.widths[i]; ++i) {
            const std::string path = "/book/p" + std::to_string(i) + ".jpg";
            list.AddFile(path, 1);
            const uint32_t width = (c.widths[i] - '0') * 100;
            list.SetPageSize(i, path, width, width ? 800 : 0);
        }
        list.bTwoPageMode = c.mode;
        list.bTwoPageShown = c.shown;
        list.SetCurrent(c.from);
        list.Step(c.delta);
        EXPECT_EQ(list.GetCurrent(), c.to) << c.widths << " from " << c.from << " by " << c.delta;
    }
}

TEST(PageList, UprightPages) {
    PageEntry page;
    EXPECT_TRUE(IsUprightPage(page, true));  // size unknown: the caller's answer
    EXPECT_FALSE(IsUprightPage(page, false));
    page.nPageWidth = 10;
    EXPECT_FALSE(IsUprightPage(page, true));  // height alone 0
    page.nPageHeight = 10;
    EXPECT_TRUE(IsUprightPage(page, false));
    page.nPageWidth = 4000000001u;  // large sizes must not lose the comparison to rounding
    page.nPageHeight = 4000000000u;
    EXPECT_FALSE(IsUprightPage(page, true));
}

TEST(PageList, FindSetSizeAndRemove) {
    CPageList list;
    for (const char* path : {"/Book/Page1.jpg", "/book/page1.jpg", "/book/page2.jpg"}) {
        list.AddFile(path, 1);
    }
    EXPECT_TRUE(list.FindByPath("/BOOK/PAGE2.JPG"));  // case-blind
    EXPECT_EQ(list.GetCurrent(), 2);
    EXPECT_TRUE(list.FindByPath("/book/page1.jpg"));  // the exact spelling wins
    EXPECT_EQ(list.GetCurrent(), 1);
    EXPECT_TRUE(list.FindByPath("/BOOK/page1.JPG"));  // otherwise the first that matches
    EXPECT_EQ(list.GetCurrent(), 0);
    EXPECT_FALSE(list.FindByPath("/book/page3.jpg"));
    EXPECT_FALSE(list.FindByName("PAGE2.JPG"));  // names are exact
    EXPECT_TRUE(list.FindByName("page2.jpg"));
    EXPECT_EQ(list.GetCurrent(), 2);

    // A decode that finished after the list changed must not write into another page.
    list.SetPageSize(2, "/book/page1.jpg", 10, 20);
    EXPECT_EQ(list.GetEntry(2)->nPageWidth, 0u);
    list.SetPageSize(2, "/book/page2.jpg", 10, 20);
    EXPECT_EQ(list.GetEntry(2)->nPageWidth, 10u);

    list.SetCurrent(1);
    list.RemoveCurrent();
    EXPECT_EQ(list.GetCurrentPath(), "/book/page2.jpg");  // the index stays
    list.RemoveCurrent();
    EXPECT_EQ(list.GetCurrentPath(), "/Book/Page1.jpg");  // fell off the end: the last page
    list.RemoveCurrent();
    EXPECT_EQ(list.GetCurrent(), -1);
    list.RemoveCurrent();  // nothing left to remove
}

TEST(PageList, PathsSplitAtTheLastSeparatorAndAreCutAtWholeCodePoints) {
    std::string hangul;
    for (int i = 0; i < 600; ++i) hangul += "\xED\x95\x9C";  // 600 three-byte syllables
    CPageList list;
    list.AddFile("/d/" + hangul + ".jpg", 10);
    list.AddFile("/arc/book.zip|ch1\\p1.jpg", 9);
    EXPECT_EQ(utf::CodePointCount(list.GetEntry(0)->szPath), 519u);
    EXPECT_EQ(list.GetEntry(0)->szName, hangul.substr(0, 3 * 519));
    EXPECT_EQ(list.GetEntry(1)->szGroup, "/arc/book.zip");
    EXPECT_EQ(list.GetEntry(1)->szName, "p1.jpg");
}

TEST(OpenPath, FoldersFilesAndArchives) {
    // Pages sized by their number, one with an extension the listing doesn't take, files of
    // other kinds and folders named like pictures.
    ScratchFolder dir;
    for (int n : {10, 2, 1}) dir.MakeFile("page" + std::to_string(n) + ".jpg", n);
    dir.MakeFile("page3.pcx", 3);
    dir.MakeFile("page4.HEIC", 4);  // formats added to the list later take part like the rest
    dir.MakeFile("x.cbz");
    dir.MakeFile("README");
    std::filesystem::create_directories(dir / "sub.png/in.jpg");
    CPageList list;
    const auto open = [&](const std::string& path, bool scan) {
        list.Clear();
        return OpenPath(list, path, scan);
    };
    OpenPathResult result = open(dir.Path() + "/", false);
    EXPECT_EQ(result.kind, OpenPathResult::Kind::kFolder);
    EXPECT_TRUE(result.bFolderListed);
    EXPECT_EQ(result.sCurrentFolder, dir.Path());
    EXPECT_EQ(Names(list), (Strings{"page1.jpg", "page2.jpg", "page4.HEIC", "page10.jpg"}));
    EXPECT_EQ(list.GetCurrentPath(), dir / "page1.jpg");
    EXPECT_EQ(list.GetEntry(3)->nFileSize, 10);

    // Opened alone, a file of unknown kind still becomes a page, at its sorted place.
    result = open(dir / "page3.pcx", true);
    EXPECT_EQ(result.kind, OpenPathResult::Kind::kImages);
    EXPECT_EQ(result.sCurrentFolder, dir.Path());
    EXPECT_EQ(Names(list),
              (Strings{"page1.jpg", "page2.jpg", "page3.pcx", "page4.HEIC", "page10.jpg"}));
    EXPECT_EQ(list.GetCurrentPath(), dir / "page3.pcx");
    EXPECT_EQ(list.GetEntry(2)->nFileSize, 3);
    open(dir / "page2.jpg", true);
    EXPECT_EQ(list.GetCount(), 4);  // found by the listing, not added twice
    EXPECT_EQ(list.GetCurrent(), 1);
    // A file whose folder can't be listed still becomes the one page.
    EXPECT_FALSE(open(dir / "gone/page.jpg", true).bFolderListed);
    EXPECT_EQ(list.GetCurrentPath(), dir / "gone/page.jpg");
    EXPECT_EQ(list.GetEntry(0)->nFileSize, -1);

    // One of several paths: an image is added alone, a file of unknown kind is passed over.
    result = open(dir / "page10.jpg", false);
    EXPECT_EQ(result.kind, OpenPathResult::Kind::kImages);
    EXPECT_TRUE(result.sCurrentFolder.empty());
    EXPECT_EQ(OpenPath(list, dir / "page3.pcx", false).kind, OpenPathResult::Kind::kNothing);
    // Archives go to the engine, which lists them, with or without a scan.
    EXPECT_EQ(OpenPath(list, dir / "x.cbz", false).kind, OpenPathResult::Kind::kArchive);
    EXPECT_EQ(OpenPath(list, dir / "setup.EXE", true).kind, OpenPathResult::Kind::kArchive);
    EXPECT_EQ(Names(list), Strings{"page10.jpg"});
}
