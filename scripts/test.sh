#!/bin/bash
# Builds and runs the whole test suite twice: plain, then with
# AddressSanitizer and UndefinedBehaviorSanitizer; then builds the libFuzzer
# targets with clang and runs each one over its corpus; then builds the
# Debian package and checks it (scripts/package-check.sh). Fails on any
# failure.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh

jobs=$(nproc)
status=0
for variant in plain asan fuzz; do
  dir=build/$variant
  opts=(-DCMAKE_BUILD_TYPE=RelWithDebInfo)
  compilers=()
  case $variant in
    asan) opts+=(-DMG_SANITIZE=ON -DMG_BENCH=OFF) ;;
    fuzz) opts+=(-DMG_LIBFUZZER=ON); compilers=(CC=clang CXX=clang++) ;;
  esac
  echo "=== $variant build"
  mkdir -p "$dir"
  if ! { env "${compilers[@]}" cmake -S . -B "$dir" "${opts[@]}" &&
         cmake --build "$dir" -j "$jobs"; } >"$dir/build.log" 2>&1; then
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

echo "=== package"
bash scripts/package-check.sh || status=1
exit $status
