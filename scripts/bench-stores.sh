#!/bin/bash
# Policy stores at the scale of a real site: builds build/plain's stores_bench
# and runs it (as root: it works in a private mount namespace with its own
# /etc, so the host's accounts are never touched).
#
#   bash scripts/bench-stores.sh            # full run: 1,000 / 10,000 / 100,000 records
#   bash scripts/bench-stores.sh --quick    # smoke run: 1,000 / 10,000 records, 3 repetitions
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh

cat <<'TEXT'
What is measured (the fastest of 5 calls, 3 at 100,000 records, after one untimed call):
  get_mls_user        2,000 accounts / 500 MLS users and 20,000 / 5,000
  add_mls_user        one add into a store of 1,000 / 10,000 / 100,000 MLS users
  addmuent            the same through the store layer
  add_file_acl        one path (3 rules) into a table of 1,000 / 10,000 / 100,000 rule entries
  dump_file_acl, dump_kill_acl, export_rule_to_file, dump_udb_file
                      at 1,000 and 10,000 records (the kill ACL at 100 and 1,000: it holds 1,024)
  load_file_acl, load_kill_acl, load_rule_from_file, loadmuent
                      the same stores loaded into empty kernel tables
  module_start        every store at 10,000 records, every kernel table empty
Floors, measured in the same run:
  rewrite   read the store once and write it twice with fsync (store and backup)
  list      one getpwent pass plus one read of the kernel's MLS user list
  gateway   the gateway calls themselves plus the rules' account look-ups
  read+gateway  (loads) the store read once plus the kernel share of the same call
  pass+rewrite  (loadmuent) one getpwent pass plus the rewrite floor
  loads     (module_start) the floors of the four loads it runs
The kernel module is a constant-time stand-in inside the program; its share
is the "kernel ms" column. Targets: within 3x the floor at 10,000 records;
1,000 -> 10,000 records at most 15x the time; peak resident memory of a call
within 3x the largest store it handles plus 16 MB.
TEXT

dir=build/plain
mkdir -p "$dir"
if ! { cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo &&
       cmake --build "$dir" -j "$(nproc)" --target stores_bench; } >"$dir/bench-stores.log" 2>&1; then
  cat "$dir/bench-stores.log"
  echo "stores_bench: build failed"
  exit 1
fi
run=("$dir/bench/stores_bench" "$@")
if [ "$(id -u)" -ne 0 ]; then run=(sudo "${run[@]}"); fi
exec "${run[@]}"
