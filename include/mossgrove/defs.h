/* Mossgrove user-space library: common declarations for every public header. */
#ifndef MOSSGROVE_DEFS_H
#define MOSSGROVE_DEFS_H

#include <stdint.h>
#include <sys/types.h>

/* MG_API marks a function or global exported by pam_mg_acl.so. */
#define MG_API __attribute__((visibility("default")))

#ifdef __cplusplus
#define MG_BEGIN_DECLS extern "C" {
#define MG_END_DECLS }
#define MG_NOEXCEPT noexcept
#else
#define MG_BEGIN_DECLS
#define MG_END_DECLS
#define MG_NOEXCEPT
#endif

/* Layout checks of records that cross the kernel boundary or rest in files. */
#ifdef __cplusplus
#define MG_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define MG_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

/* Library error codes carried in errno (below 10000: system errno values). */
#define MG_ERR_NOT_NUMERIC 10001  /* value must be numeric */
#define MG_ERR_BAD_NAME 10002     /* name holds a forbidden character */
#define MG_ERR_ROLE_RANGE 10010
#define MG_ERR_LEVEL_RANGE 10011
#define MG_ERR_CATEGORY_RANGE 10012
#define MG_ERR_TEMPFILE 10017     /* temporary file name taken by a non-regular file */
#define MG_ERR_NO_EVMG 10026      /* "/etc/.evmg" cannot be read */
#define MG_ERR_NO_MGROOT 10027    /* "/etc/.evmg" holds no usable MG_ROOT */
#define MG_ERR_NOTHING_TO_LOAD 10072
#define MG_ERR_NO_MODULE 10101    /* kernel module not loaded */

#endif
