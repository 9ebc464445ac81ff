// The enumeration cursor and the rewrite sequence of the fixed-record stores.
#include "stores/records.hpp"

#include <mossgrove/common.h>
#include <mossgrove/kernel.h>
#include <mossgrove/labels.h>
#include "stores/dbfile.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

namespace mg::stores {

namespace {

void keep_errno_close(int fd) noexcept {
    int saved = errno;
    muf_close(fd);
    errno = saved;
}

}  // namespace

void *alloc_records(size_t n, size_t size) noexcept {
    void *p = calloc(n, size);
    constexpr uintptr_t kHuge = 2u << 20;
    if (p != nullptr && n * size >= 2 * kHuge) {
        uintptr_t begin = (reinterpret_cast<uintptr_t>(p) + kHuge - 1) & ~(kHuge - 1);
        uintptr_t end = (reinterpret_cast<uintptr_t>(p) + n * size) & ~(kHuge - 1);
        // Advice only: without huge pages the list works the same.
        if (end > begin) madvise(reinterpret_cast<void *>(begin), end - begin, MADV_HUGEPAGE);
    }
    return p;
}

bool module_loaded() noexcept { return get_module_status() != MG_STATUS_ABSENT; }

int open_restoring(const char *store, const char *backup) noexcept {
    int fd = muf_open(store, 0);
    if (fd >= 0 || errno != ENOENT) return fd;
    if (access(backup, F_OK) < 0) {
        errno = ENOENT;
        return -1;
    }
    if (mf_copy_file(backup, store) != 1) return -1;
    return muf_open(store, 0);
}

int read_whole(int fd, MallocPtr &buf, size_t &size) noexcept {
    long n = mf_get_size(fd);
    if (n < 0) return -1;
    MallocPtr data(malloc(static_cast<size_t>(n) + 1));
    if (data.p == nullptr) return set_errno(ENOMEM);
    size_t done = 0;
    while (done < static_cast<size_t>(n)) {
        ssize_t r = pread(fd, data.as<char>() + done, static_cast<size_t>(n) - done, static_cast<off_t>(done));
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) {
            if (r == 0) errno = EIO;
            return -1;
        }
        done += static_cast<size_t>(r);
    }
    data.as<char>()[done] = '\0';
    free(buf.release());
    buf.p = data.release();
    size = done;
    return 0;
}

// ---- Cursor -----------------------------------------------------------------

void Cursor::open(const char *store, const char *backup) noexcept {
    close();
    int fd = open_restoring(store, backup);
    if (fd < 0) return;
    MallocPtr buf;
    size_t size = 0;
    if (mf_get_size(fd) < static_cast<long>(record_) || read_whole(fd, buf, size) != 0 || size < record_) {
        keep_errno_close(fd);
        return;
    }
    fd_ = fd;
    buf_ = static_cast<char *>(buf.release());
    count_ = size / record_;
    next_ = 0;
}

const void *Cursor::next(const char *store, const char *backup) noexcept {
    if (fd_ < 0) open(store, backup);
    if (fd_ < 0) return nullptr;
    if (next_ >= count_) {
        close();
        return nullptr;
    }
    return buf_ + record_ * next_++;
}

void Cursor::close() noexcept {
    if (fd_ >= 0) muf_close(fd_);
    free(buf_);
    fd_ = -1;
    buf_ = nullptr;
    count_ = next_ = 0;
}

// ---- Rewrite ----------------------------------------------------------------

Rewrite::~Rewrite() { abandon(); }

void Rewrite::abandon() noexcept {
    if (tmp_fd_ >= 0 || store_fd_ >= 0) abandon_rewrite(tmp_fd_, tmp_fd_ >= 0 ? tmp_ : nullptr, store_fd_);
    tmp_fd_ = store_fd_ = -1;
}

int Rewrite::make_temp() noexcept {
    tmp_fd_ = open_rewrite_temp(store_, tmp_);
    return tmp_fd_ < 0 ? -1 : 1;
}

int Rewrite::begin(Missing missing, bool read) noexcept {
    store_fd_ = muf_open(store_, 0);
    if (store_fd_ < 0) {
        if (errno != ENOENT) return -1;
        switch (missing) {
            case Missing::fail: return -1;
            case Missing::go_on: break;
            case Missing::restore_then_2:
                if (access(backup_, F_OK) < 0) return set_errno(ENOENT);
                return mf_copy_file(backup_, store_) == 1 ? 2 : -1;
            case Missing::restore:
                if (read) {
                    store_fd_ = open_restoring(store_, backup_);
                    if (store_fd_ < 0 && errno != ENOENT) return -1;
                }
                break;
        }
    }
    if (read && store_fd_ >= 0 && read_whole(store_fd_, old_, size_) != 0) return -1;
    return make_temp();
}

int Rewrite::begin_unopened() noexcept { return make_temp(); }

int Rewrite::commit(const void *data, size_t size, KernelLoad load) noexcept {
    if (size > 0 && write_all(tmp_fd_, data, size) != 0) return -1;
    if (load != nullptr && module_loaded() && load(data, size) < 0) return -1;
    int tmp_fd = tmp_fd_, store_fd = store_fd_;
    tmp_fd_ = store_fd_ = -1;
    return commit_rewrite(tmp_fd, tmp_, store_fd, store_, backup_);
}

// ---- Whole-table dumps ------------------------------------------------------

int dump_table(const char *store, const char *backup, const void *data, size_t size) noexcept {
    char tmp[MG_PATH_MAX];
    int fd = open_rewrite_temp(store, tmp);
    if (fd < 0) return set_errno(MG_ERR_TEMPFILE);
    if ((size > 0 && write_all(fd, data, size) != 0) || fchmod(fd, 0444) != 0) {
        abandon_rewrite(fd, tmp, -1);
        return -1;
    }
    // The backup keeps the previous generation: it is taken before the rename.
    if (access(store, F_OK) == 0) mf_copy_file(store, backup);
    if (install_temp(fd, tmp, store) != 0) return set_errno(MG_ERR_REPLACE);
    chmod(store, 0444);
    return 1;
}

}  // namespace mg::stores

namespace mg::stores {

int read_and_load(int fd, long size, size_t record, KernelLoad load) noexcept {
    if (size < static_cast<long>(record)) return -1;
    size_t bytes = static_cast<size_t>(size) / record * record;
    MallocPtr buf(malloc(bytes));
    if (buf.p == nullptr) return set_errno(ENOMEM);
    if (mg::fileio::read_all(fd, buf.p, bytes) != 0) return -1;
    return load(buf.p, bytes);
}

}  // namespace mg::stores
