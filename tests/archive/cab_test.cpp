// The Cabinet reader: listings of cabinets made by gcab, and headers written here byte by byte for
// what gcab doesn't make (UTF-8 names, a set's strings and reserves, damage).
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "archive/cab.h"
#include "archive/tarnman.h"
#include "archive_bytes.h"
#include "support/scratchfolder.h"
#include "zip_teststreams.h"

namespace {

using ziptest::CMemIn;
using ziptest::MakeMemOut;
using ziptest::MemSink;

using archivebytes::Put16;
using archivebytes::Put32;

struct File {
    std::string name;
    uint32_t size;
    uint16_t folder, attributes;
};

// A cabinet of one folder per compression type given, and the files' records; no data blocks.
std::string Cabinet(const std::vector<uint16_t>& folderTypes, const std::vector<File>& files,
                    uint16_t flags = 0, const std::string& beforeFolders = "",
                    uint8_t folderReserve = 0) {
    std::string folders;
    for (uint16_t type : folderTypes) {
        Put32(folders, 0);
        Put16(folders, 0);
        Put16(folders, type);
        folders += std::string(folderReserve, 'r');
    }
    std::string s = "MSCF";
    Put32(s, 0);
    Put32(s, 0);  // cabinet size: not read
    Put32(s, 0);
    Put32(s, uint32_t(36 + beforeFolders.size() + folders.size()));
    Put32(s, 0);
    s += char(3);
    s += char(1);
    Put16(s, uint32_t(folderTypes.size()));
    Put16(s, uint32_t(files.size()));
    Put16(s, flags);
    Put16(s, 0);
    Put16(s, 0);
    s += beforeFolders + folders;
    for (const File& f : files) {
        Put32(s, f.size);
        Put32(s, 0);
        Put16(s, f.folder);
        Put16(s, (46u << 9) | (3u << 5) | 14u);  // 2026-03-14
        Put16(s, 12u << 11);
        Put16(s, f.attributes);
        s += f.name;
        s += '\0';
    }
    return s;
}

struct Opened {
    CTarnUnCab reader;
    MemSink sink;
    bool ok = false;

    explicit Opened(const std::string& bytes) {
        reader.SetCodePage(1252);
        reader.SetOutStreamFactory(&MakeMemOut, &sink);
        auto stream = TarnPtr<ITarnInStream>::Adopt(new CMemIn<>(bytes));
        ok = reader.Open(stream.Get(), 0);
    }
    uint32_t Count() const { return reader.GetFileList()->GetCount(); }
    const TarnFileItem* Item(uint32_t i) const { return reader.GetFileList()->Get(i); }
};

TEST(CabReader, ListsNamesMethodsAttributesAndTimes) {
    Opened o(Cabinet({0, 1, 3}, {{"caf\xE9.jpg", 10, 0, 0x21},
                                 {"\xEC\xB1\x85.png", 20, 1, 0x80 | 0x06},
                                 {"dir\\lzx.gif", 30, 2, 0},
                                 {"stray.bmp", 40, 9, 0}}));
    ASSERT_TRUE(o.ok) << o.reader.GetLastError();
    ASSERT_EQ(o.Count(), 4u);
    EXPECT_EQ(o.Item(0)->fileNameW, "caf\xC3\xA9.jpg");   // the extractor's code page
    EXPECT_EQ(o.Item(1)->fileNameW, "\xEC\xB1\x85.png");  // bit 7: UTF-8
    EXPECT_EQ(o.Item(0)->attributes, 0x01u);              // only read-only, hidden, system
    EXPECT_EQ(o.Item(1)->attributes, 0x06u);
    EXPECT_EQ(o.Item(0)->compressionMethod, 0);
    EXPECT_EQ(o.Item(1)->compressionMethod, 500);
    EXPECT_EQ(o.Item(2)->compressionMethod, 999);
    EXPECT_EQ(o.Item(3)->compressionMethod, 999);
    EXPECT_EQ(o.Item(2)->uncompressedSize, 30);
    EXPECT_NE(o.Item(0)->fileTime, 0u);
    EXPECT_NE(o.Item(0)->fileTimeNT, 0u);

    const uint32_t first = 0;
    EXPECT_FALSE(o.reader.ExtractFiles(&first, 1, nullptr));
    EXPECT_EQ(o.reader.GetLastError(), uint32_t(TARN_ERR_METHOD));
}

TEST(CabReader, SetStringsAndReservesAreStepped) {
    std::string before;
    Put16(before, 3);   // header reserve
    before += char(2);  // folder reserve
    before += char(0);  // data reserve
    before += "HHH";
    before += std::string("prev.cab\0disk1\0next.cab\0disk3\0", 30);
    Opened o(Cabinet({1}, {{"a.jpg", 1, 0, 0}}, 0x0007, before, 2));
    ASSERT_TRUE(o.ok) << o.reader.GetLastError();
    ASSERT_EQ(o.Count(), 1u);
    EXPECT_EQ(o.Item(0)->fileNameW, "a.jpg");
    EXPECT_EQ(o.Item(0)->compressionMethod, 500);
}

TEST(CabReader, DamageGivesHeaderError) {
    const std::string good = Cabinet({0}, {{"a.jpg", 1, 0, 0}, {"b.jpg", 2, 0, 0}});
    Opened cut(good.substr(0, good.size() - 3));  // inside the last name
    EXPECT_FALSE(cut.ok);
    EXPECT_EQ(cut.reader.GetLastError(), uint32_t(TARN_ERR_HEADER));
    EXPECT_EQ(cut.Count(), 1u);

    Opened longName(Cabinet({0}, {{std::string(300, 'n'), 1, 0, 0}}));
    EXPECT_EQ(longName.reader.GetLastError(), uint32_t(TARN_ERR_HEADER));
    EXPECT_EQ(longName.Count(), 0u);
    EXPECT_TRUE(Opened(Cabinet({0}, {{std::string(259, 'n'), 1, 0, 0}})).ok);

    EXPECT_EQ(Opened(good.substr(0, 20)).reader.GetLastError(), uint32_t(TARN_ERR_HEADER));
    // Many folders and files claimed, none there.
    std::string hostile = good.substr(0, 36);
    hostile[26] = hostile[27] = hostile[28] = hostile[29] = char(0xFF);
    EXPECT_EQ(Opened(hostile).reader.GetLastError(), uint32_t(TARN_ERR_HEADER));
}

TEST(CabReader, ListsWhatGcabMakes) {
    if (std::system("command -v gcab >/dev/null") != 0) GTEST_SKIP() << "gcab not installed";
    ScratchFolder dir;
    const std::string d = dir.Path();
    ASSERT_EQ(std::system(("cd '" + d + "' && mkdir sub && printf hello > a.txt && " +
                           "printf 'world!!' > sub/b.jpg && gcab -c -z z.cab a.txt sub/b.jpg && " +
                           "gcab -c s.cab a.txt")
                              .c_str()),
              0);
    CTarnMan man;
    ASSERT_TRUE(man.Open(d + "/z.cab", nullptr)) << man.GetLastError();
    EXPECT_EQ(man.GetFileFormat(), TarnFormatCab);
    ASSERT_EQ(man.GetFileItemCount(), 2u);
    EXPECT_EQ(man.GetFileItem(0)->fileNameW, "a.txt");
    EXPECT_EQ(man.GetFileItem(1)->fileNameW, "sub\\b.jpg");
    EXPECT_EQ(man.GetFileItem(1)->uncompressedSize, 7);
    EXPECT_EQ(man.GetFileItem(1)->compressionMethod, 500);
    ASSERT_TRUE(man.Open(d + "/s.cab", nullptr)) << man.GetLastError();
    ASSERT_EQ(man.GetFileItemCount(), 1u);
    EXPECT_EQ(man.GetFileItem(0)->compressionMethod, 0);
}

}  // namespace
