#include "base/md5.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace {

// floor(abs(sin(i + 1)) * 2^32) for i = 0..63.
constexpr std::array<uint32_t, 64> kSine = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391,
};

// Left-rotation amounts: four per round, repeated over the round's sixteen steps.
constexpr std::array<int, 16> kShift = {7, 12, 17, 22, 5, 9, 14, 20, 4, 11, 16, 23, 6, 10, 15, 21};

}  // namespace

void XMd5::Reset() {
    m_state = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};
    m_nBytes = 0;
}

void XMd5::Transform(const unsigned char* block) {
    uint32_t x[16];
    for (int i = 0; i < 16; ++i) {
        const unsigned char* b = block + 4 * i;
        x[i] = uint32_t(b[0]) | uint32_t(b[1]) << 8 | uint32_t(b[2]) << 16 | uint32_t(b[3]) << 24;
    }
    uint32_t a = m_state[0], b = m_state[1], c = m_state[2], d = m_state[3];
    for (int i = 0; i < 64; ++i) {
        uint32_t f;
        int g;
        switch (i / 16) {
            case 0:
                f = (b & c) | (~b & d);
                g = i;
                break;
            case 1:
                f = (d & b) | (~d & c);
                g = (5 * i + 1) % 16;
                break;
            case 2:
                f = b ^ c ^ d;
                g = (3 * i + 5) % 16;
                break;
            default:
                f = c ^ (b | ~d);
                g = (7 * i) % 16;
                break;
        }
        const uint32_t rotated = std::rotl(a + f + kSine[i] + x[g], kShift[(i / 16) * 4 + i % 4]);
        a = d;
        d = c;
        c = b;
        b += rotated;
    }
    m_state[0] += a;
    m_state[1] += b;
    m_state[2] += c;
    m_state[3] += d;
}

void XMd5::Update(const void* data, size_t size) {
    const auto* p = static_cast<const unsigned char*>(data);
    size_t used = m_nBytes % 64;
    m_nBytes += size;
    if (used > 0) {
        const size_t take = std::min(size, 64 - used);
        std::memcpy(m_buffer.data() + used, p, take);
        p += take;
        size -= take;
        if (used + take < 64) return;
        Transform(m_buffer.data());
    }
    for (; size >= 64; p += 64, size -= 64) Transform(p);
    if (size > 0) std::memcpy(m_buffer.data(), p, size);
}

XMd5::Digest XMd5::Final() {
    const uint64_t bits = m_nBytes * 8;
    // A 0x80 byte, zeros up to 56 mod 64, then the bit length in little-endian order.
    unsigned char pad[72] = {0x80};
    const size_t used = m_nBytes % 64;
    const size_t padLen = (used < 56 ? 56 : 120) - used;
    for (int i = 0; i < 8; ++i) pad[padLen + i] = static_cast<unsigned char>(bits >> (8 * i));
    Update(pad, padLen + 8);

    Digest digest;
    for (int i = 0; i < 16; ++i) digest[i] = static_cast<uint8_t>(m_state[i / 4] >> (8 * (i % 4)));
    Reset();
    return digest;
}

std::string Md5Hex(std::string_view text) {
    XMd5 md5;
    md5.Update(text.data(), text.size());
    static constexpr char kHex[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(32);
    for (const uint8_t byte : md5.Final()) {
        hex.push_back(kHex[byte >> 4]);
        hex.push_back(kHex[byte & 0x0F]);
    }
    return hex;
}
