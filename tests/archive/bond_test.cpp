// The book container reader against books made by a small writer below: listing, metadata, the
// three scrambles, CRC and version checks, and damaged or hostile files.
#include <gtest/gtest.h>

#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "archive/bond.h"
#include "archive/bond_writer.h"
#include "archive/tarnman.h"
#include "support/scratchfolder.h"
#include "zip_teststreams.h"

namespace {

using ziptest::CMemIn;
using ziptest::MakeMemOut;
using ziptest::MemSink;

using namespace bondtest;

std::string Pattern(size_t size, uint32_t seed) {
    std::string bytes(size, '\0');
    for (auto& b : bytes) {
        seed = seed * 1664525 + 1013904223;
        b = char(seed >> 24);
    }
    return bytes;
}

struct Opened {
    CTarnUnBond reader;
    MemSink sink;
    bool ok = false;

    explicit Opened(const std::string& bytes) {
        reader.SetOutStreamFactory(&MakeMemOut, &sink);
        auto stream = TarnPtr<ITarnInStream>::Adopt(new CMemIn<>(bytes));
        ok = reader.Open(stream.Get(), 0);
    }
    uint32_t Count() const { return reader.GetFileList()->GetCount(); }
    const TarnFileItem* Item(uint32_t i) const { return reader.GetFileList()->Get(i); }
};

Book TwoPages() {
    Book book;
    book.pages = {{u"001.jpg", Pattern(10000, 1)}, {u"sub/002.png", Pattern(5000, 2)}};
    return book;
}

TEST(BondReader, ListsPagesAndMetadataWithoutTouchingPageData) {
    Book book = TwoPages();
    book.pages.push_back({u"\uD55C\uAE00.jpg", "tiny"});
    book.headAttrs = {{"TITL", Wide(u"\uCC45 Title", false)},
                      {"WRTR", Wide(u"Writer", false)},
                      {"DIRE", U32(1)},
                      {"UCRC", U32(0xCAFEBABE)},
                      {"FTIM", "whatever"}};
    Opened o(book.Bytes());
    ASSERT_TRUE(o.ok) << o.reader.GetLastError();
    ASSERT_EQ(o.Count(), 3u);
    EXPECT_EQ(o.Item(0)->fileNameW, "001.jpg");
    EXPECT_EQ(o.Item(1)->fileNameW, "sub\\002.png");
    EXPECT_EQ(o.Item(2)->fileNameW, "\xED\x95\x9C\xEA\xB8\x80.jpg");
    EXPECT_EQ(o.Item(0)->uncompressedSize, 10000);
    EXPECT_EQ(o.Item(0)->crc32, Crc(book.pages[0].data));
    EXPECT_EQ(o.Item(0)->encryptionMethod, 0u);
    EXPECT_EQ(o.Item(0)->fileTime, 1609459200u);
    EXPECT_EQ(o.Item(0)->fileTimeNT, (1609459200ull + 11644473600ull) * 10000000ull);

    const TarnBondMeta* meta = o.reader.GetBondMeta();
    ASSERT_NE(meta, nullptr);
    EXPECT_EQ(meta->title, "\xEC\xB1\x85 Title");
    EXPECT_EQ(meta->writer, "Writer");
    EXPECT_TRUE(meta->hasText);
    EXPECT_EQ(meta->direction, 1u);
    EXPECT_EQ(meta->ucrc, 0xCAFEBABEu);

    ASSERT_TRUE(o.reader.ExtractAll(nullptr)) << o.reader.GetLastError();
    EXPECT_EQ(o.sink.files["001.jpg"], book.pages[0].data);
    EXPECT_EQ(o.sink.files["sub\\002.png"], book.pages[1].data);

    o.reader.Close();
    EXPECT_EQ(o.reader.GetBondMeta()->title, "");
}

TEST(BondReader, TextFlagAndOversizedTexts) {
    Book owner = TwoPages();
    owner.headAttrs = {{"OWNR", Wide(u"Me", false)}, {"COMT", std::string(8191, 'a')}};
    Opened o(owner.Bytes());
    ASSERT_TRUE(o.ok);
    EXPECT_EQ(o.reader.GetBondMeta()->owner, "Me");
    EXPECT_EQ(o.reader.GetBondMeta()->comment, "");  // 8191 bytes: ignored
    EXPECT_FALSE(o.reader.GetBondMeta()->hasText);   // the owner alone is no text

    Book below = TwoPages();
    below.headAttrs = {{"COMT", Wide(std::u16string(4095, u'c'), false)}};  // 8190 bytes
    Opened b(below.Bytes());
    ASSERT_TRUE(b.ok);
    EXPECT_EQ(b.reader.GetBondMeta()->comment.size(), 4095u);
    EXPECT_TRUE(b.reader.GetBondMeta()->hasText);
}

TEST(BondReader, EachScrambleRoundTripsAndRestartsPerEntry) {
    struct Case {
        uint32_t type;
        std::string uuid;
    } cases[] = {
        {1, std::string("\x11\x22\x33\x44\x55\x66\x77\x88\x5A\x01", 10) + "ABCDEF"},
        {1, std::string(16, '\0')},  // a zero key word XORs with 255
        {2, std::string(16, 'u')},
        {3, std::string("\x78\x56\x34\x12", 4) + std::string(12, 'v')},
    };
    for (const Case& c : cases) {
        Book book = TwoPages();
        book.encr = c.type;
        book.uuid = c.uuid;
        const std::string bytes = book.Bytes();
        // The scramble changes the bytes on disk.
        EXPECT_EQ(bytes.find(book.pages[1].data.substr(0, 64)), std::string::npos) << c.type;
        Opened o(bytes);
        ASSERT_TRUE(o.ok) << c.type;
        EXPECT_EQ(o.reader.GetBondMeta()->encr, c.type);
        EXPECT_FALSE(o.reader.IsEncrypted());
        ASSERT_TRUE(o.reader.ExtractAll(nullptr)) << c.type << " " << o.reader.GetLastError();
        EXPECT_EQ(o.sink.files["001.jpg"], book.pages[0].data) << c.type;
        EXPECT_EQ(o.sink.files["sub\\002.png"], book.pages[1].data) << c.type;
        // Extracting the second entry alone starts its scramble at position 0 as well.
        MemSink again;
        o.reader.SetOutStreamFactory(&MakeMemOut, &again);
        const uint32_t second = 1;
        ASSERT_TRUE(o.reader.ExtractFiles(&second, 1, nullptr));
        EXPECT_EQ(again.files["sub\\002.png"], book.pages[1].data) << c.type;
    }
}

TEST(BondReader, CrcMismatchAndZeroSize) {
    Book book = TwoPages();
    book.pages[0].crc = Crc(book.pages[0].data) ^ 1;
    book.pages[1].withSize = false;
    Opened o(book.Bytes());
    ASSERT_TRUE(o.ok);
    EXPECT_EQ(o.Item(1)->uncompressedSize, 0);
    const uint32_t first = 0;
    EXPECT_FALSE(o.reader.ExtractFiles(&first, 1, nullptr));
    EXPECT_EQ(o.reader.GetLastError(), uint32_t(TARN_ERR_CRC));
}

TEST(BondReader, RefusesNewerVersionsScramblesAndEntryForms) {
    Book last = TwoPages();
    last.version = 0x20090113;
    EXPECT_TRUE(Opened(last.Bytes()).ok);

    Book newer = TwoPages();
    newer.version = 0x20090114;
    Opened n(newer.Bytes());
    EXPECT_FALSE(n.ok);
    EXPECT_EQ(n.reader.GetLastError(), uint32_t(TARN_ERR_VERSION));
    EXPECT_EQ(n.Count(), 0u);

    Book scramble = TwoPages();
    scramble.encr = 4;
    Opened s(scramble.Bytes());
    EXPECT_FALSE(s.ok);
    EXPECT_EQ(s.reader.GetLastError(), uint32_t(TARN_ERR_VERSION));

    Book compressed = TwoPages();
    compressed.comp = 1;
    Opened c(compressed.Bytes());
    EXPECT_FALSE(c.ok);
    EXPECT_EQ(c.reader.GetLastError(), uint32_t(TARN_ERR_VERSION));
}

TEST(BondReader, DamagedFilesKeepWhatWasListed) {
    const std::string whole = TwoPages().Bytes();
    // Cut by a few bytes: the head is whole but the recorded size no longer matches.
    Opened cut(whole.substr(0, whole.size() - 3));
    EXPECT_FALSE(cut.ok);
    EXPECT_EQ(cut.reader.GetLastError(), uint32_t(TARN_ERR_BROKEN));
    EXPECT_EQ(cut.Count(), 2u);

    // Cut inside the head: nothing lists.
    Opened early(whole.substr(0, 60));
    EXPECT_FALSE(early.ok);
    EXPECT_EQ(early.reader.GetLastError(), uint32_t(TARN_ERR_BROKEN));
    EXPECT_EQ(early.Count(), 0u);

    Opened tooShort(whole.substr(0, 10));
    EXPECT_EQ(tooShort.reader.GetLastError(), uint32_t(TARN_ERR_NOT_THIS_FORMAT));

    // A stranger in the list ends it; the pages before it stay.
    Book stranger = TwoPages();
    stranger.extraListChildren = {Chunk{"WHAT", {{"POS4", U32(0)}}, {}, {}}};
    Opened s(stranger.Bytes());
    EXPECT_FALSE(s.ok);
    EXPECT_EQ(s.reader.GetLastError(), uint32_t(TARN_ERR_BROKEN));
    EXPECT_EQ(s.Count(), 2u);

    Book noPos = TwoPages();
    noPos.extraListChildren = {Chunk{"FINF", {{"POS4", "12"}, {"NAME", Wide(u"x", true)}}, {}, {}}};
    Opened p(noPos.Bytes());
    EXPECT_EQ(p.reader.GetLastError(), uint32_t(TARN_ERR_BROKEN));
    EXPECT_EQ(p.Count(), 2u);
}

TEST(BondReader, HostileSizesFailWithoutAllocating) {
    auto rootWith = [](uint32_t attrBytes, uint32_t childBytes, const std::string& rest) {
        std::string s = "OL30";
        Put32(s, attrBytes);
        Put32(s, childBytes);
        Put32(s, 0);
        return s + rest;
    };
    const std::string vers = Id("VERS") + U32(4) + U32(0x20090113);
    // Attribute bytes far beyond the file.
    EXPECT_EQ(Opened(rootWith(0xFFFFFFF0u, 16, vers)).reader.GetLastError(),
              uint32_t(TARN_ERR_BROKEN));
    // An attribute that claims more than its chunk holds.
    EXPECT_EQ(Opened(rootWith(12, 16, Id("VERS") + U32(0x7FFFFFFF) + "abcd")).reader.GetLastError(),
              uint32_t(TARN_ERR_BROKEN));
    // An attribute id of 0.
    EXPECT_EQ(Opened(rootWith(12, 16, U32(0) + U32(4) + "abcd")).reader.GetLastError(),
              uint32_t(TARN_ERR_BROKEN));
    // No children at all.
    EXPECT_EQ(Opened(rootWith(12, 0, vers)).reader.GetLastError(), uint32_t(TARN_ERR_BROKEN));

    // A head whose child claims 4 GiB of grandchildren, and a head nested a thousand deep.
    std::string head = "HEAD";
    Put32(head, 0);
    Put32(head, 16);
    Put32(head, 0);
    head += "LIST";
    Put32(head, 0);
    Put32(head, 0xFFFFFFFFu);
    Put32(head, 0);
    EXPECT_EQ(Opened(rootWith(12, uint32_t(head.size()), vers + head)).reader.GetLastError(),
              uint32_t(TARN_ERR_BROKEN));
    std::string deep;
    for (int i = 0; i < 1000; ++i) {
        std::string outer = "HEAD";
        Put32(outer, 0);
        Put32(outer, uint32_t(deep.size()));
        Put32(outer, 0);
        deep = outer + deep;
    }
    EXPECT_EQ(Opened(rootWith(12, uint32_t(deep.size()), vers + deep)).reader.GetLastError(),
              uint32_t(TARN_ERR_BROKEN));

    // An entry whose data offset points past the end fails at extraction, not at open.
    Book book = TwoPages();
    book.withFsiz = false;
    std::string bytes = book.Bytes();
    Opened o(bytes.substr(0, bytes.size() - 100));
    ASSERT_TRUE(o.ok);
    const uint32_t second = 1;
    EXPECT_FALSE(o.reader.ExtractFiles(&second, 1, nullptr));
    EXPECT_EQ(o.reader.GetLastError(), uint32_t(TARN_ERR_DATA_READ));
}

TEST(BondReader, OpensThroughTheManagerWithItsMetadata) {
    ScratchFolder dir;
    Book book = TwoPages();
    book.headAttrs = {{"TITL", Wide(u"Book", false)}};
    const std::string path = dir.Path() + "/book.orl3";
    std::ofstream(path, std::ios::binary) << book.Bytes();
    CTarnMan man;
    ASSERT_TRUE(man.Open(path, nullptr)) << man.GetLastError();
    EXPECT_EQ(man.GetFileFormat(), TarnFormatBond);
    EXPECT_EQ(man.GetFileItemCount(), 2u);
    ASSERT_NE(man.GetBondMeta(), nullptr);
    EXPECT_EQ(man.GetBondMeta()->title, "Book");

    // The pair hands out a copy that outlives the archive; reusing the open archive refreshes it.
    TarnArchiveInfo info;
    {
        CTarnLibPair pair;
        ASSERT_TRUE(pair.Open(path, &info, false));
        info.bondMeta.reset();
        ASSERT_TRUE(pair.Open(path, &info, false));
        pair.Close();
    }
    ASSERT_TRUE(info.bondMeta.has_value());
    EXPECT_EQ(info.bondMeta->title, "Book");

    Book newer = TwoPages();
    newer.version = 0x30000000;
    const std::string newerPath = dir.Path() + "/newer.orl3";
    std::ofstream(newerPath, std::ios::binary) << newer.Bytes();
    EXPECT_FALSE(man.Open(newerPath, nullptr));
    EXPECT_EQ(man.GetLastError(), uint32_t(TARN_ERR_VERSION));
}

}  // namespace
