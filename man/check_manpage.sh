#!/bin/bash
# Fails when groff or man warns about a manual page (man as lintian runs it).
# Usage: check_manpage.sh PAGE
set -euo pipefail
groff_says=$(groff -ww -man -z "$1" 2>&1)
man_says=$(LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -E UTF-8 -l -Tutf8 -Z "$1" 2>&1 >/dev/null)
if [ -n "$groff_says$man_says" ]; then
  printf '%s\n' "$groff_says" "$man_says"
  exit 1
fi
