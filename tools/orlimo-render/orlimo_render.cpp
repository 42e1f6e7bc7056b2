// orlimo-render INPUT OUTPUT.bmp [--scale WxH] [--frame N]
//
// Decodes a picture the way the viewer does and writes one frame as a 24-bit BMP, so that a
// decoder's output can be looked at, compared or kept as a reference. Prints one line:
//   WIDTHxHEIGHT bpp=N frames=N format=NAME
// with the frame's depth as decoded. INPUT may be a folder or an archive: its first page in the
// viewer's order is rendered. It may also be an archive page, "archive|entry" or
// "outer?inner|entry", which is extracted into memory as the viewer's engine does. Exit 0 when a
// picture came out (a partial one too), 1 when nothing could be decoded, 2 on a usage error.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <string>

#include "engine/archivepages.h"
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

// Removes the temporary extractions of one archive when it goes.
class TempFolderGuard {
public:
    explicit TempFolderGuard(const std::string& archive)
        : folder_(CTarnLibPair::TempFolderOf(archive)) {}
    ~TempFolderGuard() {
        std::error_code ec;
        std::filesystem::remove_all(folder_, ec);
    }
    TempFolderGuard(const TempFolderGuard&) = delete;
    TempFolderGuard& operator=(const TempFolderGuard&) = delete;

private:
    std::string folder_;
};

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
    // An archive opens as the viewer opens it: its pages listed and sorted, the first taken.
    CTarnLibPair archives;
    // Archives inside an archive are read from the temporary folder; leave nothing there.
    const TempFolderGuard temporary(page.substr(0, page.find_first_of("?|")));
    if (!platform::IsDirectory(input) &&
        CPageList::GetFileKind(GetExtension(input)) == FileKind::kArchive &&
        page.find('|') == std::string::npos) {
        ArchiveListing listing;
        if (ListArchive(archives, page, "", false, &listing) != 0) {
            std::fprintf(stderr, "orlimo-render: can't open the archive %s\n", input);
            return 1;
        }
        CPageList list;
        std::lock_guard hold(list.cs);
        list.Append(std::move(listing.entries));
        list.Sort();
        list.SetCurrent(0);
        if (list.GetCount() == 0) {
            std::fprintf(stderr, "orlimo-render: %s holds no pages\n", input);
            return 1;
        }
        page = list.GetCurrentPath();
    }
    input = page.c_str();

    // An archive page is read into memory and decoded from there; a damaged entry is decoded as
    // far as its bytes go.
    CMemTarnOutStream entryBytes;
    const bool fromArchive = page.find('|') != std::string::npos && platform::GetFileSize(page) < 0;
    if (fromArchive) {
        PageEntry entry;
        entry.szPath = page;
        if (ExtractArchivePage(archives, entry, &entryBytes) == ArchiveExtract::kFailed) {
            std::fprintf(stderr, "orlimo-render: can't extract %s\n", input);
            return 1;
        }
    }

    // CMYK pictures go through the profiles beside the executable, as in the viewer; without
    // them the plain conversion serves.
    XColorMan colorMan;
    const std::string programFolder = platform::GetProgramFolder();
    const bool profiles = colorMan.Open(programFolder + "/" + kCmykProfileName,
                                        programFolder + "/" + kSrgbProfileName);

    XAnimDib anim;
    anim.pColorMan = profiles ? &colorMan : nullptr;
    const XDibScaleRequest* scaleRequest = scale.bEnable ? &scale : nullptr;
    CXDibMemIO memory(entryBytes.data(), int64_t(entryBytes.size()));
    const bool whole = fromArchive ? anim.Load(memory, input, nullptr, scaleRequest)
                                   : anim.LoadFile(input, nullptr, scaleRequest);
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
        if (fromArchive) {
            memory.Seek(0, 0);
            format = SniffFormat(memory, input);
        } else if (XDibIOPtr source = CXDibBuffFileIO::Open(input)) {
            format = SniffFormat(*source, input);
        }
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
