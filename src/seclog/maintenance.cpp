// Secure log maintenance for the administration tools: total size, dated
// backup, shrinking the current file and clearing the generations. Backup and
// clear hold the writer's lock for their whole run.
#include "seclog/seclog.hpp"

#include <mossgrove/common.h>
#include <mossgrove/kernel.h>
#include <mossgrove/seclog.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>

using namespace mg::seclog;

namespace {

constexpr int kEINVAL = 22;

// Removes a file; a file that is already gone is not a failure.
bool remove_if_present(const char *path) { return MG_unlink(path) == 0 || errno == ENOENT; }

// Stops at the first generation that cannot be named, examined or copied.
bool copy_generations(const char *log_dir, const char *backup_dir, int count) {
    char src[1024], dst[1024];
    for (int n = 1; n <= count; ++n) {
        if (!generation_path(src, sizeof src, log_dir, n) ||
            !generation_path(dst, sizeof dst, backup_dir, n))
            return false;
        struct stat st;
        if (MG_stat(src, &st) != 0) {
            if (errno == ENOENT) continue;
            return false;
        }
        if (mg_copy_file(src, dst) != 0 || chmod(dst, 0644) != 0) return false;
    }
    return true;
}

void remove_backup(const char *backup_dir, int count) {
    char name[1024];
    for (int n = 1; n <= count; ++n)
        if (generation_path(name, sizeof name, backup_dir, n)) unlink(name);
    rmdir(backup_dir);
}

bool backup_dir_name(char (&out)[1024], const char *root) {
    time_t now = time(nullptr);
    struct tm tm;
    if (localtime_r(&now, &tm) == nullptr) return false;
    int len = snprintf(out, sizeof out, "%s%c%04d%02d%02d_%02d%02d%02d", root, '/',
                       tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min,
                       tm.tm_sec);
    return len >= 0 && static_cast<size_t>(len) < sizeof out;
}

bool read_exact(int fd, char *buf, size_t len, off_t offset) {
    ssize_t n = pread(fd, buf, len, offset);
    return n >= 0 && static_cast<size_t>(n) == len;
}

bool write_exact(int fd, const char *buf, size_t len) {
    ssize_t n = write(fd, buf, len);
    return n >= 0 && static_cast<size_t>(n) == len;
}

// Writes the last keep bytes of the source, from the first record boundary in
// them on, to the working file.
bool copy_tail(int src, int dst, size_t keep) {
    struct stat st;
    if (fstat(src, &st) != 0) return false;
    if (keep > static_cast<size_t>(st.st_size)) keep = static_cast<size_t>(st.st_size);
    std::unique_ptr<char[]> buf(new (std::nothrow) char[keep]);
    if (!buf) return false;
    if (!read_exact(src, buf.get(), keep, st.st_size - static_cast<off_t>(keep))) return false;
    const char *newline = static_cast<const char *>(memchr(buf.get(), '\n', keep));
    if (newline == nullptr) return true;
    const char *start = newline + 1;
    return write_exact(dst, start, keep - static_cast<size_t>(start - buf.get()));
}

// The working file holds the kept text, is on disk and has replaced file.
bool shrink_into(const char *file, const char *tmp, size_t keep) {
    int src = MG_open3(file, O_RDONLY | O_NOFOLLOW | O_CLOEXEC, 0);
    if (src < 0) return false;
    int dst = MG_open3(tmp, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kLogMode);
    if (dst < 0 || fchmod(dst, kLogMode) != 0) {
        if (dst >= 0) close(dst);
        close(src);
        return false;
    }
    bool ok = (keep == 0 || copy_tail(src, dst, keep)) && fsync(dst) == 0;
    close(src);
    ok = close(dst) == 0 && ok;
    return ok && MG_rename(tmp, file) == 0;
}

}  // namespace

extern "C" {

int GetSecureLogSize(const char *dir, int count) noexcept {
    if (dir == nullptr || count < 1) return set_errno(kEINVAL);
    long long total = 0;
    char name[1024];
    for (int n = 1; n <= count; ++n) {
        if (!generation_path(name, sizeof name, dir, n)) return set_errno(ENAMETOOLONG);
        struct stat st;
        if (MG_stat(name, &st) == 0)
            total += st.st_size;
        else if (errno != ENOENT)
            return -1;
    }
    // Files that keep growing with rotation off can pass 2 GB: the size saturates.
    return total > INT_MAX ? INT_MAX : static_cast<int>(total);
}

int BackupSecureLog(const char *logDir, const char *backupRoot, int count) noexcept {
    if (logDir == nullptr || backupRoot == nullptr || count < 1) return set_errno(kEINVAL);
    char backup_dir[1024], lock_file[1024];
    if (!backup_dir_name(backup_dir, backupRoot) ||
        !lock_path(lock_file, sizeof lock_file, logDir))
        return set_errno(ENAMETOOLONG);
    // A directory of the same second already exists: that backup is left alone.
    if (mg_mkdir(backup_dir, 0700) != 0) return -1;
    bool copied;
    {
        LogLock lock(lock_file);
        if (!lock.held()) {
            rmdir(backup_dir);
            return -1;
        }
        copied = copy_generations(logDir, backup_dir, count);
    }
    if (copied) return 0;
    remove_backup(backup_dir, count);
    return -1;
}

int ReduceSecureLog(const char *file, int size, int percent) noexcept {
    if (file == nullptr || size < 1 || percent < 1 || percent > 99) return set_errno(kEINVAL);
    struct stat st;
    if (MG_stat(file, &st) != 0) return errno == ENOENT ? 0 : -1;
    long long keep = static_cast<long long>(size) * percent / 100;
    if (st.st_size <= keep) return 0;

    char tmp[1024];
    int len = snprintf(tmp, sizeof tmp, "%s.tmp", file);
    if (len < 0 || static_cast<size_t>(len) >= sizeof tmp) return set_errno(ENAMETOOLONG);
    if (!remove_if_present(tmp)) return -1;
    if (shrink_into(file, tmp, static_cast<size_t>(keep))) return 0;
    int cause = errno;
    MG_unlink(tmp);
    return set_errno(cause);
}

int ClearSecureLog(const char *dir, int size, int percent) noexcept {
    if (dir == nullptr || dir[0] != '/' || size < 1 || percent < 0 || percent > 100)
        return set_errno(kEINVAL);
    char lock_file[1024], name[1024];
    if (!lock_path(lock_file, sizeof lock_file, dir) ||
        !generation_path(name, sizeof name, dir, kMaxGenerations))
        return set_errno(ENAMETOOLONG);
    LogLock lock(lock_file);
    if (!lock.held()) return -1;
    for (int n = kMaxGenerations; n >= 2; --n) {
        generation_path(name, sizeof name, dir, n);
        if (!remove_if_present(name)) return -1;
    }
    generation_path(name, sizeof name, dir, 1);
    if (percent == 0) return remove_if_present(name) ? 0 : -1;
    if (percent < 100) return ReduceSecureLog(name, size, percent);
    return 0;
}

}  // extern "C"
