// PLACEHOLDER: replaced by the WebP bridge.
#include "image/decoders.h"

bool DecodeWebpFirst(XDib&, IXDibIO&, CJPEGMetaData*) {
    return false;
}
bool LoadWebpFrames(XAnimDib&, IXDibIO&, CJPEGMetaData*) {
    return false;
}
