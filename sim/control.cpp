// The simulator's control interface (mgsim.h).
#include "mgsim.h"

#include "kernel.hpp"
#include "runtime.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

using namespace mgsim;

namespace {

// Runs fn(State&) under the state lock; fn returns the result (or -1 with
// errno). The state is written back when fn marked it dirty.
template <class Fn>
int with_state(Fn fn, bool modifies, const bool *changed = nullptr) {
    std::lock_guard<std::mutex> guard(process_mutex());
    Access access;
    if (!access.open()) return -1;
    int r = fn(access.state());
    int e = errno;
    if ((modifies && r >= 0) || (changed && *changed)) access.dirty() = true;
    if (!access.finish()) return -1;
    errno = e;
    return r;
}

template <class Fn>
int modify(Fn fn) {
    return with_state(fn, true);
}

template <class Fn>
int inspect(Fn fn) {
    return with_state(fn, false);
}

int invalid() {
    errno = EINVAL;
    return -1;
}

template <class T>
int copy_out(const std::vector<T> &v, void *buf, int max) {
    if (max < 0) return invalid();
    size_t n = std::min(v.size(), static_cast<size_t>(max));
    if (n > 0) memcpy(buf, v.data(), n * sizeof(T));
    return static_cast<int>(n);
}

template <class Entry, class Hdr>
int copy_headers(const std::vector<Entry> &v, void *buf, int max) {
    std::vector<Hdr> hdrs;
    for (const Entry &e : v) {
        Hdr h = e.hdr;
        h.rule_cnt = static_cast<int32_t>(e.rules.size());
        hdrs.push_back(h);
    }
    return copy_out(hdrs, buf, max);
}

bool resolve(const char *path, std::string *canon, FileEntry *identity) {
    int e = resolve_path(path, canon, identity);
    errno = e;
    return e == 0;
}

std::string *buffer_of(State &s, int which) {
    switch (which) {
        case MGSIM_B_KERNLOG: return &s.kernlog;
        case MGSIM_B_SESLOG: return &s.seslog;
        case MGSIM_B_SESUSER: return &s.sesuser;
        default: return nullptr;
    }
}

int table_count(const State &s, int table) {
    switch (table) {
        case MGSIM_T_PROC: return static_cast<int>(s.procs.size());
        case MGSIM_T_FILE: return static_cast<int>(s.files.size());
        case MGSIM_T_SETPID: return static_cast<int>(s.setpids.size());
        case MGSIM_T_MU: return static_cast<int>(s.users.size());
        case MGSIM_T_CAT: return static_cast<int>(s.cats.size());
        case MGSIM_T_CMD: return static_cast<int>(s.cmds.size());
        case MGSIM_T_SU: return static_cast<int>(s.su.size());
        case MGSIM_T_FACL: return static_cast<int>(s.facl.size());
        case MGSIM_T_FGROUP: return static_cast<int>(s.fgroups.size());
        case MGSIM_T_KILL: return static_cast<int>(s.kill_acl.size());
        case MGSIM_T_SETUID: return static_cast<int>(s.setuid_acl.size());
        case MGSIM_T_AUTODL: return static_cast<int>(s.auto_dl.size());
        case MGSIM_T_ALCMD: return static_cast<int>(s.alcmd.size());
        case MGSIM_T_ORIGIN: return static_cast<int>(s.origins.size());
        case MGSIM_T_ALSVC_USER:
        case MGSIM_T_ALSVC_GROUP:
        case MGSIM_T_ALSVC_DEF: return static_cast<int>(s.alsvc[static_cast<size_t>(table - MGSIM_T_ALSVC_USER)].size());
        default: return invalid();
    }
}

int read_table(const State &s, int table, void *buf, int max) {
    if (max > 0 && buf == nullptr) return invalid();
    switch (table) {
        case MGSIM_T_PROC: {
            std::vector<mgsim_proc> out;
            for (const ProcEntry &p : s.procs) out.push_back({p.pid, p.role, p.level, p.category, p.auth});
            return copy_out(out, buf, max);
        }
        case MGSIM_T_SETPID: return copy_out(s.setpids, buf, max);
        case MGSIM_T_MU: return copy_out(s.users, buf, max);
        case MGSIM_T_CAT: return copy_out(s.cats, buf, max);
        case MGSIM_T_CMD: return copy_out(s.cmds, buf, max);
        case MGSIM_T_SU: return copy_out(s.su, buf, max);
        case MGSIM_T_FACL: return copy_headers<FaclEntry, FaclHdr>(s.facl, buf, max);
        case MGSIM_T_FGROUP: {
            std::vector<FgroupHdr> hdrs;
            for (const FgroupEntry &e : s.fgroups) {
                FgroupHdr h = e.hdr;
                h.rule_cnt = static_cast<int32_t>(e.rules.size());
                h.member_cnt = static_cast<int32_t>(e.members.size());
                hdrs.push_back(h);
            }
            return copy_out(hdrs, buf, max);
        }
        case MGSIM_T_KILL: return copy_out(s.kill_acl, buf, max);
        case MGSIM_T_SETUID: return copy_out(s.setuid_acl, buf, max);
        case MGSIM_T_AUTODL: return copy_out(s.auto_dl, buf, max);
        case MGSIM_T_ALCMD: return copy_out(s.alcmd, buf, max);
        case MGSIM_T_ORIGIN: return copy_out(s.origins, buf, max);
        case MGSIM_T_ALSVC_USER:
        case MGSIM_T_ALSVC_GROUP:
        case MGSIM_T_ALSVC_DEF:
            return copy_headers<AlsvcEntry, AlsvcHdr>(s.alsvc[static_cast<size_t>(table - MGSIM_T_ALSVC_USER)], buf, max);
        default: return invalid();
    }
}

}  // namespace

// Implemented in dump.cpp.
int mgsim_dump_state(FILE *out, const State &s, int table);

extern "C" {

int mgsim_use_state(const char *path) noexcept {
    int r = (path && *path) ? setenv(kStateEnv, path, 1) : unsetenv(kStateEnv);
    return r == 0 ? 0 : -1;
}

const char *mgsim_state_path(void) noexcept { return state_path(); }

int mgsim_reset(void) noexcept {
    return modify([](State &s) {
        s = State();
        return 0;
    });
}

int mgsim_check(void) noexcept {
    std::lock_guard<std::mutex> guard(process_mutex());
    const char *path = state_path();
    if (path == nullptr) return invalid();
    return check_file(path);
}

int mgsim_set_status(int status) noexcept {
    return modify([&](State &s) {
        s.status = status;
        return 0;
    });
}

int mgsim_get_status(void) noexcept {
    return inspect([](State &s) { return static_cast<int>(s.status); });
}

int mgsim_set_version(const char *text) noexcept {
    if (text == nullptr || strlen(text) >= sizeof(MGModuleInfo::version)) return invalid();
    return modify([&](State &s) {
        s.version = text;
        return 0;
    });
}

int mgsim_get_version(char *buf, size_t size) noexcept {
    if (buf == nullptr || size == 0) return invalid();
    return inspect([&](State &s) {
        snprintf(buf, size, "%s", s.version.c_str());
        return 0;
    });
}

int mgsim_set_absent(int absent) noexcept {
    return modify([&](State &s) {
        s.absent = absent ? 1 : 0;
        return 0;
    });
}

int mgsim_get_absent(void) noexcept {
    return inspect([](State &s) { return static_cast<int>(s.absent); });
}

int mgsim_set_proc_label(int pid, int role, int level, int category) noexcept {
    if (pid < 0 || role < 0 || role > 7 || level < 0 || level > 7 || category < 0 || category > 127)
        return invalid();
    return modify([&](State &s) {
        set_proc(s, pid == 0 ? getpid() : pid, role, level, category, -1);
        return 0;
    });
}

int mgsim_get_proc_label(int pid, int *role, int *level, int *category) noexcept {
    if (pid < 0) return invalid();
    int values[3] = {0, 0, 0};
    bool dirty = false;  // a label whose process is gone is dropped on the way
    int r = with_state(
        [&](State &s) {
            if (const ProcEntry *p = find_proc(s, pid == 0 ? getpid() : pid, &dirty)) {
                values[0] = p->role;
                values[1] = p->level;
                values[2] = p->category;
            }
            return 0;
        },
        false, &dirty);
    if (r < 0) return -1;
    if (role) *role = values[0];
    if (level) *level = values[1];
    if (category) *category = values[2];
    return MG_PLABEL(values[0], values[1], values[2]);
}

int mgsim_set_file_label(const char *path, int kind, int flag, int level, int category) noexcept {
    if (path == nullptr || kind < 0 || kind > 3 || flag < 0 || flag > 1 || level < 0 || level > 7 || category < 0 ||
        category > 127)
        return invalid();
    std::string canon;
    FileEntry identity{};
    if (!resolve(path, &canon, &identity)) return -1;
    return modify([&](State &s) {
        FileEntry *f = find_file(s, canon);
        if (f == nullptr) {
            s.files.push_back(identity);
            f = &s.files.back();
            f->path = canon;
        }
        f->label = MGFileLabel{};
        f->label.kind = static_cast<unsigned char>(kind);
        f->label.flag = static_cast<unsigned char>(flag);
        f->label.level = level;
        f->label.category = category;
        return 0;
    });
}

int mgsim_get_file_label(const char *path) noexcept {
    if (path == nullptr) return invalid();
    std::string canon;
    FileEntry identity{};
    if (!resolve(path, &canon, &identity)) return -1;
    return inspect([&](State &s) {
        const FileEntry *f = find_file(s, canon);
        return f ? MG_FLABEL(f->label.kind, f->label.flag, f->label.level, f->label.category) : 0;
    });
}

int mgsim_set_fail(const char *text) noexcept {
    std::vector<FailRule> rules;
    if (text && !parse_fail_rules(text, &rules)) return invalid();
    return modify([&](State &s) {
        s.fails = rules;
        return 0;
    });
}

int mgsim_get_fail(char *buf, size_t size) noexcept {
    std::string text;
    if (inspect([&](State &s) {
            text = format_fail_rules(s.fails);
            return 0;
        }) < 0)
        return -1;
    if (buf && size > 0) snprintf(buf, size, "%s", text.c_str());
    return static_cast<int>(text.size());
}

int mgsim_set_log(const char *path) noexcept {
    return modify([&](State &s) {
        s.log_path = path ? path : "";
        return 0;
    });
}

int mgsim_get_conf(unsigned char block[22]) noexcept {
    if (block == nullptr) return invalid();
    return inspect([&](State &s) {
        memcpy(block, s.conf.data(), s.conf.size());
        return 0;
    });
}

int mgsim_set_conf(const unsigned char block[22]) noexcept {
    if (block == nullptr) return invalid();
    return modify([&](State &s) {
        memcpy(s.conf.data(), block, s.conf.size());
        return 0;
    });
}

int mgsim_count(int table) noexcept {
    return inspect([&](State &s) { return table_count(s, table); });
}

int mgsim_read_table(int table, void *buf, int max) noexcept {
    return inspect([&](State &s) { return read_table(s, table, buf, max); });
}

int mgsim_add_auto_dl(int flag, const char *path) noexcept {
    if (path == nullptr || path[0] != '/' || strlen(path) >= sizeof(SetuidAcl::path)) return invalid();
    return modify([&](State &s) {
        SetuidAcl e{};
        e.flag = flag;
        snprintf(e.path, sizeof e.path, "%s", path);
        s.auto_dl.push_back(e);
        return 0;
    });
}

int mgsim_set_buffer(int which, const void *data, size_t len) noexcept {
    if (len > 0 && data == nullptr) return invalid();
    return modify([&](State &s) {
        std::string *b = buffer_of(s, which);
        if (b == nullptr) return invalid();
        b->assign(static_cast<const char *>(data), len);
        return 0;
    });
}

int mgsim_get_buffer(int which, void *buf, size_t size) noexcept {
    return inspect([&](State &s) {
        const std::string *b = buffer_of(s, which);
        if (b == nullptr) return invalid();
        if (buf) memcpy(buf, b->data(), std::min(size, b->size()));
        return static_cast<int>(b->size());
    });
}

int mgsim_batch_begin(void) noexcept {
    std::lock_guard<std::mutex> guard(process_mutex());
    return batch_begin() ? 0 : -1;
}

int mgsim_batch_end(void) noexcept {
    std::lock_guard<std::mutex> guard(process_mutex());
    return batch_end() ? 0 : -1;
}

const char *mgsim_log_path(void) noexcept {
    static std::string path;
    path.clear();
    if (state_path() == nullptr) {
        path = log_path(nullptr);
    } else if (inspect([&](State &s) {
                   path = log_path(&s);
                   return 0;
               }) < 0) {
        return nullptr;
    }
    return path.empty() ? nullptr : path.c_str();
}

int mgsim_parse_log_line(const char *line, mgsim_call *call) noexcept {
    if (line == nullptr || call == nullptr) return invalid();
    mgsim_call c{};
    char sub[16] = "";
    int used = 0;
    if (sscanf(line, "pid=%ld sub=%15s ptr=%lx arg2=%ld len=%ld flag=%ld result=%ld errno=%d%n", &c.pid, sub,
               &c.ptr, &c.arg2, &c.len, &c.flag, &c.result, &c.err, &used) != 8)
        return invalid();
    if (strcmp(sub, "probe") == 0) {
        c.sub = MGSIM_PROBE;
    } else {
        char *end = nullptr;
        c.sub = strtol(sub, &end, 10);
        if (end == sub || *end != '\0' || c.sub < 0) return invalid();
    }
    *call = c;
    return 0;
}

int mgsim_read_log(const char *path, mgsim_call *calls, int max) noexcept {
    std::string file;
    if (path) {
        file = path;
    } else {
        const char *p = mgsim_log_path();
        if (p == nullptr) return invalid();
        file = p;
    }
    FILE *f = fopen(file.c_str(), "r");
    if (f == nullptr) return errno == ENOENT ? 0 : -1;
    char line[512];
    int n = 0;
    while (fgets(line, sizeof line, f)) {
        mgsim_call c;
        if (mgsim_parse_log_line(line, &c) != 0) continue;
        if (calls && n < max) calls[n] = c;
        ++n;
    }
    fclose(f);
    return n;
}

int mgsim_dump(FILE *out, int table) noexcept {
    if (out == nullptr || table < MGSIM_ALL || table > MGSIM_T_LAST) return invalid();
    return inspect([&](State &s) { return mgsim_dump_state(out, s, table); });
}

}  // extern "C"
