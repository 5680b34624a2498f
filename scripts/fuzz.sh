#!/usr/bin/env bash
# Builds the fuzz targets (clang, AddressSanitizer, UBSan) into BUILD_DIR and runs each for
# SECONDS from its seed corpus. New inputs found go to BUILD_DIR/corpus/<target>/, never into
# the tree; a crash leaves its input in BUILD_DIR/crashes/ and ends the script with status 1.
#   scripts/fuzz.sh [BUILD_DIR] [SECONDS] [JOBS]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build-fuzz}
seconds=${2:-60}
jobs=${3:-$(nproc)}

CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja -DBUILD_FUZZERS=ON \
  -DSANITIZE=address,undefined -DBUILD_TESTING=OFF -DBUILD_BENCHMARKS=OFF \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo ${CMAKE_FLAGS:-} >/dev/null
cmake --build "$build" -j "$jobs" --target fuzzers

mkdir -p "$build/crashes"
status=0
for target in fuzz_bus_handlers fuzz_config fuzz_frame_cutter fuzz_extend_box fuzz_alarm_speech \
    fuzz_stuffing fuzz_upgrade_file fuzz_scenario fuzz_nmea; do
  corpus="$build/corpus/$target"
  mkdir -p "$corpus"
  echo "fuzz: $target for ${seconds}s"
  if ! ASAN_OPTIONS=detect_leaks=1 "$build/fuzz/$target" -max_total_time="$seconds" \
      -print_final_stats=1 -max_len=4096 -timeout=10 \
      -artifact_prefix="$build/crashes/$target-" "$corpus" "fuzz/corpus/$target" \
      >"$build/$target.log" 2>&1; then
    echo "fuzz: $target failed; see $build/$target.log and $build/crashes/" >&2
    tail -40 "$build/$target.log" >&2
    status=1
  fi
  grep -E "^stat::number_of_executed_units|^stat::peak_rss_mb" "$build/$target.log" | \
    sed "s/^/fuzz: $target /" || true
done
exit $status
