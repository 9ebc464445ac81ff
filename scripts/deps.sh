#!/bin/bash
# Installs the Debian packages the build, the tests and the demonstration need.
# Quiet and quick when everything is already there.
set -euo pipefail

packages=(
  g++ cmake make binutils util-linux
  clang libclang-rt-14-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libpam0g-dev libcrypt-dev libpam-modules
  libpam-wrapper libpamtest0-dev libnss-wrapper
  libfaketime faketime
  dpkg-dev lintian groff-base man-db
  rsyslog rsyslog-relp iproute2
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  sudo_cmd=()
  [ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
  "${sudo_cmd[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq "${missing[@]}" >/dev/null
fi
