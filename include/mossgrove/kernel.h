/* Kernel module interface: the system-call gateway (system call 223 and its
 * sub-commands), module status and control, labels, command privileges and
 * the privileged file operations. */
#ifndef MOSSGROVE_KERNEL_H
#define MOSSGROVE_KERNEL_H

#include <stddef.h>
#include <stdio.h>
#include <sys/stat.h>
#include <mossgrove/defs.h>

MG_BEGIN_DECLS

#define MG_SYSCALL_NR 223
/* Presence probe: raw kill(MG_PROBE_PID, MG_PROBE_SIG); -1 means no module. */
#define MG_PROBE_PID 6758
#define MG_PROBE_SIG 345

/* Module status (get_module_status). */
#define MG_STATUS_FAILED (-1)
#define MG_STATUS_STOPPED 0
#define MG_STATUS_RUNNING 1
#define MG_STATUS_ABSENT 2
#define MG_STATUS_QUERY 3
#define MG_STATUS_SUSPENDED 8

#define MG_ROLE_SO 7 /* security officer's process role */

/* Process label block (sub-commands 12 and 13). */
typedef struct MGProcLabel {
    unsigned char role;    /* 0..7 */
    unsigned char pad[3];  /* zero */
    int32_t level;         /* 0..7 */
    int32_t category;      /* 0..127 */
    int32_t pid;
} MGProcLabel;

/* File label block (sub-commands 22 and 23); arg2 is the path. */
typedef struct MGFileLabel {
    unsigned char kind;    /* 0..3 */
    unsigned char flag;    /* 0 or 1 */
    unsigned char unused[2];
    int32_t level;
    int32_t category;
    unsigned char reserved[16];
} MGFileLabel;

/* Module information block (sub-commands 0 and 1). */
typedef struct MGModuleInfo {
    char version[48];      /* NUL-terminated version text */
    int32_t status;        /* MG_STATUS_* */
    unsigned char reserved[20];
} MGModuleInfo;

/* Login origin record of sub-command 64. */
typedef struct MGLoginOrigin {
    int32_t tty_major;
    int32_t tty_minor;
    int64_t pid;
    uint32_t addr;         /* IPv4, network order */
    char addr_text[32];    /* dotted quad */
} MGLoginOrigin;

MG_STATIC_ASSERT(sizeof(MGProcLabel) == 16, "process label block");
MG_STATIC_ASSERT(offsetof(MGProcLabel, level) == 4 && offsetof(MGProcLabel, category) == 8 &&
                 offsetof(MGProcLabel, pid) == 12, "process label block");
MG_STATIC_ASSERT(sizeof(MGFileLabel) == 28, "file label block");
MG_STATIC_ASSERT(offsetof(MGFileLabel, flag) == 1 && offsetof(MGFileLabel, level) == 4 &&
                 offsetof(MGFileLabel, category) == 8, "file label block");
MG_STATIC_ASSERT(sizeof(MGModuleInfo) == 72 && offsetof(MGModuleInfo, status) == 48,
                 "module information block");
MG_STATIC_ASSERT(offsetof(MGLoginOrigin, tty_minor) == 4 && offsetof(MGLoginOrigin, pid) == 8 &&
                 offsetof(MGLoginOrigin, addr) == 16 && offsetof(MGLoginOrigin, addr_text) == 20,
                 "login origin record");

/* Label record of the kernel's file and directory label lists. */
#define MG_MLS_LABEL_RECORD_SIZE 24

/* Packed labels. */
#define MG_PLABEL(role, level, cat) \
    ((((role) & 7) << 13) | (((level) & 7) << 7) | ((cat) & 0x7f))
#define MG_PLABEL_ROLE(l) (((l) >> 13) & 7)
#define MG_PLABEL_LEVEL(l) (((l) >> 7) & 7)
#define MG_PLABEL_CAT(l) ((l) & 0x7f)
#define MG_FLABEL(kind, flag, level, cat) \
    ((((kind) & 3) << 14) | (((flag) & 1) << 11) | (((level) & 7) << 8) | ((cat) & 0x7f))
#define MG_FLABEL_KIND(l) (((l) >> 14) & 3)
#define MG_FLABEL_FLAG(l) (((l) >> 11) & 1)
#define MG_FLABEL_LEVEL(l) (((l) >> 8) & 7)
#define MG_FLABEL_CAT(l) ((l) & 0x7f)

/* ---- Gateway wrappers: each is one call of system call 223 --------------- */

MG_API int _start_module(MGModuleInfo *block) MG_NOEXCEPT;
MG_API int _get_module_info(MGModuleInfo *block) MG_NOEXCEPT;
MG_API int _stop_module(void) MG_NOEXCEPT;
MG_API int _suspend_module(void) MG_NOEXCEPT;
MG_API int _sys_getconf_all(void *buf) MG_NOEXCEPT;
MG_API int _sys_getconf_mode(void *buf) MG_NOEXCEPT;
MG_API int _sys_getconf_opt(void *buf) MG_NOEXCEPT;
MG_API int _sys_getconf_ips(void *buf) MG_NOEXCEPT;
MG_API int _sys_setconf_all(void *buf) MG_NOEXCEPT;
MG_API int _sys_setconf_mode(void *buf) MG_NOEXCEPT;
MG_API int _sys_setconf_opt(void *buf) MG_NOEXCEPT;
MG_API int _sys_setconf_ips(void *buf) MG_NOEXCEPT;
MG_API int _sys_getmp(int pid) MG_NOEXCEPT;
MG_API int _sys_getmp2(MGProcLabel *block) MG_NOEXCEPT;
MG_API int _sys_setmp(int pid, int label) MG_NOEXCEPT;
MG_API int _sys_setmp2(MGProcLabel *block) MG_NOEXCEPT;
MG_API int _sys_set_authproc(int pid, int label) MG_NOEXCEPT;
MG_API int _sys_setpid(int pid) MG_NOEXCEPT;
MG_API int _sys_getmu_num(void) MG_NOEXCEPT;
MG_API int _sys_getmu(void *buf, int len) MG_NOEXCEPT;
MG_API int _sys_getmu_list(void *buf, int *count) MG_NOEXCEPT;
MG_API int _sys_getmu_all(void *buf, int count) MG_NOEXCEPT;
MG_API int _sys_setmu(void *records, int count) MG_NOEXCEPT;
MG_API int _sys_getcat_num(void) MG_NOEXCEPT;
MG_API int _sys_getcat(void *buf, int n) MG_NOEXCEPT;
MG_API int _sys_getcat_list(void *buf, int *count) MG_NOEXCEPT;
MG_API int _sys_getcat_all(void *buf, int count) MG_NOEXCEPT;
MG_API int _sys_setcat(void *records, int count) MG_NOEXCEPT;
MG_API int _sys_getmf(const char *path) MG_NOEXCEPT;
MG_API int _sys_getmf2(const char *path, MGFileLabel *block) MG_NOEXCEPT;
MG_API int _sys_setmf(const char *path, int label) MG_NOEXCEPT;
MG_API int _sys_setmf2(const char *path, MGFileLabel *block) MG_NOEXCEPT;
MG_API int _sys_get_kernlog(void *buf, int *len) MG_NOEXCEPT;
MG_API int _sys_setcmd(void *list, int count) MG_NOEXCEPT;
MG_API int _sys_setsu(void *list, int count) MG_NOEXCEPT;
MG_API int _sys_add_file_acl(void *hdr, void *rules) MG_NOEXCEPT;
MG_API int _sys_mod_file_acl(void *hdr, void *rules) MG_NOEXCEPT;
MG_API int _sys_del_file_acl(void *hdr) MG_NOEXCEPT;
MG_API int _sys_file_acl_cnt(void) MG_NOEXCEPT;
MG_API int _sys_get_all_facl_hdr(void *buf, int count) MG_NOEXCEPT;
MG_API int _sys_get_facl_hdr(void *hdr) MG_NOEXCEPT;
MG_API int _sys_get_file_acl(void *hdr, void *rules) MG_NOEXCEPT;
MG_API int _sys_clear_file_acl(void) MG_NOEXCEPT;
MG_API int _sys_set_fgroup(void *hdr, void *rules, void *members) MG_NOEXCEPT;
MG_API int _sys_del_fgroup(int id) MG_NOEXCEPT;
MG_API int _sys_fgroup_cnt(void) MG_NOEXCEPT;
MG_API int _sys_get_all_fgroup_hdr(void *buf, int count) MG_NOEXCEPT;
MG_API int _sys_get_fgroup_hdr(void *hdr) MG_NOEXCEPT;
MG_API int _sys_get_fgroup_rule_member(void *hdr, void *rules, void *members) MG_NOEXCEPT;
MG_API int _sys_clear_fgroup(void) MG_NOEXCEPT;
MG_API int _sys_add_kill_acl(void *rec) MG_NOEXCEPT;
MG_API int _sys_mod_kill_acl(void *rec) MG_NOEXCEPT;
MG_API int _sys_del_kill_acl(void *rec) MG_NOEXCEPT;
MG_API int _sys_kill_acl_cnt(void) MG_NOEXCEPT;
MG_API int _sys_get_all_kill_acl_hdr(void *buf, int count) MG_NOEXCEPT;
MG_API int _sys_clear_kill_acl(void) MG_NOEXCEPT;
MG_API int _sys_add_setuid_acl(void *rec) MG_NOEXCEPT;
MG_API int _sys_mod_setuid_acl(void *rec) MG_NOEXCEPT;
MG_API int _sys_del_setuid_acl(void *rec) MG_NOEXCEPT;
MG_API int _sys_setuid_acl_cnt(void) MG_NOEXCEPT;
MG_API int _sys_get_all_setuid_acl_hdr(void *buf, int count) MG_NOEXCEPT;
MG_API int _sys_clear_setuid_acl(void) MG_NOEXCEPT;
MG_API int _sys_get_auto_dl_cnt(void) MG_NOEXCEPT;
MG_API int _sys_get_auto_dl(void *buf, int count) MG_NOEXCEPT;
MG_API int _sys_move_dl_to_actbl(void *rec) MG_NOEXCEPT;
MG_API int _sys_file_mls_cnt(void) MG_NOEXCEPT;
MG_API int _sys_dir_mls_cnt(void) MG_NOEXCEPT;
MG_API int _sys_get_file_mls(void *buf, int count) MG_NOEXCEPT;
MG_API int _sys_get_dir_mls(void *buf, int count) MG_NOEXCEPT;
MG_API int _sys_getalcmd(void *buf) MG_NOEXCEPT;
MG_API int _sys_setalcmd(void *list, int count) MG_NOEXCEPT;
MG_API int _sys_add_ipaddr_to_table(MGLoginOrigin *rec) MG_NOEXCEPT;
/* Service-rule tables: table 0 user, 1 group, 2 default. */
MG_API int _sys_get_alsvc_cnt(int table, int n) MG_NOEXCEPT;
MG_API int _sys_get_alsvc_rule(int table, int index, int count, void *buf) MG_NOEXCEPT;
MG_API int _sys_set_alsvc_rule(int table, void *hdr, void *rules) MG_NOEXCEPT;
MG_API int _sys_del_alsvc_rule(int table, void *hdr) MG_NOEXCEPT;
MG_API int _sys_del_alsvc_rule_all(int table) MG_NOEXCEPT;
MG_API int _sys_get_alsvc_hdr_cnt(int table) MG_NOEXCEPT;
MG_API int _sys_get_alsvc_hdr_all(int table, int count, void *buf) MG_NOEXCEPT;
MG_API int _sys_proc_all_reset(void) MG_NOEXCEPT;
MG_API int _sys_get_seslog(void *buf, int len) MG_NOEXCEPT;
MG_API int _sys_set_sesuser(void *buf, int len) MG_NOEXCEPT;

/* ---- Module status and control ------------------------------------------ */

MG_API int get_module_status(void) MG_NOEXCEPT;
MG_API int mg_checkmodule(int quiet) MG_NOEXCEPT;
MG_API int mg_checkmodule2(void) MG_NOEXCEPT;
MG_API int CheckModuleType(void) MG_NOEXCEPT;
MG_API int module_info(MGModuleInfo *block) MG_NOEXCEPT;
MG_API int module_suspend(void) MG_NOEXCEPT;
MG_API int module_sync(void) MG_NOEXCEPT;
MG_API int proc_all_reset(void) MG_NOEXCEPT;
MG_API int sync_file_mls(void) MG_NOEXCEPT;
MG_API int sync_dir_mls(void) MG_NOEXCEPT;

/* ---- Labels --------------------------------------------------------------- */

MG_API int get_prole(int pid) MG_NOEXCEPT;
MG_API int get_cprole(void) MG_NOEXCEPT;
MG_API int get_pprole(void) MG_NOEXCEPT;
MG_API int get_proc_mls(int pid, int *label) MG_NOEXCEPT;
MG_API int get_file_mls(const char *path, int *label) MG_NOEXCEPT;
/* -1 for a field keeps its current value. */
MG_API int set_proc_mls(int pid, int role, int level, int category) MG_NOEXCEPT;
MG_API int set_proc_auth(int pid, int role, int level, int category) MG_NOEXCEPT;
MG_API int set_file_mls(const char *path, int kind, int level, int category) MG_NOEXCEPT;

/* ---- Command privileges: 0 allowed, -1 refused ---------------------------- */

MG_API int CheckCmdExecConsole(void) MG_NOEXCEPT;
MG_API int CheckCmdExecPrivSO(int pid) MG_NOEXCEPT;
MG_API int CheckCmdExecPrivMU(int pid) MG_NOEXCEPT;
MG_API int CheckCmdExecPrivRoot(int pid) MG_NOEXCEPT;
MG_API int CheckCmdExecPrivSOSD(void) MG_NOEXCEPT;
MG_API int CheckCmdExecPrivChpw(void) MG_NOEXCEPT;
MG_API int CheckCmdExecPriv(int kind) MG_NOEXCEPT;

/* ---- Privileged file operations: retried once as security officer after EACCES */

MG_API int SetSOProc(const char *token) MG_NOEXCEPT;
MG_API int MG_stat(const char *path, struct stat *buf) MG_NOEXCEPT;
MG_API int MG_open2(const char *path, int flags) MG_NOEXCEPT;
MG_API int MG_open3(const char *path, int flags, mode_t mode) MG_NOEXCEPT;
MG_API FILE *MG_fopen(const char *path, const char *mode) MG_NOEXCEPT;
MG_API int MG_creat(const char *path, mode_t mode) MG_NOEXCEPT;
MG_API int MG_mkdir(const char *path, mode_t mode) MG_NOEXCEPT;
MG_API int MG_unlink(const char *path) MG_NOEXCEPT;
MG_API int MG_rename(const char *oldpath, const char *newpath) MG_NOEXCEPT;

MG_END_DECLS

#endif
