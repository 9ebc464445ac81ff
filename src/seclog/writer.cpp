// The secure log writer: one text line per record, appended under a one-byte
// lock to "<dir>/mglog.01", with rotation into "mglog.02" ... "mglog.NN".
#include "seclog/seclog.hpp"

#include <mossgrove/kernel.h>
#include <mossgrove/seclog.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace mg::seclog {

char g_szIdent[256];
char g_szLogFilename[1024];
char g_szLockFilename[1024];
int g_nMaxLogSize;
int g_nMaxLogFileCount;
int g_nMGLogRotate;

namespace {

constexpr const char *kDefaultIdent = "MGLog";
// A file is rotated by the write that carries it past its limit plus this
// slack, so a rotated generation ends at most one record beyond that.
constexpr off_t kRotateSlack = 2048;

LockWait g_lock_wait = LockWait::yield;

// The eight fields of a record joined by sep and ended by a newline: the file
// form (tab) and the display form ('|'). Text fields are bounded by their
// buffers, so a record without terminators cannot be overread. Returns the
// length of the line.
size_t format_line(char (&out)[kLineMax], char sep, int source, int flag, int level, int logged,
                   int event, const char *program, const char *address, const char *message) {
    int n = snprintf(out, sizeof out, "%d%c%d%c%d%c%d%c%d%c%.16s%c%.16s%c%.1024s\n", source, sep,
                     flag, sep, level, sep, logged, sep, event, sep, program, sep, address, sep,
                     message);
    return n < 0 ? 0 : std::min(static_cast<size_t>(n), sizeof out - 1);
}

size_t format_record(char (&out)[kLineMax], char sep, const SecureLogRecord &rec) {
    return format_line(out, sep, rec.nSource, rec.nFlag, rec.nLevel, rec.tLogged, rec.tEvent,
                       rec.szProgram, rec.szAddress, rec.szMessage);
}

// The file form is one record per line and one field per tab: a control
// character inside a text field (a newline or tab in a remote host name, say)
// becomes a blank, so that no text can split a record or forge another.
template <size_t N>
const char *blank_controls(char (&out)[N + 1], const char (&field)[N]) {
    size_t i = 0;
    for (; i < N && field[i] != '\0'; ++i) {
        unsigned char c = static_cast<unsigned char>(field[i]);
        out[i] = (c < 0x20 || c == 0x7f) ? ' ' : field[i];
    }
    out[i] = '\0';
    return out;
}

size_t format_file_record(char (&out)[kLineMax], const SecureLogRecord &rec) {
    char program[sizeof rec.szProgram + 1], address[sizeof rec.szAddress + 1];
    char message[sizeof rec.szMessage + 1];
    return format_line(out, '\t', rec.nSource, rec.nFlag, rec.nLevel, rec.tLogged, rec.tEvent,
                       blank_controls<sizeof rec.szProgram>(program, rec.szProgram),
                       blank_controls<sizeof rec.szAddress>(address, rec.szAddress),
                       blank_controls<sizeof rec.szMessage>(message, rec.szMessage));
}

void syslog_display(const SecureLogRecord &rec) {
    char display[kLineMax];
    format_record(display, '|', rec);
    SaveToSyslog(display);
}

size_t base_length() { return strlen(g_szLogFilename) - 2; }

// "<base>NN" of the current log file.
void generation_name(char (&out)[1024], int n) {
    snprintf(out, sizeof out, "%.*s%02d", static_cast<int>(base_length()), g_szLogFilename, n);
}

// A log directory that others could write lets them plant links or files in
// place of the generations and the lock, so a root process writes only into a
// directory that is owned by root and writable by no one else.
bool log_dir_trusted() {
    if (geteuid() != 0) return true;
    char dir[sizeof g_szLogFilename];
    const char *slash = strrchr(g_szLogFilename, '/');
    if (slash == nullptr)
        snprintf(dir, sizeof dir, ".");
    else
        snprintf(dir, sizeof dir, "%.*s", static_cast<int>(slash == g_szLogFilename ? 1 : slash - g_szLogFilename),
                 g_szLogFilename);
    struct stat st;
    if (MG_stat(dir, &st) != 0) return false;
    if (!S_ISDIR(st.st_mode) || st.st_uid != 0 || (st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        errno = EPERM;
        return false;
    }
    return true;
}

bool ends_in_two_digits(const char *path, size_t len) {
    auto digit = [](char c) { return c >= '0' && c <= '9'; };
    return len >= 2 && digit(path[len - 2]) && digit(path[len - 1]);
}

// Appends the file form under the lock; on failure the record goes to syslog.
// The display form is only built when it is needed.
void append_record(SecureLogRecord *rec) {
    char line[kLineMax];
    size_t len = format_file_record(line, *rec);
    if (!log_dir_trusted()) {
        ErrorSaveSecureLog(1, rec);
        syslog_display(*rec);
        return;
    }
    LogLock lock(g_szLockFilename);
    if (!lock.held()) {
        ErrorSaveSecureLog(2, rec);
        syslog_display(*rec);
        return;
    }
    int fd = open_log_file(g_szLogFilename, O_WRONLY | O_APPEND, kLogMode);
    if (fd < 0) {
        ErrorSaveSecureLog(1, rec);
        syslog_display(*rec);
        return;
    }
    // The outcome of the write is not reported: there is nowhere better to send it.
    if (write(fd, line, len) < 0) {
    }
    off_t end = lseek(fd, 0, SEEK_CUR);
    close(fd);
    if (end > static_cast<off_t>(g_nMaxLogSize) + kRotateSlack) RotateSecureLogFile();
}

}  // namespace

int open_log_file(const char *path, int flags, mode_t mode) noexcept {
    flags |= O_NOFOLLOW | O_CLOEXEC;
    for (;;) {
        int fd = MG_open3(path, flags, 0);
        if (fd >= 0 || errno != ENOENT) return fd;
        fd = MG_open3(path, flags | O_CREAT | O_EXCL, mode);
        if (fd >= 0) {
            if (fchmod(fd, mode) == 0) return fd;
            int cause = errno;
            close(fd);
            errno = cause;
            return -1;
        }
        if (errno != EEXIST) return -1;  // else another writer made it first
    }
}

namespace {

bool lock_blocking(int fd) {
    while (lockf(fd, F_LOCK, 1) != 0)
        if (errno != EINTR) return false;
    return true;
}

}  // namespace

void set_lock_wait(LockWait how) noexcept { g_lock_wait = how; }

bool generation_path(char *buf, size_t size, const char *dir, int n) noexcept {
    int len = snprintf(buf, size, "%s%c%s.%02d", dir, '/', kLogName, n);
    return len >= 0 && static_cast<size_t>(len) < size;
}

bool lock_path(char *buf, size_t size, const char *dir) noexcept {
    int len = snprintf(buf, size, "%s%c%s", dir, '/', kLockName);
    return len >= 0 && static_cast<size_t>(len) < size;
}

LogLock::LogLock(const char *lock_file) noexcept : fd_(GetFileLock(lock_file)) {}
LogLock::~LogLock() { FreeFileLock(fd_); }

}  // namespace mg::seclog

using namespace mg::seclog;

extern "C" {

MG_API int g_nInitSecureLog = 0;

int InitSecureLog(const char *ident, const char *path, int maxSize, int fileCount,
                  int rotate) noexcept {
    if (ident == nullptr || ident[0] == '\0') return -1;
    bool with_file = path != nullptr && path[0] != '\0';
    if (with_file) {
        if (maxSize < 1 || fileCount < 1 || (rotate != 0 && rotate != 1)) return -1;
        // The generations are named from the path, so it must end in two digits
        // and every name derived from it must fit: a cut name would be another file.
        size_t len = strlen(path);
        int digits = snprintf(nullptr, 0, "%02d", fileCount);
        if (!ends_in_two_digits(path, len) || len >= sizeof g_szLogFilename ||
            len - 2 + strlen("lock") >= sizeof g_szLockFilename ||
            len - 2 + static_cast<size_t>(digits) >= sizeof g_szLogFilename)
            return -1;
    }
    snprintf(g_szIdent, sizeof g_szIdent, "%s", ident);
    if (with_file) {
        size_t len = strlen(path);
        memcpy(g_szLogFilename, path, len + 1);
        g_nMaxLogSize = maxSize;
        g_nMaxLogFileCount = fileCount;
        snprintf(g_szLockFilename, sizeof g_szLockFilename, "%.*s%s", static_cast<int>(len - 2),
                 path, "lock");
        g_nMGLogRotate = rotate;
    }
    g_nInitSecureLog = 1;
    return 0;
}

int SaveSecureLog(int targets, SecureLogRecord *rec) noexcept {
    if (g_nInitSecureLog != 1 || rec == nullptr) return -1;
    rec->tLogged = static_cast<int32_t>(time(nullptr));
    if (targets & (MG_SECLOG_STDOUT | MG_SECLOG_SYSLOG)) {
        char display[kLineMax];
        format_record(display, '|', *rec);
        if (targets & MG_SECLOG_STDOUT) fputs(display, stdout);
        if (targets & MG_SECLOG_SYSLOG) SaveToSyslog(display);
    }
    if (targets & MG_SECLOG_FILE) {
        if (g_szLogFilename[0] != '\0')
            append_record(rec);
        else if (!(targets & MG_SECLOG_SYSLOG))
            syslog_display(*rec);
    }
    return 0;
}

void SaveToSyslog(const char *text) noexcept {
    if (text == nullptr) return;
    openlog(g_szIdent[0] != '\0' ? g_szIdent : kDefaultIdent, LOG_PID, LOG_USER);
    syslog(LOG_ERR, "%s", text);
    closelog();
}

int ErrorSaveSecureLog(int kind, SecureLogRecord *rec) noexcept {
    int cause = errno;
    char message[1100];
    if (kind == 1)
        snprintf(message, sizeof message, "Failed to write SecureLog. [open fail - %s]",
                 g_szLogFilename);
    else if (kind == 2)
        snprintf(message, sizeof message, "Failed to write SecureLog. [lock fail - %d]", cause);
    else
        snprintf(message, sizeof message, "Failed to write SecureLog.");
    int now = static_cast<int>(time(nullptr));
    char line[kLineMax];
    format_line(line, '|', rec ? rec->nSource : 0, 1, 4, now, now, rec ? rec->szProgram : "",
                rec ? rec->szAddress : "", message);
    SaveToSyslog(line);
    return 0;
}

int RotateSecureLogFile(void) noexcept {
    if (g_szLogFilename[0] == '\0' || !log_dir_trusted()) return 0;
    char older[1024], newer[1024];
    generation_name(older, g_nMaxLogFileCount);
    if (g_nMGLogRotate == 0) {
        // Rotation off: once the last generation exists the current file keeps
        // growing, so that no record is ever dropped. A generation that cannot
        // be examined counts as present.
        struct stat st;
        if (MG_stat(older, &st) == 0 || errno != ENOENT) return 0;
    }
    MG_unlink(older);
    for (int n = g_nMaxLogFileCount - 1; n >= 1; --n) {
        generation_name(newer, n);
        MG_rename(newer, older);
        memcpy(older, newer, sizeof older);
    }
    int fd = open_log_file(g_szLogFilename, O_WRONLY, kLogMode);
    if (fd >= 0) close(fd);
    return 0;
}

int GetFileLock(const char *path) noexcept {
    if (path == nullptr) return -1;
    int fd;
    do {
        fd = open_log_file(path, O_WRONLY, kLockMode);
    } while (fd < 0 && errno == EAGAIN);
    if (fd < 0) return -1;
    // A freshly opened descriptor is at offset 0: the lock covers the first byte.
    for (;;) {
        if (lockf(fd, F_TLOCK, 1) == 0) return fd;
        if (errno != EAGAIN && errno != EACCES) break;
        if (g_lock_wait == LockWait::yield) {
            sched_yield();
        } else if (g_lock_wait == LockWait::block) {
            if (lock_blocking(fd)) return fd;
            break;
        }
    }
    int cause = errno;
    close(fd);
    errno = cause;
    return -1;
}

void FreeFileLock(int fd) noexcept {
    if (fd >= 0) close(fd);
}

}  // extern "C"
