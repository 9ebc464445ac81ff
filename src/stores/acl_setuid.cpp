// Setuid ACL: the set-user-id and set-group-id programs the kernel lets run,
// each with a 0/1 flag; kept in the kernel and in "<root>/data/acl_setuid",
// one "flag:path" line per program. Also the finder of such programs.
#include <mossgrove/common.h>
#include <mossgrove/kernel.h>
#include <mossgrove/rules.h>

#include <dirent.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "stores/rulestore.hpp"
#include "stores/rulestore_io.hpp"
#include "stores/store_lines.hpp"

namespace {

int setuid_count() { return _sys_setuid_acl_cnt(); }

int lazy_load_setuid() { return mg::rules::lazy_load(setuid_count, load_setuid_acl); }

int upload(suidaclent *entry) {
    if (entry->flag != 0 && entry->flag != 1) return set_errno(EINVAL);
    if (!mg::rules::module_usable()) return -1;
    return _sys_add_setuid_acl(entry) < 0 ? mg::rules::upload_error() : 0;
}

int walk(const char *dir, FILE *stream) {
    DIR *d = opendir(dir);
    if (d == nullptr) return -1;
    const size_t len = strlen(dir);
    const char *sep = dir[len - 1] == '/' ? "" : "/";
    int result = 0;
    errno = 0;
    while (result == 0) {
        const struct dirent *de = readdir(d);
        if (de == nullptr) break;
        if (strcmp(de->d_name, ".") == 0 || strcmp(de->d_name, "..") == 0) continue;
        char path[PATH_MAX];
        int n = snprintf(path, sizeof path, "%s%s%s", dir, sep, de->d_name);
        if (n < 0 || static_cast<size_t>(n) >= sizeof path) {
            result = set_errno(ENAMETOOLONG);
            break;
        }
        struct stat st;
        if (lstat(path, &st) != 0) continue;  // gone meanwhile
        if (S_ISDIR(st.st_mode)) {
            result = walk(path, stream);
        } else if (S_ISREG(st.st_mode) && (st.st_mode & (S_ISUID | S_ISGID))) {
            if (fprintf(stream, "%s\n", path) < 0) result = -1;
        }
    }
    closedir(d);
    return result;
}

}  // namespace

bool mg::rules::parse_setuid_line(char *line, suidaclent *entry) noexcept {
    char *sep = strchr(line, ':');
    if (sep == nullptr) return false;
    *sep = '\0';
    int flag;
    if (!parse_number(line, &flag) || (flag != 0 && flag != 1)) return false;
    memset(entry, 0, sizeof *entry);
    entry->flag = flag;
    return sep[1] == '/' && copy_fit(entry->path, sizeof entry->path, sep + 1);
}

int add_setuid_acl(suidaclent *entry) noexcept {
    if (entry == nullptr || (entry->flag != 0 && entry->flag != 1)) return set_errno(EINVAL);
    if (!mg::rules::module_usable()) return -1;
    int count = _sys_setuid_acl_cnt();
    if (count == 0) {
        if (lazy_load_setuid() != 0) return -1;
        count = _sys_setuid_acl_cnt();
    }
    if (count > MG_SUIDACL_MAX - 1) return set_errno(MG_ERR_RULE_FULL);
    return _sys_add_setuid_acl(entry) < 0 ? mg::rules::upload_error() : 0;
}

// Deliberately reported as add reports: ENOENT is 10078, EEXIST 10077.
int mod_setuid_acl(suidaclent *entry) noexcept {
    if (entry == nullptr || (entry->flag != 0 && entry->flag != 1)) return set_errno(EINVAL);
    if (!mg::rules::module_usable() || lazy_load_setuid() != 0) return -1;
    return _sys_mod_setuid_acl(entry) < 0 ? mg::rules::upload_error() : 0;
}

int del_setuid_acl(void *key) noexcept {
    if (key == nullptr) return set_errno(EINVAL);
    if (!mg::rules::module_usable() || lazy_load_setuid() != 0) return -1;
    if (_sys_del_setuid_acl(key) < 0) return errno == ENOENT ? set_errno(MG_ERR_RULE_NOENT) : -1;
    return 0;
}

int get_all_setuid_acl_hdr(suidaclent **entries, int *count) noexcept {
    return mg::rules::read_all_headers(entries, count, lazy_load_setuid, _sys_setuid_acl_cnt, _sys_get_all_setuid_acl_hdr);
}

// A program that no longer exists (10078) or a duplicate line (10077) is
// skipped deliberately; anything else empties the kernel table.
int load_setuid_acl(void) noexcept {
    char live[MG_PATH_MAX];
    if (!mg::rules::data_path(live, "acl_setuid")) return -1;
    errno = 0;
    switch (isRegFile(live)) {
        case 1: break;
        case -1: return set_errno(errno == ENOENT ? MG_ERR_NOTHING_TO_LOAD : MG_ERR_RULE_FORMAT);
        default: return set_errno(MG_ERR_RULE_FORMAT);
    }
    mg::rules::StoreText text;
    if (text.open(live) != 0) return set_errno(errno == ENOENT ? MG_ERR_NOTHING_TO_LOAD : MG_ERR_RULE_FORMAT);
    char line[2048];
    while (fgets_rule_file(line, sizeof line, text.stream()) != nullptr) {
        suidaclent entry;
        int code = 0;
        if (!mg::rules::parse_setuid_line(line, &entry))
            code = MG_ERR_RULE_FORMAT;
        else if (upload(&entry) != 0 && errno != MG_ERR_RULE_KNOENT && errno != MG_ERR_RULE_EXISTS)
            code = errno;
        if (code != 0) {
            _sys_clear_setuid_acl();
            return set_errno(code);
        }
    }
    return 0;
}

int dump_setuid_acl(void) noexcept {
    return mg::rules::dump_records("acl_setuid", [](FILE *out) {
        if (_sys_setuid_acl_cnt() <= 0) return 0;
        suidaclent *entries = nullptr;
        int count = 0;
        if (get_all_setuid_acl_hdr(&entries, &count) != 0) return -1;
        int result = 0;
        for (int i = 0; result == 0 && i < count; ++i)
            if (fprintf(out, "%d:%.1024s\n", entries[i].flag, entries[i].path) < 0) result = set_errno(MG_ERR_RULE_WRITE);
        free(entries);
        return result;
    });
}

int find_setuid_pgm(const char *dir, FILE *stream) noexcept {
    if (dir == nullptr || dir[0] == '\0' || stream == nullptr) return -1;
    return walk(dir, stream);
}
