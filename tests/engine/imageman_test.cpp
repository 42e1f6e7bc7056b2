#include "engine/imageman.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "imgwrite/imgwrite.h"
#include "library_writers.h"
#include "platform/files.h"
#include "support/scratchfolder.h"

namespace {

using imgwrite::Bytes;
using imgwrite::Picture;
using imgwrite::Rgba;

struct Bgra {
    uint8_t b, g, r, a;
    friend bool operator==(const Bgra&, const Bgra&) = default;
};
std::ostream& operator<<(std::ostream& os, const Bgra& p) {
    return os << "bgra(" << int(p.b) << "," << int(p.g) << "," << int(p.r) << "," << int(p.a)
              << ")";
}

Bgra Px(const XDib& dib, uint32_t x, uint32_t y) {
    const uint8_t* p = dib.GetPixelPtr(x, y);
    if (!p) return {0, 0, 0, 0};
    return {p[0], p[1], p[2], dib.nBpp == 32 ? p[3] : uint8_t(255)};
}

constexpr Bgra kWhite{255, 255, 255, 255};
constexpr Bgra kGrey{0xC8, 0xC8, 0xC8, 255};

// A started cache with room for everything the tests store.
struct Cache : CImageMan {
    Cache() {
        Start();
        nBudgetMB = 300;
    }
    XAnimDib* Decode(const std::string& path, const Bytes& bytes) {
        bool timedOut = true;
        XAnimDib* ani =
            DecodeMemory(path, MakeKey(path, ""), bytes.data(), bytes.size(), -1, &timedOut, false);
        EXPECT_FALSE(timedOut) << path;
        return ani;
    }
};

Bytes SmallBmp(uint8_t shade = 90) {
    return imgwrite::WriteBmp(Picture(3, 2, Rgba{shade, 20, 200, 255}));
}

// One GIF frame, 2 x 2, palette {red, green, blue, black}; `transparent` marks index 3.
imgwrite::GifFrame GifFrame2x2(std::vector<uint8_t> indices, int32_t transparent) {
    imgwrite::GifFrame f{
        .left = 0, .top = 0, .width = 2, .height = 2, .indices = std::move(indices)};
    f.hasControl = true;
    f.control.transparentIndex = transparent;
    f.control.delay = 10;
    return f;
}
Bytes Gif(const std::vector<imgwrite::GifFrame>& frames) {
    imgwrite::GifOptions o{.width = 2, .height = 2};
    o.globalPalette = {{255, 0, 0, 255}, {0, 255, 0, 255}, {0, 0, 255, 255}, {10, 20, 30, 255}};
    return imgwrite::WriteGif(o, frames);
}

}  // namespace

TEST(ImageCacheKey, HoldsPasswordSourceFactsAndEveryOptionThatChangesPixels) {
    ImageOptions o;  // bExifRotation 1, nAlphaTransOption 2, the rest 0
    EXPECT_EQ(CImageMan::FormatKey("", 1234, (uint64_t(7) << 32) | 4000000000u, o),
              ",1234,74000000000,1,0,0,0,0,2");
    o = {.bExifRotation = 0,
         .bNegative = 1,
         .bGamma = 1,
         .bFull = 1,
         .nGifTransOption = 3,
         .nAlphaTransOption = 1,
         .nRotate = 2};
    // bFull is no part of the key: a reduced and a full picture share it.
    EXPECT_EQ(CImageMan::FormatKey("pass,word", 0, 0, o), "pass,word,0,00,0,2,1,1,3,1");

    ScratchFolder dir;
    const std::string file = dir.MakeFile("page.jpg", 777);
    struct stat st;
    ASSERT_EQ(stat(file.c_str(), &st), 0);
    const uint64_t ft = (uint64_t(st.st_mtim.tv_sec) + 11644473600u) * 10000000u +
                        uint64_t(st.st_mtim.tv_nsec) / 100;
    CImageMan cache;
    EXPECT_EQ(cache.MakeKey(file, ""), ",777," + std::to_string(uint32_t(ft >> 32)) +
                                           std::to_string(uint32_t(ft)) + ",1,0,0,0,0,2");
    // An archive page is no file: size and time are 0, the key is made all the same.
    EXPECT_EQ(cache.MakeKey(dir / "book.zip|01.jpg", "pw"), "pw,0,00,1,0,0,0,0,2");
    cache.SetOptions({.nRotate = 1});
    EXPECT_EQ(cache.MakeKey(dir / "none", ""), ",0,00,1,1,0,0,0,2");
}

TEST(ImageCacheBudget, FollowsFreeMemoryWithinEachInstancesLimits) {
    EXPECT_EQ(CImageMan::BudgetFor(0, 0), 50);
    EXPECT_EQ(CImageMan::BudgetFor(0, 250), 50);
    EXPECT_EQ(CImageMan::BudgetFor(0, 251), 51);
    EXPECT_EQ(CImageMan::BudgetFor(0, 500), 300);
    EXPECT_EQ(CImageMan::BudgetFor(0, int64_t(1) << 40), 300);
    EXPECT_EQ(CImageMan::BudgetFor(1, 100), 30);
    EXPECT_EQ(CImageMan::BudgetFor(1, 231), 31);
    EXPECT_EQ(CImageMan::BudgetFor(1, 300), 100);
    EXPECT_EQ(CImageMan::BudgetFor(1, 301), 100);
    // Whole megabytes by integer division: 50 MB and a byte short of 51 are within 50.
    EXPECT_FALSE(CImageMan::ExceedsBudget(int64_t(51) * 1048576 - 1, 50));
    EXPECT_TRUE(CImageMan::ExceedsBudget(int64_t(51) * 1048576, 50));
    EXPECT_FALSE(CImageMan::ExceedsBudget(-int64_t(60) * 1048576, 50));
}

TEST(ImageCacheRing, EvictionRunsOldestFirstAndSparesTheNewestSlot) {
    std::vector<int> expected;
    for (int i = 7; i < 50; ++i) expected.push_back(i);
    for (int i = 0; i <= 5; ++i) expected.push_back(i);  // 6 was written last
    EXPECT_EQ(CImageMan::EvictionOrder(7), expected);
    EXPECT_EQ(CImageMan::EvictionOrder(1).size(), 49u);
    EXPECT_EQ(CImageMan::EvictionOrder(1).back(), 49);
    // Right after the wrap the newest is slot 49, which the two passes don't spare.
    EXPECT_EQ(CImageMan::EvictionOrder(0).size(), 50u);
}

TEST(ImageCacheRing, TheFiftyFirstPageOverwritesTheOldestWhateverTheMemory) {
    Cache cache;
    for (int i = 0; i <= 50; ++i)
        ASSERT_NE(cache.Decode("p" + std::to_string(i), SmallBmp(uint8_t(i))), nullptr) << i;
    EXPECT_EQ(cache.GetNextBucket(), 1);
    EXPECT_EQ(cache.GetBucketPath(0), "p50");
    EXPECT_FALSE(cache.HasBucket("p0", cache.MakeKey("p0", "")));
    EXPECT_TRUE(cache.HasBucket("p1", cache.MakeKey("p1", "")));
    EXPECT_EQ(cache.GetUsedBytes(), 50 * 3 * 2 * 4);  // 32 bits each, stride 12
}

TEST(ImageCacheRing, MakeRoomEmptiesOldestFirstAndKeepsTheNewestEvenOverBudget) {
    // An 8-bit picture of 5000 x 4200 that is all index 0, as a few bytes of RLE8 runs: 80 MB
    // once it is stored at 32 bits.
    Bytes body;
    for (int y = 0; y < 4200; ++y) {
        for (int left = 5000; left > 0; left -= 250) body.insert(body.end(), {250, 0});
        body.insert(body.end(), {0, 0});
    }
    body.insert(body.end(), {0, 1});
    const Bytes big = imgwrite::BmpFromBody(5000, 4200, 8, 1, {{1, 2, 3, 255}}, body);

    Cache cache;
    cache.nBudgetMB = 50;
    for (const char* page : {"a", "b", "c"}) ASSERT_NE(cache.Decode(page, SmallBmp()), nullptr);
    XAnimDib* huge = cache.Decode("big", big);
    ASSERT_NE(huge, nullptr);
    EXPECT_EQ(huge->GetMemorySize(), 84000000u);
    EXPECT_TRUE(cache.IsOverBudget());
    // The next decode makes room: a, b and c go, the big one (the newest) stays, room is still
    // short, and the decode goes on.
    ASSERT_NE(cache.Decode("d", SmallBmp()), nullptr);
    EXPECT_EQ(cache.GetBucketPath(0), "");
    EXPECT_EQ(cache.GetBucketPath(2), "");
    EXPECT_EQ(cache.GetBucketPath(3), "big");
    EXPECT_EQ(cache.GetBucketPath(4), "d");
    EXPECT_EQ(cache.GetUsedBytes(), 84000000 + 24);
    // Now the big one is the oldest that isn't the newest: it goes, and that is enough.
    ASSERT_NE(cache.Decode("e", SmallBmp()), nullptr);
    EXPECT_EQ(cache.GetBucketPath(3), "");
    EXPECT_EQ(cache.GetBucketPath(4), "d");
    EXPECT_EQ(cache.GetUsedBytes(), 48);
}

TEST(ImageCacheLookup, AReducedPictureServesScreenRequestsButNotFullOnes) {
    Picture photo(400, 200, Rgba{200, 100, 50, 255});
    const Bytes jpeg = samplewrite::WriteJpeg(photo);
    ScratchFolder dir;
    const std::string file = dir / "photo.jpg";
    ASSERT_TRUE(imgwrite::WriteFile(file, jpeg));

    Cache cache;
    cache.SetScaleRequest(true, 100, 50);
    const std::string key = cache.MakeKey(file, "");
    bool timedOut = true;
    XAnimDib* reduced = cache.DecodeFile(file, key, file, -1, &timedOut, false);
    ASSERT_NE(reduced, nullptr);
    EXPECT_FALSE(timedOut);
    ASSERT_TRUE(reduced->GetFrame(0)->bReduced);
    EXPECT_LT(reduced->GetFrame(0)->nWidth, 400u);
    ImageFileInfo info;
    ASSERT_TRUE(cache.GetInfo(file, key, &info));
    platform::FileFacts facts;
    ASSERT_TRUE(platform::GetFileFacts(file, &facts));
    EXPECT_EQ(info.nFileSize, jpeg.size());
    EXPECT_EQ(info.ftLastWrite, facts.ftLastWrite);
    EXPECT_EQ(info.nDecodedWidth, reduced->GetFrame(0)->nWidth);
    EXPECT_EQ(info.nFullWidth, 400u);
    EXPECT_EQ(info.nFullHeight, 200u);

    ImageBucket bucket{std::make_unique<XAnimDib>(), "p", "k", std::make_unique<ImageFileInfo>()};
    EXPECT_FALSE(CImageMan::IsHit(bucket, "p", "k", false));  // no frame: a free slot
    bucket.pAni->AddEmptyFrame()->bReduced = 1;
    EXPECT_TRUE(CImageMan::IsHit(bucket, "p", "k", false));
    EXPECT_FALSE(CImageMan::IsHit(bucket, "p", "k", true));
    EXPECT_FALSE(CImageMan::IsHit(bucket, "p", "k2", false));
    bucket.pAni->GetFrame(0)->bReduced = 0;
    EXPECT_TRUE(CImageMan::IsHit(bucket, "p", "k", true));

    // Wanting the full picture, the reduced bucket is no hit; the full one goes to a new slot
    // and both stay.
    cache.SetOptions({.bFull = 1});
    EXPECT_FALSE(cache.HasBucket(file, key));
    XAnimDib* full = cache.DecodeFile(file, key, file, -1, &timedOut, false);
    ASSERT_NE(full, nullptr);
    EXPECT_NE(full, reduced);
    EXPECT_EQ(full->GetFrame(0)->nWidth, 400u);
    EXPECT_EQ(cache.GetNextBucket(), 2);
    cache.SetOptions({.bFull = 0});
    EXPECT_EQ(cache.FindBucket(file, key), reduced);  // the first slot that answers

    // A file that can't be opened gives null at once, and no slot is used.
    EXPECT_EQ(cache.DecodeFile(dir / "gone.jpg", key, dir / "gone.jpg", -1, &timedOut, false),
              nullptr);
    EXPECT_FALSE(timedOut);
    EXPECT_EQ(cache.GetNextBucket(), 2);
}

TEST(ImageCacheNormalise, StillPicturesWithAlphaAreFlattenedAndAnimationsKeepTheirs) {
    // PNG: transparent all over but for one opaque pixel and one half-covered pixel.
    Picture alpha(40, 40, Rgba{0, 0, 0, 0});
    alpha.At(20, 5) = {255, 0, 0, 255};
    alpha.At(2, 2) = {0, 0, 0, 128};
    Cache cache;
    XAnimDib* png = cache.Decode("alpha.png", samplewrite::WritePng(alpha));
    ASSERT_NE(png, nullptr);
    const XDib& flat = *png->GetFrame(0);
    EXPECT_EQ(flat.nBpp, 32u);
    EXPECT_EQ(Px(flat, 0, 0), kGrey);
    EXPECT_EQ(Px(flat, 17, 0), kWhite);
    EXPECT_EQ(Px(flat, 0, 17), kWhite);
    EXPECT_EQ(Px(flat, 20, 20), kGrey);
    EXPECT_EQ(Px(flat, 33, 1), kGrey);  // the tile repeats across
    EXPECT_EQ(Px(flat, 1, 33), kGrey);  // and down
    EXPECT_EQ(Px(flat, 20, 5), (Bgra{0, 0, 255, 255}));
    EXPECT_NEAR(Px(flat, 2, 2).r, 0xC8 / 2, 2);
    for (uint32_t y = 0; y < 40; ++y)
        for (uint32_t x = 0; x < 40; ++x) ASSERT_EQ(Px(flat, x, y).a, 255) << x << "," << y;

    // A one-frame GIF by its own option: its transparent entry's colour, white, or the tile.
    const Bytes still = Gif({GifFrame2x2({3, 0, 1, 3}, 3)});
    const Bgra expected[3] = {{30, 20, 10, 255}, kWhite, kGrey};
    for (uint32_t option = 0; option < 3; ++option) {
        cache.SetOptions({.nGifTransOption = option});
        XAnimDib* gif = cache.Decode("still.gif", still);
        ASSERT_NE(gif, nullptr);
        EXPECT_EQ(Px(*gif->GetFrame(0), 0, 0), expected[option]) << option;
        EXPECT_EQ(Px(*gif->GetFrame(0), 1, 0), (Bgra{0, 0, 255, 255})) << option;
    }

    // Two frames stay as the decoder made them, transparency and all.
    cache.SetOptions({});
    XAnimDib* anim =
        cache.Decode("anim.gif", Gif({GifFrame2x2({3, 0, 1, 3}, 3), GifFrame2x2({3, 1, 3, 2}, 3)}));
    ASSERT_NE(anim, nullptr);
    ASSERT_EQ(anim->GetFrameCount(), 2u);
    EXPECT_EQ(Px(*anim->GetFrame(0), 0, 0).a, 0);
    EXPECT_EQ(anim->GetFrame(1)->nBpp, 32u);

    // Other depths are only widened.
    XAnimDib* bmp = cache.Decode("plain.bmp", SmallBmp(90));
    ASSERT_NE(bmp, nullptr);
    EXPECT_EQ(Px(*bmp->GetFrame(0), 0, 0), (Bgra{200, 20, 90, 255}));
}

TEST(ImageCacheTurns, ExifSixAndEightTurnTheFirstFrameOthersDoNot) {
    // Landscape, red on the left, blue on the right.
    Picture photo(64, 32, Rgba{255, 0, 0, 255});
    for (uint32_t y = 0; y < 32; ++y)
        for (uint32_t x = 32; x < 64; ++x) photo.At(x, y) = {0, 0, 255, 255};
    const auto redAt = [](const XDib& d, uint32_t x, uint32_t y) {
        const Bgra p = Px(d, x, y);
        return p.r > 200 && p.b < 60;
    };
    Cache cache;
    for (const int orientation : {6, 8, 3}) {
        const std::string name = "exif" + std::to_string(orientation) + ".jpg";
        XAnimDib* ani =
            cache.Decode(name, samplewrite::WriteJpeg(photo, {.exifOrientation = orientation}));
        ASSERT_NE(ani, nullptr);
        const XDib& d = *ani->GetFrame(0);
        ImageFileInfo info;
        ASSERT_TRUE(cache.GetInfo(name, cache.MakeKey(name, ""), &info));
        EXPECT_EQ(info.exif.nOrientation, orientation);
        if (orientation == 3) {  // stored as it came
            EXPECT_EQ(d.nWidth, 64u);
            EXPECT_TRUE(redAt(d, 4, 16));
            continue;
        }
        ASSERT_EQ(d.nWidth, 32u) << orientation;
        ASSERT_EQ(d.nHeight, 64u);
        // Clockwise the left edge becomes the top; anticlockwise the bottom.
        EXPECT_EQ(redAt(d, 16, 4), orientation == 6);
        EXPECT_EQ(redAt(d, 16, 60), orientation == 8);
    }
    cache.SetOptions({.bExifRotation = 0});
    XAnimDib* plain =
        cache.Decode("noturn.jpg", samplewrite::WriteJpeg(photo, {.exifOrientation = 6}));
    ASSERT_NE(plain, nullptr);
    EXPECT_EQ(plain->GetFrame(0)->nWidth, 64u);
}

TEST(ImageCacheTurns, ViewRotationTurnsEveryFrameFiltersOnlyTheFirst) {
    // Frames 4 x 2 so that a quarter turn shows; the right half of each is blue.
    imgwrite::GifOptions o{.width = 4, .height = 2};
    o.globalPalette = {{255, 0, 0, 255}, {0, 0, 255, 255}};
    std::vector<imgwrite::GifFrame> frames(
        2, imgwrite::GifFrame{.width = 4, .height = 2, .indices = {0, 0, 1, 1, 0, 0, 1, 1}});
    for (auto& f : frames) f.hasControl = true, f.control.delay = 5;
    const Bytes gif = imgwrite::WriteGif(o, frames);

    Cache cache;
    cache.SetOptions({.nRotate = 1});  // a quarter anticlockwise: the right half comes on top
    XAnimDib* turned = cache.Decode("turn.gif", gif);
    ASSERT_NE(turned, nullptr);
    for (size_t i = 0; i < 2; ++i) {
        const XDib& d = *turned->GetFrame(i);
        ASSERT_EQ(d.nWidth, 2u);
        ASSERT_EQ(d.nHeight, 4u);
        EXPECT_EQ(Px(d, 0, 0), (Bgra{255, 0, 0, 255})) << i;
        EXPECT_EQ(Px(d, 0, 3), (Bgra{0, 0, 255, 255})) << i;
    }

    cache.SetOptions({.bNegative = 1});
    XAnimDib* negative = cache.Decode("turn.gif", gif);
    ASSERT_NE(negative, nullptr);
    EXPECT_EQ(Px(*negative->GetFrame(0), 0, 0), (Bgra{255, 255, 0, 255}));
    EXPECT_EQ(Px(*negative->GetFrame(1), 0, 0), (Bgra{0, 0, 255, 255}));

    // Gamma changes mid-tones; a grey frame 0 changes, frame 1 does not.
    o.globalPalette = {{128, 128, 128, 255}, {0, 0, 255, 255}};
    const Bytes grey = imgwrite::WriteGif(o, frames);
    cache.SetOptions({.bGamma = 1});
    XAnimDib* gamma = cache.Decode("grey.gif", grey);
    ASSERT_NE(gamma, nullptr);
    EXPECT_NE(Px(*gamma->GetFrame(0), 0, 0).r, 128);
    EXPECT_EQ(Px(*gamma->GetFrame(1), 0, 0).r, 128);
}

namespace {

// A source whose first read waits until the test opens the gate: a decode that takes as long as
// the test wants.
class GatedSource final : public IXDibIO {
public:
    explicit GatedSource(Bytes bytes)
        : data(std::move(bytes)), inner(data.data(), int64_t(data.size())) {}
    void Open() {
        std::lock_guard lock(mutex);
        open = true;
        cv.notify_all();
    }
    bool WaitEntered() {
        std::unique_lock lock(mutex);
        return cv.wait_for(lock, std::chrono::seconds(10), [&] { return entered; });
    }
    bool Read(void* buffer, uint32_t count) override {
        std::unique_lock lock(mutex);
        entered = true;
        cv.notify_all();
        cv.wait(lock, [&] { return open; });
        return inner.Read(buffer, count);
    }
    bool Write(const void*, uint32_t) override { return false; }
    int64_t Seek(int64_t offset, int origin) override { return inner.Seek(offset, origin); }
    int64_t Tell() override { return inner.Tell(); }
    int64_t GetSize() override { return inner.GetSize(); }

private:
    Bytes data;
    CXDibMemIO inner;
    std::mutex mutex;
    std::condition_variable cv;
    bool entered = false, open = false;
};

}  // namespace

TEST(ImageCacheThread, ABusyCacheTurnsRequestsDownAndTheRunningJobStoresLater) {
    Cache cache;
    auto* gated = new GatedSource(SmallBmp(70));  // released through its count
    gated->AddRef();                              // the test's own reference
    bool timedOut = false;
    EXPECT_EQ(cache.PostDecode("slow", "k", XDibIOPtr(gated), 20, &timedOut), nullptr);
    EXPECT_TRUE(timedOut);  // the wait ran out, the job runs on
    ASSERT_TRUE(gated->WaitEntered());

    // Busy: turned down at once, nothing delivered.
    timedOut = false;
    EXPECT_EQ(cache.PostDecode("other", "k", CXDibMemIO::MakeCopy("x", 1), -1, &timedOut), nullptr);
    EXPECT_TRUE(timedOut);
    EXPECT_EQ(cache.DecodeMemory("other", "k", "x", 1, -1, &timedOut, false), nullptr);
    EXPECT_TRUE(timedOut);

    gated->Open();
    gated->Release();  // the cache's reference alone keeps the source now
    ASSERT_TRUE(cache.WaitIdle(10000));
    XAnimDib* stored = cache.FindBucket("slow", "k");
    ASSERT_NE(stored, nullptr);
    EXPECT_EQ(Px(*stored->GetFrame(0), 0, 0), (Bgra{200, 20, 70, 255}));
    EXPECT_EQ(cache.GetBucketPath(1), "");  // "other" never reached the thread
}

TEST(ImageCacheThread, AnUndecodableSourceStoresTheErrorPictureOnce) {
    Cache cache;
    const Bytes junk(300, 0x5A);
    XAnimDib* error = cache.Decode("/books/broken page.jpg", junk);
    ASSERT_NE(error, nullptr);
    ASSERT_EQ(error->GetFrameCount(), 1u);
    const XDib& d = *error->GetFrame(0);
    EXPECT_EQ(d.nWidth, 640u);
    EXPECT_EQ(d.nHeight, 480u);
    EXPECT_EQ(d.nBpp, 32u);
    const Bgra black{0, 0, 0, 255};
    for (const auto& [x, y] : {std::pair{0u, 0u}, {639u, 479u}, {639u, 0u}, {0u, 479u}})
        EXPECT_EQ(Px(d, x, y), black) << x << "," << y;
    EXPECT_EQ(Px(d, 320, 5), kWhite);
    // The path is written across the middle: dark pixels off the diagonals, on its line.
    int dark = 0;
    for (uint32_t y = 225; y < 255; ++y)
        for (uint32_t x = 100; x < 280; ++x) dark += Px(d, x, y).r < 128;
    EXPECT_GT(dark, 20);

    // Found again as a normal bucket, not decoded again.
    EXPECT_EQ(cache.Decode("/books/broken page.jpg", junk), error);
    EXPECT_EQ(cache.GetNextBucket(), 1);
    // Nothing to decode at all stores the same picture.
    XAnimDib* nothing = cache.DecodeNothing("a|b.png", "k");
    ASSERT_NE(nothing, nullptr);
    EXPECT_EQ(nothing->GetFrame(0)->nWidth, 640u);
    EXPECT_EQ(cache.DecodeNothing("a|b.png", "k"), nothing);
}
