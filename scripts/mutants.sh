#!/bin/bash
# Fault seeding: applies each fault of a fixed list, one at a time, to a scratch
# copy of the tree, builds it incrementally and runs the tests; a fault is
# caught when the build or a test fails. Prints every fault with its outcome
# and the share caught.
#
#   scripts/mutants.sh              every fault
#   scripts/mutants.sh 1-10 17 pam_  faults 1 to 10, 17 and those whose name starts with "pam_"
#   scripts/mutants.sh --list       the list, each entry checked, nothing run
#
# The scratch copy and its build live in $MG_MUTANTS_DIR (default
# /tmp/mg-mutants-<uid>); the build is configured once (Debug, -O0, no debug
# information, no sanitizers, no benchmarks) and kept, so later runs only
# rebuild what changed. Nothing in this tree is modified.
#
# A fault is an exact text replacement in one file; its search text must
# occur exactly once in that file, or the entry is reported as stale (fix the
# list). A fault that does not compile counts as caught but is flagged: such an
# entry tests the compiler, not the suite, and should be replaced.
set -uo pipefail

top=$(cd "$(dirname "$0")/.." && pwd)
work=${MG_MUTANTS_DIR:-/tmp/mg-mutants-$(id -u)}
src=$work/src
build=$work/build
jobs=${MG_MUTANTS_JOBS:-2}
# The simulator's own tests and the export and size checks do not exercise src/; the
# forwarding test exercises rsyslog's configuration and takes a minute or more.
ctest_args=(-j "$jobs" --stop-on-failure --timeout 120 -LE '^sim$'
            -E '^(export_list|runtime_deps|test_share|fuzz_replay_sim_state|rsyslog_forwarding)$')

# name @@ file @@ search @@ replacement; "\n" is a newline, "\\" a backslash,
# "\x" any other character x.
fault_list() {
    cat <<'EOF'
conf_case_sensitive @@ src/common/conf.cpp @@ if (strcasecmp(key, table->text.data() + e.key) == 0) @@ if (strcmp(key, table->text.data() + e.key) == 0)
conf_comment_counted @@ src/common/conf.cpp @@ return line[0] != '#' && line[0] != '\\n'; @@ return line[0] != '\\n';
mgroot_slash_accepted @@ src/common/conf.cpp @@ if (len <= 1) return set_errno(MG_ERR_NO_MGROOT); @@ if (len < 1) return set_errno(MG_ERR_NO_MGROOT);
mgroot_wrong_errno @@ src/common/conf.cpp @@ return set_errno(MG_ERR_NO_EVMG); @@ return set_errno(MG_ERR_NO_MGROOT);
error_message_char @@ src/common/error.cpp @@ "Error:The Security Level is out of range." @@ "Error:The Security Level is out of range!"
err_sys_status @@ src/common/error.cpp @@     va_end(ap);\n    exit(1); @@     va_end(ap);\n    exit(2);
tokslot_one_short @@ src/common/tokens.cpp @@ for (int i = 0; i < MG_TOKSLOT_COUNT; ++i) { @@ for (int i = 0; i < MG_TOKSLOT_COUNT - 1; ++i) {
tokslot_not_returned @@ src/common/tokens.cpp @@     return_tokslot(slot);\n    return stored == n @@     return stored == n
name_pipe_allowed @@ src/common/strutil.cpp @@ "&\\n/:*?\\"<>|" @@ "&\\n/:*?\\"<>"
mkdir_mode_umask @@ src/common/fileutil.cpp @@ return chmod(path, mode); @@ return 0;
copy_keeps_partial @@ src/common/fileutil.cpp @@     unlink(dst);\n @@ \n
evmg_env_for_root @@ src/common/paths.cpp @@ if (!g_pinned && getuid() != 0) { @@ if (!g_pinned) {
status_failed_as_absent @@ src/kernel/control.cpp @@ if (_get_module_info(&info) < 0) return MG_STATUS_FAILED; @@ if (_get_module_info(&info) < 0) return MG_STATUS_ABSENT;
version_six_refused @@ src/kernel/control.cpp @@ return (number < 6 || number % 2 != 0) ? 1 : 0; @@ return (number <= 6 || number % 2 != 0) ? 1 : 0;
suspend_twice_ok @@ src/kernel/control.cpp @@ case MG_STATUS_SUSPENDED: return 1; @@ case MG_STATUS_SUSPENDED: return 0;
reset_without_privilege @@ src/kernel/control.cpp @@ if (CheckCmdExecPrivSOSD() != 0) return -1; @@ 
sync_refuses_stopped @@ src/kernel/control.cpp @@ if (status != MG_STATUS_RUNNING && status != MG_STATUS_STOPPED) @@ if (status != MG_STATUS_RUNNING)
sync_one_failure_ignored @@ src/kernel/control.cpp @@ return (files < 0 || dirs < 0) ? -1 : 0; @@ return (files < 0 && dirs < 0) ? -1 : 0;
gateway_role_255 @@ src/kernel/gateway.cpp @@ block->pid < 0 || block->role >= 255 || @@ block->pid < 0 ||
gateway_alsvc_number @@ src/kernel/gateway.cpp @@ alsvc_sub(table, 65, 66, 82, &sub) @@ alsvc_sub(table, 65, 66, 83, &sub)
gateway_errno_result @@ src/kernel/gateway.cpp @@ return r != 0 ? set_errno(r) : 0; @@ return r != 0 ? -1 : 0;
label_level_shift @@ src/kernel/labels.cpp @@ put_field(current, level, 7, 7) @@ put_field(current, level, 8, 7)
console_wrong_tty @@ src/kernel/privileges.cpp @@ "/dev/tty1" @@ "/dev/tty2"
mu_role_bound @@ src/kernel/privileges.cpp @@ MG_PLABEL_ROLE(_sys_getmp(pid)) >= kRoleMU @@ MG_PLABEL_ROLE(_sys_getmp(pid)) > kRoleMU
store_rest_mode @@ src/stores/dbfile.cpp @@ kModeRest = 0444; @@ kModeRest = 0440;
store_read_mark @@ src/stores/dbfile.cpp @@ kModeReadLocked = 02444; @@ kModeReadLocked = 0444;
store_no_fsync @@ src/common/fileutil.cpp @@ if (fsync(fd) != 0) { @@ if (false) {
store_no_write_lock @@ src/stores/dbfile.cpp @@ return lock_reg(fd, F_SETLK, F_WRLCK, 0, SEEK_SET, 0) < 0 ? -1 : 0; @@ return 0;
store_writer_not_seen @@ src/stores/dbfile.cpp @@ case F_WRLCK: return 1; @@ case F_WRLCK: return 0;
store_busy_errno @@ src/stores/dbfile.cpp @@ if (r == 1) errno = EAGAIN; @@ if (r == 1) errno = EACCES;
store_reader_creates @@ src/stores/dbfile.cpp @@ if (mode == 0) return -1; @@ 
store_copy_result @@ src/stores/dbfile.cpp @@     rest_path(to);\n    return 1; @@     rest_path(to);\n    return 0;
store_backup_name @@ src/stores/dbfile.cpp @@ ".mls_cat_bak" @@ ".mls_cat_bk"
opt_count_bound @@ src/config/mgopt.cpp @@ MG_NUMBER(SecureLogFileCount, true, false, 1, 10, 0), @@ MG_NUMBER(SecureLogFileCount, true, false, 1, 11, 0),
opt_group_blank @@ src/config/mgopt.cpp @@ MG_FLAG(ClearAllLog, Kind::Flag, true, 'N'), @@ MG_FLAG(ClearAllLog, Kind::Flag, false, 'N'),
opt_key_order @@ src/config/mgopt.cpp @@     MG_TEXT(MailServer, Kind::Text, false, false),\n    MG_TEXT(MailAddress, Kind::Text, false, false), @@     MG_TEXT(MailAddress, Kind::Text, false, false),\n    MG_TEXT(MailServer, Kind::Text, false, false),
opt_relative_dir @@ src/config/mgopt.cpp @@ if (value[0] != '/') return false; @@ 
opt_sms_check @@ src/config/mgopt.cpp @@ (opt->SmsServer[0] == '\\0' || opt->SmsTel[0] == '\\0') @@ (opt->SmsServer[0] == '\\0' && opt->SmsTel[0] == '\\0')
opt_write_error_ignored @@ src/config/mgopt.cpp @@ if (mg::fileio::write_all(fd, data, len) != 0) { @@ if (mg::fileio::write_all(fd, data, len) != 0 && false) {
opt_pending_kept @@ src/config/mgopt.cpp @@ if (CheckModuleType() != 0) *text_of(opt, f) = 'X'; @@ 
seclog_tab_kept @@ src/seclog/writer.cpp @@ out[i] = (c < 0x20 || c == 0x7f) ? ' ' : field[i]; @@ out[i] = (c == '\\n' || c == 0x7f) ? ' ' : field[i];
seclog_no_slack @@ src/seclog/writer.cpp @@ static_cast<off_t>(g_nMaxLogSize) + kRotateSlack @@ static_cast<off_t>(g_nMaxLogSize)
seclog_rotate_skips_first @@ src/seclog/writer.cpp @@ for (int n = g_nMaxLogFileCount - 1; n >= 1; --n) { @@ for (int n = g_nMaxLogFileCount - 1; n >= 2; --n) {
seclog_rotate_flag_flipped @@ src/seclog/writer.cpp @@ if (g_nMGLogRotate == 0) { @@ if (g_nMGLogRotate != 0) {
seclog_no_lock @@ src/seclog/writer.cpp @@ if (lockf(fd, F_TLOCK, 1) == 0) return fd; @@ return fd;
seclog_group_writable_dir @@ src/seclog/writer.cpp @@ (st.st_mode & (S_IWGRP | S_IWOTH)) != 0 @@ (st.st_mode & S_IWOTH) != 0
seclog_follows_links @@ src/seclog/writer.cpp @@ flags |= O_NOFOLLOW | O_CLOEXEC; @@ flags |= O_CLOEXEC;
reduce_partial_line @@ src/seclog/maintenance.cpp @@ const char *start = newline + 1; @@ const char *start = newline;
clear_keeps_second @@ src/seclog/maintenance.cpp @@ for (int n = kMaxGenerations; n >= 2; --n) { @@ for (int n = kMaxGenerations; n >= 3; --n) {
tool_megabyte @@ src/seclog/commands.cpp @@ kBytesPerMegabyte = 1000000; @@ kBytesPerMegabyte = 1048576;
pam_hour_end_included @@ src/pam/access.cpp @@ if (hours) return low <= value && value <= high - 1; @@ if (hours) return low <= value && value <= high;
pam_empty_field_no_match @@ src/pam/access.cpp @@ if (field[0] == '\\0' || field[0] == '*') return true;\n    return list_contains @@ if (field[0] == '*') return true;\n    return list_contains
pam_default_missing_denies @@ src/pam/access.cpp @@         if (errno == ENOENT) return 1; @@         if (errno == ENOENT) return 0;
pam_list_prefix_match @@ src/pam/access.cpp @@ if (len == vlen && memcmp(p, value, len) == 0) return true; @@ if (len <= vlen && memcmp(p, value, len) == 0) return true;
pam_range_end_excluded @@ src/pam/access.cpp @@ if (range[0] <= host_order && host_order <= range[1]) return true; @@ if (range[0] <= host_order && host_order < range[1]) return true;
pam_denied_message @@ src/pam/access.cpp @@ access is denied by user @@ access is denied for user
pam_primary_group_twice @@ src/pam/access.cpp @@ if (strncmp(g->gr_name, buffer, primary_len) == 0 && g->gr_name[primary_len] == '\\0') continue; @@ if (strncmp(g->gr_name, buffer, primary_len) == 0) continue;
session_limit_reached_ok @@ src/pam/session.cpp @@ rule.current >= 0 && rule.current < rule.max ? 1 : 0; @@ rule.current >= 0 && rule.current <= rule.max ? 1 : 0;
session_default_sense @@ src/pam/session.cpp @@ apply_user_limit(request, rule, rule.limit_console == 1); @@ apply_user_limit(request, rule, rule.limit_console == 0);
session_rule_order @@ src/pam/session.cpp @@     if (result == 2) result = check_group_session(request, rule);\n    if (result == 2) result = check_default_session(request, rule); @@     if (result == 2) result = check_default_session(request, rule);\n    if (result == 2) result = check_group_session(request, rule);
module_console_checked @@ src/pam/module.cpp @@     if (starts_with(request.tty.get(), "tty")) return PAM_SUCCESS;\n    if (normalize_remote_host @@     if (normalize_remote_host
module_su_registered @@ src/pam/module.cpp @@ if (request.service.set() && strcmp(request.service.get(), "su") == 0) return 1; @@ 
module_role_not_restored @@ src/pam/module.cpp @@ void restore_process_label(unsigned char role) noexcept { set_process_label(role, 0, 0); } @@ void restore_process_label(unsigned char) noexcept {}
rulefile_no_newline_ok @@ src/pam/rulefile.cpp @@ if (len == 0 || line[len - 1] != '\\n') { @@ if (len == 0) {
EOF
}

# The helper: lists, selects, applies and undoes faults, and keeps the
# scratch copy equal to the tree (files whose contents did not change keep
# their times, so the build stays incremental).
# (The system's python3 when there is one: a version manager's shim costs a
# second per call.)
python=$(command -v /usr/bin/python3 || command -v python3)
helper() {
    "$python" - "$@" <<'PY'
import os, re, shutil, subprocess, sys

top, src, cmd, args = os.environ['MG_TOP'], os.environ['MG_SRC'], sys.argv[1], sys.argv[2:]

def unescape(s):
    return re.sub(r'\\(.)', lambda m: {'n': '\n', 't': '\t'}.get(m.group(1), m.group(1)), s)

faults = []
for line in os.environ['MG_FAULTS'].splitlines():
    if not line.strip():
        continue
    parts = [p.strip() for p in line.split('@@')]
    if len(parts) != 4:
        sys.exit('malformed fault entry: ' + line)
    name, path, search, repl = parts
    faults.append((name, path, unescape(search), unescape(repl)))

if cmd == 'select':
    chosen = []
    for arg in args or ['1-%d' % len(faults)]:
        if re.fullmatch(r'\d+(-\d+)?', arg):
            lo, _, hi = arg.partition('-')
            chosen += range(int(lo), int(hi or lo) + 1)
        else:
            chosen += [i + 1 for i, f in enumerate(faults) if f[0] == arg or f[0].startswith(arg)]
    seen = set()
    for i in chosen:
        if 1 <= i <= len(faults) and i not in seen:
            seen.add(i)
            print('%d\t%s\t%s' % (i, faults[i - 1][0], faults[i - 1][1]))
elif cmd in ('apply', 'check'):
    status = 0
    for i in map(int, args):
        name, path, search, repl = faults[i - 1]
        try:
            n = open(os.path.join(top, path), encoding='utf-8').read().count(search)
        except OSError:
            n = 0
        if n != 1:
            status = 2
        if cmd == 'check':
            print('%3d %-30s %-28s %s' % (i, name, path, 'ok' if n == 1 else
                  'STALE: the search text occurs %d times' % n))
        elif n != 1:
            print('the search text occurs %d times in %s' % (n, path))
        else:
            text = open(os.path.join(top, path), encoding='utf-8').read()
            with open(os.path.join(src, path), 'w', encoding='utf-8') as out:
                out.write(text.replace(search, repl))
    sys.exit(status)
elif cmd == 'restore':
    path = faults[int(args[0]) - 1][1]
    shutil.copyfile(os.path.join(top, path), os.path.join(src, path))
elif cmd == 'sync':
    listed = subprocess.run(['git', '-C', top, 'ls-files', '-z', '--cached', '--others', '--exclude-standard'],
                            check=True, capture_output=True).stdout.decode().split('\0')
    wanted = {p for p in listed if p and os.path.isfile(os.path.join(top, p))}
    for p in wanted:
        a, b = os.path.join(top, p), os.path.join(src, p)
        data = open(a, 'rb').read()
        if os.path.isfile(b) and open(b, 'rb').read() == data:
            continue
        os.makedirs(os.path.dirname(b), exist_ok=True)
        with open(b, 'wb') as out:
            out.write(data)
        shutil.copymode(a, b)
    for root, dirs, files in os.walk(src):
        for f in files:
            rel = os.path.relpath(os.path.join(root, f), src)
            if rel not in wanted:
                os.remove(os.path.join(root, f))
PY
}

export MG_TOP=$top MG_SRC=$src
MG_FAULTS=$(fault_list)
export MG_FAULTS

if [[ ${1:-} == --list ]]; then
    shift
    helper check $(helper select "$@" | cut -f1)
    exit
fi

selected=$(helper select "$@") || exit 1
[[ -n $selected ]] || { echo "no fault matches: $*" >&2; exit 1; }

mkdir -p "$src" "$build"
started=$(date +%s)
helper sync || exit 1
if [[ ! -f $build/CMakeCache.txt ]]; then
    cmake -S "$src" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG=-O0 \
        -DCMAKE_C_FLAGS_DEBUG=-O0 -DMG_BENCH=OFF >"$work/configure.log" 2>&1 ||
        { cat "$work/configure.log"; exit 1; }
fi

build_all() { cmake --build "$build" -j "$jobs" </dev/null >"$work/build.log" 2>&1; }

# Two stages: the unit tests (with the fuzz corpora) first, then the system
# tests through libpam, each stage building only its own executables. Most
# faults are caught in the first stage, so the second is rarely built or run.
ctest_stage1=(-LE '^(sim|system)$')
ctest_stage2=(-L '^system$')
# The executables a stage's tests run (ctest's own listing, read once).
stage_targets() {
    (cd "$build" && ctest --show-only=json-v1 "${ctest_args[@]}" "$@" 2>/dev/null) | "$python" -c '
import json, os, sys
names = {os.path.basename(t["command"][0]) for t in json.load(sys.stdin)["tests"] if t.get("command")}
print(" ".join(sorted(n for n in names if not n.endswith(".sh"))))'
}
build_stage() { cmake --build "$build" -j "$jobs" --target "$@" </dev/null >"$work/build.log" 2>&1; }
run_stage() { (cd "$build" && ctest "${ctest_args[@]}" "$@" </dev/null >"$work/test.log" 2>&1); }

# The unchanged tree must build and pass, or no outcome means anything.
echo "building the unchanged tree in $build"
build_all || { tail -40 "$work/build.log"; echo "the unchanged tree does not build"; exit 1; }
base_start=$(date +%s)
run_stage || { tail -40 "$work/test.log"; echo "the unchanged tree fails its tests"; exit 1; }
echo "suite passes on the unchanged tree ($(($(date +%s) - base_start)) s)"
read -ra targets1 <<<"$(stage_targets "${ctest_stage1[@]}")"
read -ra targets2 <<<"$(stage_targets "${ctest_stage2[@]}")"

total=0 caught=0 broken=0 stale=0
missed_names=() broken_names=() stale_names=()
while IFS=$'\t' read -r idx name file; do
    t0=$(date +%s)
    if ! reason=$(helper apply "$idx"); then
        printf '%3d %-30s %-8s %s\n' "$idx" "$name" STALE "$reason"
        stale=$((stale + 1))
        stale_names+=("$name")
        continue
    fi
    total=$((total + 1))
    if ! build_stage "${targets1[@]}"; then
        outcome="caught (does not compile: fix this entry)"
        caught=$((caught + 1))
        broken=$((broken + 1))
        broken_names+=("$name")
    elif ! run_stage "${ctest_stage1[@]}" || ! build_stage "${targets2[@]}" || ! run_stage "${ctest_stage2[@]}"; then
        failed=$(grep -m1 -oE '[0-9]+ - [^ ]+ .*\((Failed|Timeout|Subprocess|SEGFAULT|Exception|Child)' "$work/test.log" |
                 sed -E 's/^[0-9]+ - //; s/ .*//')
        outcome="caught   ${failed:-}"
        caught=$((caught + 1))
    else
        outcome="MISSED"
        missed_names+=("$name")
    fi
    helper restore "$idx"
    printf '%3d %-30s %-44s %4ds  %s\n' "$idx" "$name" "$outcome" $(($(date +%s) - t0)) "$file"
done <<<"$selected"

# Leave the scratch build matching the tree for the next run.
build_all

echo
if ((total > 0)); then
    echo "caught $caught of $total seeded faults ($((100 * caught / total))%)" \
         "in $(($(date +%s) - started)) s"
fi
((broken > 0)) && echo "did not compile (fix these entries): ${broken_names[*]}"
((${#missed_names[@]} > 0)) && echo "missed: ${missed_names[*]}"
((stale > 0)) && { echo "stale entries (fix the list): ${stale_names[*]}"; exit 2; }
exit 0
