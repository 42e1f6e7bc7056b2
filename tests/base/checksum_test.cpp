#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "base/crc32.h"
#include "base/md5.h"

static std::vector<unsigned char> RandomBytes(size_t size) {
    std::mt19937 rng(1);
    std::vector<unsigned char> bytes(size);
    for (unsigned char& b : bytes) b = static_cast<unsigned char>(rng());
    return bytes;
}

TEST(Crc32, MatchesZlibAtEveryAlignmentAndChains) {
    EXPECT_EQ(Crc32("123456789", 9), 0xCBF43926u);
    // The eight-byte path, the byte tail and their joins at every offset, against zlib's crc32.
    const std::vector<unsigned char> data = RandomBytes(300);
    for (size_t offset = 0; offset < 9; ++offset) {
        for (size_t size = 0; size + offset <= data.size(); size += 7) {
            const uLong expected = crc32(0, data.data() + offset, static_cast<uInt>(size));
            ASSERT_EQ(Crc32(data.data() + offset, size), expected) << offset << "+" << size;
        }
    }
    // Chaining across any split gives the CRC of the whole run.
    const uint32_t whole = Crc32(data.data(), data.size());
    for (size_t split : {0, 1, 7, 8, 9, 150, 299, 300}) {
        EXPECT_EQ(Crc32(data.data() + split, 300 - split, Crc32(data.data(), split)), whole)
            << split;
    }
}

TEST(Md5, Rfc1321VectorsPaddingEdgesAndUpdatesAcrossBlocks) {
    const std::pair<std::string, const char*> vectors[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
         "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
        // 55 bytes leave room for the length in the same block, 56 need another, 64 fill one.
        {std::string(55, 'a'), "ef1772b6dff9a122358552954ad0df65"},
        {std::string(56, 'a'), "3b0c8ac703f828b04c6c197006d17218"},
        {std::string(64, 'a'), "014842d480b571495a4a0363793f7367"}};
    for (const auto& [text, hex] : vectors) EXPECT_EQ(Md5Hex(text), hex) << text;

    // Chunks of odd sizes cross the block boundary at a different place each time; one object
    // serves every round, as Final starts a new message.
    const std::vector<unsigned char> data = RandomBytes(1000);
    XMd5 md5;
    md5.Update(data.data(), data.size());
    const XMd5::Digest whole = md5.Final();
    for (size_t step : {1, 3, 63, 65, 127}) {
        for (size_t pos = 0; pos < data.size(); pos += step) {
            md5.Update(data.data() + pos, std::min(step, data.size() - pos));
        }
        EXPECT_EQ(md5.Final(), whole) << step;
    }
}
