#include <gtest/gtest.h>
#include <unistd.h>

#include <map>
#include <string>

#include "platform/files.h"
#include "support/scratchfolder.h"

namespace {

struct Seen {
    bool bIsDirectory;
    int64_t nSize;
};

std::map<std::string, Seen> List(const std::string& folder, bool* listed = nullptr) {
    std::map<std::string, Seen> seen;
    const bool ok = platform::ListFolder(folder, [&](const platform::FolderItem& item) {
        const auto [it, fresh] =
            seen.emplace(std::string(item.GetName()), Seen{item.IsDirectory(), item.GetSize()});
        EXPECT_TRUE(fresh) << "listed twice: " << it->first;
    });
    if (listed) *listed = ok;
    return seen;
}

}  // namespace

TEST(Files, ListingGivesNamesKindsAndSizesAndFollowsLinks) {
    ScratchFolder dir;
    dir.MakeFile("a.jpg", 1234);
    dir.MakeFile("empty", 0);
    dir.MakeFolder("sub.png");
    // Sparse, so it costs no disk: a size past 2 GB must survive the listing.
    std::filesystem::resize_file(dir.MakeFile("big.tif"), int64_t{3} << 30);
    ASSERT_EQ(symlink("a.jpg", (dir / "link.jpg").c_str()), 0);
    ASSERT_EQ(symlink("sub.png", (dir / "linkdir").c_str()), 0);
    ASSERT_EQ(symlink("missing", (dir / "dangling.jpg").c_str()), 0);

    bool listed = false;
    const auto seen = List(dir.Path(), &listed);
    EXPECT_TRUE(listed);
    ASSERT_EQ(seen.size(), 7u);  // "." and ".." are not names of the folder
    EXPECT_FALSE(seen.at("a.jpg").bIsDirectory);
    EXPECT_EQ(seen.at("a.jpg").nSize, 1234);
    EXPECT_EQ(seen.at("empty").nSize, 0);
    EXPECT_EQ(seen.at("big.tif").nSize, int64_t{3} << 30);
    EXPECT_TRUE(seen.at("sub.png").bIsDirectory);
    // Links stand for what they point at; a dangling one is a file of unknown size.
    EXPECT_FALSE(seen.at("link.jpg").bIsDirectory);
    EXPECT_EQ(seen.at("link.jpg").nSize, 1234);
    EXPECT_TRUE(seen.at("linkdir").bIsDirectory);
    EXPECT_FALSE(seen.at("dangling.jpg").bIsDirectory);
    EXPECT_EQ(seen.at("dangling.jpg").nSize, -1);
}

TEST(Files, MissingFolderAndPathFactsFail) {
    ScratchFolder dir;
    bool listed = true;
    EXPECT_TRUE(List(dir / "nowhere", &listed).empty());
    EXPECT_FALSE(listed);
    bool emptyListed = false;
    EXPECT_TRUE(List(dir.Path(), &emptyListed).empty());
    EXPECT_TRUE(emptyListed);
    // A file is no folder to list.
    const std::string file = dir.MakeFile("f.bmp", 7);
    EXPECT_FALSE(platform::ListFolder(file, [](const platform::FolderItem&) {}));

    EXPECT_TRUE(platform::IsDirectory(dir.Path()));
    EXPECT_FALSE(platform::IsDirectory(file));
    EXPECT_FALSE(platform::IsDirectory(dir / "nowhere"));
    EXPECT_EQ(platform::GetFileSize(file), 7);
    EXPECT_EQ(platform::GetFileSize(dir / "nowhere"), -1);
    EXPECT_EQ(platform::GetFileSize(""), -1);
}
