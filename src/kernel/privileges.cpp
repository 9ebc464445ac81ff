// May the calling command run? Console and role rules; 0 allowed, -1 refused.
//
// The rules read the packed label without testing for failure: an unreadable
// label (-1) reads as role 7, level 7, category 127, so the MLS user rule
// allows while the officer, root, SOSD and password-change rules refuse.
#include <mossgrove/kernel.h>
#include "kernel/control.hpp"

#include <unistd.h>

#include <cstring>

namespace {

constexpr int kAllowed = 0;
constexpr int kRefused = -1;
constexpr int kRoleChpw = 5;  // the password-change program
constexpr int kRoleMU = 3;    // lowest role of an MLS user

int verdict(bool ok) { return ok ? kAllowed : kRefused; }

bool is_officer(int label) { return MG_PLABEL_ROLE(label) == MG_ROLE_SO && MG_PLABEL_LEVEL(label) == 1; }

}  // namespace

int CheckCmdExecConsole(void) noexcept {
    if (!isatty(STDIN_FILENO)) return kRefused;
    char name[256];
    if (ttyname_r(STDIN_FILENO, name, sizeof name) != 0) return kRefused;
    return verdict(strcmp(name, "/dev/tty1") == 0);
}

int CheckCmdExecPrivSO(int pid) noexcept {
    return verdict(mg::kernel::module_running() && is_officer(_sys_getmp(pid)));
}

int CheckCmdExecPrivMU(int pid) noexcept {
    return verdict(mg::kernel::module_running() && MG_PLABEL_ROLE(_sys_getmp(pid)) >= kRoleMU);
}

// Any state but running falls back to the effective uid (deliberately unlike
// CheckCmdExecPrivSOSD).
int CheckCmdExecPrivRoot(int pid) noexcept {
    if (mg::kernel::module_running()) return verdict(is_officer(_sys_getmp(pid)));
    return verdict(geteuid() == 0);
}

// Only the stopped state falls back, and to the real uid.
int CheckCmdExecPrivSOSD(void) noexcept {
    switch (get_module_status()) {
        case MG_STATUS_RUNNING: return verdict(is_officer(_sys_getmp(getppid())));
        case MG_STATUS_STOPPED: return verdict(getuid() == 0);
        default: return kRefused;
    }
}

int CheckCmdExecPrivChpw(void) noexcept {
    if (CheckCmdExecConsole() != kAllowed) return kRefused;
    pid_t parent = getppid();
    if (parent < 0 || !mg::kernel::module_running()) return kRefused;
    return verdict(MG_PLABEL_ROLE(_sys_getmp(parent)) == kRoleChpw);
}

int CheckCmdExecPriv(int kind) noexcept {
    switch (kind) {
        case 1:
            return verdict(CheckCmdExecConsole() == kAllowed && CheckCmdExecPrivRoot(getppid()) == kAllowed);
        case 2:
            return verdict(CheckCmdExecConsole() == kAllowed && CheckCmdExecPrivSO(getppid()) == kAllowed);
        case 4: return CheckCmdExecPrivChpw();
        default: return kAllowed;
    }
}
