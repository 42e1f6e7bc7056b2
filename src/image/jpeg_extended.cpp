// Our own decoder for the JPEG modes the library doesn't decode: lossless frames (SOF3) of 2 to
// 16 bits, and DCT frames of 12-bit samples, sequential (SOF1) or progressive (SOF2), all
// Huffman coded. Medical and archival pictures use them. The output follows the library path:
// grey with a ramp, B G R, or CMYK turned into B G R, brought down to 8 bits.
//
// Decoding runs in two steps. The scans fill the whole frame first: quantised coefficients for
// DCT frames (a progressive frame refines them scan by scan), reconstructed samples for lossless
// ones. Then the rows are produced top first: inverse DCT one band of blocks at a time, upsampling
// (the library's triangle filter for 2:1 chroma of DCT frames, boxes otherwise, as the library
// does for lossless frames), colour conversion, and 8 bits: samples of more bits are shifted
// right with rounding (saturating at 255), samples of fewer are scaled up to 0..255.
#include <algorithm>
#include <array>
#include <cstring>
#include <new>
#include <utility>
#include <vector>

#include "image/cmyk.h"
#include "image/decoders.h"
#include "image/jpeg_extended_samples.h"
#include "image/limits.h"
#include "image/xdib.h"
#include "image/xdibio.h"

namespace {

// Coefficient k of a block in zig-zag order lives at kNaturalOrder[k] in row-major order.
constexpr uint8_t kNaturalOrder[64] = {
    0,  1,  8,  16, 9,  2,  3,  10, 17, 24, 32, 25, 18, 11, 4,  5,  12, 19, 26, 33, 40, 48,
    41, 34, 27, 20, 13, 6,  7,  14, 21, 28, 35, 42, 49, 56, 57, 50, 43, 36, 29, 22, 15, 23,
    30, 37, 44, 51, 58, 59, 52, 45, 38, 31, 39, 46, 53, 60, 61, 54, 47, 55, 62, 63};

// A DCT frame is decoded into one buffer of quantised coefficients, 128 bytes a block. Every
// block costs its scans at least one bit (a DC code), so a file of n bytes can't honestly fill
// more than 8n blocks; twice that leaves room for a file cut off half-way. A 2 KB file that
// claims 60000 x 60000 pixels of 12-bit progressive data fails here instead of pinning gigabytes.
constexpr uint64_t kMaxCoefficientBytesPerFileByte = 2 * 8 * 128;
// A lossless frame keeps every sample at 16 bits; each costs at least one bit of Huffman code, so
// n bytes hold at most 8n samples (16n bytes of planes); four times that for truncated files.
constexpr uint64_t kMaxPlaneBytesPerFileByte = 4 * 16;
// Honest progressive frames have a dozen scans. Each scan walks every block of its components,
// and a hostile file can repeat scans of a few bytes that skip everything with end-of-band runs;
// the cap keeps such a file from costing minutes.
constexpr uint32_t kMaxScans = 100;

constexpr int kFastBits = 9;

// ---------------------------------------------------------------------------------------------
// Input

// Reads the source through a block, with a look-ahead of two bytes for marker detection.
class StreamReader {
public:
    explicit StreamReader(IXDibIO& source) : io(source), block(kBlock) {
        const int64_t size = io.GetSize(), pos = io.Tell();
        left = size > pos ? size - pos : 0;
    }

    // The byte `k` (0 or 1) bytes ahead of the current position.
    bool Peek(size_t k, uint8_t& out) {
        if (fill - pos <= k && !Refill(k + 1)) return false;
        out = block[pos + k];
        return true;
    }
    bool Byte(uint8_t& out) {
        if (!Peek(0, out)) return false;
        ++pos;
        return true;
    }
    void Advance(size_t n) { pos += n; }  // only over bytes that Peek has seen
    bool Read(uint8_t* out, size_t count) {
        while (count > 0) {
            if (fill == pos && !Refill(1)) return false;
            const size_t n = std::min(count, fill - pos);
            std::memcpy(out, block.data() + pos, n);
            out += n, pos += n, count -= n;
        }
        return true;
    }

private:
    bool Refill(size_t need) {
        if (pos > 0) {
            std::memmove(block.data(), block.data() + pos, fill - pos);
            fill -= pos, pos = 0;
        }
        while (fill < need) {
            if (left <= 0) return false;
            const uint32_t n = uint32_t(std::min<int64_t>(left, int64_t(kBlock - fill)));
            if (!io.Read(block.data() + fill, n)) {
                left = 0;
                return false;
            }
            fill += n, left -= n;
        }
        return true;
    }

    static constexpr size_t kBlock = 65536;
    IXDibIO& io;
    std::vector<uint8_t> block;
    size_t pos = 0;
    size_t fill = 0;
    int64_t left = 0;
};

// Bits of entropy-coded data, most significant first. Stuffed zero bytes are dropped; at a
// marker or at the end of the file the reader stops and feeds zero bits, counting them, so a
// decoder can tell afterwards whether it used bits the file never had.
class BitReader {
public:
    explicit BitReader(StreamReader& input) : in(input) {}

    void Reset() { acc = 0, count = 0, padding = 0, stopped = false; }
    bool Overrun() const { return padding > count; }

    void Ensure(int n) {
        if (count < n) Refill();
    }
    uint32_t Peek16() const { return uint32_t(acc >> 48); }
    void Skip(int n) { acc <<= n, count -= n; }
    // n is 0..16.
    uint32_t Bits(int n) {
        if (n == 0) return 0;
        Ensure(n);
        const uint32_t v = uint32_t(acc >> (64 - n));
        Skip(n);
        return v;
    }

private:
    void Refill() {
        while (count <= 56) {
            uint8_t b = 0;
            if (stopped || !NextDataByte(b)) {
                stopped = true;
                b = 0;
                padding += 8;
            }
            acc |= uint64_t(b) << (56 - count);
            count += 8;
        }
    }
    bool NextDataByte(uint8_t& b) {
        for (;;) {
            if (!in.Peek(0, b)) return false;
            if (b != 0xFF) {
                in.Advance(1);
                return true;
            }
            uint8_t next;
            if (!in.Peek(1, next)) return false;
            if (next == 0) {
                in.Advance(2);
                return true;
            }
            if (next != 0xFF) return false;  // a marker: left for the marker reader
            in.Advance(1);                   // a fill byte before a marker
        }
    }

    StreamReader& in;
    uint64_t acc = 0;
    int count = 0;
    int padding = 0;
    bool stopped = false;
};

// ---------------------------------------------------------------------------------------------
// Huffman tables

struct HuffTable {
    bool bDefined = false;
    // Codes of up to kFastBits bits: (length << 8) | symbol, indexed by the next kFastBits
    // bits; 0 where the code is longer.
    std::array<uint16_t, 1 << kFastBits> fast{};
    std::array<int32_t, 17> maxCode{};  // largest code of each length, -1 when none
    std::array<int32_t, 17> valOffset{};
    std::array<uint8_t, 256> symbols{};

    // `counts` holds the number of codes of each length 1..16. False for a table whose codes
    // over-fill their lengths (no prefix code has them) or that has more than 256 symbols.
    bool Build(const uint8_t* counts, const uint8_t* values, uint32_t total) {
        *this = HuffTable();
        std::memcpy(symbols.data(), values, total);
        int32_t code = 0;
        uint32_t k = 0;
        for (int len = 1; len <= 16; ++len) {
            const uint32_t n = counts[len - 1];
            valOffset[len] = int32_t(k) - code;
            for (uint32_t i = 0; i < n; ++i, ++k, ++code) {
                // A hostile table with more codes of a length than the length can spell.
                if (code >= (1 << len)) return false;
                if (len <= kFastBits) {
                    const int shift = kFastBits - len;
                    for (int32_t j = 0; j < (1 << shift); ++j)
                        fast[(code << shift) | j] = uint16_t((len << 8) | symbols[k]);
                }
            }
            maxCode[len] = n ? code - 1 : -1;
            code <<= 1;
        }
        bDefined = true;
        return true;
    }

    // The next symbol, or -1 for a code that isn't in the table.
    int Decode(BitReader& br) const {
        br.Ensure(16);
        const uint32_t peek = br.Peek16();
        const uint16_t e = fast[peek >> (16 - kFastBits)];
        if (e) {
            br.Skip(e >> 8);
            return e & 0xFF;
        }
        for (int len = kFastBits + 1; len <= 16; ++len) {
            const int32_t code = int32_t(peek >> (16 - len));
            if (code <= maxCode[len]) {
                br.Skip(len);
                return symbols[uint32_t(valOffset[len] + code) & 0xFF];
            }
        }
        return -1;
    }
};

// The signed value of `s` bits that follow a Huffman code (s <= 16).
inline int32_t Extend(uint32_t v, int s) {
    if (s == 0) return 0;
    return v < (1u << (s - 1)) ? int32_t(v) - (1 << s) + 1 : int32_t(v);
}

// ---------------------------------------------------------------------------------------------
// Inverse DCT: the Loeffler-Ligtenberg-Moschytz integer transform with 13-bit constants and a
// pass-1 scale of 2 bits for 8-bit and 1 bit for 12-bit samples, as the library computes it, so
// that pictures match what it would give. Products are kept in 64 bits: with 12-bit samples and
// 16-bit quantisers they don't fit in 32.

constexpr int kConstBits = 13;
constexpr int64_t Fix(double x) {
    return int64_t(x * (1 << kConstBits) + 0.5);
}
constexpr int64_t kFix0_298631336 = Fix(0.298631336);
constexpr int64_t kFix0_390180644 = Fix(0.390180644);
constexpr int64_t kFix0_541196100 = Fix(0.541196100);
constexpr int64_t kFix0_765366865 = Fix(0.765366865);
constexpr int64_t kFix0_899976223 = Fix(0.899976223);
constexpr int64_t kFix1_175875602 = Fix(1.175875602);
constexpr int64_t kFix1_501321110 = Fix(1.501321110);
constexpr int64_t kFix1_847759065 = Fix(1.847759065);
constexpr int64_t kFix1_961570560 = Fix(1.961570560);
constexpr int64_t kFix2_053119869 = Fix(2.053119869);
constexpr int64_t kFix2_562915447 = Fix(2.562915447);
constexpr int64_t kFix3_072711026 = Fix(3.072711026);

inline int64_t Descale(int64_t x, int n) {
    return (x + (int64_t(1) << (n - 1))) >> n;
}

// One 1-D pass over eight values (a column or a row of a block); the caller descales.
struct IdctOut {
    int64_t v[8];
};
inline IdctOut Idct1D(int64_t i0, int64_t i1, int64_t i2, int64_t i3, int64_t i4, int64_t i5,
                      int64_t i6, int64_t i7) {
    // Even part.
    int64_t z1 = (i2 + i6) * kFix0_541196100;
    const int64_t t2 = z1 - i6 * kFix1_847759065;
    const int64_t t3 = z1 + i2 * kFix0_765366865;
    const int64_t t0 = (i0 + i4) << kConstBits;
    const int64_t t1 = (i0 - i4) << kConstBits;
    const int64_t e10 = t0 + t3, e13 = t0 - t3, e11 = t1 + t2, e12 = t1 - t2;
    // Odd part.
    z1 = i7 + i1;
    int64_t z2 = i5 + i3, z3 = i7 + i3, z4 = i5 + i1;
    const int64_t z5 = (z3 + z4) * kFix1_175875602;
    int64_t o0 = i7 * kFix0_298631336, o1 = i5 * kFix2_053119869;
    int64_t o2 = i3 * kFix3_072711026, o3 = i1 * kFix1_501321110;
    z1 *= -kFix0_899976223;
    z2 *= -kFix2_562915447;
    z3 = z3 * -kFix1_961570560 + z5;
    z4 = z4 * -kFix0_390180644 + z5;
    o0 += z1 + z3;
    o1 += z2 + z4;
    o2 += z2 + z3;
    o3 += z1 + z4;
    return {{e10 + o3, e11 + o2, e12 + o1, e13 + o0, e13 - o0, e12 - o1, e11 - o2, e10 - o3}};
}

// Dequantises and transforms one block into 8 rows of `out` (row pitch `pitch`), level-shifted
// and limited to 0..2^precision-1. Values far outside the range wrap the way the library's
// limit table does before they are clamped.
void InverseDct(const int16_t* coef, const uint16_t* quant, int precision, uint16_t* out,
                size_t pitch) {
    const int pass1 = precision > 8 ? 1 : 2;
    const int64_t range = int64_t(1) << precision;
    const int64_t center = range / 2, maxv = range - 1;
    int64_t ws[64];
    for (int col = 0; col < 8; ++col) {
        const int16_t* c = coef + col;
        const uint16_t* q = quant + col;
        if (!c[8] && !c[16] && !c[24] && !c[32] && !c[40] && !c[48] && !c[56]) {
            const int64_t dc = (int64_t(c[0]) * q[0]) << pass1;
            for (int r = 0; r < 8; ++r) ws[r * 8 + col] = dc;
            continue;
        }
        const IdctOut o =
            Idct1D(int64_t(c[0]) * q[0], int64_t(c[8]) * q[8], int64_t(c[16]) * q[16],
                   int64_t(c[24]) * q[24], int64_t(c[32]) * q[32], int64_t(c[40]) * q[40],
                   int64_t(c[48]) * q[48], int64_t(c[56]) * q[56]);
        for (int r = 0; r < 8; ++r) ws[r * 8 + col] = Descale(o.v[r], kConstBits - pass1);
    }
    const int finalShift = kConstBits + pass1 + 3;
    for (int row = 0; row < 8; ++row) {
        const int64_t* w = ws + row * 8;
        const IdctOut o = Idct1D(w[0], w[1], w[2], w[3], w[4], w[5], w[6], w[7]);
        uint16_t* dst = out + row * pitch;
        for (int x = 0; x < 8; ++x) {
            int64_t v = Descale(o.v[x], finalShift);
            v = ((v + 2 * range) & (4 * range - 1)) - 2 * range;
            dst[x] = uint16_t(std::clamp(v + center, int64_t(0), maxv));
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Frame state

enum class Mode { kSequential, kProgressive, kLossless };

struct Component {
    uint8_t id = 0;
    uint32_t h = 1, v = 1;
    uint32_t tq = 0;
    uint32_t width = 0, height = 0;    // samples of the component itself
    uint32_t gridW = 0, gridH = 0;     // blocks (DCT) or samples (lossless), padded to whole MCUs
    std::vector<int16_t> coef;         // DCT: gridW * gridH blocks of 64, natural order
    std::vector<uint16_t> plane;       // lossless: gridW * gridH samples before the point shift
    std::array<uint16_t, 64> quant{};  // natural order, taken at the component's first scan
    bool bQuantTaken = false;
    uint32_t coveredRows = 0;  // component sample rows that some scan has reached
    // Scan state.
    const HuffTable* dc = nullptr;
    const HuffTable* ac = nullptr;
    int32_t dcPred = 0;
    uint32_t pointTransform = 0;  // lossless: samples are stored shifted right by this
    uint32_t intervalRow = 0;     // lossless: first sample row of the restart interval
    bool bFirstSample = false;    // lossless: next sample starts the restart interval
};

class RowSink {
public:
    virtual ~RowSink() = default;
    virtual bool Begin(uint32_t width, uint32_t height, uint32_t channels, int precision,
                       bool lossless) = 0;
    // One row of `channels` planes of `width` samples below 2^precision.
    virtual void Row(uint32_t y, const uint16_t* const* channels) = 0;
    virtual void Finish(uint32_t validRows) = 0;
};

enum class Colour { kGrey, kRgb, kYCbCr, kCmyk, kYcck };

class Decoder {
public:
    explicit Decoder(IXDibIO& source) : io(source), in(source), br(in) {}

    // Decodes the stream and hands its rows to `sink`. True when the picture is whole.
    bool Run(RowSink& sink);

private:
    bool ReadSegment(std::vector<uint8_t>& payload);
    int NextMarker();
    bool ParseFrame(uint8_t marker, const std::vector<uint8_t>& p);
    bool ParseHuffman(const std::vector<uint8_t>& p);
    bool ParseQuant(const std::vector<uint8_t>& p);
    bool AllocateFrame();
    // False when the scan header is unusable; `complete` tells whether every MCU was decoded.
    bool DecodeScan(const std::vector<uint8_t>& p, bool& complete);
    bool Restart();
    bool DecodeBlock(Component& c, int16_t* block);
    bool DecodeLosslessSample(Component& c, uint32_t x, uint32_t y);
    void MarkCovered(Component& c, uint32_t rows);

    uint32_t ValidRows() const;
    Colour ChooseColour() const;
    bool Emit(RowSink& sink);
    void InverseDctBand(uint32_t band);
    const uint16_t* ComponentRow(size_t ci, uint32_t yc);
    const uint16_t* UpsampledRow(size_t ci, uint32_t y);

    IXDibIO& io;
    StreamReader in;
    BitReader br;
    int pendingMarker = -1;

    // Tables.
    std::array<HuffTable, 4> dcTables;
    std::array<HuffTable, 4> acTables;
    std::array<std::array<uint16_t, 64>, 4> quantTables{};
    std::array<bool, 4> quantDefined{};
    uint32_t restartInterval = 0;
    bool bJfif = false;
    bool bAdobe = false;
    uint8_t adobeTransform = 0;

    // Frame.
    bool bFrame = false;
    bool bAllocated = false;
    Mode mode = Mode::kSequential;
    int precision = 8;
    uint32_t width = 0, height = 0;
    uint32_t hMax = 1, vMax = 1;
    uint32_t mcusX = 0, mcusY = 0;
    std::vector<Component> comps;
    uint32_t scanCount = 0;

    // Scan.
    std::vector<size_t> scanComps;
    uint32_t ss = 0, se = 0, ah = 0, al = 0;
    uint32_t eobRun = 0;

    // Output.
    std::vector<std::vector<uint16_t>> ring;  // per component: 3 bands of rows (DCT)
    std::vector<uint32_t> ringRows;
    std::vector<std::vector<uint16_t>> compRow;  // per component: one row at its resolution
    std::vector<std::vector<uint16_t>> upRow;    // per component: one row upsampled
    std::vector<std::vector<uint32_t>> sumRow;   // per component: column sums of the filter
    uint32_t nextBand = 0;
};

bool Decoder::ReadSegment(std::vector<uint8_t>& payload) {
    uint8_t len[2];
    if (!in.Read(len, 2)) return false;
    const uint32_t n = (uint32_t(len[0]) << 8) | len[1];
    if (n < 2) return false;
    payload.resize(n - 2);
    return in.Read(payload.data(), payload.size());
}

// The next marker code, skipping anything that isn't one (the rest of a broken scan, stuffed
// bytes, fill bytes); -1 at the end of the file.
int Decoder::NextMarker() {
    if (pendingMarker >= 0) return std::exchange(pendingMarker, -1);
    uint8_t b;
    for (;;) {
        if (!in.Byte(b)) return -1;
        if (b != 0xFF) continue;
        do {
            if (!in.Byte(b)) return -1;
        } while (b == 0xFF);
        if (b != 0) return b;
    }
}

bool Decoder::ParseFrame(uint8_t marker, const std::vector<uint8_t>& p) {
    if (bFrame || p.size() < 6) return false;
    mode = marker == 0xC3   ? Mode::kLossless
           : marker == 0xC2 ? Mode::kProgressive
                            : Mode::kSequential;
    precision = p[0];
    height = (uint32_t(p[1]) << 8) | p[2];
    width = (uint32_t(p[3]) << 8) | p[4];
    const uint32_t n = p[5];
    if (mode == Mode::kLossless ? precision < 2 || precision > 16
                                : precision != 8 && precision != 12)
        return false;
    // Height 0 means a DNL marker gives it after the first scan; nobody writes that.
    if (width == 0 || height == 0) return false;
    // The picture has one, three or four channels; two components have no colour meaning.
    if (n != 1 && n != 3 && n != 4) return false;
    if (p.size() != 6 + 3 * size_t(n)) return false;
    comps.resize(n);
    hMax = vMax = 1;
    for (uint32_t i = 0; i < n; ++i) {
        Component& c = comps[i];
        c.id = p[6 + 3 * i];
        c.h = p[7 + 3 * i] >> 4;
        c.v = p[7 + 3 * i] & 15;
        c.tq = p[8 + 3 * i];
        if (c.h < 1 || c.h > 4 || c.v < 1 || c.v > 4) return false;
        if (c.tq > 3) return false;
        hMax = std::max(hMax, c.h);
        vMax = std::max(vMax, c.v);
    }
    bFrame = true;
    return true;
}

bool Decoder::ParseHuffman(const std::vector<uint8_t>& p) {
    size_t i = 0;
    while (i < p.size()) {
        if (p.size() - i < 17) return false;
        const uint8_t tc = p[i] >> 4, th = p[i] & 15;
        if (tc > 1 || th > 3) return false;
        uint32_t total = 0;
        for (int k = 0; k < 16; ++k) total += p[i + 1 + k];
        if (total > 256 || p.size() - i - 17 < total) return false;
        HuffTable& t = tc == 0 ? dcTables[th] : acTables[th];
        if (!t.Build(&p[i + 1], &p[i + 17], total)) return false;
        i += 17 + total;
    }
    return true;
}

bool Decoder::ParseQuant(const std::vector<uint8_t>& p) {
    size_t i = 0;
    while (i < p.size()) {
        const uint8_t pq = p[i] >> 4, tq = p[i] & 15;
        if (pq > 1 || tq > 3) return false;
        const size_t size = pq ? 128 : 64;
        if (p.size() - i - 1 < size) return false;
        for (int k = 0; k < 64; ++k)
            quantTables[tq][kNaturalOrder[k]] =
                pq ? uint16_t((p[i + 1 + 2 * k] << 8) | p[i + 2 + 2 * k]) : p[i + 1 + k];
        quantDefined[tq] = true;
        i += 1 + size;
    }
    return true;
}

// Sizes every component and allocates the frame's buffers, once the sizes have been checked
// against the ceilings and against what the file can hold.
bool Decoder::AllocateFrame() {
    const bool dct = mode != Mode::kLossless;
    const uint32_t unit = dct ? 8 : 1;
    mcusX = uint32_t((uint64_t(width) + hMax * unit - 1) / (hMax * unit));
    mcusY = uint32_t((uint64_t(height) + vMax * unit - 1) / (vMax * unit));
    const uint32_t bpp = comps.size() == 1 ? 8 : comps.size() == 3 ? 24 : 32;
    // A frame of 65535 x 65535 at 32 bits claims 16 GB of picture.
    if (uint64_t(XDibStride(width, bpp)) * height > kMaxPictureBytes) return false;
    uint64_t bytes = 0;
    for (Component& c : comps) {
        c.width = uint32_t((uint64_t(width) * c.h + hMax - 1) / hMax);
        c.height = uint32_t((uint64_t(height) * c.v + vMax - 1) / vMax);
        c.gridW = mcusX * c.h;
        c.gridH = mcusY * c.v;
        bytes += uint64_t(c.gridW) * c.gridH * (dct ? 128 : 2);
    }
    const int64_t fileSize = std::max<int64_t>(io.GetSize(), 0);
    if (dct) {
        if (bytes > 2 * kMaxPictureBytes) return false;
        if (bytes > uint64_t(fileSize) * kMaxCoefficientBytesPerFileByte) return false;
    } else {
        if (bytes > kMaxPictureBytes) return false;
        if (bytes > uint64_t(fileSize) * kMaxPlaneBytesPerFileByte) return false;
    }
    for (Component& c : comps) {
        if (dct)
            c.coef.assign(size_t(c.gridW) * c.gridH * 64, 0);
        else
            c.plane.assign(size_t(c.gridW) * c.gridH, 0);
    }
    bAllocated = true;
    return true;
}

void Decoder::MarkCovered(Component& c, uint32_t rows) {
    c.coveredRows = std::max(c.coveredRows, std::min(rows, c.height));
}

// Called between restart intervals: the bits left over are dropped, and the marker that follows
// must be RSTn. Anything else means the data broke off; that marker is kept for the main loop.
bool Decoder::Restart() {
    br.Reset();
    const int m = NextMarker();
    if (m < 0xD0 || m > 0xD7) {
        pendingMarker = m;
        return false;
    }
    for (size_t ci : scanComps) comps[ci].dcPred = 0;
    eobRun = 0;
    return true;
}

// One block of the current scan, by mode and pass. False on a code the tables don't know.
bool Decoder::DecodeBlock(Component& c, int16_t* block) {
    if (mode == Mode::kSequential) {
        const int s = c.dc->Decode(br);
        if (s < 0 || s > 16) return false;
        c.dcPred = int16_t(c.dcPred + Extend(br.Bits(s), s));
        block[0] = int16_t(c.dcPred);
        for (int k = 1; k < 64; ++k) {
            const int rs = c.ac->Decode(br);
            if (rs < 0) return false;
            const int r = rs >> 4, sz = rs & 15;
            if (sz) {
                k += r;
                // A run past the last coefficient lands on it, as the library does.
                block[kNaturalOrder[std::min(k, 63)]] = int16_t(Extend(br.Bits(sz), sz));
            } else {
                if (r != 15) break;
                k += 15;
            }
        }
        return true;
    }
    if (ss == 0) {  // DC scans, first or refining
        if (ah == 0) {
            const int s = c.dc->Decode(br);
            if (s < 0 || s > 16) return false;
            c.dcPred = int16_t(c.dcPred + Extend(br.Bits(s), s));
            block[0] = int16_t(uint32_t(c.dcPred) << al);
        } else if (br.Bits(1)) {
            block[0] = int16_t(block[0] | (1 << al));
        }
        return true;
    }
    if (ah == 0) {  // AC first pass
        if (eobRun > 0) {
            --eobRun;
            return true;
        }
        for (uint32_t k = ss; k <= se; ++k) {
            const int rs = c.ac->Decode(br);
            if (rs < 0) return false;
            const int r = rs >> 4, sz = rs & 15;
            if (sz) {
                k += r;
                block[kNaturalOrder[std::min(k, 63u)]] =
                    int16_t(uint32_t(Extend(br.Bits(sz), sz)) << al);
            } else if (r == 15) {
                k += 15;
            } else {
                eobRun = (1u << r) + br.Bits(r) - 1;
                break;
            }
        }
        return true;
    }
    // AC refinement: new coefficients of magnitude 1 << al, interleaved with correction bits
    // for the coefficients that are already non-zero.
    const int p1 = 1 << al, m1 = -p1;
    auto refine = [&](int16_t& coef) {
        if (br.Bits(1) && (coef & p1) == 0) coef = int16_t(coef >= 0 ? coef + p1 : coef + m1);
    };
    uint32_t k = ss;
    if (eobRun == 0) {
        for (; k <= se; ++k) {
            const int rs = c.ac->Decode(br);
            if (rs < 0) return false;
            int r = rs >> 4;
            const int sz = rs & 15;
            int value = 0;
            if (sz) {
                if (sz != 1) return false;  // a new coefficient is always +-1 at this bit
                value = br.Bits(1) ? p1 : m1;
            } else if (r != 15) {
                eobRun = 1u << r;
                if (r) eobRun += br.Bits(r);
                break;
            }
            // Skip r zero coefficients (refining the non-zero ones passed), then place value.
            for (; k <= se; ++k) {
                int16_t& coef = block[kNaturalOrder[k]];
                if (coef != 0) {
                    refine(coef);
                } else {
                    if (r == 0) break;
                    --r;
                }
            }
            if (value && k <= se) block[kNaturalOrder[k]] = int16_t(value);
        }
    }
    if (eobRun > 0) {
        for (; k <= se; ++k) {
            int16_t& coef = block[kNaturalOrder[k]];
            if (coef != 0) refine(coef);
        }
        --eobRun;
    }
    return true;
}

// One lossless sample at (x, y) of component `c`: the prediction from its decoded neighbours
// plus the coded difference, modulo 2^16. The first sample of a scan or restart interval is
// predicted from half the range, the rest of that first line from the left, the first column
// of later lines from above. Encoders end restart intervals at the end of a row of MCUs; one
// that ends inside a row starts its first line at the restart and goes on with the next row as
// an ordinary line.
bool Decoder::DecodeLosslessSample(Component& c, uint32_t x, uint32_t y) {
    const int s = c.dc->Decode(br);
    if (s < 0 || s > 16) return false;
    const int32_t diff = s == 16 ? 32768 : Extend(br.Bits(s), s);
    uint16_t* row = c.plane.data() + size_t(y) * c.gridW;
    const uint16_t* above = y > 0 ? row - c.gridW : row;
    int32_t pred;
    if (c.bFirstSample) {
        pred = 1 << (precision - al - 1);
        c.bFirstSample = false;
    } else if (y == c.intervalRow || y == 0) {
        // The first line of the scan or of a restart interval predicts from the left.
        pred = x > 0 ? row[x - 1] : y > 0 ? above[x] : 1 << (precision - al - 1);
    } else if (x == 0) {
        pred = above[x];  // first column: above
    } else {
        const int32_t ra = row[x - 1], rb = above[x], rc = above[x - 1];
        switch (ss) {
            case 1:
                pred = ra;
                break;
            case 2:
                pred = rb;
                break;
            case 3:
                pred = rc;
                break;
            case 4:
                pred = ra + rb - rc;
                break;
            case 5:
                pred = ra + ((rb - rc) >> 1);
                break;
            case 6:
                pred = rb + ((ra - rc) >> 1);
                break;
            default:
                pred = (ra + rb) >> 1;
                break;
        }
    }
    row[x] = uint16_t(pred + diff);
    return true;
}

bool Decoder::DecodeScan(const std::vector<uint8_t>& p, bool& complete) {
    complete = false;
    if (p.empty()) return false;
    const uint32_t n = p[0];
    if (n < 1 || n > 4 || p.size() != 1 + 2 * size_t(n) + 3) return false;
    scanComps.clear();
    for (uint32_t i = 0; i < n; ++i) {
        const uint8_t id = p[1 + 2 * i];
        size_t ci = 0;
        while (ci < comps.size() && comps[ci].id != id) ++ci;
        // A scan of a component the frame doesn't have, or of one twice.
        if (ci == comps.size()) return false;
        if (std::find(scanComps.begin(), scanComps.end(), ci) != scanComps.end()) return false;
        scanComps.push_back(ci);
        const uint8_t td = p[2 + 2 * i] >> 4, ta = p[2 + 2 * i] & 15;
        if (td > 3 || ta > 3) return false;
        comps[ci].dc = &dcTables[td];
        comps[ci].ac = &acTables[ta];
    }
    const size_t q = 1 + 2 * size_t(n);
    ss = p[q], se = p[q + 1], ah = p[q + 2] >> 4, al = p[q + 2] & 15;

    bool needDc = true, needAc = false;
    if (mode == Mode::kLossless) {
        // Ss is the predictor; 0 exists only in hierarchical frames.
        if (ss < 1 || ss > 7 || int(al) >= precision) return false;
    } else if (mode == Mode::kSequential) {
        needAc = true;
    } else {
        if (ah > 13 || al > 13) return false;
        if (ss == 0) {
            if (se != 0) return false;
            needDc = ah == 0;
        } else {
            // AC bands belong to one component at a time.
            if (se < ss || se > 63 || n != 1) return false;
            needDc = false, needAc = true;
        }
    }
    for (size_t ci : scanComps) {
        Component& c = comps[ci];
        if ((needDc && !c.dc->bDefined) || (needAc && !c.ac->bDefined)) return false;
        if (mode != Mode::kLossless && !c.bQuantTaken) {
            // The library takes a component's table when its first scan starts.
            if (!quantDefined[c.tq]) return false;
            c.quant = quantTables[c.tq];
            c.bQuantTaken = true;
        }
        c.dcPred = 0;
        c.pointTransform = al;
        c.intervalRow = 0;
        c.bFirstSample = true;
    }
    if (!bAllocated && !AllocateFrame()) return false;

    br.Reset();
    eobRun = 0;
    const bool dct = mode != Mode::kLossless;
    const uint32_t unit = dct ? 8 : 1;
    // A scan of one component runs over its own blocks (or samples) without MCU padding.
    uint32_t unitsX = mcusX, unitsY = mcusY;
    if (n == 1) {
        const Component& c = comps[scanComps[0]];
        unitsX = (c.width + unit - 1) / unit;
        unitsY = (c.height + unit - 1) / unit;
    }
    uint32_t mcu = 0;
    for (uint32_t my = 0; my < unitsY; ++my) {
        for (uint32_t mx = 0; mx < unitsX; ++mx, ++mcu) {
            if (restartInterval && mcu > 0 && mcu % restartInterval == 0) {
                if (!Restart()) return true;
                for (size_t ci : scanComps) {
                    comps[ci].intervalRow = n == 1 ? my : my * comps[ci].v;
                    comps[ci].bFirstSample = true;
                }
            }
            bool ok = true;
            if (n == 1) {
                Component& c = comps[scanComps[0]];
                ok = dct ? DecodeBlock(c, &c.coef[(size_t(my) * c.gridW + mx) * 64])
                         : DecodeLosslessSample(c, mx, my);
            } else {
                for (size_t ci : scanComps) {
                    Component& c = comps[ci];
                    for (uint32_t by = 0; by < c.v && ok; ++by)
                        for (uint32_t bx = 0; bx < c.h && ok; ++bx) {
                            const uint32_t x = mx * c.h + bx, y = my * c.v + by;
                            ok = dct ? DecodeBlock(c, &c.coef[(size_t(y) * c.gridW + x) * 64])
                                     : DecodeLosslessSample(c, x, y);
                        }
                }
            }
            // A bad code, or bits the file doesn't have: the scan ends here.
            if (!ok || br.Overrun()) return true;
        }
        for (size_t ci : scanComps) {
            Component& c = comps[ci];
            MarkCovered(c, (my + 1) * (n == 1 ? 1 : c.v) * unit);
        }
    }
    complete = true;
    return true;
}

bool Decoder::Run(RowSink& sink) {
    uint8_t soi[2];
    if (!in.Read(soi, 2) || soi[0] != 0xFF || soi[1] != 0xD8) return false;
    bool whole = false;
    bool broken = false;
    std::vector<uint8_t> payload;
    for (;;) {
        const int m = NextMarker();
        if (m < 0) break;  // the file ends without EOI
        if (m == 0xD9) {   // EOI
            whole = !broken;
            break;
        }
        if ((m >= 0xD0 && m <= 0xD7) || m == 0x01) continue;  // RSTn, TEM: no segment
        if (!ReadSegment(payload)) break;
        bool ok = true;
        switch (m) {
            case 0xC0:
            case 0xC1:
            case 0xC2:
            case 0xC3:
                ok = ParseFrame(uint8_t(m), payload);
                break;
            case 0xC4:
                ok = ParseHuffman(payload);
                break;
            case 0xDB:
                ok = ParseQuant(payload);
                break;
            case 0xDD:
                ok = payload.size() >= 2;
                restartInterval = ok ? (uint32_t(payload[0]) << 8) | payload[1] : 0;
                break;
            case 0xE0:
                if (payload.size() >= 5 && std::memcmp(payload.data(), "JFIF\0", 5) == 0)
                    bJfif = true;
                break;
            case 0xEE:
                if (payload.size() >= 12 && std::memcmp(payload.data(), "Adobe", 5) == 0) {
                    bAdobe = true;
                    adobeTransform = payload[11];
                }
                break;
            case 0xDA: {
                // More scans than any encoder writes: the picture stands as decoded so far.
                if (!bFrame || ++scanCount > kMaxScans) {
                    ok = false;
                    break;
                }
                bool complete = false;
                ok = DecodeScan(payload, complete);
                if (ok && !complete) broken = true;
                break;
            }
            default:
                // Arithmetic coding (DAC, SOF9..15) and hierarchical frames (DHP, EXP,
                // SOF5..7) are modes this decoder doesn't have.
                if (m == 0xCC || (m >= 0xC5 && m <= 0xCF) || m == 0xDE || m == 0xDF) ok = false;
                break;
        }
        if (!ok) {
            whole = false;
            break;
        }
    }
    if (!bAllocated) return false;
    if (!Emit(sink)) return false;
    return whole && ValidRows() == height;
}

// Rows of the picture that every component's scans have reached.
uint32_t Decoder::ValidRows() const {
    uint32_t rows = height;
    for (const Component& c : comps) {
        const uint32_t r =
            c.coveredRows >= c.height ? height : uint32_t(uint64_t(c.coveredRows) * vMax / c.v);
        rows = std::min(rows, r);
    }
    return rows;
}

// The colour space the library would assume for this frame.
Colour Decoder::ChooseColour() const {
    if (comps.size() == 1) return Colour::kGrey;
    if (comps.size() == 4) {
        if (bAdobe && adobeTransform != 0) return Colour::kYcck;
        return Colour::kCmyk;
    }
    if (bJfif) return Colour::kYCbCr;
    if (bAdobe) return adobeTransform == 0 ? Colour::kRgb : Colour::kYCbCr;
    if (comps[0].id == 'R' && comps[1].id == 'G' && comps[2].id == 'B') return Colour::kRgb;
    // Without a marker, lossless frames hold RGB (a colour transform would lose the lossless
    // property); DCT frames are taken as YCbCr.
    if (mode == Mode::kLossless) return Colour::kRgb;
    return Colour::kYCbCr;
}

void Decoder::InverseDctBand(uint32_t band) {
    for (size_t ci = 0; ci < comps.size(); ++ci) {
        Component& c = comps[ci];
        const size_t pitch = size_t(c.gridW) * 8;
        for (uint32_t by = band * c.v; by < (band + 1) * c.v; ++by) {
            uint16_t* rows = ring[ci].data() + size_t((by * 8) % ringRows[ci]) * pitch;
            for (uint32_t bx = 0; bx < c.gridW; ++bx)
                InverseDct(&c.coef[(size_t(by) * c.gridW + bx) * 64], c.quant.data(), precision,
                           rows + size_t(bx) * 8, pitch);
        }
    }
}

// Row `yc` of component `ci` at its own resolution, clamped to its real rows (the library
// repeats the last row below the picture).
const uint16_t* Decoder::ComponentRow(size_t ci, uint32_t yc) {
    Component& c = comps[ci];
    yc = std::min(yc, c.height - 1);
    if (mode != Mode::kLossless) return ring[ci].data() + size_t(yc % ringRows[ci]) * c.gridW * 8;
    const uint16_t* src = c.plane.data() + size_t(yc) * c.gridW;
    uint16_t* dst = compRow[ci].data();
    const uint32_t mask = (1u << precision) - 1;
    for (uint32_t x = 0; x < c.width; ++x)
        dst[x] = uint16_t((uint32_t(src[x]) << c.pointTransform) & mask);
    return dst;
}

// Row `y` of component `ci` brought to the picture's width.
const uint16_t* Decoder::UpsampledRow(size_t ci, uint32_t y) {
    const Component& c = comps[ci];
    const bool fancy = mode != Mode::kLossless && hMax == 2 * c.h &&
                       (vMax == c.v || vMax == 2 * c.v) && c.width >= 2;
    uint16_t* out = upRow[ci].data();
    if (fancy) {
        // The library's triangle filter: each output sample is 3/4 of the nearer and 1/4 of the
        // farther input sample, in each direction that is halved; the first and last columns
        // are taken from the real samples, not from the padding.
        const uint32_t w = c.width;
        uint32_t* sum = sumRow[ci].data();
        if (vMax == c.v) {
            const uint16_t* in = ComponentRow(ci, y);
            out[0] = in[0];
            out[1] = uint16_t((in[0] * 3u + in[1] + 2) >> 2);
            for (uint32_t i = 1; i + 1 < w; ++i) {
                const uint32_t v = in[i] * 3u;
                out[2 * i] = uint16_t((v + in[i - 1] + 1) >> 2);
                out[2 * i + 1] = uint16_t((v + in[i + 1] + 2) >> 2);
            }
            out[2 * w - 2] = uint16_t((in[w - 1] * 3u + in[w - 2] + 1) >> 2);
            out[2 * w - 1] = in[w - 1];
            return out;
        }
        const uint32_t yc = y / 2;
        const uint32_t yn = (y & 1) ? yc + 1 : (yc == 0 ? 0 : yc - 1);
        const uint16_t* near = ComponentRow(ci, yc);
        const uint16_t* far = ComponentRow(ci, yn);
        for (uint32_t i = 0; i < w; ++i) sum[i] = near[i] * 3u + far[i];
        out[0] = uint16_t((sum[0] * 4 + 8) >> 4);
        out[1] = uint16_t((sum[0] * 3 + sum[1] + 7) >> 4);
        for (uint32_t i = 1; i + 1 < w; ++i) {
            out[2 * i] = uint16_t((sum[i] * 3 + sum[i - 1] + 8) >> 4);
            out[2 * i + 1] = uint16_t((sum[i] * 3 + sum[i + 1] + 7) >> 4);
        }
        out[2 * w - 2] = uint16_t((sum[w - 1] * 3 + sum[w - 2] + 8) >> 4);
        out[2 * w - 1] = uint16_t((sum[w - 1] * 4 + 7) >> 4);
        return out;
    }
    const uint16_t* in = ComponentRow(ci, uint32_t(uint64_t(y) * c.v / vMax));
    if (c.h == hMax) return in;
    for (uint32_t x = 0; x < width; ++x) out[x] = in[uint64_t(x) * c.h / hMax];
    return out;
}

bool Decoder::Emit(RowSink& sink) {
    const Colour colour = ChooseColour();
    const uint32_t channels = uint32_t(comps.size());
    const uint32_t valid = ValidRows();
    if (!sink.Begin(width, height, channels, precision, mode == Mode::kLossless)) return false;
    const size_t n = comps.size();
    ring.assign(n, {});
    ringRows.assign(n, 0);
    compRow.assign(n, {});
    upRow.assign(n, {});
    sumRow.assign(n, {});
    for (size_t ci = 0; ci < n; ++ci) {
        const Component& c = comps[ci];
        const size_t pitch = size_t(c.gridW) * (mode == Mode::kLossless ? 1 : 8);
        compRow[ci].assign(pitch + 16, 0);
        if (mode != Mode::kLossless && hMax == 2 * c.h && vMax == 2 * c.v)
            sumRow[ci].assign(pitch + 16, 0);
        upRow[ci].assign(std::max<size_t>(width, 2 * size_t(c.width)) + 16, 0);
        if (mode != Mode::kLossless) {
            ringRows[ci] = 3 * 8 * c.v;
            ring[ci].assign(size_t(ringRows[ci]) * pitch, 0);
        }
    }
    std::vector<std::vector<uint16_t>> converted(n, std::vector<uint16_t>(width + 16));
    const int32_t maxv = (1 << precision) - 1, center = 1 << (precision - 1);
    const uint32_t bandRows = 8 * vMax;
    nextBand = 0;
    const uint16_t* rows[4] = {};
    uint16_t* outs[4] = {};
    for (size_t ci = 0; ci < n; ++ci) outs[ci] = converted[ci].data();
    for (uint32_t y = 0; y < valid; ++y) {
        if (mode != Mode::kLossless) {
            // The triangle filter looks one row into the band below.
            const uint32_t need = std::min(y / bandRows + 1, mcusY - 1);
            while (nextBand <= need) InverseDctBand(nextBand++);
        }
        for (size_t ci = 0; ci < n; ++ci) rows[ci] = UpsampledRow(ci, y);
        if (colour == Colour::kYCbCr || colour == Colour::kYcck) {
            // The library's fixed-point conversion (16 fraction bits), at the frame's precision.
            const uint16_t *yy = rows[0], *cb = rows[1], *cr = rows[2];
            const bool invert = colour == Colour::kYcck;
            for (uint32_t x = 0; x < width; ++x) {
                const int64_t l = yy[x], b = cb[x] - center, r = cr[x] - center;
                const int64_t rv = l + ((91881 * r + 32768) >> 16);
                const int64_t gv = l + ((-22554 * b - 46802 * r + 32768) >> 16);
                const int64_t bv = l + ((116130 * b + 32768) >> 16);
                const int64_t vals[3] = {rv, gv, bv};
                for (int k = 0; k < 3; ++k) {
                    const int32_t v = int32_t(std::clamp<int64_t>(vals[k], 0, maxv));
                    outs[k][x] = uint16_t(invert ? maxv - v : v);
                }
            }
            if (invert) std::memcpy(outs[3], rows[3], width * sizeof(uint16_t));
            sink.Row(y, outs);
        } else {
            sink.Row(y, rows);
        }
    }
    sink.Finish(valid);
    return true;
}

// ---------------------------------------------------------------------------------------------
// Sinks

// Into the viewer's picture: 8 bits a sample, by a table from the frame's precision.
class XDibSink final : public RowSink {
public:
    explicit XDibSink(XDib& target) : dib(target) {}

    bool Begin(uint32_t w, uint32_t h, uint32_t channels, int precision, bool) override {
        nChannels = channels;
        uint8_t ramp[256 * 4] = {};
        for (uint32_t i = 0; i < 256; ++i)
            ramp[4 * i] = ramp[4 * i + 1] = ramp[4 * i + 2] = uint8_t(i);
        const bool ok = channels == 1   ? dib.CreateDirty(w, h, 8, 256, ramp)
                        : channels == 3 ? dib.CreateDirty(w, h, 24)
                                        : dib.CreateDirty(w, h, 32);
        if (!ok) return false;
        // Above 8 bits: shift right, rounding to nearest, the top saturating at 255.
        // Below 8 bits: scaled up so that the largest value is 255.
        const uint32_t maxv = (1u << precision) - 1;
        table.resize(size_t(maxv) + 1);
        for (uint32_t v = 0; v <= maxv; ++v) {
            if (precision > 8) {
                const int s = precision - 8;
                table[v] = uint8_t(std::min<uint32_t>(255, (v + (1u << (s - 1))) >> s));
            } else {
                table[v] = uint8_t((v * 255 + maxv / 2) / maxv);
            }
        }
        return true;
    }
    void Row(uint32_t y, const uint16_t* const* ch) override {
        uint8_t* dst = dib.GetRow(y);
        const uint8_t* t = table.data();
        const uint32_t w = dib.nWidth;
        if (nChannels == 1) {
            for (uint32_t x = 0; x < w; ++x) dst[x] = t[ch[0][x]];
        } else if (nChannels == 3) {
            for (uint32_t x = 0; x < w; ++x, dst += 3)
                dst[0] = t[ch[2][x]], dst[1] = t[ch[1][x]], dst[2] = t[ch[0][x]];
        } else {
            for (uint32_t x = 0; x < w; ++x, dst += 4)
                for (int k = 0; k < 4; ++k) dst[k] = t[ch[k][x]];
        }
    }
    void Finish(uint32_t validRows) override {
        dib.ClearRows(validRows, dib.nHeight - validRows);
        if (nChannels == 4) ConvertCmykToBgr(dib);
        dib.bReduced = 0;
        dib.nOrigWidth = dib.nWidth;
        dib.nOrigHeight = dib.nHeight;
    }

private:
    XDib& dib;
    uint32_t nChannels = 0;
    std::vector<uint8_t> table;
};

// Into interleaved samples at full precision.
class SamplesSink final : public RowSink {
public:
    explicit SamplesSink(XJpegExtendedSamples& target) : out(target) {}

    bool Begin(uint32_t w, uint32_t h, uint32_t channels, int precision, bool lossless) override {
        out.nWidth = w, out.nHeight = h, out.nChannels = channels;
        out.nPrecision = uint32_t(precision);
        out.bLossless = lossless;
        out.samples.assign(size_t(w) * h * channels, 0);
        return true;
    }
    void Row(uint32_t y, const uint16_t* const* ch) override {
        uint16_t* dst = out.samples.data() + size_t(y) * out.nWidth * out.nChannels;
        for (uint32_t x = 0; x < out.nWidth; ++x)
            for (uint32_t k = 0; k < out.nChannels; ++k) *dst++ = ch[k][x];
    }
    void Finish(uint32_t validRows) override { out.nValidRows = validRows; }

private:
    XJpegExtendedSamples& out;
};

}  // namespace

bool DecodeJpegExtended(XDib& dib, IXDibIO& source) {
    dib.Destroy();
    try {
        source.Seek(0, 0);
        Decoder decoder(source);
        XDibSink sink(dib);
        return decoder.Run(sink);
    } catch (const std::bad_alloc&) {
        // The frame's buffers passed the ceilings but memory ran out: whatever rows were
        // written stay; a picture that was never created is no picture.
        return false;
    }
}

bool DecodeJpegExtendedSamples(IXDibIO& source, XJpegExtendedSamples& out) {
    out = XJpegExtendedSamples();
    try {
        source.Seek(0, 0);
        Decoder decoder(source);
        SamplesSink sink(out);
        return decoder.Run(sink);
    } catch (const std::bad_alloc&) {
        return false;
    }
}
