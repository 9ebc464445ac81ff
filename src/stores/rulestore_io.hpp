// Loading a text rule store into its kernel table, and dumping the table back,
// the same way for every table kept as "[MARK] ... [/MARK]" records.
#pragma once

#include <mossgrove/common.h>
#include <mossgrove/rules.h>

#include <cerrno>
#include <cstring>

#include "stores/rulestore.hpp"

namespace mg::rules {

// Loads "<root>/data/<name>" record by record: each record starts with the
// line marker, and step(stream) reads the rest of it and uploads it (0, or
// -1 with errno). A missing file is 10072; a malformed one 10073. Any failure
// clears the kernel table (all or nothing).
template <class Step>
int load_records(const char *name, const char *marker, int (*clear)(), Step step) noexcept {
    char live[MG_PATH_MAX];
    if (!data_path(live, name)) return -1;
    errno = 0;
    switch (isRegFile(live)) {
        case 1: break;
        case -1: return set_errno(errno == ENOENT ? MG_ERR_NOTHING_TO_LOAD : MG_ERR_RULE_FORMAT);
        default: return set_errno(MG_ERR_RULE_FORMAT);
    }
    StoreText text;
    if (text.open(live) != 0) return set_errno(errno == ENOENT ? MG_ERR_NOTHING_TO_LOAD : MG_ERR_RULE_FORMAT);
    char line[2048];
    while (next_significant_line(line, sizeof line, text.stream()) != nullptr) {
        if (strcmp(line, marker) != 0) errno = MG_ERR_RULE_FORMAT;
        if (strcmp(line, marker) != 0 || step(text.stream()) != 0) {
            const int code = errno;
            clear();
            return set_errno(code);
        }
    }
    return 0;
}

// Dumps a kernel table to "<root>/data/<name>" through "<name>.tmp", keeping
// the old file as "<root>/data/.<name>_bak". records(stream) writes every
// record (0, or -1 with errno). 0, or -1 with errno.
template <class Records>
int dump_records(const char *name, Records records) noexcept {
    char live[MG_PATH_MAX], tmp[MG_PATH_MAX], backup[MG_PATH_MAX], bak_name[64];
    snprintf(bak_name, sizeof bak_name, ".%s_bak", name);
    if (!data_path(live, name) || !data_path(backup, bak_name)) return -1;
    if (!with_suffix(tmp, live, ".tmp")) return set_errno(ENAMETOOLONG);
    if (!module_usable()) return -1;
    StoreRewrite rewrite;
    if (rewrite.begin(live, tmp, backup) != 0) return -1;
    if (records(rewrite.stream()) != 0) {
        rewrite.abandon();
        return -1;
    }
    return rewrite.commit();
}

// Kernel refusals of an add or set, as the stores report them.
inline int upload_error() noexcept {
    switch (errno) {
        case ENOENT: return set_errno(MG_ERR_RULE_KNOENT);
        case EEXIST: return set_errno(MG_ERR_RULE_EXISTS);
        default: return -1;
    }
}

}  // namespace mg::rules
