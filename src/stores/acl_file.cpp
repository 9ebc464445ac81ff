// File ACL: per protected path, up to 32 rule entries, kept in the kernel and
// in "<root>/data/acl_file". Also the rule entry itself, with its one-line
// text form, its permission letters and its checks, which the file groups
// share, and the significant-line reader of every rule file.
#include <mossgrove/common.h>
#include <mossgrove/kernel.h>
#include <mossgrove/labels.h>
#include <mossgrove/rules.h>
#include <mossgrove/stores.h>

#include <arpa/inet.h>
#include <grp.h>
#include <netinet/in.h>
#include <pwd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "common/heap_array.hpp"
#include "stores/rulestore.hpp"
#include "stores/rulestore_io.hpp"

namespace {

constexpr char kLetters[] = "omcdnrwx";  // bit 0x80 down to 0x01

int kind_of(int32_t type) { return type & MG_RULE_KIND_MASK; }

bool valid_kind(int kind) {
    return kind == MG_RULE_EVERYONE || kind == MG_RULE_USER || kind == MG_RULE_CATEGORY || kind == MG_RULE_ROLE ||
           kind == MG_RULE_GROUP;
}

// An absolute path that fits its 1024-byte field.
bool absolute(const char *path) { return path[0] == '/' && strnlen(path, 1024) < 1024; }

// The fields of one rule line into entry; false when the line is not one.
bool parse_rule_line(char *line, rulentry *entry) {
    char *f[6];
    int type = 0;
    if (mg::rules::split_fields(line, ':', f, 6) != 6 || !mg::rules::parse_number(f[0], &type)) return false;
    entry->type = type;
    const int kind = kind_of(type);
    if (!valid_kind(kind)) return false;
    if (kind != MG_RULE_EVERYONE) {
        if (isValidNumber(f[1]) != 1 || f[2][0] == '\0' || !mg::rules::copy_fit(entry->name, 32, f[2]))
            return false;
        entry->id = static_cast<uint32_t>(strtoul(f[1], nullptr, 10));
    } else if (f[1][0] != '\0' || f[2][0] != '\0') {
        return false;
    }
    if (f[3][0] != '\0' && (f[3][0] != '/' || !mg::rules::copy_fit(entry->path, sizeof entry->path, f[3])))
        return false;
    if (f[4][0] != '\0') {
        // inet_addr's all-ones failure value refuses 255.255.255.255 too.
        entry->ipaddr = mg::rules::read_address(f[4]);
        if (entry->ipaddr == INADDR_NONE) return false;
    }
    const int perm = str2perm(f[5]);
    if (perm < 0) return false;
    entry->perm = perm;
    return true;
}

int file_acl_count() { return _sys_file_acl_cnt(); }

int lazy_load_file_acl() { return mg::rules::lazy_load(file_acl_count, load_file_acl); }

bool entries_valid(const rulentry *entries, int count, int status) {
    for (int i = 0; i < count; ++i)
        if (is_valid_rulentry(&entries[i], status) != 1) return false;
    return true;
}

// Reads one "[ACL]" record (marker consumed) and uploads it.
int upload_facl_record(FILE *stream, mg::rules::NameIndex &users, mg::rules::NameIndex &groups) {
    faclhdr hdr;
    rulentry *entries = nullptr;
    if (read_facl_record(stream, &hdr, &entries) != 0) return -1;
    struct Owner {
        rulentry *p;
        ~Owner() { free(p); }
    } owner{entries};
    if (!mg::rules::module_usable()) return -1;
    if (is_valid_faclhdr(&hdr) != 1) return set_errno(MG_ERR_RULE_HEADER);
    // The names in the file win over the stored numbers: rules survive a
    // change of uid or gid.
    mg::rules::resolve_rule_ids(entries, hdr.rule_cnt, users, groups);
    if (_sys_add_file_acl(&hdr, entries) < 0) return mg::rules::upload_error();
    return 0;
}

}  // namespace

// ---- Paths and permissions ----------------------------------------------------

int is_wildcard_path(const char *path) noexcept {
    if (path == nullptr) return 0;
    for (size_t i = strlen(path); i > 0; --i) {
        if (path[i - 1] == '/') return 0;
        if (path[i - 1] == '*') return 1;
    }
    return 0;
}

int is_valid_rulepath(const char *path) noexcept {
    if (path == nullptr || path[0] != '/') return 0;
    const size_t len = strlen(path);
    if (len == 1) return 1;
    if (path[len - 1] == '/') return 0;
    const char *star = strchr(path, '*');
    if (star == nullptr) return 1;
    const bool starts_last = star[-1] == '/' && strchr(star, '/') == nullptr;
    const bool ends_path = star[1] == '\0';
    if (!starts_last && !ends_path) return 0;
    return strchr(star + 1, '*') == nullptr ? 1 : 0;
}

int str2perm(const char *s) noexcept {
    if (s == nullptr) return -1;
    int perm = 0;
    for (; *s != '\0'; ++s) {
        const char *at = strchr(kLetters, *s);
        if (at == nullptr) return -1;
        perm |= 0x80 >> (at - kLetters);
    }
    return perm;
}

int perm2str(int perm, char *out) noexcept {
    if (out == nullptr) return 0;
    char *p = out;
    for (int i = 0; i < 8; ++i)
        if (perm & (0x80 >> i)) *p++ = kLetters[i];
    *p = '\0';
    return 0;
}

// ---- Rule entries ------------------------------------------------------------

char *fgets_rule_file(char *buf, int size, FILE *stream) noexcept {
    return mg::rules::next_significant_line(buf, size, stream);
}

int read_rulentry(FILE *stream, rulentry *entry) noexcept {
    if (stream == nullptr || entry == nullptr) return -1;
    memset(entry, 0, sizeof *entry);
    char line[2048];
    if (fgets_rule_file(line, sizeof line, stream) == nullptr) return -1;
    entry->in_use = 1;
    return parse_rule_line(line, entry) ? 0 : -1;
}

int write_rulentry(FILE *stream, const rulentry *entry) noexcept {
    if (stream == nullptr || entry == nullptr) return -1;
    char id[16] = "";
    if (kind_of(entry->type) != MG_RULE_EVERYONE) snprintf(id, sizeof id, "%u", entry->id);
    char addr[32] = "";
    if (entry->ipaddr != 0) {
        struct in_addr in;
        in.s_addr = entry->ipaddr;
        inet_ntop(AF_INET, &in, addr, sizeof addr);
    }
    char perm[9];
    perm2str(entry->perm, perm);
    return fprintf(stream, "%d:%s:%.32s:%.1024s:%s:%s\n", entry->type, id, entry->name, entry->path, addr, perm) < 0
               ? -1
               : 0;
}

int is_valid_user(uint32_t uid, const char *name) noexcept {
    if (name == nullptr) return 0;
    const struct passwd *pw = getpwuid(uid);
    return pw != nullptr && pw->pw_name[0] != '\0' && strcmp(pw->pw_name, name) == 0 ? 1 : 0;
}

int is_valid_group(uint32_t gid, const char *name) noexcept {
    if (name == nullptr) return 0;
    const struct group *gr = getgrgid(gid);
    return gr != nullptr && gr->gr_name[0] != '\0' && strcmp(gr->gr_name, name) == 0 ? 1 : 0;
}

int is_valid_rulentry(const rulentry *entry, int module_status) noexcept {
    if (entry == nullptr) return 0;
    if (entry->path[0] != '\0' && !absolute(entry->path)) return 0;
    char name[sizeof entry->name + 1] = {};
    memcpy(name, entry->name, sizeof entry->name);
    const int kind = kind_of(entry->type);
    if (kind & MG_RULE_USER) return is_valid_user(entry->id, name);
    if (kind & MG_RULE_CATEGORY) return is_exist_cid(static_cast<int>(entry->id), module_status) != -1 ? 1 : 0;
    if (kind & MG_RULE_ROLE) return is_valid_role(static_cast<int>(entry->id & 0xff)) != -1 ? 1 : 0;
    if (kind == MG_RULE_GROUP) return is_valid_group(entry->id, name);
    return kind == MG_RULE_EVERYONE ? 1 : 0;
}

int is_valid_faclhdr(const faclhdr *hdr) noexcept {
    return hdr != nullptr && absolute(hdr->path) && hdr->rule_cnt >= 1 && hdr->rule_cnt <= MG_RULES_MAX &&
                   hdr->mode >= 0 && hdr->mode <= 2 && hdr->flag <= 1 && hdr->polgrp_id >= 0 &&
                   hdr->polgrp_id <= MG_GROUP_ID_MAX
               ? 1
               : 0;
}

int is_valid_fgrouphdr(const fgrouphdr *hdr) noexcept {
    return hdr != nullptr && hdr->fgroup_id >= 0 && hdr->fgroup_id <= MG_GROUP_ID_MAX && hdr->name[0] != '\0' &&
                   strnlen(hdr->name, sizeof hdr->name) < sizeof hdr->name && hdr->rule_cnt >= 0 &&
                   hdr->rule_cnt <= MG_RULES_MAX && hdr->member_cnt >= 0 && hdr->member_cnt <= MG_MEMBERS_MAX &&
                   hdr->mode >= 0 && hdr->mode <= 2 && hdr->polgrp_id >= 0 && hdr->polgrp_id <= MG_GROUP_ID_MAX
               ? 1
               : 0;
}

int is_valid_mpath(const mpath *member) noexcept {
    return member != nullptr && absolute(member->path) && member->flag <= 1 ? 1 : 0;
}

int set_rulentry_uid(rulentry *entries, int count) noexcept {
    if (entries == nullptr || count < 0) return -1;
    for (int i = 0; i < count; ++i) {
        rulentry &e = entries[i];
        if (!(e.type & MG_RULE_USER)) continue;
        char name[sizeof e.name + 1] = {};
        memcpy(name, e.name, sizeof e.name);
        const struct passwd *pw = getpwnam(name);
        e.id = pw != nullptr ? pw->pw_uid : UINT32_MAX;
    }
    return 0;
}

int set_rulentry_gid(rulentry *entries, int count) noexcept {
    if (entries == nullptr || count < 0) return -1;
    for (int i = 0; i < count; ++i) {
        rulentry &e = entries[i];
        if (!(e.type & MG_RULE_GROUP)) continue;
        char name[sizeof e.name + 1] = {};
        memcpy(name, e.name, sizeof e.name);
        const struct group *gr = getgrnam(name);
        e.id = gr != nullptr ? gr->gr_gid : UINT32_MAX;
    }
    return 0;
}

int set_rulentry_username(rulentry *entries, int count) noexcept {
    if (entries == nullptr || count < 0) return -1;
    for (int i = 0; i < count; ++i) {
        rulentry &e = entries[i];
        if (!(e.type & MG_RULE_USER)) continue;
        const struct passwd *pw = getpwuid(e.id);
        memset(e.name, 0, sizeof e.name);
        strncpy(e.name, pw != nullptr ? pw->pw_name : "_UNKNOWN", sizeof e.name - 1);
    }
    return 0;
}

// ---- File ACL records in the file ---------------------------------------------

int write_file_acl(FILE *stream, const faclhdr *hdr, const rulentry *entries) noexcept {
    if (stream == nullptr || hdr == nullptr || (hdr->rule_cnt > 0 && entries == nullptr)) return -1;
    if (fprintf(stream, "%s\n%.1024s\n%d\n%d\n%d\n%d\n", "[ACL]", hdr->path, hdr->rule_cnt, hdr->mode, hdr->flag,
                hdr->polgrp_id) < 0)
        return -1;
    for (int i = 0; i < hdr->rule_cnt; ++i)
        if (write_rulentry(stream, &entries[i]) != 0) return -1;
    return fprintf(stream, "%s\n", "[/ACL]") < 0 ? -1 : 0;
}

int read_facl_record(FILE *stream, faclhdr *hdr, rulentry **entries) noexcept {
    if (stream == nullptr || hdr == nullptr || entries == nullptr) return set_errno(EINVAL);
    *entries = nullptr;
    memset(hdr, 0, sizeof *hdr);
    char line[2048];
    int numbers[4];
    if (fgets_rule_file(line, sizeof line, stream) == nullptr || line[0] != '/' ||
        !mg::rules::copy_fit(hdr->path, sizeof hdr->path, line))
        return set_errno(MG_ERR_RULE_FORMAT);
    for (int &n : numbers)
        if (fgets_rule_file(line, sizeof line, stream) == nullptr || !mg::rules::parse_number(line, &n))
            return set_errno(MG_ERR_RULE_FORMAT);
    if (numbers[0] <= 0) return set_errno(MG_ERR_RULE_FORMAT);
    hdr->rule_cnt = numbers[0];
    hdr->mode = numbers[1];
    hdr->flag = static_cast<uint16_t>(numbers[2]);
    hdr->polgrp_id = numbers[3];
    mg::HeapArray<rulentry> rules;
    for (int i = 0; i < hdr->rule_cnt; ++i) {
        rulentry *e = rules.push_zeroed();
        if (e == nullptr) return -1;
        if (read_rulentry(stream, e) != 0) return set_errno(MG_ERR_RULE_FORMAT);
    }
    if (fgets_rule_file(line, sizeof line, stream) == nullptr || strcmp(line, "[/ACL]") != 0)
        return set_errno(MG_ERR_RULE_FORMAT);
    *entries = rules.release();
    return 0;
}

// ---- File ACL operations --------------------------------------------------------

int add_file_acl(faclhdr *hdr, rulentry *entries) noexcept {
    if (hdr == nullptr || entries == nullptr) return set_errno(EINVAL);
    int status;
    if (!mg::rules::module_usable(&status)) return -1;
    int count = _sys_file_acl_cnt();
    if (count == 0) {
        if (lazy_load_file_acl() != 0) return -1;
        count = _sys_file_acl_cnt();
    }
    if (count >= MG_FACL_MAX) return set_errno(MG_ERR_RULE_FULL);
    if (is_valid_faclhdr(hdr) != 1 || is_valid_rulepath(hdr->path) != 1) return set_errno(MG_ERR_RULE_HEADER);
    if (!entries_valid(entries, hdr->rule_cnt, status)) return set_errno(MG_ERR_RULE_ENTRY);
    if (_sys_add_file_acl(hdr, entries) < 0) return mg::rules::upload_error();
    return 0;
}

int mod_file_acl(faclhdr *hdr, rulentry *entries) noexcept {
    if (hdr == nullptr || entries == nullptr) return set_errno(EINVAL);
    int status;
    if (!mg::rules::module_usable(&status) || lazy_load_file_acl() != 0) return -1;
    // The wildcard rules of add are deliberately not applied here.
    if (is_valid_faclhdr(hdr) != 1) return set_errno(MG_ERR_RULE_HEADER);
    if (!entries_valid(entries, hdr->rule_cnt, status)) return set_errno(MG_ERR_RULE_ENTRY);
    if (_sys_mod_file_acl(hdr, entries) < 0) return errno == ENOENT ? set_errno(MG_ERR_RULE_NOENT) : -1;
    return 0;
}

int del_file_acl(const char *path) noexcept {
    if (path == nullptr) return set_errno(EINVAL);
    if (!mg::rules::module_usable() || lazy_load_file_acl() != 0) return -1;
    if (path[0] != '/') return set_errno(MG_ERR_RULE_HEADER);
    if (_sys_del_file_acl(const_cast<char *>(path)) < 0) return errno == ENOENT ? set_errno(MG_ERR_RULE_NOENT) : -1;
    return 0;
}

int get_file_acl(faclhdr *hdr, rulentry **entries) noexcept {
    if (hdr == nullptr || entries == nullptr) return set_errno(EINVAL);
    *entries = nullptr;
    if (!mg::rules::module_usable() || lazy_load_file_acl() != 0) return -1;
    if (_sys_get_facl_hdr(hdr) < 0) return errno == ENOENT ? set_errno(MG_ERR_RULE_NOENT) : -1;
    if (hdr->rule_cnt < 1) return 0;
    auto *buf = static_cast<rulentry *>(calloc(static_cast<size_t>(hdr->rule_cnt), sizeof(rulentry)));
    if (buf == nullptr) return set_errno(ENOMEM);
    if (_sys_get_file_acl(hdr, buf) < 0) {
        const int code = errno == ENOENT ? MG_ERR_RULE_NOENT : errno;
        free(buf);
        return set_errno(code);
    }
    *entries = buf;
    return 0;
}

int get_all_facl_hdr(faclhdr **hdrs, int *count) noexcept {
    return mg::rules::read_all_headers(hdrs, count, lazy_load_file_acl, _sys_file_acl_cnt, _sys_get_all_facl_hdr);
}

int load_file_acl(void) noexcept {
    mg::rules::NameIndex users(mg::rules::NameIndex::Db::Users);
    mg::rules::NameIndex groups(mg::rules::NameIndex::Db::Groups);
    return mg::rules::load_records("acl_file", "[ACL]", _sys_clear_file_acl,
                                   [&](FILE *in) { return upload_facl_record(in, users, groups); });
}

int dump_file_acl(void) noexcept {
    return mg::rules::dump_records("acl_file", [](FILE *out) {
        if (_sys_file_acl_cnt() <= 0) return 0;
        faclhdr *hdrs = nullptr;
        int count = 0;
        if (get_all_facl_hdr(&hdrs, &count) != 0) return -1;
        rulentry *buf = static_cast<rulentry *>(calloc(MG_RULES_MAX, sizeof(rulentry)));
        int result = buf != nullptr ? 0 : set_errno(MG_ERR_RULE_WRITE);
        for (int i = 0; result == 0 && i < count; ++i) {
            faclhdr &h = hdrs[i];
            if (h.rule_cnt < 1) continue;
            if (h.rule_cnt > MG_RULES_MAX || _sys_get_file_acl(&h, buf) < 0 || write_file_acl(out, &h, buf) != 0)
                result = set_errno(MG_ERR_RULE_WRITE);
        }
        free(buf);
        free(hdrs);
        return result;
    });
}
