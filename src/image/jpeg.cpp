// PLACEHOLDER: replaced by the decoder of this format.
#include "image/decoders.h"

bool DecodeJpeg(XDib&, IXDibIO&, CJPEGMetaData*, const XDibScaleRequest*) {
    return false;
}
