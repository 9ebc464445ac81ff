/* Label databases and access rule stores: the shared file-and-lock layer of
 * the fixed-record store files under the installation root. */
#ifndef MOSSGROVE_STORES_H
#define MOSSGROVE_STORES_H

#include <mossgrove/common.h>

MG_BEGIN_DECLS

/* mg_root, chk_rootdir and chk_mgrootdir (the installation root) are in
 * common.h. */
/* Builds the MLS user and category store paths from mg_root. */
MG_API int set_dbpath(void) MG_NOEXCEPT;
/* 0 when neither the store (which 0: users, else categories) nor its backup exists. */
MG_API int mf_check_files(int which) MG_NOEXCEPT;

/* Opens a store under a whole-file lock: mode 0 reads (read lock), any other
 * value is passed to open() as flags and writes (write lock, file created).
 * Never waits: a busy store fails at once. */
MG_API int muf_open(const char *path, int mode) MG_NOEXCEPT;
/* Releases the lock, sets mode 0444 and closes; fd <= 0 is ignored. */
MG_API void muf_close(int fd) MG_NOEXCEPT;
MG_API int mf_create_file(const char *path) MG_NOEXCEPT;
MG_API int mf_open_file(const char *path, int flags) MG_NOEXCEPT;
MG_API int mf_close_file(int fd) MG_NOEXCEPT;
MG_API long mf_get_size(int fd) MG_NOEXCEPT;
/* Replaces the contents of `to` by those of `from`: 1 or -1. */
MG_API int mf_copy_file(const char *from, const char *to) MG_NOEXCEPT;
/* 0 free, 1 locked, -1 error; type 0 asks about a read lock, 1 a write lock. */
MG_API int mf_lock_test(const char *path, int type) MG_NOEXCEPT;
MG_API int mf_read_lock(int fd) MG_NOEXCEPT;
MG_API int mf_write_lock(int fd) MG_NOEXCEPT;
MG_API int mf_unlock(int fd) MG_NOEXCEPT;
MG_API int lock_reg(int fd, int cmd, int type, off_t offset, int whence, off_t len) MG_NOEXCEPT;
MG_API int lock_test(int fd, int type, off_t offset, int whence, off_t len) MG_NOEXCEPT;
MG_API int set_fl(int fd, int flags) MG_NOEXCEPT;

MG_END_DECLS

#endif
