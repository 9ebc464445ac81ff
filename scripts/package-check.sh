#!/bin/bash
# Builds the Debian package (scripts/package.sh) and checks it: lintian
# reports no error; the module it ships is, stripped, the very file the
# system tests and the export and runtime checks pass on in the same build;
# it installs into a scratch root with dpkg --root (its package database
# holds this host's entries of the packages it depends on, so the
# dependencies must be real installed packages), puts nothing into /etc, and
# purges leaving nothing behind. The host's own /usr and /etc are never touched.
# Needs root (dpkg, and the system tests' namespaces).
set -euo pipefail
cd "$(dirname "$0")/.."

deb=$(bash scripts/package.sh | tail -n 1)
dir=build/package
module=usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)/security/pam_mg_acl.so
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "package check: $*"; exit 1; }

echo "--- dependencies: $(dpkg-deb -f "$deb" Depends)"

echo "--- lintian"
lintian_ok=1
report=$(lintian --fail-on error "$deb" 2>&1) || lintian_ok=0
grep -v 'running with root privileges' <<<"$report" || true
[ $lintian_ok = 1 ] || fail "lintian reports errors"

echo "--- the tests on the packaged build"
cmake --build "$dir" -j "$(nproc)" --target pam_system_test pam_time_test sandbox_test >"$dir/tests.log" 2>&1 ||
  { cat "$dir/tests.log"; fail "test build failed"; }
(cd "$dir" && ctest -j "$(nproc)" --timeout 600 --output-on-failure -L system -E '^rsyslog_forwarding$' &&
              ctest --output-on-failure -R '^(export_list|runtime_deps)$') || fail "tests failed"
strip -o "$work/tested.so" "$dir/src/pam_mg_acl.so"
dpkg-deb -x "$deb" "$work/contents"
cmp "$work/tested.so" "$work/contents/$module" || fail "the packaged module is not the tested one"

echo "--- install and purge in a scratch root"
root=$work/root
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates"
depends=$(dpkg-deb -f "$deb" Depends | sed 's/([^)]*)//g; s/[,|]/ /g')
# shellcheck disable=SC2086
dpkg-query -s $depends >"$root/var/lib/dpkg/status" || fail "a dependency is not installed here: $depends"
# Their files are not in the scratch root: empty file lists.
for p in $(dpkg-query -W -f '${binary:Package}\n' $depends); do touch "$root/var/lib/dpkg/info/$p.list"; done
touch "$root/var/lib/dpkg/available"
dpkg --root="$root" --install "$deb"
cmp "$work/tested.so" "$root/$module" || fail "the installed module is not the tested one"
dpkg --root="$root" -L mossgrove | grep -q '^/etc' && fail "the package installs into /etc"
dropin=usr/share/doc/mossgrove/examples/rsyslog/60-mossgrove-forward.conf
cmp examples/rsyslog/60-mossgrove-forward.conf "$root/$dropin" || fail "the rsyslog drop-in is not installed"
[ "$(stat -c %a "$root/$module")" = 644 ] || fail "module mode $(stat -c %a "$root/$module")"
"$root/usr/sbin/mgctl" --help >/dev/null || fail "the installed mgctl does not run"
dpkg --root="$root" --purge mossgrove
dpkg --root="$root" -s mossgrove >/dev/null 2>&1 && fail "still known to dpkg after purge"
left=$(cd "$root" && find . -path ./var/lib/dpkg -prune -o ! -name . ! -path ./var ! -path ./var/lib -print)
[ -z "$left" ] || fail "left behind after purge: $left"
echo "--- package $deb: ok"
