// JPEG through libjpeg-turbo: baseline, extended sequential, progressive and arithmetic-coded
// files of 8-bit samples, reduced by 2, 4 or 8 in the inverse transform when a smaller picture
// is asked for. Lossless files and samples of more than 8 bits go to DecodeJpegExtended.
//
// libjpeg reports fatal errors by calling a function that must not return. Here it longjmps
// back into Guarded(), and only frames of this file without destructors lie in between: the
// steps below hold plain values, every object with a destructor lives in DecodeJpeg's frame,
// above the jump.
#include <algorithm>
#include <array>
#include <csetjmp>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <vector>

// jpeglib.h expects size_t and FILE to be declared first.
#include <jpeglib.h>
// The message codes, after the library's types.
#include <jerror.h>

#include "image/bytes.h"
#include "image/cmyk.h"
#include "image/decoders.h"
#include "image/jpeg_markers.h"
#include "image/jpegmeta.h"
#include "image/limits.h"
#include "image/scale.h"
#include "image/xdib.h"
#include "image/xdibio.h"

namespace {

// The library reads the source through a buffer of this size.
constexpr uint32_t kInputBufferBytes = 16384;

using namespace jpeg_markers;
// Lossless processes other than the plain Huffman-coded one (differential or arithmetic).
bool IsOtherLossless(uint8_t marker) {
    return marker == 0xC7 || marker == 0xCB || marker == 0xCF;
}

// ---------------------------------------------------------------------------------------------
// The first frame header, found by walking the segments in front of it.

struct FrameProbe {
    bool found = false;
    uint8_t marker = 0;
    uint8_t precision = 0;
};

// Segments and fill bytes stepped over before the walk gives up and leaves the file to the
// library: a hostile file of a million empty comments costs no more than this.
constexpr int kMaxProbeSteps = 4096;

// Reads the frame header that precedes the first scan. Leaves the source at position 0.
FrameProbe ProbeFrame(IXDibIO& source) {
    FrameProbe probe;
    const int64_t size = source.GetSize();
    uint8_t b[5];
    source.Seek(0, 0);
    if (size >= 4 && source.Read(b, 2) && b[0] == 0xFF && b[1] == 0xD8) {
        int64_t pos = 2;
        for (int step = 0; step < kMaxProbeSteps && pos + 4 <= size; ++step) {
            source.Seek(pos, 0);
            if (!source.Read(b, 4) || b[0] != 0xFF) break;  // not at a marker
            const uint8_t marker = b[1];
            if (marker == 0xFF) {  // a fill byte in front of the marker
                ++pos;
                continue;
            }
            if (marker == 0x01 || (marker >= 0xD0 && marker <= 0xD8)) {  // no length
                pos += 2;
                continue;
            }
            if (marker == 0xD9 || marker == 0xDA) break;  // the end or a scan before any frame
            const uint32_t length = Be16(b + 2);
            if (length < 2) break;
            if (IsFrameMarker(marker)) {
                if (length >= 8 && source.Read(b, 1)) {
                    probe.found = true;
                    probe.marker = marker;
                    probe.precision = b[0];
                }
                break;
            }
            pos += 2 + int64_t(length);
        }
    }
    source.Seek(0, 0);
    return probe;
}

// ---------------------------------------------------------------------------------------------
// The library bridge: error manager, source manager, one decompressor per thread.

struct ErrorBridge {
    jpeg_error_mgr pub;  // first, so that the library's pointer is ours
    jmp_buf jump;
};

struct SourceBridge {
    jpeg_source_mgr pub;  // first, likewise
    IXDibIO* io = nullptr;
    bool bWholeBlock = false;  // the library reads a memory source's block in place
    bool bFakeEoi = false;     // the source ran out and an EOI marker was made up
    JOCTET buffer[kInputBufferBytes];
};

// Progressive files with more scans than this are refused: each scan is a pass over every
// block, so a small hostile file of thousands of tiny scans would keep a cache thread busy for
// minutes. Encoders write about ten.
constexpr int kMaxScans = 500;

// The coefficients of a multi-scan picture take 2 bytes a sample for the whole picture, also
// when a reduced one is delivered; one at the largest picture storage needs at most twice it.
constexpr long kMaxLibraryMemory = long(2 * kMaxPictureBytes);

struct Decompressor {
    jpeg_decompress_struct cinfo{};
    ErrorBridge err{};
    SourceBridge src{};
    jpeg_progress_mgr progress{};
    bool bReady = false;
    // Set by a "premature end of data segment" warning after the source ran out: the scan
    // itself was cut short, not just the file's tail.
    bool bTruncated = false;
    std::vector<JSAMPROW> rows;  // one pointer per output row, kept between decodes

    Decompressor();
    ~Decompressor() {
        if (bReady) jpeg_destroy_decompress(&cinfo);
    }
    Decompressor(const Decompressor&) = delete;
    Decompressor& operator=(const Decompressor&) = delete;
};

Decompressor& Owner(j_common_ptr cinfo) {
    return *static_cast<Decompressor*>(cinfo->client_data);
}

[[noreturn]] void ErrorExit(j_common_ptr cinfo) {
    std::longjmp(reinterpret_cast<ErrorBridge*>(cinfo->err)->jump, 1);
}

// Messages are muted; one warning matters: data that ran out inside a scan.
void EmitMessage(j_common_ptr cinfo, int level) {
    if (level >= 0) return;
    Decompressor& d = Owner(cinfo);
    if (cinfo->err->msg_code == JWRN_HIT_MARKER && d.src.bFakeEoi) d.bTruncated = true;
}

void OutputMessage(j_common_ptr) {}

void InitSource(j_decompress_ptr) {}
void TermSource(j_decompress_ptr) {}

boolean FillInput(j_decompress_ptr cinfo) {
    auto& s = *reinterpret_cast<SourceBridge*>(cinfo->src);
    const int64_t left = s.bWholeBlock ? 0 : s.io->GetSize() - s.io->Tell();
    const uint32_t n = left > 0 ? uint32_t(std::min<int64_t>(left, kInputBufferBytes)) : 0;
    if (n > 0 && s.io->Read(s.buffer, n)) {
        s.pub.next_input_byte = s.buffer;
        s.pub.bytes_in_buffer = n;
        return TRUE;
    }
    // The file ended: a made-up EOI lets the library finish with what it has (the rest of
    // the scan decodes as blank, and the caller stops at the first row that needed it).
    s.bFakeEoi = true;
    s.buffer[0] = 0xFF;
    s.buffer[1] = JPEG_EOI;
    s.pub.next_input_byte = s.buffer;
    s.pub.bytes_in_buffer = 2;
    return TRUE;
}

void SkipInput(j_decompress_ptr cinfo, long count) {
    auto& s = *reinterpret_cast<SourceBridge*>(cinfo->src);
    if (count <= 0) return;
    if (size_t(count) <= s.pub.bytes_in_buffer) {
        s.pub.next_input_byte += count;
        s.pub.bytes_in_buffer -= size_t(count);
        return;
    }
    const int64_t beyond = count - int64_t(s.pub.bytes_in_buffer);
    s.pub.bytes_in_buffer = 0;
    if (s.bWholeBlock) return;  // past the block's end: the next fill ends it
    // A segment length that points past the end: go to the end, and the next fill ends it.
    const int64_t left = s.io->GetSize() - s.io->Tell();
    if (beyond >= left)
        s.io->Seek(0, 2);
    else
        s.io->Seek(beyond, 1);
}

void ProgressMonitor(j_common_ptr cinfo) {
    auto* dinfo = reinterpret_cast<j_decompress_ptr>(cinfo);
    if (dinfo->input_scan_number > kMaxScans) ErrorExit(cinfo);
}

using Step = void (*)(Decompressor&);

// Runs one step of the library; false when the library reported a fatal error.
bool Guarded(Decompressor& d, Step step) {
    if (setjmp(d.err.jump) != 0) return false;
    step(d);
    return true;
}

Decompressor::Decompressor() {
    cinfo.err = jpeg_std_error(&err.pub);
    err.pub.error_exit = ErrorExit;
    err.pub.emit_message = EmitMessage;
    err.pub.output_message = OutputMessage;
    cinfo.client_data = this;
    bReady = Guarded(*this, [](Decompressor& d) { jpeg_create_decompress(&d.cinfo); });
    if (!bReady) return;
    src.pub.init_source = InitSource;
    src.pub.fill_input_buffer = FillInput;
    src.pub.skip_input_data = SkipInput;
    src.pub.resync_to_restart = jpeg_resync_to_restart;
    src.pub.term_source = TermSource;
    cinfo.src = &src.pub;
    progress.progress_monitor = ProgressMonitor;
}

// One per decoding thread: creating the library's master record and the input buffer is paid
// once, not per picture.
Decompressor* ThreadDecompressor() {
    thread_local std::unique_ptr<Decompressor> decompressor;
    if (!decompressor) {
        decompressor = std::make_unique<Decompressor>();
        if (!decompressor->bReady) decompressor.reset();
    }
    return decompressor.get();
}

void StepReadHeader(Decompressor& d) {
    jpeg_read_header(&d.cinfo, TRUE);
}
void StepCalcOutput(Decompressor& d) {
    jpeg_calc_output_dimensions(&d.cinfo);
}
void StepStart(Decompressor& d) {
    jpeg_start_decompress(&d.cinfo);
}
// Reads rows until the picture is done or a single scan ran out of data; output_scanline
// tells how far it got, also after an error.
void StepReadRows(Decompressor& d) {
    j_decompress_ptr cinfo = &d.cinfo;
    // A multi-scan file was read whole before the first row: a cut there only blurs the
    // picture, every row still comes out.
    const bool single = !jpeg_has_multiple_scans(cinfo);
    while (cinfo->output_scanline < cinfo->output_height) {
        const JDIMENSION done = cinfo->output_scanline;
        if (jpeg_read_scanlines(cinfo, d.rows.data() + done, cinfo->output_height - done) == 0)
            break;
        if (single && d.bTruncated) break;
    }
}

// The least a file holding `blocks` coded blocks can take: Huffman coding spends at least one
// bit on each block's DC difference in some scan. Arithmetic coding has no such floor (a
// blank page can cost almost nothing), so it gets a bound no encoder comes near.
uint64_t MinimumCodedBytes(uint64_t blocks, bool arithmetic) {
    return arithmetic ? blocks / 8192 : blocks / 8;
}

const uint8_t* GreyRamp() {
    static const auto ramp = [] {
        std::array<uint8_t, 1024> quads{};
        for (uint32_t i = 0; i < 256; ++i)
            quads[4 * i] = quads[4 * i + 1] = quads[4 * i + 2] = uint8_t(i);
        return quads;
    }();
    return ramp.data();
}

// Decodes an 8-bit file through the library into `dib`. `allowScale`: baseline and
// progressive files only.
bool DecodeWithLibrary(Decompressor& d, XDib& dib, IXDibIO& source, bool allowScale,
                       const XDibScaleRequest* scaleRequest, bool& routeToExtended) {
    j_decompress_ptr cinfo = &d.cinfo;
    d.src.io = &source;
    d.src.bFakeEoi = false;
    d.src.pub.next_input_byte = nullptr;
    d.src.pub.bytes_in_buffer = 0;
    // A memory source is handed over whole. Going through the buffer would cost more than the
    // copy: the library's fast entropy decoder needs 512 bytes for each block of an MCU ahead
    // of it in the buffer and takes its slow path over the last few kilobytes of every fill,
    // a fifth of a 16 KB buffer.
    const auto* memory = dynamic_cast<const CXDibMemIO*>(&source);
    const int64_t left = source.GetSize() - source.Tell();
    d.src.bWholeBlock = memory && memory->Data() && left > 0;
    if (d.src.bWholeBlock) {
        d.src.pub.next_input_byte = memory->Data() + source.Tell();
        d.src.pub.bytes_in_buffer = size_t(left);
    }
    d.bTruncated = false;
    cinfo->progress = nullptr;

    if (!Guarded(d, StepReadHeader)) {
        // Files the walk couldn't see into: the library names the modes it doesn't decode.
        const int code = cinfo->err->msg_code;
        routeToExtended = code == JERR_BAD_PRECISION || (code == JERR_SOF_UNSUPPORTED &&
                                                         cinfo->err->msg_parm.i[0] == kSofLossless);
        jpeg_abort_decompress(cinfo);
        return false;
    }

    const uint32_t width = cinfo->image_width, height = cinfo->image_height;
    uint32_t bpp;
    switch (cinfo->num_components) {
        case 1:
            cinfo->out_color_space = JCS_GRAYSCALE;
            bpp = 8;
            break;
        case 3:
            cinfo->out_color_space = JCS_EXT_BGR;
            bpp = 24;
            break;
        case 4:  // CMYK as stored, YCCK turned into it by the library
            cinfo->out_color_space = JCS_CMYK;
            bpp = 32;
            break;
        default:
            jpeg_abort_decompress(cinfo);
            return false;
    }

    // A frame header claiming 60000 x 60000 pixels in a file of a few kilobytes: refused before
    // the library or the picture allocate anything for it. A multi-scan file must hold at
    // least its first scan: the library keeps every coefficient (128 bytes a block) before the
    // first row comes out, and a file too short for even that would pin them for a blank page.
    uint64_t blocks = 0;
    for (int c = 0; c < cinfo->num_components; ++c)
        blocks +=
            uint64_t(cinfo->comp_info[c].width_in_blocks) * cinfo->comp_info[c].height_in_blocks;
    const uint64_t leastBytes = MinimumCodedBytes(blocks, cinfo->arith_code);
    const bool multiScan = jpeg_has_multiple_scans(cinfo);
    if (multiScan ? leastBytes > uint64_t(std::max<int64_t>(source.GetSize(), 0))
                  : !RawBodyPlausible(leastBytes, source.GetSize())) {
        jpeg_abort_decompress(cinfo);
        return false;
    }

    const uint32_t s = allowScale ? ChooseScale(width, height, scaleRequest) : 1;
    cinfo->scale_num = 1;
    cinfo->scale_denom = s;
    // The same transform and upsampling as the library's own defaults, set again in case the
    // library's defaults ever change: the benchmark compares against them.
    cinfo->dct_method = JDCT_ISLOW;
    cinfo->do_fancy_upsampling = TRUE;
    cinfo->mem->max_memory_to_use = kMaxLibraryMemory;
    if (multiScan) cinfo->progress = &d.progress;
    if (!Guarded(d, StepCalcOutput)) {
        jpeg_abort_decompress(cinfo);
        return false;
    }

    // The width is cut and the height rounded up; the library rounds both up, so its rows may
    // be one pixel wider than ours. They are written straight into the picture: the extra
    // pixel lands on the next row's first pixel, which is written after it, or in the slack
    // behind the last row.
    const uint32_t w = std::max(1u, width / s);
    const uint32_t h = (height + s - 1) / s;
    if (cinfo->output_height != h || (cinfo->output_width != w && cinfo->output_width != w + 1) ||
        !dib.CreateDirty(w, h, bpp, bpp == 8 ? 256 : 0, bpp == 8 ? GreyRamp() : nullptr)) {
        jpeg_abort_decompress(cinfo);
        return false;
    }
    dib.bReduced = s > 1;
    dib.nOrigWidth = width;
    dib.nOrigHeight = height;

    d.rows.resize(h);
    for (uint32_t y = 0; y < h; ++y) d.rows[y] = dib.GetRow(y);

    const bool started = Guarded(d, StepStart);
    const bool read = started && Guarded(d, StepReadRows);
    const uint32_t done = started ? cinfo->output_scanline : 0;
    jpeg_abort_decompress(cinfo);
    if (done == 0) {
        dib.Destroy();  // nothing decoded: no picture rather than a blank one
        return false;
    }
    if (done < h) dib.ClearRows(done, h - done);
    if (bpp == 32) ConvertCmykToBgr(dib);
    // A single scan that ran out before it needed more data was whole and only lacked its
    // EOI. A multi-scan file cut between two scans (or inside the tables of the next) looks
    // complete to the library, so there only the file's own EOI proves the end.
    const bool cut = d.bTruncated || (multiScan && d.src.bFakeEoi);
    return read && done == h && !cut;
}

}  // namespace

bool DecodeJpeg(XDib& dib, IXDibIO& source, CJPEGMetaData* meta,
                const XDibScaleRequest* scaleRequest) {
    dib.Destroy();
    if (meta) meta->Read(source);

    const FrameProbe frame = ProbeFrame(source);
    bool routeToExtended = false;
    if (frame.found) {
        if (IsOtherLossless(frame.marker)) return false;
        routeToExtended = frame.marker == kSofLossless || frame.precision != 8;
    }
    if (!routeToExtended) {
        Decompressor* d = ThreadDecompressor();
        if (!d) return false;
        const bool allowScale =
            frame.found && (frame.marker == kSofBaseline || frame.marker == kSofProgressive);
        const bool whole =
            DecodeWithLibrary(*d, dib, source, allowScale, scaleRequest, routeToExtended);
        d->src.io = nullptr;
        if (!routeToExtended) return whole;
        source.Seek(0, 0);
    }
    const bool whole = DecodeJpegExtended(dib, source);
    if (!dib.IsEmpty() && dib.nOrigWidth == 0) {
        dib.nOrigWidth = dib.nWidth;
        dib.nOrigHeight = dib.nHeight;
    }
    return whole;
}
