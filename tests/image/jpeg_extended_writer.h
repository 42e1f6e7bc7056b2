// A small lossless JPEG writer for the tests and fuzz seeds of the extended JPEG decoder: 2 to 16
// bits, all seven predictors, point transform, restart intervals, sampling factors, one scan
// for all components or one each, and the markers that decide the colour space. Its streams
// were checked once against an independent decoder, which refuses restart intervals that end
// inside a row; ours accepts them.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

namespace jpegxtest {

using Bytes = std::vector<uint8_t>;

struct LosslessComponent {
    uint8_t id = 1, h = 1, v = 1;
    // ceil(width * h / hMax) x ceil(height * v / vMax) samples below 2^precision.
    std::vector<uint16_t> samples;
};

enum class ColourMarker { kNone, kJfif, kAdobe };

struct LosslessFrame {
    uint32_t width = 0, height = 0;
    int precision = 8, predictor = 1, pointTransform = 0;
    uint32_t restartInterval = 0;  // in MCUs
    bool interleaved = true;       // false: one scan per component
    ColourMarker marker = ColourMarker::kNone;
    uint8_t adobeTransform = 0;
    std::vector<LosslessComponent> comps;
};

inline void Segment(Bytes& out, uint8_t marker, const Bytes& body) {
    out.insert(out.end(),
               {0xFF, marker, uint8_t((body.size() + 2) >> 8), uint8_t(body.size() + 2)});
    out.insert(out.end(), body.begin(), body.end());
}

inline Bytes WriteLossless(const LosslessFrame& frame) {
    uint32_t hMax = 1, vMax = 1;
    for (const LosslessComponent& c : frame.comps)
        hMax = std::max<uint32_t>(hMax, c.h), vMax = std::max<uint32_t>(vMax, c.v);
    const uint32_t mcusX = (frame.width + hMax - 1) / hMax,
                   mcusY = (frame.height + vMax - 1) / vMax;
    auto realW = [&](const LosslessComponent& c) { return (frame.width * c.h + hMax - 1) / hMax; };
    auto realH = [&](const LosslessComponent& c) { return (frame.height * c.v + vMax - 1) / vMax; };

    Bytes out = {0xFF, 0xD8};
    if (frame.marker == ColourMarker::kJfif)
        Segment(out, 0xE0, {'J', 'F', 'I', 'F', 0, 1, 1, 0, 0, 1, 0, 1, 0, 0});
    if (frame.marker == ColourMarker::kAdobe)
        Segment(out, 0xEE, {'A', 'd', 'o', 'b', 'e', 0, 100, 0, 0, 0, 0, frame.adobeTransform});
    Bytes sof = {uint8_t(frame.precision), uint8_t(frame.height >> 8),
                 uint8_t(frame.height),    uint8_t(frame.width >> 8),
                 uint8_t(frame.width),     uint8_t(frame.comps.size())};
    for (const LosslessComponent& c : frame.comps)
        sof.insert(sof.end(), {c.id, uint8_t((c.h << 4) | c.v), 0});
    Segment(out, 0xC3, sof);
    // Differences of every category 0..16 as five-bit codes.
    Bytes dht = {0x00, 0, 0, 0, 0, 17, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    for (uint8_t s = 0; s <= 16; ++s) dht.push_back(s);
    Segment(out, 0xC4, dht);
    if (frame.restartInterval)
        Segment(out, 0xDD, {uint8_t(frame.restartInterval >> 8), uint8_t(frame.restartInterval)});

    // Sample (x, y) of component `ci` shifted down by the point transform; where an interleaved
    // scan covers more than the component has, its last column and row repeat.
    auto sample = [&](size_t ci, uint32_t x, uint32_t y) {
        const LosslessComponent& c = frame.comps[ci];
        const size_t at = size_t(std::min(y, realH(c) - 1)) * realW(c) + std::min(x, realW(c) - 1);
        return int32_t(c.samples[at] >> frame.pointTransform);
    };
    // Entropy-coded bits, most significant first, 0xFF stuffed.
    uint32_t acc = 0;
    int count = 0;
    auto put = [&](uint32_t value, int n) {
        for (int i = n - 1; i >= 0; --i) {
            acc = (acc << 1) | ((value >> i) & 1);
            if (++count < 8) continue;
            out.push_back(uint8_t(acc));
            if (uint8_t(acc) == 0xFF) out.push_back(0);
            acc = 0, count = 0;
        }
    };
    auto align = [&] {  // the last byte padded with one bits, as encoders do before a marker
        while (count) put(1, 1);
    };
    const int32_t initial = 1 << (frame.precision - frame.pointTransform - 1);
    auto scan = [&](const std::vector<size_t>& members) {
        Bytes sos = {uint8_t(members.size())};
        for (size_t ci : members) sos.insert(sos.end(), {frame.comps[ci].id, 0x00});
        sos.insert(sos.end(), {uint8_t(frame.predictor), 0, uint8_t(frame.pointTransform)});
        Segment(out, 0xDA, sos);
        const bool one = members.size() == 1;
        const uint32_t unitsX = one ? realW(frame.comps[members[0]]) : mcusX;
        const uint32_t unitsY = one ? realH(frame.comps[members[0]]) : mcusY;
        std::vector<uint32_t> intervalRow(frame.comps.size(), 0);
        std::vector<bool> first(frame.comps.size(), true);
        auto code = [&](size_t ci, uint32_t x, uint32_t y) {
            int32_t pred = initial;
            if (first[ci]) {
                first[ci] = false;
            } else if (y == intervalRow[ci] || y == 0) {
                pred = x > 0 ? sample(ci, x - 1, y) : y > 0 ? sample(ci, x, y - 1) : initial;
            } else if (x == 0) {
                pred = sample(ci, x, y - 1);
            } else {
                const int32_t a = sample(ci, x - 1, y), b = sample(ci, x, y - 1);
                const int32_t c = sample(ci, x - 1, y - 1);
                const int32_t preds[8] = {
                    0, a, b, c, a + b - c, a + ((b - c) >> 1), b + ((a - c) >> 1), (a + b) >> 1};
                pred = preds[frame.predictor];
            }
            const int32_t diff = int16_t(uint16_t(sample(ci, x, y) - pred));
            const uint32_t mag = uint32_t(diff < 0 ? -diff : diff);
            int s = 0;
            while ((mag >> s) != 0) ++s;
            put(uint32_t(s), 5);  // 16 for -32768, without bits
            if (s && s < 16) put(uint32_t(diff > 0 ? diff : diff + (1 << s) - 1), s);
        };
        for (uint32_t my = 0, mcu = 0, rst = 0; my < unitsY; ++my)
            for (uint32_t mx = 0; mx < unitsX; ++mx, ++mcu) {
                if (frame.restartInterval && mcu > 0 && mcu % frame.restartInterval == 0) {
                    align();
                    out.insert(out.end(), {0xFF, uint8_t(0xD0 + (rst++ & 7))});
                    for (size_t ci : members)
                        intervalRow[ci] = one ? my : my * frame.comps[ci].v, first[ci] = true;
                }
                for (size_t ci : members) {
                    const uint32_t h = one ? 1 : frame.comps[ci].h, v = one ? 1 : frame.comps[ci].v;
                    for (uint32_t by = 0; by < v; ++by)
                        for (uint32_t bx = 0; bx < h; ++bx) code(ci, mx * h + bx, my * v + by);
                }
            }
        align();
    };
    std::vector<size_t> all;
    for (size_t ci = 0; ci < frame.comps.size(); ++ci)
        frame.interleaved ? all.push_back(ci) : scan({ci});
    if (frame.interleaved) scan(all);
    out.insert(out.end(), {0xFF, 0xD9});
    return out;
}

// A test picture of `w` x `h` samples below 2^precision: ramps, texture, and the extremes 0 and
// the largest value, so that every difference category turns up.
inline std::vector<uint16_t> TestPlane(uint32_t w, uint32_t h, int precision, uint32_t seed) {
    const uint32_t range = 1u << precision;
    std::vector<uint16_t> s(size_t(w) * h);
    for (uint32_t y = 0; y < h; ++y)
        for (uint32_t x = 0; x < w; ++x) {
            uint32_t v = (x * range / w + ((x * y * 7 + seed * 13) % 23) * range / 92) % range;
            if ((x + y + seed) % 29 == 0) v = range - 1;
            if ((x * 3 + y + seed) % 31 == 0) v = 0;
            s[size_t(y) * w + x] = uint16_t(v);
        }
    return s;
}

// A one-component lossless picture of TestPlane samples.
inline LosslessFrame GreyFrame(uint32_t w, uint32_t h, int precision, int predictor,
                               int pointTransform = 0, uint32_t restart = 0) {
    return {.width = w,
            .height = h,
            .precision = precision,
            .predictor = predictor,
            .pointTransform = pointTransform,
            .restartInterval = restart,
            .comps = {{1, 1, 1, TestPlane(w, h, precision, uint32_t(predictor))}}};
}

}  // namespace jpegxtest
