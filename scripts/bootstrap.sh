#!/usr/bin/env bash
# Installs every Debian package that the program and its tests build with. Idempotent: when
# everything is present it changes nothing and needs no network.
set -euo pipefail

PACKAGES=(
    # tool chain
    build-essential cmake ninja-build ccache pkg-config clang libclang-rt-14-dev clang-format
    # window toolkit
    qt6-base-dev libgl-dev
    # picture formats and colour
    libturbojpeg0-dev libjpeg62-turbo-dev libpng-dev libtiff-dev libjxr-dev libopenjp2-7-dev
    libraw-dev liblcms2-dev libgs-common libwebp-dev libavif-dev libheif-dev libjxl-dev
    # archives and their cryptography
    libarchive-dev zlib1g-dev libbz2-dev liblzma-dev libdeflate-dev libssl-dev p7zip-full
    # the tools that make archive fixtures in the tests
    tar gzip bzip2 zip gcab
    # text, SIMD, sound
    libfreetype-dev libharfbuzz-dev libfontconfig-dev fonts-nanum fonts-dejavu-core libhwy-dev
    libcanberra-dev
    # tests and benchmarks
    libgtest-dev libgmock-dev libbenchmark-dev
)

missing=()
for package in "${PACKAGES[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$package")
    fi
done
if [ ${#missing[@]} -eq 0 ]; then
    echo "bootstrap: all ${#PACKAGES[@]} packages present"
    exit 0
fi

sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
echo "bootstrap: installing ${missing[*]}"
$sudo apt-get -o DPkg::Lock::Timeout=600 update -qq
$sudo env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=600 install -y -qq \
    --no-install-recommends "${missing[@]}"
