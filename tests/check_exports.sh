#!/bin/bash
# Compares the dynamic symbols defined by the shared object with the export list.
set -eu
so=$1 list=$2
actual=$(nm -D --defined-only "$so" | awk '{print $NF}' | sort -u)
expected=$(sort -u "$list")
if [ "$actual" != "$expected" ]; then
  echo "exported symbols differ from the interface list (< exported only, > listed only):"
  diff <(echo "$actual") <(echo "$expected") || true
  exit 1
fi
echo "$(echo "$actual" | wc -l) symbols exported, as listed"
