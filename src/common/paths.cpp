#include "common/paths.hpp"

#include <unistd.h>

#include <cstdlib>

#include "common/text.hpp"

namespace mg::paths {
namespace {

constexpr const char *kEvmgDefault = "/etc/.evmg";
constexpr const char *kPamAclDirDefault = "/etc/security/pam_acl_conf";

bool g_pinned = false;
constexpr size_t kPathBuf = 1024;
char g_evmg[kPathBuf], g_pam_acl_dir[kPathBuf], g_utmpx[kPathBuf], g_root[kPathBuf];  // overrides; empty = none

void set_override(char (&dst)[kPathBuf], const char *path) noexcept {
    mg::text::copy_cut(dst, sizeof dst, path != nullptr ? path : "");
}

}  // namespace

const char *evmg() noexcept {
    if (g_evmg[0] != '\0') return g_evmg;
    // Only unprivileged callers may move the installation root: a root tool
    // run with a kept environment (sudo, cron, a wrapper) must not be pointed
    // at stores it would then upload to the kernel.
    if (!g_pinned && getuid() != 0) {
        const char *env = secure_getenv(kEvmgEnv);
        if (env != nullptr && *env != '\0') return env;
    }
    return kEvmgDefault;
}

const char *pam_acl_dir() noexcept {
    return g_pam_acl_dir[0] == '\0' ? kPamAclDirDefault : g_pam_acl_dir;
}

const char *utmpx() noexcept { return g_utmpx[0] == '\0' ? nullptr : g_utmpx; }

void pin_system_defaults() noexcept { g_pinned = true; }

void override_for_tests(const char *evmg, const char *pam_acl_dir, const char *utmpx) noexcept {
    set_override(g_evmg, evmg);
    set_override(g_pam_acl_dir, pam_acl_dir);
    set_override(g_utmpx, utmpx);
}

void override_root(const char *root) noexcept { set_override(g_root, root); }

const char *root_override() noexcept { return g_root[0] != '\0' ? g_root : nullptr; }

}  // namespace mg::paths
