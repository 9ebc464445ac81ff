// Internal side of the store file layer: the store path buffers and the
// pieces of the rewrite sequence shared by every fixed-record store.
#pragma once

#include <mossgrove/stores.h>

#include "common/fileio.hpp"
#include "common/root.hpp"
#include "common/textbuf.hpp"

#include <cstddef>

namespace mg::stores {

// Process-wide store paths, filled by set_dbpath().
extern char g_szMuPath[MG_PATH_MAX];      // <root>/data/mls_user
extern char g_szMuBakPath[MG_PATH_MAX];   // <root>/data/.mls_user_bak
extern char g_szCatPath[MG_PATH_MAX];     // <root>/data/mls_cat
extern char g_szCatBakPath[MG_PATH_MAX];  // <root>/data/.mls_cat_bak

// The root and file helpers every store uses, from the common layer.
using mg::fileio::create_named_temp;
using mg::fileio::install_temp;
using mg::fileio::read_all;
using mg::fileio::write_all;
using mg::root::build_store_path;
using mg::root::strip_root_slash;
using mg::TextBuf;

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

}  // namespace mg::stores
