#include "platform/files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
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

TEST(Files, FactsGiveSizeAndFileTimesOfFilesAndNothingForOthers) {
    // The file time of the POSIX epoch, and 100 ns steps below it.
    EXPECT_EQ(platform::FileTimeFromUnix(0, 0), 116444736000000000u);
    EXPECT_EQ(platform::FileTimeFromUnix(1, 250), 116444736010000002u);
    EXPECT_EQ(platform::FileTimeFromUnix(-11644473601, 0), 0u);

    ScratchFolder dir;
    const std::string file = dir.MakeFile("a.jpg", 4321);
    struct timespec times[2] = {{1700000000, 123456789}, {1700000000, 123456789}};
    ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
    platform::FileFacts facts;
    ASSERT_TRUE(platform::GetFileFacts(file, &facts));
    EXPECT_EQ(facts.nSize, 4321);
    EXPECT_EQ(facts.ftLastWrite, platform::FileTimeFromUnix(1700000000, 123456789));
    platform::FileFacts byHandle;
    const int fd = open(file.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(platform::GetFileFactsOf(fd, &byHandle));
    close(fd);
    EXPECT_EQ(byHandle.nSize, facts.nSize);
    EXPECT_EQ(byHandle.ftLastWrite, facts.ftLastWrite);
    EXPECT_EQ(byHandle.ftCreation, facts.ftCreation);

    EXPECT_FALSE(platform::GetFileFacts(dir / "missing", &facts));
    EXPECT_EQ(facts.nSize, 0);
    EXPECT_EQ(facts.ftLastWrite, 0u);
    EXPECT_FALSE(platform::GetFileFacts(dir.Path(), &facts));  // a folder is no page
}
