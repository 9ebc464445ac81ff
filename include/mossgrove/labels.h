/* Label databases: MLS users, categories and roles, and the root-to-user
 * transition list, each kept in the kernel module's table and in a
 * fixed-record store file under "<root>/data/". */
#ifndef MOSSGROVE_LABELS_H
#define MOSSGROVE_LABELS_H

#include <stddef.h>
#include <mossgrove/defs.h>

MG_BEGIN_DECLS

/* ---- Records (file format and kernel exchange format) -------------------- */

/* One MLS user ("mls_user", 1324 bytes). */
typedef struct MGMlsUser {
    int32_t uid;
    int32_t gid;
    int32_t level;             /* security level 0..7 */
    int32_t cid;               /* category id 0..127, 0 = none */
    signed char retry;         /* login retry limit 1..99; -1 in a modify: keep */
    unsigned char flags;       /* MG_MU_* */
    unsigned char role;        /* MG_CAT_ROLE_*; 1..3 make an MLS user */
    unsigned char admin;       /* administrator option */
    char name[24];
    char group[256];
    char home[1023];
    unsigned char disabled;    /* 1: the account cannot log in */
} MGMlsUser;

#define MG_MU_ADDED 0x01       /* set on every add */
#define MG_MU_LOCKED 0x02      /* mirrored into the security password store */

/* One category ("mls_cat", 56 bytes). */
typedef struct MGCategory {
    int32_t id;                /* 0..127 */
    unsigned char depth;       /* 0 for the root, at most 15 */
    unsigned char role;        /* role of the members */
    unsigned char reserved;    /* 0 on every add */
    char name[33];
    unsigned char path[16];    /* ancestors from the root, own id at [depth] */
} MGCategory;

/* One entry of the root-to-user transition list ("su_file", 8 bytes). */
typedef struct MGSuEntry {
    int32_t uid;
    int32_t word;              /* passed to the kernel as given */
} MGSuEntry;

MG_STATIC_ASSERT(sizeof(MGMlsUser) == 1324, "MLS user record");
MG_STATIC_ASSERT(offsetof(MGMlsUser, gid) == 4 && offsetof(MGMlsUser, level) == 8 &&
                 offsetof(MGMlsUser, cid) == 12 && offsetof(MGMlsUser, retry) == 16 &&
                 offsetof(MGMlsUser, flags) == 17 && offsetof(MGMlsUser, role) == 18 &&
                 offsetof(MGMlsUser, admin) == 19 && offsetof(MGMlsUser, name) == 20 &&
                 offsetof(MGMlsUser, group) == 44 && offsetof(MGMlsUser, home) == 300 &&
                 offsetof(MGMlsUser, disabled) == 1323, "MLS user record");
MG_STATIC_ASSERT(sizeof(MGCategory) == 56, "category record");
MG_STATIC_ASSERT(offsetof(MGCategory, depth) == 4 && offsetof(MGCategory, role) == 5 &&
                 offsetof(MGCategory, reserved) == 6 && offsetof(MGCategory, name) == 7 &&
                 offsetof(MGCategory, path) == 40, "category record");
MG_STATIC_ASSERT(sizeof(MGSuEntry) == 8 && offsetof(MGSuEntry, word) == 4, "transition record");

/* Roles. */
#define MG_CAT_ROLE_UX 0
#define MG_CAT_ROLE_MU 1
#define MG_CAT_ROLE_SA 2
#define MG_CAT_ROLE_SO 3

#define MG_SU_MAX 20           /* entries of the transition list */

/* Error codes of the label databases (carried in errno). */
#define MG_ERR_PW_EMPTY 10001        /* the account database is empty */
#define MG_ERR_PW_GREW 10002         /* the account database grew while read */
#define MG_ERR_PW_NOMEM 10003
#define MG_ERR_KLIST_NOMEM 10004
#define MG_ERR_SAVE_NOMEM 10005
#define MG_ERR_CATDEF_NOMEM 10006
#define MG_ERR_CATLIST_NOMEM 10007
#define MG_ERR_CATADD_NOMEM 10008
#define MG_ERR_CATDEL_NOMEM 10009
#define MG_ERR_ROLE_VALUE 10036      /* is_valid_* family */
#define MG_ERR_LEVEL_VALUE 10037
#define MG_ERR_CID_VALUE 10038
#define MG_ERR_MU_KLIST 10012        /* the kernel's MLS user list could not be read */
#define MG_ERR_CAT_KLIST 10015       /* the kernel's category list could not be read */
#define MG_ERR_NOTHING 10016         /* nothing to write */
#define MG_ERR_REPLACE 10018         /* the store could not be replaced */
#define MG_ERR_MU_REFUSED 10019
#define MG_ERR_CAT_REFUSED 10020
#define MG_ERR_MU_OVERCOUNT 10021
#define MG_ERR_CAT_TOO_FEW 10022
#define MG_ERR_MU_LOAD 10023
#define MG_ERR_CAT_LOAD 10024
#define MG_ERR_UID_NAME 10028
#define MG_ERR_ALREADY_MU 10029
#define MG_ERR_NOT_MU 10030
#define MG_ERR_NOT_LISTED 10031
#define MG_ERR_BAD_OP 10032
#define MG_ERR_NO_SO_LEFT 10033
#define MG_ERR_NO_CATEGORY 10034
#define MG_ERR_UID_ZERO 10035
#define MG_ERR_CAT_DEFAULT 10039
#define MG_ERR_NO_FREE_CID 10040
#define MG_ERR_TOO_DEEP 10041
#define MG_ERR_SU_EMPTY 10052
#define MG_ERR_SU_NORECORD 10053
#define MG_ERR_SU_NOMEM 10055
#define MG_ERR_SU_SHORT 10056
#define MG_ERR_SU_FULL 10057
#define MG_ERR_SU_LISTED 10058
#define MG_ERR_SU_REFUSED 10060

/* set_mulist operations. */
#define MG_MU_OP_ADD 1
#define MG_MU_OP_MOD 2
#define MG_MU_OP_DEL 4

/* ---- Categories and roles --------------------------------------------------- */

/* Value checks: isvalid_* give 1 or 0 (errno 10010-10012), is_valid_* 1 or -1
 * (errno 10036-10038). */
MG_API int isvalid_role(int role) MG_NOEXCEPT;
MG_API int isvalid_level(int level) MG_NOEXCEPT;
MG_API int isvalid_cid(int cid) MG_NOEXCEPT;
MG_API int is_valid_role(int role) MG_NOEXCEPT;
MG_API int is_valid_level(int level) MG_NOEXCEPT;
MG_API int is_valid_cid(int cid) MG_NOEXCEPT;
/* "UX", "MU", "SA", "SO"; "" for any other value. */
MG_API const char *get_srole(int role) MG_NOEXCEPT;
/* Name of a process role state (bits 13-15 of a process label). */
MG_API const char *get_srolestate(int state) MG_NOEXCEPT;
/* Role of a process role state; -1 outside 0..7. */
MG_API int conv_role_state(int state) MG_NOEXCEPT;

/* Store layer (call chk_mgrootdir and set_dbpath first). */
MG_API void setcatent(void) MG_NOEXCEPT;
MG_API MGCategory *getcatent(void) MG_NOEXCEPT;
MG_API void endcatent(void) MG_NOEXCEPT;
MG_API MGCategory *getcatnam(const char *name) MG_NOEXCEPT;
MG_API MGCategory *getcatcid(int cid) MG_NOEXCEPT;
MG_API int createcid(void) MG_NOEXCEPT;
MG_API int get_cat_role(int cid) MG_NOEXCEPT;
MG_API int cnamecmp(int depth, int parent_id, const char *name) MG_NOEXCEPT;
MG_API int addcatent(MGCategory *record) MG_NOEXCEPT;
MG_API int modcatent(int new_parent_id, const char *new_name, MGCategory *record,
                     const MGCategory *new_parent) MG_NOEXCEPT;
MG_API int delcatent(const MGCategory *record) MG_NOEXCEPT;
MG_API int resetcatent(void) MG_NOEXCEPT;
MG_API int loadcatent(void) MG_NOEXCEPT;
MG_API int _k_load_cat(int fd, long size) MG_NOEXCEPT;

/* Management API (mode 0 or 1). Lists are malloc'ed; the caller frees them. */
MG_API int get_mls_cat(MGCategory **list, int *count, int mode) MG_NOEXCEPT;
MG_API int get_mls_cat_one(MGCategory *record, int mode) MG_NOEXCEPT;
MG_API int init_mls_category(void) MG_NOEXCEPT;
MG_API int add_mls_cat(MGCategory *record, int mode) MG_NOEXCEPT;
MG_API int mod_mls_cat(const MGCategory *record, int mode) MG_NOEXCEPT;
MG_API int del_mls_cat(const MGCategory *record, int mode) MG_NOEXCEPT;
MG_API int add_catlist(const MGCategory *list, int count, const MGCategory *record) MG_NOEXCEPT;
MG_API int mod_catlist(const MGCategory *list, int count, const MGCategory *record) MG_NOEXCEPT;
MG_API int del_catlist(const MGCategory *list, int count, const MGCategory *record) MG_NOEXCEPT;
MG_API int create_cid(int mode) MG_NOEXCEPT;
MG_API int is_exist_cid(int cid, int mode) MG_NOEXCEPT;
MG_API int check_valid_rlc(const MGMlsUser *record) MG_NOEXCEPT;
MG_API int upload_ctdb(const MGCategory *records, int count) MG_NOEXCEPT;
MG_API int dump_ctdb_file(const MGCategory *records, int count) MG_NOEXCEPT;
MG_API int get_depth(const unsigned char *path) MG_NOEXCEPT;

/* ---- MLS users -------------------------------------------------------------- */

/* Store layer (call chk_mgrootdir and set_dbpath first). */
MG_API void setmuent(void) MG_NOEXCEPT;
MG_API MGMlsUser *getmuent(void) MG_NOEXCEPT;
MG_API void endmuent(void) MG_NOEXCEPT;
MG_API MGMlsUser *getmunam(const char *name) MG_NOEXCEPT;
MG_API MGMlsUser *getmuuid(int uid) MG_NOEXCEPT;
MG_API int addmuent(const MGMlsUser *record) MG_NOEXCEPT;
MG_API int modmuent(const MGMlsUser *record) MG_NOEXCEPT;
MG_API int delmuent(const MGMlsUser *record) MG_NOEXCEPT;
MG_API int resetmuent(void) MG_NOEXCEPT;
MG_API int loadmuent(void) MG_NOEXCEPT;
MG_API int _k_load_mu(int fd, long size) MG_NOEXCEPT;

/* Management API (mode 0: load an empty kernel table from the store first;
 * 1: take the kernel's table as it is). */
MG_API int get_mulist_pw(MGMlsUser **list, int *count) MG_NOEXCEPT;
MG_API int get_mulist_kern(MGMlsUser **list, int *count, int mode) MG_NOEXCEPT;
MG_API int merge_mulist(MGMlsUser *pw, int pw_count, MGMlsUser *kern, int kern_count,
                        int *matched) MG_NOEXCEPT;
MG_API int get_mls_user(MGMlsUser **list, int *count, int mode) MG_NOEXCEPT;
MG_API int get_mls_user_one(MGMlsUser *record, int mode) MG_NOEXCEPT;
MG_API int add_mls_user(MGMlsUser *record, int mode) MG_NOEXCEPT;
MG_API int mod_mls_user(MGMlsUser *record, int mode) MG_NOEXCEPT;
MG_API int del_mls_user(MGMlsUser *record, int mode) MG_NOEXCEPT;
MG_API int del_mls_user_all(int mode) MG_NOEXCEPT;
MG_API int set_mulist(MGMlsUser *list, int count, const MGMlsUser *record, int op) MG_NOEXCEPT;
MG_API int del_mulist(MGMlsUser *list, int count) MG_NOEXCEPT;
MG_API int get_mu_num(const MGMlsUser *list, int count) MG_NOEXCEPT;
MG_API int get_so_num(const MGMlsUser *list, int count) MG_NOEXCEPT;
MG_API int save_mls_user(const MGMlsUser *list, int count, int mls_count) MG_NOEXCEPT;
MG_API int upload_udb(const MGMlsUser *records, int count) MG_NOEXCEPT;
MG_API int dump_udb_file(const MGMlsUser *records, int count) MG_NOEXCEPT;
MG_API int get_num_pw(void) MG_NOEXCEPT;
MG_API int check_valid_account(const char *name) MG_NOEXCEPT;
MG_API int check_valid_shell(const char *path) MG_NOEXCEPT;
MG_API void print_version(const char *name, int major, int minor, int patch,
                          const char *build) MG_NOEXCEPT;

/* ---- Root-to-user transition list ------------------------------------------- */

/* Builds "<root>/data/su_file" and its backup (call chk_mgrootdir first). */
MG_API int set_supath(void) MG_NOEXCEPT;
MG_API void setsuent(void) MG_NOEXCEPT;
MG_API MGSuEntry *getsuent(void) MG_NOEXCEPT;
MG_API void endsuent(void) MG_NOEXCEPT;
MG_API MGSuEntry *getsuuid(int uid) MG_NOEXCEPT;
MG_API int addsuent(const MGSuEntry *record) MG_NOEXCEPT;
MG_API int modsuent(const MGSuEntry *record) MG_NOEXCEPT;
MG_API int delsuent(const MGSuEntry *record) MG_NOEXCEPT;
MG_API int delsuuid(const int *uids, int n) MG_NOEXCEPT;
MG_API int delsuall(void) MG_NOEXCEPT;
MG_API int loadsuent(void) MG_NOEXCEPT;
MG_API int _k_load_su(int fd, long len) MG_NOEXCEPT;

MG_END_DECLS

#endif
