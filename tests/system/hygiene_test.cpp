// Resource hygiene of a long-lived login service: thousands of transactions
// in one process leak no memory, no descriptors and no token slots.
#include "harness.hpp"

#include "mgsim.h"

#include <dirent.h>
#include <dlfcn.h>
#include <malloc.h>
#include <unistd.h>

#include <security/pam_appl.h>

#include <chrono>
#include <cstdio>

extern "C" int __lsan_do_recoverable_leak_check() __attribute__((weak));

namespace mgsys {
namespace {

int open_descriptors() {
    int n = 0;
    DIR *dir = opendir("/proc/self/fd");
    if (dir == nullptr) return -1;
    while (dirent *e = readdir(dir))
        if (e->d_name[0] != '.') ++n;
    closedir(dir);
    return n - 1;  // the directory's own descriptor
}

int quiet_conv(int n, const pam_message **, pam_response **resp, void *) {
    *resp = static_cast<pam_response *>(calloc(static_cast<size_t>(n), sizeof(pam_response)));
    return *resp ? PAM_SUCCESS : PAM_BUF_ERR;
}

// One sshd transaction on one handle: the whole login (account, open, close).
bool login(const World &w, const char *user) {
    pam_conv conv{quiet_conv, nullptr};
    pam_handle_t *pamh = nullptr;
    if (pam_start_confdir("sshd", user, &conv, w.confdir.c_str(), &pamh) != PAM_SUCCESS) return false;
    pam_set_item(pamh, PAM_RHOST, "10.0.0.5");
    pam_set_item(pamh, PAM_TTY, "/dev/pts/3");
    bool ok = pam_acct_mgmt(pamh, 0) == PAM_SUCCESS && pam_open_session(pamh, 0) == PAM_SUCCESS &&
              pam_close_session(pamh, 0) == PAM_SUCCESS;
    pam_end(pamh, PAM_SUCCESS);
    return ok;
}

// Rules that send every call through the user, group and default files and
// the session counting of all four kinds.
void busy_policy(World &w) {
    w.modes("on", "on");
    w.user_rules("alice", "x:-:ftp:*::\n");
    w.group_rules("staff", "x:-:ftp:*::\n");
    w.group_rules("ops", "x:+:sshd:10.0.0.0/8::\n");
    w.default_rules("x:-:*:*::\n");
    w.acl_file("user_session.conf", "x:bob:1::\n");
    w.acl_file("group_session.conf", "x:ops:50::\n");
    w.acl_file("ip_session.conf", "x:10.0.0.0/8:50::\n");
    w.sb.add_utmpx("alice", "pts/1", "10.0.0.7");
}

class Hygiene : public ::testing::TestWithParam<Kernel> {};

TEST_P(Hygiene, ThousandsOfLoginsLeakNoMemoryDescriptorsOrTokenSlots) {
    in_world(GetParam(), [&](World &w) {
        busy_policy(w);
        // A long-lived service keeps the module loaded between transactions.
        void *module = dlopen(module_path(), RTLD_NOW);
        ASSERT_NE(module, nullptr) << dlerror();
        auto get_tokslot = reinterpret_cast<int (*)()>(dlsym(module, "get_tokslot"));
        auto return_tokslot = reinterpret_cast<void (*)(int)>(dlsym(module, "return_tokslot"));
        ASSERT_NE(get_tokslot, nullptr);
        ASSERT_NE(return_tokslot, nullptr);

        for (int i = 0; i < 100; ++i) ASSERT_TRUE(login(w, "alice"));  // warm-up: caches, first-use buffers
        w.clear_logs();
        const int fds = open_descriptors();
        const size_t heap = mallinfo2().uordblks;

        // A leak shows in a few thousand logins; with the simulated kernel
        // (a state file rewrite per kernel call) fewer do.
        const int logins = GetParam() == Kernel::absent ? 2000 : 500;
        mgsim_set_log(nullptr);
        auto t0 = std::chrono::steady_clock::now();
        int failed = 0;
        for (int i = 0; i < logins; ++i) {
            if (!login(w, "alice")) ++failed;
            if (i % 500 == 499) w.clear_logs();
        }
        auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0);
        std::printf("%d logins (account + open + close): %lld ms\n", logins, static_cast<long long>(ms.count()));
        EXPECT_EQ(failed, 0);
        w.clear_logs();

        EXPECT_EQ(open_descriptors(), fds);
        const size_t grown = mallinfo2().uordblks - heap;
        EXPECT_LT(grown, 64u * 1024) << "heap in use grew by " << grown << " bytes";
        // Every token slot is free again: ten can be taken, not eleven.
        for (int slot = 0; slot < 10; ++slot) EXPECT_EQ(get_tokslot(), slot);
        EXPECT_EQ(get_tokslot(), -1);
        for (int slot = 0; slot < 10; ++slot) return_tokslot(slot);
        if (__lsan_do_recoverable_leak_check != nullptr) {
            EXPECT_EQ(__lsan_do_recoverable_leak_check(), 0);
        }
        dlclose(module);
    });
}

INSTANTIATE_TEST_SUITE_P(System, Hygiene, ::testing::Values(Kernel::absent, Kernel::present), kernel_name);

}  // namespace
}  // namespace mgsys
