#!/bin/bash
# The module is loaded afresh by every login: it may need the C library, libpam
# and libcrypt, and no C++ runtime. Usage: check_needed.sh MODULE
set -euo pipefail
needed=$(readelf -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | sort)
extra=$(grep -vxE 'libc\.so\.6|libpam\.so\.0|libcrypt\.so\.1' <<<"$needed" || true)
if [ -n "$extra" ]; then
  echo "pam_mg_acl.so needs more than libc, libpam and libcrypt:"
  echo "$extra"
  exit 1
fi
echo "needed: $(echo $needed)"
