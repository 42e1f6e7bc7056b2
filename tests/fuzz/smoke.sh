#!/bin/sh
# smoke.sh BUILD_DIR SECONDS: runs every fuzz target of BUILD_DIR/fuzz from its seed corpus for
# SECONDS seconds each. Fails when a fuzzer finds a crash, a leak or a hang; the input that did
# it is left in BUILD_DIR/fuzz/ as crash-*, leak-* or timeout-*.
set -eu
if [ $# -ne 2 ]; then
    echo "usage: $0 BUILD_DIR SECONDS" >&2
    exit 2
fi
build=$(cd "$1" && pwd)
seconds=$2
found=0
for fuzzer in "$build"/fuzz/fuzz_*; do
    [ -x "$fuzzer" ] || continue
    found=1
    family=${fuzzer##*/fuzz_}
    # The fuzzer adds what it finds to the corpus folder; work on a copy so the seeds stay seeds.
    corpus=$(mktemp -d "${TMPDIR:-/tmp}/orlimo-fuzz.XXXXXX")
    if [ -d "$build/fuzz/seeds/$family" ]; then
        cp "$build/fuzz/seeds/$family"/* "$corpus"/ 2>/dev/null || true
    fi
    echo "== fuzz_$family for $seconds s"
    status=0
    "$fuzzer" -max_total_time="$seconds" -rss_limit_mb=2048 -timeout=30 -print_final_stats=1 \
        -artifact_prefix="$build/fuzz/" "$corpus" >"$build/fuzz/$family.log" 2>&1 || status=$?
    rm -rf "$corpus"
    grep -E '^(stat::number_of_executed_units|stat::average_exec_per_sec)' "$build/fuzz/$family.log" || true
    if [ $status -ne 0 ]; then
        tail -60 "$build/fuzz/$family.log"
        echo "fuzz_$family failed" >&2
        exit 1
    fi
done
[ $found -eq 1 ] || { echo "no fuzz targets in $build/fuzz: configure with -DORLIMO_FUZZ=ON" >&2; exit 2; }
