// The extractor base: opening, the extract loop's error mapping, names and code pages.
#include <gtest/gtest.h>

#include "tarnfake.h"

namespace {

struct Opened {
    CFakeReader reader;
    FakeSink sink;
    explicit Opened(const std::vector<FakeEntry>& entries) {
        auto stream = TarnPtr<ITarnInStream>::Adopt(new CMemInStream(MakeFakeArchive(entries)));
        reader.SetOutStreamFactory(&FakeFactory, &sink);
        ok = reader.Open(stream.Get(), 0);
    }
    bool ok = false;
};

class CountingEvent : public ITarnEvent {
public:
    uint32_t stopAtOpening = ~0u, stopStartName = ~0u;
    std::string stopStartFile;
    std::vector<uint32_t> completed, errors;
    int openings = 0;
    void OnOpening(const TarnFileItem*, float, uint32_t* stop) override {
        if (uint32_t(openings++) == stopAtOpening) *stop = 1;
    }
    void OnStartFile(const TarnFileItem* item, uint32_t* stopCurrent, uint32_t*) override {
        if (item->fileName == stopStartFile) *stopCurrent = 1;
    }
    void OnProgressing(const TarnProgress*, uint32_t*, uint32_t*) override {}
    void OnCompleteFile(const TarnProgress*, uint32_t error) override {
        completed.push_back(error);
    }
    void OnError(uint32_t error, const TarnFileItem*, uint32_t*) override {
        errors.push_back(error);
    }
};

TEST(TarnExtractor, OpenListsAndCloseResets) {
    Opened a({{"a.txt", "hello"}, {"dir/", "", true}, {"dir/b.txt", "xy"}});
    ASSERT_TRUE(a.ok);
    const TarnFileList* list = a.reader.GetFileList();
    ASSERT_EQ(list->GetCount(), 3u);
    EXPECT_EQ(list->GetFileCount(), 2u);
    EXPECT_EQ(list->GetFolderCount(), 1u);
    EXPECT_EQ(list->Get(2)->fileName, "dir\\b.txt");
    a.reader.Close();
    EXPECT_EQ(a.reader.GetFileList()->GetCount(), 0u);
    EXPECT_GE(a.reader.nReleased, 1);

    // A stream that isn't this format: the reader's own error.
    auto junk = TarnPtr<ITarnInStream>::Adopt(new CMemInStream("nothing here"));
    EXPECT_FALSE(a.reader.Open(junk.Get(), 0));
    EXPECT_EQ(a.reader.GetLastError(), uint32_t(TARN_ERR_NOT_THIS_FORMAT));

    // The sink may stop the listing.
    CountingEvent ev;
    ev.stopAtOpening = 1;
    CFakeReader r;
    r.SetEvent(&ev);
    auto s =
        TarnPtr<ITarnInStream>::Adopt(new CMemInStream(MakeFakeArchive({{"a", "1"}, {"b", "2"}})));
    EXPECT_FALSE(r.Open(s.Get(), 0));
    EXPECT_EQ(r.GetLastError(), uint32_t(TARN_ERR_STOPPED));
    EXPECT_EQ(r.GetFileList()->GetCount(), 2u);
}

TEST(TarnExtractor, ExtractToFolderWritesEveryEntry) {
    Opened a({{"a.txt", "hello"}, {"dir/", "", true}, {"ro.txt", "xy"}, {"empty", ""}});
    ASSERT_TRUE(a.ok);
    const std::string folder = "/out";
    EXPECT_TRUE(a.reader.ExtractAll(&folder));
    EXPECT_EQ(a.reader.GetLastError(), 0u);
    EXPECT_EQ(a.sink.files["/out/a.txt"], "hello");
    EXPECT_EQ(a.sink.files["/out/ro.txt"], "xy");
    EXPECT_TRUE(a.sink.folders.count("/out/dir"));
    EXPECT_TRUE(a.sink.files.count("/out/empty"));
    EXPECT_EQ(a.sink.attributes["/out/ro.txt"], kTarnAttrReadOnly);
    EXPECT_FALSE(a.sink.attributes.count("/out/a.txt"));
    EXPECT_EQ(a.sink.times["/out/a.txt"], 1000000u);

    // Without a folder the factory gets the entry name itself.
    const uint32_t one = 0;
    EXPECT_TRUE(a.reader.ExtractFiles(&one, 1, nullptr));
    EXPECT_EQ(a.sink.files["a.txt"], "hello");

    // An empty archive extracts nothing and succeeds.
    Opened empty({});
    ASSERT_TRUE(empty.ok);
    EXPECT_TRUE(empty.reader.ExtractAll(&folder));
}

TEST(TarnExtractor, ErrorMapping) {
    Opened a({{"a", "1"}, {"bad", "22"}, {"short", "333"}, {"c", "4444"}});
    ASSERT_TRUE(a.ok);
    const std::string folder = "/o/";

    EXPECT_FALSE(a.reader.ExtractFiles(nullptr, 0, &folder));
    EXPECT_EQ(a.reader.GetLastError(), uint32_t(TARN_ERR_INDEX));

    const uint32_t outOfRange[] = {7, 0};
    EXPECT_FALSE(a.reader.ExtractFiles(outOfRange, 2, &folder));
    EXPECT_EQ(a.sink.files["/o/a"], "1");  // the loop went on after the bad index

    const uint32_t decodeFails = 1;
    EXPECT_FALSE(a.reader.ExtractFiles(&decodeFails, 1, &folder));
    EXPECT_EQ(a.reader.GetLastError(), uint32_t(TARN_ERR_CORRUPT));

    const uint32_t shortWrite = 2;
    EXPECT_FALSE(a.reader.ExtractFiles(&shortWrite, 1, &folder));
    EXPECT_EQ(a.reader.GetLastError(), uint32_t(TARN_ERR_SIZE_DIFFERS));
    // gzip and bzip2 know no size up front: no check.
    a.reader.SetFormat(TarnFormatGzip);
    EXPECT_TRUE(a.reader.ExtractFiles(&shortWrite, 1, &folder));
    a.reader.SetFormat(TarnFormatNone);

    // The factory's platform errors, each entry reported and the loop going on.
    CountingEvent ev;
    a.reader.SetEvent(&ev);
    a.sink.failCreate["/o/a"] = kTarnPlatformPathTooLong;
    const uint32_t both[] = {0, 3};
    EXPECT_FALSE(a.reader.ExtractFiles(both, 2, &folder));
    EXPECT_EQ(a.reader.GetLastError(), uint32_t(TARN_ERR_PATH_TOO_LONG));
    EXPECT_EQ(a.sink.files["/o/c"], "4444");
    ASSERT_EQ(ev.errors.size(), 1u);
    EXPECT_EQ(ev.errors[0], uint32_t(TARN_ERR_PATH_TOO_LONG));
    EXPECT_EQ(ev.completed.size(), 2u);
    a.sink.failCreate["/o/a"] = 5 + kTarnPlatformErrnoBase;
    EXPECT_FALSE(a.reader.ExtractFiles(both, 2, &folder));
    EXPECT_EQ(a.reader.GetLastError(), uint32_t(TARN_ERR_CREATE));

    // A full disk ends the loop at once.
    a.sink.failCreate["/o/a"] = kTarnPlatformDiskFull;
    a.sink.files.erase("/o/c");
    EXPECT_FALSE(a.reader.ExtractFiles(both, 2, &folder));
    EXPECT_EQ(a.reader.GetLastError(), uint32_t(TARN_ERR_DISK_FULL));
    EXPECT_FALSE(a.sink.files.count("/o/c"));
    a.sink.failCreate.clear();

    const uint32_t last = 3;
    a.sink.refuseSize.insert("/o/c");
    EXPECT_FALSE(a.reader.ExtractFiles(&last, 1, &folder));
    EXPECT_EQ(a.reader.GetLastError(), uint32_t(TARN_ERR_SET_SIZE));
    a.sink.refuseSize.clear();

    a.sink.failCloseDiskFull.insert("/o/c");
    EXPECT_FALSE(a.reader.ExtractFiles(&last, 1, &folder));
    EXPECT_EQ(a.reader.GetLastError(), uint32_t(TARN_ERR_DISK_FULL));
    a.sink.failCloseDiskFull.clear();

    // The sink skips one entry; the others still come out.
    ev.stopStartFile = "a";
    a.sink.files.clear();
    EXPECT_FALSE(a.reader.ExtractFiles(both, 2, &folder));
    EXPECT_EQ(a.reader.GetLastError(), uint32_t(TARN_ERR_STOPPED));
    EXPECT_FALSE(a.sink.files.count("/o/a"));
    EXPECT_TRUE(a.sink.files.count("/o/c"));
}

TEST(TarnExtractor, PathsStayInsideTheFolder) {
    // The name rule refuses "../"; a drive letter, an absolute name and "." parts are cut away.
    Opened a({{"C:\\x\\y.txt", "1"}, {"/abs/z.txt", "2"}, {"./q//r.txt", "3"}});
    ASSERT_TRUE(a.ok);
    const std::string folder = "/t";
    EXPECT_TRUE(a.reader.ExtractAll(&folder));
    EXPECT_EQ(a.sink.files["/t/x/y.txt"], "1");
    EXPECT_EQ(a.sink.files["/t/abs/z.txt"], "2");
    EXPECT_EQ(a.sink.files["/t/q/r.txt"], "3");
    EXPECT_EQ(TarnSafeRelativePath("..\\..\\etc/passwd"), "etc/passwd");
    EXPECT_EQ(TarnSafeRelativePath(".."), "");

    Opened refused(std::vector<FakeEntry>{{"a/../../b", "1"}});
    EXPECT_FALSE(refused.ok);
    EXPECT_EQ(refused.reader.GetLastError(), uint32_t(TARN_ERR_NAME_REJECTED));

    // Folder and name together stay below the limit.
    Opened longName(std::vector<FakeEntry>{{std::string(200, 'n'), "1"}});
    ASSERT_TRUE(longName.ok);
    const std::string deep = "/" + std::string(330, 'd');
    EXPECT_FALSE(longName.reader.ExtractAll(&deep));
    EXPECT_TRUE(longName.sink.files.empty());
    const std::string shallow = "/" + std::string(300, 'd');
    EXPECT_TRUE(longName.reader.ExtractAll(&shallow));
}

TEST(TarnExtractor, SolidGoesToExtractSolid) {
    Opened a({{"a", "1"}, {"b", "2"}, {"c", "3"}});
    ASSERT_TRUE(a.ok);
    a.reader.MarkSolid();
    const uint32_t pick[] = {2, 0};
    EXPECT_TRUE(a.reader.ExtractFiles(pick, 2, nullptr));
    EXPECT_EQ(a.reader.solidIndices, (std::vector<uint32_t>{2, 0}));
    // The reader decoded everything up to the last entry asked for.
    EXPECT_EQ(a.sink.files.size(), 3u);
    EXPECT_EQ(a.sink.files["c"], "3");
}

TEST(TarnExtractor, PasswordIsCutAt512Bytes) {
    struct Peek : CFakeReader {
        const std::string& Password() const { return sPassword; }
    } r;
    const std::string longPass(600, 'p');
    r.SetPassword(longPass.c_str());
    EXPECT_EQ(r.Password().size(), kTarnMaxPassword);
    r.SetPassword("");
    EXPECT_TRUE(r.Password().empty());
    r.SetPassword("x");
    r.SetPassword(nullptr);
    EXPECT_TRUE(r.Password().empty());
}

TEST(TarnNames, CodePages) {
    // Valid UTF-8 stays as it is, whatever the code page.
    EXPECT_EQ(TarnDecodeName("\xED\x95\x9C.jpg", 437), "\xED\x95\x9C.jpg");
    // "한글" in CP949.
    const std::string hangul = "\xC7\xD1\xB1\xDB";
    EXPECT_EQ(TarnDecodeName(hangul, 949), "\xED\x95\x9C\xEA\xB8\x80");
    EXPECT_EQ(TarnDecodeName(hangul, 0), "\xED\x95\x9C\xEA\xB8\x80");
    // "é" in CP437 is 0x82; a lone 0x82 is no CP949, so the system guess falls to CP437.
    EXPECT_EQ(TarnDecodeName("caf\x82", 437), "caf\xC3\xA9");
    EXPECT_EQ(TarnDecodeName("caf\x82", 0), "caf\xC3\xA9");
    // Bytes that aren't UTF-8 under UTF-8, or an unknown code page: nothing.
    EXPECT_EQ(TarnDecodeName("caf\x82", 65001), "");
    EXPECT_EQ(TarnDecodeName("caf\x82", 4000000), "");

    TarnFileItem item;
    ASSERT_TRUE(TarnApplyNameRule("dir/caf\x82\r\n", 65001, &item));
    EXPECT_EQ(item.fileName, "dir\\caf\x82");
    EXPECT_EQ(item.fileNameW, "?");
    ASSERT_TRUE(TarnApplyNameRule(hangul + "/x", 949, &item));
    EXPECT_EQ(item.fileNameW, "\xED\x95\x9C\xEA\xB8\x80\\x");
    EXPECT_FALSE(TarnApplyNameRule("", 0, &item));
    EXPECT_FALSE(TarnApplyNameRule("a\\..\\b", 0, &item));
    EXPECT_FALSE(TarnApplyNameRule("\r\n", 0, &item));
}

}  // namespace
