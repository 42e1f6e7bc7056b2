// The BH reader on archives written here byte by byte: stored and Deflated entries, the checks
// of the header walk, CRC, unsupported methods and a missing password.
#include <gtest/gtest.h>
#include <zlib.h>

#include <string>

#include "archive/bh.h"
#include "archive_bytes.h"
#include "zip_teststreams.h"

namespace {

using ziptest::CMemIn;
using ziptest::MakeMemOut;
using ziptest::MemSink;

using archivebytes::Put16;
using archivebytes::Put32;
using archivebytes::RawDeflate;

uint32_t Crc(const std::string& s) {
    return uint32_t(crc32(0, reinterpret_cast<const Bytef*>(s.data()), uInt(s.size())));
}

struct Entry {
    Entry(std::string n, std::string d, uint8_t m = 0)
        : name(std::move(n)), data(std::move(d)), method(m) {}
    std::string name, data;
    uint8_t method = 0;  // the header's byte: 0 store, 2 and 8 Deflate, 1 Fuse
    uint8_t flags = 0;
    std::string extra;
    int headerSizeDelta = 0;  // to break the header size
    uint32_t crcXor = 0;
    std::string password;  // non-empty: ZipCrypto with its 12-byte header
};

// PKWARE's traditional cipher, the writer's side.
class ZipEncrypt {
public:
    explicit ZipEncrypt(const std::string& password) {
        for (char c : password) Update(uint8_t(c));
    }
    std::string Run(const std::string& plain) {
        std::string out;
        for (char c : plain) {
            const uint32_t t = (k_[2] | 2) & 0xFFFF;
            out += char(uint8_t(c) ^ uint8_t((t * (t ^ 1)) >> 8));
            Update(uint8_t(c));
        }
        return out;
    }

private:
    static uint32_t Step(uint32_t k, uint8_t b) { return ~uint32_t(crc32(~k, &b, 1)); }
    void Update(uint8_t c) {
        k_[0] = Step(k_[0], c);
        k_[1] = (k_[1] + (k_[0] & 0xFF)) * 134775813u + 1;
        k_[2] = Step(k_[2], uint8_t(k_[1] >> 24));
    }
    uint32_t k_[3] = {0x12345678, 0x23456789, 0x34567890};
};

std::string Member(const Entry& e) {
    std::string packed = (e.method == 2 || e.method == 8) ? RawDeflate(e.data) : e.data;
    if (!e.password.empty()) {
        const std::string header = "0123456789A" + std::string(1, char(Crc(e.data) >> 24));
        packed = ZipEncrypt(e.password).Run(header + packed);
    }
    std::string s;
    Put32(s, 0x07054842);
    Put16(s, uint32_t(37 + e.name.size() + e.extra.size() + e.headerSizeDelta));
    s += std::string(3, '\0');
    s += char(e.flags | (e.password.empty() ? 0 : 1));
    s += char(e.method);
    Put32(s, (53u << 25 | 3u << 21 | 14u << 16) | (12u << 11 | 30u << 5));  // 2033-03-14 12:30
    Put32(s, uint32_t(packed.size()));
    Put32(s, uint32_t(e.data.size()));
    Put32(s, Crc(e.data) ^ e.crcXor);
    Put16(s, 0x21);
    Put32(s, 0);
    Put16(s, uint32_t(e.name.size()));
    Put16(s, uint32_t(e.extra.size()));
    return s + e.name + e.extra + packed;
}

std::string Pattern(size_t size, uint32_t seed) {
    std::string bytes(size, '\0');
    for (auto& b : bytes) {
        seed = seed * 1664525 + 1013904223;
        b = char('a' + (seed >> 28));
    }
    return bytes;
}

struct Opened {
    CTarnUnBH reader;
    MemSink sink;
    bool ok = false;

    explicit Opened(const std::string& bytes) {
        reader.SetOutStreamFactory(&MakeMemOut, &sink);
        auto stream = TarnPtr<ITarnInStream>::Adopt(new CMemIn<>(bytes));
        ok = reader.Open(stream.Get(), 0);
    }
    uint32_t Count() const { return reader.GetFileList()->GetCount(); }
    const TarnFileItem* Item(uint32_t i) const { return reader.GetFileList()->Get(i); }
    bool ExtractOne(uint32_t index) { return reader.ExtractFiles(&index, 1, nullptr); }
};

TEST(BHReader, ListsAndExtractsStoredAndDeflatedEntries) {
    const std::string big = Pattern(200000, 7);
    Entry stored{"pages/001.jpg", Pattern(9000, 1)};
    stored.extra = "EXTRA";
    Entry deflated{"002.png", big, 8};
    Entry deflated2{"003.gif", Pattern(100, 3), 2};
    Opened o(Member(stored) + Member(deflated) + Member(deflated2));
    ASSERT_TRUE(o.ok) << o.reader.GetLastError();
    ASSERT_EQ(o.Count(), 3u);
    EXPECT_EQ(o.Item(0)->fileNameW, "pages\\001.jpg");
    EXPECT_EQ(o.Item(0)->compressionMethod, 0);
    EXPECT_EQ(o.Item(1)->compressionMethod, 8);
    EXPECT_EQ(o.Item(2)->compressionMethod, 8);
    EXPECT_EQ(o.Item(0)->attributes, 0x21u);
    EXPECT_EQ(o.Item(0)->headerPos, 0);
    EXPECT_EQ(o.Item(0)->dataPos, 37 + 13 + 5);
    EXPECT_EQ(o.Item(1)->headerPos, 37 + 13 + 5 + 9000);
    EXPECT_EQ(o.Item(1)->uncompressedSize, 200000);
    EXPECT_NE(o.Item(0)->fileTime, 0u);
    EXPECT_FALSE(o.reader.IsEncrypted());
    ASSERT_TRUE(o.reader.ExtractAll(nullptr)) << o.reader.GetLastError();
    EXPECT_EQ(o.sink.files["pages\\001.jpg"], stored.data);
    EXPECT_EQ(o.sink.files["002.png"], big);
    EXPECT_EQ(o.sink.files["003.gif"], deflated2.data);
}

TEST(BHReader, HeaderWalkErrors) {
    const std::string good = Member(Entry{"a.jpg", "data"});
    {  // junk where the second header should be
        Opened o(good + "NOTBH" + std::string(40, 'x'));
        EXPECT_FALSE(o.ok);
        EXPECT_EQ(o.reader.GetLastError(), uint32_t(TARN_ERR_NO_SIGNATURE));
        EXPECT_EQ(o.Count(), 1u);
    }
    {  // a header cut short
        Opened o(good + good.substr(0, 20));
        EXPECT_EQ(o.reader.GetLastError(), uint32_t(TARN_ERR_HEADER));
        EXPECT_EQ(o.Count(), 1u);
    }
    Entry sizeOff{"a.jpg", "data"};
    sizeOff.headerSizeDelta = 1;
    EXPECT_EQ(Opened(Member(sizeOff)).reader.GetLastError(), uint32_t(TARN_ERR_HEADER));
    EXPECT_EQ(Opened(Member(Entry{"", "data"})).reader.GetLastError(), uint32_t(TARN_ERR_HEADER));
    EXPECT_EQ(Opened(Member(Entry{std::string(259, 'n'), "data"})).reader.GetLastError(),
              uint32_t(TARN_ERR_HEADER));
    EXPECT_TRUE(Opened(Member(Entry{std::string(258, 'n'), "data"})).ok);
    EXPECT_TRUE(Opened("").ok);  // an empty input lists nothing and succeeds
}

TEST(BHReader, ExtractionErrors) {
    Entry badCrc{"crc.jpg", "payload", 8};
    badCrc.crcXor = 1;
    Entry fuse{"fuse.jpg", "fused", 1};
    Entry odd{"odd.jpg", "odd", 5};
    Entry locked{"locked.jpg", std::string(12, 'h') + "secret", 0};
    locked.flags = 1;
    Entry cut{"cut.jpg", Pattern(5000, 9), 8};
    const std::string cutBytes = Member(cut);
    Opened o(Member(badCrc) + Member(fuse) + Member(odd) + Member(locked) +
             cutBytes.substr(0, cutBytes.size() - 100));
    ASSERT_TRUE(o.ok) << o.reader.GetLastError();
    ASSERT_EQ(o.Count(), 5u);
    EXPECT_EQ(o.Item(1)->compressionMethod, 300);
    EXPECT_FALSE(o.ExtractOne(0));
    EXPECT_EQ(o.reader.GetLastError(), uint32_t(TARN_ERR_CRC));
    EXPECT_FALSE(o.ExtractOne(1));
    EXPECT_EQ(o.reader.GetLastError(), uint32_t(TARN_ERR_METHOD));
    EXPECT_FALSE(o.ExtractOne(2));
    EXPECT_EQ(o.reader.GetLastError(), uint32_t(TARN_ERR_METHOD));
    EXPECT_TRUE(o.reader.IsEncrypted());
    EXPECT_EQ(o.Item(3)->encryptionMethod, 1u);
    EXPECT_EQ(o.Item(3)->cryptCheck, o.Item(3)->crc32 >> 24);
    EXPECT_FALSE(o.ExtractOne(3));
    EXPECT_EQ(o.reader.GetLastError(), uint32_t(TARN_ERR_NEED_PASSWORD));
    EXPECT_FALSE(o.ExtractOne(4));
    EXPECT_EQ(o.reader.GetLastError(), uint32_t(TARN_ERR_DATA_READ));
}

TEST(BHReader, DecryptsWithThePassword) {
    Entry stored{"stored.jpg", Pattern(6000, 4)};
    stored.password = "pw";
    Entry deflated{"deflated.jpg", Pattern(70000, 5), 8};
    deflated.password = "pw";
    Opened o(Member(stored) + Member(deflated));
    ASSERT_TRUE(o.ok) << o.reader.GetLastError();
    EXPECT_TRUE(o.reader.IsEncrypted());
    o.reader.SetPassword("wrong");
    EXPECT_FALSE(o.ExtractOne(0));
    EXPECT_EQ(o.reader.GetLastError(), uint32_t(TARN_ERR_WRONG_PASSWORD));
    o.reader.SetPassword("pw");
    ASSERT_TRUE(o.reader.ExtractAll(nullptr)) << o.reader.GetLastError();
    EXPECT_EQ(o.sink.files["stored.jpg"], stored.data);
    EXPECT_EQ(o.sink.files["deflated.jpg"], deflated.data);
}

}  // namespace
