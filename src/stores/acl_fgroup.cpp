// File groups: named groups of member paths sharing one list of rule entries,
// kept in the kernel and in "<root>/data/acl_fgroup". The kernel numbers the
// groups (1 to 512); a group is created with number 0.
#include <mossgrove/common.h>
#include <mossgrove/kernel.h>
#include <mossgrove/rules.h>
#include <mossgrove/stores.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "common/heap_array.hpp"
#include "stores/rulestore.hpp"
#include "stores/rulestore_io.hpp"

namespace {

int fgroup_count() { return _sys_fgroup_cnt(); }

int lazy_load_fgroup() { return mg::rules::lazy_load(fgroup_count, load_fgroup); }

// Owns the arrays of one group record.
struct GroupArrays {
    rulentry *entries = nullptr;
    mpath *members = nullptr;
    ~GroupArrays() {
        free(entries);
        free(members);
    }
};

int set_error() {
    switch (errno) {
        case EOVERFLOW: return set_errno(MG_ERR_RULE_FULL);
        default: return mg::rules::upload_error();
    }
}

// Reads one "[FGROUP]" record (marker consumed) and creates the group afresh:
// the number in the file is discarded and the kernel assigns one in file order.
int upload_group_record(FILE *stream, mg::rules::NameIndex &users, mg::rules::NameIndex &groups) {
    fgrouphdr hdr;
    GroupArrays a;
    if (read_fgroup_record(stream, &hdr, &a.entries, &a.members) != 0) return -1;
    hdr.fgroup_id = 0;
    if (!mg::rules::module_usable()) return -1;
    if (is_valid_fgrouphdr(&hdr) != 1) return set_errno(MG_ERR_RULE_HEADER);
    mg::rules::resolve_rule_ids(a.entries, hdr.rule_cnt, users, groups);
    for (int i = 0; i < hdr.member_cnt; ++i)
        if (is_valid_mpath(&a.members[i]) != 1) return set_errno(MG_ERR_RULE_MEMBER);
    rulentry no_entry{};
    mpath no_member{};
    if (_sys_set_fgroup(&hdr, a.entries != nullptr ? a.entries : &no_entry,
                        a.members != nullptr ? a.members : &no_member) < 0)
        return set_error();
    return 0;
}

// Numbers of at least 1 get an array of that many records (a local one-record
// stand-in for the kernel when 0).
template <class T>
T *array_for(int count) {
    return static_cast<T *>(calloc(count > 0 ? static_cast<size_t>(count) : 1, sizeof(T)));
}

}  // namespace

int read_member_path(FILE *stream, mpath *member) noexcept {
    if (stream == nullptr || member == nullptr) return -1;
    memset(member, 0, sizeof *member);
    char line[2048];
    int flag;
    if (fgets_rule_file(line, sizeof line, stream) == nullptr || line[0] != '/' ||
        !mg::rules::copy_fit(member->path, sizeof member->path, line))
        return -1;
    if (fgets_rule_file(line, sizeof line, stream) == nullptr || !mg::rules::parse_number(line, &flag)) return -1;
    member->flag = static_cast<uint16_t>(flag);
    return 0;
}

int read_fgroup_record(FILE *stream, fgrouphdr *hdr, rulentry **entries, mpath **members) noexcept {
    if (stream == nullptr || hdr == nullptr || entries == nullptr || members == nullptr) return set_errno(EINVAL);
    *entries = nullptr;
    *members = nullptr;
    memset(hdr, 0, sizeof *hdr);
    char line[2048];
    int id;
    int numbers[4];
    if (fgets_rule_file(line, sizeof line, stream) == nullptr || !mg::rules::parse_number(line, &id) ||
        fgets_rule_file(line, sizeof line, stream) == nullptr || !mg::rules::copy_fit(hdr->name, sizeof hdr->name, line))
        return set_errno(MG_ERR_RULE_FORMAT);
    for (int &n : numbers)
        if (fgets_rule_file(line, sizeof line, stream) == nullptr || !mg::rules::parse_number(line, &n))
            return set_errno(MG_ERR_RULE_FORMAT);
    hdr->fgroup_id = id;
    hdr->rule_cnt = numbers[0];
    hdr->member_cnt = numbers[1];
    hdr->mode = numbers[2];
    hdr->polgrp_id = numbers[3];
    // Room for the stated counts up front, within the table's limits, so that
    // a count in the file never makes an allocation larger than that.
    mg::HeapArray<rulentry> rules;
    mg::HeapArray<mpath> paths;
    if (!rules.reserve(static_cast<size_t>(std::clamp(hdr->rule_cnt, 0, MG_RULES_MAX))) ||
        !paths.reserve(static_cast<size_t>(std::clamp(hdr->member_cnt, 0, MG_MEMBERS_MAX))))
        return -1;
    for (int i = 0; i < hdr->rule_cnt; ++i) {
        rulentry *e = rules.push_zeroed();
        if (e == nullptr) return -1;
        if (read_rulentry(stream, e) != 0) return set_errno(MG_ERR_RULE_FORMAT);
    }
    for (int i = 0; i < hdr->member_cnt; ++i) {
        mpath *m = paths.push_zeroed();
        if (m == nullptr) return -1;
        if (read_member_path(stream, m) != 0) return set_errno(MG_ERR_RULE_FORMAT);
    }
    if (fgets_rule_file(line, sizeof line, stream) == nullptr || strcmp(line, "[/FGROUP]") != 0)
        return set_errno(MG_ERR_RULE_FORMAT);
    *entries = rules.release();
    *members = paths.release();
    return 0;
}

int write_fgroup_record(FILE *stream, fgrouphdr *hdr) noexcept {
    if (stream == nullptr || hdr == nullptr || hdr->rule_cnt < 0 || hdr->member_cnt < 0 ||
        hdr->rule_cnt > MG_RULES_MAX || hdr->member_cnt > MG_MEMBERS_MAX)
        return -1;
    GroupArrays a;
    a.entries = array_for<rulentry>(hdr->rule_cnt);
    a.members = array_for<mpath>(hdr->member_cnt);
    if (a.entries == nullptr || a.members == nullptr || _sys_get_fgroup_rule_member(hdr, a.entries, a.members) < 0)
        return -1;
    if (fprintf(stream, "%s\n%d\n%.32s\n%d\n%d\n%d\n%d\n", "[FGROUP]", hdr->fgroup_id, hdr->name, hdr->rule_cnt,
                hdr->member_cnt, hdr->mode, hdr->polgrp_id) < 0)
        return -1;
    for (int i = 0; i < hdr->rule_cnt; ++i)
        if (write_rulentry(stream, &a.entries[i]) != 0) return -1;
    for (int i = 0; i < hdr->member_cnt; ++i)
        if (fprintf(stream, "%.1024s\n%d\n", a.members[i].path, a.members[i].flag) < 0) return -1;
    return fprintf(stream, "%s\n", "[/FGROUP]") < 0 ? -1 : 0;
}

int set_fgroup(fgrouphdr *hdr, rulentry *entries, mpath *members, int mode) noexcept {
    if (hdr == nullptr || (mode != MG_FGROUP_CREATE && mode != MG_FGROUP_MODIFY) ||
        (hdr->rule_cnt > 0 && entries == nullptr) || (hdr->member_cnt >= 1 && members == nullptr))
        return set_errno(EINVAL);
    int status;
    if (!mg::rules::module_usable(&status) || lazy_load_fgroup() != 0) return -1;
    // The kernel tells create from modify by the number alone.
    const bool number_ok = mode == MG_FGROUP_MODIFY
                               ? hdr->fgroup_id >= 1 && hdr->fgroup_id <= MG_GROUP_ID_MAX
                               : hdr->fgroup_id == 0;
    if (!number_ok || is_valid_fgrouphdr(hdr) != 1) return set_errno(MG_ERR_RULE_HEADER);
    for (int i = 0; i < hdr->rule_cnt; ++i)
        if (is_valid_rulentry(&entries[i], status) != 1) return set_errno(MG_ERR_RULE_ENTRY);
    for (int i = 0; i < hdr->member_cnt; ++i)
        if (is_valid_mpath(&members[i]) != 1 || is_valid_rulepath(members[i].path) != 1)
            return set_errno(MG_ERR_RULE_MEMBER);
    rulentry no_entry{};
    mpath no_member{};
    const int r = _sys_set_fgroup(hdr, entries != nullptr ? entries : &no_entry,
                                  members != nullptr ? members : &no_member);
    return r != -1 ? r : set_error();
}

int del_fgroup(int id) noexcept {
    if (id < 1 || id > MG_GROUP_ID_MAX) return set_errno(EINVAL);
    if (!mg::rules::module_usable() || lazy_load_fgroup() != 0) return -1;
    if (_sys_del_fgroup(id) < 0) return errno == ENOENT ? set_errno(MG_ERR_RULE_NOENT) : -1;
    return 0;
}

int get_fgroup(fgrouphdr *hdr, rulentry **entries, mpath **members) noexcept {
    if (hdr == nullptr || entries == nullptr || members == nullptr) return set_errno(EINVAL);
    *entries = nullptr;
    *members = nullptr;
    if (!mg::rules::module_usable() || lazy_load_fgroup() != 0) return -1;
    if (_sys_get_fgroup_hdr(hdr) < 0) return -1;
    if (hdr->rule_cnt < 0 || hdr->member_cnt < 0) return set_errno(EINVAL);
    GroupArrays a;
    a.entries = array_for<rulentry>(hdr->rule_cnt);
    a.members = array_for<mpath>(hdr->member_cnt);
    if (a.entries == nullptr || a.members == nullptr) return set_errno(ENOMEM);
    if (_sys_get_fgroup_rule_member(hdr, a.entries, a.members) < 0) return -1;
    if (hdr->rule_cnt >= 1) std::swap(*entries, a.entries);
    if (hdr->member_cnt >= 1) std::swap(*members, a.members);
    return 0;
}

int get_all_fgroup_hdr(fgrouphdr **hdrs, int *count) noexcept {
    return mg::rules::read_all_headers(hdrs, count, lazy_load_fgroup, _sys_fgroup_cnt, _sys_get_all_fgroup_hdr);
}

int load_fgroup(void) noexcept {
    mg::rules::NameIndex users(mg::rules::NameIndex::Db::Users);
    mg::rules::NameIndex groups(mg::rules::NameIndex::Db::Groups);
    return mg::rules::load_records("acl_fgroup", "[FGROUP]", _sys_clear_fgroup,
                                   [&](FILE *in) { return upload_group_record(in, users, groups); });
}

int dump_fgroup(void) noexcept {
    return mg::rules::dump_records("acl_fgroup", [](FILE *out) {
        if (_sys_fgroup_cnt() <= 0) return 0;
        fgrouphdr *hdrs = nullptr;
        int count = 0;
        if (get_all_fgroup_hdr(&hdrs, &count) != 0) return -1;
        int result = 0;
        for (int i = 0; result == 0 && i < count; ++i)
            if (write_fgroup_record(out, &hdrs[i]) != 0) result = set_errno(MG_ERR_RULE_WRITE);
        free(hdrs);
        return result;
    });
}
