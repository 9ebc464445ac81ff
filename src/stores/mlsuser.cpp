// MLS users: the store "mls_user" (enumeration and record rewrites, each
// loaded into the kernel and mirrored into the security password store) and
// the management API that merges the account database with the kernel's
// table and writes it back.
//
// At scale (tens of thousands of accounts, thousands of MLS users) every call
// reads each database once: the account list is built in one pass with the
// group and shadow databases indexed, and the merge looks kernel records up
// by uid instead of comparing every pair.
#include <mossgrove/common.h>
#include <mossgrove/kernel.h>
#include <mossgrove/labels.h>
#include <mossgrove/sopass.h>
#include "stores/accounts.hpp"
#include "stores/dbfile.hpp"
#include "stores/records.hpp"
#include "stores/sopass.hpp"

#include <pwd.h>
#include <shadow.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

using mg::stores::g_szMuBakPath;
using mg::stores::g_szMuPath;
using mg::stores::MallocPtr;
using mg::stores::Missing;
using mg::stores::Rewrite;

namespace {

constexpr size_t kRec = sizeof(MGMlsUser);
constexpr int kDefaultRetry = 5;
constexpr unsigned char kRoleNone = 255;
// The name is compared over its 23 characters in the merge, over the whole
// 24-byte field where the API checks that a uid and a name belong together.
constexpr size_t kNameChars = sizeof(MGMlsUser::name) - 1;

constinit mg::stores::RecordCursor<MGMlsUser> g_users(g_szMuPath, g_szMuBakPath);

bool valid_retry(int r) noexcept { return r >= 1 && r <= 99; }
bool is_mu(const MGMlsUser &u) noexcept { return u.role >= 1 && u.role <= 3; }

void copy_field(char *dst, size_t size, const char *src) noexcept {
    memset(dst, 0, size);
    if (src != nullptr) memcpy(dst, src, strnlen(src, size - 1));
}

int kernel_load(const void *data, size_t size) noexcept {
    if (size < kRec) return -1;
    return _sys_setmu(const_cast<void *>(data), static_cast<int>(size / kRec));
}

MGSecPasswd password_entry(const MGMlsUser &u, int retry) noexcept {
    MGSecPasswd e{};
    copy_field(e.name, sizeof e.name, u.name);
    e.retry = static_cast<signed char>(retry);
    e.marker = ' ';
    e.flags = static_cast<unsigned char>(MG_PW_IN_USE | ((u.flags & MG_MU_LOCKED) != 0 ? MG_PW_LOCKED : 0));
    e.time = static_cast<int32_t>(time(nullptr));
    return e;
}

// The security password entry follows the record's lock bit and retry limit.
int mirror_password_state(const MGMlsUser &u) noexcept {
    char name[sizeof u.name + 1] = {};
    memcpy(name, u.name, sizeof u.name);
    int r = (u.flags & MG_MU_LOCKED) != 0 ? lock_mgpwdnam(name) : unlock_mgpwdnam(name);
    if (u.retry != -1) set_login_retry(name, u.retry);
    return r;
}

// The administrator option stays only when it is 1 on an SA or SO, and not
// on an SO of security level 1.
void apply_admin_rule(MGMlsUser &u) noexcept {
    bool keep = u.admin == 1 && (u.role == MG_CAT_ROLE_SA || u.role == MG_CAT_ROLE_SO) &&
                !(u.role == MG_CAT_ROLE_SO && u.level == 1);
    if (!keep) u.admin = 0;
}

MGMlsUser stored_at(const char *data, size_t i) noexcept {
    MGMlsUser u;
    memcpy(&u, data + i * kRec, kRec);
    return u;
}

// The records of a rewrite, built in memory.
struct Out {
    MallocPtr buf;
    size_t count = 0;
    bool reserve(size_t n) noexcept {
        buf.p = malloc(std::max<size_t>(n, 1) * kRec);
        return buf.p != nullptr;
    }
    void add(const MGMlsUser &u) noexcept { memcpy(buf.as<char>() + kRec * count++, &u, kRec); }
    size_t bytes() const noexcept { return count * kRec; }
};

// A malloc'ed list of MLS user records, freed on scope exit.
struct Lists {
    MGMlsUser *users = nullptr;
    int count = 0;
    ~Lists() { free(users); }
};

}  // namespace

// ---- Store layer ------------------------------------------------------------------

void setmuent(void) noexcept { g_users.open(); }
MGMlsUser *getmuent(void) noexcept { return g_users.next(); }
void endmuent(void) noexcept { g_users.close(); }

MGMlsUser *getmunam(const char *name) noexcept {
    if (name == nullptr || strlen(name) >= sizeof(MGMlsUser::name)) return nullptr;
    return g_users.find([name](const MGMlsUser &u) { return strncmp(u.name, name, sizeof u.name) == 0; });
}

MGMlsUser *getmuuid(int uid) noexcept {
    return g_users.find([uid](const MGMlsUser &u) { return u.uid == uid; });
}

// A missing store is recreated holding the new record alone: the backup is
// deliberately not restored, and an existing store is not searched for the uid.
// The password entry made here always gets the retry limit 5, unlike
// add_mls_user's.
int addmuent(const MGMlsUser *record) noexcept {
    if (record == nullptr) return set_errno(EINVAL);
    Rewrite rw(g_szMuPath, g_szMuBakPath);
    if (rw.begin(Missing::go_on) < 0) return -1;
    MGMlsUser u = *record;
    if (!valid_retry(u.retry)) u.retry = kDefaultRetry;
    u.flags |= MG_MU_ADDED;
    const size_t n = rw.size() / kRec;
    Out out;
    if (!out.reserve(n + 1)) return set_errno(ENOMEM);
    if (n > 0) memcpy(out.buf.p, rw.data(), n * kRec);
    out.count = n;
    out.add(u);
    if (rw.commit(out.buf.p, out.bytes(), kernel_load) != 0) return -1;
    MGSecPasswd e = password_entry(u, valid_retry(u.retry) ? kDefaultRetry : u.retry);
    add_mgpwdent(&e);
    return 1;
}

int modmuent(const MGMlsUser *record) noexcept {
    if (record == nullptr) return set_errno(EINVAL);
    Rewrite rw(g_szMuPath, g_szMuBakPath);
    int r = rw.begin(Missing::restore_then_2);
    if (r != 1) return r;
    const size_t n = rw.size() / kRec;
    Out out;
    if (!out.reserve(n + 1)) return set_errno(ENOMEM);
    for (size_t i = 0; i < n; ++i) {
        MGMlsUser u = stored_at(rw.data(), i);
        out.add(u.uid == record->uid ? *record : u);
    }
    if (n == 0) out.add(*record);
    if (rw.commit(out.buf.p, out.bytes(), kernel_load) != 0) return -1;
    mirror_password_state(*record);
    return 1;
}

int delmuent(const MGMlsUser *record) noexcept {
    if (record == nullptr) return set_errno(EINVAL);
    Rewrite rw(g_szMuPath, g_szMuBakPath);
    int r = rw.begin(Missing::restore_then_2);
    if (r != 1) return r;
    const size_t n = rw.size() / kRec;
    Out out;
    if (!out.reserve(n)) return set_errno(ENOMEM);
    for (size_t i = 0; i < n; ++i) {
        MGMlsUser u = stored_at(rw.data(), i);
        if (u.uid != record->uid) out.add(u);
    }
    if (rw.commit(out.buf.p, out.bytes(), kernel_load) != 0) return -1;
    char name[sizeof record->name + 1] = {};
    memcpy(name, record->name, sizeof record->name);
    del_mgpwdent(name);
    return 1;
}

int resetmuent(void) noexcept {
    Rewrite rw(g_szMuPath, g_szMuBakPath);
    if (rw.begin(Missing::restore) < 0) return -1;
    const size_t n = rw.size() / kRec;
    Out out;
    if (!out.reserve(n)) return set_errno(ENOMEM);
    for (size_t i = 0; i < n; ++i) {
        MGMlsUser u = stored_at(rw.data(), i);
        if (u.role == MG_CAT_ROLE_SO) out.add(u);
    }
    return rw.commit(out.buf.p, out.bytes(), kernel_load) == 0 ? 1 : -1;
}

// Every record is refreshed from the account database (records of vanished
// accounts dropped), loaded into the kernel whatever the module status, and
// written back. The backup is not consulted.
int loadmuent(void) noexcept {
    Rewrite rw(g_szMuPath, g_szMuBakPath);
    if (rw.begin(Missing::fail) < 0) return -1;
    const size_t n = rw.size() / kRec;
    if (n == 0) return set_errno(ENODATA);
    mg::stores::PasswdIndex accounts;
    mg::stores::GroupNames groups;
    if (!accounts.load() || !groups.load()) return set_errno(ENOMEM);
    Out out;
    if (!out.reserve(n)) return set_errno(ENOMEM);
    for (size_t i = 0; i < n; ++i) {
        MGMlsUser u = stored_at(rw.data(), i);
        char name[sizeof u.name + 1] = {};
        memcpy(name, u.name, sizeof u.name);
        mg::stores::AccountFacts a = accounts.find(name);
        if (!a.found) continue;
        u.uid = static_cast<int32_t>(a.uid);
        u.gid = static_cast<int32_t>(a.gid);
        if (const char *g = groups.find(a.gid)) copy_field(u.group, sizeof u.group, g);
        if (u.role == MG_CAT_ROLE_MU) {
            // The copy runs into the last byte, the account-disabled byte,
            // which is then cleared.
            const char *home = a.home != nullptr ? a.home : "";
            memset(u.home, 0, sizeof u.home);
            memcpy(u.home, home, strnlen(home, sizeof u.home));
            u.disabled = 0;
        }
        out.add(u);
    }
    if (kernel_load(out.buf.p, out.bytes()) < 0) return -1;
    return rw.commit(out.buf.p, out.bytes(), nullptr) == 0 ? 0 : -1;
}

int _k_load_mu(int fd, long size) noexcept { return mg::stores::read_and_load(fd, size, kRec, kernel_load); }

// ---- Account database ---------------------------------------------------------------

int get_num_pw(void) noexcept {
    int n = 0;
    setpwent();
    while (getpwent() != nullptr) ++n;
    endpwent();
    return n;
}

int check_valid_account(const char *name) noexcept {
    if (name == nullptr) return 0;
    struct spwd *sp = getspnam(name);
    if (sp == nullptr || sp->sp_pwdp == nullptr || sp->sp_pwdp[0] == '\0') return 0;
    return strcasecmp(sp->sp_pwdp, "NP") != 0 && strcasecmp(sp->sp_pwdp, "*LK*") != 0 ? 1 : 0;
}

// Deliberately loose: either letter alone suffices.
int check_valid_shell(const char *path) noexcept {
    if (path == nullptr) return 0;
    size_t len = strlen(path);
    if (len >= 2 && path[len - 2] == 's') return 1;
    return len >= 1 && path[len - 1] == 'h' ? 1 : 0;
}

void print_version(const char *name, int major, int minor, int patch, const char *build) noexcept {
    char line[128];
    snprintf(line, sizeof line, "\n$ %s v%d.%d.%.2d ", name != nullptr ? name : "", major, minor, patch);
    fputs(line, stdout);
    if (build != nullptr) {
        fputs("build-", stdout);
        fputs(build, stdout);
    }
    fputs("\n\n", stdout);
}

int get_mulist_pw(MGMlsUser **list, int *count) noexcept {
    if (list == nullptr || count == nullptr) return set_errno(EINVAL);
    const time_t now = time(nullptr);
    const long today = now < 0 ? 0 : static_cast<long>(now / 86400);
    const int n = get_num_pw();
    if (n <= 0) return set_errno(MG_ERR_PW_EMPTY);
    MallocPtr buf(mg::stores::alloc_records(static_cast<size_t>(n), kRec));
    if (buf.p == nullptr) return set_errno(MG_ERR_PW_NOMEM);
    mg::stores::GroupNames groups;
    mg::stores::ShadowIndex shadow;
    if (!groups.load() || !shadow.load()) return set_errno(MG_ERR_PW_NOMEM);
    MGMlsUser *users = buf.as<MGMlsUser>();
    int i = 0;
    setpwent();
    for (struct passwd *pw; (pw = getpwent()) != nullptr; ++i) {
        if (i >= n) {
            endpwent();
            return set_errno(MG_ERR_PW_GREW);
        }
        MGMlsUser &u = users[i];
        u.uid = static_cast<int32_t>(pw->pw_uid);
        u.gid = static_cast<int32_t>(pw->pw_gid);
        copy_field(u.name, sizeof u.name, pw->pw_name);
        if (const char *g = groups.find(pw->pw_gid))
            copy_field(u.group, sizeof u.group, g);
        else
            snprintf(u.group, sizeof u.group, "%ld", static_cast<long>(pw->pw_gid));
        copy_field(u.home, sizeof u.home, pw->pw_dir);
        mg::stores::ShadowFacts sp = shadow.find(u.name);
        if (sp.found)
            u.disabled = sp.no_password || (sp.expire > 0 && today > 0 && sp.expire < today) ? 1 : 0;
    }
    endpwent();
    *list = static_cast<MGMlsUser *>(buf.release());
    *count = i;
    return 1;
}

int get_mulist_kern(MGMlsUser **list, int *count, int mode) noexcept {
    if (list == nullptr || count == nullptr) return set_errno(EINVAL);
    *list = nullptr;
    *count = 0;
    int n = _sys_getmu_num();
    if (n == 0 && mode != 1) {
        if (chk_mgrootdir() < 0) return -1;
        set_dbpath();
        if (loadmuent() < 0) return set_errno(MG_ERR_MU_LOAD);
        n = _sys_getmu_num();
    }
    if (n == 0) return 0;
    if (n < 0) return -1;
    MallocPtr buf(mg::stores::alloc_records(static_cast<size_t>(n), kRec));
    if (buf.p == nullptr) return set_errno(MG_ERR_KLIST_NOMEM);
    int filled = n;
    if (_sys_getmu_list(buf.p, &filled) < 0) return set_errno(MG_ERR_MU_KLIST);
    *list = static_cast<MGMlsUser *>(buf.release());
    *count = filled;
    return 1;
}

// For every account, the kernel's MLS users of the same uid are tried in the
// kernel's order: the same name matches; an SO of another name takes the
// account's name (an SO survives a rename of its account); any other name
// only marks the store for rewriting. The kernel records are indexed by uid,
// so the merge costs n log n instead of accounts x kernel records.
int merge_mulist(MGMlsUser *pw, int pw_count, MGMlsUser *kern, int kern_count, int *matched) noexcept {
    int found_count = 0;
    if (matched != nullptr) *matched = 0;
    if (pw == nullptr || kern == nullptr || pw_count <= 0 || kern_count <= 0) return 0;
    struct Slot {
        int32_t uid;
        size_t order;
    };
    MallocPtr index_buf(malloc(static_cast<size_t>(kern_count) * sizeof(Slot)));
    if (index_buf.p == nullptr) return set_errno(ENOMEM), 0;
    Slot *index = index_buf.as<Slot>();
    size_t slots = 0;
    for (int k = 0; k < kern_count; ++k)
        if (is_mu(kern[k])) index[slots++] = {kern[k].uid, static_cast<size_t>(k)};
    mg::stores::sort_stable_by(index, slots, [](const Slot &a, const Slot &b) { return a.uid < b.uid; });

    int result = 1;
    for (int a = 0; a < pw_count; ++a) {
        MGMlsUser &acct = pw[a];
        Slot *it = std::lower_bound(index, index + slots, acct.uid,
                                    [](const Slot &s, int32_t uid) { return s.uid < uid; });
        for (; it != index + slots && it->uid == acct.uid; ++it) {
            MGMlsUser &k = kern[it->order];
            if (strncmp(k.name, acct.name, kNameChars) != 0) {
                result = 0;
                if (k.role != MG_CAT_ROLE_SO) continue;
                copy_field(k.name, sizeof k.name, acct.name);
            }
            if (k.gid != acct.gid || strncmp(k.group, acct.group, sizeof k.group) != 0) {
                k.gid = acct.gid;
                memcpy(k.group, acct.group, sizeof k.group);
                result = 0;
            }
            k.home[sizeof k.home - 1] = '\0';
            memcpy(&acct, &k, kRec - 1);  // the account keeps its own account-disabled byte
            ++found_count;
            break;
        }
    }
    if (matched != nullptr) *matched = found_count;
    return found_count == kern_count ? result : 0;
}

int get_mls_user(MGMlsUser **list, int *count, int mode) noexcept {
    if (mode != 0 && mode != 1) return 0;
    if (list == nullptr || count == nullptr) return set_errno(EINVAL);
    Lists pw, kern;
    if (get_mulist_pw(&pw.users, &pw.count) < 0) return -1;
    if (get_mulist_kern(&kern.users, &kern.count, mode) < 0) {
        if (errno != MG_ERR_LEVEL_RANGE || get_mulist_kern(&kern.users, &kern.count, mode) < 0) return -1;
    }
    int matched = 0;
    if (merge_mulist(pw.users, pw.count, kern.users, kern.count, &matched) == 0 && matched > 0 &&
        pw.users != nullptr) {
        if (save_mls_user(pw.users, pw.count, matched) < 0 &&
            (errno == MG_ERR_MU_REFUSED || errno == MG_ERR_SAVE_NOMEM))
            return -1;
    }
    *list = pw.users;
    *count = pw.count;
    pw.users = nullptr;
    return 1;
}

int get_mls_user_one(MGMlsUser *record, int mode) noexcept {
    if (record == nullptr) return set_errno(EINVAL);
    Lists l;
    int r = get_mls_user(&l.users, &l.count, mode);
    if (r == 0) return set_errno(EINVAL);
    if (r != 1) return -1;
    for (int i = 0; i < l.count; ++i) {
        if (l.users[i].uid != record->uid) continue;
        if (strncmp(l.users[i].name, record->name, sizeof record->name) != 0) return set_errno(MG_ERR_UID_NAME);
        *record = l.users[i];
        return 1;
    }
    return set_errno(MG_ERR_NOT_LISTED);
}

// ---- Changes to the list -----------------------------------------------------------------

int set_mulist(MGMlsUser *list, int count, const MGMlsUser *record, int op) noexcept {
    if (op != MG_MU_OP_ADD && op != MG_MU_OP_MOD && op != MG_MU_OP_DEL) return set_errno(MG_ERR_BAD_OP);
    if (list == nullptr || record == nullptr) return set_errno(EINVAL);
    for (int i = 0; i < count; ++i) {
        MGMlsUser &u = list[i];
        if (u.uid != record->uid) continue;
        if (strncmp(u.name, record->name, sizeof u.name) != 0) return set_errno(MG_ERR_UID_NAME);
        if (op == MG_MU_OP_ADD && u.role != MG_CAT_ROLE_UX) return set_errno(MG_ERR_ALREADY_MU);
        if (op != MG_MU_OP_ADD && !is_mu(u)) return set_errno(MG_ERR_NOT_MU);
        const signed char kept_retry = u.retry;
        u = *record;
        if (op == MG_MU_OP_MOD && record->retry == -1) u.retry = kept_retry;
        return 1;
    }
    errno = MG_ERR_NOT_LISTED;
    return 0;
}

int del_mulist(MGMlsUser *list, int count) noexcept {
    if (list == nullptr || count <= 0) return 1;
    MallocPtr names_buf(malloc(static_cast<size_t>(count) * sizeof(const char *)));
    MallocPtr name_store(malloc(static_cast<size_t>(count) * (sizeof list->name + 1)));
    if (names_buf.p == nullptr || name_store.p == nullptr) return set_errno(ENOMEM);
    const char **names = names_buf.as<const char *>();
    size_t n = 0;
    for (int i = 0; i < count; ++i) {
        MGMlsUser &u = list[i];
        if (u.role == MG_CAT_ROLE_UX || u.role == MG_CAT_ROLE_SO) continue;
        u.role = MG_CAT_ROLE_UX;
        u.level = 0;
        u.cid = 0;
        char *name = name_store.as<char>() + n * (sizeof u.name + 1);
        memcpy(name, u.name, sizeof u.name);
        name[sizeof u.name] = '\0';
        names[n++] = name;
    }
    // One rewrite of the password store for all of them.
    mg::stores::del_mgpwdents(names, n);
    return 1;
}

int get_mu_num(const MGMlsUser *list, int count) noexcept {
    if (list == nullptr) return 0;
    return static_cast<int>(std::count_if(list, list + std::max(count, 0), is_mu));
}

int get_so_num(const MGMlsUser *list, int count) noexcept {
    if (list == nullptr) return 0;
    return static_cast<int>(std::count_if(list, list + std::max(count, 0),
                                          [](const MGMlsUser &u) { return u.role == MG_CAT_ROLE_SO; }));
}

int save_mls_user(const MGMlsUser *list, int count, int mls_count) noexcept {
    if (list == nullptr && count > 0) return set_errno(EINVAL);
    const size_t room = mls_count > 0 ? static_cast<size_t>(mls_count) : 0;
    MallocPtr buf(malloc(std::max<size_t>(room, 1) * kRec));
    if (buf.p == nullptr) return set_errno(MG_ERR_SAVE_NOMEM);
    MGMlsUser *out = buf.as<MGMlsUser>();
    size_t n = 0;
    for (int i = 0; i < count; ++i) {
        if (list[i].role == MG_CAT_ROLE_UX || list[i].role == kRoleNone) continue;
        if (n >= room) {
            errno = MG_ERR_MU_OVERCOUNT;
            break;
        }
        out[n++] = list[i];
    }
    return upload_udb(out, static_cast<int>(n));
}

int upload_udb(const MGMlsUser *records, int count) noexcept {
    if (_sys_setmu(const_cast<MGMlsUser *>(records), count) < 0) return set_errno(MG_ERR_MU_REFUSED);
    dump_udb_file(records, count);
    return 1;
}

int dump_udb_file(const MGMlsUser *records, int count) noexcept {
    if (records == nullptr || count < 0) return set_errno(MG_ERR_NOTHING);
    if (chk_mgrootdir() < 0) return -1;
    set_dbpath();
    return mg::stores::dump_table(g_szMuPath, g_szMuBakPath, records, static_cast<size_t>(count) * kRec);
}

// ---- Management calls -------------------------------------------------------------------

namespace {

// Steps shared by add and modify: value checks, the category rule and the
// administrator option.
int check_request(MGMlsUser &u, int mode) noexcept {
    if (check_valid_rlc(&u) < 0) return -1;
    if (u.cid != 0) {
        if (is_exist_cid(u.cid, mode) != 1) return set_errno(MG_ERR_NO_CATEGORY);
    } else if (u.role != MG_CAT_ROLE_MU) {
        return set_errno(MG_ERR_NO_CATEGORY);
    }
    apply_admin_rule(u);
    return 1;
}

// set_mulist's answer as a call result: 1, or -1 with its errno.
int changed(int r) noexcept { return r == 1 ? 1 : -1; }

}  // namespace

int add_mls_user(MGMlsUser *record, int mode) noexcept {
    if (record == nullptr) return set_errno(EINVAL);
    if (record->uid == 0) return set_errno(MG_ERR_UID_ZERO);
    if (check_request(*record, mode) < 0) return -1;
    Lists l;
    int r = get_mls_user(&l.users, &l.count, mode);
    if (r != 1) return r;
    if (!valid_retry(record->retry)) record->retry = kDefaultRetry;
    record->flags |= MG_MU_ADDED;
    if (changed(set_mulist(l.users, l.count, record, MG_MU_OP_ADD)) < 0) return -1;
    int saved = save_mls_user(l.users, l.count, get_mu_num(l.users, l.count));
    if (saved == 1) {
        MGSecPasswd e = password_entry(*record, valid_retry(record->retry) ? record->retry : kDefaultRetry);
        add_mgpwdent(&e);
    }
    return saved;
}

int mod_mls_user(MGMlsUser *record, int mode) noexcept {
    if (record == nullptr) return set_errno(EINVAL);
    if (check_request(*record, mode) < 0) return -1;
    Lists l;
    int r = get_mls_user(&l.users, &l.count, mode);
    if (r != 1) return r;
    if (record->retry != -1 && !valid_retry(record->retry)) record->retry = kDefaultRetry;
    if (changed(set_mulist(l.users, l.count, record, MG_MU_OP_MOD)) < 0) return -1;
    if (get_so_num(l.users, l.count) == 0) return set_errno(MG_ERR_NO_SO_LEFT);
    if (save_mls_user(l.users, l.count, get_mu_num(l.users, l.count)) != 1) return -1;
    return mirror_password_state(*record);
}

int del_mls_user(MGMlsUser *record, int mode) noexcept {
    if (record == nullptr) return set_errno(EINVAL);
    Lists l;
    int r = get_mls_user(&l.users, &l.count, mode);
    if (r != 1) return r;
    record->role = MG_CAT_ROLE_UX;
    record->level = 0;
    record->cid = 0;
    if (changed(set_mulist(l.users, l.count, record, MG_MU_OP_DEL)) < 0) return -1;
    if (get_so_num(l.users, l.count) == 0) return set_errno(MG_ERR_NO_SO_LEFT);
    int saved = save_mls_user(l.users, l.count, get_mu_num(l.users, l.count));
    if (saved == 1) {
        char name[sizeof record->name + 1] = {};
        memcpy(name, record->name, sizeof record->name);
        del_mgpwdent(name);
    }
    return saved;
}

int del_mls_user_all(int mode) noexcept {
    Lists l;
    int r = get_mls_user(&l.users, &l.count, mode);
    if (r != 1) return r;
    del_mulist(l.users, l.count);
    return save_mls_user(l.users, l.count, get_mu_num(l.users, l.count));
}
