// Allowed commands: up to 50 program paths with four numbers each. The
// kernel's list is the master; "<root>/data/alcmd_file" is read only when the
// kernel holds none and is rewritten after every change the kernel accepts.
#include <mossgrove/common.h>
#include <mossgrove/kernel.h>
#include <mossgrove/labels.h>
#include <mossgrove/rules.h>
#include <mossgrove/stores.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "stores/dbfile.hpp"
#include "stores/rulestore.hpp"
#include "stores/store_lines.hpp"
#include "common/textbuf.hpp"

namespace {

char g_szAlcmdPath[MG_PATH_MAX];

bool same_path(const alcmd &a, const alcmd &b) { return strncmp(a.path, b.path, sizeof a.path) == 0; }

// Category opt4 exists and is of type 2: its one-byte type is the role of
// its members.
bool category_of_type_2(int id) {
    MGCategory cat{};
    cat.id = id;
    return get_mls_cat_one(&cat, get_module_status()) == 1 && cat.role == 2;
}

// One numbers line "opt1:opt2:opt3:opt4" into entry.
bool parse_numbers(char *line, alcmd &entry) {
    char *f[4];
    int v[4];
    if (mg::rules::split_fields(line, ':', f, 4) != 4) return false;
    for (int i = 0; i < 4; ++i)
        if (!mg::rules::parse_number(f[i], &v[i])) return false;
    entry.opt1 = v[0];
    entry.opt2 = static_cast<int8_t>(v[1]);
    entry.opt3 = v[2];
    entry.opt4 = v[3];
    return true;
}

// Reads the entries of the file into list (count 0 on entry).
int read_list(FILE *in, alcmd_list *list) {
    char line[1024];
    while (list->count < MG_ALCMD_MAX && fgets_alcmd_file(line, sizeof line, in) != nullptr) {
        if (!mg::rules::read_alcmd_entry(line, in, &list->entries[list->count])) return -1;
        ++list->count;
    }
    // Entries past the 50th are ignored, deliberately without error.
    if (list->count < MG_ALCMD_MAX) memset(&list->entries[list->count], 0, sizeof(alcmd));
    return 0;
}

using ListEdit = int (*)(const alcmd *, alcmd_list *);

// The change shared by add, delete and modify: check, current list, edit,
// upload, and the file rewritten when the kernel took the list.
int change(int mode, const alcmd *entry, ListEdit edit) {
    if (entry == nullptr) return set_errno(EINVAL);
    if (get_module_status() == MG_STATUS_ABSENT) return -1;
    alcmd_list *list = static_cast<alcmd_list *>(calloc(1, sizeof(alcmd_list)));
    if (list == nullptr) return set_errno(ENOMEM);
    int result = -1;
    if (check_alcmd(mode, entry) == 0 && make_alcmdlist(mode, nullptr, list) == 0 && edit(entry, list) == 0) {
        result = _sys_setalcmd(list->entries, list->count);
        if (result == 0) export_alcmdlist_to_file(nullptr, list);
    }
    free(list);
    return result;
}

}  // namespace

bool mg::rules::read_alcmd_entry(const char *path_line, FILE *in, alcmd *entry) noexcept {
    memset(entry, 0, sizeof *entry);
    const size_t len = strlen(path_line);
    if (path_line[0] != '/' || len > 254) return false;
    memcpy(entry->path, path_line, len + 1);
    char line[1024];
    return fgets_alcmd_file(line, sizeof line, in) != nullptr && parse_numbers(line, *entry) &&
           check_alcmd(MG_ALCMD_LOAD, entry) == 0;
}

// A root that cannot be confirmed fails here (see get_alsvc_path).
int get_alcmdpath(void) noexcept {
    if (chk_mgrootdir() != 1) return 0;
    mg::stores::build_store_path(g_szAlcmdPath, "alcmd_file");
    return 1;
}

char *fgets_alcmd_file(char *buf, int size, FILE *stream) noexcept {
    return mg::rules::next_significant_line(buf, size, stream);
}

int check_alcmd(int mode, const alcmd *entry) noexcept {
    if (entry == nullptr || entry->path[0] != '/') return -1;
    if (mode == MG_ALCMD_DELETE) return 0;
    if (entry->opt1 < 1 || entry->opt1 > 3) return -1;
    switch (entry->opt2) {
        case 0:
        case 1: return entry->opt3 == 0 && entry->opt4 == 0 ? 0 : -1;
        case 7: return entry->opt3 >= 1 && entry->opt3 <= 7 && entry->opt4 == 1 ? 0 : -1;
        case 6:
            if (entry->opt3 < 1 || entry->opt3 > 7) return -1;
            return entry->opt4 == 2 || category_of_type_2(entry->opt4) ? 0 : -1;
        default: return -1;
    }
}

int make_alcmdlist(int mode, const char *path, alcmd_list *list) noexcept {
    if (list == nullptr) return set_errno(EINVAL);
    const int held = _sys_getalcmd(list->entries);
    if (held < 0) return -1;
    if (held >= 1) {
        list->count = held > MG_ALCMD_MAX ? MG_ALCMD_MAX : held;
        return 0;
    }
    memset(&list->entries[0], 0, sizeof(alcmd));
    list->count = 0;
    if (path == nullptr) {
        if (get_alcmdpath() == 0) return -1;
        path = g_szAlcmdPath;
    }
    errno = 0;
    if (isRegFile(path) != 1)
        return (mode == MG_ALCMD_ADD || mode == MG_ALCMD_LOAD) && errno == ENOENT ? 0 : -1;
    mg::rules::StoreText text;
    if (text.open(path) != 0) return -1;
    if (read_list(text.stream(), list) != 0) {
        list->count = 0;
        return -1;
    }
    return 0;
}

int export_alcmdlist_to_file(const char *path, const alcmd_list *list) noexcept {
    if (list == nullptr || list->count < 0 || list->count > MG_ALCMD_MAX) return set_errno(EINVAL);
    if (path == nullptr) {
        if (get_alcmdpath() == 0) return -1;
        path = g_szAlcmdPath;
    }
    char tmp[MG_PATH_MAX + 16];
    int n = snprintf(tmp, sizeof tmp, "%s.%d", path, static_cast<int>(time(nullptr)));
    if (n < 0 || static_cast<size_t>(n) >= sizeof tmp) return set_errno(ENAMETOOLONG);
    mg::stores::TextBuf text;
    text.add("#\n# Allowed Commands List\n#\n\n");
    for (int i = 0; i < list->count; ++i) {
        const alcmd &e = list->entries[i];
        text.add_cut(256, "%.256s\n", e.path);
        text.add_cut(256, "%d:%d:%d:%d\n", e.opt1, e.opt2, e.opt3, e.opt4);
    }
    if (!text.ok()) return set_errno(ENOMEM);
    int fd = mg::stores::create_named_temp(tmp);
    if (fd < 0) return -1;
    if (mg::stores::write_all(fd, text.data(), text.size()) != 0) {
        mg::stores::abandon_rewrite(fd, tmp, -1);
        return -1;
    }
    return mg::stores::install_temp(fd, tmp, path);
}

int add_alcmd_to_list(const alcmd *entry, alcmd_list *list) noexcept {
    if (entry == nullptr || list == nullptr || list->count < 0 || list->count >= MG_ALCMD_MAX) return -1;
    for (int i = 0; i < list->count; ++i)
        if (same_path(list->entries[i], *entry)) return -1;
    list->entries[list->count++] = *entry;
    return 0;
}

int del_alcmd_from_list(const alcmd *entry, alcmd_list *list) noexcept {
    if (entry == nullptr || list == nullptr || list->count > MG_ALCMD_MAX) return -1;
    for (int i = 0; i < list->count; ++i) {
        if (!same_path(list->entries[i], *entry)) continue;
        memmove(&list->entries[i], &list->entries[i + 1], static_cast<size_t>(list->count - i - 1) * sizeof(alcmd));
        memset(&list->entries[list->count - 1], 0, sizeof(alcmd));
        --list->count;
        return 0;
    }
    return -1;
}

int mod_alcmd_from_list(const alcmd *entry, alcmd_list *list) noexcept {
    if (entry == nullptr || list == nullptr || list->count > MG_ALCMD_MAX) return -1;
    for (int i = 0; i < list->count; ++i) {
        alcmd &e = list->entries[i];
        if (!same_path(e, *entry)) continue;
        e.opt1 = entry->opt1;
        e.opt2 = entry->opt2;
        e.opt3 = entry->opt3;
        e.opt4 = entry->opt4;
        return 0;
    }
    return -1;
}

int get_alcmd_list(alcmd_list *list) noexcept {
    if (list == nullptr || get_module_status() == MG_STATUS_ABSENT) return -1;
    return make_alcmdlist(MG_ALCMD_LOAD, nullptr, list);
}

int add_alcmd_list(const alcmd *entry) noexcept { return change(MG_ALCMD_ADD, entry, add_alcmd_to_list); }

int del_alcmd_list(const alcmd *entry) noexcept { return change(MG_ALCMD_DELETE, entry, del_alcmd_from_list); }

int mod_alcmd_list(const alcmd *entry) noexcept { return change(MG_ALCMD_MODIFY, entry, mod_alcmd_from_list); }

int del_all_alcmd_list(void) noexcept {
    if (get_module_status() == MG_STATUS_ABSENT) return -1;
    alcmd_list *list = static_cast<alcmd_list *>(calloc(1, sizeof(alcmd_list)));
    if (list == nullptr) return set_errno(ENOMEM);
    const int result = _sys_setalcmd(list->entries, 0);
    if (result == 0) export_alcmdlist_to_file(nullptr, list);
    free(list);
    return result;
}
