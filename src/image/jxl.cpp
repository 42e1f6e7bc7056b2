// PLACEHOLDER: replaced by the decoder of this format.
#include "image/decoders.h"

bool DecodeJxl(XDib&, IXDibIO&, CJPEGMetaData*) {
    return false;
}
