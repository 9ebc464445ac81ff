// Internal side of the security password store.
#pragma once

#include <cstddef>

namespace mg::stores {

// Drops the entries of every name in names (n of them) in one rewrite of the
// store: 1, 0 when a write failed, -1. The same result as deleting them one by
// one, without rewriting the store once per name.
int del_mgpwdents(const char *const *names, size_t n) noexcept;

}  // namespace mg::stores
