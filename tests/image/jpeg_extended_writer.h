// A small lossless JPEG writer for the tests and fuzz seeds of the extended JPEG decoder: any
// precision from 2 to 16, all seven predictors, point transform, restart intervals, sampling
// factors, one interleaved scan or one scan per component, and the markers that decide the
// colour space. Its streams were checked once against an independent decoder: predictors 1..7
// at 2, 6, 12 and 16 bits, point transforms, restart intervals of whole rows, subsampled
// components in one scan and in a scan each. That decoder refuses restart intervals that end
// inside a row; ours accepts them (see the decoder's restart rule).
#pragma once

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

namespace jpegxtest {

using Bytes = std::vector<uint8_t>;

struct LosslessComponent {
    uint8_t id = 1;
    uint8_t h = 1, v = 1;
    // ceil(width * h / hMax) x ceil(height * v / vMax) samples below 2^precision.
    std::vector<uint16_t> samples;
};

enum class ColourMarker { kNone, kJfif, kAdobe };

struct LosslessSpec {
    uint32_t width = 0, height = 0;
    int precision = 8;
    int predictor = 1;
    int pointTransform = 0;
    uint32_t restartInterval = 0;  // in MCUs
    bool interleaved = true;       // false: one scan per component
    ColourMarker marker = ColourMarker::kNone;
    uint8_t adobeTransform = 0;
    std::vector<LosslessComponent> comps;
};

class BitWriter {
public:
    void Put(uint32_t value, int n) {
        for (int i = n - 1; i >= 0; --i) {
            acc = (acc << 1) | ((value >> i) & 1);
            if (++count == 8) Flush8();
        }
    }
    // Pads the last byte with one bits, as encoders do before a marker.
    void Align() {
        while (count) Put(1, 1);
    }
    Bytes out;

private:
    void Flush8() {
        out.push_back(uint8_t(acc));
        if (uint8_t(acc) == 0xFF) out.push_back(0);
        acc = 0, count = 0;
    }
    uint32_t acc = 0;
    int count = 0;
};

inline void Segment(Bytes& out, uint8_t marker, const Bytes& body) {
    out.insert(out.end(),
               {0xFF, marker, uint8_t((body.size() + 2) >> 8), uint8_t(body.size() + 2)});
    out.insert(out.end(), body.begin(), body.end());
}

inline Bytes WriteLossless(const LosslessSpec& spec) {
    uint32_t hMax = 1, vMax = 1;
    for (const LosslessComponent& c : spec.comps)
        hMax = std::max<uint32_t>(hMax, c.h), vMax = std::max<uint32_t>(vMax, c.v);
    const uint32_t mcusX = (spec.width + hMax - 1) / hMax;
    const uint32_t mcusY = (spec.height + vMax - 1) / vMax;

    Bytes out = {0xFF, 0xD8};
    if (spec.marker == ColourMarker::kJfif)
        Segment(out, 0xE0, {'J', 'F', 'I', 'F', 0, 1, 1, 0, 0, 1, 0, 1, 0, 0});
    if (spec.marker == ColourMarker::kAdobe)
        Segment(out, 0xEE, {'A', 'd', 'o', 'b', 'e', 0, 100, 0, 0, 0, 0, spec.adobeTransform});
    Bytes sof = {uint8_t(spec.precision),  uint8_t(spec.height >> 8), uint8_t(spec.height),
                 uint8_t(spec.width >> 8), uint8_t(spec.width),       uint8_t(spec.comps.size())};
    for (const LosslessComponent& c : spec.comps)
        sof.insert(sof.end(), {c.id, uint8_t((c.h << 4) | c.v), 0});
    Segment(out, 0xC3, sof);
    // Differences of every category 0..16 as five-bit codes.
    Bytes dht = {0x00, 0, 0, 0, 0, 17, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    for (uint8_t s = 0; s <= 16; ++s) dht.push_back(s);
    Segment(out, 0xC4, dht);
    if (spec.restartInterval)
        Segment(out, 0xDD, {uint8_t(spec.restartInterval >> 8), uint8_t(spec.restartInterval)});

    // Each component's plane, padded by repeating its last column and row where an interleaved
    // scan covers more than the component has, and shifted down by the point transform.
    struct Plane {
        uint32_t w, h, realW, realH;
        std::vector<int32_t> s;
        int32_t At(uint32_t x, uint32_t y) const { return s[size_t(y) * w + x]; }
    };
    std::vector<Plane> planes;
    for (const LosslessComponent& c : spec.comps) {
        Plane p;
        p.realW = (spec.width * c.h + hMax - 1) / hMax;
        p.realH = (spec.height * c.v + vMax - 1) / vMax;
        p.w = spec.interleaved ? mcusX * c.h : p.realW;
        p.h = spec.interleaved ? mcusY * c.v : p.realH;
        p.s.resize(size_t(p.w) * p.h);
        for (uint32_t y = 0; y < p.h; ++y)
            for (uint32_t x = 0; x < p.w; ++x)
                p.s[size_t(y) * p.w + x] = c.samples[size_t(std::min(y, p.realH - 1)) * p.realW +
                                                     std::min(x, p.realW - 1)] >>
                                           spec.pointTransform;
        planes.push_back(std::move(p));
    }

    const int32_t initial = 1 << (spec.precision - spec.pointTransform - 1);
    auto scan = [&](const std::vector<size_t>& members) {
        Bytes sos = {uint8_t(members.size())};
        for (size_t ci : members) sos.insert(sos.end(), {spec.comps[ci].id, 0x00});
        sos.insert(sos.end(), {uint8_t(spec.predictor), 0, uint8_t(spec.pointTransform)});
        Segment(out, 0xDA, sos);
        const bool one = members.size() == 1;
        const uint32_t unitsX = one ? planes[members[0]].w : mcusX;
        const uint32_t unitsY = one ? planes[members[0]].h : mcusY;
        std::vector<uint32_t> intervalRow(planes.size(), 0);
        std::vector<bool> first(planes.size(), true);
        BitWriter bits;
        uint32_t mcu = 0, rst = 0;
        auto code = [&](size_t ci, uint32_t x, uint32_t y) {
            const Plane& p = planes[ci];
            int32_t pred;
            if (first[ci]) {
                pred = initial;
                first[ci] = false;
            } else if (y == intervalRow[ci] || y == 0) {
                pred = x > 0 ? p.At(x - 1, y) : y > 0 ? p.At(x, y - 1) : initial;
            } else if (x == 0) {
                pred = p.At(x, y - 1);
            } else {
                const int32_t ra = p.At(x - 1, y), rb = p.At(x, y - 1), rc = p.At(x - 1, y - 1);
                const int32_t preds[8] = {0,
                                          ra,
                                          rb,
                                          rc,
                                          ra + rb - rc,
                                          ra + ((rb - rc) >> 1),
                                          rb + ((ra - rc) >> 1),
                                          (ra + rb) >> 1};
                pred = preds[spec.predictor];
            }
            const int32_t diff = int16_t(uint16_t(p.At(x, y) - pred));
            if (diff == -32768) {
                bits.Put(16, 5);
                return;
            }
            const uint32_t mag = uint32_t(diff < 0 ? -diff : diff);
            int s = 0;
            while ((mag >> s) != 0) ++s;
            bits.Put(uint32_t(s), 5);
            if (s) bits.Put(uint32_t(diff > 0 ? diff : diff + (1 << s) - 1), s);
        };
        for (uint32_t my = 0; my < unitsY; ++my)
            for (uint32_t mx = 0; mx < unitsX; ++mx, ++mcu) {
                if (spec.restartInterval && mcu > 0 && mcu % spec.restartInterval == 0) {
                    bits.Align();
                    bits.out.insert(bits.out.end(), {0xFF, uint8_t(0xD0 + (rst++ & 7))});
                    for (size_t ci : members) {
                        intervalRow[ci] = one ? my : my * spec.comps[ci].v;
                        first[ci] = true;
                    }
                }
                if (one) {
                    code(members[0], mx, my);
                    continue;
                }
                for (size_t ci : members)
                    for (uint32_t by = 0; by < spec.comps[ci].v; ++by)
                        for (uint32_t bx = 0; bx < spec.comps[ci].h; ++bx)
                            code(ci, mx * spec.comps[ci].h + bx, my * spec.comps[ci].v + by);
            }
        bits.Align();
        out.insert(out.end(), bits.out.begin(), bits.out.end());
    };
    std::vector<size_t> all;
    for (size_t ci = 0; ci < spec.comps.size(); ++ci) all.push_back(ci);
    if (spec.interleaved) {
        scan(all);
    } else {
        for (size_t ci : all) scan({ci});
    }
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
inline LosslessSpec GreySpec(uint32_t w, uint32_t h, int precision, int predictor,
                             int pointTransform = 0, uint32_t restart = 0) {
    LosslessSpec spec;
    spec.width = w, spec.height = h;
    spec.precision = precision, spec.predictor = predictor;
    spec.pointTransform = pointTransform, spec.restartInterval = restart;
    spec.comps.push_back({1, 1, 1, TestPlane(w, h, precision, uint32_t(predictor))});
    return spec;
}

}  // namespace jpegxtest
