// A decoder of Deflate64, the variant of Deflate with a 64 KiB window: length code 285 carries
// 16 extra bits and distance codes 30 and 31 reach back to 65536 bytes. zlib doesn't read it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

class CTarnInflate64 {
public:
    // Fills `buffer` with up to `max` bytes of input; *got 0 at its end. False: the read failed.
    using ReadFn = std::function<bool(uint8_t* buffer, uint32_t max, uint32_t* got)>;
    // Takes decoded bytes. False stops the decoder.
    using WriteFn = std::function<bool(const uint8_t* data, size_t size)>;

    enum class Result { Ok, Corrupt, ReadFailed, WriteFailed };

    // Decodes one stream up to its final block.
    static Result Run(const ReadFn& read, const WriteFn& write);
};
