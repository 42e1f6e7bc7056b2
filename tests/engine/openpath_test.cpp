#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "engine/openpath.h"
#include "engine/pagelist.h"
#include "support/scratchfolder.h"

namespace {

std::vector<std::string> Names(const CPageList& list) {
    std::vector<std::string> names;
    for (int32_t i = 0; i < list.GetCount(); ++i) names.push_back(list.GetEntry(i)->szName);
    return names;
}

// A folder of three numbered pages, one page with an extension the listing doesn't take, an
// archive and a sub-folder.
struct ComicFolder {
    ComicFolder() {
        dir.MakeFile("page10.jpg", 10);
        dir.MakeFile("page2.jpg", 2);
        dir.MakeFile("page1.png", 1);
        dir.MakeFile("page3.webp", 3);
        dir.MakeFile("extra.cbz", 4);
        dir.MakeFolder("sub");
        dir.MakeFile("sub/inside.jpg", 5);
    }
    ScratchFolder dir;
};

}  // namespace

TEST(OpenPath, AFolderIsListedSortedAndBecomesCurrent) {
    ComicFolder comic;
    CPageList list;
    const OpenPathResult result = OpenPath(list, comic.dir.Path() + "/", false);
    EXPECT_EQ(result.kind, OpenPathResult::Kind::kFolder);
    EXPECT_TRUE(result.bFolderListed);
    EXPECT_EQ(result.sCurrentFolder, comic.dir.Path());
    EXPECT_EQ(Names(list), (std::vector<std::string>{"page1.png", "page2.jpg", "page10.jpg"}));
    EXPECT_EQ(list.GetCurrent(), 0);
    // The lock was given back.
    EXPECT_TRUE(list.cs.try_lock());
    list.cs.unlock();
}

TEST(OpenPath, AScannedFileStandsAtItsSortedPlaceAndIsCurrent) {
    ComicFolder comic;
    CPageList list;
    // An extension that isn't an image still becomes a page when opened alone.
    OpenPathResult result = OpenPath(list, comic.dir / "page3.webp", true);
    EXPECT_EQ(result.kind, OpenPathResult::Kind::kImages);
    EXPECT_EQ(result.sCurrentFolder, comic.dir.Path());
    EXPECT_EQ(Names(list),
              (std::vector<std::string>{"page1.png", "page2.jpg", "page3.webp", "page10.jpg"}));
    EXPECT_EQ(list.GetCurrentPath(), comic.dir / "page3.webp");
    EXPECT_EQ(list.GetEntry(2)->nFileSize, 3);

    list.Clear();
    result = OpenPath(list, comic.dir / "page2.jpg", true);
    EXPECT_EQ(list.GetCount(), 3);  // found by the listing, not added twice
    EXPECT_EQ(list.GetCurrentName(), "page2.jpg");

    // A file whose folder can't be listed still becomes the one page.
    list.Clear();
    result = OpenPath(list, comic.dir / "gone/page.jpg", true);
    EXPECT_EQ(result.kind, OpenPathResult::Kind::kImages);
    EXPECT_FALSE(result.bFolderListed);
    EXPECT_EQ(list.GetCurrentPath(), comic.dir / "gone/page.jpg");
    EXPECT_EQ(list.GetEntry(0)->nFileSize, -1);
}

TEST(OpenPath, FilesOfSeveralAreAddedAloneAndArchivesGoToTheEngine) {
    ComicFolder comic;
    CPageList list;
    OpenPathResult result = OpenPath(list, comic.dir / "page10.jpg", false);
    EXPECT_EQ(result.kind, OpenPathResult::Kind::kImages);
    EXPECT_TRUE(result.sCurrentFolder.empty());
    result = OpenPath(list, comic.dir / "page3.webp", false);
    EXPECT_EQ(result.kind, OpenPathResult::Kind::kNothing);
    result = OpenPath(list, comic.dir / "page2.jpg", false);
    EXPECT_EQ(Names(list), (std::vector<std::string>{"page10.jpg", "page2.jpg"}));
    EXPECT_EQ(list.GetEntry(0)->nFileSize, 10);
    EXPECT_EQ(list.GetCurrent(), 0);

    for (const bool scan : {false, true}) {
        result = OpenPath(list, comic.dir / "extra.cbz", scan);
        EXPECT_EQ(result.kind, OpenPathResult::Kind::kArchive);
        result = OpenPath(list, comic.dir / "setup.EXE", scan);
        EXPECT_EQ(result.kind, OpenPathResult::Kind::kArchive);
    }
    EXPECT_EQ(list.GetCount(), 2);  // the engine lists archives, not the opening
}
