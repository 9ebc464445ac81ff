#!/bin/bash
# The demonstration: real PAM transactions through libpam, with the unmodified
# pam_mg_acl.so, against the sample policy in examples/policy and a simulated
# Mossgrove kernel module. Every login is printed with its decision, the
# syslog lines, the secure-log entries and what the kernel module was told.
#
# It runs in a private mount namespace (own /etc, /run and /dev/log), so it
# needs root; the host's own files are never touched.
set -euo pipefail
cd "$(dirname "$0")/.."

if [ "$(id -u)" -ne 0 ]; then
  echo "demo.sh: run as root (the demonstration builds a private mount namespace)" >&2
  exit 1
fi
bash scripts/deps.sh

dir=build/demo
mkdir -p "$dir"
if ! { cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMG_BENCH=OFF &&
       cmake --build "$dir" -j "$(nproc)" --target mg_demo; } >"$dir/build.log" 2>&1; then
  cat "$dir/build.log"
  echo "demo.sh: build failed" >&2
  exit 1
fi
exec "$dir/demo/mg_demo" examples/policy
