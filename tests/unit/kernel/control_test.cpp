// Module control against the simulated kernel: status, labels, command
// privileges, the privileged file operations and the label snapshots.
#include <mossgrove/kernel.h>
#include <mossgrove/stores.h>
#include "common/paths.hpp"
#include "kernel/control.hpp"
#include "mgsim.h"
#include "sandbox.hpp"
#include "testsupport.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/capability.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

using mgtest::run_in_child;
using mgtest::TempDir;

struct SimTest : ::testing::Test {
    void SetUp() override {
        // Children that run under other uids share the simulated kernel.
        old_umask_ = umask(0);
        ASSERT_EQ(chmod(dir_.path().c_str(), 0755), 0);
        ASSERT_FALSE(mgsim_use_state((dir_ / "state").c_str()) || mgsim_reset() || mgsim_set_log(log_.c_str()));
    }
    void TearDown() override {
        umask(old_umask_);
        mgsim_use_state(nullptr);
        mg::paths::override_for_tests(nullptr, nullptr, nullptr);
    }
    // Sub-commands of system call 223 made since the last call (probes left out).
    std::vector<long> subs() {
        std::vector<mgsim_call> calls(4096);
        const int n = std::min(mgsim_read_log(log_.c_str(), calls.data(), 4096), 4096), from = n_seen_;
        n_seen_ = std::max(n, 0);
        std::vector<long> out;
        for (int i = from; i < n; ++i)
            if (calls[i].sub != MGSIM_PROBE) out.push_back(calls[i].sub);
        return out;
    }
    static long made(const std::vector<long> &s, long sub) { return std::count(s.begin(), s.end(), sub); }
    void running_as(int role, int level) {
        ASSERT_FALSE(mgsim_set_status(MG_STATUS_RUNNING) || mgsim_set_proc_label(0, role, level, 0));
    }

    TempDir dir_;
    std::string log_ = dir_ / "calls.log";
    int n_seen_ = 0;
    mode_t old_umask_ = 022;
};

TEST_F(SimTest, StatusSuspendAndModuleType) {
    running_as(0, 0);
    subs();
    EXPECT_EQ(module_suspend(), 0);
    EXPECT_EQ(get_module_status(), MG_STATUS_SUSPENDED);
    EXPECT_TRUE(made(subs(), 3));
    EXPECT_EQ(module_suspend(), 1);
    EXPECT_FALSE(made(subs(), 3));
    const struct { const char *version; int type; } cases[] = {{"x.y.6", 0}, {"x.y.7", 1}, {"x.y.4", 1}, {"2.0.12", 0}, {"nodot", -1}};
    for (const auto &c : cases) {
        ASSERT_EQ(mgsim_set_version(c.version), 0);
        EXPECT_EQ(CheckModuleType(), c.type) << c.version;
    }
    ASSERT_EQ(mgsim_set_fail("1:5"), 0);
    EXPECT_EQ(get_module_status(), MG_STATUS_FAILED);
    EXPECT_EQ(module_suspend(), -1);
    ASSERT_EQ(mgsim_set_absent(1), 0);
    EXPECT_EQ(get_module_status(), MG_STATUS_ABSENT);
    EXPECT_EQ(mg_checkmodule2(), MG_STATUS_ABSENT);
    int status = -1;  // the message is err_sys's, checked with the common helpers
    mgtest::capture_stdout([] { mg_checkmodule(0); }, &status);
    EXPECT_EQ(status, 1);
}

TEST_F(SimTest, SetLabelsChangeOnlyTheNamedFields) {
    const int pid = getpid();
    ASSERT_EQ(mgsim_set_proc_label(pid, 5, 3, 77), 0);
    EXPECT_EQ(set_proc_mls(pid, -1, 2, -1), 0);
    int label = 0;
    ASSERT_EQ(get_proc_mls(pid, &label), 0);
    EXPECT_EQ(label, MG_PLABEL(5, 2, 77));
    EXPECT_EQ(set_proc_auth(pid, 6, -1, 1), 0);
    EXPECT_EQ(mgsim_get_proc_label(pid, nullptr, nullptr, nullptr), MG_PLABEL(6, 2, 1));
    // The flag bit of a file label is always kept.
    const std::string file = dir_ / "f";
    mgtest::write_file(file, "x");
    ASSERT_EQ(mgsim_set_file_label(file.c_str(), 1, 1, 3, 10), 0);
    EXPECT_EQ(set_file_mls(file.c_str(), 2, 5, -1), 0);
    ASSERT_EQ(get_file_mls(file.c_str(), &label), 0);
    EXPECT_EQ(label, MG_FLABEL(2, 1, 5, 10));
    subs();
    EXPECT_EQ(set_proc_mls(pid, -1, -1, -1), -1);
    EXPECT_EQ(set_file_mls(file.c_str(), -1, -1, -1), -1);
    EXPECT_TRUE(subs().empty());
    // Unreadable labels read as failure, with the label 0.
    ASSERT_EQ(mgsim_set_fail("12:13,22:13"), 0);
    label = 99;
    EXPECT_EQ(get_proc_mls(pid, &label), -1);
    EXPECT_EQ(label, 0);
    EXPECT_EQ(get_file_mls(file.c_str(), &label), -1);
    EXPECT_EQ(get_pprole(), -1);
}

// Runs fn in a child whose real and effective uids are set first.
int as_uids(uid_t ruid, uid_t euid, int (*fn)()) {
    return run_in_child([&] { return setresuid(ruid, euid, 0) == 0 ? fn() : 99; });
}

TEST_F(SimTest, PrivilegeRulesByStateAndLabel) {
    const struct {
        int status, role, level;
        const char *fail;
        int so, root, mu, sosd;  // sosd: asked by a child, whose parent holds the label
    } cases[] = {
        {MG_STATUS_RUNNING, MG_ROLE_SO, 1, "", 0, 0, 0, 0},
        {MG_STATUS_RUNNING, MG_ROLE_SO, 2, "", -1, -1, 0, -1},  // root's uid does not count while running
        {MG_STATUS_RUNNING, 3, 1, "", -1, -1, 0, -1},
        {MG_STATUS_RUNNING, 2, 1, "", -1, -1, -1, -1},
        // An unreadable label reads as role 7, level 7: only the MLS user rule allows.
        {MG_STATUS_RUNNING, MG_ROLE_SO, 1, "12:13", -1, -1, 0, -1},
        // Otherwise the root rule looks at the effective uid, SOSD only when stopped.
        {MG_STATUS_STOPPED, MG_ROLE_SO, 1, "", -1, 0, -1, 0},
        {MG_STATUS_ABSENT, MG_ROLE_SO, 1, "", -1, 0, -1, -1},
    };
    const int me = getpid();
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "status " << c.status << " label " << c.role << "/" << c.level << " " << c.fail);
        ASSERT_FALSE(mgsim_reset() || mgsim_set_proc_label(0, c.role, c.level, 0) || mgsim_set_fail(c.fail));
        ASSERT_EQ(c.status == MG_STATUS_ABSENT ? mgsim_set_absent(1) : mgsim_set_status(c.status), 0);
        EXPECT_EQ(CheckCmdExecPrivSO(me), c.so);
        EXPECT_EQ(CheckCmdExecPrivRoot(me), c.root);
        EXPECT_EQ(CheckCmdExecPrivMU(me), c.mu);
        EXPECT_EQ(run_in_child([] { return -CheckCmdExecPrivSOSD(); }), -c.sosd);
    }
    // Stopped: the root rule takes the effective uid, SOSD the real one.
    ASSERT_FALSE(mgsim_reset() || mgsim_set_status(MG_STATUS_STOPPED));
    auto root_rule = [] { return -CheckCmdExecPrivRoot(getpid()); };
    auto sosd_rule = [] { return -CheckCmdExecPrivSOSD(); };
    EXPECT_EQ(as_uids(0, 1000, root_rule), 1);
    EXPECT_EQ(as_uids(1000, 0, root_rule), 0);
    EXPECT_EQ(as_uids(1000, 0, sosd_rule), 1);
    EXPECT_EQ(as_uids(0, 1000, sosd_rule), 0);
}

// Makes /dev/<name> the sandbox's pseudo-terminal and the standard input.
void console_on(const std::string &slave, const std::string &name) {
    const std::string dev = "/dev/" + name;
    mgtest::write_file(dev, "", 0600);
    ASSERT_EQ(mount(slave.c_str(), dev.c_str(), nullptr, MS_BIND, nullptr), 0);
    ASSERT_TRUE(freopen(dev.c_str(), "r+", stdin));
}

MG_SANDBOX_TEST(Console, OnlyTty1IsTheConsole) {
    ASSERT_FALSE(mgsim_use_state((sb.scratch() + "/state").c_str()) || mgsim_reset() || mgsim_set_status(MG_STATUS_RUNNING));
    int master = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_TRUE(master >= 0 && grantpt(master) == 0 && unlockpt(master) == 0);
    const std::string slave = ptsname(master);
    const int parent = getppid();
    EXPECT_EQ(CheckCmdExecPriv(3), 0);  // kinds without a rule

    ASSERT_TRUE(freopen("/dev/null", "r", stdin));
    EXPECT_EQ(CheckCmdExecConsole(), -1);
    console_on(slave, "tty2");
    EXPECT_EQ(CheckCmdExecConsole(), -1);
    ASSERT_EQ(mgsim_set_proc_label(parent, 5, 0, 0), 0);

    console_on(slave, "tty1");
    EXPECT_EQ(CheckCmdExecConsole(), 0);
    EXPECT_EQ(CheckCmdExecPrivChpw(), 0);
    EXPECT_EQ(CheckCmdExecPriv(4), 0);
    EXPECT_EQ(CheckCmdExecPriv(1), -1);
    ASSERT_EQ(mgsim_set_proc_label(parent, MG_ROLE_SO, 1, 0), 0);
    EXPECT_EQ(CheckCmdExecPrivChpw(), -1);
    EXPECT_EQ(CheckCmdExecPriv(1), 0);
    EXPECT_EQ(CheckCmdExecPriv(2), 0);
    ASSERT_EQ(mgsim_set_status(MG_STATUS_STOPPED), 0);
    EXPECT_EQ(CheckCmdExecPriv(1), 0);  // root's effective uid
    EXPECT_EQ(CheckCmdExecPriv(2), -1);
    close(master);
}

TEST_F(SimTest, ResetOfAllProcessesNeedsTheRunningOfficer) {
    const struct { int role, status; long resets; } cases[] = {
        {MG_ROLE_SO, MG_STATUS_RUNNING, 1}, {3, MG_STATUS_RUNNING, 0}, {MG_ROLE_SO, MG_STATUS_STOPPED, 0}};
    for (const auto &c : cases) {
        ASSERT_FALSE(mgsim_set_proc_label(0, c.role, 1, 0) || mgsim_set_status(c.status));
        subs();
        EXPECT_EQ(run_in_child([] { return -proc_all_reset(); }), 1 - c.resets) << c.role << " " << c.status;
        EXPECT_EQ(made(subs(), 79), c.resets);
    }
}

// Drops the capabilities that let root past file modes, keeping uid 0.
bool drop_dac_override() {
    __user_cap_header_struct hdr{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2] = {};
    if (syscall(SYS_capget, &hdr, data) != 0) return false;
    data[0].effective &= ~((1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH));
    return syscall(SYS_capset, &hdr, data) == 0;
}

TEST_F(SimTest, RefusedAccessIsRetriedAsTheOfficerWhoseLabelNeedsTokenRootAndARunningModule) {
    const std::string file = dir_ / "locked";
    mgtest::write_file(file, "secret", 0);
    running_as(0, 0);
    subs();
    const char *path = file.c_str();
    EXPECT_EQ(run_in_child([path] {
        if (!drop_dac_override()) return 10;
        struct stat st;
        if (MG_stat(path, &st) != 0) return 11;  // stat needs no file permission
        if (MG_open2(path, O_RDONLY) != -1 || errno != EACCES) return 12;
        if (_sys_getmp(getpid()) != MG_PLABEL(MG_ROLE_SO, 1, 1)) return 13;
        if (MG_fopen(path, "r") != nullptr || errno != EACCES) return 14;
        return 0;
    }), 0);
    EXPECT_EQ(made(subs(), 13), 1) << "one raise, then already the officer";

    EXPECT_EQ(SetSOProc("_arm"), -1);
    EXPECT_EQ(as_uids(0, 1000, [] { return SetSOProc("_arm_") == -1 ? 0 : 1; }), 0);
    EXPECT_TRUE(subs().empty());
    ASSERT_EQ(mgsim_set_fail("13:1"), 0);
    EXPECT_EQ(SetSOProc("_arm_"), -1);
    ASSERT_EQ(mgsim_set_fail(""), 0);
    EXPECT_EQ(SetSOProc("_arm_"), 0);
    running_as(0, 0);
    ASSERT_EQ(mgsim_set_status(MG_STATUS_STOPPED), 0);
    EXPECT_EQ(SetSOProc("_arm_"), 0);
    EXPECT_EQ(get_cprole(), 0);
}

TEST_F(SimTest, SnapshotsKeepTheOldOnFailureAndWithoutRootAreQuietSuccess) {
    const std::string data_ = dir_ / "data", mls_file_ = data_ + "/mls_file";
    ASSERT_EQ(mkdir(data_.c_str(), 0755), 0);
    mgtest::write_file(dir_ / "evmg", "MG_ROOT=" + dir_.path() + "/\n");
    mg::paths::override_for_tests((dir_ / "evmg").c_str(), nullptr, nullptr);
    for (const char *name : {"a", "b"}) {
        mgtest::write_file(dir_ / name, name);
        ASSERT_EQ(mgsim_set_file_label((dir_ / name).c_str(), 1, 0, 2, 5), 0);
    }
    ASSERT_FALSE(mgsim_set_file_label(data_.c_str(), 2, 1, 4, 6) || mgsim_set_status(MG_STATUS_STOPPED));  // stopped still answers
    EXPECT_EQ(module_sync(), 0);
    std::string kernel(2 * MG_MLS_LABEL_RECORD_SIZE, '\0');
    ASSERT_EQ(_sys_get_file_mls(kernel.data(), 2), 2);
    EXPECT_EQ(mgtest::read_file(mls_file_), kernel);
    EXPECT_EQ(mgtest::read_file(data_ + "/mls_dir").size(), 1u * MG_MLS_LABEL_RECORD_SIZE);

    mgtest::write_file(mls_file_, "old");
    ASSERT_EQ(mgsim_set_fail("60:5"), 0);
    EXPECT_EQ(sync_file_mls(), -1);
    EXPECT_EQ(mgtest::read_file(mls_file_), "old");
    EXPECT_FALSE(mgtest::exists(mls_file_ + ".tmp"));
    EXPECT_EQ(module_sync(), -1);

    // A link under the temporary name is refused, not followed.
    ASSERT_EQ(mgsim_set_fail(""), 0);
    const std::string victim = dir_ / "victim";
    mgtest::write_file(victim, "keep");
    ASSERT_EQ(symlink(victim.c_str(), (mls_file_ + ".tmp").c_str()), 0);
    EXPECT_EQ(MG_ERRNO_OF(sync_file_mls()), MG_ERR_TEMPFILE);
    EXPECT_EQ(mgtest::read_file(victim), "keep");

    // Without an installation root nothing is done, quietly.
    mg::paths::override_for_tests((dir_ / "none").c_str(), nullptr, nullptr);
    ASSERT_EQ(unlink(mls_file_.c_str()), 0);
    subs();
    EXPECT_EQ(sync_file_mls(), 0);
    EXPECT_FALSE(mgtest::exists(mls_file_));
    EXPECT_TRUE(subs().empty());
}

}  // namespace
