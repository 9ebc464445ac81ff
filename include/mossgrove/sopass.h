/* Security password store: the product's secondary password of every MLS
 * user ("<root>/etc/mgpasswd"), its terminal prompts, hash checks, lock flag
 * and login retry limit. */
#ifndef MOSSGROVE_SOPASS_H
#define MOSSGROVE_SOPASS_H

#include <stddef.h>
#include <mossgrove/defs.h>

MG_BEGIN_DECLS

/* One entry of "mgpasswd" (76 bytes). */
typedef struct MGSecPasswd {
    char name[24];             /* the key */
    char hash[44];             /* result of crypt, all zero when unset */
    char terminator;           /* 0 */
    signed char retry;         /* login retry limit; outside 1..99 reads as 5 */
    char marker;               /* ' ' when made by the MLS user database */
    unsigned char flags;       /* MG_PW_* */
    int32_t time;              /* seconds since the epoch when made */
} MGSecPasswd;

MG_STATIC_ASSERT(sizeof(MGSecPasswd) == 76, "security password entry");
MG_STATIC_ASSERT(offsetof(MGSecPasswd, hash) == 24 && offsetof(MGSecPasswd, terminator) == 68 &&
                 offsetof(MGSecPasswd, retry) == 69 && offsetof(MGSecPasswd, marker) == 70 &&
                 offsetof(MGSecPasswd, flags) == 71 && offsetof(MGSecPasswd, time) == 72,
                 "security password entry");

#define MG_PW_IN_USE 0x01
#define MG_PW_LOCKED 0x02

#define MG_ERR_PW_NOTHING 10016     /* empty password or hash */
#define MG_ERR_PW_CRYPT 10068       /* crypt failed */
#define MG_ERR_PW_SHORT 10070       /* new password shorter than 8 characters */
#define MG_ERR_PW_MISMATCH 10071    /* the two entries differ */
#define MG_ERR_PW_STORE 10092       /* the store is not a whole number of entries */

MG_API int chk_evmg(void) MG_NOEXCEPT;
MG_API int set_pwpath(void) MG_NOEXCEPT;

/* Enumeration: the store stays read-locked while loaded. */
MG_API int setmgpwdent(void) MG_NOEXCEPT;
MG_API MGSecPasswd *getmgpwdent(void) MG_NOEXCEPT;
MG_API void endmgpwdent(void) MG_NOEXCEPT;
MG_API MGSecPasswd *getmgpwdnam(const char *name) MG_NOEXCEPT;
MG_API int putmgpwdent(const MGSecPasswd *entry, int fd) MG_NOEXCEPT;
MG_API int malloc_mgpwd(int count) MG_NOEXCEPT;
MG_API void free_mgpwd(void) MG_NOEXCEPT;

/* Rewrites: 1 done, 0 a write failed (store unchanged), -1 failed. */
MG_API int add_mgpwdent(const MGSecPasswd *entry) MG_NOEXCEPT;
MG_API int del_mgpwdent(const char *name) MG_NOEXCEPT;
MG_API int update_mgpwdent(const MGSecPasswd *entry) MG_NOEXCEPT;
MG_API int lock_mgpwdnam(const char *name) MG_NOEXCEPT;
MG_API int unlock_mgpwdnam(const char *name) MG_NOEXCEPT;
MG_API int is_locked_mgpwd(const char *name) MG_NOEXCEPT;
MG_API int get_login_retry(const char *name) MG_NOEXCEPT;
MG_API int set_login_retry(const char *name, int limit) MG_NOEXCEPT;
MG_API int init_secpwnam(const char *name) MG_NOEXCEPT;

/* The lock file guarding a whole edit by a tool. */
MG_API int lckmgpwdf(void) MG_NOEXCEPT;
MG_API int ulckmgpwdf(int fd) MG_NOEXCEPT;
MG_API int remove_tmp(const char *path) MG_NOEXCEPT;

/* Terminal prompts without echo, and password checks. */
MG_API char *get_mgpass_phrase(const char *prompt) MG_NOEXCEPT;
MG_API int input_oldpw(char *buffer) MG_NOEXCEPT;   /* buffer: 16 bytes */
MG_API int input_newpw(char *buffer) MG_NOEXCEPT;   /* buffer: 16 bytes */
MG_API int cmp_sopass(const char *hash, const char *typed) MG_NOEXCEPT;
MG_API int filter_password(const char *text) MG_NOEXCEPT;
MG_API char ran_char(void) MG_NOEXCEPT;

MG_END_DECLS

#endif
