// What the module asks of the kernel module (simulated): registration of
// accepted logins, the label raise around secure-log writes, the user's MLS
// label in violation entries, and what happens when those calls fail.
#include "harness.hpp"

#include "mgsim.h"

#include <mossgrove/kernel.h>
#include <mossgrove/labels.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <span>
#include <tuple>

namespace mgsys {
namespace {

std::vector<MGLoginOrigin> origins() {
    std::vector<MGLoginOrigin> out(64);
    int n = mgsim_read_table(MGSIM_T_ORIGIN, out.data(), static_cast<int>(out.size()));
    out.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return out;
}

// Forgets the registered origins (and injections) between cases: a freshly
// loaded module, running.
void clear_origins() { ASSERT_TRUE(mgsim_reset() == 0 && mgsim_set_status(1) == 0); }

// Loads MLS user and category records into the simulated kernel through
// system call 223 (sub-commands 17 and 21), as the library's loaders do.
void load_label(int uid, int level, int category, int role, const char *category_name) {
    MGMlsUser mu{};
    mu.uid = uid, mu.level = level, mu.cid = category, mu.role = static_cast<unsigned char>(role);
    ASSERT_EQ(syscall(223, 17, &mu, 0, 1, 0), 0) << std::strerror(errno);
    MGCategory cat{};  // none: the read fails, level 0
    cat.id = category;
    std::snprintf(cat.name, sizeof cat.name, "%s", category_name ? category_name : "");
    ASSERT_EQ(syscall(223, 21, &cat, 0, category_name ? 1 : 0, 0), 0) << std::strerror(errno);
}

MG_WORLD_SUITE(KernelFacing, Kernel::present);

MG_WORLD_TEST(KernelFacing, AcceptedLoginsAreRegisteredWithTerminalAndAddress) {
    w.modes("on", "on");
    int master = posix_openpt(O_RDWR | O_NOCTTY);  // a real pseudo-terminal of the sandbox
    ASSERT_TRUE(master >= 0 && grantpt(master) == 0 && unlockpt(master) == 0);
    const std::string pty = std::string(ptsname(master)).substr(5);
    struct stat st{};
    ASSERT_EQ(stat(("/dev/" + pty).c_str(), &st), 0);

    ASSERT_EQ(w.account("alice", from("10.0.0.5", "/dev/" + pty)).rc, PAM_SUCCESS);
    auto list = origins();
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(std::tuple(list[0].tty_major, list[0].tty_minor, list[0].pid, list[0].addr),
              std::tuple(int32_t(major(st.st_rdev)), int32_t(minor(st.st_rdev)), getpid(), inet_addr("10.0.0.5")));
    EXPECT_STREQ(list[0].addr_text, "10.0.0.5");

    // Opening the session registers again (same process: one record), by name too.
    ASSERT_EQ(w.open_session("alice", from("build-host", pty)).rc, PAM_SUCCESS);
    list = origins();
    ASSERT_EQ(list.size(), 1u);
    EXPECT_STREQ(list[0].addr_text, "10.1.2.3");

    // su never registers; without the terminal device only sshd does (terminal 0, 0).
    w.user_rules("bob", "x:-:sshd:*::\n");
    for (auto [service, tty, registered] : {std::tuple{"su", "pts/0", 0u}, {"login", "pts/77", 0u}, {"sshd", "pts/77", 1u}}) {
        SCOPED_TRACE(service);
        clear_origins();
        EXPECT_EQ(w.account("alice", from("10.0.0.5", tty), service).rc, PAM_SUCCESS);
        list = origins();
        ASSERT_EQ(list.size(), registered);
        if (registered == 1) {
            EXPECT_EQ(std::pair(list[0].tty_major, list[0].tty_minor), std::pair(0, 0));
        }
    }
    // Refused logins are not registered; a failing registration changes nothing for the login.
    clear_origins();
    EXPECT_EQ(w.account("bob", from("10.0.0.5", "pts/0")).rc, PAM_PERM_DENIED);
    ASSERT_EQ(mgsim_set_fail("64:1"), 0);
    EXPECT_EQ(w.account("alice", from("10.0.0.5", "pts/0")).rc, PAM_SUCCESS);
    EXPECT_EQ(w.open_session("alice", from("10.0.0.5", "pts/0")).rc, PAM_SUCCESS);
    EXPECT_TRUE(origins().empty());
    close(master);
    w.clear_logs();
}

MG_WORLD_TEST(KernelFacing, TheLabelIsRaisedAroundSecureLogWritesAndOnlyTheRoleRestored) {
    w.modes("on", "on");
    ASSERT_EQ(mgsim_set_proc_label(getpid(), 2, 3, 5), 0);
    std::ofstream(mgsim_log_path(), std::ios::trunc);
    ASSERT_EQ(w.account("alice", from("10.0.0.5")).rc, PAM_SUCCESS);  // with "allowlog": one entry
    // Set-up: read, raise, restore; the entry: read, raise, restore.
    std::vector<mgsim_call> calls(4096);
    int n = std::min(mgsim_read_log(nullptr, calls.data(), 4096), 4096);
    std::vector<long> labels;
    for (const mgsim_call &c : std::span(calls.data(), static_cast<size_t>(std::max(n, 0))))
        if (c.pid == getpid() && (c.sub == 12 || c.sub == 13)) labels.push_back(c.sub);
    EXPECT_EQ(labels, (std::vector<long>{12, 13, 13, 12, 13, 13}));
    int role = -1, level = -1, category = -1;  // level and category deliberately not restored
    ASSERT_GE(mgsim_get_proc_label(getpid(), &role, &level, &category), 0);
    EXPECT_EQ(std::tuple(role, level, category), std::tuple(2, 0, 0));

    EXPECT_EQ(w.take_audit().size(), 1u);
}

MG_WORLD_TEST(KernelFacing, EntriesFallBackToSyslogWhenTheFileCannotBeUsed) {
    w.modes("on", "on");
    w.audit_sink = World::AuditSink::syslog;
    const std::string allowed = "User 'alice (from 10.0.0.5)' has allowed to connect to 'sshd' service.";
    // The raise is refused (set-up without a file), then no installation root: entries to syslog.
    ASSERT_EQ(mgsim_set_fail("13:1"), 0);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(w.account("alice", from("10.0.0.5")).rc, PAM_SUCCESS);
        auto audit = w.take_audit();
        ASSERT_EQ(audit.size(), 1u);
        EXPECT_EQ(entry_text(audit[0], 0, 1), allowed);
        ASSERT_TRUE(mgsim_set_fail(nullptr) == 0 && (i == 1 || unlink("/etc/.evmg") == 0));
    }
    // Back to normal: the file.
    w.sb.write_etc(".evmg", "MG_ROOT=" + w.root + "\n");
    w.audit_sink = World::AuditSink::file;
    EXPECT_EQ(w.account("alice", from("10.0.0.5")).rc, PAM_SUCCESS);
    EXPECT_EQ(w.take_audit().size(), 1u);
    EXPECT_EQ(w.take_module_syslog(), Lines{});
}

MG_WORLD_TEST(KernelFacing, ViolationEntriesCarryTheUsersKernelLabel) {
    w.modes("on", "on");
    w.default_rules("x:-:ftp:*::\n");
    const std::string detail = "RemoteHost=10.0.0.5 ServiceName=ftp RemoteUser=(unknown)";
    const std::string message = "'ftp' access is denied by user 'alice' from '10.0.0.5' [by default rule].";
    for (auto [role, code, category] : {std::tuple{1, "MU", "finance"}, {2, "SA", nullptr},
                                        {3, "SO", "payroll-and-finance-department-x"}}) {
        SCOPED_TRACE(code);
        load_label(5001, 3, 5, role, category);
        EXPECT_EQ(w.account("alice", from("10.0.0.5"), "ftp").rc, PAM_PERM_DENIED);
        auto audit = w.take_audit();
        ASSERT_EQ(audit.size(), 1u);
        EXPECT_EQ(entry_text(audit[0], kEventAccess, 2),
                  violation_text(message, "alice", code, category ? 3 : 0, category ? category : "", "ftp", "Deny", detail));
    }
}

}  // namespace
}  // namespace mgsys
