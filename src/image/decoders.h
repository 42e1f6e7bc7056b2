// The decoders of the program's own formats. Each finds the source at position 0, destroys and
// creates the target itself, and returns true when the picture is whole. On failure it may
// leave the rows decoded so far in the target: a partial picture is still shown.
#pragma once

class XDib;
class IXDibIO;

bool DecodeBmp(XDib& dib, IXDibIO& source);
bool DecodeTga(XDib& dib, IXDibIO& source);
bool DecodePsd(XDib& dib, IXDibIO& source);
