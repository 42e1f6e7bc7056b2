// PLACEHOLDER: replaced by the decoder of this format.
#include "image/decoders.h"

bool DecodeHdp(XDib&, IXDibIO&, const XDibScaleRequest*) {
    return false;
}
