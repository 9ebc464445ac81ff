// The writer's opens go through the privileged wrappers: a refused open makes
// the process take the security officer's label (simulated kernel module) and
// try once more.
#include <mossgrove/seclog.h>

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <string>

#include "mgsim.h"
#include "sandbox.hpp"
#include "seclog_test_util.hpp"

using namespace seclogtest;

namespace {

// Root without the capabilities that bypass file permissions, for this thread.
void drop_dac_override() {
    __user_cap_header_struct hdr = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2] = {};
    ASSERT_EQ(0, syscall(SYS_capget, &hdr, data));
    data[0].effective &= ~((1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH));
    ASSERT_EQ(0, syscall(SYS_capset, &hdr, data));
}

int calls_of(const std::string &log, long sub) {
    mgsim_call calls[512];
    int n = mgsim_read_log(log.c_str(), calls, 512);
    int count = 0;
    for (int i = 0; i < n && i < 512; ++i)
        if (calls[i].sub == sub && calls[i].pid == getpid()) ++count;
    return count;
}

MG_SANDBOX_TEST(SecureLogPrivileged, RefusedOpenIsRetriedAsSecurityOfficer) {
    const std::string calls = sb.scratch() + "/calls", logdir = sb.scratch() + "/log";
    ASSERT_EQ(0, mgsim_use_state((sb.scratch() + "/state").c_str()));
    ASSERT_EQ(0, mgsim_reset());
    ASSERT_EQ(0, mgsim_set_status(1));
    ASSERT_EQ(0, mgsim_set_log(calls.c_str()));
    // root's own log directory, but a lock file root may not open without its
    // capabilities.
    ASSERT_EQ(0, mkdir(logdir.c_str(), 0700));
    mgtest::write_file(logdir + "/mglog.lock", "");
    ASSERT_EQ(0, chmod((logdir + "/mglog.lock").c_str(), 0600));
    ASSERT_EQ(0, chown((logdir + "/mglog.lock").c_str(), 4242, 4242));
    drop_dac_override();

    reset_writer();
    ASSERT_EQ(0, InitSecureLog("MGLog", (logdir + "/mglog.01").c_str(), 1000, 2, 1));
    SecureLogRecord rec = record("refused");
    EXPECT_EQ(0, SaveSecureLog(MG_SECLOG_FILE, &rec));

    // The label was raised once (sub-command 13) and the open tried again; the
    // simulated module cannot lift the permission check, so the lock still fails.
    EXPECT_EQ(1, calls_of(calls, 13));
    int role = -1, level = -1, category = -1;
    ASSERT_GE(mgsim_get_proc_label(getpid(), &role, &level, &category), 0);
    EXPECT_EQ(7, role);
    auto got = sb.wait_syslog(2);
    ASSERT_EQ(2u, got.size());
    EXPECT_NE(std::string::npos,
              got[0].text.find("[lock fail - " + std::to_string(EACCES) + "]"))
        << got[0].text;
    mgsim_use_state(nullptr);
}

}  // namespace
