#include "image/textdraw.h"

#include <fontconfig/fontconfig.h>
#include <ft2build.h>
#include FT_FREETYPE_H
#include FT_OUTLINE_H
#include <hb-ft.h>
#include <hb.h>

#include <algorithm>
#include <map>
#include <memory>
#include <mutex>
#include <tuple>
#include <utility>

#include "image/xdib.h"

namespace {

// A run larger than this is refused before its mask is allocated: no line of the program
// comes near it, and a hostile language file or path can't make it allocate without bound.
constexpr int32_t kMaxMaskWidth = 32767;
constexpr int32_t kMaxMaskHeight = 4096;
constexpr uint32_t kMaxPixelSize = 1024;

// One opened face at one pixel size, with its HarfBuzz font.
struct Face {
    FT_Face face = nullptr;
    hb_font_t* font = nullptr;
    bool bEmbolden = false;  // fontconfig asks for synthetic bold
    bool bOblique = false;   // and for a synthetic slant

    Face() = default;
    Face(const Face&) = delete;
    Face& operator=(const Face&) = delete;
    ~Face() {
        if (font) hb_font_destroy(font);
        if (face) FT_Done_Face(face);
    }
};

// The font machinery of the process. FreeType's library and faces are not safe to share
// between threads, so every use goes through `mutex`.
class FontStore {
public:
    static FontStore& Get() {
        static FontStore store;
        return store;
    }

    std::mutex mutex;

    bool Ready() const { return library != nullptr; }

    // The face for `font`, null when not even a fallback can be opened.
    Face* Primary(const XFontSpec& font) {
        const auto key = std::make_tuple(font.sFamily, font.nPixelSize, font.bBold, font.bItalic);
        if (auto it = primaries.find(key); it != primaries.end()) return it->second;
        Face* face = Match(font, 0);
        if (!face && font.sFamily != "Sans") {
            XFontSpec sans = font;
            sans.sFamily = "Sans";
            face = Match(sans, 0);
        }
        primaries.emplace(key, face);
        return face;
    }

    // A face that has `codePoint`, for text the primary face can't show; null when none has.
    Face* Fallback(const XFontSpec& font, uint32_t codePoint) {
        const auto key =
            std::make_tuple(font.sFamily, font.nPixelSize, font.bBold, font.bItalic, codePoint);
        if (auto it = fallbacks.find(key); it != fallbacks.end()) return it->second;
        Face* face = Match(font, codePoint);
        if (face && FT_Get_Char_Index(face->face, codePoint) == 0) face = nullptr;
        fallbacks.emplace(key, face);
        return face;
    }

private:
    FontStore() {
        // A configuration of our own, so that what it holds goes when the store goes.
        config = FcInitLoadConfigAndFonts();
        if (config && FT_Init_FreeType(&library) != 0) library = nullptr;
    }
    ~FontStore() {
        opened.clear();
        if (library) FT_Done_FreeType(library);
        if (config) FcConfigDestroy(config);
    }

    // Asks fontconfig for the best face of `font`, covering `codePoint` when it isn't 0.
    Face* Match(const XFontSpec& font, uint32_t codePoint) {
        if (!library || font.nPixelSize == 0 || font.nPixelSize > kMaxPixelSize) return nullptr;
        FcPattern* pattern = FcPatternCreate();
        if (!pattern) return nullptr;
        FcPatternAddString(pattern, FC_FAMILY,
                           reinterpret_cast<const FcChar8*>(font.sFamily.c_str()));
        FcPatternAddDouble(pattern, FC_PIXEL_SIZE, font.nPixelSize);
        FcPatternAddInteger(pattern, FC_WEIGHT, font.bBold ? FC_WEIGHT_BOLD : FC_WEIGHT_REGULAR);
        FcPatternAddInteger(pattern, FC_SLANT, font.bItalic ? FC_SLANT_ITALIC : FC_SLANT_ROMAN);
        FcPatternAddBool(pattern, FC_SCALABLE, FcTrue);
        if (codePoint) {
            FcCharSet* set = FcCharSetCreate();
            FcCharSetAddChar(set, codePoint);
            FcPatternAddCharSet(pattern, FC_CHARSET, set);
            FcCharSetDestroy(set);
        }
        FcConfigSubstitute(config, pattern, FcMatchPattern);
        FcDefaultSubstitute(pattern);
        FcResult result = FcResultNoMatch;
        FcPattern* match = FcFontMatch(config, pattern, &result);
        FcPatternDestroy(pattern);
        if (!match) return nullptr;
        FcChar8* file = nullptr;
        int index = 0;
        FcBool embolden = FcFalse;
        FcMatrix* matrix = nullptr;
        Face* face = nullptr;
        if (FcPatternGetString(match, FC_FILE, 0, &file) == FcResultMatch) {
            FcPatternGetInteger(match, FC_INDEX, 0, &index);
            FcPatternGetBool(match, FC_EMBOLDEN, 0, &embolden);
            const bool oblique =
                FcPatternGetMatrix(match, FC_MATRIX, 0, &matrix) == FcResultMatch &&
                matrix->xy != 0;
            face = Open(reinterpret_cast<const char*>(file), index, font.nPixelSize,
                        embolden == FcTrue, oblique);
        }
        FcPatternDestroy(match);
        return face;
    }

    // One Face per file, index, size and synthesis, however many specs lead to it.
    Face* Open(const std::string& file, int index, uint32_t pixelSize, bool embolden,
               bool oblique) {
        const auto key = std::make_tuple(file, index, pixelSize, embolden, oblique);
        if (auto it = opened.find(key); it != opened.end()) return it->second.get();
        auto face = std::make_unique<Face>();
        if (FT_New_Face(library, file.c_str(), index, &face->face) != 0) {
            face->face = nullptr;
            return nullptr;
        }
        if (FT_Set_Pixel_Sizes(face->face, 0, pixelSize) != 0) return nullptr;
        if (oblique) {
            FT_Matrix shear{0x10000, 0x0366A, 0, 0x10000};  // a slant of about 12 degrees
            FT_Set_Transform(face->face, &shear, nullptr);
        }
        face->bEmbolden = embolden;
        face->bOblique = oblique;
        face->font = hb_ft_font_create_referenced(face->face);
        if (!face->font) return nullptr;
        Face* result = face.get();
        opened.emplace(key, std::move(face));
        return result;
    }

    FcConfig* config = nullptr;
    FT_Library library = nullptr;
    std::map<std::tuple<std::string, int, uint32_t, bool, bool>, std::unique_ptr<Face>> opened;
    std::map<std::tuple<std::string, uint32_t, bool, bool>, Face*> primaries;
    std::map<std::tuple<std::string, uint32_t, bool, bool, uint32_t>, Face*> fallbacks;
};

// The next code point of `text` at `at`, which moves past it; a broken sequence counts as one
// byte of U+FFFD, so that every byte belongs to some code point.
uint32_t NextCodePoint(std::string_view text, size_t& at) {
    const auto b0 = static_cast<uint8_t>(text[at++]);
    if (b0 < 0x80) return b0;
    const int extra = b0 >= 0xF0 && b0 < 0xF5 ? 3 : b0 >= 0xE0 ? 2 : b0 >= 0xC2 ? 1 : -1;
    if (extra < 0 || at + size_t(extra) > text.size()) return 0xFFFD;
    uint32_t cp = b0 & (0x3F >> extra);
    for (int i = 0; i < extra; ++i) {
        const auto b = static_cast<uint8_t>(text[at + size_t(i)]);
        if ((b & 0xC0) != 0x80) return 0xFFFD;
        cp = cp << 6 | (b & 0x3F);
    }
    at += size_t(extra);
    return cp;
}

// One glyph of a shaped line: its face, id and pen position in 26.6 pixels.
struct PlacedGlyph {
    Face* face;
    uint32_t glyph;
    int64_t x;
    int64_t y;
};

// Splits `text` into runs of one face each and shapes them one after the other. Returns the
// advance in 26.6 pixels. Called under the store's lock.
int64_t Shape(FontStore& store, Face* primary, const XFontSpec& font, std::string_view text,
              std::vector<PlacedGlyph>* glyphs) {
    int64_t pen = 0;
    hb_buffer_t* buffer = hb_buffer_create();
    size_t at = 0;
    while (at < text.size()) {
        const size_t start = at;
        Face* face = nullptr;
        size_t end = at;
        while (end < text.size()) {
            size_t next = end;
            const uint32_t cp = NextCodePoint(text, next);
            Face* own = primary;
            // Controls and marks that no face draws stay with the run they stand in.
            if (cp >= 0x20 && FT_Get_Char_Index(primary->face, cp) == 0)
                if (Face* other = store.Fallback(font, cp)) own = other;
            if (face && own != face) break;
            face = own;
            end = next;
        }
        at = end;
        hb_buffer_clear_contents(buffer);
        hb_buffer_add_utf8(buffer, text.data(), int(text.size()), unsigned(start),
                           int(end - start));
        hb_buffer_guess_segment_properties(buffer);
        hb_shape(face->font, buffer, nullptr, 0);
        unsigned count = 0;
        const hb_glyph_info_t* info = hb_buffer_get_glyph_infos(buffer, &count);
        const hb_glyph_position_t* pos = hb_buffer_get_glyph_positions(buffer, &count);
        for (unsigned i = 0; i < count; ++i) {
            if (glyphs)
                glyphs->push_back(
                    {face, info[i].codepoint, pen + pos[i].x_offset, int64_t(pos[i].y_offset)});
            pen += pos[i].x_advance;
        }
    }
    hb_buffer_destroy(buffer);
    return pen;
}

int32_t Round26_6(int64_t v) {
    return int32_t((v + 32) >> 6);
}

}  // namespace

bool XGetFontMetrics(const XFontSpec& font, XFontMetrics* metrics) {
    *metrics = {};
    FontStore& store = FontStore::Get();
    std::lock_guard lock(store.mutex);
    Face* face = store.Ready() ? store.Primary(font) : nullptr;
    if (!face) return false;
    const FT_Size_Metrics& m = face->face->size->metrics;
    metrics->nAscent = Round26_6(m.ascender);
    metrics->nDescent = Round26_6(-m.descender);
    metrics->nHeight = metrics->nAscent + metrics->nDescent;
    return true;
}

int32_t XMeasureText(const XFontSpec& font, std::string_view utf8) {
    if (utf8.empty()) return 0;
    FontStore& store = FontStore::Get();
    std::lock_guard lock(store.mutex);
    Face* face = store.Ready() ? store.Primary(font) : nullptr;
    if (!face) return 0;
    return Round26_6(Shape(store, face, font, utf8, nullptr));
}

bool XRenderText(const XFontSpec& font, std::string_view utf8, XTextMask* mask) {
    *mask = {};
    FontStore& store = FontStore::Get();
    std::lock_guard lock(store.mutex);
    Face* primary = store.Ready() ? store.Primary(font) : nullptr;
    if (!primary) return false;
    if (utf8.empty()) return true;
    std::vector<PlacedGlyph> glyphs;
    mask->nAdvance = Round26_6(Shape(store, primary, font, utf8, &glyphs));

    // Each glyph's bitmap, placed relative to the pen's start on the baseline.
    struct Bitmap {
        int32_t left, top, width, height;
        std::vector<uint8_t> rows;
    };
    std::vector<Bitmap> bitmaps;
    int32_t minX = INT32_MAX, minY = INT32_MAX, maxX = INT32_MIN, maxY = INT32_MIN;
    for (const PlacedGlyph& g : glyphs) {
        FT_Face face = g.face->face;
        if (FT_Load_Glyph(face, g.glyph, FT_LOAD_DEFAULT | FT_LOAD_NO_BITMAP) != 0) continue;
        if (g.face->bEmbolden && face->glyph->format == FT_GLYPH_FORMAT_OUTLINE)
            FT_Outline_Embolden(&face->glyph->outline,
                                FT_MulFix(face->units_per_EM, face->size->metrics.y_scale) / 24);
        if (FT_Render_Glyph(face->glyph, FT_RENDER_MODE_NORMAL) != 0) continue;
        const FT_Bitmap& bm = face->glyph->bitmap;
        if (bm.width == 0 || bm.rows == 0 || bm.pixel_mode != FT_PIXEL_MODE_GRAY) continue;
        Bitmap b;
        b.left = Round26_6(g.x) + face->glyph->bitmap_left;
        b.top = -Round26_6(g.y) - face->glyph->bitmap_top;
        b.width = int32_t(bm.width);
        b.height = int32_t(bm.rows);
        b.rows.resize(size_t(b.width) * size_t(b.height));
        for (int32_t y = 0; y < b.height; ++y)
            std::copy_n(bm.buffer + ptrdiff_t(y) * bm.pitch, b.width,
                        b.rows.begin() + ptrdiff_t(y) * b.width);
        minX = std::min(minX, b.left), minY = std::min(minY, b.top);
        maxX = std::max(maxX, b.left + b.width), maxY = std::max(maxY, b.top + b.height);
        bitmaps.push_back(std::move(b));
    }
    if (bitmaps.empty()) return true;  // blanks only
    if (int64_t(maxX) - minX > kMaxMaskWidth || int64_t(maxY) - minY > kMaxMaskHeight) {
        *mask = {};
        return false;
    }
    mask->nLeft = minX, mask->nTop = minY;
    mask->nWidth = maxX - minX, mask->nHeight = maxY - minY;
    mask->coverage.assign(size_t(mask->nWidth) * size_t(mask->nHeight), 0);
    for (const Bitmap& b : bitmaps)
        for (int32_t y = 0; y < b.height; ++y) {
            uint8_t* out = &mask->coverage[size_t(b.top - minY + y) * size_t(mask->nWidth) +
                                           size_t(b.left - minX)];
            const uint8_t* in = &b.rows[size_t(y) * size_t(b.width)];
            // Overlapping glyphs (kerned pairs, marks) add up, to full coverage at most.
            for (int32_t x = 0; x < b.width; ++x) out[x] = uint8_t(std::min(255, out[x] + in[x]));
        }
    return true;
}

bool XBlendMask(XDib& target, const XTextMask& mask, int32_t x, int32_t baseline, uint32_t colour,
                const XRect& clip) {
    if (target.IsEmpty() || (target.nBpp != 24 && target.nBpp != 32)) return false;
    const int64_t originX = int64_t(x) + mask.nLeft, originY = int64_t(baseline) + mask.nTop;
    const int64_t left = std::max<int64_t>({originX, clip.left, 0});
    const int64_t top = std::max<int64_t>({originY, clip.top, 0});
    const int64_t right =
        std::min<int64_t>({originX + mask.nWidth, clip.right, int64_t(target.nWidth)});
    const int64_t bottom =
        std::min<int64_t>({originY + mask.nHeight, clip.bottom, int64_t(target.nHeight)});
    const uint32_t channel[3] = {(colour >> 16) & 0xFF, (colour >> 8) & 0xFF, colour & 0xFF};
    const uint32_t bytes = target.nBytesPerPixel;
    for (int64_t py = top; py < bottom; ++py) {
        const uint8_t* cov =
            &mask.coverage[size_t(py - originY) * size_t(mask.nWidth) + size_t(left - originX)];
        uint8_t* px = target.GetRow(uint32_t(py)) + size_t(left) * bytes;
        for (int64_t px_x = left; px_x < right; ++px_x, ++cov, px += bytes) {
            const uint32_t a = *cov;
            if (a == 0) continue;
            for (int c = 0; c < 3; ++c)
                px[c] = uint8_t((px[c] * (255 - a) + channel[c] * a + 127) / 255);
            if (bytes == 4) px[3] = uint8_t(a + (px[3] * (255 - a) + 127) / 255);
        }
    }
    return true;
}

std::string XEllipsizeMiddle(const XFontSpec& font, std::string_view utf8, int32_t maxWidth) {
    static constexpr std::string_view kEllipsis = "\xE2\x80\xA6";  // U+2026
    if (XMeasureText(font, utf8) <= maxWidth) return std::string(utf8);
    // Byte offsets of the code points, so that no cut falls inside one.
    std::vector<size_t> starts;
    for (size_t at = 0; at < utf8.size();) {
        starts.push_back(at);
        NextCodePoint(utf8, at);
    }
    const size_t count = starts.size();
    // `kept` code points survive: the first half from the start, the rest (the file name's
    // side, by one more when odd) from the end.
    const auto form = [&](size_t kept) {
        const size_t head = kept / 2, tail = kept - head;
        std::string s(utf8.substr(0, starts[head]));
        s += kEllipsis;
        if (tail) s += utf8.substr(starts[count - tail]);
        return s;
    };
    // The width grows with what is kept; find the most that still fits.
    size_t lo = 0, hi = count - 1;
    while (lo < hi) {
        const size_t mid = (lo + hi + 1) / 2;
        if (XMeasureText(font, form(mid)) <= maxWidth)
            lo = mid;
        else
            hi = mid - 1;
    }
    return form(lo);
}

bool XDrawTextLine(XDib& target, const XRect& rect, const XFontSpec& font, std::string_view utf8,
                   uint32_t colour, uint32_t flags) {
    if (target.IsEmpty() || (target.nBpp != 24 && target.nBpp != 32)) return false;
    XFontMetrics metrics;
    if (!XGetFontMetrics(font, &metrics)) return false;
    const std::string line = flags & XTEXT_MIDDLE_ELLIPSIS
                                 ? XEllipsizeMiddle(font, utf8, rect.Width())
                                 : std::string(utf8);
    XTextMask mask;
    if (!XRenderText(font, line, &mask)) return false;
    int32_t x = rect.left, top = rect.top;
    if (flags & XTEXT_CENTRE) {
        x += (rect.Width() - mask.nAdvance) / 2;
        top += (rect.Height() - metrics.nHeight) / 2;
    }
    return XBlendMask(target, mask, x, top + metrics.nAscent, colour, rect);
}
