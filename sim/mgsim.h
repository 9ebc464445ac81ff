/* Control interface of the kernel module simulator.
 *
 * Test code that links mgsim_static (or libmgsim.so) uses these functions to
 * prepare and inspect the simulated kernel. They act on the state file named
 * by MGSIM_STATE, under the same lock as the simulated system calls, and are
 * never subject to failure injection or the absent setting.
 *
 * Every function returns 0 (or the value stated) on success and -1 with errno
 * on failure; EINVAL when no state file is configured.
 */
#ifndef MGSIM_H
#define MGSIM_H

#include <stddef.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#define MGSIM_NOEXCEPT noexcept
#else
#define MGSIM_NOEXCEPT
#endif

#define MGSIM_API __attribute__((visibility("default")))

/* Tables, for mgsim_count, mgsim_read_table and mgsim_dump. */
enum {
    MGSIM_ALL = 0,
    MGSIM_T_PROC = 1,     /* process labels (mgsim_proc records) */
    MGSIM_T_FILE,         /* file labels (count only; dump) */
    MGSIM_T_SETPID,       /* pids registered by sub-command 13 flag 2 (int32) */
    MGSIM_T_MU,           /* MLS users, 1324-byte records */
    MGSIM_T_CAT,          /* categories, 56-byte records */
    MGSIM_T_CMD,          /* restricted commands, 64-byte records */
    MGSIM_T_SU,           /* transition list, 8-byte records */
    MGSIM_T_FACL,         /* file ACL headers, 1040 bytes */
    MGSIM_T_FGROUP,       /* file group headers, 52 bytes */
    MGSIM_T_KILL,         /* kill ACL, 1032-byte records */
    MGSIM_T_SETUID,       /* setuid ACL, 1028-byte records */
    MGSIM_T_AUTODL,       /* auto-detected setuid programs, 1028-byte records */
    MGSIM_T_ALCMD,        /* allowed commands, 272-byte records */
    MGSIM_T_ORIGIN,       /* login origins of sub-command 64 (MGLoginOrigin, 56 bytes) */
    MGSIM_T_ALSVC_USER,   /* service-rule headers of table 0, 40 bytes */
    MGSIM_T_ALSVC_GROUP,  /* table 1 */
    MGSIM_T_ALSVC_DEF,    /* table 2 */
    MGSIM_T_LAST = MGSIM_T_ALSVC_DEF
};

/* Byte buffers of the simulated kernel. */
enum { MGSIM_B_KERNLOG = 1, MGSIM_B_SESLOG, MGSIM_B_SESUSER };

/* One process label as mgsim_read_table(MGSIM_T_PROC) returns it. */
typedef struct mgsim_proc {
    int pid;
    int role;
    int level;
    int category;
    int auth; /* set through sub-command 13 with flag 1 */
} mgsim_proc;

/* One line of the call log. sub is MGSIM_PROBE for a presence probe. */
#define MGSIM_PROBE (-1L)
typedef struct mgsim_call {
    long pid;
    long sub;
    unsigned long ptr;
    long arg2;
    long len;
    long flag;
    long result;
    int err;
} mgsim_call;

/* Selects the state file for this process and the processes it starts
 * (sets MGSIM_STATE); NULL unsets it, so that the module reads as absent. */
MGSIM_API int mgsim_use_state(const char *path) MGSIM_NOEXCEPT;
/* The state file in use, or NULL. */
MGSIM_API const char *mgsim_state_path(void) MGSIM_NOEXCEPT;

/* A freshly loaded module: status stopped, default version, default
 * configuration, every table empty; clears absent, injections and the log path. */
MGSIM_API int mgsim_reset(void) MGSIM_NOEXCEPT;
/* 0 when the state file is valid or does not exist yet, 1 when it is damaged
 * (it is not repaired here), -1 on error. */
MGSIM_API int mgsim_check(void) MGSIM_NOEXCEPT;

MGSIM_API int mgsim_set_status(int status) MGSIM_NOEXCEPT;
MGSIM_API int mgsim_get_status(void) MGSIM_NOEXCEPT; /* the status, or -1 */
/* Version text of the information block, at most 47 characters. */
MGSIM_API int mgsim_set_version(const char *text) MGSIM_NOEXCEPT;
MGSIM_API int mgsim_get_version(char *buf, size_t size) MGSIM_NOEXCEPT;
/* Absent: the probe fails with ESRCH and every call with ENOSYS. */
MGSIM_API int mgsim_set_absent(int absent) MGSIM_NOEXCEPT;
MGSIM_API int mgsim_get_absent(void) MGSIM_NOEXCEPT;

/* Process labels; pid 0 is the calling process. get returns the packed label. */
MGSIM_API int mgsim_set_proc_label(int pid, int role, int level, int category) MGSIM_NOEXCEPT;
MGSIM_API int mgsim_get_proc_label(int pid, int *role, int *level, int *category) MGSIM_NOEXCEPT;
/* File labels of existing files; get returns the packed file label. */
MGSIM_API int mgsim_set_file_label(const char *path, int kind, int flag, int level, int category) MGSIM_NOEXCEPT;
MGSIM_API int mgsim_get_file_label(const char *path) MGSIM_NOEXCEPT;

/* Failure injection kept in the state file: "sub:errno[:times],...", for
 * example "12:13,64:1:2" (every call of 12 fails with EACCES, the next two
 * calls of 64 with EPERM). NULL or "" clears. Sub-commands 26 and 28 answer
 * with the error number itself. */
MGSIM_API int mgsim_set_fail(const char *text) MGSIM_NOEXCEPT;
/* Writes the current failure rules into buf; returns its length. */
MGSIM_API int mgsim_get_fail(char *buf, size_t size) MGSIM_NOEXCEPT;
/* Call log file kept in the state (MGSIM_LOG overrides it); NULL or "" turns it off. */
MGSIM_API int mgsim_set_log(const char *path) MGSIM_NOEXCEPT;

/* The 22-byte configuration block, raw (no value checks). */
MGSIM_API int mgsim_get_conf(unsigned char block[22]) MGSIM_NOEXCEPT;
MGSIM_API int mgsim_set_conf(const unsigned char block[22]) MGSIM_NOEXCEPT;

/* Number of records of a table. */
MGSIM_API int mgsim_count(int table) MGSIM_NOEXCEPT;
/* Copies up to max records of a table into buf; returns how many. */
MGSIM_API int mgsim_read_table(int table, void *buf, int max) MGSIM_NOEXCEPT;
/* Puts a program on the auto-detected setuid list (sub-commands 56 to 58). */
MGSIM_API int mgsim_add_auto_dl(int flag, const char *path) MGSIM_NOEXCEPT;
/* Byte buffers: the kernel log (24), the session log (80), the session user (81). */
MGSIM_API int mgsim_set_buffer(int which, const void *data, size_t len) MGSIM_NOEXCEPT;
/* Copies up to size bytes; returns the buffer's whole length. */
MGSIM_API int mgsim_get_buffer(int which, void *buf, size_t size) MGSIM_NOEXCEPT;

/* Holds the state locked and in memory from begin to end: every simulated
 * call and control call of this process in between works on that copy, and
 * end writes it once. For bulk set-up. Other processes wait meanwhile; a
 * child forked inside a batch does not share it. */
MGSIM_API int mgsim_batch_begin(void) MGSIM_NOEXCEPT;
MGSIM_API int mgsim_batch_end(void) MGSIM_NOEXCEPT;

/* The call log: parses up to max lines of the log file (NULL: the one in
 * use) into calls; returns the number of lines in the file. */
MGSIM_API int mgsim_read_log(const char *path, mgsim_call *calls, int max) MGSIM_NOEXCEPT;
/* Parses one log line: 0, or -1 when it is not a log line. */
MGSIM_API int mgsim_parse_log_line(const char *line, mgsim_call *call) MGSIM_NOEXCEPT;
/* The log file in use (MGSIM_LOG, else the state's), or NULL. */
MGSIM_API const char *mgsim_log_path(void) MGSIM_NOEXCEPT;

/* Human-readable dump of one table or of everything (MGSIM_ALL). */
MGSIM_API int mgsim_dump(FILE *out, int table) MGSIM_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif
