// The installation root as the library's callers confirm it (chk_rootdir,
// chk_mgrootdir) and the paths of the files below "<root>/data".
#include "common/root.hpp"

#include <cstdio>
#include <cstring>

#include "common/paths.hpp"
#include "common/text.hpp"

char mg_root[MG_PATH_MAX];

namespace {

// Reads the key MG_ROOT of the file that names the installation root into
// mg_root. 1 on success; 0 when the file cannot be read; -1 when MG_ROOT is missing.
int load_root() noexcept {
    if (const char *given = mg::paths::root_override()) {
        mg::text::copy_cut(mg_root, sizeof mg_root, given);
        return 1;
    }
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

namespace mg::root {

void strip_root_slash() noexcept {
    size_t len = strnlen(mg_root, sizeof mg_root);
    if (len > 0 && mg_root[len - 1] == '/') mg_root[len - 1] = '\0';
}

// Paths are cut at the buffer size by design; the compiler's warning about a
// possible cut is therefore silenced here, and only here.
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

}  // namespace mg::root

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
