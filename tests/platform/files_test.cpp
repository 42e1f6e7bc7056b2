#include "platform/files.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <map>
#include <optional>
#include <string>
#include <utility>

#include "support/scratchfolder.h"

TEST(Files, ListingGivesNamesKindsAndSizesFollowsLinksAndFailsOnNonFolders) {
    // Name -> (is a directory, size; 0 for directories, whose size means nothing).
    using Listing = std::map<std::string, std::pair<bool, int64_t>>;
    const auto list = [](const std::string& folder) -> std::optional<Listing> {
        Listing seen;
        const bool listed = platform::ListFolder(folder, [&](const platform::FolderItem& item) {
            const bool isDir = item.IsDirectory();
            EXPECT_TRUE(
                seen.emplace(item.GetName(), std::pair(isDir, isDir ? 0 : item.GetSize())).second)
                << "listed twice: " << item.GetName();
        });
        return listed ? std::optional(seen) : std::nullopt;
    };
    ScratchFolder dir;
    EXPECT_EQ(list(dir.Path()), Listing{});  // "." and ".." are no names of the folder
    EXPECT_EQ(list(dir / "nowhere"), std::nullopt);
    EXPECT_EQ(list(dir.MakeFile("a.jpg", 1234)), std::nullopt);

    std::filesystem::create_directory(dir / "sub.png");
    // Sparse, so it costs no disk: a size past 2 GB must survive the listing.
    std::filesystem::resize_file(dir.MakeFile("big.tif"), int64_t{3} << 30);
    ASSERT_EQ(symlink("a.jpg", (dir / "link.jpg").c_str()), 0);
    ASSERT_EQ(symlink("sub.png", (dir / "linkdir").c_str()), 0);
    ASSERT_EQ(symlink("missing", (dir / "dangling.jpg").c_str()), 0);
    // Links stand for what they point at; a dangling one is a file of unknown size.
    EXPECT_EQ(list(dir.Path()), (Listing{{"a.jpg", {false, 1234}},
                                         {"sub.png", {true, 0}},
                                         {"big.tif", {false, int64_t{3} << 30}},
                                         {"link.jpg", {false, 1234}},
                                         {"linkdir", {true, 0}},
                                         {"dangling.jpg", {false, -1}}}));
}
