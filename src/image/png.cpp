// PLACEHOLDER: replaced by the decoder of this format.
#include "image/decoders.h"

bool DecodePng(XDib&, IXDibIO&) {
    return false;
}
