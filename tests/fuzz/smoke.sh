#!/bin/sh
# smoke.sh BUILD_DIR SECONDS: runs the load fuzzer from the seed corpus for SECONDS seconds.
# Fails when the fuzzer finds a crash, a leak or a hang; the input that did it is left in
# BUILD_DIR/fuzz/ as crash-*, leak-* or timeout-*.
set -eu
if [ $# -ne 2 ]; then
    echo "usage: $0 BUILD_DIR SECONDS" >&2
    exit 2
fi
build=$(cd "$1" && pwd)
seconds=$2
fuzzer="$build/fuzz/fuzz_load"
seeds="$build/fuzz/seeds"
[ -x "$fuzzer" ] || { echo "no $fuzzer: configure with -DORLIMO_FUZZ=ON and build" >&2; exit 2; }
[ -d "$seeds" ] || { echo "no seed corpus in $seeds" >&2; exit 2; }

# The fuzzer adds what it finds to the corpus folder; work on a copy so the seeds stay seeds.
corpus=$(mktemp -d "${TMPDIR:-/tmp}/orlimo-fuzz.XXXXXX")
trap 'rm -rf "$corpus"' EXIT
cp "$seeds"/* "$corpus"/

"$fuzzer" -max_total_time="$seconds" -rss_limit_mb=2048 -timeout=30 -print_final_stats=1 \
    -artifact_prefix="$build/fuzz/" "$corpus"
