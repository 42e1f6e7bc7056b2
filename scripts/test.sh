#!/usr/bin/env bash
# Installs what is needed, builds, and runs every test: the unit tests, the same tests under
# AddressSanitizer and UndefinedBehaviorSanitizer, a short fuzzing run and the format check.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc)
scripts/bootstrap.sh

echo "== format check"
git ls-files '*.cpp' '*.h' | xargs clang-format --dry-run --Werror

echo "== unit tests"
scripts/build.sh build
ctest --test-dir build --output-on-failure -j "$jobs"

echo "== unit tests under AddressSanitizer and UndefinedBehaviorSanitizer"
scripts/build.sh build-asan -DCMAKE_BUILD_TYPE=Debug -DORLIMO_SANITIZE=ON -DORLIMO_BENCH=OFF
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
    ctest --test-dir build-asan --output-on-failure -j "$jobs"

echo "== fuzzing smoke run"
CC=clang CXX=clang++ scripts/build.sh build-fuzz -DORLIMO_FUZZ=ON -DORLIMO_SANITIZE=ON \
    -DORLIMO_TESTS=OFF -DORLIMO_BENCH=OFF
tests/fuzz/smoke.sh build-fuzz 20
echo "== all tests passed"
