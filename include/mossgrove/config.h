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

MG_END_DECLS

#endif
