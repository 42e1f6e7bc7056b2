// PLACEHOLDER: replaced by the decoder of this format.
#include "image/decoders.h"

bool DecodeHeif(XDib&, IXDibIO&, CJPEGMetaData*) {
    return false;
}
