#!/usr/bin/env bash
# Configures and builds one build folder. Usage: build.sh DIR [extra cmake options...]
set -euo pipefail
cd "$(dirname "$0")/.."
dir=$1
shift
cmake -S . -B "$dir" -G Ninja -DORLIMO_WERROR=ON "$@" >/dev/null
ninja -C "$dir"
