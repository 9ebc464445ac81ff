// Categories and roles: the value checks and role names, the category store
// "mls_cat" (enumeration and record rewrites) and the management API that
// works on the kernel's category table.
#include <mossgrove/common.h>
#include <mossgrove/kernel.h>
#include <mossgrove/labels.h>
#include "stores/dbfile.hpp"
#include "stores/records.hpp"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

using mg::stores::MallocPtr;
using mg::stores::Missing;
using mg::stores::Rewrite;

namespace {

constexpr size_t kRec = sizeof(MGCategory);
constexpr int kMaxCid = 127;
constexpr int kFirstFreeCid = 3;  // 1 and 2 are the defaults
constexpr int kMaxDepth = 15;
constexpr int kPathLen = 16;

constinit mg::stores::RecordCursor<MGCategory> g_cats(mg::stores::g_szCatPath, mg::stores::g_szCatBakPath);

MGCategory make_category(int id, int depth, int role, const char *name) noexcept {
    MGCategory c{};
    c.id = id;
    c.depth = static_cast<unsigned char>(depth);
    c.role = static_cast<unsigned char>(role);
    strncpy(c.name, name, sizeof c.name - 1);
    c.path[0] = 1;
    if (depth > 0) c.path[depth] = static_cast<unsigned char>(id);
    return c;
}

// "ROOT" and "System Admins", which always exist.
void default_categories(MGCategory (&out)[2]) noexcept {
    out[0] = make_category(1, 0, MG_CAT_ROLE_SO, "ROOT");
    out[1] = make_category(2, 1, MG_CAT_ROLE_SA, "System Admins");
}

MGCategory record_at(const char *data, size_t i) noexcept {
    MGCategory c;
    memcpy(&c, data + i * kRec, kRec);
    return c;
}

int kernel_load(const void *data, size_t size) noexcept {
    if (size < kRec) return -1;
    return _sys_setcat(const_cast<void *>(data), static_cast<int>(size / kRec));
}

bool in_range(int value, int low, int high) noexcept { return value >= low && value <= high; }

// The kernel's category list, released on scope exit.
struct CatList {
    MGCategory *items = nullptr;
    int count = 0;
    ~CatList() { free(items); }
    // get_mls_cat's result: 1 read, else (-1 or 0) the call failed.
    int read(int mode) noexcept { return get_mls_cat(&items, &count, mode); }
    const MGCategory *find(int cid) const noexcept {
        for (int i = 0; i < count; ++i)
            if (items[i].id == cid) return &items[i];
        return nullptr;
    }
};

// The first id from 3 to 127 that the records do not use, 0 when none is free.
template <class IdAt>
int first_free_id(size_t count, IdAt id_at) noexcept {
    bool used[kMaxCid + 1] = {};
    for (size_t i = 0; i < count; ++i) {
        int id = id_at(i);
        if (in_range(id, 0, kMaxCid)) used[id] = true;
    }
    for (int id = kFirstFreeCid; id <= kMaxCid; ++id)
        if (!used[id]) return id;
    return 0;
}

// A moved record: the new parent's path up to its depth, then the record's own
// path from the moved category's depth on; depth, role and name follow.
MGCategory moved(const MGCategory &old, int moved_depth, const MGCategory &parent, bool is_moved,
                 const char *new_name) noexcept {
    MGCategory r = old;
    memset(r.path, 0, sizeof r.path);
    int at = 0;
    for (int i = 0; i <= std::min<int>(parent.depth, kPathLen - 1); ++i) r.path[at++] = parent.path[i];
    int own_depth = std::min<int>(old.depth, kPathLen - 1);
    for (int i = moved_depth; i <= own_depth && at < kPathLen; ++i) r.path[at++] = old.path[i];
    r.depth = static_cast<unsigned char>(get_depth(r.path));
    r.role = parent.role == MG_CAT_ROLE_SO ? MG_CAT_ROLE_MU : parent.role;
    if (is_moved && new_name != nullptr) {
        memset(r.name, 0, sizeof r.name);
        strncpy(r.name, new_name, sizeof r.name - 1);
    }
    return r;
}

}  // namespace

// ---- Value checks and role names ----------------------------------------------

int isvalid_role(int role) noexcept { return in_range(role, 0, 3) ? 1 : (set_errno(MG_ERR_ROLE_RANGE), 0); }
int isvalid_level(int level) noexcept { return in_range(level, 0, 7) ? 1 : (set_errno(MG_ERR_LEVEL_RANGE), 0); }
int isvalid_cid(int cid) noexcept { return in_range(cid, 0, kMaxCid) ? 1 : (set_errno(MG_ERR_CATEGORY_RANGE), 0); }
int is_valid_role(int role) noexcept { return in_range(role, 0, 3) ? 1 : set_errno(MG_ERR_ROLE_VALUE); }
int is_valid_level(int level) noexcept { return in_range(level, 0, 7) ? 1 : set_errno(MG_ERR_LEVEL_VALUE); }
int is_valid_cid(int cid) noexcept { return in_range(cid, 0, kMaxCid) ? 1 : set_errno(MG_ERR_CID_VALUE); }

const char *get_srole(int role) noexcept {
    static const char *const names[] = {"UX", "MU", "SA", "SO"};
    return in_range(role, 0, 3) ? names[role] : "";
}

const char *get_srolestate(int state) noexcept {
    static const char *const names[] = {" -- ", "UXR", "UX", "MU", "MSA", "MSO", "SA", "SO"};
    return in_range(state, 1, 7) ? names[state] : names[0];
}

int conv_role_state(int state) noexcept {
    static const int roles[] = {0, 0, 0, 1, 1, 1, 2, 3};
    return in_range(state, 0, 7) ? roles[state] : -1;
}

int check_valid_rlc(const MGMlsUser *record) noexcept {
    if (record == nullptr) return set_errno(EINVAL);
    if (is_valid_role(record->role) < 0 || is_valid_level(record->level) < 0 || is_valid_cid(record->cid) < 0)
        return -1;
    return 1;
}

int get_depth(const unsigned char *path) noexcept {
    if (path == nullptr) return -1;
    for (int i = 0; i < kPathLen; ++i)
        if (path[i] == 0) return i - 1;  // -1 for an empty path
    return -1;
}

// ---- Store layer ------------------------------------------------------------------

using mg::stores::g_szCatBakPath;
using mg::stores::g_szCatPath;

void setcatent(void) noexcept { g_cats.open(); }
MGCategory *getcatent(void) noexcept { return g_cats.next(); }
void endcatent(void) noexcept { g_cats.close(); }

MGCategory *getcatnam(const char *name) noexcept {
    if (name == nullptr) return nullptr;
    return g_cats.find([name](const MGCategory &c) { return strncmp(c.name, name, sizeof c.name) == 0; });
}

MGCategory *getcatcid(int cid) noexcept {
    return g_cats.find([cid](const MGCategory &c) { return c.id == cid; });
}

int createcid(void) noexcept {
    bool used[kMaxCid + 1] = {};
    setcatent();
    for (MGCategory *c; (c = getcatent()) != nullptr;)
        if (in_range(c->id, 0, kMaxCid)) used[c->id] = true;
    endcatent();
    for (int id = kFirstFreeCid; id <= kMaxCid; ++id)
        if (!used[id]) return id;
    return -1;
}

int get_cat_role(int cid) noexcept {
    switch (cid) {
        case -1: return -1;
        case 0: return MG_CAT_ROLE_MU;
        case 1: return MG_CAT_ROLE_SO;
        case 2: return MG_CAT_ROLE_SA;
        default: {
            const MGCategory *c = getcatcid(cid);
            return c != nullptr ? c->role : -1;
        }
    }
}

int cnamecmp(int depth, int parent_id, const char *name) noexcept {
    if (name == nullptr) return -1;
    // A record at depth 0 (the root) has no parent and so no siblings.
    if (!in_range(depth, 1, kPathLen)) return 1;
    int result = 1;
    setcatent();
    for (MGCategory *c; (c = getcatent()) != nullptr;) {
        if (c->depth == depth && c->path[depth - 1] == parent_id &&
            strncmp(c->name, name, sizeof c->name) == 0) {
            result = 0;
            break;
        }
    }
    endcatent();
    return result;
}

// The existing store is deliberately not searched for the id, and a missing
// store is recreated holding the new record alone (its backup is not restored).
int addcatent(MGCategory *record) noexcept {
    if (record == nullptr) return set_errno(EINVAL);
    Rewrite rw(g_szCatPath, g_szCatBakPath);
    if (rw.begin(Missing::go_on) < 0) return -1;
    record->reserved = 0;
    size_t keep = rw.size() / kRec * kRec;
    MallocPtr out(malloc(keep + kRec));
    if (out.p == nullptr) return set_errno(ENOMEM);
    if (keep > 0) memcpy(out.as<char>(), rw.data(), keep);
    memcpy(out.as<char>() + keep, record, kRec);
    return rw.commit(out.p, keep + kRec, kernel_load) == 0 ? 1 : -1;
}

int modcatent(int new_parent_id, const char *new_name, MGCategory *record, const MGCategory *new_parent) noexcept {
    if (record == nullptr) return set_errno(EINVAL);
    const bool rename = new_name != nullptr && new_name[0] != '\0';
    const bool move = new_parent_id != -1;
    if (!rename && !move) return set_errno(EINVAL);
    if (move && new_parent == nullptr) return set_errno(EINVAL);

    Rewrite rw(g_szCatPath, g_szCatBakPath);
    int r = rw.begin(Missing::restore_then_2);
    if (r != 1) return r;
    if (rw.size() < kRec) {
        rw.abandon();
        resetcatent();
        return set_errno(MG_ERR_NOTHING);
    }
    const size_t n = rw.size() / kRec;
    MallocPtr out(malloc(n * kRec));
    if (out.p == nullptr) return set_errno(ENOMEM);
    MGCategory *recs = out.as<MGCategory>();
    const int depth = std::min<int>(record->depth, kPathLen - 1);
    for (size_t i = 0; i < n; ++i) {
        MGCategory c = record_at(rw.data(), i);
        const bool is_moved = c.id == record->id;
        if (move && c.path[depth] == record->id) {
            c = moved(c, depth, *new_parent, is_moved, rename ? new_name : nullptr);
        } else if (rename && is_moved) {
            memset(c.name, 0, sizeof c.name);
            strncpy(c.name, new_name, sizeof c.name - 1);
        }
        recs[i] = c;
    }
    if (rw.commit(out.p, n * kRec, kernel_load) != 0) return -1;
    if (move) record->depth = static_cast<unsigned char>(new_parent->depth + 1);
    return 1;
}

int delcatent(const MGCategory *record) noexcept {
    if (record == nullptr) return set_errno(EINVAL);
    Rewrite rw(g_szCatPath, g_szCatBakPath);
    int r = rw.begin(Missing::restore_then_2);
    if (r != 1) return r;
    const size_t n = rw.size() / kRec;
    MallocPtr out(malloc(n * kRec + 1));
    if (out.p == nullptr) return set_errno(ENOMEM);
    size_t kept = 0;
    for (size_t i = 0; i < n; ++i) {
        MGCategory c = record_at(rw.data(), i);
        if (c.id != record->id) memcpy(out.as<char>() + kRec * kept++, &c, kRec);
    }
    return rw.commit(out.p, kept * kRec, kernel_load) == 0 ? 1 : -1;
}

// The store is locked when it exists, but neither read nor restored.
int resetcatent(void) noexcept {
    Rewrite rw(g_szCatPath, g_szCatBakPath);
    if (rw.begin(Missing::go_on, false) < 0) return -1;
    MGCategory defaults[2];
    default_categories(defaults);
    return rw.commit(defaults, sizeof defaults, kernel_load) == 0 ? 1 : -1;
}

int _k_load_cat(int fd, long size) noexcept { return mg::stores::read_and_load(fd, size, kRec, kernel_load); }

// The backup is not consulted.
int loadcatent(void) noexcept {
    int fd = muf_open(g_szCatPath, 0);
    if (fd < 0) return -1;
    long size = mf_get_size(fd);
    int r = size < static_cast<long>(kRec) ? set_errno(ENODATA) : _k_load_cat(fd, size);
    int saved = errno;
    muf_close(fd);
    errno = saved;
    return r;
}

// ---- Management API -------------------------------------------------------------

int get_mls_cat(MGCategory **list, int *count, int mode) noexcept {
    if (mode != 0 && mode != 1) return 0;
    if (list == nullptr || count == nullptr) return set_errno(EINVAL);
    int n = _sys_getcat_num();
    if (n == 0) {
        if (chk_mgrootdir() < 0) return -1;
        set_dbpath();
        // A store that is not there yet is no failure: the defaults go in.
        if (loadcatent() < 0 && errno != ENOENT) return set_errno(MG_ERR_CAT_LOAD);
        n = _sys_getcat_num();
        if (n == 0) {
            if (init_mls_category() < 0) return -1;
            n = 2;
        }
    }
    if (n < 0) return -1;
    if (n < 2) return set_errno(MG_ERR_CAT_TOO_FEW);
    MallocPtr buf(calloc(static_cast<size_t>(n), kRec));
    if (buf.p == nullptr) return set_errno(MG_ERR_CATLIST_NOMEM);
    int filled = n;
    if (_sys_getcat_list(buf.p, &filled) < 0) return set_errno(MG_ERR_CAT_KLIST);
    *list = static_cast<MGCategory *>(buf.release());
    *count = filled;
    return 1;
}

int get_mls_cat_one(MGCategory *record, int mode) noexcept {
    if (record == nullptr) return set_errno(EINVAL);
    CatList cats;
    if (cats.read(mode) != 1) return -1;
    const MGCategory *c = cats.find(record->id);
    if (c == nullptr) return set_errno(MG_ERR_NO_CATEGORY);
    *record = *c;
    return 1;
}

int init_mls_category(void) noexcept {
    MallocPtr buf(calloc(2, kRec));
    if (buf.p == nullptr) return set_errno(MG_ERR_CATDEF_NOMEM);
    default_categories(*static_cast<MGCategory(*)[2]>(buf.p));
    return upload_ctdb(buf.as<MGCategory>(), 2);
}

int create_cid(int mode) noexcept {
    CatList cats;
    if (cats.read(mode) != 1) return -1;
    return first_free_id(static_cast<size_t>(cats.count), [&](size_t i) { return cats.items[i].id; });
}

int is_exist_cid(int cid, int mode) noexcept {
    CatList cats;
    if (cats.read(mode) != 1) return -1;
    return cats.find(cid) != nullptr ? 1 : set_errno(MG_ERR_NO_CATEGORY);
}

int add_mls_cat(MGCategory *record, int mode) noexcept {
    if (record == nullptr) return set_errno(EINVAL);
    if (record->depth >= kMaxDepth) return set_errno(MG_ERR_TOO_DEEP);
    const int parent = record->path[record->depth];
    if (is_valid_cid(parent) < 0) return -1;
    CatList cats;
    if (cats.read(mode) != 1) return -1;
    if (cats.find(parent) == nullptr) return set_errno(MG_ERR_NO_CATEGORY);
    const int id = first_free_id(static_cast<size_t>(cats.count), [&](size_t i) { return cats.items[i].id; });
    if (id == 0) return set_errno(MG_ERR_NO_FREE_CID);
    record->id = id;
    record->depth = static_cast<unsigned char>(record->depth + 1);
    record->path[record->depth] = static_cast<unsigned char>(id);
    record->reserved = 0;
    return add_catlist(cats.items, cats.count, record) == 1 ? 1 : -1;
}

int mod_mls_cat(const MGCategory *record, int mode) noexcept {
    if (record == nullptr) return set_errno(EINVAL);
    CatList cats;
    if (cats.read(mode) != 1) return -1;
    if (cats.find(record->id) == nullptr) return set_errno(MG_ERR_NO_CATEGORY);
    return mod_catlist(cats.items, cats.count, record) == 1 ? 1 : -1;
}

// Children of the deleted category and users in it are left as they are: the
// tree is not pruned here.
int del_mls_cat(const MGCategory *record, int mode) noexcept {
    if (record == nullptr) return set_errno(EINVAL);
    if (record->id == 1 || record->id == 2) return set_errno(MG_ERR_CAT_DEFAULT);
    CatList cats;
    if (cats.read(mode) != 1) return -1;
    if (cats.find(record->id) == nullptr) return set_errno(MG_ERR_NO_CATEGORY);
    return del_catlist(cats.items, cats.count, record) == 1 ? 1 : -1;
}

int add_catlist(const MGCategory *list, int count, const MGCategory *record) noexcept {
    if (record == nullptr || count < 0 || (list == nullptr && count > 0)) return set_errno(EINVAL);
    MallocPtr copy(malloc((static_cast<size_t>(count) + 1) * kRec));
    if (copy.p == nullptr) return set_errno(MG_ERR_CATADD_NOMEM);
    if (count > 0) memcpy(copy.p, list, static_cast<size_t>(count) * kRec);
    copy.as<MGCategory>()[count] = *record;
    return upload_ctdb(copy.as<MGCategory>(), count + 1);
}

int mod_catlist(const MGCategory *list, int count, const MGCategory *record) noexcept {
    if (record == nullptr || list == nullptr || count < 0) return set_errno(EINVAL);
    MallocPtr copy(malloc(static_cast<size_t>(count) * kRec + 1));
    if (copy.p == nullptr) return set_errno(ENOMEM);
    MGCategory *items = copy.as<MGCategory>();
    memcpy(items, list, static_cast<size_t>(count) * kRec);
    for (int i = 0; i < count; ++i)
        if (items[i].id == record->id) {
            items[i] = *record;
            break;
        }
    return upload_ctdb(items, count);
}

int del_catlist(const MGCategory *list, int count, const MGCategory *record) noexcept {
    if (record == nullptr || list == nullptr || count < 0) return set_errno(EINVAL);
    MallocPtr copy(malloc(static_cast<size_t>(count) * kRec + 1));
    if (copy.p == nullptr) return set_errno(MG_ERR_CATDEL_NOMEM);
    MGCategory *items = copy.as<MGCategory>();
    int kept = 0;
    for (int i = 0; i < count; ++i)
        if (list[i].id != record->id) items[kept++] = list[i];
    return upload_ctdb(items, kept);
}

int upload_ctdb(const MGCategory *records, int count) noexcept {
    if (_sys_setcat(const_cast<MGCategory *>(records), count) < 0) return set_errno(MG_ERR_CAT_REFUSED);
    dump_ctdb_file(records, count);
    return 1;
}

int dump_ctdb_file(const MGCategory *records, int count) noexcept {
    if (records == nullptr || count < 0) return set_errno(MG_ERR_NOTHING);
    if (chk_mgrootdir() < 0) return -1;
    set_dbpath();
    return mg::stores::dump_table(g_szCatPath, g_szCatBakPath, records, static_cast<size_t>(count) * kRec);
}
