// Privileged file operations: plain system calls that, once refused with
// EACCES, are retried a single time under the security officer's label.
#include <mossgrove/kernel.h>
#include "kernel/control.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

using mg::kernel::retry_as_so;

int SetSOProc(const char *token) noexcept {
    if (token == nullptr || strcmp(token, mg::kernel::kSOToken) != 0) return -1;
    if (geteuid() != 0) return -1;
    if (!mg::kernel::module_running() || get_cprole() == MG_ROLE_SO) return 0;
    return set_proc_mls(getpid(), MG_ROLE_SO, 1, 1) == 0 ? 0 : -1;
}

int MG_stat(const char *path, struct stat *buf) noexcept {
    return retry_as_so([&] { return stat(path, buf); });
}

// open() is always given a mode: a caller's O_CREAT then makes a 0644 file,
// the mode of a store being written.
int MG_open2(const char *path, int flags) noexcept {
    return retry_as_so([&] { return open(path, flags, 0644); });
}

int MG_open3(const char *path, int flags, mode_t mode) noexcept {
    return retry_as_so([&] { return open(path, flags, mode); });
}

FILE *MG_fopen(const char *path, const char *mode) noexcept {
    return retry_as_so([&] { return fopen(path, mode); });
}

int MG_creat(const char *path, mode_t mode) noexcept {
    return retry_as_so([&] { return creat(path, mode); });
}

int MG_mkdir(const char *path, mode_t mode) noexcept {
    return retry_as_so([&] { return mkdir(path, mode); });
}

int MG_unlink(const char *path) noexcept {
    return retry_as_so([&] { return unlink(path); });
}

int MG_rename(const char *oldpath, const char *newpath) noexcept {
    return retry_as_so([&] { return rename(oldpath, newpath); });
}
