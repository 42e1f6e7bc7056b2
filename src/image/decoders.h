// The decoders of the program's own formats. Each finds the source at position 0, destroys and
// creates the target itself, and returns true when the picture is whole. On failure it may
// leave the rows decoded so far in the target: a partial picture is still shown.
#pragma once

class XDib;
class IXDibIO;

bool DecodeBmp(XDib& dib, IXDibIO& source);
bool DecodeTga(XDib& dib, IXDibIO& source);
bool DecodePsd(XDib& dib, IXDibIO& source);

#include "image/format.h"

class CJPEGMetaData;
struct XDibScaleRequest;

// Runs the decoder of an already sniffed format. nFormat is set only when the decoder reports
// a whole picture; formats without a decoder fail.
bool DecodeByFormat(XDib& dib, IXDibIO& source, XDibFormat format, CJPEGMetaData* jpegMeta,
                    const XDibScaleRequest* scaleRequest);
