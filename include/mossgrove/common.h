/* Common utilities: token slots, the key/value configuration reader, string and
 * file helpers, and error reporting. */
#ifndef MOSSGROVE_COMMON_H
#define MOSSGROVE_COMMON_H

#include <stdio.h>
#include <mossgrove/defs.h>

MG_BEGIN_DECLS

/* ---- Error reporting ---------------------------------------------------- */

/* Text of the last _mg_strerror call. */
MG_API extern char _errbuf[1024];

/* Stores code in errno and returns -1. */
MG_API int set_errno(int code) MG_NOEXCEPT;
/* Prints one line describing errno to standard output, prefixed with the
 * formatted caller text ("MOSSGROVE: " for the library's own codes). */
MG_API void err_ret(const char *fmt, ...) MG_NOEXCEPT __attribute__((format(printf, 1, 2)));
/* Same line as err_ret, then exit(1). */
MG_API void err_sys(const char *fmt, ...) MG_NOEXCEPT __attribute__((format(printf, 1, 2), noreturn));
/* errno = code, then the line with no caller text. */
MG_API void err_string(int code) MG_NOEXCEPT;
/* Writes the message text of code into _errbuf. */
MG_API void _mg_strerror(int code) MG_NOEXCEPT;

/* ---- Installation root ------------------------------------------------- */

#define MG_PATH_MAX 1024

/* Installation root, filled by chk_rootdir / chk_mgrootdir. */
MG_API extern char mg_root[MG_PATH_MAX];

/* Reads MG_ROOT from "/etc/.evmg" into mg_root; ends the process on failure. */
MG_API int chk_rootdir(void) MG_NOEXCEPT;
/* The same for library callers: 1, or -1 with errno 10026 / 10027. */
MG_API int chk_mgrootdir(void) MG_NOEXCEPT;

/* ---- Token slots and splitting ------------------------------------------ */

#define MG_TOKSLOT_COUNT 10

MG_API void init_tokslot(void) MG_NOEXCEPT;
/* Lowest free slot, now in use; -1 when all are taken. */
MG_API int get_tokslot(void) MG_NOEXCEPT;
MG_API void return_tokslot(int slot) MG_NOEXCEPT;
/* Cuts str at the first ch; returns the text after it, or NULL. */
MG_API char *split_at(char *str, int ch) MG_NOEXCEPT;
/* Next field of the split kept in slot; str non-NULL starts a new split.
 * Empty fields are kept; NULL after the last field. */
MG_API char *xsplit_at(char *str, int ch, int slot) MG_NOEXCEPT;
/* Splits str into n fields: 1 when n were stored, -1 when fewer, 0 when no slot. */
MG_API int xparse_string(char *str, int ch, char **fields, int n) MG_NOEXCEPT;
MG_API int count_char(const char *str, int ch) MG_NOEXCEPT;
/* Lines from the current position whose first character is neither '#' nor newline. */
MG_API int count_lines(FILE *file) MG_NOEXCEPT;
/* Tokens of "key value" / "key=value" lines; NULL continues the last line. */
MG_API char *get_token(char *str) MG_NOEXCEPT;

/* ---- Configuration reader (one process-wide table) ---------------------- */

MG_API int read_conf(const char *path) MG_NOEXCEPT;            /* 1 loaded, 0 failed */
MG_API int get_conf(const char *key, char *value) MG_NOEXCEPT; /* value: 1024 bytes */
MG_API char *get_conf_ptr(const char *key) MG_NOEXCEPT;
MG_API int close_conf(void) MG_NOEXCEPT;
/* Installation root from "/etc/.evmg" key MG_ROOT; 0, or -1 with errno. */
MG_API int get_mgroot(char *buffer, int size) MG_NOEXCEPT;

/* ---- Validation and text ------------------------------------------------ */

MG_API int isRegFile(const char *path) MG_NOEXCEPT;
MG_API int _isdigits(const char *s) MG_NOEXCEPT;
MG_API int _isascii(const char *s) MG_NOEXCEPT;
MG_API int isValidNumber(const char *s) MG_NOEXCEPT;
MG_API char *get_progname(char *path) MG_NOEXCEPT;
MG_API void RemoveTailCRLF(char *s) MG_NOEXCEPT;
MG_API void TrimLeftWhiteSpace(const char *src, char *dst) MG_NOEXCEPT;
MG_API char *TrimRightWhiteSpace(const char *src, char *dst) MG_NOEXCEPT;
MG_API char *TrimWhiteSpace(const char *src, char *dst) MG_NOEXCEPT;
MG_API char *copy_token(char *dst, const char *src, int delim) MG_NOEXCEPT;

/* ---- Files, directories, host address ----------------------------------- */

MG_API char *mg_dirname(const char *path, char *dst, int size) MG_NOEXCEPT;
MG_API int mg_mkdir(const char *path, mode_t mode) MG_NOEXCEPT;
MG_API int mg_copy_file(const char *src, const char *dst) MG_NOEXCEPT;
MG_API int get_ipaddr_by_hostname(const char *name, char *dst, int size) MG_NOEXCEPT;
MG_API int get_host_ipaddr(char *dst, int size) MG_NOEXCEPT;

MG_END_DECLS

#endif
