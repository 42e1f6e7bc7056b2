// The decoder behind DecodeJpegExtended, stopped before samples are brought to 8 bits: the
// picture at the precision of its frame, after upsampling and colour conversion. Tests compare
// this with what reference decoders give; the viewer itself only uses DecodeJpegExtended.
#pragma once

#include <cstdint>
#include <vector>

class IXDibIO;

struct XJpegExtendedSamples {
    uint32_t nWidth = 0;
    uint32_t nHeight = 0;
    // 1: grey; 3: R, G, B; 4: C, M, Y, K as stored (Adobe's inverted form).
    uint32_t nChannels = 0;
    uint32_t nPrecision = 0;  // bits per sample, 2..16
    bool bLossless = false;
    // Rows from the top that hold decoded data; the rows below are zero.
    uint32_t nValidRows = 0;
    // nWidth * nHeight * nChannels samples, interleaved, rows top first.
    std::vector<uint16_t> samples;
};

// Decodes from position 0. True when the picture is whole; false with `out.samples` empty when
// nothing could be decoded, or with the rows decoded so far when the stream breaks off.
bool DecodeJpegExtendedSamples(IXDibIO& source, XJpegExtendedSamples& out);
