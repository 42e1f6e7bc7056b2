#include <cstdio>
#include <memory>

#include "imgwrite/imgwrite.h"

namespace imgwrite {

uint8_t GreyOf(const Rgba& c) {
    return uint8_t((c.r + c.g + c.b) / 3);
}

bool BuildPalette(const Picture& picture, uint32_t maxEntries, std::vector<Rgba>& palette,
                  std::vector<uint8_t>& indices) {
    palette.clear();
    indices.assign(picture.pixels.size(), 0);
    for (size_t i = 0; i < picture.pixels.size(); ++i) {
        Rgba c = picture.pixels[i];
        c.a = 255;
        size_t k = 0;
        while (k < palette.size() && !(palette[k] == c)) ++k;
        if (k == palette.size()) {
            if (palette.size() >= maxEntries) return false;
            palette.push_back(c);
        }
        indices[i] = uint8_t(k);
    }
    return true;
}

bool WriteFile(const std::string& path, const Bytes& bytes) {
    std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path.c_str(), "wb"), std::fclose);
    if (!file) return false;
    if (!bytes.empty() && std::fwrite(bytes.data(), 1, bytes.size(), file.get()) != bytes.size())
        return false;
    return std::fclose(file.release()) == 0;
}

}  // namespace imgwrite
