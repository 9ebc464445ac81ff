#!/bin/bash
# Builds the Debian package from this tree with one command: an optimised
# build in build/package, installed under /usr, packed by cpack (DEB
# generator), which strips the binaries. The build type is the tests' own
# (RelWithDebInfo: -O2, as Debian builds its packages; the debug information
# goes with the stripping). Prints the path of the package (on standard
# output, alone; a failure's log goes to standard error).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh >&2

dir=build/package
mkdir -p "$dir"
# Only what the package holds is built (cpack would otherwise build every
# target first); scripts/package-check.sh adds the tests it runs on it.
if ! { cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr -DMG_BENCH=OFF \
         -DCMAKE_SKIP_INSTALL_ALL_DEPENDENCY=ON &&
       cmake --build "$dir" -j "$(nproc)" --target pam_mg_acl mgctl manpages mg_changelog &&
       rm -rf "$dir/deb" && (cd "$dir" && cpack); } >"$dir/package.log" 2>&1; then
  cat "$dir/package.log" >&2
  echo "=== package build failed" >&2
  exit 1
fi
ls "$PWD/$dir"/deb/*.deb
