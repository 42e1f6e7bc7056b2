// PLACEHOLDER: replaced by the decoder of this format.
#include "image/decoders.h"

bool DecodeDng(XDib&, IXDibIO&) {
    return false;
}
