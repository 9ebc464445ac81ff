// The simulated kernel module's sub-commands 0 to 88.
//
// Each request reads its blocks from the caller's memory, checks them the way
// a kernel would (EFAULT for a null block, EINVAL for values out of range,
// ENOENT / EEXIST for missing or duplicate keys, EOVERFLOW for a full table)
// and answers through the caller's buffers.
#include "kernel.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <type_traits>

namespace mgsim {

namespace {

struct R {
    long value;
    int err;
};

R ok(long v = 0) { return {v, 0}; }
R fail(int e) { return {-1, e}; }

// The first page is never mapped: anything below it is a bad address.
bool bad_ptr(long p) { return static_cast<unsigned long>(p) < 4096; }

template <class T>
int load(long p, T *out) {
    static_assert(std::is_trivially_copyable_v<T>);
    if (bad_ptr(p)) return EFAULT;
    memcpy(out, reinterpret_cast<const void *>(p), sizeof *out);
    return 0;
}

template <class T>
int load_array(long p, long n, std::vector<T> *out) {
    out->assign(static_cast<size_t>(n), T{});
    if (n == 0) return 0;
    if (bad_ptr(p)) return EFAULT;
    memcpy(out->data(), reinterpret_cast<const void *>(p), static_cast<size_t>(n) * sizeof(T));
    return 0;
}

int store_bytes(long p, const void *data, size_t n) {
    if (n == 0) return 0;
    if (bad_ptr(p)) return EFAULT;
    memcpy(reinterpret_cast<void *>(p), data, n);
    return 0;
}

template <class T>
int store(long p, const T &v) {
    if (bad_ptr(p)) return EFAULT;
    return store_bytes(p, &v, sizeof v);
}

// Copies up to `cap` records of a table out; the result is how many.
template <class T>
R store_list(long p, long cap, const std::vector<T> &v) {
    if (cap < 0) return fail(EINVAL);
    size_t n = std::min(static_cast<size_t>(cap), v.size());
    if (int e = store_bytes(p, v.data(), n * sizeof(T))) return fail(e);
    return ok(static_cast<long>(n));
}

// Headers of a composite table, with the rule count the kernel holds.
template <class Entry, class Hdr, class Fill>
R store_headers(long p, long cap, const std::vector<Entry> &v, Fill fill) {
    if (cap < 0) return fail(EINVAL);
    std::vector<Hdr> out;
    for (size_t i = 0; i < v.size() && out.size() < static_cast<size_t>(cap); ++i) out.push_back(fill(v[i]));
    return store_list(p, cap, out);
}

bool terminated(const char *s, size_t size) { return memchr(s, '\0', size) != nullptr; }

// A NUL-terminated path of at most 1023 characters from the caller.
int load_path(long p, std::string *out) {
    if (bad_ptr(p)) return EFAULT;
    const char *s = reinterpret_cast<const char *>(p);
    size_t n = strnlen(s, kPathMax);
    if (n == kPathMax) return ENAMETOOLONG;
    out->assign(s, n);
    return 0;
}

bool in_range(long v, long lo, long hi) { return v >= lo && v <= hi; }

// ---- information block and configuration ---------------------------------

R info_block(const State &s, long ptr, long len) {
    if (len < static_cast<long>(sizeof(MGModuleInfo))) return fail(EINVAL);
    MGModuleInfo b{};
    snprintf(b.version, sizeof b.version, "%s", s.version.c_str());
    b.status = s.status;
    if (int e = store(ptr, b)) return fail(e);
    return ok();
}

R set_status(State &s, int status, bool *dirty) {
    s.status = status;
    *dirty = true;
    return ok();
}

struct ConfPart {
    size_t first;
    size_t size;
};

ConfPart conf_part(long sub) {
    switch (sub % 4) {
        case 0: return {0, 22};
        case 1: return {0, 4};
        case 2: return {4, 8};
        default: return {12, 8};
    }
}

// Values a switch byte may take (byte 19 and the padding are not examined).
bool conf_value_ok(size_t byte, uint8_t v) {
    static const char *const accepted[19] = {
        "\x00\x01\x03",     "\x00\x01\x03",     "\x00\x01\x03\x40", "\x00\x03\x80",
        "\x00\x03",         "\x00\x03\x80",     "\x00\x01\x03\x40", "\x00\x01\x03\x40",
        "\x00\x03",         "\x00\x03\x80",     "\x00\x01\x03\x80", "\x00\x01\x03\x80",
        "\x00\x03\x80",     "\x00\x03\x80",     "\x00\x03\x80",     "\x00\x01\x03\x80",
        "\x00\x01\x03\x80", "\x00\x01\x03\x80", "\x00\x01\x03\x80"};
    if (byte >= 19) return true;
    // Each list starts with the 0 value, which strchr can't find.
    return v == 0 || strchr(accepted[byte] + 1, v) != nullptr;
}

R conf_get(const State &s, long sub, long ptr, long len) {
    ConfPart part = conf_part(sub);
    if (len != static_cast<long>(part.size)) return fail(EINVAL);
    if (bad_ptr(ptr)) return fail(EFAULT);
    if (int e = store_bytes(ptr, s.conf.data() + part.first, part.size)) return fail(e);
    return ok();
}

R conf_set(State &s, long sub, long ptr, long len, bool *dirty) {
    ConfPart part = conf_part(sub);
    if (len != static_cast<long>(part.size)) return fail(EINVAL);
    if (bad_ptr(ptr)) return fail(EFAULT);
    uint8_t buf[22];
    memcpy(buf, reinterpret_cast<const void *>(ptr), part.size);
    for (size_t i = 0; i < part.size; ++i)
        if (!conf_value_ok(part.first + i, buf[i])) return fail(EINVAL);
    memcpy(s.conf.data() + part.first, buf, part.size);
    *dirty = true;
    return ok();
}

// ---- labels ----------------------------------------------------------------

R get_proc_label(State &s, const Request &rq, bool *dirty) {
    if (rq.len < static_cast<long>(sizeof(MGProcLabel))) return fail(EINVAL);
    MGProcLabel b;
    if (int e = load(rq.ptr, &b)) return fail(e);
    if (b.pid < 0) return fail(ESRCH);
    const ProcEntry *p = find_proc(s, b.pid == 0 ? rq.caller : b.pid, dirty);
    b.role = p ? p->role : 0;
    memset(b.pad, 0, sizeof b.pad);
    b.level = p ? p->level : 0;
    b.category = p ? p->category : 0;
    if (int e = store(rq.ptr, b)) return fail(e);
    return ok();
}

R set_proc_label(State &s, const Request &rq, bool *dirty) {
    if (rq.flag == 2) {
        // Registers a pid with the module; the simulator only records it.
        if (rq.arg2 < 0 || rq.arg2 > INT_MAX) return fail(EINVAL);
        auto pid = static_cast<int32_t>(rq.arg2);
        if (std::find(s.setpids.begin(), s.setpids.end(), pid) == s.setpids.end()) {
            if (s.setpids.size() >= 1024) s.setpids.erase(s.setpids.begin());
            s.setpids.push_back(pid);
        }
        *dirty = true;
        return ok();
    }
    if (rq.flag != 0 && rq.flag != 1) return fail(EINVAL);
    if (rq.len < static_cast<long>(sizeof(MGProcLabel))) return fail(EINVAL);
    MGProcLabel b;
    if (int e = load(rq.ptr, &b)) return fail(e);
    if (b.pid < 0) return fail(ESRCH);
    if (b.role > 7 || !in_range(b.level, 0, 7) || !in_range(b.category, 0, 127)) return fail(EINVAL);
    set_proc(s, b.pid == 0 ? rq.caller : b.pid, b.role, b.level, b.category, rq.flag == 1 ? 1 : -1);
    *dirty = true;
    return ok();
}

R file_label(State &s, const Request &rq, bool set, bool *dirty) {
    if (rq.len < static_cast<long>(sizeof(MGFileLabel))) return fail(EINVAL);
    MGFileLabel b;
    if (int e = load(rq.ptr, &b)) return fail(e);
    std::string path;
    if (int e = load_path(rq.arg2, &path)) return fail(e);
    std::string canon;
    FileEntry identity{};
    if (int e = resolve_path(path.c_str(), &canon, &identity)) return fail(e);
    FileEntry *f = find_file(s, canon);
    if (!set) {
        MGFileLabel out{};
        if (f) out = f->label;
        if (int e = store(rq.ptr, out)) return fail(e);
        return ok();
    }
    if (b.kind > 3 || b.flag > 1 || !in_range(b.level, 0, 7) || !in_range(b.category, 0, 127))
        return fail(EINVAL);
    if (f == nullptr) {
        s.files.push_back(identity);
        f = &s.files.back();
        f->path = canon;
    }
    f->label = b;
    f->is_dir = identity.is_dir;
    f->ino = identity.ino;
    f->dev = identity.dev;
    *dirty = true;
    return ok();
}

std::vector<MlsSnapshot> snapshot(const State &s, bool dirs) {
    std::vector<MlsSnapshot> out;
    for (const FileEntry &f : s.files) {
        if ((f.is_dir != 0) != dirs) continue;
        out.push_back({f.ino, f.dev, MG_FLABEL(f.label.kind, f.label.flag, f.label.level, f.label.category), 0});
    }
    return out;
}

// ---- MLS users and categories ---------------------------------------------

bool user_ok(const MuRecord &u) { return u.role <= 3 && in_range(u.level, 0, 7) && in_range(u.category, 0, 127); }

bool cat_ok(const CatRecord &c) { return in_range(c.id, 0, 127) && c.depth <= 15 && c.role <= 3; }

// Sub-commands that replace a whole fixed-record table.
template <class T, class Check>
R replace_table(std::vector<T> &table, long ptr, long count, int max, Check check, bool *dirty) {
    if (count < 0 || count > max) return fail(EINVAL);
    std::vector<T> in;
    if (int e = load_array(ptr, count, &in)) return fail(e);
    for (const T &r : in)
        if (!check(r)) return fail(EINVAL);
    table = std::move(in);
    *dirty = true;
    return ok();
}

template <class T, class Key>
R get_one(const std::vector<T> &table, long ptr, Key match) {
    auto it = std::find_if(table.begin(), table.end(), match);
    if (it == table.end()) return fail(ENOENT);
    if (int e = store(ptr, *it)) return fail(e);
    return ok();
}

// Sub-commands 26 and 28 answer with the error number itself.
long as_errno_result(R r) { return r.err ? r.err : r.value; }

// ---- rule paths -------------------------------------------------------------

// The kernel protects existing objects: a plain path must exist; a path whose
// last component holds '*' names files of an existing directory.
int target_exists(const char *path) {
    const char *slash = strrchr(path, '/');
    struct stat st;
    if (slash && strchr(slash, '*')) {
        std::string dir(path, static_cast<size_t>(slash - path));
        if (dir.empty()) dir = "/";
        if (stat(dir.c_str(), &st) != 0) return errno;
        return S_ISDIR(st.st_mode) ? 0 : ENOTDIR;
    }
    return lstat(path, &st) == 0 ? 0 : errno;
}

bool abs_path_ok(const char *path, size_t size) { return terminated(path, size) && path[0] == '/'; }

// ---- file ACL ----------------------------------------------------------------

bool facl_hdr_ok(const FaclHdr &h) {
    return abs_path_ok(h.path, sizeof h.path) && in_range(h.rule_cnt, 1, kMaxRules) && in_range(h.mode, 0, 2) &&
           h.flag <= 1 && in_range(h.polgrp_id, 0, 512);
}

auto facl_by_path(std::vector<FaclEntry> &t, const char *path) {
    return std::find_if(t.begin(), t.end(), [&](const FaclEntry &e) { return strcmp(e.hdr.path, path) == 0; });
}

FaclHdr facl_out(const FaclEntry &e) {
    FaclHdr h = e.hdr;
    h.rule_cnt = static_cast<int32_t>(e.rules.size());
    return h;
}

R facl_write(State &s, const Request &rq, bool add, bool *dirty) {
    FaclHdr h;
    if (int e = load(rq.ptr, &h)) return fail(e);
    if (!facl_hdr_ok(h)) return fail(EINVAL);
    std::vector<RuleEntry> rules;
    if (int e = load_array(rq.arg2, h.rule_cnt, &rules)) return fail(e);
    auto it = facl_by_path(s.facl, h.path);
    if (add) {
        if (s.facl.size() >= static_cast<size_t>(kMaxFacl)) return fail(EOVERFLOW);
        if (int e = target_exists(h.path)) return fail(e);
        if (it != s.facl.end()) return fail(EEXIST);
        s.facl.push_back({h, std::move(rules)});
    } else {
        if (it == s.facl.end()) return fail(ENOENT);
        *it = {h, std::move(rules)};
    }
    *dirty = true;
    return ok();
}

R facl_call(State &s, const Request &rq, bool *dirty) {
    switch (rq.sub) {
        case 29: return facl_write(s, rq, true, dirty);
        case 30: return facl_write(s, rq, false, dirty);
        case 31: {
            std::string path;
            if (int e = load_path(rq.ptr, &path)) return fail(e);
            auto it = facl_by_path(s.facl, path.c_str());
            if (it == s.facl.end()) return fail(ENOENT);
            s.facl.erase(it);
            *dirty = true;
            return ok();
        }
        case 32: return ok(static_cast<long>(s.facl.size()));
        case 33: return store_headers<FaclEntry, FaclHdr>(rq.ptr, rq.len, s.facl, facl_out);
        case 34:
        case 35: {
            FaclHdr h;
            if (int e = load(rq.ptr, &h)) return fail(e);
            if (!terminated(h.path, sizeof h.path)) return fail(EINVAL);
            auto it = facl_by_path(s.facl, h.path);
            if (it == s.facl.end()) return fail(ENOENT);
            if (rq.sub == 34) {
                if (int e = store(rq.ptr, facl_out(*it))) return fail(e);
                return ok();
            }
            if (h.rule_cnt < 0) return fail(EINVAL);
            size_t n = std::min(static_cast<size_t>(h.rule_cnt), it->rules.size());
            if (int e = store_bytes(rq.arg2, it->rules.data(), n * sizeof(RuleEntry))) return fail(e);
            return ok();
        }
        default:
            s.facl.clear();
            *dirty = true;
            return ok();
    }
}

// ---- file groups ---------------------------------------------------------------

bool fgroup_hdr_ok(const FgroupHdr &h) {
    return terminated(h.name, sizeof h.name) && h.name[0] != '\0' && in_range(h.rule_cnt, 0, kMaxRules) &&
           in_range(h.member_cnt, 0, kMaxMembers) && in_range(h.mode, 0, 2) && in_range(h.polgrp_id, 0, 512);
}

auto fgroup_by_id(std::vector<FgroupEntry> &t, int id) {
    return std::find_if(t.begin(), t.end(), [&](const FgroupEntry &e) { return e.hdr.fgroup_id == id; });
}

FgroupHdr fgroup_out(const FgroupEntry &e) {
    FgroupHdr h = e.hdr;
    h.rule_cnt = static_cast<int32_t>(e.rules.size());
    h.member_cnt = static_cast<int32_t>(e.members.size());
    return h;
}

// A name or a member path may belong to one group only.
bool fgroup_conflict(const std::vector<FgroupEntry> &t, int self, const FgroupHdr &h,
                     const std::vector<MemberPath> &members) {
    for (const FgroupEntry &g : t) {
        if (g.hdr.fgroup_id == self) continue;
        if (strcmp(g.hdr.name, h.name) == 0) return true;
        for (const MemberPath &m : members)
            for (const MemberPath &o : g.members)
                if (strcmp(m.path, o.path) == 0) return true;
    }
    return false;
}

R fgroup_set(State &s, const Request &rq, bool *dirty) {
    FgroupHdr h;
    if (int e = load(rq.ptr, &h)) return fail(e);
    if (!fgroup_hdr_ok(h) || !in_range(h.fgroup_id, 0, kMaxFgroups)) return fail(EINVAL);
    std::vector<RuleEntry> rules;
    std::vector<MemberPath> members;
    if (int e = load_array(rq.arg2, h.rule_cnt, &rules)) return fail(e);
    if (int e = load_array(rq.flag, h.member_cnt, &members)) return fail(e);
    for (const MemberPath &m : members)
        if (!abs_path_ok(m.path, sizeof m.path) || m.flag > 1) return fail(EINVAL);
    for (const MemberPath &m : members)
        if (int e = target_exists(m.path)) return fail(e);
    if (h.fgroup_id != 0) {
        auto it = fgroup_by_id(s.fgroups, h.fgroup_id);
        if (it == s.fgroups.end()) return fail(ENOENT);
        if (fgroup_conflict(s.fgroups, h.fgroup_id, h, members)) return fail(EEXIST);
        *it = {h, std::move(rules), std::move(members)};
        *dirty = true;
        return ok(h.fgroup_id);
    }
    if (fgroup_conflict(s.fgroups, 0, h, members)) return fail(EEXIST);
    // The module numbers a new group with the lowest free number.
    int id = 1;
    while (id <= kMaxFgroups && fgroup_by_id(s.fgroups, id) != s.fgroups.end()) ++id;
    if (id > kMaxFgroups) return fail(EOVERFLOW);
    h.fgroup_id = id;
    s.fgroups.push_back({h, std::move(rules), std::move(members)});
    *dirty = true;
    return ok(id);
}

R fgroup_call(State &s, const Request &rq, bool *dirty) {
    switch (rq.sub) {
        case 37: return fgroup_set(s, rq, dirty);
        case 38: {
            auto it = fgroup_by_id(s.fgroups, static_cast<int>(rq.len));
            if (rq.len < 1 || rq.len > kMaxFgroups || it == s.fgroups.end()) return fail(ENOENT);
            s.fgroups.erase(it);
            *dirty = true;
            return ok();
        }
        case 39: return ok(static_cast<long>(s.fgroups.size()));
        case 40: return store_headers<FgroupEntry, FgroupHdr>(rq.ptr, rq.len, s.fgroups, fgroup_out);
        case 41:
        case 42: {
            FgroupHdr h;
            if (int e = load(rq.ptr, &h)) return fail(e);
            auto it = fgroup_by_id(s.fgroups, h.fgroup_id);
            if (h.fgroup_id < 1 || it == s.fgroups.end()) return fail(ENOENT);
            if (rq.sub == 41) {
                if (int e = store(rq.ptr, fgroup_out(*it))) return fail(e);
                return ok();
            }
            if (h.rule_cnt < 0 || h.member_cnt < 0) return fail(EINVAL);
            size_t nr = std::min(static_cast<size_t>(h.rule_cnt), it->rules.size());
            size_t nm = std::min(static_cast<size_t>(h.member_cnt), it->members.size());
            if (int e = store_bytes(rq.arg2, it->rules.data(), nr * sizeof(RuleEntry))) return fail(e);
            if (int e = store_bytes(rq.flag, it->members.data(), nm * sizeof(MemberPath))) return fail(e);
            return ok();
        }
        default:
            s.fgroups.clear();
            *dirty = true;
            return ok();
    }
}

// ---- kill ACL, setuid ACL and the auto-detected setuid list ---------------------

template <class T>
auto by_path(std::vector<T> &t, const char *path) {
    return std::find_if(t.begin(), t.end(), [&](const T &e) { return strcmp(e.path, path) == 0; });
}

bool kill_ok(const KillAcl &k) { return terminated(k.path, sizeof k.path) && k.path[0] != '\0' && (k.flag == 0 || k.flag == 1); }

bool setuid_ok(const SetuidAcl &e) { return abs_path_ok(e.path, sizeof e.path) && (e.flag == 0 || e.flag == 1); }

// Kill ACL (44-49) and setuid ACL (50-55): add, modify, delete, count, list,
// clear, over a table keyed by path. A kill ACL path need not exist; a setuid
// program must.
template <class T>
R path_table(std::vector<T> &t, const Request &rq, long first, int max, bool (*valid)(const T &),
             bool program_must_exist, bool *dirty) {
    long op = rq.sub - first;
    if (op == 3) return ok(static_cast<long>(t.size()));
    if (op == 4) return store_list(rq.ptr, rq.len, t);
    if (op == 5) {
        t.clear();
        *dirty = true;
        return ok();
    }
    T rec;
    if (op == 2) {
        // The delete key: a path where the entry has its path first (kill
        // ACL), else a whole entry.
        std::string key;
        if constexpr (offsetof(T, path) == 0) {
            if (int e = load_path(rq.ptr, &key)) return fail(e);
        } else {
            if (int e = load(rq.ptr, &rec)) return fail(e);
            if (!terminated(rec.path, sizeof rec.path)) return fail(EINVAL);
            key = rec.path;
        }
        auto it = by_path(t, key.c_str());
        if (it == t.end()) return fail(ENOENT);
        t.erase(it);
        *dirty = true;
        return ok();
    }
    if (int e = load(rq.ptr, &rec)) return fail(e);
    if (!valid(rec)) return fail(EINVAL);
    if (program_must_exist)
        if (int e = target_exists(rec.path)) return fail(e);
    auto it = by_path(t, rec.path);
    if (op == 0) {
        if (t.size() >= static_cast<size_t>(max)) return fail(EOVERFLOW);
        if (it != t.end()) return fail(EEXIST);
        t.push_back(rec);
    } else {
        if (it == t.end()) return fail(ENOENT);
        *it = rec;
    }
    *dirty = true;
    return ok();
}

// 58: an entry of the auto-detected list moves into the setuid ACL, with the
// flag the caller gives.
R move_auto_dl(State &s, const Request &rq, bool *dirty) {
    SetuidAcl e;
    if (int err = load(rq.ptr, &e)) return fail(err);
    if (!setuid_ok(e)) return fail(EINVAL);
    auto it = by_path(s.auto_dl, e.path);
    if (it == s.auto_dl.end()) return fail(ENOENT);
    if (by_path(s.setuid_acl, e.path) != s.setuid_acl.end()) return fail(EEXIST);
    if (s.setuid_acl.size() >= static_cast<size_t>(kMaxSetuidAcl)) return fail(EOVERFLOW);
    s.setuid_acl.push_back(e);
    s.auto_dl.erase(it);
    *dirty = true;
    return ok();
}

// ---- service rules -------------------------------------------------------------

AlsvcHdr alsvc_out(const AlsvcEntry &e) {
    AlsvcHdr h = e.hdr;
    h.rule_cnt = static_cast<int32_t>(e.rules.size());
    return h;
}

// The default table (2) holds one header whatever its id.
auto alsvc_find(std::vector<AlsvcEntry> &t, int table, long id) {
    if (table == 2) return t.begin();
    return std::find_if(t.begin(), t.end(), [&](const AlsvcEntry &e) { return e.hdr.id == id; });
}

R alsvc_call(State &s, int table, int op, const Request &rq, bool *dirty) {
    std::vector<AlsvcEntry> &t = s.alsvc[static_cast<size_t>(table)];
    switch (op) {
        case 0: {  // rule count of one header
            if (rq.len < 0) return fail(EINVAL);
            auto it = alsvc_find(t, table, rq.len);
            return ok(it == t.end() ? 0 : static_cast<long>(it->rules.size()));
        }
        case 1: {  // rules of one header: arg2 id, len capacity
            if (rq.arg2 < 0 || rq.len < 1) return fail(EINVAL);
            auto it = alsvc_find(t, table, rq.arg2);
            if (it == t.end()) return fail(ENOENT);
            return store_list(rq.ptr, rq.len, it->rules);
        }
        case 2: {  // set: add the header or replace its rules
            AlsvcHdr h;
            if (int e = load(rq.ptr, &h)) return fail(e);
            if (!in_range(h.rule_cnt, 1, kMaxAlsvcRules) || h.id < 0 || !terminated(h.name, sizeof h.name))
                return fail(EINVAL);
            std::vector<AlsvcRule> rules;
            if (int e = load_array(rq.arg2, h.rule_cnt, &rules)) return fail(e);
            auto it = alsvc_find(t, table, h.id);
            if (it != t.end()) {
                *it = {h, std::move(rules)};
            } else {
                if (t.size() >= static_cast<size_t>(kMaxAlsvcHeaders)) return fail(EOVERFLOW);
                t.push_back({h, std::move(rules)});
            }
            *dirty = true;
            return ok();
        }
        case 3: {  // delete one header
            AlsvcHdr h;
            if (int e = load(rq.ptr, &h)) return fail(e);
            if (h.id < 0) return fail(EINVAL);
            auto it = alsvc_find(t, table, h.id);
            if (it == t.end()) return fail(ENOENT);
            t.erase(it);
            *dirty = true;
            return ok();
        }
        case 4:
            t.clear();
            *dirty = true;
            return ok();
        case 5: return ok(static_cast<long>(t.size()));
        default: return store_headers<AlsvcEntry, AlsvcHdr>(rq.ptr, rq.len, t, alsvc_out);
    }
}

// ---- opaque byte buffers (kernel log, session log, session user) -------------

R read_text(const std::string &text, long ptr, long len) {
    if (len < 0) return fail(EINVAL);
    size_t n = std::min(static_cast<size_t>(len), text.size());
    if (int e = store_bytes(ptr, text.data(), n)) return fail(e);
    return ok(static_cast<long>(n));
}

R login_origin(State &s, long ptr, bool *dirty) {
    MGLoginOrigin o;
    if (int e = load(ptr, &o)) return fail(e);
    // One record per process: a second registration replaces the first.
    auto it = std::find_if(s.origins.begin(), s.origins.end(), [&](const MGLoginOrigin &x) { return x.pid == o.pid; });
    if (it != s.origins.end()) {
        *it = o;
    } else {
        if (s.origins.size() >= static_cast<size_t>(kMaxOrigins)) s.origins.erase(s.origins.begin());
        s.origins.push_back(o);
    }
    *dirty = true;
    return ok();
}

R run(State &s, const Request &rq, bool *dirty) {
    const long sub = rq.sub;
    auto always = [](const auto &) { return true; };
    switch (sub) {
        case 0: {
            if (rq.len < static_cast<long>(sizeof(MGModuleInfo))) return fail(EINVAL);
            if (bad_ptr(rq.ptr)) return fail(EFAULT);
            set_status(s, MG_STATUS_RUNNING, dirty);
            return info_block(s, rq.ptr, rq.len);
        }
        case 1: return info_block(s, rq.ptr, rq.len);
        case 2: return set_status(s, MG_STATUS_STOPPED, dirty);
        case 3: return set_status(s, MG_STATUS_SUSPENDED, dirty);
        case 4: case 5: case 6: case 7: return conf_get(s, sub, rq.ptr, rq.len);
        case 8: case 9: case 10: case 11: return conf_set(s, sub, rq.ptr, rq.len, dirty);
        case 12: return get_proc_label(s, rq, dirty);
        case 13: return set_proc_label(s, rq, dirty);
        case 14: return ok(static_cast<long>(s.users.size()));
        case 15: return get_one(s.users, rq.ptr, [&](const MuRecord &u) { return u.uid == rq.len; });
        case 16: return store_list(rq.ptr, rq.len, s.users);
        case 17: return replace_table(s.users, rq.ptr, rq.len, kMaxMlsUsers, user_ok, dirty);
        case 18: return ok(static_cast<long>(s.cats.size()));
        case 19: return get_one(s.cats, rq.ptr, [&](const CatRecord &c) { return c.id == rq.len; });
        case 20: return store_list(rq.ptr, rq.len, s.cats);
        case 21: return replace_table(s.cats, rq.ptr, rq.len, kMaxCategories, cat_ok, dirty);
        case 22: return file_label(s, rq, false, dirty);
        case 23: return file_label(s, rq, true, dirty);
        case 24: return read_text(s.kernlog, rq.ptr, rq.len);
        case 25: return store_list(rq.ptr, rq.len, s.cmds);
        case 26: return ok(as_errno_result(replace_table(s.cmds, rq.ptr, rq.len, kMaxCommands, always, dirty)));
        case 27: return store_list(rq.ptr, rq.len, s.su);
        case 28: return ok(as_errno_result(replace_table(s.su, rq.ptr, rq.len, kMaxSu, always, dirty)));
        case 56: return ok(static_cast<long>(s.auto_dl.size()));
        case 57: return store_list(rq.ptr, rq.len, s.auto_dl);
        case 58: return move_auto_dl(s, rq, dirty);
        case 59:
            if (rq.len != 1 && rq.len != 2) return fail(EINVAL);
            return ok(static_cast<long>(snapshot(s, rq.len == 2).size()));
        case 60: return store_list(rq.ptr, rq.len, snapshot(s, false));
        case 61: return store_list(rq.ptr, rq.len, snapshot(s, true));
        case 62: {
            if (bad_ptr(rq.ptr)) return fail(EFAULT);
            return store_list(rq.ptr, kMaxAlcmd, s.alcmd);
        }
        case 63: return replace_table(s.alcmd, rq.ptr, rq.len, kMaxAlcmd, always, dirty);
        case 64: return login_origin(s, rq.ptr, dirty);
        case 79:
            s.procs.clear();
            *dirty = true;
            return ok();
        case 80: return read_text(s.seslog, rq.ptr, rq.len);
        case 81: {
            if (rq.len < 0 || rq.len > 65536) return fail(EINVAL);
            std::vector<char> bytes;
            if (int e = load_array(rq.ptr, rq.len, &bytes)) return fail(e);
            s.sesuser.assign(bytes.begin(), bytes.end());
            *dirty = true;
            return ok();
        }
        default: break;
    }
    if (sub >= 29 && sub <= 36) return facl_call(s, rq, dirty);
    if (sub >= 37 && sub <= 43) return fgroup_call(s, rq, dirty);
    if (sub >= 44 && sub <= 49) return path_table(s.kill_acl, rq, 44, kMaxKillAcl, kill_ok, false, dirty);
    if (sub >= 50 && sub <= 55) return path_table(s.setuid_acl, rq, 50, kMaxSetuidAcl, setuid_ok, true, dirty);
    if (sub >= 65 && sub <= 78) return alsvc_call(s, static_cast<int>((sub - 65) % 2), static_cast<int>((sub - 65) / 2), rq, dirty);
    if (sub >= 82 && sub <= 88) return alsvc_call(s, 2, static_cast<int>(sub - 82), rq, dirty);
    return fail(EINVAL);
}

}  // namespace

ProcEntry *find_proc(State &s, int pid, bool *dirty) {
    auto it = std::find_if(s.procs.begin(), s.procs.end(), [&](const ProcEntry &p) { return p.pid == pid; });
    if (it == s.procs.end()) return nullptr;
    // A label belongs to the process it was set for, not to a later process
    // that happens to get the same pid.
    if (it->start != process_start(pid)) {
        s.procs.erase(it);
        *dirty = true;
        return nullptr;
    }
    return &*it;
}

void set_proc(State &s, int pid, int role, int level, int category, int auth) {
    bool unused = false;
    ProcEntry *p = find_proc(s, pid, &unused);
    if (p == nullptr) {
        if (s.procs.size() >= 256) {
            // Forget the labels of processes that are gone.
            std::erase_if(s.procs, [](const ProcEntry &e) { return e.start != process_start(e.pid); });
        }
        s.procs.push_back(ProcEntry{pid, 0, 0, {0, 0}, 0, 0, process_start(pid)});
        p = &s.procs.back();
    }
    p->role = static_cast<uint8_t>(role);
    p->level = level;
    p->category = category;
    if (auth >= 0) p->auth = static_cast<uint8_t>(auth);
}

int resolve_path(const char *path, std::string *canon, FileEntry *identity) {
    if (path[0] == '\0') return ENOENT;
    char buf[PATH_MAX];
    if (realpath(path, buf) == nullptr) return errno;
    struct stat st;
    if (stat(buf, &st) != 0) return errno;
    *canon = buf;
    identity->is_dir = S_ISDIR(st.st_mode) ? 1 : 0;
    identity->ino = st.st_ino;
    identity->dev = st.st_dev;
    return 0;
}

FileEntry *find_file(State &s, const std::string &canon) {
    auto it = std::find_if(s.files.begin(), s.files.end(), [&](const FileEntry &f) { return f.path == canon; });
    return it == s.files.end() ? nullptr : &*it;
}

long dispatch(State &s, const Request &rq, bool *dirty, int *err) {
    R r = run(s, rq, dirty);
    *err = r.err;
    return r.value;
}

}  // namespace mgsim
