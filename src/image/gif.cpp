// PLACEHOLDER: replaced by the GIF decoder.
#include "image/decoders.h"

bool DecodeGifFirst(XDib&, IXDibIO&) {
    return false;
}
bool LoadGifFrames(XAnimDib&, IXDibIO&) {
    return false;
}
