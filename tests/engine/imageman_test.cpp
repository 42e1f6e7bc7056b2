#include "engine/imageman.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "image/image_test_util.h"
#include "imgwrite/imgwrite.h"
#include "library_writers.h"
#include "platform/files.h"
#include "support/scratchfolder.h"

namespace {

using imgtest::PixelOf;
using imgwrite::Bytes;
using imgwrite::Picture;
using imgwrite::Rgba;

constexpr Rgba kWhite{255, 255, 255, 255}, kGrey{0xC8, 0xC8, 0xC8, 255}, kRed{255, 0, 0, 255},
    kBlue{0, 0, 255, 255};

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

Bytes SmallBmp(uint8_t red = 90) {
    return imgwrite::WriteBmp(Picture(3, 2, Rgba{red, 20, 200, 255}));
}

// 2 x 2 GIF frames over the palette {red, green, blue, (10, 20, 30)}; index 3 is transparent.
Bytes Gif(const std::vector<std::vector<uint8_t>>& frames) {
    imgwrite::GifOptions o{.width = 2, .height = 2};
    o.globalPalette = {kRed, {0, 255, 0, 255}, kBlue, {10, 20, 30, 255}};
    std::vector<imgwrite::GifFrame> f;
    for (const auto& indices : frames) {
        f.push_back({.width = 2, .height = 2, .indices = indices});
        f.back().hasControl = true, f.back().control.transparentIndex = 3;
        f.back().control.delay = 10;
    }
    return imgwrite::WriteGif(o, f);
}

}  // namespace

TEST(ImageCacheKey, HoldsPasswordSourceFactsAndEveryOptionThatChangesPixels) {
    ImageOptions o;  // bExifRotation 1, nAlphaTransOption 2, the rest 0
    EXPECT_EQ(CImageMan::FormatKey("", 1234, (uint64_t(7) << 32) | 4000000000u, o),
              ",1234,74000000000,1,0,0,0,0,2");
    o.bExifRotation = 0, o.bNegative = 1, o.bGamma = 1, o.bFull = 1, o.nGifTransOption = 3;
    o.nAlphaTransOption = 1, o.nRotate = 2;
    // bFull is no part of the key: a reduced and a full picture share it.
    EXPECT_EQ(CImageMan::FormatKey("pass,word", 0, 0, o), "pass,word,0,00,0,2,1,1,3,1");

    ScratchFolder dir;
    const std::string file = dir.MakeFile("page.jpg", 777);
    platform::FileFacts facts;
    ASSERT_TRUE(platform::GetFileFacts(file, &facts));
    const uint64_t ft = facts.ftLastWrite;
    CImageMan cache;
    EXPECT_EQ(cache.MakeKey(file, ""), ",777," + std::to_string(uint32_t(ft >> 32)) +
                                           std::to_string(uint32_t(ft)) + ",1,0,0,0,0,2");
    // An archive page is no file: size and time are 0, the key is made all the same.
    EXPECT_EQ(cache.MakeKey(dir / "book.zip|01.jpg", "pw"), "pw,0,00,1,0,0,0,0,2");
    cache.SetOptions({.nRotate = 1});
    EXPECT_EQ(cache.MakeKey(dir / "none", ""), ",0,00,1,1,0,0,0,2");
}

TEST(ImageCacheBudget, FollowsFreeMemoryWithinEachInstancesLimits) {
    const std::pair<std::pair<int32_t, int64_t>, int32_t> budgets[] = {
        {{0, 0}, 50},   {{0, 250}, 50}, {{0, 251}, 51},  {{0, 500}, 300}, {{0, 1ll << 40}, 300},
        {{1, 100}, 30}, {{1, 231}, 31}, {{1, 300}, 100}, {{1, 301}, 100}};
    for (const auto& [in, mb] : budgets)
        EXPECT_EQ(CImageMan::BudgetFor(in.first, in.second), mb) << in.first << " " << in.second;
    // Whole megabytes by integer division: a byte short of 51 MB is within 50.
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
    // A transparent PNG but for one opaque and one half-covered pixel: flattened on the tile.
    Picture alpha(40, 40, Rgba{0, 0, 0, 0});
    alpha.At(20, 5) = kRed;
    alpha.At(2, 2) = {0, 0, 0, 128};
    Cache cache;
    XAnimDib* png = cache.Decode("alpha.png", samplewrite::WritePng(alpha));
    ASSERT_NE(png, nullptr);
    const XDib& flat = *png->GetFrame(0);
    EXPECT_EQ(flat.nBpp, 32u);
    // Tile corners, its repeats across and down, and the opaque pixel.
    const std::pair<std::pair<uint32_t, uint32_t>, Rgba> tile[] = {
        {{0, 0}, kGrey},  {{17, 0}, kWhite}, {{0, 17}, kWhite}, {{20, 20}, kGrey},
        {{33, 1}, kGrey}, {{1, 33}, kGrey},  {{20, 5}, kRed}};
    for (const auto& [at, colour] : tile)
        EXPECT_EQ(PixelOf(flat, at.first, at.second), colour) << at.first << "," << at.second;
    EXPECT_NEAR(PixelOf(flat, 2, 2).r, 0xC8 / 2, 2);
    for (uint32_t y = 0; y < 40; ++y)
        for (uint32_t x = 0; x < 40; ++x)
            ASSERT_EQ(flat.GetPixelPtr(x, y)[3], 255) << x << "," << y;

    // A one-frame GIF by its own option: its transparent entry's colour, white, or the tile.
    const Rgba expected[3] = {{10, 20, 30, 255}, kWhite, kGrey};
    for (uint32_t option = 0; option < 3; ++option) {
        cache.SetOptions({.nGifTransOption = option});
        XAnimDib* gif = cache.Decode("still.gif", Gif({{3, 0, 1, 3}}));
        ASSERT_NE(gif, nullptr);
        EXPECT_EQ(PixelOf(*gif->GetFrame(0), 0, 0), expected[option]) << option;
        EXPECT_EQ(PixelOf(*gif->GetFrame(0), 1, 0), kRed) << option;
    }

    // Two frames stay as the decoder made them, transparency and all.
    cache.SetOptions({});
    XAnimDib* anim = cache.Decode("anim.gif", Gif({{3, 0, 1, 3}, {3, 1, 3, 2}}));
    ASSERT_NE(anim, nullptr);
    ASSERT_EQ(anim->GetFrameCount(), 2u);
    EXPECT_EQ(PixelOf(*anim->GetFrame(0), 0, 0).a, 0);
    EXPECT_EQ(anim->GetFrame(1)->nBpp, 32u);

    // Other depths are only widened.
    XAnimDib* bmp = cache.Decode("plain.bmp", SmallBmp(90));
    ASSERT_NE(bmp, nullptr);
    EXPECT_EQ(PixelOf(*bmp->GetFrame(0), 0, 0), (Rgba{90, 20, 200, 255}));
}

TEST(ImageCacheTurns, ExifSixAndEightTurnTheFirstFrameOthersDoNot) {
    // Landscape, red on the left, blue on the right.
    Picture photo(64, 32, Rgba{255, 0, 0, 255});
    for (uint32_t y = 0; y < 32; ++y)
        for (uint32_t x = 32; x < 64; ++x) photo.At(x, y) = {0, 0, 255, 255};
    const auto redAt = [](const XDib& d, uint32_t x, uint32_t y) {
        return PixelOf(d, x, y).r > 200 && PixelOf(d, x, y).b < 60;
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
    o.globalPalette = {kRed, kBlue};
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
        EXPECT_EQ(PixelOf(d, 0, 0), kBlue) << i;
        EXPECT_EQ(PixelOf(d, 0, 3), kRed) << i;
    }

    cache.SetOptions({.bNegative = 1});
    XAnimDib* negative = cache.Decode("turn.gif", gif);
    ASSERT_NE(negative, nullptr);
    EXPECT_EQ(PixelOf(*negative->GetFrame(0), 0, 0), (Rgba{0, 255, 255, 255}));
    EXPECT_EQ(PixelOf(*negative->GetFrame(1), 0, 0), kRed);

    // Gamma changes mid-tones; a grey frame 0 changes, frame 1 does not.
    o.globalPalette = {{128, 128, 128, 255}, kBlue};
    const Bytes grey = imgwrite::WriteGif(o, frames);
    cache.SetOptions({.bGamma = 1});
    XAnimDib* gamma = cache.Decode("grey.gif", grey);
    ASSERT_NE(gamma, nullptr);
    EXPECT_NE(PixelOf(*gamma->GetFrame(0), 0, 0).r, 128);
    EXPECT_EQ(PixelOf(*gamma->GetFrame(1), 0, 0).r, 128);
}

namespace {

// A source whose reads wait until the test opens the gate: a decode as long as the test wants.
class GatedSource final : public IXDibIO {
public:
    explicit GatedSource(Bytes bytes) : data(std::move(bytes)), inner(data.data(), data.size()) {}
    std::promise<void> entered, open;
    bool Read(void* buffer, uint32_t count) override {
        std::call_once(first, [&] { entered.set_value(), open.get_future().wait(); });
        return inner.Read(buffer, count);
    }
    bool Write(const void*, uint32_t) override { return false; }
    int64_t Seek(int64_t offset, int origin) override { return inner.Seek(offset, origin); }
    int64_t Tell() override { return inner.Tell(); }
    int64_t GetSize() override { return inner.GetSize(); }

private:
    Bytes data;
    CXDibMemIO inner;
    std::once_flag first;
};

}  // namespace

TEST(ImageCacheThread, ABusyCacheTurnsRequestsDownAndTheRunningJobStoresLater) {
    Cache cache;
    auto* gated = new GatedSource(SmallBmp(70));  // released through its count
    gated->AddRef();                              // the test's own reference
    bool timedOut = false;
    EXPECT_EQ(cache.PostDecode("slow", "k", XDibIOPtr(gated), 20, &timedOut), nullptr);
    EXPECT_TRUE(timedOut);  // the wait ran out, the job runs on
    auto entered = gated->entered.get_future();
    ASSERT_EQ(entered.wait_for(std::chrono::seconds(10)), std::future_status::ready);

    // Busy: turned down at once, nothing delivered.
    timedOut = false;
    EXPECT_EQ(cache.PostDecode("other", "k", CXDibMemIO::MakeCopy("x", 1), -1, &timedOut), nullptr);
    EXPECT_TRUE(timedOut);
    EXPECT_EQ(cache.DecodeMemory("other", "k", "x", 1, -1, &timedOut, false), nullptr);
    EXPECT_TRUE(timedOut);

    gated->open.set_value();
    gated->Release();  // the cache's reference alone keeps the source now
    ASSERT_TRUE(cache.WaitIdle(10000));
    XAnimDib* stored = cache.FindBucket("slow", "k");
    ASSERT_NE(stored, nullptr);
    EXPECT_EQ(PixelOf(*stored->GetFrame(0), 0, 0), (Rgba{70, 20, 200, 255}));
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
    for (const auto& [x, y] : {std::pair{0u, 0u}, {639u, 479u}, {639u, 0u}, {0u, 479u}})
        EXPECT_EQ(PixelOf(d, x, y), (Rgba{0, 0, 0, 255})) << x << "," << y;
    EXPECT_EQ(PixelOf(d, 320, 5), kWhite);
    // The path is written across the middle: dark pixels off the diagonals, on its line.
    int dark = 0;
    for (uint32_t y = 225; y < 255; ++y)
        for (uint32_t x = 100; x < 280; ++x) dark += PixelOf(d, x, y).r < 128;
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
