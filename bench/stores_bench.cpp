// Policy stores at the scale of a real site: what one management call costs
// with thousands of accounts, MLS users and rule entries, beside a floor
// measured in the same run.
//
// Everything runs in the test sandbox (a private /etc inside its own mount
// namespace, so the host's accounts are never touched) with a scratch
// installation root on disk. The kernel module is replaced by a gateway
// stand-in compiled into this program: it answers every sub-command the
// stores use from in-memory tables with no search (hash look-ups and the
// copies a kernel makes anyway), and the time spent in it is reported apart
// as the kernel share, so the library's own cost is the rest.
//
// Floors:
//   rewrite   read the store file once and write it twice with fsync
//             (store and backup), at the size the store has after the call;
//   list      one getpwent pass plus one read of the kernel's MLS user list;
//   gateway   the same gateway calls made directly, plus the account look-up
//             each rule entry must have (getpwuid / getgrgid).
// Targets: every call within 3x its floor at 10,000 records; 1,000 -> 10,000
// records multiplies no call's time by more than 15; the call's peak resident
// memory within 3x the largest store it reads or writes plus 16 MB.
//
// Run it with scripts/bench-stores.sh. The README's "Policy stores at site
// scale" quotes a run and names, for every missed target, the function and
// the work behind it. Rows indented "of which ..." time a part of the call
// above them (or a reference such as a bare fgets pass) against its floor.
#include <mossgrove/kernel.h>
#include <mossgrove/labels.h>
#include <mossgrove/modctl.h>
#include <mossgrove/rules.h>
#include <mossgrove/sopass.h>
#include <mossgrove/stores.h>
#include "common/paths.hpp"
#include "sandbox.hpp"
#include "stores/accounts.hpp"

#include <dlfcn.h>
#include <fcntl.h>
#include <grp.h>
#include <malloc.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

double ms_since(Clock::time_point t0) {
    return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

// ---- Gateway stand-in ---------------------------------------------------------

struct FaclEntry {
    faclhdr hdr;
    std::vector<rulentry> rules;
};
struct FgroupEntry {
    fgrouphdr hdr;
    std::vector<rulentry> rules;
    std::vector<mpath> members;
};
struct AlsvcEntry {
    alsvc_hdr hdr;
    std::vector<alsvc_rule> rules;
};

// Copies up to len records of v to p, as the kernel's list calls do.
template <class T>
long copy_out(const std::vector<T> &v, void *p, long len) {
    size_t n = std::min(v.size(), static_cast<size_t>(std::max(len, 0L)));
    if (n != 0) memcpy(p, v.data(), n * sizeof(T));
    return static_cast<long>(n);
}

// A table of records unique by path, in the order they were added.
template <class T>
struct PathTable {
    std::vector<T> items;
    std::unordered_map<std::string, size_t> at;
    bool add(const T &r) {
        if (!at.emplace(r.path, items.size()).second) return false;
        items.push_back(r);
        return true;
    }
    void clear() { items.clear(), at.clear(); }
};

struct Kernel {
    std::vector<MGMlsUser> mu;
    // Entries are kept when the table is cleared (facl_n counts the live
    // ones) and refilled in place, so that a reload allocates nothing and
    // the stand-in's page faults never land in a measurement.
    std::vector<FaclEntry> facl;
    size_t facl_n = 0;
    std::unordered_map<std::string, size_t> facl_at;
    PathTable<kaclent> kacl;
    std::vector<FgroupEntry> fgroups;  // group n at index n - 1
    PathTable<suidaclent> suid;
    std::vector<AlsvcEntry> alsvc;  // table 0 (user rules) only
    std::unordered_map<int, size_t> alsvc_at;
    int status = MG_STATUS_RUNNING;
    long categories = 0;  // sub-command 18's answer (the categories are not held)
    double ms = 0;       // time spent answering
    long calls = 0;
    long unknown = 0;    // sub-commands the stand-in does not answer

    void clear_facl() { facl_n = 0, facl_at.clear(); }
    void add_facl(const faclhdr &h, const rulentry *r) {
        facl_at[h.path] = facl_n;
        if (facl_n == facl.size()) facl.emplace_back();
        FaclEntry &e = facl[facl_n++];
        e.hdr = h;
        e.rules.assign(r, r + h.rule_cnt);
    }
    void clear_alsvc() { alsvc.clear(), alsvc_at.clear(); }
    long fail(int e) {
        errno = e;
        return -1;
    }

    long answer(long sub, long ptr, long arg2, long len, long flag) {
        void *p = reinterpret_cast<void *>(ptr);
        switch (sub) {
            case 0:  // start
            case 1: {
                if (sub == 0) status = MG_STATUS_RUNNING;
                auto *b = static_cast<MGModuleInfo *>(p);
                *b = MGModuleInfo{};
                strcpy(b->version, "2.0.8");
                b->status = status;
                return 0;
            }
            case 14: return static_cast<long>(mu.size());
            case 16: return copy_out(mu, p, len);
            case 17: {
                auto *r = static_cast<const MGMlsUser *>(p);
                mu.assign(r, r + len);
                return 0;
            }
            case 18: return categories;
            case 29: {
                auto *h = static_cast<const faclhdr *>(p);
                std::string key(h->path);
                if (facl_at.count(key)) return fail(EEXIST);
                add_facl(*h, reinterpret_cast<const rulentry *>(arg2));
                return 0;
            }
            case 32: return static_cast<long>(facl_n);
            case 33: {
                size_t n = std::min(facl_n, static_cast<size_t>(std::max(len, 0L)));
                for (size_t i = 0; i < n; ++i) static_cast<faclhdr *>(p)[i] = facl[i].hdr;
                return static_cast<long>(n);
            }
            case 35: {
                auto *h = static_cast<const faclhdr *>(p);
                auto it = facl_at.find(h->path);
                if (it == facl_at.end()) return fail(ENOENT);
                const auto &e = facl[it->second];
                size_t n = std::min(e.rules.size(), static_cast<size_t>(h->rule_cnt));
                memcpy(reinterpret_cast<void *>(arg2), e.rules.data(), n * sizeof(rulentry));
                return 0;
            }
            case 36: clear_facl(); return 0;
            case 37: {  // a group is created afresh: the kernel numbers it
                auto *h = static_cast<const fgrouphdr *>(p);
                FgroupEntry e{*h, {}, {}};
                e.hdr.fgroup_id = static_cast<int32_t>(fgroups.size() + 1);
                auto *r = reinterpret_cast<const rulentry *>(arg2);
                auto *m = reinterpret_cast<const mpath *>(flag);
                if (h->rule_cnt > 0) e.rules.assign(r, r + h->rule_cnt);
                if (h->member_cnt > 0) e.members.assign(m, m + h->member_cnt);
                fgroups.push_back(std::move(e));
                return static_cast<long>(fgroups.size());
            }
            case 39: return static_cast<long>(fgroups.size());
            case 40: {
                size_t n = std::min(fgroups.size(), static_cast<size_t>(std::max(len, 0L)));
                for (size_t i = 0; i < n; ++i) static_cast<fgrouphdr *>(p)[i] = fgroups[i].hdr;
                return static_cast<long>(n);
            }
            case 42: {
                auto *h = static_cast<const fgrouphdr *>(p);
                if (h->fgroup_id < 1 || static_cast<size_t>(h->fgroup_id) > fgroups.size()) return fail(ENOENT);
                const FgroupEntry &e = fgroups[static_cast<size_t>(h->fgroup_id) - 1];
                if (!e.rules.empty()) memcpy(reinterpret_cast<void *>(arg2), e.rules.data(), e.rules.size() * sizeof(rulentry));
                if (!e.members.empty()) memcpy(reinterpret_cast<void *>(flag), e.members.data(), e.members.size() * sizeof(mpath));
                return 0;
            }
            case 43: fgroups.clear(); return 0;
            case 44: return kacl.add(*static_cast<const kaclent *>(p)) ? 0 : fail(EEXIST);
            case 47: return static_cast<long>(kacl.items.size());
            case 48: return copy_out(kacl.items, p, len);
            case 49: kacl.clear(); return 0;
            case 50: return suid.add(*static_cast<const suidaclent *>(p)) ? 0 : fail(EEXIST);
            case 53: return static_cast<long>(suid.items.size());
            case 54: return copy_out(suid.items, p, len);
            case 55: suid.clear(); return 0;
            case 65: {
                auto it = alsvc_at.find(static_cast<int>(len));
                return it == alsvc_at.end() ? 0 : static_cast<long>(alsvc[it->second].rules.size());
            }
            case 67: {
                auto it = alsvc_at.find(static_cast<int>(arg2));
                if (it == alsvc_at.end()) return fail(ENOENT);
                const auto &e = alsvc[it->second];
                size_t n = std::min(e.rules.size(), static_cast<size_t>(len));
                memcpy(p, e.rules.data(), n * sizeof(alsvc_rule));
                return static_cast<long>(n);
            }
            case 69: {
                auto *h = static_cast<const alsvc_hdr *>(p);
                auto *r = reinterpret_cast<const alsvc_rule *>(arg2);
                AlsvcEntry e{*h, std::vector<alsvc_rule>(r, r + h->rule_cnt)};
                auto it = alsvc_at.find(h->id);
                if (it != alsvc_at.end()) {
                    alsvc[it->second] = std::move(e);
                } else {
                    alsvc_at[h->id] = alsvc.size();
                    alsvc.push_back(std::move(e));
                }
                return 0;
            }
            case 73: clear_alsvc(); return 0;
            case 75: return static_cast<long>(alsvc.size());
            case 77: {
                size_t n = std::min(alsvc.size(), static_cast<size_t>(std::max(len, 0L)));
                for (size_t i = 0; i < n; ++i) static_cast<alsvc_hdr *>(p)[i] = alsvc[i].hdr;
                return static_cast<long>(n);
            }
            default: ++unknown; return fail(ENOSYS);
        }
    }
};

Kernel g_kernel;

using SyscallFn = long (*)(long, ...);
SyscallFn g_next_syscall = nullptr;

}  // namespace

// The library's gateway and presence probe reach the stand-in; every other
// system call goes on to the C library. Five arguments are taken (the
// gateway passes five; the sixth would come from the caller's stack, which
// holds it only when it was passed): nothing in this single-threaded program
// calls syscall() with six.
extern "C" long syscall(long nr, ...) noexcept {
    va_list ap;
    va_start(ap, nr);
    long a[5];
    for (long &v : a) v = va_arg(ap, long);
    va_end(ap);
    const bool probe = nr == SYS_kill && a[0] == MG_PROBE_PID && a[1] == MG_PROBE_SIG;
    if (nr != MG_SYSCALL_NR && !probe) return g_next_syscall(nr, a[0], a[1], a[2], a[3], a[4], 0L);
    auto t0 = Clock::now();
    long r = probe ? 0 : g_kernel.answer(a[0], a[1], a[2], a[3], a[4]);
    int saved = errno;
    g_kernel.ms += ms_since(t0);
    ++g_kernel.calls;
    errno = saved;
    return r;
}

namespace {

// ---- Measurement ------------------------------------------------------------------

struct Figure {
    std::string op;
    long size = 0;
    double ms = 0;         // time of one call (fastest repetition)
    double kernel_ms = 0;  // of which in the gateway stand-in
    double floor_ms = 0;
    std::string floor_kind;
    double peak_mb = 0;    // rise of the resident set during one call
    double store_mb = 0;   // largest store the call reads or writes
    bool at_target_size = false;
};

std::vector<Figure> g_figures;
int g_reps = 5;

// The fastest of the repetitions: the figure least disturbed by other work
// on a shared machine. Calls and floors are taken alike.
double best(const std::vector<double> &v) { return v.empty() ? 0 : *std::min_element(v.begin(), v.end()); }

long status_kb(const char *key) {
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind(key, 0) == 0) return std::atol(line.c_str() + strlen(key));
    return 0;
}

// Resident-set rise of one call: the peak mark is reset (clear_refs 5) after
// the allocator has handed its free memory back.
double peak_rise_mb(const std::function<void()> &call) {
    malloc_trim(0);
    { std::ofstream("/proc/self/clear_refs") << "5"; }
    long before = status_kb("VmRSS:");
    call();
    return static_cast<double>(status_kb("VmHWM:") - before) / 1024.0;
}

// Runs call reps times (prepare before each, untimed) and records the fastest.
Figure measure(const std::string &op, long size, const std::function<void()> &prepare,
               const std::function<void()> &call, int reps = 0) {
    Figure f;
    f.op = op;
    f.size = size;
    std::vector<double> t, k;
    // One untimed call first: the account databases and the store are then
    // in the page cache, and the allocator has its arenas, as in a tool that
    // runs more than once.
    prepare();
    call();
    for (int i = 0; i < (reps > 0 ? reps : g_reps); ++i) {
        prepare();
        double k0 = g_kernel.ms;
        auto t0 = Clock::now();
        if (i == 0) {
            f.peak_mb = peak_rise_mb(call);
        } else {
            call();
        }
        t.push_back(ms_since(t0));
        k.push_back(g_kernel.ms - k0);
    }
    // The kernel share of the fastest repetition.
    const size_t at = static_cast<size_t>(std::min_element(t.begin(), t.end()) - t.begin());
    f.ms = t[at];
    f.kernel_ms = k[at];
    return f;
}

double best_of(const std::function<double()> &sample, int reps = 0) {
    std::vector<double> v;
    for (int i = 0; i < (reps > 0 ? reps : g_reps); ++i) v.push_back(sample());
    return best(v);
}

// ---- Files ------------------------------------------------------------------------

std::string g_root;

std::string data_path(const std::string &name) { return g_root + "/data/" + name; }

void write_file(const std::string &path, const void *data, size_t size, mode_t mode = 0444) {
    unlink(path.c_str());
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd < 0 || (size > 0 && write(fd, data, size) != static_cast<ssize_t>(size)) || fchmod(fd, mode) != 0) {
        std::perror(path.c_str());
        std::exit(1);
    }
    close(fd);
}

long file_size(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? static_cast<long>(st.st_size) : 0;
}

void write_synced(const std::string &path, const char *data, size_t size) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd < 0 || write(fd, data, size) != static_cast<ssize_t>(size) || fsync(fd) != 0) std::perror(path.c_str());
    close(fd);
}

// The rewrite floor: the store read once, written twice with fsync.
double rewrite_floor_ms(const std::string &store) {
    return best_of([&] {
        auto t0 = Clock::now();
        std::string bytes;
        {
            std::ifstream in(store, std::ios::binary);
            std::ostringstream s;
            s << in.rdbuf();
            bytes = s.str();
        }
        write_synced(g_root + "/floor.a", bytes.data(), bytes.size());
        write_synced(g_root + "/floor.b", bytes.data(), bytes.size());
        return ms_since(t0);
    });
}

// ---- Accounts ----------------------------------------------------------------------

constexpr int kGroups = 50;
constexpr uid_t kUid0 = 100000;
std::string g_base_passwd, g_base_shadow, g_base_group;
int g_accounts = -1;

std::string read_text(const std::string &path) {
    std::ifstream in(path);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

std::string user_name(int i) {
    char b[16];
    snprintf(b, sizeof b, "u%06d", i);
    return b;
}
std::string group_name(int i) { return "grp" + std::to_string(i % kGroups); }
gid_t group_id(int i) { return kUid0 + static_cast<gid_t>(i % kGroups); }

// The sandbox's accounts plus n bench accounts u000000.. with uids from 100000.
void set_accounts(mgtest::Sandbox &sb, int n) {
    if (g_accounts == n) return;
    std::string pw = g_base_passwd, sh = g_base_shadow, gr = g_base_group;
    for (int g = 0; g < kGroups; ++g) gr += group_name(g) + ":x:" + std::to_string(group_id(g)) + ":\n";
    for (int i = 0; i < n; ++i) {
        std::string name = user_name(i);
        pw += name + ":x:" + std::to_string(kUid0 + i) + ":" + std::to_string(group_id(i)) + ":" + name +
              ":/home/" + name + ":/bin/sh\n";
        sh += name + ":$6$benchsalt$abcdefghijklmnopqrstuvwxyz0123456789:19000:0:99999:7:::\n";
    }
    sb.write_etc("passwd", pw);
    sb.write_etc("shadow", sh, 0640);
    sb.write_etc("group", gr);
    g_accounts = n;
}

MGMlsUser mls_user(int i) {
    MGMlsUser u{};
    u.uid = static_cast<int32_t>(kUid0 + i);
    u.gid = static_cast<int32_t>(group_id(i));
    u.level = 1;
    u.retry = 5;
    u.flags = MG_MU_ADDED;
    u.role = i == 0 ? MG_CAT_ROLE_SO : MG_CAT_ROLE_MU;
    snprintf(u.name, sizeof u.name, "%s", user_name(i).c_str());
    snprintf(u.group, sizeof u.group, "%s", group_name(i).c_str());
    snprintf(u.home, sizeof u.home, "/home/%s", user_name(i).c_str());
    return u;
}

// n MLS users (accounts 0..n-1) in the kernel, the store, its backup and the
// security password store.
void set_mls_users(int n) {
    std::vector<MGMlsUser> users;
    std::vector<MGSecPasswd> pw(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) {
        users.push_back(mls_user(i));
        MGSecPasswd &e = pw[static_cast<size_t>(i)];
        snprintf(e.name, sizeof e.name, "%s", users.back().name);
        e.retry = 5;
        e.marker = ' ';
        e.flags = MG_PW_IN_USE;
    }
    // The stand-in's table keeps room (already resident) for the adds, so
    // that the kernel's memory never counts as the library's.
    g_kernel.mu.assign(static_cast<size_t>(n) + 64, MGMlsUser{});
    g_kernel.mu.assign(users.begin(), users.end());
    write_file(data_path("mls_user"), users.data(), users.size() * sizeof(MGMlsUser));
    write_file(data_path(".mls_user_bak"), users.data(), users.size() * sizeof(MGMlsUser));
    write_file(g_root + "/etc/mgpasswd", pw.data(), pw.size() * sizeof(MGSecPasswd), 0400);
}

double mb(double bytes) { return bytes / (1024.0 * 1024.0); }

// ---- The measurements ---------------------------------------------------------------

// get_mls_user over a accounts of which m are MLS users, beside one getpwent
// pass and one read of the kernel's list.
void bench_get_mls_user(mgtest::Sandbox &sb, int accounts, int m, bool target) {
    set_accounts(sb, accounts);
    set_mls_users(m);
    Figure f = measure("get_mls_user (" + std::to_string(accounts) + " accounts)", m, [] {}, [] {
        MGMlsUser *list = nullptr;
        int count = 0;
        if (get_mls_user(&list, &count, 1) != 1) std::printf("  get_mls_user failed: errno %d\n", errno);
        free(list);
    });
    f.floor_kind = "list";
    f.floor_ms = best_of([] {
        auto t0 = Clock::now();
        long n = 0;
        setpwent();
        while (getpwent() != nullptr) ++n;
        endpwent();
        int k = _sys_getmu_num();
        std::vector<MGMlsUser> buf(static_cast<size_t>(std::max(k, 1)));
        _sys_getmu_list(buf.data(), &k);
        return ms_since(t0) + (n < 0 ? 1 : 0);
    });
    f.store_mb = mb(static_cast<double>(std::max(file_size(data_path("mls_user")), file_size("/etc/passwd"))));
    f.at_target_size = target;
    g_figures.push_back(f);

    // Where the time goes: the account list (which counts the accounts with
    // a getpwent pass of its own, then indexes the shadow database) and the
    // counting pass alone.
    Figure pw = measure("  of which get_mulist_pw", m, [] {}, [] {
        MGMlsUser *list = nullptr;
        int count = 0;
        if (get_mulist_pw(&list, &count) != 1) std::printf("  get_mulist_pw failed: errno %d\n", errno);
        free(list);
    });
    pw.floor_kind = "list";
    pw.floor_ms = f.floor_ms;
    pw.store_mb = f.store_mb;
    g_figures.push_back(pw);
    auto part = [&](const std::string &name, const std::function<void()> &call) {
        Figure x = measure(name, m, [] {}, call);
        x.floor_kind = "list";
        x.floor_ms = f.floor_ms;
        x.store_mb = f.store_mb;
        g_figures.push_back(x);
    };
    part("  of which get_num_pw", [] { get_num_pw(); });
    part("  of which the shadow index", [] {
        mg::stores::ShadowIndex shadow;
        if (!shadow.load()) std::printf("  shadow index failed\n");
    });
    // The list itself: one zeroed 1324-byte record per account, written once.
    part("  a list of that size, zeroed, written", [accounts] {
        auto *list = static_cast<MGMlsUser *>(calloc(static_cast<size_t>(accounts), sizeof(MGMlsUser)));
        for (int i = 0; list != nullptr && i < accounts; ++i) memset(&list[i], 1, sizeof(MGMlsUser));
        free(list);
    });
}

// One add_mls_user and one addmuent into a store of n MLS users (n + 1000
// accounts).
void bench_mls_adds(mgtest::Sandbox &sb, int n, int reps) {
    set_accounts(sb, n + 1000);
    set_mls_users(n);
    int next = n;
    Figure f = measure("add_mls_user", n, [] {}, [&] {
        // As a tool sends it: the account's record from the list, made an MU.
        MGMlsUser u = mls_user(next++);
        u.flags = 0;
        if (add_mls_user(&u, 1) != 1) std::printf("  add_mls_user failed: errno %d\n", errno);
    }, reps);
    // Floor: the list floor plus the store's rewrite floor plus the kernel write.
    const double list_floor = best_of([] {
        auto t0 = Clock::now();
        setpwent();
        while (getpwent() != nullptr) {
        }
        endpwent();
        int k = _sys_getmu_num();
        std::vector<MGMlsUser> buf(static_cast<size_t>(std::max(k, 1)));
        _sys_getmu_list(buf.data(), &k);
        _sys_setmu(buf.data(), k);
        return ms_since(t0);
    }, reps);
    f.floor_kind = "list+rewrite";
    f.floor_ms = list_floor + rewrite_floor_ms(data_path("mls_user"));
    f.store_mb = mb(static_cast<double>(file_size(data_path("mls_user"))));
    f.at_target_size = n == 10000;
    g_figures.push_back(f);

    set_mls_users(n);
    Figure g = measure("addmuent", n, [] {}, [&] {
        MGMlsUser u = mls_user(next++);
        if (addmuent(&u) != 1) std::printf("  addmuent failed: errno %d\n", errno);
    }, reps);
    g.floor_kind = "rewrite";
    g.floor_ms = rewrite_floor_ms(data_path("mls_user"));
    g.store_mb = mb(static_cast<double>(file_size(data_path("mls_user"))));
    g.at_target_size = n == 10000;
    g_figures.push_back(g);

    // Part of both adds: the security password store's rewrite.
    Figure h = measure("  of which add_mgpwdent", n, [] {}, [&] {
        MGSecPasswd e{};
        snprintf(e.name, sizeof e.name, "%s", user_name(next++).c_str());
        e.retry = 5;
        e.marker = ' ';
        e.flags = MG_PW_IN_USE;
        if (add_mgpwdent(&e) != 1) std::printf("  add_mgpwdent failed: errno %d\n", errno);
    }, reps);
    h.floor_kind = "rewrite";
    h.floor_ms = rewrite_floor_ms(g_root + "/etc/mgpasswd");
    h.store_mb = mb(static_cast<double>(file_size(g_root + "/etc/mgpasswd")));
    g_figures.push_back(h);
}

constexpr int kRulesPerPath = 25;

rulentry rule(int kind, int j) {
    rulentry r{};
    r.in_use = 1;
    r.perm = 0x07;
    if (kind == 1) {
        r.type = MG_RULE_USER;
        r.id = kUid0 + static_cast<uint32_t>(j);
        snprintf(r.name, sizeof r.name, "%s", user_name(j).c_str());
    } else if (kind == 2) {
        r.type = MG_RULE_GROUP;
        r.id = group_id(j);
        snprintf(r.name, sizeof r.name, "%s", group_name(j).c_str());
    } else {
        r.type = MG_RULE_EVERYONE;
        snprintf(r.path, sizeof r.path, "/usr/bin/prog%d", j % 10);
    }
    return r;
}

// n rule entries: n / 25 protected paths of 25 rules (user, group, everyone;
// everyone only when named is false).
void set_file_acls(int n, bool named = true) {
    g_kernel.clear_facl();
    for (int p = 0; p < n / kRulesPerPath; ++p) {
        faclhdr h{};
        snprintf(h.path, sizeof h.path, "/srv/data/project%05d", p);
        h.rule_cnt = kRulesPerPath;
        rulentry rules[kRulesPerPath];
        for (int j = 0; j < kRulesPerPath; ++j) rules[j] = rule(named ? j % 3 : 0, p + j);
        g_kernel.add_facl(h, rules);
    }
}

void bench_add_file_acl(mgtest::Sandbox &sb, int n) {
    set_accounts(sb, 2000);
    set_file_acls(n);
    int next = 0;
    std::vector<rulentry> rules;
    for (int j = 0; j < 3; ++j) rules.push_back(rule(j, 7 + j));
    Figure f = measure("add_file_acl", n, [] {}, [&] {
        faclhdr h{};
        snprintf(h.path, sizeof h.path, "/srv/new/path%06d", next++);
        h.rule_cnt = static_cast<int32_t>(rules.size());
        if (add_file_acl(&h, rules.data()) != 0) std::printf("  add_file_acl failed: errno %d\n", errno);
    });
    f.floor_kind = "gateway";
    f.floor_ms = best_of([&] {
        auto t0 = Clock::now();
        get_module_status();
        _sys_file_acl_cnt();
        getpwuid(rules[0].id);
        getgrgid(rules[1].id);
        faclhdr h{};
        snprintf(h.path, sizeof h.path, "/srv/floor/path%06d", next++);
        h.rule_cnt = static_cast<int32_t>(rules.size());
        _sys_add_file_acl(&h, rules.data());
        return ms_since(t0);
    });
    f.store_mb = mb(static_cast<double>(n) * sizeof(rulentry));
    f.at_target_size = n == 10000;
    g_figures.push_back(f);
}

// The dumps of the kernel tables to their stores, n records each.
void bench_dumps(mgtest::Sandbox &sb, int n, bool target) {
    set_accounts(sb, 2000);
    auto record = [&](const std::string &op, const std::string &store, long size, const std::function<void()> &call) {
        Figure f = measure(op, size, [] {}, call);
        f.floor_kind = "rewrite";
        f.floor_ms = rewrite_floor_ms(store);
        f.store_mb = mb(static_cast<double>(file_size(store)));
        f.at_target_size = target;
        g_figures.push_back(f);
    };

    set_file_acls(n);
    record("dump_file_acl", data_path("acl_file"), n, [] {
        if (dump_file_acl() != 0) std::printf("  dump_file_acl failed: errno %d\n", errno);
    });

    // The kill ACL holds at most 1,024 entries: it is measured at a tenth.
    const int kills = n / 10;
    g_kernel.kacl.clear();
    for (int i = 0; i < kills; ++i) {
        kaclent k{};
        snprintf(k.path, sizeof k.path, "/usr/sbin/daemon%05d", i);
        k.denymask = MG_DENY_ALL;
        g_kernel.kacl.add(k);
    }
    record("dump_kill_acl", data_path("acl_kill"), kills, [] {
        if (dump_kill_acl() != 0) std::printf("  dump_kill_acl failed: errno %d\n", errno);
    });

    // File groups: n / 20 groups (at most 512) of 2 rules for everyone and
    // 18 members, n records in all.
    g_kernel.fgroups.clear();
    for (int g = 0; g < n / 20; ++g) {
        FgroupEntry e{};
        e.hdr.fgroup_id = g + 1;
        snprintf(e.hdr.name, sizeof e.hdr.name, "group%04d", g);
        e.hdr.rule_cnt = 2;
        e.hdr.member_cnt = 18;
        for (int j = 0; j < 2; ++j) e.rules.push_back(rule(0, j));
        for (int j = 0; j < 18; ++j) {
            mpath m{};
            snprintf(m.path, sizeof m.path, "/srv/groups/g%04d/member%02d", g, j);
            e.members.push_back(m);
        }
        g_kernel.fgroups.push_back(e);
    }
    record("dump_fgroup", data_path("acl_fgroup"), n, [] {
        if (dump_fgroup() != 0) std::printf("  dump_fgroup failed: errno %d\n", errno);
    });

    // The setuid ACL holds at most 1,024 entries, as the kill ACL.
    g_kernel.suid.clear();
    for (int i = 0; i < kills; ++i) {
        suidaclent e{};
        e.flag = i % 2;
        snprintf(e.path, sizeof e.path, "/usr/local/bin/tool%05d", i);
        g_kernel.suid.add(e);
    }
    record("dump_setuid_acl", data_path("acl_setuid"), kills, [] {
        if (dump_setuid_acl() != 0) std::printf("  dump_setuid_acl failed: errno %d\n", errno);
    });

    // n service rules: n / 10 user headers of 10 rules.
    g_kernel.clear_alsvc();
    for (int h = 0; h < n / 10; ++h) {
        AlsvcEntry e{};
        e.hdr.id = static_cast<int32_t>(kUid0 + h);
        e.hdr.rule_cnt = 10;
        snprintf(e.hdr.name, sizeof e.hdr.name, "%s", user_name(h).c_str());
        for (int j = 0; j < 10; ++j) {
            alsvc_rule r{};
            r.value1 = j;
            r.value2 = 1;
            r.ipaddr = 0x0100000a;
            snprintf(r.service, sizeof r.service, "svc%d", j);
            e.rules.push_back(r);
        }
        g_kernel.alsvc_at[e.hdr.id] = g_kernel.alsvc.size();
        g_kernel.alsvc.push_back(e);
    }
    record("export_rule_to_file", data_path("alsvc_user"), n, [] {
        if (export_rule_to_file(0, nullptr) != 0) std::printf("  export_rule_to_file failed: errno %d\n", errno);
    });

    std::vector<MGMlsUser> users;
    for (int i = 0; i < n; ++i) users.push_back(mls_user(i));
    record("dump_udb_file", data_path("mls_user"), n, [&] {
        if (dump_udb_file(users.data(), n) != 1) std::printf("  dump_udb_file failed: errno %d\n", errno);
    });
}

// The loads a module start runs, each from the store the dumps just wrote
// into an empty kernel table. Floor: the store read once plus the gateway
// calls themselves (the stand-in's share of the same calls); loadmuent also
// refreshes from the account database and rewrites its store, so its floor is
// one getpwent pass plus the rewrite floor.
void bench_loads(mgtest::Sandbox &sb, int n, bool target) {
    auto record = [&](const std::string &op, const std::string &store, long size, const std::function<void()> &clear,
                      const std::function<void()> &call) {
        Figure f = measure(op, size, clear, call);
        const double read_ms = best_of([&] {
            auto t0 = Clock::now();
            std::ifstream in(store, std::ios::binary);
            std::ostringstream text;
            text << in.rdbuf();
            return ms_since(t0) + (text.str().empty() ? 1 : 0);
        });
        f.floor_kind = "read+gateway";
        f.floor_ms = read_ms + f.kernel_ms;
        f.store_mb = mb(static_cast<double>(file_size(store)));
        f.at_target_size = target;
        g_figures.push_back(f);
    };
    // What a text store costs before any field is parsed: its lines split
    // with fgets, read from memory.
    auto lines_only = [&](const std::string &store, long size) {
        const std::string text = read_text(store);
        Figure f = measure("  lines only (fgets pass)", size, [] {}, [&] {
            FILE *in = fmemopen(const_cast<char *>(text.data()), text.size(), "r");
            char line[2048];
            long lines = 0;
            while (in != nullptr && fgets(line, sizeof line, in) != nullptr) ++lines;
            if (in != nullptr) fclose(in);
            if (lines == 0) std::printf("  %s: no lines\n", store.c_str());
        });
        f.floor_kind = "read+gateway";
        f.floor_ms = g_figures.back().floor_ms;
        f.store_mb = g_figures.back().store_mb;
        g_figures.push_back(f);
    };
    record("load_file_acl", data_path("acl_file"), n, [] { g_kernel.clear_facl(); }, [] {
        if (load_file_acl() != 0) std::printf("  load_file_acl failed: errno %d\n", errno);
    });
    lines_only(data_path("acl_file"), n);
    {
        // The rules' user names are first looked up one by one (getpwnam, a
        // scan of the account file each) before the account index is built.
        Figure f = measure("  2 getpwnam + 1 getpwent pass", n, [] {}, [] {
            for (int i = 0; i < 2; ++i) getpwnam(user_name(i * 97).c_str());
            setpwent();
            while (getpwent() != nullptr) {
            }
            endpwent();
        });
        f.floor_kind = "read+gateway";
        f.floor_ms = g_figures[g_figures.size() - 2].floor_ms;
        f.store_mb = g_figures[g_figures.size() - 2].store_mb;
        g_figures.push_back(f);
    }
    // The same load with no rule naming an account or a group.
    set_file_acls(n, false);
    if (dump_file_acl() != 0) std::printf("  dump_file_acl failed: errno %d\n", errno);
    record("  load_file_acl, no named rules", data_path("acl_file"), n, [] { g_kernel.clear_facl(); }, [] {
        if (load_file_acl() != 0) std::printf("  load_file_acl failed: errno %d\n", errno);
    });
    g_figures.back().at_target_size = false;
    record("load_kill_acl", data_path("acl_kill"), n / 10, [] { g_kernel.kacl.clear(); }, [] {
        if (load_kill_acl() != 0) std::printf("  load_kill_acl failed: errno %d\n", errno);
    });
    record("load_fgroup", data_path("acl_fgroup"), n, [] { g_kernel.fgroups.clear(); }, [] {
        if (load_fgroup() != 0) std::printf("  load_fgroup failed: errno %d\n", errno);
    });
    record("load_setuid_acl", data_path("acl_setuid"), n / 10, [] { g_kernel.suid.clear(); }, [] {
        if (load_setuid_acl() != 0) std::printf("  load_setuid_acl failed: errno %d\n", errno);
    });
    record("load_rule_from_file", data_path("alsvc_user"), n, [] { g_kernel.clear_alsvc(); }, [] {
        if (load_rule_from_file(0) != 0) std::printf("  load_rule_from_file failed: errno %d\n", errno);
    });
    lines_only(data_path("alsvc_user"), n);

    set_accounts(sb, n + 1000);
    set_mls_users(n);
    Figure f = measure("loadmuent", n, [] { g_kernel.mu.clear(); }, [] {
        if (loadmuent() != 0) std::printf("  loadmuent failed: errno %d\n", errno);
    });
    f.floor_kind = "pass+rewrite";
    f.floor_ms = rewrite_floor_ms(data_path("mls_user")) + best_of([] {
        auto t0 = Clock::now();
        setpwent();
        while (getpwent() != nullptr) {
        }
        endpwent();
        return ms_since(t0);
    });
    f.store_mb = mb(static_cast<double>(file_size(data_path("mls_user"))));
    f.at_target_size = target;
    g_figures.push_back(f);
}

// module_start with the stores bench_loads left on disk (n records each) and
// every kernel table empty. The stand-in holds the MLS users, the file ACL,
// the file groups, the kill and setuid ACL and the user service rules; it
// reports the categories loaded and does not answer the other tables a start
// fills, so those are skipped as on a kernel that refuses them. Floor: the
// floors of the loads it runs.
void bench_module_start(int n) {
    const long unknown = g_kernel.unknown;
    g_kernel.categories = 2;
    Figure f = measure("module_start", n, [] {
        g_kernel.mu.clear();
        g_kernel.clear_facl();
        g_kernel.kacl.clear();
        g_kernel.clear_alsvc();
        g_kernel.fgroups.clear();
        g_kernel.suid.clear();
        g_kernel.status = MG_STATUS_STOPPED;
    }, [] {
        MGModuleInfo block{};
        if (module_start(&block) != 0) std::printf("  module_start failed: errno %d\n", errno);
        if (g_kernel.mu.empty() || g_kernel.facl_n == 0 || g_kernel.kacl.items.empty() || g_kernel.alsvc.empty() ||
            g_kernel.fgroups.empty() || g_kernel.suid.items.empty())
            std::printf("  module_start left a table empty\n");
    });
    g_kernel.categories = 0;
    g_kernel.status = MG_STATUS_RUNNING;
    g_kernel.unknown = unknown;
    f.floor_kind = "loads";
    for (const char *op : {"  load_file_acl, no named rules", "load_fgroup", "load_setuid_acl", "load_kill_acl",
                           "load_rule_from_file", "loadmuent"})
        for (auto it = g_figures.rbegin(); it != g_figures.rend(); ++it)
            if (it->op == op) {
                f.floor_ms += it->floor_ms;
                f.store_mb = std::max(f.store_mb, it->store_mb);
                break;
            }
    f.at_target_size = true;
    g_figures.push_back(f);
}

// ---- Report ------------------------------------------------------------------------

constexpr double kTimeTarget = 3.0;
constexpr double kGrowthTarget = 15.0;
int g_missed = 0;

const char *verdict(bool ok) {
    if (!ok) ++g_missed;
    return ok ? "met" : "MISSED";
}

void report() {
    std::printf("\n%-34s %7s %10s %9s %10s %-13s %6s %-14s %8s %-16s\n", "call", "records", "ms", "kernel ms",
                "floor ms", "floor", "ratio", "target <=3x", "peak MB", "target MB");
    for (const Figure &f : g_figures) {
        const double ratio = f.floor_ms > 0 ? f.ms / f.floor_ms : 0;
        const double mem_target = 3 * f.store_mb + 16;
        std::printf("%-34s %7ld %10.3f %9.3f %10.3f %-13s %6.2f %-14s %8.1f %6.1f %-9s\n", f.op.c_str(), f.size, f.ms,
                    f.kernel_ms, f.floor_ms, f.floor_kind.c_str(), ratio,
                    f.at_target_size ? verdict(ratio <= kTimeTarget) : "(info)", f.peak_mb, mem_target,
                    verdict(f.peak_mb <= mem_target));
    }
    std::printf("\ngrowth from 1,000 to 10,000 records (target: at most %.0fx; get_mls_user: 2,000/500 to "
                "20,000/5,000)\n",
                kGrowthTarget);
    for (const Figure &big : g_figures) {
        if (!big.at_target_size) continue;
        for (const Figure &small : g_figures) {
            if (small.op != big.op && !(small.op.rfind("get_mls_user", 0) == 0 && big.op.rfind("get_mls_user", 0) == 0))
                continue;
            if (small.size * 10 != big.size) continue;
            const double growth = small.ms > 0 ? big.ms / small.ms : 0;
            const double floor_growth = small.floor_ms > 0 ? big.floor_ms / small.floor_ms : 0;
            std::printf("  %-34s %7ld -> %-7ld %8.2fx  %-6s  (its floor: %.2fx)\n", big.op.c_str(), small.size,
                        big.size, growth, verdict(growth <= kGrowthTarget), floor_growth);
        }
    }
}

}  // namespace

int main(int argc, char **argv) {
    bool quick = false;
    std::string profile;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--quick") == 0) {
            quick = true;
        } else if (strcmp(argv[i], "--profile") == 0 && i + 1 < argc) {
            profile = argv[++i];
        } else {
            std::fprintf(stderr,
                         "usage: stores_bench [--quick]\n"
                         "       stores_bench --profile get_mls_user|add_mls_user|loads|load_rule_from_file|"
                         "load_file_acl|load_fgroup\n");
            return 2;
        }
    }
    g_next_syscall = reinterpret_cast<SyscallFn>(dlsym(RTLD_NEXT, "syscall"));
    if (g_next_syscall == nullptr || geteuid() != 0) {
        std::fprintf(stderr, "stores_bench: needs root (it runs in a private mount namespace)\n");
        return 1;
    }
    g_reps = quick ? 3 : 5;
    setvbuf(stdout, nullptr, _IOLBF, 0);

    mgtest::Sandbox sb(mgtest::Sandbox::SyslogReader::discarding_process);
    g_base_passwd = read_text("/etc/passwd");
    g_base_shadow = read_text("/etc/shadow");
    g_base_group = read_text("/etc/group");

    // A scratch installation root on disk, so that fsync costs what it costs.
    char dir[] = "/var/tmp/mg-stores-bench.XXXXXX";
    if (mkdtemp(dir) == nullptr) {
        std::perror("mkdtemp");
        return 1;
    }
    g_root = dir;
    mkdir((g_root + "/data").c_str(), 0755);
    mkdir((g_root + "/etc").c_str(), 0755);
    mg::paths::override_root(g_root.c_str());
    if (chk_mgrootdir() != 1 || set_dbpath() != 1 || set_pwpath() != 1) {
        std::fprintf(stderr, "stores_bench: the scratch root %s is not usable\n", dir);
        return 1;
    }

    if (!profile.empty()) {
        // One kind of call repeated, to run under perf: get_mls_user (20,000
        // accounts, 5,000 MLS users), add_mls_user (10,000 of 11,000), the
        // loads at 10,000 records, load_rule_from_file alone, or
        // load_file_acl with and without named rules interleaved
        // (STORES_BENCH_ROUNDS rounds, 400 by default).
        if (profile == "get_mls_user") {
            bench_get_mls_user(sb, 20000, 5000, true);
            g_reps = 30;
            bench_get_mls_user(sb, 20000, 5000, true);
        } else if (profile == "load_rule_from_file") {
            bench_dumps(sb, 10000, true);
            for (int i = 0; i < 2000; ++i) {
                g_kernel.clear_alsvc();
                load_rule_from_file(0);
            }
        } else if (profile == "load_file_acl") {
            // Named and unnamed rules interleaved: fastest and median of each.
            set_accounts(sb, 2000);
            std::vector<double> t[2];
            const int rounds = getenv("STORES_BENCH_ROUNDS") != nullptr ? atoi(getenv("STORES_BENCH_ROUNDS")) : 400;
            for (int i = 0; i < rounds; ++i) {
                const bool named = i % 2 == 0;
                set_file_acls(10000, named);
                dump_file_acl();
                g_kernel.clear_facl();
                auto t0 = Clock::now();
                load_file_acl();
                t[named ? 1 : 0].push_back(ms_since(t0));
            }
            for (int named = 0; named < 2; ++named) {
                std::sort(t[named].begin(), t[named].end());
                std::printf("load_file_acl, 10,000 rules, %s: fastest %.3f ms, median %.3f ms\n",
                            named ? "named" : "no named", t[named].front(), t[named][t[named].size() / 2]);
            }
        } else if (profile == "load_fgroup") {
            bench_dumps(sb, 10000, true);
            for (int i = 0; i < 1000; ++i) {
                g_kernel.fgroups.clear();
                load_fgroup();
            }
        } else if (profile == "loads") {
            bench_dumps(sb, 10000, true);
            g_reps = 200;
            bench_loads(sb, 10000, true);
        } else {
            bench_mls_adds(sb, 10000, 20);
        }
        report();
        std::string cleanup = "rm -rf '" + g_root + "'";
        return std::system(cleanup.c_str()) == 0 ? 0 : 1;
    }

    std::printf("stores_bench: policy stores at site scale (%s run)\n", quick ? "quick" : "full");
    std::printf("  root %s (disk), accounts in a private /etc, kernel module: constant-time stand-in\n", dir);

    std::printf("get_mls_user ...\n");
    bench_get_mls_user(sb, 2000, 500, false);
    bench_get_mls_user(sb, 20000, 5000, true);

    std::vector<int> sizes = {1000, 10000};
    if (!quick) sizes.push_back(100000);
    for (int n : sizes) {
        std::printf("add_mls_user, addmuent, add_file_acl at %d records ...\n", n);
        bench_mls_adds(sb, n, n >= 100000 ? 3 : g_reps);
        bench_add_file_acl(sb, n);
    }
    for (int n : {1000, 10000}) {
        std::printf("dumps, then loads into empty kernel tables, at %d records ...\n", n);
        bench_dumps(sb, n, n == 10000);
        bench_loads(sb, n, n == 10000);
    }
    std::printf("module_start with every store at 10000 records ...\n");
    bench_module_start(10000);

    report();
    if (g_kernel.unknown > 0) std::printf("\nwarning: %ld gateway calls the stand-in does not answer\n", g_kernel.unknown);
    std::printf("\n%d target(s) missed\n", g_missed);

    std::string cleanup = "rm -rf '" + g_root + "'";
    if (std::system(cleanup.c_str()) != 0) std::fprintf(stderr, "could not remove %s\n", dir);
    return 0;
}
