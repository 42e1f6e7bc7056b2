// Format sniffing: the signature order and the ways an archive hides in a file.
#include <gtest/gtest.h>

#include "archive/tarnsniff.h"
#include "base/crc32.h"
#include "tarnfake.h"

namespace {

std::string Pad(std::string head, size_t size = 32) {
    head.resize(std::max(size, head.size()), '\0');
    return head;
}

std::string SevenZipHeader() {
    std::string b = Pad("7z\xBC\xAF\x27\x1C\x00\x04");
    for (int i = 12; i < 32; ++i) b[i] = char(i * 7);
    const uint32_t crc = Crc32(b.data() + 12, 20);
    for (int i = 0; i < 4; ++i) b[8 + i] = char(crc >> (8 * i));
    return b;
}

// A RAR marker and main header with the given flag word.
std::string RarHeader(uint16_t flags) {
    std::string b = Pad("Rar!\x1A\x07\x00");
    b[9] = 0x73;
    b[10] = char(flags & 0xFF);
    b[11] = char(flags >> 8);
    return b;
}

TarnFormat Sniff(const std::string& bytes, std::string_view ext, int64_t* offset = nullptr) {
    auto s = TarnPtr<ITarnInStream>::Adopt(new CMemInStream(bytes));
    int64_t off = -1;
    const TarnFormat f = TarnSniffStream(s.Get(), ext, &off);
    if (offset) *offset = off;
    return f;
}

TarnFormat Sig(const std::string& b) {
    return TarnTestSignature(reinterpret_cast<const uint8_t*>(b.data()), b.size());
}

TEST(TarnSniff, SignatureTest) {
    EXPECT_EQ(Sig(Pad("PK\x03\x04\x14")), TarnFormatZip);
    EXPECT_EQ(Sig(Pad("PK\x03\x04\x80")), TarnFormatNone);  // version byte too high
    EXPECT_EQ(Sig(Pad("PK\x05\x06")), TarnFormatZip);
    EXPECT_EQ(Sig(Pad("PK\x07\x08PK\x03\x04")), TarnFormatZip);
    EXPECT_EQ(Sig(Pad("PK00PK\x03\x04")), TarnFormatZip);
    EXPECT_EQ(Sig(Pad("PK\x07\x08PK\x05\x06")), TarnFormatNone);
    EXPECT_EQ(Sig(Pad(std::string("ALZ\x01\x0A\x00\x00\x00", 8))), TarnFormatAlz);
    EXPECT_EQ(Sig(Pad(std::string("ALZ\x01\x0A\x00\x01\x00", 8))), TarnFormatAlzPart);
    EXPECT_EQ(Sig(RarHeader(0)), TarnFormatRar);
    EXPECT_EQ(Sig(SevenZipHeader()), TarnFormat7z);
    std::string bad7z = SevenZipHeader();
    bad7z[20] ^= 1;
    EXPECT_EQ(Sig(bad7z), TarnFormatNone);
    EXPECT_EQ(Sig(Pad("OL30")), TarnFormatBond);
    EXPECT_EQ(Sig(Pad(std::string("\x20\x00-lh5-", 7))), TarnFormatLzh);
    EXPECT_EQ(Sig(Pad(std::string("MSCF\0\0\0\0", 8))), TarnFormatCab);
    EXPECT_EQ(Sig(Pad("MSCF\x01")), TarnFormatNone);
    EXPECT_EQ(Sig(Pad("\x1F\x8B\x08")), TarnFormatGzip);
    EXPECT_EQ(Sig(Pad("BZh9")), TarnFormatBzip2);
    EXPECT_EQ(Sig(Pad("BH57")), TarnFormatBH);
    EXPECT_EQ(Sig(Pad(std::string("EGGA\x00\x01", 6))), TarnFormatEgg);
    EXPECT_EQ(Sig(Pad("\xEF\xBE\xAD\xDENullsoftInst")), TarnFormatNsis);
    // The order decides: an LZH pattern at bytes 2..6 loses to ZIP's signature.
    EXPECT_EQ(Sig(Pad("PK\x03\x04\x01-lh")), TarnFormatZip);
    EXPECT_EQ(Sig("PK\x03\x04"), TarnFormatNone);  // fewer than 32 bytes
}

TEST(TarnSniff, SelfExtractorStub) {
    std::string exe = "MZ" + std::string(3000, '\x90');
    int64_t offset = -1;
    EXPECT_EQ(Sniff(exe, ".exe", &offset), TarnFormatNone);
    // No extension rule applies to a stub, not even ".tar".
    EXPECT_EQ(Sniff(exe, ".tar"), TarnFormatNone);

    std::string sfx = exe + Pad("PK\x03\x04\x14") + std::string(100, 'z');
    EXPECT_EQ(Sniff(sfx, ".exe", &offset), TarnFormatZip);
    EXPECT_EQ(offset, 3002);
    EXPECT_EQ(Sniff("MZ" + std::string(40, '\0'), ".exe"), TarnFormatNone);
}

TEST(TarnSniff, ExtensionsAndJunk) {
    const std::string plain(4096, 'x');
    EXPECT_EQ(Sniff(plain, ".tar"), TarnFormatTar);
    EXPECT_EQ(Sniff(plain, ".TaR"), TarnFormatTar);
    EXPECT_EQ(Sniff(plain, ".bin"), TarnFormatNone);
    EXPECT_EQ(Sniff(plain, ".001"), TarnFormatNumberedPart);
    EXPECT_EQ(Sniff(plain, ".iso"), TarnFormatNone);
    std::string iso(40000, '\0');
    iso.replace(32768, 6,
                "\x01"
                "CD001");
    EXPECT_EQ(Sniff(iso, ".ISO"), TarnFormatIso);
    EXPECT_EQ(Sniff(SevenZipHeader() + plain, ".001"), TarnFormatNumberedPart);
    EXPECT_EQ(Sniff(SevenZipHeader() + plain, ".7z"), TarnFormat7z);

    // Up to about 1 KB of junk in front of an archive.
    int64_t offset = -1;
    EXPECT_EQ(Sniff(std::string(1021, 'j') + Pad("PK\x03\x04\x14") + plain, ".zip", &offset),
              TarnFormatZip);
    EXPECT_EQ(offset, 1021);
    EXPECT_EQ(Sniff(std::string(1022, 'j') + Pad("PK\x03\x04\x14") + plain, ".zip"),
              TarnFormatNone);
    // The slide needs its 1054 bytes; a short file behind junk is nothing.
    EXPECT_EQ(Sniff(std::string(10, 'j') + Pad("PK\x03\x04\x14"), ".zip"), TarnFormatNone);
    EXPECT_EQ(Sniff("", ".zip"), TarnFormatNone);
    EXPECT_EQ(Sniff("short", ".tar"), TarnFormatNone);

    EXPECT_EQ(TarnExtensionOf("/a/b.c/name.TAR"), ".TAR");
    EXPECT_EQ(TarnExtensionOf("/a/b.c/name"), "");
}

TEST(TarnSniff, RarVolumes) {
    // Not a volume: always the first.
    EXPECT_EQ(Sniff(RarHeader(0x0000), ".r00"), TarnFormatRar);
    // Old numbering: the extension tells.
    EXPECT_EQ(Sniff(RarHeader(0x0001), ".rar"), TarnFormatRar);
    EXPECT_EQ(Sniff(RarHeader(0x0001), ".r00"), TarnFormatRarPart);
    EXPECT_EQ(Sniff(RarHeader(0x0001), ".R17"), TarnFormatRarPart);
    EXPECT_EQ(Sniff(RarHeader(0x0001), ".r1"), TarnFormatRar);
    // New numbering: the first-volume flag tells.
    EXPECT_EQ(Sniff(RarHeader(0x0011), ".rar"), TarnFormatRarPart);
    EXPECT_EQ(Sniff(RarHeader(0x0111), ".rar"), TarnFormatRar);
    // A volume behind junk is judged by its own header.
    EXPECT_EQ(Sniff(std::string(100, 'j') + RarHeader(0x0011) + std::string(2000, 'x'), ".rar"),
              TarnFormatRarPart);
}

}  // namespace
