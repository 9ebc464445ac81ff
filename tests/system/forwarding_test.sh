#!/bin/bash
# The audit trail forwarded by rsyslog with the shipped drop-in: two rsyslogd
# in a private network namespace on loopback, a sender that tails the secure
# log and a central host ("mg-central") that receives it over RELP. Eight
# writers add 500 entries each through mgctl while the log rotates, and the
# central rsyslogd is restarted mid-run. The central host must receive every
# entry exactly once, in order per writer, with the sender's host name.
#
#   forwarding_test.sh MGCTL DROP_IN
set -euo pipefail
mgctl=$1 dropin=$2
writers=8 entries=500 port=2514

if [ "$(id -u)" -ne 0 ]; then echo "needs root (network namespaces); skipped"; exit 77; fi
if [ -z "${MG_FWD_INSIDE:-}" ]; then
    MG_FWD_INSIDE=1 exec unshare -n -u "$0" "$@"
fi
ip link set lo up
hostname mg-sender

w=$(mktemp -d /tmp/mg-forward.XXXXXX)
pids=()
cleanup() {
    for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
    wait 2>/dev/null || true
    [ "${keep:-0}" = 1 ] || rm -rf "$w"
}
trap cleanup EXIT
mkdir -p "$w/root/conf" "$w/log" "$w/central" "$w/sender" "$w/out"
chmod 700 "$w/log"
printf 'SecureLogDir\t%s\nSecureLogSize\t1\nSecureLogFileCount\t10\n' "$w/log" >"$w/root/conf/mgopt.conf"

cat >"$w/central.conf" <<C
global(workDirectory="$w/central" parser.escapeControlCharactersOnReceive="off")
module(load="imrelp")
input(type="imrelp" address="127.0.0.1" port="$port")
template(name="line" type="string" string="%hostname% %syslogtag%%msg%\n")
action(type="omfile" file="$w/out/received" template="line")
C
{ echo "global(workDirectory=\"$w/sender\")"
  sed -e "s|/var/log/mossgrove|$w/log|" -e "s|loghost.example.org|127.0.0.1|" -e 's|resumeInterval="5"|resumeInterval="1"|' \
      "$dropin"; } >"$w/sender.conf"

central_pid=
start_central() {
    unshare -u sh -c "hostname mg-central && exec rsyslogd -n -f $w/central.conf -i $w/central.pid" \
        >>"$w/central.out" 2>&1 &
    central_pid=$!
    pids+=("$central_pid")
}
received() { [ -f "$w/out/received" ] && wc -l <"$w/out/received" || echo 0; }
# Waits up to $2 seconds for $1 received lines.
await() {
    for _ in $(seq $(($2 * 10))); do [ "$(received)" -ge "$1" ] && return 0; sleep 0.1; done
    return 1
}
fail() { keep=1; echo "FAIL: $*"; tail -n 5 "$w"/*.out; echo "kept in $w"; exit 1; }

start_central
for _ in $(seq 100); do [ -n "$(ss -Hltn "sport = :$port")" ] && break; sleep 0.1; done
rsyslogd -n -f "$w/sender.conf" -i "$w/sender.pid" >"$w/sender.out" 2>&1 &
pids+=($!)
"$mgctl" --root "$w/root" log write 3 "forwarding ready"
await 1 30 || fail "the first entry did not arrive"

pad=$(printf '%0900d' 0)   # ~1 kB entries: the 4 MB of the run rotate the 1 MB file
writer() {
    for i in $(seq 0 $((entries - 1))); do
        "$mgctl" --root "$w/root" log write 3 "writer=$1 seq=$i $pad" || exit 1
    done
}
writing=()
for n in $(seq 1 $writers); do writer "$n" & writing+=($!); pids+=($!); done

await $((writers * entries / 4)) 120 || fail "a quarter of the entries did not arrive"
kill "$central_pid"; wait "$central_pid" || true
sleep 3   # long enough for the sender to find the central host gone
start_central
for p in "${writing[@]}"; do wait "$p" || fail "a writer failed"; done
total=$((writers * entries + 1))
await "$total" 120 || true
sleep 2   # anything beyond the expected count shows as a duplicate

generations=$(ls "$w/log" | grep -c '^mglog\.[0-9][0-9]$')
[ "$generations" -ge 3 ] || fail "the log rotated only $((generations - 1)) times"
awk -v writers=$writers -v entries=$entries '
    $1 != "mg-sender" { bad++; next }
    match($0, /writer=[0-9]+ seq=[0-9]+/) {
        split(substr($0, RSTART, RLENGTH), f, /[= ]/)
        if (f[4] != next_seq[f[2]] + 0) { printf "writer %d: seq %d where %d was due\n", f[2], f[4], next_seq[f[2]]; bad++ }
        next_seq[f[2]] = f[4] + 1
    }
    END {
        for (n = 1; n <= writers; n++) if (next_seq[n] != entries) { printf "writer %d: %d entries\n", n, next_seq[n]; bad++ }
        exit bad > 0
    }' "$w/out/received" || fail "entries lost, repeated or out of order"
[ "$(received)" -eq "$total" ] || fail "$(received) lines received, $total expected"
echo "forwarded $total entries across $((generations - 1)) rotations and a central restart"
