// Internal side of the store file layer: the store path buffers and the
// pieces of the rewrite sequence shared by every fixed-record store.
#pragma once

#include <mossgrove/stores.h>

#include <cstddef>

namespace mg::stores {

// Process-wide store paths, filled by set_dbpath().
extern char g_szMuPath[MG_PATH_MAX];      // <root>/data/mls_user
extern char g_szMuBakPath[MG_PATH_MAX];   // <root>/data/.mls_user_bak
extern char g_szCatPath[MG_PATH_MAX];     // <root>/data/mls_cat
extern char g_szCatBakPath[MG_PATH_MAX];  // <root>/data/.mls_cat_bak

// Removes one trailing "/" from mg_root, in place.
void strip_root_slash() noexcept;

// dst = mg_root + "/" + "data/" + name, cut at MG_PATH_MAX bytes; false when cut.
bool build_store_path(char (&dst)[MG_PATH_MAX], const char *name) noexcept;

// Store rewrite, step "temporary file": builds "<store>.<time>XXXXXX" into tmp
// and creates it with mkstemp. Returns the descriptor, or -1 (errno 10017 when
// a non-regular file stands under the template name, else the system's).
int open_rewrite_temp(const char *store, char (&tmp)[MG_PATH_MAX]) noexcept;

// Store rewrite, final step: releases the store (muf_close(store_fd), ignored
// when store_fd <= 0), installs the temporary file over the store
// (install_temp), sets 0444 and, when backup is non-null,
// copies the store onto its backup. Returns 0, or -1 when the temporary file
// cannot be made durable or renamed (the temporary file is then removed).
// A failed backup copy does not fail the rewrite: the store itself is in place.
int commit_rewrite(int tmp_fd, const char *tmp, int store_fd, const char *store,
                   const char *backup) noexcept;

// Store rewrite abandoned: closes and removes the temporary file and releases
// the store. errno is preserved for the caller.
void abandon_rewrite(int tmp_fd, const char *tmp, int store_fd) noexcept;

// Makes the temporary file tmp (open as fd) durable and renames it onto
// target: fsync, close, rename. On failure the temporary file is removed and
// -1 returned with the system's errno.
int install_temp(int fd, const char *tmp, const char *target) noexcept;

// Creates (or truncates) the temporary file tmp of a text store or
// configuration file that is replaced through a fixed temporary name: nothing
// but a regular file may stand under the name (errno 10017 otherwise, also
// when it cannot be examined), a link there is never followed, and the file is
// made 0444 at once so that it rests read-only once renamed. Returns the
// descriptor (open for writing) or -1.
int create_named_temp(const char *tmp) noexcept;

// Writes the whole buffer (retrying short writes and EINTR): 0 or -1.
int write_all(int fd, const void *buf, size_t len) noexcept;

}  // namespace mg::stores
