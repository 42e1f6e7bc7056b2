// orlimo-render INPUT OUTPUT.bmp [--scale WxH] [--frame N]
//
// Decodes a picture the way the viewer does and writes one frame as a 24-bit BMP, so that a
// decoder's output can be looked at, compared or kept as a reference. Prints one line:
//   WIDTHxHEIGHT bpp=N frames=N format=NAME
// with the frame's depth as decoded. INPUT may be a folder: its first page in the viewer's order
// is rendered. Exit 0 when a picture came out (a partial one too), 1 when
// nothing could be decoded, 2 on a usage error.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "engine/openpath.h"
#include "engine/pagelist.h"
#include "image/colorman.h"
#include "image/format.h"
#include "image/xanimdib.h"
#include "image/xdib.h"
#include "image/xdibio.h"
#include "platform/files.h"

namespace {

constexpr const char* kUsage = "usage: orlimo-render INPUT OUTPUT.bmp [--scale WxH] [--frame N]\n";

int Usage(const char* problem) {
    if (problem) std::fprintf(stderr, "orlimo-render: %s\n", problem);
    std::fputs(kUsage, stderr);
    return 2;
}

// A whole decimal number of at most nine digits.
bool ParseCount(const char* text, const char* end, uint32_t& out) {
    if (text == end || end - text > 9) return false;
    uint32_t value = 0;
    for (const char* p = text; p < end; ++p) {
        if (*p < '0' || *p > '9') return false;
        value = value * 10 + uint32_t(*p - '0');
    }
    out = value;
    return true;
}

bool ParseScale(const char* text, uint32_t& w, uint32_t& h) {
    const char* x = std::strchr(text, 'x');
    return x && ParseCount(text, x, w) && ParseCount(x + 1, x + std::strlen(x), h);
}

}  // namespace

int main(int argc, char** argv) {
    const char* input = nullptr;
    const char* output = nullptr;
    XDibScaleRequest scale;
    uint32_t frameIndex = 0;
    for (int i = 1; i < argc; ++i) {
        const char* arg = argv[i];
        if (std::strcmp(arg, "--scale") == 0 || std::strcmp(arg, "--frame") == 0) {
            if (i + 1 >= argc) return Usage("missing value");
            const char* value = argv[++i];
            if (arg[2] == 's') {
                if (!ParseScale(value, scale.nTargetWidth, scale.nTargetHeight))
                    return Usage("--scale wants WxH");
                scale.bEnable = 1;
            } else if (!ParseCount(value, value + std::strlen(value), frameIndex)) {
                return Usage("--frame wants a number");
            }
        } else if (arg[0] == '-' && arg[1] == '-') {
            return Usage("unknown option");
        } else if (!input) {
            input = arg;
        } else if (!output) {
            output = arg;
        } else {
            return Usage("too many arguments");
        }
    }
    if (!input || !output) return Usage(nullptr);

    // A folder opens as the viewer opens it: listed, in page order, the first page current.
    std::string page = input;
    if (platform::IsDirectory(input)) {
        CPageList list;
        OpenPath(list, input, true);
        std::lock_guard hold(list.cs);
        page = list.GetCurrentPath();
        if (page.empty()) {
            std::fprintf(stderr, "orlimo-render: %s holds no pages\n", input);
            return 1;
        }
    }
    input = page.c_str();

    // CMYK pictures go through the profiles beside the executable, as in the viewer; without
    // them the plain conversion serves.
    XColorMan colorMan;
    const std::string programFolder = platform::GetProgramFolder();
    const bool profiles = colorMan.Open(programFolder + "/" + kCmykProfileName,
                                        programFolder + "/" + kSrgbProfileName);

    XAnimDib anim;
    anim.pColorMan = profiles ? &colorMan : nullptr;
    const bool whole = anim.LoadFile(input, nullptr, scale.bEnable ? &scale : nullptr);
    if (anim.GetFrameCount() == 0) {
        std::fprintf(stderr, "orlimo-render: can't decode %s\n", input);
        return 1;
    }
    (void)whole;  // a partial picture is still a picture
    const XDib* frame = anim.GetFrame(frameIndex);
    if (!frame) {
        std::fprintf(stderr, "orlimo-render: %s has %zu frame(s), no frame %u\n", input,
                     anim.GetFrameCount(), frameIndex);
        return 1;
    }
    // A decoder that stopped early leaves nFormat at 0: name the format the file was taken for.
    uint32_t format = frame->nFormat;
    if (format == FORMAT_UNKNOWN) {
        if (XDibIOPtr source = CXDibBuffFileIO::Open(input)) format = SniffFormat(*source, input);
    }

    XDib copy;
    if (!copy.CopyFrom(*frame) || !copy.ConvertBpp(24)) {
        std::fprintf(stderr, "orlimo-render: can't turn a %u-bit picture into 24 bits\n",
                     frame->nBpp);
        return 1;
    }
    if (!copy.SaveBmp(output)) {
        std::fprintf(stderr, "orlimo-render: can't write %s\n", output);
        return 1;
    }
    std::printf("%ux%u bpp=%u frames=%zu format=%s\n", frame->nWidth, frame->nHeight, frame->nBpp,
                anim.GetFrameCount(), FormatName(format));
    return 0;
}
