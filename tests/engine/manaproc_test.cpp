#include "engine/manaproc.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "engine/compose.h"
#include "engine/openpath.h"
#include "image/jpeg_fixtures.h"
#include "support/scratchfolder.h"

namespace {

TEST(ManaRules, PrefetchVisitsFivePagesAheadThenOneBack) {
    using V = std::vector<int32_t>;
    EXPECT_EQ(PrefetchOrder(0, 20), (V{1, 2, 3, 4, 5}));
    EXPECT_EQ(PrefetchOrder(7, 20), (V{8, 9, 10, 11, 12, 6}));
    EXPECT_EQ(PrefetchOrder(17, 20), (V{18, 19, 16}));
    // After a jump to the last page only the page before it is left to decode.
    EXPECT_EQ(PrefetchOrder(19, 20), (V{18}));
    EXPECT_EQ(PrefetchOrder(0, 1), V{});
    EXPECT_EQ(PrefetchOrder(-1, 0), V{});
}

TEST(ManaRules, PreviewRuleFollowsItsStateTable) {
    // Begin with a 100 ms wait (preview mode, not full, a fast format, previews allowed), then End
    // with or without a timeout; pending follows the timeout.
    struct Step {
        const char* path;
        bool begin, decode, timedOut;
    };
    const Step steps[] = {
        {"a.jpg", true, true, false},  // off, decoded within the wait: off
        {"b.jpg", true, true, true},   // off, the wait times out: a preview, on
        {"c.jpg", true, false, true},  // on, another page: no decode, its preview, still on
        {"b.jpg", true, true, false},  // on, one of the last two pages: the decode is tried
        {"x.jpg", false, false, true}, {"b.jpg", true, true, true},  // b is the one before the last
    };
    PreviewRule r;
    for (const Step& step : steps) {
        SCOPED_TRACE(step.path);
        if (step.begin) {
            const PreviewRule::Decision d = r.Begin(step.path, true, false, true, false);
            EXPECT_EQ(d.waitMs, 100);
            EXPECT_EQ(d.bDecode, step.decode);
        }
        r.End(step.path, step.timedOut);
        EXPECT_EQ(r.bPreviewPending, step.timedOut);
    }
    r.Quiet();  // on, a second of quiet: off
    EXPECT_FALSE(r.bPreviewPending);
    // Any state, a wait without limit: decode, off. Each reason for no limit counts.
    for (int reason = 0; reason < 4; ++reason) {
        r.End("p.jpg", true);
        const PreviewRule::Decision d =
            r.Begin("z.jpg", reason != 0, reason == 1, reason != 2, reason == 3);
        EXPECT_EQ(d.waitMs, -1) << reason;
        EXPECT_TRUE(d.bDecode) << reason;
        EXPECT_FALSE(r.bPreviewPending) << reason;
    }
}

TEST(ManaRules, ReducedPicturesScaleRequestsAndFastFormatsByShowMode) {
    // Stretch into 1920x1080: 900x1350 fits as 720x1080, smaller both ways; 720x1080 as itself.
    EXPECT_TRUE(IsReducedEnough(SHOW_STRETCH, 1920, 1080, 900, 1350));
    EXPECT_FALSE(IsReducedEnough(SHOW_STRETCH, 1920, 1080, 720, 1080));
    EXPECT_FALSE(IsReducedEnough(SHOW_STRETCH, 1920, 1080, 1900, 1000));  // fits as 1920x1011
    EXPECT_TRUE(IsReducedEnough(SHOW_STRETCH, 1920, 1080, 2000, 1000));   // fits as 1920x960
    EXPECT_TRUE(IsReducedEnough(SHOW_STRETCH, 1920, 1080, 2200, 1100));
    EXPECT_TRUE(IsReducedEnough(SHOW_FIT_WIDTH, 800, 5000, 801, 10));
    EXPECT_FALSE(IsReducedEnough(SHOW_FIT_WIDTH, 800, 10, 800, 5000));
    EXPECT_TRUE(IsReducedEnough(SHOW_TWO_PAGE_R2L, 5000, 700, 10, 701));
    EXPECT_FALSE(IsReducedEnough(SHOW_TWO_PAGE_L2R, 10, 700, 5000, 700));
    EXPECT_TRUE(IsReducedEnough(SHOW_NONE, 5000, 5000, 1, 1));

    ViewSettings s;
    s.nCanvasWidth = 1920, s.nCanvasHeight = 1080;
    using V = std::vector<uint32_t>;
    const std::pair<uint32_t, V> requests[] = {{SHOW_STRETCH, {1, 1920, 1080}},
                                               {SHOW_FIT_WIDTH, {1, 1920, 0}},
                                               {SHOW_TWO_PAGE_L2R, {1, 0, 1080}},
                                               {SHOW_TWO_PAGE_R2L, {1, 0, 1080}},
                                               {SHOW_NONE, {0, 0, 0}},
                                               {SHOW_ONE_PAGE_L2R, {0, 0, 0}}};
    for (const auto& [mode, want] : requests) {
        s.nStretchMode = mode;
        const XDibScaleRequest r = ScaleRequestFor(s);
        EXPECT_EQ((V{r.bEnable, r.nTargetWidth, r.nTargetHeight}), want) << mode;
    }

    for (const char* name : {"a.jpg", "b.jpeg", "c.jpe", "d.hdp", "e.wmp", "x.jpg.png"})
        EXPECT_TRUE(IsFastFormat(name)) << name;
    for (const char* name : {"a.JPG", "b.png", "c.jp2", "d.wdp", "jpg"})
        EXPECT_FALSE(IsFastFormat(name)) << name;
}

TEST(ManaRules, StoredFilesTakeFreeNamesAndArchiveNamesBecomeFlat) {
    ScratchFolder dir;
    EXPECT_EQ(FindFreeName(dir.Path(), "p.jpg", 10), "p.jpg");
    dir.MakeFile("p.jpg", 10);
    EXPECT_EQ(FindFreeName(dir.Path(), "p.jpg", 10), "p.jpg");  // the same picture again
    EXPECT_EQ(FindFreeName(dir.Path(), "p.jpg", 11), "p (2).jpg");
    dir.MakeFile("p (2).jpg", 12);
    EXPECT_EQ(FindFreeName(dir.Path(), "p.jpg", 11), "p (3).jpg");
    EXPECT_EQ(FindFreeName(dir.Path(), "p.jpg", 12), "p (2).jpg");
    dir.MakeFile("noext", 1);
    EXPECT_EQ(FindFreeName(dir.Path(), "noext", 2), "noext (2)");
    for (int n = 2; n <= 200; ++n) dir.MakeFile("q (" + std::to_string(n) + ").png", 3);
    dir.MakeFile("q.png", 3);
    EXPECT_EQ(FindFreeName(dir.Path(), "q.png", 4), "q (200).png");  // the search gives up

    EXPECT_EQ(FlatStoreName("/books/a.zip|p1.jpg"), "a.zip-p1.jpg");
    EXPECT_EQ(FlatStoreName("/books/a.zip|ch1\\p1.jpg"), "p1.jpg");
    EXPECT_EQ(FlatStoreName("/books/o.zip?in.cbz|p1.jpg"), "o.zip-in.cbz-p1.jpg");
    EXPECT_EQ(FlatTempName("ch1\\sub/p1.jpg"), "ch1-sub-p1.jpg");
    EXPECT_EQ(FlatTempName("in.cbz?p1.png"), "OrlimoTemp.png");
}

// The engine over real page files.

// Polls `done` for at most half a minute: a guard against hanging, no measure of speed.
bool WaitFor(const std::function<bool()>& done) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

std::string WriteBmp(const ScratchFolder& dir, const std::string& name, uint32_t w, uint32_t h,
                     uint32_t colour) {
    XDib dib;
    EXPECT_TRUE(dib.Create(w, h, 24));
    dib.Fill(colour);
    EXPECT_TRUE(dib.SaveBmp((dir / name).c_str()));
    return dir / name;
}

std::string WriteJpeg(const ScratchFolder& dir, const std::string& name, uint32_t w, uint32_t h) {
    const jpegfix::Bytes jpeg = jpegfix::EncodeTj(jpegfix::DrawPixels(w, h, 3), w, h, TJPF_BGR);
    std::ofstream(dir / name, std::ios::binary)
        .write(reinterpret_cast<const char*>(jpeg.data()), std::streamsize(jpeg.size()));
    return dir / name;
}

// A source whose reads wait until the test lets them go, then fail: keeps a cache busy for
// exactly as long as a test wants.
class GateSource final : public IXDibIO {
public:
    explicit GateSource(std::shared_future<void> gate) : gate_(std::move(gate)) {}
    bool Read(void*, uint32_t) override {
        gate_.wait();
        return false;
    }
    bool Write(const void*, uint32_t) override { return false; }
    int64_t Seek(int64_t, int) override { return 0; }
    int64_t Tell() override { return 0; }
    int64_t GetSize() override { return 1 << 20; }

private:
    std::shared_future<void> gate_;
};

class ManaProcTest : public ::testing::Test {
protected:
    void SetUp() override {
        // The engine removes OrlimoTemp of the temporary folder when it goes: keep that inside
        // the folder the scratch folders live in.
        setenv("TMPDIR", std::filesystem::path(dir.Path()).parent_path().c_str(), 1);
        settings.nStretchMode = SHOW_STRETCH, settings.nFilterMode = 1;
        settings.nCanvasWidth = 400, settings.nCanvasHeight = 300;
    }

    // Lists the scratch folder and starts the engine over it, previews off unless asked.
    void Start(bool previews = false) {
        OpenPath(list, dir.Path(), true);
        engine.bUsePreviewMode = previews;
        ASSERT_TRUE(engine.Start(&list));
        engine.ApplySettings(settings);
    }
    // `f` under the page list's lock.
    template <typename F>
    auto Locked(F f) {
        std::lock_guard hold(list.cs);
        return f();
    }
    void Turn(int32_t delta) {
        Locked([&] { list.Step(delta); });
        ASSERT_TRUE(engine.ShowPage(false, false));
    }
    bool Cached(int32_t index) {
        const std::string path = Locked([&] { return list.GetEntry(index)->szPath; });
        CImageMan& cache = engine.GetMainCache();
        return cache.HasBucket(path, cache.MakeKey(path, ""));
    }
    uint32_t Pixel(uint32_t x, uint32_t y) {
        std::lock_guard hold(list.cs);
        if (!list.pComposed || !list.pComposed->GetPixelPtr(x, y)) return 0xDEAD;
        const uint8_t* p = list.pComposed->GetPixelPtr(x, y);
        return p[0] << 16 | p[1] << 8 | p[2];
    }
    uint32_t FullDecodes() const { return engine.GetStats().nFullDecodes.load(); }

    ScratchFolder dir;
    ViewSettings settings;
    CPageList list;  // outlives the engine
    CManaProc engine;
};

TEST_F(ManaProcTest, ShowsPagePrefetchesWhenQuietAndUsesThePreparedView) {
    for (int i = 0; i < 8; ++i)
        WriteBmp(dir, "p" + std::to_string(i) + ".bmp", 200, 300, 0x102030 * (i + 1));
    Start();
    ASSERT_TRUE(engine.ShowPage(false, false));
    {
        std::lock_guard hold(list.cs);
        ASSERT_NE(list.pComposed, nullptr);
        EXPECT_EQ(list.pComposed->rcPage, (XRect{0, 0, 200, 300}));
        EXPECT_EQ(list.bPreview, 0u);
        EXPECT_EQ(list.fileInfo.nDecodedWidth, 200u);
        EXPECT_EQ(list.GetEntry(0)->nPageHeight, 300u);
        EXPECT_EQ(list.GetEntry(1)->nPageHeight, 0u);
    }
    EXPECT_EQ(FullDecodes(), 1u);

    // After a second of quiet the pages ahead are decoded one by one, then the next view is
    // composed ahead; the turn uses it.
    ASSERT_TRUE(WaitFor([&] { return engine.GetStats().nPreparedViews.load() >= 1; }));
    for (int i = 1; i <= 5; ++i) EXPECT_TRUE(Cached(i)) << i;
    EXPECT_FALSE(Cached(6));
    EXPECT_EQ(FullDecodes(), 6u);
    Turn(1);
    EXPECT_EQ(engine.GetStats().nPreparedUsed.load(), 1u);
    EXPECT_EQ(Pixel(10, 10), 0x204060u);  // page 1's colour (B G R bytes of 0x204060)
    EXPECT_EQ(FullDecodes(), 6u);
    // Prepared views are one-offs: the next turn composes anew (page 2 is cached).
    Turn(1);
    EXPECT_EQ(engine.GetStats().nPreparedUsed.load(), 1u);
    EXPECT_EQ(Pixel(10, 10), 0x306090u);
    // Page 6 comes in at the next quiet pass; the page before the current one is there already.
    ASSERT_TRUE(WaitFor([&] { return Cached(6) && Cached(7); }));
}

TEST_F(ManaProcTest, ApplyingChangedSettingsDropsReducedPictures) {
    // One page, so that no decoding ahead adds to the count. For 190x140 it decodes at 1/8,
    // 100x150, which is large enough for that canvas: no full decode follows.
    WriteJpeg(dir, "p0.jpg", 800, 1200);
    settings.nCanvasWidth = 190, settings.nCanvasHeight = 140;
    Start();
    ASSERT_TRUE(engine.ShowPage(false, false));
    {
        std::lock_guard hold(list.cs);
        EXPECT_EQ(list.fileInfo.nDecodedWidth, 100u);  // reduced for the small canvas
        EXPECT_EQ(list.fileInfo.nFullWidth, 800u);
    }
    EXPECT_EQ(FullDecodes(), 1u);
    engine.ApplySettings(settings);  // unchanged: the reduced picture stays
    ASSERT_TRUE(engine.ShowPage(false, false));
    EXPECT_EQ(FullDecodes(), 1u);

    settings.nCanvasWidth = 1600, settings.nCanvasHeight = 1200;
    engine.ApplySettings(settings);
    EXPECT_FALSE(Cached(0));
    ASSERT_TRUE(engine.ShowPage(false, false));
    EXPECT_EQ(FullDecodes(), 2u);
    std::lock_guard hold(list.cs);
    EXPECT_EQ(list.fileInfo.nDecodedWidth, 800u);
    EXPECT_EQ(list.pComposed->rcPage, (XRect{0, 0, 800, 1200}));
}

TEST_F(ManaProcTest, EncryptedPagesWithoutPasswordStopDecodingAhead) {
    CPageList::EntryArray entries;
    for (int i = 0; i < 3; ++i) {
        auto entry = std::make_unique<PageEntry>();
        entry->szPath = WriteBmp(dir, "e" + std::to_string(i) + ".bmp", 20, 30, 0x808080);
        entry->szName = "e" + std::to_string(i) + ".bmp";
        entry->szGroup = dir.Path();
        entry->bEncrypted = 1;
        entries.push_back(std::move(entry));
    }
    Locked([&] { list.Append(std::move(entries)), list.SetCurrent(0); });
    engine.bUsePreviewMode = 0;
    ASSERT_TRUE(engine.Start(&list));
    engine.ApplySettings(settings);
    ASSERT_TRUE(engine.ShowPage(false, false));
    // Well past the quiet second: nothing was decoded ahead.
    std::this_thread::sleep_for(std::chrono::milliseconds(1600));
    EXPECT_EQ(engine.GetStats().nPrefetchSteps.load(), 0u);
    EXPECT_FALSE(Cached(1));
    EXPECT_EQ(FullDecodes(), 1u);
}

TEST_F(ManaProcTest, SpreadModeLoadsTheSecondPageOnlyBesideAnUprightFirst) {
    WriteBmp(dir, "p0.bmp", 300, 200, 0x0000FF);  // landscape
    WriteBmp(dir, "p1.bmp", 200, 300, 0x00FF00);
    WriteBmp(dir, "p2.bmp", 200, 300, 0xFF0000);
    settings.nStretchMode = SHOW_TWO_PAGE_L2R;
    Start();
    ASSERT_TRUE(engine.ShowPage(false, false));
    {
        std::lock_guard hold(list.cs);
        EXPECT_EQ(list.bTwoPageMode, 1u);
        EXPECT_EQ(list.bTwoPageShown, 0u);
        EXPECT_EQ(list.GetEntry(1)->nPageWidth, 0u);  // never loaded
    }
    EXPECT_EQ(FullDecodes(), 1u);
    Turn(1);  // pages 1 and 2 are upright: a spread
    std::lock_guard hold(list.cs);
    EXPECT_EQ(list.bTwoPageShown, 1u);
    EXPECT_EQ(list.GetEntry(2)->nPageWidth, 200u);
    EXPECT_EQ(list.pComposed->rcPage, (XRect{0, 0, 400, 300}));
}

TEST_F(ManaProcTest, MissingFileKeepsThePictureAndABrokenPageShowsTheErrorPictureOnce) {
    WriteBmp(dir, "p0.bmp", 200, 300, 0x0000FF);
    const std::string gone = WriteBmp(dir, "p1.bmp", 200, 300, 0x00FF00);
    dir.MakeFile("p2.jpg", 5000);  // no picture inside
    Start();
    ASSERT_TRUE(engine.ShowPage(false, false));
    const uint32_t red = Pixel(50, 50);
    std::filesystem::remove(gone);
    Turn(1);
    EXPECT_EQ(Pixel(50, 50), red);
    Turn(1);
    {
        std::lock_guard hold(list.cs);
        EXPECT_EQ(list.fileInfo.nDecodedWidth, 640u);  // the error picture
        EXPECT_EQ(list.GetEntry(2)->nPageWidth, 640u);
    }
    const uint32_t decodes = FullDecodes();
    Turn(-2);
    Turn(2);
    EXPECT_EQ(FullDecodes(), decodes);  // p0 and the broken page come from the cache
    std::lock_guard hold(list.cs);
    EXPECT_EQ(list.fileInfo.nDecodedWidth, 640u);
}

TEST_F(ManaProcTest, StoreFileCopiesAndMovesUnderFreeNames) {
    const std::string page = WriteBmp(dir, "p0.bmp", 20, 30, 0x0000FF);
    const int64_t size = int64_t(std::filesystem::file_size(page));
    ScratchFolder target;
    Start();
    const std::string folder = target.Path();
    // Same name and size there: the same picture, stored again under its name.
    target.MakeFile("p0.bmp", size_t(size));
    EXPECT_EQ(engine.SendCommand(MP_STORE_FILE, uint64_t(&folder), 0, XThread::kInfinite), kXOk);
    EXPECT_EQ(std::filesystem::file_size(target / "p0.bmp"), uint64_t(size));
    EXPECT_FALSE(std::filesystem::exists(target / "p0 (2).bmp"));
    // Another size: the copy takes the next free name.
    target.MakeFile("p0.bmp", 7);
    EXPECT_EQ(engine.SendCommand(MP_STORE_FILE, uint64_t(&folder), 0, XThread::kInfinite), kXOk);
    EXPECT_EQ(std::filesystem::file_size(target / "p0 (2).bmp"), uint64_t(size));
    EXPECT_EQ(std::filesystem::file_size(target / "p0.bmp"), 7u);
    // A move: the source goes, " (2)" is the same picture and is reused.
    EXPECT_EQ(engine.SendCommand(MP_STORE_FILE, uint64_t(&folder), 1, XThread::kInfinite), kXOk);
    EXPECT_FALSE(std::filesystem::exists(page));
    EXPECT_FALSE(std::filesystem::exists(target / "p0 (3).bmp"));
    // Archive requests aren't served yet.
    EXPECT_EQ(engine.SendCommand(MP_OPEN_ARCHIVE, 0, 0, XThread::kInfinite), kXFail);
}

TEST_F(ManaProcTest, RapidTurningShowsPreviewsAndStartsNoSecondFullDecode) {
    for (int i = 0; i < 6; ++i) WriteJpeg(dir, "p" + std::to_string(i) + ".jpg", 640, 960);
    Start(true);
    ASSERT_TRUE(engine.ShowPage(false, false));
    CImageMan& cache = engine.GetMainCache();
    ASSERT_TRUE(WaitFor([&] { return cache.IsIdle(); }));
    const uint32_t before = FullDecodes();

    // A decode that runs until the test ends it occupies the main cache, as a slow page would.
    std::promise<void> release;
    bool timedOut = false;
    // Sources are counted and delete themselves at their last Release.
    cache.PostDecode("/slow/page.jpg", "k", XDibIOPtr(new GateSource(release.get_future().share())),
                     0, &timedOut);
    ASSERT_TRUE(timedOut);
    for (int turn = 1; turn <= 4; ++turn) {
        Turn(1);
        std::lock_guard hold(list.cs);
        EXPECT_EQ(list.bPreview, 1u) << turn;
        ASSERT_NE(list.pComposed, nullptr);
        EXPECT_EQ(list.GetEntry(turn)->nPageWidth * 3, list.GetEntry(turn)->nPageHeight * 2);
    }
    EXPECT_EQ(FullDecodes(), before);
    release.set_value();

    // The window repeats the request while a preview stands: the page's decode goes ahead.
    ASSERT_TRUE(WaitFor([&] {
        EXPECT_TRUE(engine.ShowPage(false, false));
        std::lock_guard hold(list.cs);
        return list.bPreview == 0;
    }));
    std::lock_guard hold(list.cs);
    EXPECT_EQ(list.fileInfo.nFullWidth, 640u);
    EXPECT_GT(engine.GetStats().nBusyRefusals.load(), 0u);
}

}  // namespace
