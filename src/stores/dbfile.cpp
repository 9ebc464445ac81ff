// Store file layer: the installation root, the store paths, store files opened
// under whole-file advisory locks, copies between store files, lock tests.
//
// A store file rests at mode 0444. While a writer holds it, it is 02644; while
// a reader holds it, 02444 (set-group-ID without group execute: the
// mandatory-locking mark). All locks are non-blocking: a busy store fails at
// once.
#include <mossgrove/common.h>
#include <mossgrove/stores.h>
#include "common/paths.hpp"
#include "stores/dbfile.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>

char mg_root[MG_PATH_MAX];

namespace mg::stores {

char g_szMuPath[MG_PATH_MAX];
char g_szMuBakPath[MG_PATH_MAX];
char g_szCatPath[MG_PATH_MAX];
char g_szCatBakPath[MG_PATH_MAX];

namespace {

constexpr mode_t kModeRest = 0444;
constexpr mode_t kModeWritable = 0644;
constexpr mode_t kModeReadLocked = 02444;
constexpr mode_t kModeWriteLocked = 02644;

// Lock types as the system numbers them: read 0, write 1, unlock 2.
static_assert(F_RDLCK == 0 && F_WRLCK == 1 && F_UNLCK == 2, "lock type numbering");

// A descriptor from muf_open, released with muf_close on scope exit.
class StoreFd {
public:
    explicit StoreFd(int fd) noexcept : fd_(fd) {}
    ~StoreFd() {
        int saved = errno;
        muf_close(fd_);
        errno = saved;
    }
    StoreFd(const StoreFd &) = delete;
    StoreFd &operator=(const StoreFd &) = delete;
    int get() const noexcept { return fd_; }

private:
    int fd_;
};

// The set-group-ID marking is only a mark: exclusion comes from the record
// lock itself, so a process allowed to lock but not to change the mode (not the
// owner) still gets its lock.
void mark(int fd, mode_t mode) noexcept {
    int saved = errno;
    if (fchmod(fd, mode) != 0) errno = saved;
}

void rest_path(const char *path) noexcept {
    int saved = errno;
    if (chmod(path, kModeRest) != 0) errno = saved;
}

// Moves len bytes with read() or write(), going on after short transfers and
// EINTR; an end of file before the last byte is EIO (the file shrank).
template <class Byte, class Io>
int transfer_all(int fd, Byte *p, size_t len, Io io) noexcept {
    while (len > 0) {
        ssize_t n = io(fd, p, len);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (n == 0) errno = EIO;
            return -1;
        }
        p += n;
        len -= static_cast<size_t>(n);
    }
    return 0;
}

int read_all(int fd, void *buf, size_t len) noexcept {
    return transfer_all(fd, static_cast<char *>(buf), len, ::read);
}

// Reads the key MG_ROOT of the file that names the installation root into
// mg_root. 1 on success; 0 when the file cannot be read; -1 when MG_ROOT is missing.
int load_root() noexcept {
    if (read_conf(mg::paths::evmg()) != 1) return 0;
    char value[1024];
    int found = get_conf("MG_ROOT", value);
    close_conf();
    if (found != 1) return -1;
    // value holds at most 1023 characters: it always fits.
    memcpy(mg_root, value, sizeof mg_root);
    return 1;
}

}  // namespace

void strip_root_slash() noexcept {
    size_t len = strnlen(mg_root, sizeof mg_root);
    if (len > 0 && mg_root[len - 1] == '/') mg_root[len - 1] = '\0';
}

// Store paths are cut at the buffer size by design; the compiler's warning
// about a possible cut is therefore silenced here, and only here.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-truncation"
#endif
bool build_store_path(char (&dst)[MG_PATH_MAX], const char *name) noexcept {
    int n = snprintf(dst, sizeof dst, "%s%s%s%s", mg_root, "/", "data/", name);
    return n >= 0 && static_cast<size_t>(n) < sizeof dst;
}
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

int write_all(int fd, const void *buf, size_t len) noexcept {
    return transfer_all(fd, static_cast<const char *>(buf), len, ::write);
}

int open_rewrite_temp(const char *store, char (&tmp)[MG_PATH_MAX]) noexcept {
    int n = snprintf(tmp, sizeof tmp, "%s.%d%s", store, static_cast<int>(time(nullptr)), "XXXXXX");
    if (n < 0 || static_cast<size_t>(n) >= sizeof tmp) return set_errno(ENAMETOOLONG);
    struct stat st;
    if (lstat(tmp, &st) == 0 && !S_ISREG(st.st_mode)) return set_errno(MG_ERR_TEMPFILE);
    return mkstemp(tmp);
}

int create_named_temp(const char *tmp) noexcept {
    struct stat st;
    if (lstat(tmp, &st) == 0 ? !S_ISREG(st.st_mode) : errno != ENOENT) return set_errno(MG_ERR_TEMPFILE);
    int fd = open(tmp, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) return -1;
    if (fchmod(fd, kModeRest) != 0) {
        abandon_rewrite(fd, tmp, -1);
        return -1;
    }
    return fd;
}

void abandon_rewrite(int tmp_fd, const char *tmp, int store_fd) noexcept {
    int saved = errno;
    if (tmp_fd >= 0) close(tmp_fd);
    if (tmp != nullptr) unlink(tmp);
    muf_close(store_fd);
    errno = saved;
}

int install_temp(int fd, const char *tmp, const char *target) noexcept {
    // Durable before it takes the target's name, so that a crash or power cut
    // leaves either the old or the new file.
    if (fsync(fd) != 0) {
        abandon_rewrite(fd, tmp, -1);
        return -1;
    }
    if (close(fd) != 0 || rename(tmp, target) != 0) {
        abandon_rewrite(-1, tmp, -1);
        return -1;
    }
    return 0;
}

int commit_rewrite(int tmp_fd, const char *tmp, int store_fd, const char *store,
                   const char *backup) noexcept {
    muf_close(store_fd);
    // At rest from the moment it takes the store's name, crash or not.
    if (fchmod(tmp_fd, kModeRest) != 0) {
        abandon_rewrite(tmp_fd, tmp, -1);
        return -1;
    }
    if (install_temp(tmp_fd, tmp, store) != 0) return -1;
    rest_path(store);
    if (backup != nullptr) mf_copy_file(store, backup);
    return 0;
}

}  // namespace mg::stores

using namespace mg::stores;

// ---- Installation root and store paths -------------------------------------

int chk_rootdir(void) noexcept {
    const char *file = mg::paths::evmg();
    switch (load_root()) {
        case 1: return 1;
        case 0: err_sys("Cannot open %s.\n", file);
        default: err_sys("Cannot get $MG_ROOT on %s.\n", file);
    }
}

int chk_mgrootdir(void) noexcept {
    switch (load_root()) {
        case 1: return 1;
        case 0: return set_errno(MG_ERR_NO_EVMG);
        default: return set_errno(MG_ERR_NO_MGROOT);
    }
}

int set_dbpath(void) noexcept {
    strip_root_slash();
    build_store_path(g_szMuPath, "mls_user");
    build_store_path(g_szMuBakPath, ".mls_user_bak");
    build_store_path(g_szCatPath, "mls_cat");
    build_store_path(g_szCatBakPath, ".mls_cat_bak");
    return 1;
}

int mf_check_files(int which) noexcept {
    const char *store = which == 0 ? g_szMuPath : g_szCatPath;
    const char *backup = which == 0 ? g_szMuBakPath : g_szCatBakPath;
    return (access(store, F_OK) < 0 && access(backup, F_OK) < 0) ? 0 : 1;
}

// ---- Descriptors and locks --------------------------------------------------

int set_fl(int fd, int flags) noexcept {
    int val = fcntl(fd, F_GETFL, 0);
    if (val < 0) return -1;
    return fcntl(fd, F_SETFL, val | flags) < 0 ? -1 : 0;
}

static int nonblocking(int fd) noexcept {
    if (fd < 0) return -1;
    if (set_fl(fd, O_NONBLOCK) < 0) {
        int saved = errno;
        close(fd);
        errno = saved;
        return -1;
    }
    return fd;
}

int mf_create_file(const char *path) noexcept {
    return nonblocking(open(path, O_RDWR | O_CREAT | O_TRUNC, kModeWritable));
}

int mf_open_file(const char *path, int flags) noexcept {
    // The mode only matters if a caller passes O_CREAT among the flags.
    return nonblocking(open(path, flags, kModeWritable));
}

int mf_close_file(int fd) noexcept {
    mark(fd, kModeRest);
    return close(fd);
}

long mf_get_size(int fd) noexcept {
    struct stat st;
    if (fstat(fd, &st) != 0) return -1;
    return static_cast<long>(st.st_size);
}

static struct flock lock_of(int type, off_t offset, int whence, off_t len) noexcept {
    struct flock lock {};
    lock.l_type = static_cast<short>(type);
    lock.l_whence = static_cast<short>(whence);
    lock.l_start = offset;
    lock.l_len = len;
    return lock;
}

int lock_reg(int fd, int cmd, int type, off_t offset, int whence, off_t len) noexcept {
    struct flock lock = lock_of(type, offset, whence, len);
    return fcntl(fd, cmd, &lock);
}

int lock_test(int fd, int type, off_t offset, int whence, off_t len) noexcept {
    struct flock lock = lock_of(type, offset, whence, len);
    if (fcntl(fd, F_GETLK, &lock) < 0) return -1;
    return lock.l_type;
}

int mf_read_lock(int fd) noexcept {
    mark(fd, kModeReadLocked);
    return lock_reg(fd, F_SETLK, F_RDLCK, 0, SEEK_SET, 0) < 0 ? -1 : 0;
}

int mf_write_lock(int fd) noexcept {
    mark(fd, kModeWriteLocked);
    return lock_reg(fd, F_SETLK, F_WRLCK, 0, SEEK_SET, 0) < 0 ? -1 : 0;
}

int mf_unlock(int fd) noexcept { return lock_reg(fd, F_SETLK, F_UNLCK, 0, SEEK_SET, 0); }

// The probe uses a descriptor of its own; closing it drops every lock that the
// calling process holds on the file, so callers never test a file they hold.
int mf_lock_test(const char *path, int type) noexcept {
    int fd = mf_open_file(path, O_RDONLY);
    if (fd < 0) return -1;
    int held = lock_test(fd, type, 0, SEEK_SET, 0);
    int saved = errno;
    mf_close_file(fd);
    errno = saved;
    switch (held) {
        case -1: return -1;
        case F_UNLCK: return 0;
        case F_WRLCK: return 1;
        case F_RDLCK: return type == F_WRLCK ? 1 : 0;
        default: return -1;
    }
}

// ---- Store files ------------------------------------------------------------

// The probe's answer as muf_open's: a store held elsewhere reads as EAGAIN,
// the answer of a refused non-blocking lock, so that no stale ENOENT can make
// a caller fall back to the backup of a store that is merely busy.
static bool store_free(const char *path, int type) noexcept {
    int r = mf_lock_test(path, type);
    if (r == 1) errno = EAGAIN;
    return r == 0;
}

static int open_for_writing(const char *path, int flags) noexcept {
    if (!store_free(path, F_WRLCK)) return -1;
    struct stat st;
    if (lstat(path, &st) != 0) return -1;
    // The whole mode word, file type included, is compared: for a regular file
    // it never equals 0644, so the chmod always runs.
    if (st.st_mode != kModeWritable && chmod(path, kModeWritable) != 0) {
        rest_path(path);
        return -1;
    }
    int fd = mf_open_file(path, flags);
    if (fd < 0) {
        rest_path(path);
        return -1;
    }
    return fd;
}

int muf_open(const char *path, int mode) noexcept {
    if (path == nullptr) return set_errno(ENOENT);
    if (access(path, F_OK) < 0) {
        if (mode == 0) return -1;  // errno ENOENT: readers fall back to the backup
        int fd = mf_create_file(path);
        if (fd < 0) return -1;
        mf_close_file(fd);
    }
    int fd;
    int locked;
    if (mode != 0) {
        fd = open_for_writing(path, mode);
        if (fd < 0) return -1;
        locked = mf_write_lock(fd);
    } else {
        if (!store_free(path, F_RDLCK)) return -1;
        fd = mf_open_file(path, O_RDONLY);
        if (fd < 0) return -1;
        locked = mf_read_lock(fd);
    }
    if (locked < 0) {
        int saved = errno;
        mf_close_file(fd);
        rest_path(path);
        errno = saved;
        return -1;
    }
    return fd;
}

void muf_close(int fd) noexcept {
    if (fd <= 0) return;  // 0 is never a store's descriptor
    mf_unlock(fd);
    mf_close_file(fd);
}

// The target keeps its inode (owner, group, hard links, the kernel module's
// label): it is truncated and rewritten in place under its write lock, so
// readers and writers that lock it keep serialising with this copy. The data
// is fsync'ed before the locks are released; a failed write or fsync is
// reported, leaving the target to the caller's recovery (the stores keep a
// backup or a previous generation for that).
int mf_copy_file(const char *from, const char *to) noexcept {
    {
        StoreFd src(muf_open(from, 0));
        if (src.get() < 0) return -1;
        StoreFd dst(muf_open(to, O_RDWR));
        if (dst.get() < 0) return -1;

        long size = mf_get_size(src.get());
        if (size < 0) return -1;
        std::unique_ptr<char[]> buf;
        if (size > 0) {
            buf.reset(new (std::nothrow) char[static_cast<size_t>(size)]);
            if (!buf) return set_errno(ENOMEM);
            if (read_all(src.get(), buf.get(), static_cast<size_t>(size)) != 0) return -1;
        }
        if (ftruncate(dst.get(), 0) != 0) return -1;
        if (size > 0 && write_all(dst.get(), buf.get(), static_cast<size_t>(size)) != 0) return -1;
        if (fsync(dst.get()) != 0) return -1;
    }
    rest_path(to);
    return 1;
}
