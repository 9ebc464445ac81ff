// The installation root of the library's own callers: mg_root, confirmed from
// "/etc/.evmg" (or the tool's override), and the paths below "<root>/data".
#pragma once

#include <mossgrove/common.h>

namespace mg::root {

// Removes one trailing "/" from mg_root, in place.
void strip_root_slash() noexcept;

// dst = mg_root + "/" + "data/" + name, cut at MG_PATH_MAX bytes; false when cut.
bool build_store_path(char (&dst)[MG_PATH_MAX], const char *name) noexcept;

}  // namespace mg::root
