// mgsimctl: the simulator's control interface for shell scripts and demos.
#include "mgsim.h"

#include <mossgrove/kernel.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

const char *const kUsage =
    "usage: mgsimctl [-s STATE] COMMAND [ARGS]\n"
    "  reset                               fresh module: stopped, empty tables\n"
    "  status [stopped|running|suspended|N] print or set the module status\n"
    "  version [TEXT]                      print or set the version text\n"
    "  absent [on|off]                     print or set the absent setting\n"
    "  label PID [ROLE LEVEL CATEGORY]     print or set a process label\n"
    "  flabel PATH [KIND FLAG LEVEL CAT]   print or set a file label\n"
    "  fail [RULES|off]                     print or set failure injection (sub:errno[:times],...)\n"
    "  log [PATH|off]                      set the call log file\n"
    "  calls [LOGFILE]                     print the call log\n"
    "  dump [TABLE]                        print every table, or one\n"
    "  count TABLE                         print the number of records of a table\n"
    "  check                               tell whether the state file is intact\n"
    "STATE defaults to $MGSIM_STATE. Tables: proc file setpid mu cat cmd su facl fgroup\n"
    "kill setuid autodl alcmd origin alsvc-user alsvc-group alsvc-default\n";

const char *const kTables[] = {"all",   "proc",   "file",   "setpid", "mu",     "cat",
                               "cmd",   "su",     "facl",   "fgroup", "kill",   "setuid",
                               "autodl", "alcmd", "origin", "alsvc-user", "alsvc-group", "alsvc-default"};

int table_id(const char *name) {
    for (int i = 0; i <= MGSIM_T_LAST; ++i)
        if (strcmp(name, kTables[i]) == 0) return i;
    return -1;
}

bool to_int(const char *s, int *out) {
    char *end = nullptr;
    errno = 0;
    long v = strtol(s, &end, 10);
    if (errno != 0 || end == s || *end != '\0' || v < -2147483647L - 1 || v > 2147483647L) return false;
    *out = static_cast<int>(v);
    return true;
}

int fail_with(const char *what) {
    fprintf(stderr, "mgsimctl: %s: %s\n", what, strerror(errno));
    return 1;
}

int usage() {
    fputs(kUsage, stderr);
    return 2;
}

int cmd_status(int argc, char **argv) {
    if (argc == 0) {
        int st = mgsim_get_status();
        if (st == -1 && errno != 0) return fail_with("status");
        printf("%d\n", st);
        return 0;
    }
    int st;
    if (strcmp(argv[0], "stopped") == 0) st = 0;
    else if (strcmp(argv[0], "running") == 0) st = 1;
    else if (strcmp(argv[0], "suspended") == 0) st = 8;
    else if (!to_int(argv[0], &st)) return usage();
    return mgsim_set_status(st) == 0 ? 0 : fail_with("status");
}

int cmd_label(int argc, char **argv) {
    int v[4];
    if ((argc != 1 && argc != 4) || !to_int(argv[0], &v[0])) return usage();
    if (argc == 1) {
        int role, level, cat;
        int packed = mgsim_get_proc_label(v[0], &role, &level, &cat);
        if (packed < 0) return fail_with("label");
        printf("role=%d level=%d category=%d label=%d\n", role, level, cat, packed);
        return 0;
    }
    for (int i = 1; i < 4; ++i)
        if (!to_int(argv[i], &v[i])) return usage();
    return mgsim_set_proc_label(v[0], v[1], v[2], v[3]) == 0 ? 0 : fail_with("label");
}

int cmd_flabel(int argc, char **argv) {
    if (argc == 1) {
        int packed = mgsim_get_file_label(argv[0]);
        if (packed < 0) return fail_with(argv[0]);
        printf("kind=%d flag=%d level=%d category=%d label=%d\n", MG_FLABEL_KIND(packed), MG_FLABEL_FLAG(packed),
               MG_FLABEL_LEVEL(packed), MG_FLABEL_CAT(packed), packed);
        return 0;
    }
    int v[4];
    if (argc != 5) return usage();
    for (int i = 0; i < 4; ++i)
        if (!to_int(argv[i + 1], &v[i])) return usage();
    return mgsim_set_file_label(argv[0], v[0], v[1], v[2], v[3]) == 0 ? 0 : fail_with(argv[0]);
}

int cmd_calls(int argc, char **argv) {
    const char *path = argc > 0 ? argv[0] : mgsim_log_path();
    if (path == nullptr) {
        fprintf(stderr, "mgsimctl: no call log configured\n");
        return 1;
    }
    FILE *f = fopen(path, "r");
    if (f == nullptr) return errno == ENOENT ? 0 : fail_with(path);
    char line[512];
    while (fgets(line, sizeof line, f)) fputs(line, stdout);
    fclose(f);
    return 0;
}

int run(int argc, char **argv) {
    if (argc < 1) return usage();
    const char *cmd = argv[0];
    --argc;
    ++argv;
    if (strcmp(cmd, "reset") == 0) return mgsim_reset() == 0 ? 0 : fail_with("reset");
    if (strcmp(cmd, "status") == 0) return cmd_status(argc, argv);
    if (strcmp(cmd, "version") == 0) {
        if (argc == 1) return mgsim_set_version(argv[0]) == 0 ? 0 : fail_with("version");
        char text[64];
        if (mgsim_get_version(text, sizeof text) < 0) return fail_with("version");
        printf("%s\n", text);
        return 0;
    }
    if (strcmp(cmd, "absent") == 0) {
        if (argc == 0) {
            int a = mgsim_get_absent();
            if (a < 0) return fail_with("absent");
            printf("%s\n", a ? "on" : "off");
            return 0;
        }
        return mgsim_set_absent(strcmp(argv[0], "on") == 0) == 0 ? 0 : fail_with("absent");
    }
    if (strcmp(cmd, "label") == 0) return cmd_label(argc, argv);
    if (strcmp(cmd, "flabel") == 0) return cmd_flabel(argc, argv);
    if (strcmp(cmd, "fail") == 0) {
        if (argc == 0) {
            char buf[1024];
            if (mgsim_get_fail(buf, sizeof buf) < 0) return fail_with("fail");
            printf("%s\n", buf);
            return 0;
        }
        return mgsim_set_fail(strcmp(argv[0], "off") == 0 ? nullptr : argv[0]) == 0 ? 0 : fail_with("fail");
    }
    if (strcmp(cmd, "log") == 0) {
        if (argc == 0) {
            const char *p = mgsim_log_path();
            printf("%s\n", p ? p : "off");
            return 0;
        }
        return mgsim_set_log(strcmp(argv[0], "off") == 0 ? nullptr : argv[0]) == 0 ? 0 : fail_with("log");
    }
    if (strcmp(cmd, "calls") == 0) return cmd_calls(argc, argv);
    if (strcmp(cmd, "dump") == 0 || strcmp(cmd, "count") == 0) {
        int table = argc > 0 ? table_id(argv[0]) : MGSIM_ALL;
        if (table < 0 || (cmd[0] == 'c' && (argc == 0 || table == MGSIM_ALL))) return usage();
        if (cmd[0] == 'd') return mgsim_dump(stdout, table) == 0 ? 0 : fail_with("dump");
        int n = mgsim_count(table);
        if (n < 0) return fail_with("count");
        printf("%d\n", n);
        return 0;
    }
    if (strcmp(cmd, "check") == 0) {
        int r = mgsim_check();
        if (r < 0) return fail_with("check");
        printf("%s\n", r == 0 ? "ok" : "damaged");
        return r == 0 ? 0 : 1;
    }
    return usage();
}

}  // namespace

int main(int argc, char **argv) {
    int i = 1;
    if (argc > 2 && strcmp(argv[1], "-s") == 0) {
        if (mgsim_use_state(argv[2]) != 0) return fail_with("-s");
        i = 3;
    }
    if (mgsim_state_path() == nullptr) {
        fprintf(stderr, "mgsimctl: no state file: give -s STATE or set MGSIM_STATE\n");
        return 2;
    }
    return run(argc - i, argv + i);
}
