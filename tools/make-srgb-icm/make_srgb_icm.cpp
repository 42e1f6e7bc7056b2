// Writes the sRGB profile that the colour manager converts CMYK pictures into.
// Usage: make-srgb-icm OUTPUT
#include <lcms2.h>

#include <cstdio>

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: make-srgb-icm OUTPUT\n");
        return 2;
    }
    cmsHPROFILE profile = cmsCreate_sRGBProfile();
    const bool saved = profile && cmsSaveProfileToFile(profile, argv[1]);
    if (profile) cmsCloseProfile(profile);
    if (!saved) {
        std::fprintf(stderr, "make-srgb-icm: cannot write %s\n", argv[1]);
        return 1;
    }
    return 0;
}
