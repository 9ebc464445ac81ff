// Regular-file test, directory names, directory creation and file copying.
#include <mossgrove/common.h>
#include <fcntl.h>
#include <libgen.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "common/fileio.hpp"
#include "common/handles.hpp"
#include "common/text.hpp"

namespace {

// Parent buffer of mg_mkdir: a parent that does not fit is not made.
constexpr size_t kParentBuf = 1024;
constexpr size_t kCopyChunk = 16 * 1024;  // on the stack: login services may run on small stacks

// dirname(3) of path into out (cut to its size); false when out of memory.
bool dirname_of(const char *path, char *out, size_t size) noexcept {
    char *copy = strdup(path);
    if (copy == nullptr) return false;
    mg::text::copy_cut(out, size, dirname(copy));
    free(copy);
    return true;
}

// mkdir, then chmod so that the mode is exact whatever the umask.
int make_one(const char *path, mode_t mode) {
    if (mkdir(path, mode) != 0) return -1;
    return chmod(path, mode);
}

// Keeps errno of the failure across the clean-up calls.
class SavedErrno {
public:
    SavedErrno() : saved_(errno) {}
    ~SavedErrno() { errno = saved_; }
    SavedErrno(const SavedErrno &) = delete;
    SavedErrno &operator=(const SavedErrno &) = delete;

private:
    int saved_;
};

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

// Copies exactly size bytes from in to out.
bool copy_bytes(int in, int out, off_t size) {
    char buf[kCopyChunk];
    while (size > 0) {
        const size_t want = size < static_cast<off_t>(sizeof buf) ? static_cast<size_t>(size) : sizeof buf;
        if (mg::fileio::read_all(in, buf, want) != 0 || mg::fileio::write_all(out, buf, want) != 0) return false;
        size -= static_cast<off_t>(want);
    }
    return true;
}

}  // namespace

namespace mg::fileio {

int read_all(int fd, void *buf, size_t len) noexcept {
    return transfer_all(fd, static_cast<char *>(buf), len, ::read);
}

int write_all(int fd, const void *buf, size_t len) noexcept {
    return transfer_all(fd, static_cast<const char *>(buf), len, ::write);
}

void discard_temp(int fd, const char *tmp) noexcept {
    int saved = errno;
    if (fd >= 0) close(fd);
    if (tmp != nullptr) unlink(tmp);
    errno = saved;
}

int create_named_temp(const char *tmp) noexcept {
    struct stat st;
    if (lstat(tmp, &st) == 0 ? !S_ISREG(st.st_mode) : errno != ENOENT) return set_errno(MG_ERR_TEMPFILE);
    int fd = open(tmp, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) return -1;
    if (fchmod(fd, 0444) != 0) {
        discard_temp(fd, tmp);
        return -1;
    }
    return fd;
}

int install_temp(int fd, const char *tmp, const char *target) noexcept {
    if (fsync(fd) != 0) {
        discard_temp(fd, tmp);
        return -1;
    }
    if (close(fd) != 0 || rename(tmp, target) != 0) {
        discard_temp(-1, tmp);
        return -1;
    }
    return 0;
}

}  // namespace mg::fileio

int isRegFile(const char *path) noexcept {
    if (path == nullptr) return set_errno(EINVAL);
    struct stat st;
    if (stat(path, &st) != 0) return -1;
    return S_ISREG(st.st_mode) ? 1 : 0;
}

char *mg_dirname(const char *path, char *dst, int size) noexcept {
    if (path == nullptr || dst == nullptr || size < 1) return nullptr;
    return dirname_of(path, dst, static_cast<size_t>(size)) ? dst : nullptr;
}

int mg_mkdir(const char *path, mode_t mode) noexcept {
    if (path == nullptr) return set_errno(EINVAL);
    if (make_one(path, mode) == 0) return 0;
    if (errno != ENOENT) return -1;  // an existing directory fails with EEXIST
    // One byte more than a parent may have: a parent that fills it was cut.
    char parent[kParentBuf + 1];
    if (!dirname_of(path, parent, sizeof parent) || strlen(parent) >= kParentBuf || mg_mkdir(parent, mode) != 0)
        return set_errno(ENOENT);
    return make_one(path, mode);
}

int mg_copy_file(const char *src, const char *dst) noexcept {
    if (src == nullptr || dst == nullptr) return set_errno(EINVAL);
    mg::UniqueFd in(open(src, O_RDONLY | O_CLOEXEC));
    if (!in) return -1;
    mg::UniqueFd out(open(dst, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!out || fchmod(out.get(), 0644) != 0) return -1;
    struct stat st;
    const bool ok = fstat(in.get(), &st) == 0 && copy_bytes(in.get(), out.get(), st.st_size) &&
                    out.close() == 0;
    if (ok) return 0;
    SavedErrno keep;
    out.reset();
    unlink(dst);
    return -1;
}
