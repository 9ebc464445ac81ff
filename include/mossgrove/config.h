/* Option configuration: "<root>/conf/mgopt.conf", which sets the secure log's
 * place, size and generations, alerting and pending-module behaviour. */
#ifndef MOSSGROVE_CONFIG_H
#define MOSSGROVE_CONFIG_H

#include <stddef.h>
#include <mossgrove/defs.h>

MG_BEGIN_DECLS

typedef struct MGOptionBuf {
    char SecureLogDir[1024];
    char SecureLogBakDir[1024];
    int32_t SecureLogSize;       /* megabytes of 1000000 bytes, 1..100 */
    int32_t SecureLogFileCount;  /* 1..10 */
    char AuditTrailAlert;        /* 'Y' / 'N' */
    char ModulePending;          /* 'Y', 'N', or 'X' when unsupported */
    char PV_Enable;
    int32_t PV_Time;
    int32_t PV_Count;
    char PV_ProcessKill;
    char MailEnable;
    char MailServer[32];
    char MailAddress[256];
    char ClearAllLog;
    int32_t CurrentFileRate;
    char BackupAndClear;
    char SmsEnable;
    char SmsServer[32];
    char SmsTel[256];
} MGOptionBuf;

MG_STATIC_ASSERT(sizeof(MGOptionBuf) == 2656, "option record");
MG_STATIC_ASSERT(offsetof(MGOptionBuf, SecureLogSize) == 2048 &&
                 offsetof(MGOptionBuf, PV_Time) == 2060 &&
                 offsetof(MGOptionBuf, MailServer) == 2070 &&
                 offsetof(MGOptionBuf, CurrentFileRate) == 2360 &&
                 offsetof(MGOptionBuf, SmsTel) == 2398, "option record");

MG_API int ReadMGOptionConfig(const char *path, MGOptionBuf *opt) MG_NOEXCEPT;
MG_API int CheckMGOptionConfig(const MGOptionBuf *opt) MG_NOEXCEPT;
MG_API int WriteMGOptionConfig(const char *path, const MGOptionBuf *opt) MG_NOEXCEPT;

/* ---- Policy modes: "<root>/data/ips.conf" and the 22-byte mode block ---- */

#define MG_RGCONF_SIZE 22      /* bytes 0-18 switches, 19 reserved, 20-21 padding */
#define MG_RGCONF_KEYWORDS 23  /* entries of rgconf_order, the last one empty */
#define MG_RGCONF_OFF 0
#define MG_RGCONF_WARN 1
#define MG_RGCONF_ON 3
#define MG_RGCONF_KERNEL 64    /* set by the kernel for KILLACL, COMMAND, SETUID */
#define MG_RGCONF_NOT_SET 128  /* not set, or not supported by the kernel */
#define MG_RGCONF_REQ_KERNEL 1 /* make_rgconf_from_file: start from the kernel's block */
#define MG_RGCONF_REQ_UNSET 5  /* ... start from an all-unset block */

/* Keyword table: a one-letter initial, then the keyword NUL-padded to 16. */
MG_API extern const char rgconf_order[MG_RGCONF_KEYWORDS][17];
/* "<root>/data/ips.conf", built by get_confpath. */
MG_API extern char rgconf_path[1024];

MG_API int get_confpath(void) MG_NOEXCEPT;
MG_API char *get_token2(char *line) MG_NOEXCEPT;
MG_API void init_rgconfig_to_ns(unsigned char *block) MG_NOEXCEPT;
MG_API int get_keywd_initial(char *initial, const char *keyword) MG_NOEXCEPT;
MG_API int get_mode_value(const char *s) MG_NOEXCEPT;
MG_API int get_on_value(const char *s) MG_NOEXCEPT;
MG_API int get_ips_value(const char *s) MG_NOEXCEPT;
MG_API int set_value_to_rgconf(int index, unsigned char *block, char initial, const char *value) MG_NOEXCEPT;
MG_API int make_rgconf_from_file(int request, unsigned char *block, const char *path) MG_NOEXCEPT;
MG_API int export_rgconf_to_file(const unsigned char *block, const char *path) MG_NOEXCEPT;
/* The block as little-endian words: 1 when every switch holds an accepted value. */
MG_API int verify_config(uint32_t w0, uint32_t w1, uint32_t w2, uint32_t w3, uint32_t w4) MG_NOEXCEPT;
MG_API int verify_config_mode(uint32_t w) MG_NOEXCEPT;
MG_API int verify_config_opt(uint32_t w0, uint32_t w1) MG_NOEXCEPT;
MG_API int verify_config_ips(uint32_t w0, uint32_t w1) MG_NOEXCEPT;
/* ips: the 8-byte IPS part (bytes 12-19); 1 when the kernel could be read. */
MG_API int adjust_not_supported_ips(unsigned char *ips) MG_NOEXCEPT;

MG_END_DECLS

#endif
