// MD5 message digest (RFC 1321). Used to name cached and extracted files and to compare
// contents, never for security.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

class XMd5 {
public:
    using Digest = std::array<uint8_t, 16>;

    XMd5() { Reset(); }

    // Starts a new message; Final() does this too.
    void Reset();

    // Adds `size` bytes to the message; any split of a message into calls gives the same digest.
    void Update(const void* data, size_t size);

    // Pads the message, returns its digest and starts a new message.
    Digest Final();

private:
    void Transform(const unsigned char* block);

    std::array<uint32_t, 4> m_state{};
    uint64_t m_nBytes = 0;                     // message length so far
    std::array<unsigned char, 64> m_buffer{};  // the unfinished block, m_nBytes % 64 bytes
};

// The digest of `text` as 32 lower-case hexadecimal digits.
std::string Md5Hex(std::string_view text);
