/* Secure log: the audit-log writer with its generations and lock file, and its
 * maintenance (size, backup, reduce, clear). */
#ifndef MOSSGROVE_SECLOG_H
#define MOSSGROVE_SECLOG_H

#include <stddef.h>
#include <mossgrove/defs.h>

MG_BEGIN_DECLS

/* One audit record. */
typedef struct SecureLogRecord {
    int32_t nSource;     /* producer: 7 PAM module, 4 command-line tools */
    int32_t nFlag;       /* event code */
    int32_t nLevel;      /* event level */
    int32_t tLogged;     /* set by SaveSecureLog */
    int32_t tEvent;      /* time of the event */
    char szProgram[16];
    char szAddress[16];  /* this host's IPv4 address, dotted */
    char szMessage[1024];
} SecureLogRecord;

MG_STATIC_ASSERT(sizeof(SecureLogRecord) == 1076, "secure log record");
MG_STATIC_ASSERT(offsetof(SecureLogRecord, tEvent) == 16 &&
                 offsetof(SecureLogRecord, szProgram) == 20 &&
                 offsetof(SecureLogRecord, szAddress) == 36 &&
                 offsetof(SecureLogRecord, szMessage) == 52, "secure log record");

/* Targets of SaveSecureLog (a bit set). */
#define MG_SECLOG_STDOUT 1
#define MG_SECLOG_SYSLOG 2
#define MG_SECLOG_FILE 4

/* 1 once InitSecureLog has succeeded. */
MG_API extern int g_nInitSecureLog;

/* Sets the writer up; may be called again, replacing the settings. path must
 * end in a two-digit generation ("<dir>/mglog.01"). NULL or "" leaves the file
 * settings as they are: before any file was set, file records go to syslog;
 * after one was, that earlier file stays in use. 0 or -1. */
MG_API int InitSecureLog(const char *ident, const char *path, int maxSize, int fileCount,
                         int rotate) MG_NOEXCEPT;
MG_API int SaveSecureLog(int targets, SecureLogRecord *rec) MG_NOEXCEPT;
MG_API void SaveToSyslog(const char *text) MG_NOEXCEPT;
MG_API int ErrorSaveSecureLog(int kind, SecureLogRecord *rec) MG_NOEXCEPT;
MG_API int RotateSecureLogFile(void) MG_NOEXCEPT;
MG_API int GetFileLock(const char *path) MG_NOEXCEPT;
MG_API void FreeFileLock(int fd) MG_NOEXCEPT;

/* Maintenance. */
MG_API int GetSecureLogSize(const char *dir, int count) MG_NOEXCEPT;
MG_API int BackupSecureLog(const char *logDir, const char *backupRoot, int count) MG_NOEXCEPT;
MG_API int ReduceSecureLog(const char *file, int size, int percent) MG_NOEXCEPT;
MG_API int ClearSecureLog(const char *dir, int size, int percent) MG_NOEXCEPT;
MG_API int cmd_init_seclog(void) MG_NOEXCEPT;
MG_API int cmd_save_seclog(int level, const char *program, const char *message) MG_NOEXCEPT;

MG_END_DECLS

#endif
