// Module status and control, and the copies of the kernel's file and directory
// label lists into "<root>/data/mls_file" and "<root>/data/mls_dir".
#include <mossgrove/common.h>
#include <mossgrove/kernel.h>
#include "common/error.hpp"
#include "kernel/control.hpp"
#include "kernel/gateway.hpp"
#include "common/fileio.hpp"
#include "common/root.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

bool mg::kernel::module_running() noexcept { return get_module_status() == MG_STATUS_RUNNING; }

// ---- Status -------------------------------------------------------------------

int mg_checkmodule(int quiet) noexcept {
    if (mg::kernel::module_present()) return 1;
    if (quiet != 0) return 0;
    errno = MG_ERR_NO_MODULE;
    mg::err_exit_errno();
}

int mg_checkmodule2(void) noexcept {
    long probe = mg::kernel::presence_probe();
    return probe == -1 ? MG_STATUS_ABSENT : static_cast<int>(probe);
}

int get_module_status(void) noexcept {
    if (mg_checkmodule(1) == 0) return MG_STATUS_ABSENT;
    MGModuleInfo info{};
    if (_get_module_info(&info) < 0) return MG_STATUS_FAILED;
    return info.status;
}

int module_info(MGModuleInfo *block) noexcept {
    if (block == nullptr) return set_errno(EINVAL);
    *block = MGModuleInfo{};
    if (mg_checkmodule(1) == 0) {
        block->status = MG_STATUS_ABSENT;
        return 0;
    }
    block->status = MG_STATUS_QUERY;
    return _get_module_info(block);
}

// Versions whose last number is even and at least 6 support pending modules.
int CheckModuleType(void) noexcept {
    if (mg_checkmodule(1) == 0) return -1;
    MGModuleInfo info{};
    if (_get_module_info(&info) < 0) return -1;
    char version[sizeof info.version + 1] = {};
    memcpy(version, info.version, sizeof info.version);
    const char *dot = strrchr(version, '.');
    if (dot == nullptr) return -1;
    long number = strtol(dot + 1, nullptr, 10);
    return (number < 6 || number % 2 != 0) ? 1 : 0;
}

int module_suspend(void) noexcept {
    switch (get_module_status()) {
        case MG_STATUS_FAILED:
        case MG_STATUS_ABSENT: return -1;
        case MG_STATUS_SUSPENDED: return 1;
        default: return _suspend_module() < 0 ? -1 : 0;
    }
}

int proc_all_reset(void) noexcept {
    switch (get_module_status()) {
        case MG_STATUS_FAILED:
        case MG_STATUS_ABSENT:
        case MG_STATUS_STOPPED: return -1;
        default: break;
    }
    if (CheckCmdExecPrivSOSD() != 0) return -1;
    return _sys_proc_all_reset();
}

// ---- Label snapshots ----------------------------------------------------------

namespace {

// Removes the temporary file of a failed snapshot; errno is kept.
int drop_temp(int fd, const char *tmp) {
    mg::fileio::discard_temp(fd, tmp);
    return -1;
}

// Writes the kernel's label records into "<root>/data/<name>" through
// "<target>.tmp". Without a confirmed installation root nothing is done and
// the result is 0, deliberately.
int sync_labels(const char *name, int (*count_records)(), int (*fetch)(void *, int)) {
    if (chk_mgrootdir() != 1) return 0;
    mg::root::strip_root_slash();
    char target[MG_PATH_MAX];
    char tmp[MG_PATH_MAX];
    if (!mg::root::build_store_path(target, name)) return set_errno(ENAMETOOLONG);
    int n = snprintf(tmp, sizeof tmp, "%s.tmp", target);
    if (n < 0 || static_cast<size_t>(n) >= sizeof tmp) return set_errno(ENAMETOOLONG);

    int status = get_module_status();
    if (status != MG_STATUS_RUNNING && status != MG_STATUS_STOPPED) return set_errno(MG_ERR_NO_MODULE);
    int count = count_records();
    if (count < 0) return -1;

    // Nothing but a regular file (or nothing at all) may stand under the
    // temporary name; a link there is not followed.
    struct stat st;
    if (lstat(tmp, &st) == 0 ? !S_ISREG(st.st_mode) : errno != ENOENT) return set_errno(MG_ERR_TEMPFILE);
    int fd = open(tmp, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW, 0600);
    if (fd < 0) return set_errno(MG_ERR_TEMPFILE);

    if (count > 0) {
        const size_t size = static_cast<size_t>(count) * MG_MLS_LABEL_RECORD_SIZE;
        std::unique_ptr<char[]> records(new (std::nothrow) char[size]());
        if (!records) {
            errno = ENOMEM;
            return drop_temp(fd, tmp);
        }
        int got = fetch(records.get(), count);
        if (got < 0) return drop_temp(fd, tmp);
        // The kernel never fills more than it was asked for; a larger answer
        // is cut to the buffer.
        got = std::min(got, count);
        if (mg::fileio::write_all(fd, records.get(), static_cast<size_t>(got) * MG_MLS_LABEL_RECORD_SIZE) != 0)
            return drop_temp(fd, tmp);
    }
    return mg::fileio::install_temp(fd, tmp, target);
}

}  // namespace

int sync_file_mls(void) noexcept { return sync_labels("mls_file", _sys_file_mls_cnt, _sys_get_file_mls); }

int sync_dir_mls(void) noexcept { return sync_labels("mls_dir", _sys_dir_mls_cnt, _sys_get_dir_mls); }

int module_sync(void) noexcept {
    if (mg_checkmodule(1) == 0) return 0;
    int files = sync_file_mls();
    int dirs = sync_dir_mls();
    return (files < 0 || dirs < 0) ? -1 : 0;
}
