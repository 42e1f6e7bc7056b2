// orlimo-bench [FOLDER|ARCHIVE] [--canvas WxH] [--pause MS] [--turns N] [--cbz-pages N]
//              [--only NAME,...]
//
// Drives the page list and the page engine headless, exactly as the window does: the options go
// in with request 9 (ApplySettings), pages are shown with request 7 through ShowPage, on a canvas
// of 1920x1080 in stretch mode with interpolation. An archive is opened with request 4
// (OpenArchive), its listing appended to the page list and sorted. Without an input it reads a
// generated book: 40 JPEG pages of 1800x2700 at quality 85 and 5 of 3500x5000, encoded once by
// TurboJPEG into a folder under the build tree and reused.
//
// One JSON object per scenario goes to stdout, a readable table to stderr:
//   cold_first_page  the first page of a fresh engine (median of 7), against the anchor: a raw
//                    TurboJPEG decode at the scale the engine chooses plus our resize alone
//   reading          turns with a pause between them, so that decoding ahead and prepared views
//                    work (--pause, 1500 ms by default; --turns, 20 by default)
//   rapid            a turn every 50 ms for 40 turns: previews and full decodes started
//   memory           300 turns through the book (cycled) without pause; peak RSS and budgets
//   anchors          the raw pieces: TurboJPEG full and scaled decode, our resize
//   archive_open     opening an archive and showing its first page: the time, and the bytes the
//                    process read against the archive's size and the first page's. Runs on the
//                    input archive, or with --cbz-pages N on a generated comic archive of N small
//                    stored JPEG pages (made once under the build tree)
#include <sys/resource.h>
#include <turbojpeg.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "engine/archivepages.h"
#include "engine/compose.h"
#include "engine/manaproc.h"
#include "engine/openpath.h"
#include "engine/pagelist.h"
#include "image/scale.h"
#include "image/xdib.h"
#include "platform/files.h"
#include "zipwriter.h"

#ifndef ORLIMO_BENCH_BOOK_DIR
#define ORLIMO_BENCH_BOOK_DIR "bench-book"
#endif
#ifndef ORLIMO_BENCH_CBZ_DIR
#define ORLIMO_BENCH_CBZ_DIR "bench-cbz"
#endif

namespace {

using Clock = std::chrono::steady_clock;
using Bytes = std::vector<uint8_t>;

double MsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

double Percentile(std::vector<double> values, double p) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    const size_t i = std::min(values.size() - 1, size_t(p * double(values.size() - 1) + 0.5));
    return values[i];
}
double Median(const std::vector<double>& values) {
    return Percentile(values, 0.5);
}

// ---- the generated book ----------------------------------------------------------------------

// A page as a comic gives it: white paper, panel frames, screen tone, strokes of text and a
// photo-like panel, with a little noise so that it compresses like a scan.
Bytes DrawPage(uint32_t w, uint32_t h, uint32_t seed) {
    Bytes p(size_t(w) * h * 3);
    for (uint32_t y = 0; y < h; ++y) {
        uint8_t* row = &p[size_t(y) * w * 3];
        for (uint32_t x = 0; x < w; ++x) {
            seed = seed * 1664525 + 1013904223;
            uint8_t* q = row + 3 * x;
            const uint32_t panel = (x * 3 / w + y * 4 / h * 2) % 3;
            int v = 242 + int(seed >> 29);
            if (x % (w / 3) < 8 || y % (h / 4) < 8) {
                v = 16;
            } else if (panel == 0) {
                v = ((x / 5) % 2 == (y / 5) % 2) ? 96 : 228;
            } else if (panel == 1) {
                if (y % 44 < 24 && x % 15 < 10 && (x + y) % 7 < 3) v = 24;
            } else {
                q[0] = uint8_t(x * 255 / w);
                q[1] = uint8_t(y * 255 / h);
                q[2] = uint8_t(((x ^ y) & 0x3F) + (seed >> 28));
                continue;
            }
            q[0] = q[1] = q[2] = uint8_t(v);
        }
    }
    return p;
}

bool WriteFile(const std::string& path, const unsigned char* data, size_t size) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), std::streamsize(size));
    return bool(out);
}

Bytes ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), {});
}

// Pages p01..p45; every ninth is a large one.
std::string MakeBook(const std::string& folder) {
    std::string mkdir = "mkdir -p '" + folder + "'";
    if (std::system(mkdir.c_str()) != 0) return {};
    tjhandle tj = tjInitCompress();
    for (int i = 1; i <= 45; ++i) {
        char name[32];
        std::snprintf(name, sizeof name, "/p%02d.jpg", i);
        const std::string path = folder + name;
        if (platform::GetFileSize(path) > 0) continue;
        const bool large = i % 9 == 0;
        const uint32_t w = large ? 3500 : 1800, h = large ? 5000 : 2700;
        const Bytes pixels = DrawPage(w, h, uint32_t(i));
        unsigned char* out = nullptr;
        unsigned long size = 0;
        if (tjCompress2(tj, pixels.data(), int(w), 0, int(h), TJPF_RGB, &out, &size, TJSAMP_420, 85,
                        0) != 0 ||
            !WriteFile(path + ".part", out, size) ||
            std::rename((path + ".part").c_str(), path.c_str()) != 0) {
            tjFree(out);
            tjDestroy(tj);
            return {};
        }
        tjFree(out);
        std::fprintf(stderr, "orlimo-bench: wrote %s\n", path.c_str());
    }
    tjDestroy(tj);
    return folder;
}

// A comic archive of `pages` small JPEG pages (400x600), stored, named p0001.jpg on; a few
// distinct pictures are cycled. Made once and reused.
std::string MakeCbz(const std::string& folder, uint32_t pages) {
    const std::string path = folder + "/pages-" + std::to_string(pages) + ".cbz";
    if (platform::GetFileSize(path) > 0) return path;
    std::string mkdir = "mkdir -p '" + folder + "'";
    if (std::system(mkdir.c_str()) != 0) return {};
    constexpr uint32_t kW = 400, kH = 600, kDistinct = 16;
    std::vector<Bytes> pictures;
    tjhandle tj = tjInitCompress();
    for (uint32_t i = 0; i < kDistinct; ++i) {
        const Bytes pixels = DrawPage(kW, kH, i + 1);
        unsigned char* out = nullptr;
        unsigned long size = 0;
        if (tjCompress2(tj, pixels.data(), int(kW), 0, int(kH), TJPF_RGB, &out, &size, TJSAMP_420,
                        80, 0) != 0) {
            tjFree(out);
            tjDestroy(tj);
            return {};
        }
        pictures.emplace_back(out, out + size);
        tjFree(out);
    }
    tjDestroy(tj);
    std::vector<samplewrite::ZipEntry> entries(pages);
    for (uint32_t i = 0; i < pages; ++i) {
        char name[32];
        std::snprintf(name, sizeof name, "p%04u.jpg", i + 1);
        entries[i] = {name, pictures[i % kDistinct], false};
    }
    const Bytes zip = samplewrite::MakeZip(entries);
    if (zip.empty() || !WriteFile(path + ".part", zip.data(), zip.size()) ||
        std::rename((path + ".part").c_str(), path.c_str()) != 0)
        return {};
    std::fprintf(stderr, "orlimo-bench: wrote %s\n", path.c_str());
    return path;
}

// The bytes this process has read through read(2) and its kin so far.
int64_t BytesReadSoFar() {
    std::FILE* f = std::fopen("/proc/self/io", "r");
    if (!f) return -1;
    long long value = -1;
    char key[32];
    long long number = 0;
    while (std::fscanf(f, "%31[^:]: %lld\n", key, &number) == 2) {
        if (std::strcmp(key, "rchar") == 0) value = number;
    }
    std::fclose(f);
    return value;
}

// ---- driving the engine as the window does ---------------------------------------------------

struct Options {
    std::string folder;  // or an archive
    uint32_t cbzPages = 0;
    uint32_t canvasWidth = 1920, canvasHeight = 1080;
    uint32_t pauseMs = 1500;
    uint32_t turns = 20;
    std::set<std::string> only;
};

ViewSettings BenchSettings(const Options& o) {
    ViewSettings s;
    s.nStretchMode = SHOW_STRETCH;
    s.nFilterMode = 1;
    s.nCanvasWidth = o.canvasWidth;
    s.nCanvasHeight = o.canvasHeight;
    return s;
}

// A page list and an engine over it, started and given the options.
struct Viewer {
    CPageList list;  // outlives the engine
    CManaProc engine;

    // Started and given the options; `path` is opened unless empty.
    Viewer(const Options& o, const std::string& path) {
        engine.Start(&list);
        engine.ApplySettings(BenchSettings(o));
        if (!path.empty()) Open(path);
    }
    explicit Viewer(const Options& o) : Viewer(o, o.folder) {}
    // A folder or an image goes into the list directly; an archive is listed by the engine, its
    // pages appended and sorted, and the first one made current.
    bool Open(const std::string& path) {
        if (OpenPath(list, path, true).kind != OpenPathResult::Kind::kArchive) return true;
        ArchiveListing listing;
        if (engine.OpenArchive(path, &listing) != 0) return false;
        std::lock_guard hold(list.cs);
        list.Append(std::move(listing.entries));
        list.Sort();
        list.SetCurrent(0);
        return true;
    }
    int32_t Count() {
        std::lock_guard hold(list.cs);
        return list.GetCount();
    }
    // One page turn as the window makes it: the cursor moves (back to the start at the end),
    // the options are pushed, the page is shown. Returns the time of the show in ms.
    double Turn(const Options& o, bool* preview = nullptr) {
        {
            std::lock_guard hold(list.cs);
            if (list.GetCurrent() + 1 >= list.GetCount()) {
                list.SetCurrent(0);
            } else {
                list.Step(1);
            }
        }
        return Show(o, preview);
    }
    double Show(const Options& o, bool* preview = nullptr) {
        engine.ApplySettings(BenchSettings(o));
        const auto start = Clock::now();
        engine.ShowPage(false, false);
        const double ms = MsSince(start);
        if (preview) {
            std::lock_guard hold(list.cs);
            *preview = list.bPreview != 0;
        }
        return ms;
    }
    void WaitIdle() {
        while (!engine.GetMainCache().IsIdle() || !engine.GetPreviewCache().IsIdle())
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
};

// ---- anchors: the raw pieces of an undecoded turn --------------------------------------------

struct Anchor {
    double fullMs = 0, scaledMs = 0, resizeMs = 0;
};

// TurboJPEG decodes of `jpeg` in full and at the engine's scale for the canvas, and our resize of
// the scaled picture into the fitted rectangle. Medians of `runs`.
Anchor MeasureAnchor(const Bytes& jpeg, const Options& o, int runs) {
    Anchor a;
    tjhandle tj = tjInitDecompress();
    int w = 0, h = 0, subsamp = 0, colorspace = 0;
    tjDecompressHeader3(tj, jpeg.data(), jpeg.size(), &w, &h, &subsamp, &colorspace);
    const XDibScaleRequest request{1, o.canvasWidth, o.canvasHeight};
    const uint32_t s = ChooseScale(uint32_t(w), uint32_t(h), &request);
    const uint32_t sw = (uint32_t(w) + s - 1) / s, sh = (uint32_t(h) + s - 1) / s;

    std::vector<double> full, scaled, resize;
    XDib fullDib, scaledDib, canvas;
    fullDib.Create(uint32_t(w), uint32_t(h), 32);
    scaledDib.Create(sw, sh, 32);
    canvas.Create(o.canvasWidth, o.canvasHeight, 32);
    // The fit of stretch mode.
    XRect rect{0, 0, int32_t(o.canvasWidth), int32_t(o.canvasHeight)};
    if (double(o.canvasWidth) / o.canvasHeight >= double(sw) / sh) {
        rect.right = int32_t(o.canvasHeight * double(sw) / sh + 0.5);
    } else {
        rect.bottom = int32_t(o.canvasWidth / (double(sw) / sh) + 0.5);
    }
    for (int i = 0; i < runs; ++i) {
        auto t = Clock::now();
        tjDecompress2(tj, jpeg.data(), jpeg.size(), fullDib.pBits, w, int(fullDib.nStride), h,
                      TJPF_BGRA, 0);
        full.push_back(MsSince(t));
        t = Clock::now();
        tjDecompress2(tj, jpeg.data(), jpeg.size(), scaledDib.pBits, int(sw),
                      int(scaledDib.nStride), int(sh), TJPF_BGRA, 0);
        scaled.push_back(MsSince(t));
        t = Clock::now();
        ScaleBlit(scaledDib, canvas, rect, XRect{0, 0, int32_t(sw), int32_t(sh)}, 1, 0, true);
        resize.push_back(MsSince(t));
    }
    tjDestroy(tj);
    a.fullMs = Median(full), a.scaledMs = Median(scaled), a.resizeMs = Median(resize);
    return a;
}

// ---- scenarios -------------------------------------------------------------------------------

bool Wanted(const Options& o, const char* name) {
    return o.only.empty() || o.only.count(name);
}

void PrintRow(const char* scenario, const std::string& figures) {
    std::fprintf(stderr, "%-16s %s\n", scenario, figures.c_str());
}

std::string Fmt(const char* format, double a, double b = 0, double c = 0, double d = 0) {
    char text[256];
    std::snprintf(text, sizeof text, format, a, b, c, d);
    return text;
}

bool IsArchive(const std::string& path) {
    if (path.empty() || platform::IsDirectory(path)) return false;
    CPageList probe;
    return OpenPath(probe, path, true).kind == OpenPathResult::Kind::kArchive;
}

// The first page's bytes: read from its file, or extracted from its archive.
Bytes FirstPageBytes(const PageEntry& page) {
    if (page.szPath.find('|') == std::string::npos) return ReadFile(page.szPath);
    CTarnLibPair pair;
    CMemTarnOutStream out;
    if (ExtractArchivePage(pair, page, &out) != ArchiveExtract::kOk) return {};
    return Bytes(out.data(), out.data() + out.size());
}

// Opens `archive` in a fresh engine and shows its first page, counting the bytes the process
// reads meanwhile: the central directory and the first page should be all of it.
void RunArchiveOpen(const Options& o, const std::string& archive) {
    Viewer viewer(o, {});
    const int64_t probe = BytesReadSoFar();
    const int64_t overhead = BytesReadSoFar() - probe;  // reading the counter itself
    const int64_t before = BytesReadSoFar();
    const auto start = Clock::now();
    const bool opened = viewer.Open(archive) && viewer.engine.ShowPage(false, false);
    const double ms = MsSince(start);
    const int64_t bytesRead = BytesReadSoFar() - before - overhead;
    int32_t pages = 0;
    int64_t firstPageBytes = -1;
    {
        std::lock_guard hold(viewer.list.cs);
        pages = viewer.list.GetCount();
        if (const PageEntry* first = viewer.list.GetEntry(0)) firstPageBytes = first->nFileSize;
    }
    if (!opened) std::fprintf(stderr, "orlimo-bench: can't open %s\n", archive.c_str());
    const int64_t archiveBytes = platform::GetFileSize(archive);
    std::printf(
        "{\"scenario\":\"archive_open\",\"pages\":%d,\"open_ms\":%.2f,\"bytes_read\":%lld,"
        "\"archive_bytes\":%lld,\"first_page_bytes\":%lld}\n",
        pages, ms, (long long)bytesRead, (long long)archiveBytes, (long long)firstPageBytes);
    PrintRow("archive_open", Fmt("%.0f pages in %.2f ms; read %.0f of %.0f bytes", pages, ms,
                                 double(bytesRead), double(archiveBytes)) +
                                 Fmt(" (first page %.0f)", double(firstPageBytes)));
}

int64_t PeakRssMB() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss / 1024;
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--canvas" && hasValue) {
            if (std::sscanf(argv[++i], "%ux%u", &o.canvasWidth, &o.canvasHeight) != 2 ||
                o.canvasWidth == 0 || o.canvasHeight == 0) {
                std::fprintf(stderr, "orlimo-bench: --canvas wants WxH\n");
                return 2;
            }
        } else if (arg == "--pause" && hasValue) {
            o.pauseMs = uint32_t(std::strtoul(argv[++i], nullptr, 10));
        } else if (arg == "--turns" && hasValue) {
            o.turns = std::max<uint32_t>(1, uint32_t(std::strtoul(argv[++i], nullptr, 10)));
        } else if (arg == "--cbz-pages" && hasValue) {
            o.cbzPages = uint32_t(std::strtoul(argv[++i], nullptr, 10));
        } else if (arg == "--only" && hasValue) {
            std::string list = argv[++i];
            for (size_t start = 0; start <= list.size();) {
                const size_t comma = std::min(list.find(',', start), list.size());
                o.only.insert(list.substr(start, comma - start));
                start = comma + 1;
            }
        } else if (arg.size() > 1 && arg[0] == '-') {
            std::fprintf(stderr,
                         "usage: orlimo-bench [FOLDER|ARCHIVE] [--canvas WxH] [--pause MS] "
                         "[--turns N] [--cbz-pages N] "
                         "[--only cold_first_page,reading,rapid,memory,anchors,archive_open]\n");
            return 2;
        } else {
            o.folder = arg;
        }
    }
    const bool inputIsArchive = IsArchive(o.folder);
    if ((o.cbzPages > 0 || inputIsArchive) && Wanted(o, "archive_open")) {
        const std::string archive =
            o.cbzPages > 0 ? MakeCbz(ORLIMO_BENCH_CBZ_DIR, o.cbzPages) : o.folder;
        if (archive.empty()) {
            std::fprintf(stderr, "orlimo-bench: can't make the archive in %s\n",
                         ORLIMO_BENCH_CBZ_DIR);
            return 1;
        }
        RunArchiveOpen(o, archive);
    }
    if (!o.only.empty() && o.only.size() == o.only.count("archive_open")) return 0;

    if (o.folder.empty()) o.folder = MakeBook(ORLIMO_BENCH_BOOK_DIR);
    if (o.folder.empty()) {
        std::fprintf(stderr, "orlimo-bench: can't make the book in %s\n", ORLIMO_BENCH_BOOK_DIR);
        return 1;
    }
    Bytes firstJpeg;
    {
        Viewer probe(o);
        std::lock_guard hold(probe.list.cs);
        if (const PageEntry* first = probe.list.GetEntry(probe.list.GetCurrent()))
            firstJpeg = FirstPageBytes(*first);
    }
    if (firstJpeg.empty()) {
        std::fprintf(stderr, "orlimo-bench: %s holds no pages\n", o.folder.c_str());
        return 1;
    }
    std::fprintf(stderr, "orlimo-bench: %s, canvas %ux%u, stretch, filter 1\n", o.folder.c_str(),
                 o.canvasWidth, o.canvasHeight);

    Anchor anchor;
    const bool needAnchor = Wanted(o, "cold_first_page") || Wanted(o, "anchors");
    if (needAnchor) anchor = MeasureAnchor(firstJpeg, o, 7);

    if (Wanted(o, "cold_first_page")) {
        std::vector<double> times;
        int previews = 0;
        for (int run = 0; run < 7; ++run) {
            Viewer viewer(o);
            bool preview = false;
            times.push_back(viewer.Show(o, &preview));
            previews += preview;
        }
        const double median = Median(times), anchorMs = anchor.scaledMs + anchor.resizeMs;
        std::printf(
            "{\"scenario\":\"cold_first_page\",\"median_ms\":%.2f,\"anchor_ms\":%.2f,"
            "\"ratio\":%.3f,\"previews\":%d}\n",
            median, anchorMs, median / anchorMs, previews);
        PrintRow("cold_first_page", Fmt("median %.2f ms, anchor %.2f ms, ratio %.3f (<= 1.15)",
                                        median, anchorMs, median / anchorMs));
    }

    if (Wanted(o, "reading")) {
        Viewer viewer(o);
        viewer.Show(o);
        std::vector<double> times;
        for (uint32_t turn = 0; turn < o.turns; ++turn) {
            std::this_thread::sleep_for(std::chrono::milliseconds(o.pauseMs));
            times.push_back(viewer.Turn(o));
        }
        const auto& stats = viewer.engine.GetStats();
        std::printf(
            "{\"scenario\":\"reading\",\"median_ms\":%.3f,\"p95_ms\":%.3f,\"turns\":%u,"
            "\"pause_ms\":%u,\"prepared_used\":%u}\n",
            Median(times), Percentile(times, 0.95), o.turns, o.pauseMs, stats.nPreparedUsed.load());
        PrintRow("reading",
                 Fmt("median %.3f ms, p95 %.3f ms (median < 3), prepared used %.0f/%.0f",
                     Median(times), Percentile(times, 0.95), stats.nPreparedUsed.load(), o.turns));
    }

    if (Wanted(o, "rapid")) {
        Viewer viewer(o);
        viewer.Show(o);
        viewer.WaitIdle();
        const uint32_t before = viewer.engine.GetStats().nFullDecodes.load();
        const uint32_t refusedBefore = viewer.engine.GetStats().nBusyRefusals.load();
        std::vector<double> times;
        double maxPreview = 0;
        int previews = 0;
        for (int turn = 0; turn < 40; ++turn) {
            const auto start = Clock::now();
            bool preview = false;
            const double ms = viewer.Turn(o, &preview);
            times.push_back(ms);
            if (preview) ++previews, maxPreview = std::max(maxPreview, ms);
            std::this_thread::sleep_until(start + std::chrono::milliseconds(50));
        }
        const auto& stats = viewer.engine.GetStats();
        const uint32_t started = stats.nFullDecodes.load() - before;
        const uint32_t refused = stats.nBusyRefusals.load() - refusedBefore;
        std::printf(
            "{\"scenario\":\"rapid\",\"median_ms\":%.2f,\"max_preview_ms\":%.2f,\"previews\":%d,"
            "\"full_decodes_started\":%u,\"busy_refusals\":%u}\n",
            Median(times), maxPreview, previews, started, refused);
        PrintRow("rapid",
                 Fmt("median %.2f ms, max preview %.2f ms (< 110), previews %.0f, full decodes "
                     "started %.0f",
                     Median(times), maxPreview, previews, started));
    }

    if (Wanted(o, "memory")) {
        Viewer viewer(o);
        viewer.Show(o);
        for (int turn = 0; turn < 300; ++turn) viewer.Turn(o);
        const int64_t budget =
            viewer.engine.GetMainCache().nBudgetMB + viewer.engine.GetPreviewCache().nBudgetMB;
        const int64_t peak = PeakRssMB();
        std::printf("{\"scenario\":\"memory\",\"peak_rss_mb\":%lld,\"budget_mb\":%lld}\n",
                    (long long)peak, (long long)budget);
        PrintRow("memory", Fmt("peak RSS %.0f MB, budgets %.0f MB (RSS < budgets + 150)",
                               double(peak), double(budget)));
    }

    if (Wanted(o, "anchors")) {
        std::printf(
            "{\"scenario\":\"anchors\",\"turbojpeg_full_ms\":%.2f,\"turbojpeg_scaled_ms\":%.2f,"
            "\"resize_ms\":%.2f}\n",
            anchor.fullMs, anchor.scaledMs, anchor.resizeMs);
        PrintRow("anchors", Fmt("TurboJPEG full %.2f ms, scaled %.2f ms, resize %.2f ms",
                                anchor.fullMs, anchor.scaledMs, anchor.resizeMs));
    }
    return 0;
}
