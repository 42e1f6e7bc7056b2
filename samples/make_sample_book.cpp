// make-sample-book OUTDIR: draws a small comic book of our own and writes its pages in many of
// the formats the program reads (BMP, TGA, PSD, JPEG, PNG, TIFF, WebP), so a fresh build has
// something to read.
//
// Everything is drawn from code and is the same on every run: tinted paper, panels with black
// borders, simple scenes (hills, a city, the sea, rings, a speech balloon) and a big page
// number in a built-in 5x7 font. File names sort naturally (page2 before page10).
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "imgwrite/imgwrite.h"
#include "library_writers.h"
#include "zipwriter.h"

using imgwrite::Picture;
using imgwrite::Rgba;

namespace {

constexpr uint32_t kPageWidth = 720, kPageHeight = 1020;
constexpr Rgba kInk{20, 20, 28, 255}, kWhite{255, 255, 255, 255};

struct Box {
    int x, y, w, h;
};

Rgba Mix(Rgba a, Rgba b, double t) {
    const auto lerp = [t](uint8_t p, uint8_t q) { return uint8_t(std::lround(p + (q - p) * t)); };
    return {lerp(a.r, b.r), lerp(a.g, b.g), lerp(a.b, b.b), 255};
}

void Plot(Picture& p, int x, int y, Rgba c) {
    if (x >= 0 && y >= 0 && x < int(p.width) && y < int(p.height)) p.At(x, y) = c;
}

void FillRect(Picture& p, int x, int y, int w, int h, Rgba c) {
    for (int j = std::max(y, 0); j < std::min(y + h, int(p.height)); ++j)
        for (int i = std::max(x, 0); i < std::min(x + w, int(p.width)); ++i) p.At(i, j) = c;
}

void Frame(Picture& p, int x, int y, int w, int h, int t, Rgba c) {
    FillRect(p, x, y, w, t, c);
    FillRect(p, x, y + h - t, w, t, c);
    FillRect(p, x, y, t, h, c);
    FillRect(p, x + w - t, y, t, h, c);
}

void VerticalGradient(Picture& p, Rgba top, Rgba bottom) {
    for (uint32_t y = 0; y < p.height; ++y) {
        const Rgba c = Mix(top, bottom, p.height > 1 ? double(y) / (p.height - 1) : 0);
        for (uint32_t x = 0; x < p.width; ++x) p.At(x, y) = c;
    }
}

// Filled ellipse; a ring when `inner` > 0 (the fraction of the radii left open).
void Ellipse(Picture& p, int cx, int cy, int rx, int ry, Rgba c, double inner = 0) {
    for (int y = cy - ry; y <= cy + ry; ++y)
        for (int x = cx - rx; x <= cx + rx; ++x) {
            const double dx = double(x - cx) / rx, dy = double(y - cy) / ry;
            const double d = dx * dx + dy * dy;
            if (d <= 1 && d >= inner * inner) Plot(p, x, y, c);
        }
}

void Triangle(Picture& p, int x0, int y0, int x1, int y1, int x2, int y2, Rgba c) {
    const auto edge = [](int ax, int ay, int bx, int by, int px, int py) {
        return (bx - ax) * (py - ay) - (by - ay) * (px - ax);
    };
    const int area = edge(x0, y0, x1, y1, x2, y2);
    if (area == 0) return;
    for (int y = std::min({y0, y1, y2}); y <= std::max({y0, y1, y2}); ++y)
        for (int x = std::min({x0, x1, x2}); x <= std::max({x0, x1, x2}); ++x) {
            const int a = edge(x1, y1, x2, y2, x, y), b = edge(x2, y2, x0, y0, x, y),
                      d = edge(x0, y0, x1, y1, x, y);
            if (area > 0 ? (a >= 0 && b >= 0 && d >= 0) : (a <= 0 && b <= 0 && d <= 0))
                Plot(p, x, y, c);
        }
}

// ---- A 5x7 font: digits, capitals and a few signs -----------------------------------------

struct Glyph {
    char ch;
    std::array<const char*, 7> rows;
};

constexpr Glyph kFont[] = {
    {'0', {".###.", "#...#", "#..##", "#.#.#", "##..#", "#...#", ".###."}},
    {'1', {"..#..", ".##..", "..#..", "..#..", "..#..", "..#..", ".###."}},
    {'2', {".###.", "#...#", "....#", "...#.", "..#..", ".#...", "#####"}},
    {'3', {"####.", "....#", "....#", ".###.", "....#", "....#", "####."}},
    {'4', {"...#.", "..##.", ".#.#.", "#..#.", "#####", "...#.", "...#."}},
    {'5', {"#####", "#....", "####.", "....#", "....#", "#...#", ".###."}},
    {'6', {"..##.", ".#...", "#....", "####.", "#...#", "#...#", ".###."}},
    {'7', {"#####", "....#", "...#.", "..#..", ".#...", ".#...", ".#..."}},
    {'8', {".###.", "#...#", "#...#", ".###.", "#...#", "#...#", ".###."}},
    {'9', {".###.", "#...#", "#...#", ".####", "....#", "...#.", ".##.."}},
    {'A', {".###.", "#...#", "#...#", "#####", "#...#", "#...#", "#...#"}},
    {'B', {"####.", "#...#", "#...#", "####.", "#...#", "#...#", "####."}},
    {'C', {".###.", "#...#", "#....", "#....", "#....", "#...#", ".###."}},
    {'D', {"###..", "#..#.", "#...#", "#...#", "#...#", "#..#.", "###.."}},
    {'E', {"#####", "#....", "#....", "####.", "#....", "#....", "#####"}},
    {'F', {"#####", "#....", "#....", "####.", "#....", "#....", "#...."}},
    {'G', {".###.", "#...#", "#....", "#.###", "#...#", "#...#", ".####"}},
    {'H', {"#...#", "#...#", "#...#", "#####", "#...#", "#...#", "#...#"}},
    {'I', {".###.", "..#..", "..#..", "..#..", "..#..", "..#..", ".###."}},
    {'K', {"#...#", "#..#.", "#.#..", "##...", "#.#..", "#..#.", "#...#"}},
    {'L', {"#....", "#....", "#....", "#....", "#....", "#....", "#####"}},
    {'M', {"#...#", "##.##", "#.#.#", "#.#.#", "#...#", "#...#", "#...#"}},
    {'N', {"#...#", "#...#", "##..#", "#.#.#", "#..##", "#...#", "#...#"}},
    {'O', {".###.", "#...#", "#...#", "#...#", "#...#", "#...#", ".###."}},
    {'P', {"####.", "#...#", "#...#", "####.", "#....", "#....", "#...."}},
    {'R', {"####.", "#...#", "#...#", "####.", "#.#..", "#..#.", "#...#"}},
    {'S', {".####", "#....", "#....", ".###.", "....#", "....#", "####."}},
    {'T', {"#####", "..#..", "..#..", "..#..", "..#..", "..#..", "..#.."}},
    {'U', {"#...#", "#...#", "#...#", "#...#", "#...#", "#...#", ".###."}},
    {'W', {"#...#", "#...#", "#...#", "#.#.#", "#.#.#", "##.##", "#...#"}},
    {'Y', {"#...#", "#...#", ".#.#.", "..#..", "..#..", "..#..", "..#.."}},
    {'Z', {"#####", "....#", "...#.", "..#..", ".#...", "#....", "#####"}},
    {'!', {"..#..", "..#..", "..#..", "..#..", "..#..", ".....", "..#.."}},
    {'?', {".###.", "#...#", "....#", "...#.", "..#..", ".....", "..#.."}},
    {'.', {".....", ".....", ".....", ".....", ".....", ".##..", ".##.."}},
};

const Glyph* FindGlyph(char ch) {
    for (const Glyph& g : kFont)
        if (g.ch == ch) return &g;
    return nullptr;  // blanks and unknown characters leave a gap
}

int TextWidth(std::string_view text, int scale) {
    return text.empty() ? 0 : int(text.size()) * 6 * scale - scale;
}

void Text(Picture& p, int x, int y, int scale, std::string_view text, Rgba c) {
    for (char ch : text) {
        if (const Glyph* g = FindGlyph(ch))
            for (int row = 0; row < 7; ++row)
                for (int col = 0; col < 5; ++col)
                    if (g->rows[row][col] == '#')
                        FillRect(p, x + col * scale, y + row * scale, scale, scale, c);
        x += 6 * scale;
    }
}

void CentredText(Picture& p, int cx, int y, int scale, std::string_view text, Rgba c) {
    Text(p, cx - TextWidth(text, scale) / 2, y, scale, text, c);
}

// ---- Scenes, each drawn into a panel-sized picture -----------------------------------------

void Hills(Picture& p, int seed) {
    const int w = int(p.width), h = int(p.height);
    VerticalGradient(p, {90, 160, 235, 255}, {200, 230, 250, 255});
    Ellipse(p, w * (3 + seed % 4) / 8, h / 4, h / 8 + 10, h / 8 + 10, {255, 210, 60, 255});
    for (int layer = 0; layer < 2; ++layer) {
        const Rgba green = layer ? Rgba{60, 140, 60, 255} : Rgba{110, 180, 90, 255};
        for (int x = 0; x < w; ++x) {
            const double phase = (x + seed * 37 + layer * 90) / (55.0 + layer * 25);
            const int top = int(h * (0.55 + 0.12 * layer) + std::sin(phase) * h * 0.07);
            FillRect(p, x, top, 1, h - top, green);
        }
    }
}

void City(Picture& p, int seed) {
    const int w = int(p.width), h = int(p.height);
    VerticalGradient(p, {25, 25, 70, 255}, {120, 70, 140, 255});
    Ellipse(p, w - w / 5, h / 5, h / 10 + 6, h / 10 + 6, {245, 245, 220, 255});
    int x = 0;
    for (int i = 0; x < w; ++i) {
        const int bw = 40 + ((i * 29 + seed * 13) % 50);
        const int bh = h / 3 + ((i * 53 + seed * 7) % (h / 2));
        const Rgba wall = Mix({50, 50, 70, 255}, {90, 80, 100, 255}, (i % 3) / 2.0);
        FillRect(p, x, h - bh, bw - 4, bh, wall);
        for (int wy = h - bh + 12; wy < h - 14; wy += 22)
            for (int wx = x + 8; wx < x + bw - 16; wx += 16)
                if ((wx / 16 + wy / 22 + i + seed) % 3 != 0)
                    FillRect(p, wx, wy, 8, 10, {250, 220, 110, 255});
        x += bw;
    }
}

void Sea(Picture& p, int seed) {
    const int w = int(p.width), h = int(p.height);
    VerticalGradient(p, {250, 190, 120, 255}, {250, 235, 200, 255});
    const int horizon = h / 2;
    for (int y = horizon; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const double wave = std::sin((x + seed * 11) / 18.0 + y / 5.0);
            p.At(x, y) = wave > 0.6 ? Rgba{200, 230, 245, 255}
                                    : Mix({40, 110, 170, 255}, {20, 60, 120, 255},
                                          double(y - horizon) / (h - horizon));
        }
    const int bx = w / 3 + (seed * 41) % (w / 3), by = horizon + h / 8;
    FillRect(p, bx - 50, by, 100, 18, {120, 60, 30, 255});
    Triangle(p, bx - 50, by, bx + 50, by, bx, by + 18, {120, 60, 30, 255});
    Triangle(p, bx, by - 80, bx, by - 4, bx + 45, by - 4, kWhite);
    FillRect(p, bx - 3, by - 85, 4, 85, kInk);
}

void Rings(Picture& p, int seed) {
    const int w = int(p.width), h = int(p.height);
    VerticalGradient(p, {250, 240, 200, 255}, {240, 200, 170, 255});
    static const Rgba kColours[] = {
        {220, 60, 60, 255}, {240, 160, 40, 255}, {60, 150, 200, 255}, {90, 170, 90, 255}};
    const int r = std::min(w, h) / 2 - 8;
    for (int i = 0; i < 6; ++i)
        Ellipse(p, w / 2, h / 2, r - i * r / 6, r - i * r / 6, kColours[(i + seed) % 4], 0.75);
}

void Talk(Picture& p, int seed) {
    const int w = int(p.width), h = int(p.height);
    VerticalGradient(p, {200, 225, 200, 255}, {160, 200, 170, 255});
    // A round character with a speech balloon.
    const int cx = w / 4, cy = h - h / 3;
    FillRect(p, cx - 30, cy + 30, 60, h, {70, 90, 160, 255});
    Ellipse(p, cx, cy, 36, 36, {240, 200, 160, 255});
    Ellipse(p, cx - 12, cy - 6, 4, 4, kInk);
    Ellipse(p, cx + 12, cy - 6, 4, 4, kInk);
    FillRect(p, cx - 10, cy + 14, 20, 3, kInk);
    const int bx = w / 2 + w / 10, by = h / 3, rx = w / 3, ry = h / 5 + 10;
    Triangle(p, bx - rx / 2, by + ry / 2, bx - rx / 4, by + ry / 2, cx + 30, cy - 30, kInk);
    Ellipse(p, bx, by, rx + 3, ry + 3, kInk);
    Ellipse(p, bx, by, rx, ry, kWhite);
    static const char* const kLines[] = {"HELLO!", "TURN THE PAGE", "LOOK UP!", "WHAT NOW?"};
    const std::string_view line = kLines[seed % 4];
    const int scale = std::max(2, std::min(4, (2 * rx - 20) / (6 * int(line.size()))));
    CentredText(p, bx, by - 7 * scale / 2, scale, line, kInk);
}

void Dots(Picture& p, int seed) {
    const int w = int(p.width), h = int(p.height);
    const Rgba back = Mix({255, 120, 160, 255}, {120, 200, 255, 255}, (seed % 5) / 4.0);
    VerticalGradient(p, back, Mix(back, kWhite, 0.5));
    for (int y = 12; y < h; y += 28)
        for (int x = 12 + (y / 28 % 2) * 14; x < w; x += 28) Ellipse(p, x, y, 6, 6, kWhite);
    Text(p, 20, h - 60, 6, seed % 2 ? "POW!" : "ZAP!", {250, 230, 40, 255});
}

using Scene = void (*)(Picture&, int);
constexpr Scene kScenes[] = {Hills, City, Sea, Rings, Talk, Dots};

// ---- Pages ---------------------------------------------------------------------------------

void Panel(Picture& page, Box b, int scene, int seed) {
    Picture art(uint32_t(b.w), uint32_t(b.h));
    kScenes[scene % std::size(kScenes)](art, seed);
    for (uint32_t y = 0; y < art.height; ++y)
        for (uint32_t x = 0; x < art.width; ++x)
            Plot(page, b.x + int(x), b.y + int(y), art.At(x, y));
    Frame(page, b.x, b.y, b.w, b.h, 5, kInk);
}

// Panels of one page, in content coordinates of the given size, chosen by `layout`.
std::vector<Box> Layout(int layout, int w, int h) {
    const int g = 16;  // gutter
    const int half = (w - g) / 2, third = (h - 2 * g) / 3;
    switch (layout % 4) {
        case 0:
            return {{0, 0, w, third},
                    {0, third + g, half, third},
                    {half + g, third + g, half, third},
                    {0, 2 * (third + g), w, third}};
        case 1:
            return {{0, 0, half, third},
                    {half + g, 0, half, third},
                    {0, third + g, half, third},
                    {half + g, third + g, half, third},
                    {0, 2 * (third + g), half, third},
                    {half + g, 2 * (third + g), half, third}};
        case 2: {
            const int big = (w - g) * 2 / 3, side = w - big - g, sh = (h - g) / 2;
            return {{0, 0, big, h - third - g},
                    {big + g, 0, side, sh},
                    {big + g, sh + g, side, h - sh - g},
                    {0, h - third, big, third}};
        }
        default:
            return {{0, 0, w, h / 2 - g / 2}, {0, h / 2 + g / 2, w, h - h / 2 - g / 2}};
    }
}

Rgba PaperOf(int number) {
    static const Rgba kPapers[] = {{252, 246, 228, 255},
                                   {232, 240, 252, 255},
                                   {236, 250, 236, 255},
                                   {252, 236, 240, 255},
                                   {244, 238, 252, 255}};
    return kPapers[number % std::size(kPapers)];
}

// The page number, big, in a white disc at the foot of the page.
void PageNumber(Picture& page, int number, int cx) {
    const std::string text = std::to_string(number);
    const int cy = int(page.height) - 78;
    Ellipse(page, cx, cy, 70, 62, kInk);
    Ellipse(page, cx, cy, 64, 56, kWhite);
    const int scale = text.size() > 1 ? 8 : 10;
    CentredText(page, cx, cy - 7 * scale / 2, scale, text, kInk);
}

Picture DrawPage(int number) {
    Picture page(kPageWidth, kPageHeight, PaperOf(number));
    const int margin = 36, footer = 150;
    const int w = int(kPageWidth) - 2 * margin, h = int(kPageHeight) - margin - footer;
    if (number == 1) {
        // Cover: a splash panel with the title.
        Panel(page, {margin, margin, w, h}, 0, number);
        FillRect(page, margin + 30, margin + 40, w - 60, 170, kWhite);
        Frame(page, margin + 30, margin + 40, w - 60, 170, 5, kInk);
        CentredText(page, int(kPageWidth) / 2, margin + 62, 12, "ORLIMO", {200, 40, 60, 255});
        CentredText(page, int(kPageWidth) / 2, margin + 160, 5, "SAMPLE BOOK", kInk);
    } else {
        const std::vector<Box> boxes = Layout(number, w, h);
        for (size_t i = 0; i < boxes.size(); ++i) {
            Box b = boxes[i];
            b.x += margin, b.y += margin;
            Panel(page, b, number + int(i), number * 7 + int(i));
        }
    }
    PageNumber(page, number, int(kPageWidth) / 2);
    return page;
}

// A spread: one panorama over both halves and panels below, one number under the fold.
Picture DrawSpread(int number) {
    Picture page(2 * kPageWidth, kPageHeight, PaperOf(number));
    const int margin = 36, footer = 150, g = 16;
    const int w = int(page.width) - 2 * margin, h = int(kPageHeight) - margin - footer;
    const int top = h * 3 / 5;
    FillRect(page, int(kPageWidth) - 1, 0, 2, int(kPageHeight), {200, 200, 200, 255});  // fold
    Panel(page, {margin, margin, w, top}, number, number);
    const int below = h - top - g, quarter = (w - 3 * g) / 4;
    for (int i = 0; i < 4; ++i)
        Panel(page, {margin + i * (quarter + g), margin + top + g, quarter, below}, number + i + 1,
              number * 5 + i);
    PageNumber(page, number, int(kPageWidth));
    return page;
}

// Six levels a channel: at most 216 colours, so the page fits an 8-bit palette.
Picture Posterise(Picture p) {
    for (Rgba& c : p.pixels) {
        const auto level = [](uint8_t v) { return uint8_t((v * 5 + 127) / 255 * 51); };
        c = {level(c.r), level(c.g), level(c.b), 255};
    }
    return p;
}

// A quarter turn anticlockwise: stored so, and marked with EXIF orientation 6, the page shows
// upright once the viewer turns it back.
Picture TurnAnticlockwise(const Picture& p) {
    Picture out(p.height, p.width);
    for (uint32_t y = 0; y < p.height; ++y)
        for (uint32_t x = 0; x < p.width; ++x) out.At(y, p.width - 1 - x) = p.At(x, y);
    return out;
}

// The margins of the page see-through and the foot fading out, for a page with alpha.
Picture WithSeeThroughMargins(Picture p) {
    const int margin = 36, footer = 150;
    for (uint32_t y = 0; y < p.height; ++y) {
        for (uint32_t x = 0; x < p.width; ++x) {
            const bool inMargin =
                int(x) < margin - 8 || int(x) >= int(p.width) - margin + 8 || int(y) < margin - 8;
            if (inMargin) p.At(x, y).a = 0;
            if (int(y) >= int(p.height) - footer)
                p.At(x, y).a = uint8_t(p.At(x, y).a * (p.height - y) / footer);
        }
    }
    return p;
}

// A label in a box at the top right, marking the pages of a multi-page file.
Picture Labelled(Picture p, const std::string& text) {
    const int w = TextWidth(text, 4) + 24, x = int(p.width) - w - 50, y = 50;
    FillRect(p, x, y, w, 52, kWhite);
    Frame(p, x, y, w, 52, 4, kInk);
    Text(p, x + 12, y + 12, 4, text, kInk);
    return p;
}

// The page with a red ball bouncing across its upper left: eight frames, the first the whole
// page, the others only the part that changes, each kept under the next (disposal 1).
imgwrite::Bytes WriteBouncingBall(const Picture& art) {
    using namespace imgwrite;
    constexpr Rgba kBall{255, 51, 51, 255}, kShine{255, 255, 255, 255};
    const Picture base = Posterise(art);
    const int ax = 60, ay = 60, aw = 320, ah = 300;  // the area the ball moves in
    const auto withBall = [&](int k) {
        Picture p = base;
        const double t = k / 7.0;
        const int cx = ax + 40 + int(t * (aw - 80));
        const int cy = ay + ah - 40 - int(std::abs(std::sin(t * 3.14159 * 2)) * (ah - 80));
        Ellipse(p, cx, cy, 34, 34, kInk);
        Ellipse(p, cx, cy, 30, 30, kBall);
        Ellipse(p, cx - 10, cy - 10, 7, 7, kShine);
        return p;
    };
    std::vector<Rgba> palette;
    std::vector<uint8_t> first;
    if (!BuildPalette(withBall(0), 256, palette, first)) return {};
    for (Rgba extra : {kBall, kShine, kInk}) {
        if (std::find(palette.begin(), palette.end(), extra) == palette.end())
            palette.push_back(extra);
    }
    if (palette.size() > 256) return {};
    const auto indexOf = [&](Rgba c) {
        return uint8_t(std::find(palette.begin(), palette.end(), Rgba{c.r, c.g, c.b, 255}) -
                       palette.begin());
    };
    GifOptions options{
        .width = uint16_t(base.width), .height = uint16_t(base.height), .globalPalette = palette};
    options.tail = {};
    std::vector<GifFrame> frames;
    for (int k = 0; k < 8; ++k) {
        const Picture p = withBall(k);
        GifFrame f;
        f.hasControl = true;
        f.control = {.disposal = 1, .delay = 12};
        if (k == 0) {
            f.width = uint16_t(p.width), f.height = uint16_t(p.height);
            f.indices = first;
            f.extensions = {GifLoop(0)};
        } else {
            f.left = ax, f.top = ay, f.width = aw, f.height = ah;
            for (int y = ay; y < ay + ah; ++y)
                for (int x = ax; x < ax + aw; ++x) f.indices.push_back(indexOf(p.At(x, y)));
        }
        frames.push_back(std::move(f));
    }
    return WriteGif(options, frames);
}

// Writes page `number` (drawn as `art`) to `path`.
using PageWriter = std::function<bool(const std::string& path, const Picture& art)>;

struct PageFile {
    int number;
    const char* extension;
    bool spread;
    PageWriter write;
};

PageWriter Bytewise(std::function<imgwrite::Bytes(const Picture&)> encode) {
    return [encode](const std::string& path, const Picture& art) {
        const imgwrite::Bytes bytes = encode(art);
        return !bytes.empty() && imgwrite::WriteFile(path, bytes);
    };
}

}  // namespace

// The comic archive holds pages 1 to this in kNestedName inside it, the others at its top.
constexpr int kNestedPages = 7;
constexpr const char* kNestedName = "chapter1.cbz";

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: make-sample-book OUTDIR\n");
        return 2;
    }
    const std::filesystem::path dir = argv[1];
    std::error_code error;
    std::filesystem::create_directories(dir, error);

    using namespace imgwrite;
    using samplewrite::JpegOptions;
    const PageWriter bmp24 = Bytewise([](const Picture& p) { return WriteBmp(p, {.bpp = 24}); });
    const PageWriter bmp32 = Bytewise([](const Picture& p) { return WriteBmp(p, {.bpp = 32}); });
    const PageWriter rle8 =
        Bytewise([](const Picture& p) { return WriteBmp(Posterise(p), {.bpp = 8, .rle = true}); });
    const PageWriter tgaRle =
        Bytewise([](const Picture& p) { return WriteTga(p, {.type = 10, .depth = 24}); });
    const PageWriter tgaRaw =
        Bytewise([](const Picture& p) { return WriteTga(p, {.type = 2, .depth = 32}); });
    const PageWriter psdRgb =
        Bytewise([](const Picture& p) { return WritePsd(p, {.mode = 3, .packBits = true}); });
    const PageWriter psdCmyk =
        Bytewise([](const Picture& p) { return WritePsd(p, {.mode = 4, .packBits = true}); });
    const PageWriter jpegProgressive =
        Bytewise([](const Picture& p) { return samplewrite::WriteJpeg(p, {.progressive = true}); });
    const PageWriter jpegCmyk =
        Bytewise([](const Picture& p) { return samplewrite::WriteJpeg(p, {.cmyk = true}); });
    const PageWriter jpegTurned = Bytewise([](const Picture& p) {
        return samplewrite::WriteJpeg(TurnAnticlockwise(p), {.exifOrientation = 6});
    });
    const PageWriter pngAlpha =
        Bytewise([](const Picture& p) { return samplewrite::WritePng(WithSeeThroughMargins(p)); });
    const PageWriter tiffPages = [](const std::string& path, const Picture& art) {
        return samplewrite::WriteTiffPages(
            path, {Labelled(art, "1 OF 3"), Labelled(art, "2 OF 3"), Labelled(art, "3 OF 3")});
    };
    const PageWriter webp = Bytewise([](const Picture& p) { return samplewrite::WriteWebp(p); });
    const PageWriter gifAnimated = Bytewise(WriteBouncingBall);
    const PageFile kPages[] = {
        {1, "bmp", false, bmp24},
        {2, "tga", false, tgaRle},
        {3, "psd", false, psdRgb},
        {4, "bmp", false, rle8},
        {5, "tga", false, tgaRaw},
        {6, "bmp", false, bmp32},
        {7, "psd", false, psdCmyk},
        {8, "bmp", true, bmp24},
        {9, "tga", false, tgaRle},
        {10, "psd", false, psdRgb},
        {11, "bmp", false, rle8},
        {12, "tga", false, tgaRaw},
        {13, "tga", true, tgaRle},
        {14, "psd", false, psdRgb},
        {15, "jpg", false, jpegProgressive},
        {16, "jpg", false, jpegCmyk},
        {17, "jpg", false, jpegTurned},
        {18, "png", false, pngAlpha},
        {19, "gif", false, gifAnimated},
        {20, "tif", false, tiffPages},
        {21, "webp", false, webp},
    };
    int written = 0;
    for (const PageFile& f : kPages) {
        const Picture art = f.spread ? DrawSpread(f.number) : DrawPage(f.number);
        const std::string name = "page" + std::to_string(f.number) + "." + f.extension;
        if (!f.write((dir / name).string(), art)) {
            std::fprintf(stderr, "make-sample-book: can't write %s\n", name.c_str());
            return 1;
        }
        ++written;
    }
    std::printf("make-sample-book: %d pages in %s\n", written, dir.string().c_str());

    // The same book as a comic archive beside the folder: the first chapter as a comic archive
    // inside it, the way collected volumes are often passed around, the other pages at its top.
    // Pages inside an inner archive sort before the outer archive's own, so page 1 stays first.
    std::vector<samplewrite::ZipEntry> outer;
    std::vector<samplewrite::ZipEntry> inner;
    for (const PageFile& f : kPages) {
        const std::string name = "page" + std::to_string(f.number) + "." + f.extension;
        std::ifstream in(dir / name, std::ios::binary);
        Bytes bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
        (f.number <= kNestedPages ? inner : outer).push_back({name, std::move(bytes)});
    }
    // Stored, as its pages inside are compressed already.
    outer.push_back({kNestedName, samplewrite::MakeZip(inner), false});
    std::filesystem::path archive = dir;
    archive += ".cbz";
    const Bytes zip = samplewrite::MakeZip(outer);
    if (zip.empty() || !imgwrite::WriteFile(archive.string(), zip)) {
        std::fprintf(stderr, "make-sample-book: can't write %s\n", archive.string().c_str());
        return 1;
    }
    std::printf("make-sample-book: the book as %s\n", archive.string().c_str());
    return 0;
}
