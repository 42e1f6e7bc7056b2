// PLACEHOLDER: replaced by the TIFF bridge.
#include "image/decoders.h"

bool DecodeTiffFirst(XDib&, IXDibIO&) {
    return false;
}
bool LoadTiffPages(XAnimDib&, IXDibIO&) {
    return false;
}
