// The decoders, one file each. Each finds the source at position 0, destroys and creates the
// target itself, and returns true when the picture is whole. On failure it may leave the rows
// decoded so far in the target: a partial picture is still shown. Library bridges catch what
// their library throws or jumps with; nothing escapes a decoder.
#pragma once

#include "image/format.h"

class XDib;
class XAnimDib;
class IXDibIO;
class CJPEGMetaData;
struct XDibScaleRequest;

// The program's own formats.
bool DecodeBmp(XDib& dib, IXDibIO& source);
bool DecodeTga(XDib& dib, IXDibIO& source);
bool DecodePsd(XDib& dib, IXDibIO& source);

// JPEG through libjpeg-turbo, reduced on request; `meta` (may be null) collects EXIF.
bool DecodeJpeg(XDib& dib, IXDibIO& source, CJPEGMetaData* meta,
                const XDibScaleRequest* scaleRequest);
// The JPEG modes libjpeg-turbo doesn't decode: lossless and samples of more than 8 bits
// (Huffman coded), always at full size and brought down to 8 bits.
bool DecodeJpegExtended(XDib& dib, IXDibIO& source);

// GIF: the first image only, and every frame composed over the one before.
bool DecodeGifFirst(XDib& dib, IXDibIO& source);
bool LoadGifFrames(XAnimDib& anim, IXDibIO& source);

bool DecodePng(XDib& dib, IXDibIO& source);

// TIFF: the first directory only, and every directory as a page (delay 0).
bool DecodeTiffFirst(XDib& dib, IXDibIO& source);
bool LoadTiffPages(XAnimDib& anim, IXDibIO& source);

// HD Photo, reduced on request through the codec's thumbnail size.
bool DecodeHdp(XDib& dib, IXDibIO& source, const XDibScaleRequest* scaleRequest);
// JPEG 2000: `format` is FORMAT_JP2 (boxed file) or FORMAT_J2K (bare codestream).
bool DecodeJpeg2000(XDib& dib, IXDibIO& source, XDibFormat format);
bool DecodeDng(XDib& dib, IXDibIO& source);

// WebP: a still picture or the first frame, and every frame of an animation.
bool DecodeWebpFirst(XDib& dib, IXDibIO& source, CJPEGMetaData* meta);
bool LoadWebpFrames(XAnimDib& anim, IXDibIO& source, CJPEGMetaData* meta);
bool DecodeAvif(XDib& dib, IXDibIO& source, CJPEGMetaData* meta);
bool DecodeHeif(XDib& dib, IXDibIO& source, CJPEGMetaData* meta);
bool DecodeJxl(XDib& dib, IXDibIO& source, CJPEGMetaData* meta);

// Runs the decoder of an already sniffed format for a single picture. nFormat is set only
// when the decoder reports a whole picture; formats without a decoder fail.
bool DecodeByFormat(XDib& dib, IXDibIO& source, XDibFormat format, CJPEGMetaData* jpegMeta,
                    const XDibScaleRequest* scaleRequest);
