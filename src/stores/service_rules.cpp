// Service restriction rules: three kernel sets (user rules, group rules, the
// default rules), each a list of headers owning rules. The exported wrappers
// fill an empty set from its file "<root>/data/alsvc_user", "alsvc_group" or
// "alsvc_def" before they reach the kernel; export writes a set back.
#include <mossgrove/common.h>
#include <mossgrove/kernel.h>
#include <mossgrove/rules.h>
#include <mossgrove/stores.h>

#include <arpa/inet.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "stores/dbfile.hpp"
#include "stores/rulestore.hpp"
#include "common/textbuf.hpp"

namespace {

constexpr int kUser = 0;
constexpr int kGroup = 1;
constexpr int kDefault = 2;

char g_szAlsvcPath[MG_PATH_MAX];

const char *file_of(int kind) {
    switch (kind) {
        case kUser: return "alsvc_user";
        case kGroup: return "alsvc_group";
        default: return "alsvc_def";
    }
}

const char *title_of(int kind) {
    switch (kind) {
        case kUser: return "# Service Restriction User Rules\n";
        case kGroup: return "# Service Restriction Group Rules\n";
        default: return "# Service Restriction Default Rules\n";
    }
}

int invalid() { return set_errno(EINVAL); }

// Frees a list on scope exit.
struct LoadList {
    alsvc_load *head = nullptr;
    ~LoadList() { free_load_hdr_all(head); }
};

// One rule line: service, value1, value2, address; exactly four fields.
bool parse_rule(char *line, alsvc_rule &r) {
    char *f[4];
    int v1, v2;
    if (mg::rules::split_fields(line, ':', f, 4) != 4 || !mg::rules::parse_number(f[1], &v1) ||
        !mg::rules::parse_number(f[2], &v2))
        return false;
    memset(&r, 0, sizeof r);
    strncpy(r.service, f[0], sizeof r.service - 1);
    r.value1 = v1;
    r.value2 = v2;
    // Deliberately unchecked: a malformed address is kept as all ones.
    r.ipaddr = mg::rules::read_address(f[3]);
    return true;
}

// The rule array grows as rule lines are read, so that a count in the file
// never makes an allocation larger than the lines that follow it.
bool read_rules(FILE *stream, int count, alsvc_rule **out) {
    alsvc_rule *rules = nullptr;
    int cap = 0;
    char line[1024];
    for (int i = 0; i < count; ++i) {
        if (i == cap) {
            cap = cap == 0 ? 8 : (cap > count / 2 ? count : cap * 2);
            auto *grown = static_cast<alsvc_rule *>(realloc(rules, static_cast<size_t>(cap) * sizeof *rules));
            if (grown == nullptr) {
                free(rules);
                return false;
            }
            rules = grown;
        }
        if (fgets_alsvc_file(line, sizeof line, stream) == nullptr || !parse_rule(line, rules[i])) {
            free(rules);
            return false;
        }
    }
    *out = rules;
    return true;
}

// One block of the exported file.
bool lay_out_block(int kind, alsvc_hdr &hdr, mg::stores::TextBuf &out) {
    out.add_cut(256, "%s\n", "[ALSVC]");
    out.add_cut(256, "%d:%.32s:%d\n", hdr.id, hdr.name, hdr.rule_cnt);
    if (hdr.rule_cnt > 0) {
        auto *rules = static_cast<alsvc_rule *>(calloc(static_cast<size_t>(hdr.rule_cnt), sizeof(alsvc_rule)));
        if (rules == nullptr) return false;
        if (get_alsvc_rule(kind, &hdr, rules) < 0) {
            free(rules);
            return false;
        }
        for (int i = 0; i < hdr.rule_cnt; ++i) {
            const alsvc_rule &r = rules[i];
            const auto *a = reinterpret_cast<const unsigned char *>(&r.ipaddr);
            out.add_cut(256, "%.16s:%d:%d:%d.%d.%d.%d\n", r.service, r.value1, r.value2, a[0], a[1], a[2], a[3]);
        }
        free(rules);
    }
    out.add_cut(256, "%s\n", "[/ALSVC]");
    return true;
}

// The kernel set laid out as the file; false on a kernel failure.
bool lay_out(int kind, mg::stores::TextBuf &out) {
    const int count = get_alsvc_hdr_cnt(kind);
    if (count < 0) return false;
    if (count == 0) {
        out.add("#\n%s#\n\n", title_of(kind));
        return true;
    }
    auto *hdrs = static_cast<alsvc_hdr *>(calloc(static_cast<size_t>(count), sizeof(alsvc_hdr)));
    if (hdrs == nullptr) return false;
    bool ok = get_alsvc_hdr_all(kind, count, hdrs) >= 0;
    if (ok) {
        out.add("#\n%s#\n\n", title_of(kind));
        ok = kind != kDefault || count == 1;
    }
    for (int i = 0; ok && i < count; ++i) ok = lay_out_block(kind, hdrs[i], out);
    free(hdrs);
    return ok && out.ok();
}

}  // namespace

// ---- Validating layer -------------------------------------------------------

int get_alsvc_cnt(int kind, int id) noexcept { return id < 0 ? invalid() : _sys_get_alsvc_cnt(kind, id); }

int get_alsvc_rule(int kind, alsvc_hdr *hdr, alsvc_rule *buf) noexcept {
    if (hdr == nullptr || buf == nullptr || hdr->id < 0 || hdr->rule_cnt <= 0) return invalid();
    return _sys_get_alsvc_rule(kind, hdr->id, hdr->rule_cnt, buf);
}

int set_alsvc_rule(int kind, alsvc_hdr *hdr, alsvc_rule *rules) noexcept {
    if (hdr == nullptr || rules == nullptr || hdr->id < 0 || hdr->rule_cnt <= 0) return invalid();
    return _sys_set_alsvc_rule(kind, hdr, rules);
}

int del_alsvc_rule(int kind, alsvc_hdr *hdr) noexcept {
    if (hdr == nullptr || hdr->id < 0) return invalid();
    return _sys_del_alsvc_rule(kind, hdr);
}

int del_alsvc_rule_all(int kind) noexcept { return _sys_del_alsvc_rule_all(kind); }

int get_alsvc_hdr_cnt(int kind) noexcept { return _sys_get_alsvc_hdr_cnt(kind); }

int get_alsvc_hdr_all(int kind, int count, alsvc_hdr *buf) noexcept {
    if (count < 1 || buf == nullptr) return invalid();
    return _sys_get_alsvc_hdr_all(kind, count, buf);
}

int add_ipaddr_to_table(MGLoginOrigin *address) noexcept {
    return address == nullptr ? invalid() : _sys_add_ipaddr_to_table(address);
}

// ---- Files ----------------------------------------------------------------------

// A root that cannot be confirmed fails here: a path built from an empty root
// would point outside the installation.
int get_alsvc_path(int kind) noexcept {
    if (chk_mgrootdir() != 1) return 0;
    // A trailing "/" of the root is kept: the doubled "/" is harmless.
    mg::stores::build_store_path(g_szAlsvcPath, file_of(kind));
    return 1;
}

char *fgets_alsvc_file(char *buf, int size, FILE *stream) noexcept {
    return mg::rules::next_significant_line(buf, size, stream);
}

void free_load_hdr_all(alsvc_load *list) noexcept {
    while (list != nullptr) {
        alsvc_load *next = list->next;
        free(list->hdr);
        free(list->rules);
        free(list);
        list = next;
    }
}

alsvc_load *read_rule_from_file(FILE *stream) noexcept {
    if (stream == nullptr) return nullptr;
    auto *node = static_cast<alsvc_load *>(calloc(1, sizeof(alsvc_load)));
    if (node == nullptr) return nullptr;
    node->hdr = static_cast<alsvc_hdr *>(calloc(1, sizeof(alsvc_hdr)));
    char line[1024];
    char *f[3];
    int id, count;
    if (node->hdr == nullptr || fgets_alsvc_file(line, sizeof line, stream) == nullptr ||
        mg::rules::split_fields(line, ':', f, 3) != 3 || !mg::rules::parse_number(f[0], &id) ||
        !mg::rules::parse_number(f[2], &count) || !read_rules(stream, count, &node->rules)) {
        free_load_hdr_all(node);
        return nullptr;
    }
    node->hdr->id = id;
    strncpy(node->hdr->name, f[1], sizeof node->hdr->name - 1);
    node->hdr->rule_cnt = count;
    return node;
}

int make_load_header(int kind, const char *path, alsvc_load **list) noexcept {
    if (list == nullptr) return invalid();
    *list = nullptr;
    if (path == nullptr) {
        if (get_alsvc_path(kind) == 0) return -1;
        path = g_szAlsvcPath;
    }
    errno = 0;
    if (isRegFile(path) != 1) return errno == ENOENT ? 0 : -1;
    mg::rules::StoreText text;
    if (text.open(path) != 0) return -1;
    alsvc_load **tail = list;
    char line[1024];
    while (fgets_alsvc_file(line, sizeof line, text.stream()) != nullptr) {
        if (strcmp(line, "[ALSVC]") != 0) return -1;
        alsvc_load *node = read_rule_from_file(text.stream());
        if (node == nullptr) return -1;
        *tail = node;
        tail = &node->next;
        // A block must be closed.
        if (fgets_alsvc_file(line, sizeof line, text.stream()) == nullptr || strcmp(line, "[/ALSVC]") != 0)
            return -1;
    }
    return 0;
}

int load_rule_from_file(int kind) noexcept {
    LoadList list;
    if (make_load_header(kind, nullptr, &list.head) != 0) return -1;
    for (alsvc_load *node = list.head; node != nullptr; node = node->next) {
        if (set_alsvc_rule(kind, node->hdr, node->rules) < 0) {
            // All or nothing: the set is left empty.
            int saved = errno;
            del_alsvc_rule_all(kind);
            errno = saved;
            return -1;
        }
    }
    return 0;
}

// A kernel fault (a negative count) counts as a loaded set, so that it never
// triggers a reload.
int check_kernel_data(int kind) noexcept {
    if (kind != kUser && kind != kGroup && kind != kDefault) return -1;
    if (get_alsvc_hdr_cnt(kind) != 0) return 0;
    return load_rule_from_file(kind);
}

int export_rule_to_file(int kind, const char *path) noexcept {
    if (path == nullptr) {
        if (get_alsvc_path(kind) == 0) return -1;
        path = g_szAlsvcPath;
    }
    char tmp[MG_PATH_MAX + 16];
    int n = snprintf(tmp, sizeof tmp, "%s.%d", path, static_cast<int>(time(nullptr)));
    if (n < 0 || static_cast<size_t>(n) >= sizeof tmp) return set_errno(ENAMETOOLONG);
    int fd = mg::stores::create_named_temp(tmp);
    if (fd < 0) return -1;
    mg::stores::TextBuf text;
    if (!lay_out(kind, text) || mg::stores::write_all(fd, text.data(), text.size()) != 0) {
        mg::stores::abandon_rewrite(fd, tmp, -1);
        return -1;
    }
    return mg::stores::install_temp(fd, tmp, path);
}

// ---- Exported wrappers: one family per set ------------------------------------

#define MG_ALSVC_FAMILY(L, kind)                                                                         \
    int Get_Alsvc_##L##Rule(alsvc_hdr *hdr, alsvc_rule *buf) noexcept {                                  \
        return check_kernel_data(kind) < 0 ? -1 : get_alsvc_rule(kind, hdr, buf);                         \
    }                                                                                                    \
    int Set_Alsvc_##L##Rule(alsvc_hdr *hdr, alsvc_rule *rules) noexcept {                                \
        return check_kernel_data(kind) < 0 ? -1 : set_alsvc_rule(kind, hdr, rules);                       \
    }                                                                                                    \
    int Del_Alsvc_##L##Rule(alsvc_hdr *hdr) noexcept {                                                   \
        return check_kernel_data(kind) < 0 ? -1 : del_alsvc_rule(kind, hdr);                              \
    }                                                                                                    \
    int Del_Alsvc_##L##Rule_All(void) noexcept {                                                         \
        return check_kernel_data(kind) < 0 ? -1 : del_alsvc_rule_all(kind);                               \
    }                                                                                                    \
    int Get_Alsvc_##L##Hdr_Cnt(void) noexcept {                                                          \
        return check_kernel_data(kind) < 0 ? -1 : get_alsvc_hdr_cnt(kind);                                \
    }                                                                                                    \
    int Get_Alsvc_##L##Hdr_All(int count, alsvc_hdr *buf) noexcept {                                     \
        return check_kernel_data(kind) < 0 ? -1 : get_alsvc_hdr_all(kind, count, buf);                    \
    }

MG_ALSVC_FAMILY(U, kUser)
MG_ALSVC_FAMILY(G, kGroup)
MG_ALSVC_FAMILY(D, kDefault)

#undef MG_ALSVC_FAMILY

int Get_Alsvc_UCnt(int id) noexcept { return check_kernel_data(kUser) < 0 ? -1 : get_alsvc_cnt(kUser, id); }
int Get_Alsvc_GCnt(int id) noexcept { return check_kernel_data(kGroup) < 0 ? -1 : get_alsvc_cnt(kGroup, id); }
int Get_Alsvc_DCnt(void) noexcept { return check_kernel_data(kDefault) < 0 ? -1 : get_alsvc_cnt(kDefault, 0); }
