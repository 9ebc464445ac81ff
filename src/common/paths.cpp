#include "common/paths.hpp"

#include <unistd.h>

#include <cstdlib>
#include <string>

namespace mg::paths {
namespace {

constexpr const char *kEvmgDefault = "/etc/.evmg";
constexpr const char *kPamAclDirDefault = "/etc/security/pam_acl_conf";

bool g_pinned = false;
std::string g_evmg, g_pam_acl_dir, g_utmpx;  // test overrides; empty = none

}  // namespace

const char *evmg() noexcept {
    if (!g_evmg.empty()) return g_evmg.c_str();
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
    return g_pam_acl_dir.empty() ? kPamAclDirDefault : g_pam_acl_dir.c_str();
}

const char *utmpx() noexcept { return g_utmpx.empty() ? nullptr : g_utmpx.c_str(); }

void pin_system_defaults() noexcept { g_pinned = true; }

void override_for_tests(const char *evmg, const char *pam_acl_dir, const char *utmpx) noexcept {
    try {
        g_evmg = evmg ? evmg : "";
        g_pam_acl_dir = pam_acl_dir ? pam_acl_dir : "";
        g_utmpx = utmpx ? utmpx : "";
    } catch (...) {
        // Test-only hook: an allocation failure leaves the defaults in force.
    }
}

}  // namespace mg::paths
