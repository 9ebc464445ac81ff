// Cost of one simulated kernel call, by kind of call and size of the state.
//
// Every call locks the state file and reads it whole; a call that changes
// something also rewrites it. A row reports microseconds per call for the
// presence probe, a read (sub-command 14), a label write (13) and a file ACL
// add (29), with the state holding nothing, 1000 file ACL entries, or 4096
// MLS users with filled-in home directories, and the state file's size.
//
// usage: mgsim_bench [calls per measurement] [directory]   (defaults 2000, $TMPDIR or /tmp)
#include "mgsim.h"
#include "records.hpp"

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace {

long k(long sub, const void *ptr = nullptr, long arg2 = 0, long len = 0, long flag = 0) {
    return syscall(223, sub, reinterpret_cast<long>(ptr), arg2, len, flag);
}

double us_per_call(int n, const std::function<void(int)> &fn) {
    auto t0 = std::chrono::steady_clock::now();
    for (int i = 0; i < n; ++i) fn(i);
    std::chrono::duration<double, std::micro> d = std::chrono::steady_clock::now() - t0;
    return d.count() / n;
}

long file_size(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? static_cast<long>(st.st_size) : -1;
}

void fill_facl(int n) {
    struct {
        mgsim::FaclHdr hdr;
        mgsim::RuleEntry rule;
    } e;
    mgsim_batch_begin();
    for (int i = 0; i < n; ++i) {
        memset(&e, 0, sizeof e);
        snprintf(e.hdr.path, sizeof e.hdr.path, "/tmp/*.bench%d", i);
        e.hdr.rule_cnt = 1;
        e.rule.type = 1;
        e.rule.perm = 7;
        k(29, &e.hdr, reinterpret_cast<long>(&e.rule));
    }
    mgsim_batch_end();
}

void fill_users(int n) {
    std::vector<mgsim::MuRecord> users(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) {
        memset(&users[static_cast<size_t>(i)], 0, sizeof users[0]);
        users[static_cast<size_t>(i)].uid = 1000 + i;
        snprintf(users[static_cast<size_t>(i)].home, sizeof users[0].home, "/home/user%d", i);
    }
    k(17, users.data(), 0, n);
}

}  // namespace

int main(int argc, char **argv) {
    int n = argc > 1 ? atoi(argv[1]) : 2000;
    const char *tmp = getenv("TMPDIR");
    std::string dir = argc > 2 ? argv[2] : (tmp && *tmp ? tmp : "/tmp");
    std::string templ = dir + "/mgsim_bench.XXXXXX";
    if (n < 1 || mkdtemp(templ.data()) == nullptr) {
        fprintf(stderr, "usage: mgsim_bench [calls] [directory]\n");
        return 2;
    }
    std::string state = templ + "/state";
    mgsim_use_state(state.c_str());

    struct Setup {
        const char *name;
        std::function<void()> fill;
    };
    const Setup setups[] = {{"empty", [] {}}, {"1000 file ACL", [] { fill_facl(1000); }},
                            {"4096 MLS users", [] { fill_users(4096); }}};
    printf("%-16s %10s %10s %10s %10s %10s\n", "state", "bytes", "probe us", "read us", "label us", "facl us");
    for (const Setup &s : setups) {
        mgsim_reset();
        s.fill();
        long bytes = file_size(state);
        double probe = us_per_call(n, [](int) { syscall(SYS_kill, 6758L, 345L); });
        double read = us_per_call(n, [](int) { k(14); });
        double label = us_per_call(n, [](int i) {
            MGProcLabel b{static_cast<unsigned char>(i % 8), {0, 0, 0}, 0, 0, 0};
            k(13, &b, 0, 16);
        });
        int adds = n < 500 ? n : 500;  // the table grows with every add
        double facl = us_per_call(adds, [](int i) {
            struct {
                mgsim::FaclHdr hdr;
                mgsim::RuleEntry rule;
            } e;
            memset(&e, 0, sizeof e);
            snprintf(e.hdr.path, sizeof e.hdr.path, "/tmp/*.add%d", i);
            e.hdr.rule_cnt = 1;
            k(29, &e.hdr, reinterpret_cast<long>(&e.rule));
        });
        printf("%-16s %10ld %10.1f %10.1f %10.1f %10.1f\n", s.name, bytes, probe, read, label, facl);
    }
    unlink(state.c_str());
    unlink((state + ".lock").c_str());
    rmdir(templ.c_str());
    return 0;
}
