// PLACEHOLDER: replaced by the metadata pass.
#include "image/jpegmeta.h"

CJPEGMetaData::CJPEGMetaData(ExifInfo* info) : pInfo(info) {}
bool CJPEGMetaData::Read(IXDibIO&) {
    return nMotorolaOrder + nExifImageWidth > 0;
}
bool CJPEGMetaData::ParseExifBlock(const uint8_t*, size_t) {
    return false;
}
bool CJPEGMetaData::ParseTiffExif(const uint8_t*, size_t) {
    return false;
}
