// Deflate64, decoded the plain way: canonical Huffman codes read a bit at a time. The format is
// rare (Windows' own ZIP writer uses it for large files), so clarity wins over speed here.
#include "archive/inflate64.h"

#include <cstring>
#include <memory>

namespace {

constexpr uint32_t kWindow = 65536;
constexpr int kMaxBits = 15;
constexpr int kMaxLiterals = 288;
constexpr int kMaxDistances = 32;

constexpr uint16_t kLengthBase[29] = {3,  4,  5,  6,   7,   8,   9,   10,  11, 13,
                                      15, 17, 19, 23,  27,  31,  35,  43,  51, 59,
                                      67, 83, 99, 115, 131, 163, 195, 227, 3};
constexpr uint8_t kLengthExtra[29] = {0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 2, 2, 2,
                                      2, 3, 3, 3, 3, 4, 4, 4, 4, 5, 5, 5, 5, 16};
constexpr uint32_t kDistanceBase[32] = {1,    2,    3,    4,     5,     7,     9,     13,
                                        17,   25,   33,   49,    65,    97,    129,   193,
                                        257,  385,  513,  769,   1025,  1537,  2049,  3073,
                                        4097, 6145, 8193, 12289, 16385, 24577, 32769, 49153};
constexpr uint8_t kDistanceExtra[32] = {0, 0, 0, 0, 1, 1, 2,  2,  3,  4,  4,  4,  5,  5,  6,  6,
                                        7, 7, 8, 8, 9, 9, 10, 10, 11, 11, 12, 12, 13, 13, 14, 14};

// A canonical code: the number of codes of each length and the symbols in code order.
struct Huffman {
    uint16_t count[kMaxBits + 1];
    uint16_t symbol[kMaxLiterals];

    // False for an over-subscribed set of lengths. An incomplete one is allowed (a single
    // distance code is); its unused codes fail when met.
    bool Build(const uint8_t* lengths, int n) {
        std::memset(count, 0, sizeof(count));
        for (int i = 0; i < n; ++i) ++count[lengths[i]];
        int left = 1;
        for (int len = 1; len <= kMaxBits; ++len) {
            left = left * 2 - count[len];
            if (left < 0) return false;
        }
        uint16_t offset[kMaxBits + 2];
        offset[1] = 0;
        for (int len = 1; len <= kMaxBits; ++len) offset[len + 1] = offset[len] + count[len];
        for (int i = 0; i < n; ++i)
            if (lengths[i]) symbol[offset[lengths[i]]++] = uint16_t(i);
        return true;
    }
};

class Decoder {
public:
    Decoder(const CTarnInflate64::ReadFn& read, const CTarnInflate64::WriteFn& write)
        : read_(read), write_(write), window_(new uint8_t[kWindow]) {}

    CTarnInflate64::Result Run() {
        for (bool last = false; !last;) {
            uint32_t header = 0;
            if (!Bits(3, &header)) return Failure();
            last = header & 1;
            bool ok = false;
            switch (header >> 1) {
                case 0:
                    ok = Stored();
                    break;
                case 1:
                    ok = Fixed();
                    break;
                case 2:
                    ok = Dynamic();
                    break;
                default:
                    corrupt_ = true;
                    break;
            }
            if (!ok) return Failure();
        }
        if (!Flush()) return CTarnInflate64::Result::WriteFailed;
        return CTarnInflate64::Result::Ok;
    }

private:
    CTarnInflate64::Result Failure() const {
        if (writeFailed_) return CTarnInflate64::Result::WriteFailed;
        if (readFailed_) return CTarnInflate64::Result::ReadFailed;
        return CTarnInflate64::Result::Corrupt;  // bad codes, or the data ended mid-stream
    }

    bool Bits(int n, uint32_t* value) {
        while (count_ < n) {
            if (pos_ == len_) {
                uint32_t got = 0;
                if (!read_(in_, sizeof(in_), &got)) readFailed_ = true;
                if (got == 0) return false;
                pos_ = 0;
                len_ = got;
            }
            bits_ |= uint64_t(in_[pos_++]) << count_;
            count_ += 8;
        }
        *value = uint32_t(bits_ & ((uint64_t(1) << n) - 1));
        bits_ >>= n;
        count_ -= n;
        return true;
    }

    bool Decode(const Huffman& h, uint32_t* sym) {
        int code = 0, first = 0, index = 0;
        for (int len = 1; len <= kMaxBits; ++len) {
            uint32_t bit = 0;
            if (!Bits(1, &bit)) return false;
            code |= int(bit);
            const int n = h.count[len];
            if (code - n < first) {
                *sym = h.symbol[index + (code - first)];
                return true;
            }
            index += n;
            first = (first + n) << 1;
            code <<= 1;
        }
        corrupt_ = true;
        return false;
    }

    bool Put(uint8_t b) {
        window_[wpos_++] = b;
        if (total_ < kWindow) ++total_;
        if (wpos_ == kWindow) {
            if (!Flush()) return false;
            wpos_ = 0;
            flushed_ = 0;
        }
        return true;
    }

    bool Flush() {
        if (wpos_ > flushed_ && !write_(window_.get() + flushed_, wpos_ - flushed_)) {
            writeFailed_ = true;
            return false;
        }
        flushed_ = wpos_;
        return true;
    }

    bool Stored() {
        // The rest of the current byte is padding.
        bits_ >>= count_ % 8;
        count_ -= count_ % 8;
        uint32_t len = 0, nlen = 0;
        if (!Bits(16, &len) || !Bits(16, &nlen)) return false;
        if (len != (~nlen & 0xFFFF)) {
            corrupt_ = true;
            return false;
        }
        for (uint32_t i = 0; i < len; ++i) {
            uint32_t b = 0;
            if (!Bits(8, &b) || !Put(uint8_t(b))) return false;
        }
        return true;
    }

    bool Codes(const Huffman& literals, const Huffman& distances) {
        for (;;) {
            uint32_t sym = 0;
            if (!Decode(literals, &sym)) return false;
            if (sym < 256) {
                if (!Put(uint8_t(sym))) return false;
                continue;
            }
            if (sym == 256) return true;
            sym -= 257;
            if (sym >= 29) {
                corrupt_ = true;
                return false;
            }
            uint32_t extra = 0;
            if (!Bits(kLengthExtra[sym], &extra)) return false;
            const uint32_t length = kLengthBase[sym] + extra;
            if (!Decode(distances, &sym)) return false;
            if (!Bits(kDistanceExtra[sym], &extra)) return false;
            const uint32_t distance = kDistanceBase[sym] + extra;
            if (distance > total_) {  // reaches before the start of the output
                corrupt_ = true;
                return false;
            }
            for (uint32_t i = 0; i < length; ++i)
                if (!Put(window_[(wpos_ - distance) & (kWindow - 1)])) return false;
        }
    }

    bool Fixed() {
        uint8_t lengths[kMaxLiterals];
        int i = 0;
        for (; i < 144; ++i) lengths[i] = 8;
        for (; i < 256; ++i) lengths[i] = 9;
        for (; i < 280; ++i) lengths[i] = 7;
        for (; i < kMaxLiterals; ++i) lengths[i] = 8;
        Huffman literals, distances;
        literals.Build(lengths, kMaxLiterals);
        std::memset(lengths, 5, kMaxDistances);
        distances.Build(lengths, kMaxDistances);
        return Codes(literals, distances);
    }

    bool Dynamic() {
        static constexpr uint8_t kOrder[19] = {16, 17, 18, 0, 8,  7, 9,  6, 10, 5,
                                               11, 4,  12, 3, 13, 2, 14, 1, 15};
        uint32_t nlen = 0, ndist = 0, ncode = 0;
        if (!Bits(5, &nlen) || !Bits(5, &ndist) || !Bits(4, &ncode)) return false;
        nlen += 257;
        ndist += 1;
        ncode += 4;
        if (nlen > kMaxLiterals) {
            corrupt_ = true;
            return false;
        }
        uint8_t lengths[kMaxLiterals + kMaxDistances] = {};
        for (uint32_t i = 0; i < ncode; ++i) {
            uint32_t v = 0;
            if (!Bits(3, &v)) return false;
            lengths[kOrder[i]] = uint8_t(v);
        }
        Huffman lencode;
        if (!lencode.Build(lengths, 19)) {
            corrupt_ = true;
            return false;
        }
        std::memset(lengths, 0, sizeof(lengths));
        for (uint32_t i = 0; i < nlen + ndist;) {
            uint32_t sym = 0;
            if (!Decode(lencode, &sym)) return false;
            if (sym < 16) {
                lengths[i++] = uint8_t(sym);
                continue;
            }
            uint32_t repeat = 0, value = 0;
            if (sym == 16) {
                if (i == 0) {
                    corrupt_ = true;
                    return false;
                }
                value = lengths[i - 1];
                if (!Bits(2, &repeat)) return false;
                repeat += 3;
            } else if (sym == 17) {
                if (!Bits(3, &repeat)) return false;
                repeat += 3;
            } else {
                if (!Bits(7, &repeat)) return false;
                repeat += 11;
            }
            if (i + repeat > nlen + ndist) {
                corrupt_ = true;
                return false;
            }
            while (repeat--) lengths[i++] = uint8_t(value);
        }
        if (lengths[256] == 0) {  // no end-of-block code: the block could never end
            corrupt_ = true;
            return false;
        }
        Huffman literals, distances;
        if (!literals.Build(lengths, int(nlen)) || !distances.Build(lengths + nlen, int(ndist))) {
            corrupt_ = true;
            return false;
        }
        return Codes(literals, distances);
    }

    const CTarnInflate64::ReadFn& read_;
    const CTarnInflate64::WriteFn& write_;
    std::unique_ptr<uint8_t[]> window_;
    uint32_t wpos_ = 0;     // next write index in the window
    uint32_t flushed_ = 0;  // window bytes before this index were handed out
    uint32_t total_ = 0;    // bytes decoded so far, up to the window size
    uint8_t in_[4096];
    uint32_t pos_ = 0, len_ = 0;
    uint64_t bits_ = 0;
    int count_ = 0;
    bool corrupt_ = false, readFailed_ = false, writeFailed_ = false;
};

}  // namespace

CTarnInflate64::Result CTarnInflate64::Run(const ReadFn& read, const WriteFn& write) {
    auto decoder = std::make_unique<Decoder>(read, write);
    return decoder->Run();
}
