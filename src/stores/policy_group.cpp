// Policy groups: numbered (1 to 512), named labels that file ACL entries and
// file groups refer to. The list lives only in "<root>/data/policy_group",
// one "number:name" line per group; every change rewrites the whole file.
#include <mossgrove/common.h>
#include <mossgrove/rules.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "stores/rulestore.hpp"
#include "stores/store_lines.hpp"

namespace {

constexpr int kMaxGroups = MG_GROUP_ID_MAX;

// The list as read from the file; freed on scope exit.
struct List {
    polgrp *items = nullptr;
    int count = 0;
    ~List() { free(items); }
};

int find(const List &list, int id) {
    for (int i = 0; i < list.count; ++i)
        if (list.items[i].polgrp_id == id) return i;
    return -1;
}

}  // namespace

bool mg::rules::parse_polgrp_line(char *line, polgrp *group) noexcept {
    char *sep = strchr(line, ':');
    if (sep == nullptr) return false;
    *sep = '\0';
    int id;
    if (!parse_number(line, &id) || sep[1] == '\0') return false;
    memset(group, 0, sizeof *group);
    group->polgrp_id = id;
    strncpy(group->name, sep + 1, sizeof group->name - 1);
    return true;
}

int get_all_polgrp(polgrp **list, int *count) noexcept {
    if (list == nullptr || count == nullptr) return set_errno(EINVAL);
    *list = nullptr;
    *count = 0;
    char live[MG_PATH_MAX];
    if (!mg::rules::data_path(live, "policy_group")) return -1;
    errno = 0;
    const int regular = isRegFile(live);
    if (regular == -1 && errno == ENOENT) return 0;
    if (regular != 1) return set_errno(MG_ERR_RULE_FORMAT);
    mg::rules::StoreText text;
    if (text.open(live) != 0) return errno == ENOENT ? 0 : set_errno(MG_ERR_RULE_FORMAT);

    polgrp read[kMaxGroups];
    int n = 0;
    char line[2048];
    // Lines past the 512th are not read.
    while (n < kMaxGroups && fgets_rule_file(line, sizeof line, text.stream()) != nullptr)
        if (!mg::rules::parse_polgrp_line(line, &read[n++])) return set_errno(MG_ERR_RULE_FORMAT);
    if (n == 0) return 0;
    auto *items = static_cast<polgrp *>(malloc(static_cast<size_t>(n) * sizeof(polgrp)));
    if (items == nullptr) return set_errno(ENOMEM);
    memcpy(items, read, static_cast<size_t>(n) * sizeof(polgrp));
    *list = items;
    *count = n;
    return 0;
}

int create_polgrp_id(const polgrp *list, int count) noexcept {
    bool used[kMaxGroups + 1] = {};
    for (int i = 0; list != nullptr && i < count; ++i)
        if (list[i].polgrp_id >= 1 && list[i].polgrp_id <= kMaxGroups) used[list[i].polgrp_id] = true;
    for (int id = 1; id <= kMaxGroups; ++id)
        if (!used[id]) return id;
    return -1;
}

int add_polgrp(const char *name) noexcept {
    if (name == nullptr) return set_errno(EINVAL);
    List list;
    if (get_all_polgrp(&list.items, &list.count) != 0) return -1;
    const int id = create_polgrp_id(list.items, list.count);
    if (id < 0) return set_errno(MG_ERR_RULE_FULL);
    auto *longer = static_cast<polgrp *>(realloc(list.items, static_cast<size_t>(list.count + 1) * sizeof(polgrp)));
    if (longer == nullptr) return set_errno(ENOMEM);
    list.items = longer;
    polgrp &g = list.items[list.count++];
    memset(&g, 0, sizeof g);
    g.polgrp_id = id;
    strncpy(g.name, name, sizeof g.name - 1);
    return save_polgrp(list.items, list.count) == 0 ? id : -1;
}

int mod_polgrp(int id, const char *name) noexcept {
    if (name == nullptr) return set_errno(EINVAL);
    List list;
    if (get_all_polgrp(&list.items, &list.count) != 0) return -1;
    const int at = find(list, id);
    if (at < 0) return set_errno(MG_ERR_POLGRP_NOENT);
    memset(list.items[at].name, 0, sizeof list.items[at].name);
    strncpy(list.items[at].name, name, sizeof list.items[at].name - 1);
    return save_polgrp(list.items, list.count);
}

int del_polgrp(int id) noexcept {
    List list;
    if (get_all_polgrp(&list.items, &list.count) != 0) return -1;
    const int at = find(list, id);
    if (at < 0) return set_errno(MG_ERR_POLGRP_NOENT);
    memmove(list.items + at, list.items + at + 1, static_cast<size_t>(list.count - at - 1) * sizeof(polgrp));
    return save_polgrp(list.items, list.count - 1);
}

int save_polgrp(const polgrp *list, int count) noexcept {
    if ((list == nullptr && count >= 1) || count < 0) return set_errno(EINVAL);
    char live[MG_PATH_MAX], tmp[MG_PATH_MAX], backup[MG_PATH_MAX];
    if (!mg::rules::data_path(live, "policy_group") || !mg::rules::data_path(backup, ".policy_group_bak")) return -1;
    if (!mg::rules::with_suffix(tmp, live, ".tmp")) return set_errno(ENAMETOOLONG);
    mg::rules::StoreRewrite rewrite;
    if (rewrite.begin(live, tmp, backup) != 0) return -1;
    for (int i = 0; i < count; ++i) {
        if (fprintf(rewrite.stream(), "%d:%.32s\n", list[i].polgrp_id, list[i].name) < 0) {
            rewrite.abandon();
            return set_errno(MG_ERR_RULE_WRITE);
        }
    }
    return rewrite.commit();
}
