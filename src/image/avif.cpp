// PLACEHOLDER: replaced by the decoder of this format.
#include "image/decoders.h"

bool DecodeAvif(XDib&, IXDibIO&, CJPEGMetaData*) {
    return false;
}
