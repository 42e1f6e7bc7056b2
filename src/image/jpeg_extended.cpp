// PLACEHOLDER: replaced by the decoder of this format.
#include "image/decoders.h"

bool DecodeJpegExtended(XDib&, IXDibIO&) {
    return false;
}
