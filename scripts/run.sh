#!/usr/bin/env bash
# Installs what is needed, builds, and shows the bundled sample book.
# Until the window exists, the first page of the book is rendered to build/first-page.bmp.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/bootstrap.sh
scripts/build.sh build
build/bin/orlimo-render build/samples/book build/first-page.bmp
echo "First page of the sample book written to build/first-page.bmp"
