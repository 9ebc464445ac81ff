/* Access rule stores: file ACLs and file groups, policy groups, the kill ACL
 * and the setuid ACL, service restriction rules, restricted and allowed
 * commands. Each table lives in the kernel module and in a file under
 * "<root>/data/". */
#ifndef MOSSGROVE_RULES_H
#define MOSSGROVE_RULES_H

#include <stddef.h>
#include <stdio.h>
#include <mossgrove/defs.h>
#include <mossgrove/kernel.h>

MG_BEGIN_DECLS

/* ---- Error codes of the rule stores ------------------------------------- */

#define MG_ERR_CMD_EMPTY 10043     /* restricted command file shorter than one record */
#define MG_ERR_CMD_NULL 10044      /* null argument */
#define MG_ERR_CMD_SHORT 10045     /* short read of a record */
#define MG_ERR_CMD_NOMEM 10046     /* out of memory */
#define MG_ERR_CMD_FULL 10048      /* restricted list full */
#define MG_ERR_CMD_EXISTS 10049    /* command already listed */
#define MG_ERR_CMD_NOTFOUND 10050  /* command not listed */
#define MG_ERR_CMD_UPLOAD 10051    /* kernel refused the list; file unchanged */
#define MG_ERR_RULE_FORMAT 10073   /* rule file malformed or unreadable */
#define MG_ERR_RULE_HEADER 10074   /* invalid header or protected path */
#define MG_ERR_RULE_ENTRY 10075    /* invalid rule entry */
#define MG_ERR_RULE_NOENT 10076    /* no such entry in the kernel */
#define MG_ERR_RULE_EXISTS 10077   /* entry already exists */
#define MG_ERR_RULE_KNOENT 10078   /* kernel reported ENOENT on add or set */
#define MG_ERR_RULE_MEMBER 10079   /* invalid group member path */
#define MG_ERR_RULE_WRITE 10080    /* writing the file failed */
#define MG_ERR_RULE_FULL 10081     /* table full */
#define MG_ERR_POLGRP_NOENT 10084  /* no policy group with that number */

/* ---- Rule entries, shared by the file ACL and the file groups ------------ */

/* Subject kinds (type & MG_RULE_KIND_MASK). */
#define MG_RULE_KIND_MASK 0x17
#define MG_RULE_EVERYONE 0
#define MG_RULE_USER 0x01
#define MG_RULE_CATEGORY 0x02
#define MG_RULE_ROLE 0x04
#define MG_RULE_GROUP 0x10

typedef struct rulentry {
    int32_t type;
    uint32_t id;        /* uid, category id, role or gid */
    char name[32];
    int32_t reserved;
    char path[1024];    /* program the rule is restricted to; empty = any */
    int32_t perm;       /* letters o m c d n r w x, bits 0x80 .. 0x01 */
    int32_t in_use;
    uint32_t ipaddr;    /* network order; 0 = any */
} rulentry;

typedef struct faclhdr {
    char path[1024];
    int32_t rule_cnt;   /* 1..32 */
    int32_t mode;       /* 0..2 */
    uint16_t flag;      /* 0..1 */
    uint16_t pad;
    int32_t polgrp_id;  /* 0..512 */
} faclhdr;

typedef struct fgrouphdr {
    int32_t fgroup_id;  /* 0 (not yet assigned) .. 512 */
    char name[32];
    int32_t rule_cnt;   /* 0..32 */
    int32_t member_cnt; /* 0..1024 */
    int32_t mode;
    int32_t polgrp_id;
} fgrouphdr;

typedef struct mpath {
    char path[1024];
    uint16_t flag;
    uint16_t pad;
} mpath;

MG_STATIC_ASSERT(sizeof(rulentry) == 1080, "rule entry");
MG_STATIC_ASSERT(offsetof(rulentry, id) == 4 && offsetof(rulentry, name) == 8 &&
                 offsetof(rulentry, reserved) == 40 && offsetof(rulentry, path) == 44 &&
                 offsetof(rulentry, perm) == 1068 && offsetof(rulentry, in_use) == 1072 &&
                 offsetof(rulentry, ipaddr) == 1076, "rule entry");
MG_STATIC_ASSERT(sizeof(faclhdr) == 1040, "file ACL header");
MG_STATIC_ASSERT(offsetof(faclhdr, rule_cnt) == 1024 && offsetof(faclhdr, mode) == 1028 &&
                 offsetof(faclhdr, flag) == 1032 && offsetof(faclhdr, pad) == 1034 &&
                 offsetof(faclhdr, polgrp_id) == 1036, "file ACL header");
MG_STATIC_ASSERT(sizeof(fgrouphdr) == 52, "file group header");
MG_STATIC_ASSERT(offsetof(fgrouphdr, name) == 4 && offsetof(fgrouphdr, rule_cnt) == 36 &&
                 offsetof(fgrouphdr, member_cnt) == 40 && offsetof(fgrouphdr, mode) == 44 &&
                 offsetof(fgrouphdr, polgrp_id) == 48, "file group header");
MG_STATIC_ASSERT(sizeof(mpath) == 1028 && offsetof(mpath, flag) == 1024, "group member");

#define MG_FACL_MAX 4096
#define MG_RULES_MAX 32
#define MG_MEMBERS_MAX 1024
#define MG_GROUP_ID_MAX 512

MG_API int is_wildcard_path(const char *path) MG_NOEXCEPT;
MG_API int is_valid_rulepath(const char *path) MG_NOEXCEPT;
MG_API int str2perm(const char *s) MG_NOEXCEPT;
MG_API int perm2str(int perm, char *out) MG_NOEXCEPT; /* out: 9 bytes */
MG_API char *fgets_rule_file(char *buf, int size, FILE *stream) MG_NOEXCEPT;
MG_API int read_rulentry(FILE *stream, rulentry *entry) MG_NOEXCEPT;
MG_API int write_rulentry(FILE *stream, const rulentry *entry) MG_NOEXCEPT;
MG_API int is_valid_user(uint32_t uid, const char *name) MG_NOEXCEPT;
MG_API int is_valid_group(uint32_t gid, const char *name) MG_NOEXCEPT;
MG_API int is_valid_rulentry(const rulentry *entry, int module_status) MG_NOEXCEPT;
MG_API int is_valid_faclhdr(const faclhdr *hdr) MG_NOEXCEPT;
MG_API int is_valid_fgrouphdr(const fgrouphdr *hdr) MG_NOEXCEPT;
MG_API int is_valid_mpath(const mpath *member) MG_NOEXCEPT;
MG_API int set_rulentry_uid(rulentry *entries, int count) MG_NOEXCEPT;
MG_API int set_rulentry_gid(rulentry *entries, int count) MG_NOEXCEPT;
MG_API int set_rulentry_username(rulentry *entries, int count) MG_NOEXCEPT;

/* ---- File ACL: 0, or -1 with errno ----------------------------------------- */

MG_API int add_file_acl(faclhdr *hdr, rulentry *entries) MG_NOEXCEPT;
MG_API int mod_file_acl(faclhdr *hdr, rulentry *entries) MG_NOEXCEPT;
MG_API int del_file_acl(const char *path) MG_NOEXCEPT;
/* *entries is malloc'ed for the caller. */
MG_API int get_file_acl(faclhdr *hdr, rulentry **entries) MG_NOEXCEPT;
MG_API int get_all_facl_hdr(faclhdr **hdrs, int *count) MG_NOEXCEPT;
MG_API int load_file_acl(void) MG_NOEXCEPT;
MG_API int dump_file_acl(void) MG_NOEXCEPT;
MG_API int write_file_acl(FILE *stream, const faclhdr *hdr, const rulentry *entries) MG_NOEXCEPT;
MG_API int read_facl_record(FILE *stream, faclhdr *hdr, rulentry **entries) MG_NOEXCEPT;

/* ---- File groups ------------------------------------------------------------ */

#define MG_FGROUP_CREATE 1
#define MG_FGROUP_MODIFY 2

MG_API int set_fgroup(fgrouphdr *hdr, rulentry *entries, mpath *members, int mode) MG_NOEXCEPT;
MG_API int del_fgroup(int id) MG_NOEXCEPT;
MG_API int get_fgroup(fgrouphdr *hdr, rulentry **entries, mpath **members) MG_NOEXCEPT;
MG_API int get_all_fgroup_hdr(fgrouphdr **hdrs, int *count) MG_NOEXCEPT;
MG_API int load_fgroup(void) MG_NOEXCEPT;
MG_API int dump_fgroup(void) MG_NOEXCEPT;
MG_API int write_fgroup_record(FILE *stream, fgrouphdr *hdr) MG_NOEXCEPT;
MG_API int read_fgroup_record(FILE *stream, fgrouphdr *hdr, rulentry **entries, mpath **members) MG_NOEXCEPT;
MG_API int read_member_path(FILE *stream, mpath *member) MG_NOEXCEPT;

/* ---- Policy groups ("<root>/data/policy_group") ----------------------------- */

typedef struct polgrp {
    int32_t polgrp_id;
    char name[32];
} polgrp;

MG_API int get_all_polgrp(polgrp **list, int *count) MG_NOEXCEPT;
MG_API int create_polgrp_id(const polgrp *list, int count) MG_NOEXCEPT;
MG_API int add_polgrp(const char *name) MG_NOEXCEPT;
MG_API int mod_polgrp(int id, const char *name) MG_NOEXCEPT;
MG_API int del_polgrp(int id) MG_NOEXCEPT;
MG_API int save_polgrp(const polgrp *list, int count) MG_NOEXCEPT;

/* ---- Kill ACL and setuid ACL ------------------------------------------------- */

typedef struct kaclent {
    char path[1024];
    int32_t flag;
    uint32_t denymask;
} kaclent;

typedef struct suidaclent {
    int32_t flag;
    char path[1024];
} suidaclent;

MG_STATIC_ASSERT(sizeof(kaclent) == 1032 && offsetof(kaclent, flag) == 1024 &&
                 offsetof(kaclent, denymask) == 1028, "kill ACL entry");
MG_STATIC_ASSERT(sizeof(suidaclent) == 1028 && offsetof(suidaclent, path) == 4, "setuid ACL entry");

#define MG_KACL_MAX 1024
#define MG_SUIDACL_MAX 1024
#define MG_DENY_ALL 0x8000007Fu
#define MG_DENYMASK_STR 34 /* room for the longest denymask2str result */

MG_API int add_kill_acl(kaclent *entry) MG_NOEXCEPT;
MG_API int mod_kill_acl(kaclent *entry) MG_NOEXCEPT;
MG_API int del_kill_acl(void *key) MG_NOEXCEPT;
MG_API int get_all_kill_acl_hdr(kaclent **entries, int *count) MG_NOEXCEPT;
MG_API int load_kill_acl(void) MG_NOEXCEPT;
MG_API int dump_kill_acl(void) MG_NOEXCEPT;
MG_API int write_kill_acl(FILE *stream, const kaclent *entry) MG_NOEXCEPT;
MG_API int read_kacl_record(FILE *stream, kaclent *entry) MG_NOEXCEPT;
MG_API int add_setuid_acl(suidaclent *entry) MG_NOEXCEPT;
MG_API int mod_setuid_acl(suidaclent *entry) MG_NOEXCEPT;
MG_API int del_setuid_acl(void *key) MG_NOEXCEPT;
MG_API int get_all_setuid_acl_hdr(suidaclent **entries, int *count) MG_NOEXCEPT;
MG_API int load_setuid_acl(void) MG_NOEXCEPT;
MG_API int dump_setuid_acl(void) MG_NOEXCEPT;
MG_API int str2denymask(const char *s, uint32_t *mask) MG_NOEXCEPT;
MG_API int denymask2str(uint32_t mask, char *out) MG_NOEXCEPT;
MG_API int find_setuid_pgm(const char *dir, FILE *stream) MG_NOEXCEPT;

/* ---- Service restriction rules: kind 0 user, 1 group, 2 default ------------- */

typedef struct alsvc_hdr {
    int32_t rule_cnt;
    int32_t id;
    char name[32];
} alsvc_hdr;

typedef struct alsvc_rule {
    int32_t value1;
    int32_t value2;
    uint32_t ipaddr;    /* network order */
    char service[16];
} alsvc_rule;

MG_STATIC_ASSERT(sizeof(alsvc_hdr) == 40 && offsetof(alsvc_hdr, id) == 4 && offsetof(alsvc_hdr, name) == 8,
                 "service rule header");
MG_STATIC_ASSERT(sizeof(alsvc_rule) == 28 && offsetof(alsvc_rule, value2) == 4 &&
                 offsetof(alsvc_rule, ipaddr) == 8 && offsetof(alsvc_rule, service) == 12, "service rule");

/* One header of a rule file with its rules, in file order. */
typedef struct alsvc_load {
    struct alsvc_load *next;
    alsvc_hdr *hdr;
    alsvc_rule *rules;
} alsvc_load;

MG_API int Get_Alsvc_UCnt(int id) MG_NOEXCEPT;
MG_API int Get_Alsvc_GCnt(int id) MG_NOEXCEPT;
MG_API int Get_Alsvc_DCnt(void) MG_NOEXCEPT;
MG_API int Get_Alsvc_URule(alsvc_hdr *hdr, alsvc_rule *buf) MG_NOEXCEPT;
MG_API int Get_Alsvc_GRule(alsvc_hdr *hdr, alsvc_rule *buf) MG_NOEXCEPT;
MG_API int Get_Alsvc_DRule(alsvc_hdr *hdr, alsvc_rule *buf) MG_NOEXCEPT;
MG_API int Set_Alsvc_URule(alsvc_hdr *hdr, alsvc_rule *rules) MG_NOEXCEPT;
MG_API int Set_Alsvc_GRule(alsvc_hdr *hdr, alsvc_rule *rules) MG_NOEXCEPT;
MG_API int Set_Alsvc_DRule(alsvc_hdr *hdr, alsvc_rule *rules) MG_NOEXCEPT;
MG_API int Del_Alsvc_URule(alsvc_hdr *hdr) MG_NOEXCEPT;
MG_API int Del_Alsvc_GRule(alsvc_hdr *hdr) MG_NOEXCEPT;
MG_API int Del_Alsvc_DRule(alsvc_hdr *hdr) MG_NOEXCEPT;
MG_API int Del_Alsvc_URule_All(void) MG_NOEXCEPT;
MG_API int Del_Alsvc_GRule_All(void) MG_NOEXCEPT;
MG_API int Del_Alsvc_DRule_All(void) MG_NOEXCEPT;
MG_API int Get_Alsvc_UHdr_Cnt(void) MG_NOEXCEPT;
MG_API int Get_Alsvc_GHdr_Cnt(void) MG_NOEXCEPT;
MG_API int Get_Alsvc_DHdr_Cnt(void) MG_NOEXCEPT;
MG_API int Get_Alsvc_UHdr_All(int count, alsvc_hdr *buf) MG_NOEXCEPT;
MG_API int Get_Alsvc_GHdr_All(int count, alsvc_hdr *buf) MG_NOEXCEPT;
MG_API int Get_Alsvc_DHdr_All(int count, alsvc_hdr *buf) MG_NOEXCEPT;

MG_API int get_alsvc_cnt(int kind, int id) MG_NOEXCEPT;
MG_API int get_alsvc_rule(int kind, alsvc_hdr *hdr, alsvc_rule *buf) MG_NOEXCEPT;
MG_API int set_alsvc_rule(int kind, alsvc_hdr *hdr, alsvc_rule *rules) MG_NOEXCEPT;
MG_API int del_alsvc_rule(int kind, alsvc_hdr *hdr) MG_NOEXCEPT;
MG_API int del_alsvc_rule_all(int kind) MG_NOEXCEPT;
MG_API int get_alsvc_hdr_cnt(int kind) MG_NOEXCEPT;
MG_API int get_alsvc_hdr_all(int kind, int count, alsvc_hdr *buf) MG_NOEXCEPT;
MG_API int add_ipaddr_to_table(MGLoginOrigin *address) MG_NOEXCEPT;

MG_API int get_alsvc_path(int kind) MG_NOEXCEPT;
MG_API int check_kernel_data(int kind) MG_NOEXCEPT;
MG_API int load_rule_from_file(int kind) MG_NOEXCEPT;
MG_API int make_load_header(int kind, const char *path, alsvc_load **list) MG_NOEXCEPT;
MG_API alsvc_load *read_rule_from_file(FILE *stream) MG_NOEXCEPT;
MG_API void free_load_hdr_all(alsvc_load *list) MG_NOEXCEPT;
MG_API char *fgets_alsvc_file(char *buf, int size, FILE *stream) MG_NOEXCEPT;
MG_API int export_rule_to_file(int kind, const char *path) MG_NOEXCEPT;

/* ---- Restricted commands ("<root>/data/cmd_file", 64-byte records) ---------- */

#define MG_CMD_MAX 50

typedef struct cmdent {
    char command[63];
    unsigned char priority; /* 1: ahead of every record of priority 0 */
} cmdent;

typedef struct cmdent_list {
    int32_t count;
    cmdent records[MG_CMD_MAX];
} cmdent_list;

MG_STATIC_ASSERT(sizeof(cmdent) == 64 && offsetof(cmdent, priority) == 63, "restricted command record");

MG_API int set_cmdpath(void) MG_NOEXCEPT;
MG_API void setcmdent(void) MG_NOEXCEPT;
MG_API cmdent_list *getcmdent(void) MG_NOEXCEPT;
MG_API void endcmdent(void) MG_NOEXCEPT;
MG_API int loadcmdent(void) MG_NOEXCEPT;
MG_API int addcmdent(const cmdent *record) MG_NOEXCEPT;
MG_API int delcmdent(const char *command) MG_NOEXCEPT;
MG_API int delcmdall(void) MG_NOEXCEPT;
MG_API int modcmdent(const cmdent *record) MG_NOEXCEPT;
MG_API int export_rstcmd_to_file(const cmdent_list *list) MG_NOEXCEPT;
MG_API int _k_load_cmd(int fd, long length) MG_NOEXCEPT;

/* ---- Allowed commands ("<root>/data/alcmd_file") ------------------------------ */

#define MG_ALCMD_MAX 50

typedef struct alcmd {
    char path[256];
    int32_t opt1;
    int8_t opt2;
    unsigned char pad[3];
    int32_t opt3;
    int32_t opt4;
} alcmd;

typedef struct alcmd_list {
    int32_t count;
    alcmd entries[MG_ALCMD_MAX];
} alcmd_list;

MG_STATIC_ASSERT(sizeof(alcmd) == 272 && offsetof(alcmd, opt1) == 256 && offsetof(alcmd, opt2) == 260 &&
                 offsetof(alcmd, opt3) == 264 && offsetof(alcmd, opt4) == 268, "allowed command");
MG_STATIC_ASSERT(offsetof(alcmd_list, entries) == 4, "allowed command list");

/* check_alcmd / make_alcmdlist modes */
#define MG_ALCMD_DELETE 0
#define MG_ALCMD_MODIFY 1
#define MG_ALCMD_ADD 2
#define MG_ALCMD_LOAD 3

MG_API int get_alcmdpath(void) MG_NOEXCEPT;
MG_API int get_alcmd_list(alcmd_list *list) MG_NOEXCEPT;
MG_API int add_alcmd_list(const alcmd *entry) MG_NOEXCEPT;
MG_API int del_alcmd_list(const alcmd *entry) MG_NOEXCEPT;
MG_API int mod_alcmd_list(const alcmd *entry) MG_NOEXCEPT;
MG_API int del_all_alcmd_list(void) MG_NOEXCEPT;
MG_API int make_alcmdlist(int mode, const char *path, alcmd_list *list) MG_NOEXCEPT;
MG_API int export_alcmdlist_to_file(const char *path, const alcmd_list *list) MG_NOEXCEPT;
MG_API int check_alcmd(int mode, const alcmd *entry) MG_NOEXCEPT;
MG_API int add_alcmd_to_list(const alcmd *entry, alcmd_list *list) MG_NOEXCEPT;
MG_API int del_alcmd_from_list(const alcmd *entry, alcmd_list *list) MG_NOEXCEPT;
MG_API int mod_alcmd_from_list(const alcmd *entry, alcmd_list *list) MG_NOEXCEPT;
MG_API char *fgets_alcmd_file(char *buf, int size, FILE *stream) MG_NOEXCEPT;

MG_END_DECLS

#endif
