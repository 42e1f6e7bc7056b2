// GIF, decoded by our own code. Every frame becomes a 32-bit picture of the logical screen's
// size, already composed over the frame before it, so that playing an animation is only showing
// frame after frame.
//
// Some behaviour here is kept on purpose although other readers do otherwise:
//  - the control block that comes before a frame decides how *that* frame starts (copy of the
//    previous frame, background fill or nothing), not the control block of the frame before;
//  - a local palette's size is 2 << (flags & 15): the reserved bit 3 widens it, and such a
//    table is read past, with its first 256 entries kept;
//  - a comment is one sub-block: a second one fails the frame;
//  - a palette entry that no palette defines is opaque white.
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "image/bytes.h"
#include "image/decoders.h"
#include "image/format.h"
#include "image/limits.h"
#include "image/xanimdib.h"
#include "image/xdib.h"
#include "image/xdibio.h"

namespace {

constexpr uint32_t kCodeLimit = 4096;  // codes have at most 12 bits
constexpr uint32_t kMaxCodeBits = 12;
constexpr uint32_t kDefaultDelayMs = 100;  // a delay of 0, or no control block at all
constexpr uint32_t kWhite = 0xFFFFFFFF;    // B, G, R, A all 255: the undefined entry
constexpr int kBadMinimumCodeSize = -20;
constexpr int kRowOutsideCanvas = -1;

// Palette entries are kept as the four bytes B, G, R, A of a 32-bit pixel, so a pixel is one
// store; the word is only ever copied, never taken apart, whatever the byte order.
using GifPalette = std::array<uint32_t, 256>;

uint32_t PaletteEntry(const uint8_t* rgb) {
    const uint8_t bgra[4] = {rgb[2], rgb[1], rgb[0], 255};
    uint32_t word;
    std::memcpy(&word, bgra, 4);
    return word;
}

// An entry as a colour 0x00BBGGRR, for XDib::Fill and clrBackground.
uint32_t EntryColour(uint32_t entry) {
    uint8_t bgra[4];
    std::memcpy(bgra, &entry, 4);
    return uint32_t(bgra[2]) | (uint32_t(bgra[1]) << 8) | (uint32_t(bgra[0]) << 16);
}

// Reads `count` palette entries of three bytes into `palette`, keeping the first 256; the rest
// are read past. False when the file ends first.
bool ReadPalette(XByteReader& in, uint32_t count, GifPalette& palette) {
    uint8_t rgb[3];
    for (uint32_t i = 0; i < count; ++i) {
        if (!in.Read(rgb, 3)) return false;
        if (i < palette.size()) palette[i] = PaletteEntry(rgb);
    }
    return true;
}

bool Skip(XByteReader& in, uint32_t count) {
    uint8_t scratch[256];
    while (count > 0) {
        const uint32_t n = std::min<uint32_t>(count, sizeof(scratch));
        if (!in.Read(scratch, n)) return false;
        count -= n;
    }
    return true;
}

// Where the rows of one frame go on the canvas, and what they are made of.
class GifRowWriter {
public:
    GifRowWriter(XDib& canvas, int32_t left, int32_t top, uint32_t height, bool interlaced,
                 int32_t transparent, const GifPalette& palette)
        : dib(canvas),
          nLeft(left),
          nTop(top),
          nBottom(int64_t(top) + height),
          bInterlaced(interlaced),
          nTransparent(transparent),
          pal(palette),
          nRow(top) {}

    // Writes `count` indices at (nLeft, nRow), leaving the pixels of the transparent index as
    // the frame started. A row that doesn't lie wholly on the canvas fails the frame: that is
    // how a frame reaching beyond the logical screen ends.
    bool WriteRow(const uint8_t* indices, uint32_t count) {
        if (nRow < 0 || nRow >= int64_t(dib.nHeight) || nLeft < 0 ||
            int64_t(nLeft) + count > int64_t(dib.nWidth))
            return false;
        uint8_t* dst = dib.GetRow(uint32_t(nRow)) + size_t(nLeft) * 4;
        if (nTransparent < 0) {
            for (uint32_t x = 0; x < count; ++x) std::memcpy(dst + 4 * x, &pal[indices[x]], 4);
        } else {
            for (uint32_t x = 0; x < count; ++x)
                if (indices[x] != nTransparent) std::memcpy(dst + 4 * x, &pal[indices[x]], 4);
        }
        Advance();
        return true;
    }

private:
    // Interlaced frames store every 8th row from the top, every 8th from top + 4, every 4th
    // from top + 2, then every 2nd from top + 1. Rows past the last pass (more data than the
    // frame holds) go on down the canvas until they leave it.
    void Advance() {
        static constexpr uint8_t kStart[4] = {0, 4, 2, 1};
        static constexpr uint8_t kStep[4] = {8, 8, 4, 2};
        if (!bInterlaced) {
            ++nRow;
            return;
        }
        nRow += kStep[nPass];
        while (nRow >= nBottom && nPass < 3) {
            ++nPass;
            nRow = int64_t(nTop) + kStart[nPass];
        }
    }

    XDib& dib;
    const int32_t nLeft;
    const int32_t nTop;
    const int64_t nBottom;
    const bool bInterlaced;
    const int32_t nTransparent;  // -1 for none
    const GifPalette& pal;
    int64_t nRow;
    int nPass = 0;
};

// The state of one LZW run and the buffers it works in, kept for every frame of a file.
class GifLzw {
public:
    // Decodes one frame's image data into rows of `width` pixels. Running out of data ends the
    // decode quietly with the rows written so far; the end code writes a partial row. Negative
    // results fail the frame.
    int Decode(XByteReader& in, uint32_t width, GifRowWriter& rows) {
        bTerminatorSeen = false;
        bDataEnded = false;
        nBlockLen = nBlockPos = 0;
        nBitBuffer = nBitsLeft = 0;
        nBadCodes = 0;

        uint8_t minimum = 0;
        if (!in.Byte(minimum)) return 0;
        if (minimum < 2 || minimum > 9) return kBadMinimumCodeSize;
        nClearCode = 1u << minimum;
        nEndCode = nClearCode + 1;
        nFirstFree = nClearCode + 2;
        // Literals stand for themselves; with a minimum of 9 those above 255 keep their low byte.
        for (uint32_t i = 0; i < nClearCode; ++i) prefix[i] = 0, suffix[i] = uint8_t(i);
        row.resize(width);
        uint32_t pos = 0;  // pixels in the row buffer

        Reset(minimum);
        bool first = true;  // the next code is the first after a clear (or the first of all)
        uint32_t old = 0;
        for (;;) {
            uint32_t code;
            if (!NextCode(in, code)) return 0;
            if (code == nClearCode) {
                Reset(minimum);
                first = true;
                continue;
            }
            if (code == nEndCode) {
                if (pos > 0 && !rows.WriteRow(row.data(), pos)) return kRowOutsideCanvas;
                return 0;
            }
            uint32_t sp = 0;
            if (first) {
                // A first code naming a string not yet defined can only be damage: it is
                // taken as colour 0.
                if (code >= nNextFree) code = 0;
                nFirstChar = suffix[code];
                stack[sp++] = nFirstChar;
                old = code;
                first = false;
            } else {
                uint32_t walk = code;
                if (code >= nNextFree) {
                    // The string being defined right now: the previous one plus its own first
                    // byte. A code beyond even that is counted and read the same way, which
                    // keeps every table entry pointing below itself.
                    if (code > nNextFree) ++nBadCodes;
                    stack[sp++] = nFirstChar;
                    walk = old;
                    code = nNextFree;
                }
                // Every entry's prefix lies below the entry, so the walk ends within 4096 steps,
                // and no string is longer than the stack.
                while (walk >= nFirstFree) {
                    stack[sp++] = suffix[walk];
                    walk = prefix[walk];
                }
                stack[sp++] = suffix[walk];
                nFirstChar = suffix[walk];
                if (nNextFree < kCodeLimit) {
                    prefix[nNextFree] = uint16_t(old);
                    suffix[nNextFree] = nFirstChar;
                    ++nNextFree;
                    if (nNextFree >= nMaxCode && nCodeSize < kMaxCodeBits) {
                        ++nCodeSize;
                        nMaxCode <<= 1;
                    }
                }
                old = code;
            }
            // The stack holds the string last byte first.
            if (width == 0) continue;  // a frame without columns places no pixel
            while (sp > 0) {
                const uint32_t n = std::min(sp, width - pos);
                for (uint32_t k = 0; k < n; ++k) row[pos + k] = stack[sp - 1 - k];
                sp -= n, pos += n;
                if (pos == width) {
                    if (!rows.WriteRow(row.data(), pos)) return kRowOutsideCanvas;
                    pos = 0;
                }
            }
        }
    }

    // The zero-length sub-block that closes the image data was read by the decode itself (the
    // codes ended without an end code); it then doesn't have to be read again.
    bool TerminatorSeen() const { return bTerminatorSeen; }

private:
    void Reset(uint32_t minimum) {
        nCodeSize = minimum + 1;
        nMaxCode = 1u << nCodeSize;
        nNextFree = nFirstFree;
    }

    // The next code, least significant bit first, from sub-blocks read as they come.
    bool NextCode(XByteReader& in, uint32_t& code) {
        while (nBitsLeft < nCodeSize) {
            if (nBlockPos == nBlockLen && !NextBlock(in)) return false;
            nBitBuffer |= uint32_t(block[nBlockPos++]) << nBitsLeft;
            nBitsLeft += 8;
        }
        code = nBitBuffer & (nMaxCode - 1);
        nBitBuffer >>= nCodeSize;
        nBitsLeft -= nCodeSize;
        return true;
    }

    // Reads a whole sub-block, so that bytes after the end code in the last one are passed over.
    // A block cut short by the end of the file is used as far as it goes.
    bool NextBlock(XByteReader& in) {
        if (bDataEnded) return false;
        uint8_t size = 0;
        if (!in.Byte(size)) {
            bDataEnded = true;
            return false;
        }
        if (size == 0) {
            bTerminatorSeen = bDataEnded = true;
            return false;
        }
        uint32_t n = 0;
        while (n < size && in.Byte(block[n])) ++n;
        nBlockLen = n;
        nBlockPos = 0;
        return n > 0;
    }

    // The bit reader.
    uint32_t nBlockLen = 0;
    uint32_t nBlockPos = 0;
    uint32_t nBitsLeft = 0;
    uint32_t nBitBuffer = 0;
    bool bDataEnded = false;
    bool bTerminatorSeen = false;
    uint8_t block[255];
    // The code table.
    uint32_t nCodeSize = 0;
    uint32_t nClearCode = 0;
    uint32_t nEndCode = 0;
    uint32_t nFirstFree = 0;
    uint32_t nNextFree = 0;
    uint32_t nMaxCode = 0;
    uint32_t nBadCodes = 0;  // codes above the one being defined; counted, read as that one
    uint8_t nFirstChar = 0;
    uint16_t prefix[kCodeLimit];
    uint8_t suffix[kCodeLimit];
    uint8_t stack[kCodeLimit];
    std::vector<uint8_t> row;  // one frame row of indices
};

// What the frames of a file share: the reader, the logical screen, the global palette, the
// last graphic control block, and the LZW tables.
struct GifFile {
    explicit GifFile(IXDibIO& source) : in(source) {}

    // The 13 header bytes and the global palette.
    bool ReadHeader() {
        uint8_t header[13];
        if (!in.Read(header, sizeof(header))) return false;
        if (std::memcmp(header, "GIF89a", 6) != 0 && std::memcmp(header, "GIF87a", 6) != 0)
            return false;
        nScreenWidth = Le16(header + 6);
        nScreenHeight = Le16(header + 8);
        nBackground = header[11];
        // A screen of 65535 x 65535 claims 16 GiB: refused here, before anything is allocated
        // or any byte of image data is read.
        nFrameBytes = uint64_t(XDibStride(nScreenWidth, 32)) * nScreenHeight;
        if (nFrameBytes > kMaxPictureBytes) return false;
        global.fill(kWhite);
        if (header[10] & 0x80) return ReadPalette(in, 2u << (header[10] & 7), global);
        return true;
    }

    XByteReader in;
    uint32_t nScreenWidth = 0;
    uint32_t nScreenHeight = 0;
    uint8_t nBackground = 0;
    uint64_t nFrameBytes = 0;  // the storage of one frame: every frame is the whole screen
    GifPalette global;         // all white without a global palette
    // The last graphic control block (size, flags, delay, transparent index, terminator). It
    // holds for every later frame until the next one.
    uint8_t control[6] = {};
    GifLzw lzw;
};

enum class GifStep { Frame, End, Fail };

// Reads up to and including the next image and composes it over `previous` into `dib`.
// `delay` comes in at 100 ms and is set by a control block with a non-zero delay. A frame that
// would take more than `budget` bytes fails before it is made. On failure after the picture was
// made, `dib` holds what was decoded.
GifStep DecodeNext(GifFile& gif, const XDib* previous, XDib& dib, uint32_t& delay,
                   uint64_t budget) {
    XByteReader& in = gif.in;
    for (;;) {
        uint8_t marker = 0;
        if (!in.Byte(marker)) return GifStep::Fail;
        if (marker == 0x3B) return GifStep::End;
        if (marker == 0x2C) break;
        uint8_t label = 0;
        if (marker != 0x21 || !in.Byte(label)) return GifStep::Fail;
        if (label == 0xF9) {
            uint8_t control[6];
            if (!in.Read(control, 6) || control[0] != 4 || control[5] != 0) return GifStep::Fail;
            std::memcpy(gif.control, control, 6);
            if (const uint32_t d = Le16(control + 2)) delay = d * 10;
        } else if (label == 0xFE) {
            // One sub-block and its terminator: a comment of two sub-blocks fails the frame.
            uint8_t size = 0, terminator = 1;
            if (!in.Byte(size) || !Skip(in, size) || !in.Byte(terminator) || terminator != 0)
                return GifStep::Fail;
        } else if (label == 0xFF) {
            uint8_t application[12];
            if (!in.Read(application, 12) || application[0] != 11) return GifStep::Fail;
            for (uint8_t size = 1; size != 0;)
                if (!in.Byte(size) || !Skip(in, size)) return GifStep::Fail;
        } else {
            return GifStep::Fail;  // plain text and labels we don't know
        }
    }

    uint8_t header[9];
    if (!in.Read(header, sizeof(header))) return GifStep::Fail;
    const int32_t left = int16_t(Le16(header));
    const int32_t top = int16_t(Le16(header + 2));
    const uint32_t width = Le16(header + 4);
    const uint32_t height = Le16(header + 6);
    const uint8_t flags = header[8];
    // A frame's own size allocates nothing but one row of indices (at most 64 KB): a frame of
    // 65535 x 1321 inside a 32 x 32 screen fails at its first row.
    GifPalette local;
    const GifPalette* palette = &gif.global;
    if (flags & 0x80) {
        local.fill(kWhite);
        if (!ReadPalette(in, 2u << (flags & 15), local)) return GifStep::Fail;
        palette = &local;
    }

    if (previous && previous->nBpp != 32) return GifStep::Fail;
    // An animation of 300 frames of 1000 x 1000 would take 1.2 GB: the frames stop where their
    // sum would pass the ceiling of one picture.
    if (gif.nFrameBytes > budget) return GifStep::Fail;
    const bool transparent = gif.control[1] & 1;
    const uint32_t disposal = (gif.control[1] >> 2) & 7;
    // The new frame's own control block decides how it starts.
    const bool copyPrevious = previous && (disposal <= 1 || disposal == 3);
    const bool fillBackground = disposal == 2;
    const bool previousCovers = copyPrevious && previous->nWidth == gif.nScreenWidth &&
                                previous->nHeight == gif.nScreenHeight;
    const bool written = previousCovers || fillBackground || transparent;
    if (!(written ? dib.CreateDirty(gif.nScreenWidth, gif.nScreenHeight, 32)
                  : dib.Create(gif.nScreenWidth, gif.nScreenHeight, 32)))
        return GifStep::Fail;
    dib.nFormat = FORMAT_GIF;

    int32_t transparentIndex = -1;
    if (transparent) {
        transparentIndex = gif.control[4];
        const uint32_t colour = EntryColour((*palette)[transparentIndex]);
        dib.clrTransparent = uint32_t(transparentIndex);
        dib.clrBackground = colour;
        // The fill is not needed where the previous frame or the background covers it all.
        if (!previousCovers && !fillBackground) dib.Fill(colour, 0);
    }
    if (copyPrevious) {
        previous->Blit(dib, 0, 0);
    } else if (fillBackground) {
        dib.Fill(EntryColour((*palette)[gif.nBackground]), 0);
    }

    GifRowWriter rows(dib, left, top, height, (flags & 0x40) != 0, transparentIndex, *palette);
    if (gif.lzw.Decode(in, width, rows) < 0) return GifStep::Fail;
    if (gif.lzw.TerminatorSeen()) return GifStep::Frame;
    uint8_t terminator = 1;
    if (!in.Byte(terminator) || terminator != 0) return GifStep::Fail;
    return GifStep::Frame;
}

}  // namespace

bool DecodeGifFirst(XDib& dib, IXDibIO& source) {
    dib.Destroy();
    source.Seek(0, 0);
    const auto gif = std::make_unique<GifFile>(source);
    if (!gif->ReadHeader()) return false;
    uint32_t delay = kDefaultDelayMs;
    if (DecodeNext(*gif, nullptr, dib, delay, kMaxPictureBytes) == GifStep::Frame) return true;
    // A partial picture stays to be shown, but isn't reported as a decoded GIF.
    dib.nFormat = 0;
    return false;
}

bool LoadGifFrames(XAnimDib& anim, IXDibIO& source) {
    anim.Clear();
    source.Seek(0, 0);
    const auto gif = std::make_unique<GifFile>(source);
    if (!gif->ReadHeader()) return false;
    uint64_t total = 0;
    for (;;) {
        auto dib = std::make_unique<XDib>();
        dib->pColorMan = anim.pColorMan;
        uint32_t delay = kDefaultDelayMs;
        const GifStep step = DecodeNext(*gif, anim.pLastDib, *dib, delay, kMaxPictureBytes - total);
        if (step == GifStep::End) return true;
        // A frame that failed after its picture was made is kept as it stands.
        if (dib->IsEmpty()) return false;
        total += gif->nFrameBytes;
        anim.pLastDib = dib.get();
        anim.frames.push_back(XAnimFrame{std::move(dib), delay});
        if (step == GifStep::Fail) return false;
    }
}
