// Internal pieces of the secure log shared by the writer and its maintenance.
#pragma once

#include <sys/types.h>

#include <cstddef>

namespace mg::seclog {

// Process-wide writer state, set by InitSecureLog (single-threaded library).
extern char g_szIdent[256];          // openlog identity
extern char g_szLogFilename[1024];   // current generation; empty: file records go to syslog
extern char g_szLockFilename[1024];  // "<base>lock"
extern int g_nMaxLogSize;            // bytes
extern int g_nMaxLogFileCount;       // generations kept
extern int g_nMGLogRotate;           // 1: drop the oldest generation when full

// Fixed names inside a log directory.
inline constexpr const char *kLogName = "mglog";
inline constexpr const char *kLockName = "mglog.lock";
inline constexpr int kMaxGenerations = 10;  // the largest count the option file allows
inline constexpr size_t kLineMax = 2048;    // bound of the file and display forms
inline constexpr mode_t kLogMode = 0644;    // every generation and backup copy
inline constexpr mode_t kLockMode = 02600;  // the lock file

// Opens a file of the log directory without following a symbolic link; a
// missing file is created at exactly `mode`, whatever the umask. flags must
// not hold O_CREAT. The descriptor, or -1 with errno.
int open_log_file(const char *path, int flags, mode_t mode) noexcept;

// How GetFileLock waits between two refused lock attempts. The writer never
// sleeps for a time; spin retries at once, yield gives the processor to the
// holder first. block (waiting in the kernel) exists for the benchmark only.
enum class LockWait { spin, yield, block };
void set_lock_wait(LockWait how) noexcept;

// "<dir>/mglog.NN" and "<dir>/mglog.lock"; false when the name does not fit.
bool generation_path(char *buf, size_t size, const char *dir, int n) noexcept;
bool lock_path(char *buf, size_t size, const char *dir) noexcept;

// Holds the log directory's lock (GetFileLock) until destroyed.
class LogLock {
public:
    explicit LogLock(const char *lock_file) noexcept;
    ~LogLock();
    LogLock(const LogLock &) = delete;
    LogLock &operator=(const LogLock &) = delete;
    bool held() const noexcept { return fd_ >= 0; }

private:
    int fd_;
};

}  // namespace mg::seclog
