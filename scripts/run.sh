#!/usr/bin/env bash
# Installs what is needed, builds, and shows the bundled sample book.
# Until the window exists, the first page of the book, opened as the comic archive
# build/samples/book.cbz, is rendered to build/first-page.bmp.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/bootstrap.sh
scripts/build.sh build
build/bin/orlimo-render build/samples/book.cbz build/first-page.bmp
echo "First page of the sample book (build/samples/book.cbz) written to build/first-page.bmp"
