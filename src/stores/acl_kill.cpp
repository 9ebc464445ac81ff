// Kill ACL: per program path, the signals that may not be sent to it, as a
// deny mask; kept in the kernel and in "<root>/data/acl_kill".
#include <mossgrove/common.h>
#include <mossgrove/kernel.h>
#include <mossgrove/rules.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "stores/rulestore.hpp"
#include "stores/rulestore_io.hpp"

namespace {

struct SignalBit {
    uint32_t mask;
    int32_t signo;
    char name[8];
};

// Scanned in this order; the all-ones entry ends the table.
constexpr SignalBit kSignals[] = {
    {0x00000001, 1, "HUP"},   {0x00000002, 9, "KILL"},  {0x00000004, 15, "TERM"}, {0x00000008, 19, "STOP"},
    {0x00000010, 18, "CONT"}, {0x00000020, 10, "USR1"}, {0x00000040, 12, "USR2"}, {0x80000000, -1, "ETC"},
    {0xffffffff, 0, ""},
};

// The mask bit of one name (length len), 0 when it names nothing.
uint32_t bit_of(const char *name, size_t len) {
    if (len == 3 && strncmp(name, "ALL", 3) == 0) return MG_DENY_ALL;
    for (const SignalBit *s = kSignals; s->mask != 0xffffffff; ++s)
        if (strlen(s->name) == len && strncmp(s->name, name, len) == 0) return s->mask;
    return 0;
}

int kill_count() { return _sys_kill_acl_cnt(); }

int lazy_load_kill() { return mg::rules::lazy_load(kill_count, load_kill_acl); }

int upload_kill_record(FILE *stream) {
    kaclent entry;
    if (read_kacl_record(stream, &entry) != 0) return -1;
    if (!mg::rules::module_usable()) return -1;
    if (_sys_add_kill_acl(&entry) < 0) return errno == EEXIST ? set_errno(MG_ERR_RULE_EXISTS) : -1;
    return 0;
}

int changed(int result) { return result < 0 ? (errno == ENOENT ? set_errno(MG_ERR_RULE_NOENT) : -1) : 0; }

}  // namespace

int str2denymask(const char *s, uint32_t *mask) noexcept {
    if (s == nullptr || mask == nullptr) return set_errno(EINVAL);
    uint32_t bits = 0;
    for (;;) {
        const char *sep = strchr(s, ':');
        const size_t len = sep != nullptr ? static_cast<size_t>(sep - s) : strlen(s);
        const uint32_t bit = bit_of(s, len);
        if (bit == 0) return -1;
        bits |= bit;
        if (sep == nullptr) break;
        s = sep + 1;
    }
    *mask = bits;
    return 0;
}

int denymask2str(uint32_t mask, char *out) noexcept {
    if (out == nullptr) return set_errno(EINVAL);
    out[0] = '\0';
    if ((mask & MG_DENY_ALL) == MG_DENY_ALL) {
        strcpy(out, "ALL");
        return 0;
    }
    char *p = out;
    for (const SignalBit *s = kSignals; s->mask != 0xffffffff; ++s) {
        if (!(mask & s->mask)) continue;
        if (p != out) *p++ = ':';
        const size_t len = strlen(s->name);
        memcpy(p, s->name, len + 1);
        p += len;
    }
    return 0;
}

int read_kacl_record(FILE *stream, kaclent *entry) noexcept {
    if (stream == nullptr || entry == nullptr) return set_errno(EINVAL);
    memset(entry, 0, sizeof *entry);
    char line[2048];
    int flag;
    uint32_t mask;
    if (fgets_rule_file(line, sizeof line, stream) == nullptr ||
        !mg::rules::copy_fit(entry->path, sizeof entry->path, line) ||
        fgets_rule_file(line, sizeof line, stream) == nullptr || !mg::rules::parse_number(line, &flag) ||
        (flag != 0 && flag != 1) || fgets_rule_file(line, sizeof line, stream) == nullptr ||
        str2denymask(line, &mask) != 0 || fgets_rule_file(line, sizeof line, stream) == nullptr ||
        strcmp(line, "[/KACL]") != 0)
        return set_errno(MG_ERR_RULE_FORMAT);
    entry->flag = flag;
    entry->denymask = mask;
    return 0;
}

int write_kill_acl(FILE *stream, const kaclent *entry) noexcept {
    if (stream == nullptr || entry == nullptr) return -1;
    char mask[MG_DENYMASK_STR];
    denymask2str(entry->denymask, mask);
    return fprintf(stream, "%s\n%.1024s\n%d\n%s\n%s\n", "[KACL]", entry->path, entry->flag, mask, "[/KACL]") < 0
               ? -1
               : 0;
}

int add_kill_acl(kaclent *entry) noexcept {
    if (entry == nullptr) return set_errno(EINVAL);
    if (!mg::rules::module_usable()) return -1;
    int count = _sys_kill_acl_cnt();
    if (count == 0) {
        if (lazy_load_kill() != 0) return -1;
        count = _sys_kill_acl_cnt();
    }
    if (count >= MG_KACL_MAX) return set_errno(MG_ERR_RULE_FULL);
    if (_sys_add_kill_acl(entry) < 0) return errno == EEXIST ? set_errno(MG_ERR_RULE_EXISTS) : -1;
    return 0;
}

int mod_kill_acl(kaclent *entry) noexcept {
    if (entry == nullptr) return set_errno(EINVAL);
    if (!mg::rules::module_usable() || lazy_load_kill() != 0) return -1;
    return changed(_sys_mod_kill_acl(entry));
}

int del_kill_acl(void *key) noexcept {
    if (key == nullptr) return set_errno(EINVAL);
    if (!mg::rules::module_usable() || lazy_load_kill() != 0) return -1;
    return changed(_sys_del_kill_acl(key));
}

int get_all_kill_acl_hdr(kaclent **entries, int *count) noexcept {
    return mg::rules::read_all_headers(entries, count, lazy_load_kill, _sys_kill_acl_cnt, _sys_get_all_kill_acl_hdr);
}

int load_kill_acl(void) noexcept {
    return mg::rules::load_records("acl_kill", "[KACL]", _sys_clear_kill_acl, upload_kill_record);
}

int dump_kill_acl(void) noexcept {
    return mg::rules::dump_records("acl_kill", [](FILE *out) {
        if (_sys_kill_acl_cnt() <= 0) return 0;
        kaclent *entries = nullptr;
        int count = 0;
        if (get_all_kill_acl_hdr(&entries, &count) != 0) return -1;
        int result = 0;
        for (int i = 0; result == 0 && i < count; ++i)
            if (write_kill_acl(out, &entries[i]) != 0) result = set_errno(MG_ERR_RULE_WRITE);
        free(entries);
        return result;
    });
}
