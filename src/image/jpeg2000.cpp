// PLACEHOLDER: replaced by the decoder of this format.
#include "image/decoders.h"

bool DecodeJpeg2000(XDib&, IXDibIO&, XDibFormat) {
    return false;
}
