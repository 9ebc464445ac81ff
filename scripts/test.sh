#!/bin/bash
# Builds and runs the whole test suite twice: plain, then with
# AddressSanitizer and UndefinedBehaviorSanitizer. Fails on any failure.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh

jobs=$(nproc)
status=0
for variant in plain asan; do
  dir=build/$variant
  opts=(-DCMAKE_BUILD_TYPE=RelWithDebInfo)
  [ "$variant" = asan ] && opts+=(-DMG_SANITIZE=ON -DMG_BENCH=OFF)
  echo "=== $variant build"
  mkdir -p "$dir"
  if ! { cmake -S . -B "$dir" "${opts[@]}" && cmake --build "$dir" -j "$jobs"; } >"$dir/build.log" 2>&1; then
    cat "$dir/build.log"
    echo "=== $variant build failed"
    exit 1
  fi
  echo "=== $variant tests"
  if ! (cd "$dir" && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
        ctest -j "$jobs" --timeout 600 --output-on-failure); then
    status=1
  fi
done
exit $status
