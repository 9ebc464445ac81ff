// The simulator as processes see it: presence and forwarding, failure rules
// shared by processes, one kernel state shared by concurrent and killed
// callers, damaged state and LD_PRELOAD. (Each sub-command's answers are
// exercised through the library by the gateway, kernel and PAM tests, and a
// dlopen'ed caller by the PAM system tests, which load the module via libpam.)
#include "mgsim.h"
#include "records.hpp"
#include "state.hpp"
#include "testsupport.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <mossgrove/kernel.h>

#include <cerrno>
#include <string>
#include <vector>

namespace {

// The value of one call, and errno when it is -1.
std::pair<long, int> k(long sub, const void *ptr = nullptr, long arg2 = 0, long len = 0, long flag = 0) {
    errno = 0;
    long r = syscall(223, sub, reinterpret_cast<long>(ptr), arg2, len, flag);
    return {r, r == -1 ? errno : 0};
}
std::pair<long, int> probe() {
    errno = 0;
    long r = syscall(SYS_kill, MG_PROBE_PID, MG_PROBE_SIG);
    return {r, r == -1 ? errno : 0};
}
const std::pair<long, int> kOk{0, 0};
std::pair<long, int> err(int e) { return {-1, e}; }

class Process : public ::testing::Test {
protected:
    void SetUp() override {
        unsetenv("MGSIM_FAIL");
        unsetenv("MGSIM_ABSENT");
        ASSERT_EQ(0, mgsim_use_state(state_.c_str()));
        ASSERT_EQ(0, mgsim_reset());
    }
    void TearDown() override { mgsim_use_state(nullptr); }
    mgtest::TempDir dir_;
    std::string state_ = dir_ / "state";
};

TEST_F(Process, PresentAbsentAndForwarded) {
    EXPECT_EQ(kOk, probe());
    ASSERT_EQ(0, mgsim_set_absent(1));
    EXPECT_EQ(err(ESRCH), probe());
    EXPECT_EQ(err(ENOSYS), k(2));
    ASSERT_EQ(0, mgsim_set_absent(0));
    mgsim_use_state(nullptr);  // no state file: absent
    EXPECT_EQ(err(ESRCH), probe());
    mgsim_use_state(state_.c_str());
    // Everything else reaches the real kernel; a success leaves errno alone.
    EXPECT_EQ(err(EBADF), (std::pair<long, int>{syscall(SYS_close, -1), errno}));
    errno = 1234;
    syscall(223, 14L, 0L, 0L, 0L, 0L);
    EXPECT_EQ(1234, errno);
}

TEST_F(Process, CountedFailureRulesAreSharedByProcesses) {
    ASSERT_EQ(0, mgsim_set_fail("2:16:2,15:10012"));
    EXPECT_EQ(0, mgtest::run_in_child([] { return k(2) == err(EBUSY) ? 0 : 1; }));
    EXPECT_EQ(err(EBUSY), k(2));
    EXPECT_EQ(kOk, k(2));
    setenv("MGSIM_FAIL", "15:2", 1);  // the environment wins
    mgsim::MuRecord u;
    EXPECT_EQ(err(ENOENT), k(15, &u, 0, 0));
    unsetenv("MGSIM_FAIL");
}

TEST_F(Process, ConcurrentWritersLoseNoUpdate) {
    constexpr int kWriters = 3, kEach = 20;
    std::vector<pid_t> kids;
    for (int w = 0; w < kWriters; ++w) {
        pid_t pid = fork();
        if (pid == 0) {
            int failures = 0;
            for (int i = 0; i < kEach; ++i) {
                mgsim::KillAcl e{};
                snprintf(e.path, sizeof e.path, "/a/rather/long/program/path/w%d/p%d", w, i);
                if (k(44, &e) != kOk) ++failures;
            }
            _exit(failures == 0 ? 0 : 1);
        }
        kids.push_back(pid);
    }
    for (pid_t pid : kids) {
        int st = 0;
        EXPECT_TRUE(waitpid(pid, &st, 0) == pid && st == 0);
    }
    EXPECT_EQ(kWriters * kEach, mgsim_count(MGSIM_T_KILL));
    EXPECT_EQ(0, mgsim_check());
}

TEST_F(Process, CallerKilledMidCallLeavesAUsableState) {
    ASSERT_EQ(0, mgsim_batch_begin());  // a large state: every rewrite takes a while
    std::vector<mgsim::MuRecord> users(300, mgsim::MuRecord{});
    for (size_t i = 0; i < users.size(); ++i) users[i].uid = static_cast<int32_t>(1000 + i);
    ASSERT_EQ(kOk, k(17, users.data(), 0, static_cast<long>(users.size())));
    ASSERT_EQ(0, mgsim_batch_end());
    for (int round = 0; round < 6; ++round) {
        pid_t pid = fork();
        if (pid == 0)
            for (unsigned i = 0;; ++i) {
                MGProcLabel self{static_cast<unsigned char>(i % 8), {0, 0, 0}, 0, 0, 0};
                k(13, &self, 0, 16);
            }
        usleep(2000 + 2500 * round);
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        ASSERT_EQ(0, mgsim_check()) << "round " << round;
        ASSERT_EQ(300, mgsim_count(MGSIM_T_MU));
    }
}

TEST_F(Process, DamagedStateIsResetAndSaidSo) {
    ASSERT_EQ(0, mgsim_set_status(1));
    const std::string good = mgtest::read_file(state_);
    mgsim::FileHeader h;
    memcpy(&h, good.data(), sizeof h);
    std::string flipped = good;
    flipped[h.offset + h.length - 3] ^= 0x40;  // caught by the checksum
    mgtest::write_file(state_, flipped);
    EXPECT_EQ(1, mgsim_check());
    for (const std::string &damage : {std::string("garbage"), good.substr(0, h.offset + h.length - 1)}) {
        mgtest::write_file(state_, damage);
        EXPECT_EQ(1, mgsim_check());
        const std::string err_file = dir_ / "stderr";
        mgtest::run_in_child([&] {
            dup2(open(err_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
            MGModuleInfo info;
            return k(1, &info, 0, 72) == kOk && info.status == 0 ? 0 : 1;
        });
        EXPECT_EQ("mgsim: state file " + state_ + " is damaged; reset to a fresh state\n",
                  mgtest::read_file(err_file));
        EXPECT_EQ(0, mgsim_check());
    }
}

TEST_F(Process, PreloadedCallersReachTheSimulator) {
    ASSERT_EQ(0, mgsim_set_status(MG_STATUS_STOPPED));

    for (const std::string &state : {state_, std::string()}) {
        std::string out = mgtest::capture_stdout([&] {
            std::string asan = "verify_asan_link_order=0";
            if (const char *old = getenv("ASAN_OPTIONS")) asan = std::string(old) + ":" + asan;
            setenv("ASAN_OPTIONS", asan.c_str(), 1);
            setenv("LD_PRELOAD", MGSIM_PRELOAD_LIB, 1);
            state.empty() ? unsetenv("MGSIM_STATE") : setenv("MGSIM_STATE", state.c_str(), 1);
            execl(MGSIM_PRELOAD_HELPER, MGSIM_PRELOAD_HELPER, static_cast<char *>(nullptr));
            _exit(127);
        });
        EXPECT_EQ(state.empty() ? "probe=-1 start=-1 status=0 getpid=ok\n" : "probe=0 start=0 status=1 getpid=ok\n",
                  out);
    }
    EXPECT_EQ(MG_STATUS_RUNNING, mgsim_get_status());
}

}  // namespace
