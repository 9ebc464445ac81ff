// The simulator as the other tests rely on it: one kernel state shared by
// concurrent and killed callers. (Each sub-command's answers, absent mode and
// failure rules seen by child processes are exercised through the library.)
#include <mossgrove/kernel.h>
#include "mgsim.h"
#include "records.hpp"
#include "testsupport.hpp"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <vector>

namespace {

// The value of one call, and errno when it is -1.
std::pair<long, int> k(long sub, const void *ptr = nullptr, long arg2 = 0, long len = 0) {
    errno = 0;
    long r = syscall(223, sub, reinterpret_cast<long>(ptr), arg2, len, 0L);
    return {r, r == -1 ? errno : 0};
}
const std::pair<long, int> kOk{0, 0};

struct Process : ::testing::Test {
    void SetUp() override {
        unsetenv("MGSIM_FAIL");
        ASSERT_FALSE(mgsim_use_state((dir_ / "state").c_str()) || mgsim_reset());
    }
    void TearDown() override { mgsim_use_state(nullptr); }
    mgtest::TempDir dir_;
};

TEST_F(Process, ConcurrentAndKilledCallersLeaveOneWholeState) {
    auto adder = [](int w) {
        int failures = 0;
        for (int i = 0; i < 10; ++i) {
            mgsim::KillAcl e{};
            snprintf(e.path, sizeof e.path, "/a/program/w%d/p%d", w, i);
            failures += k(44, &e) != kOk;
        }
        return failures;
    };
    pid_t other = fork();
    if (other == 0) _exit(adder(0));
    EXPECT_EQ(0, mgtest::run_in_child([&] { return adder(1); }));
    int st = -1;
    EXPECT_TRUE(waitpid(other, &st, 0) == other && st == 0);
    EXPECT_EQ(20, mgsim_count(MGSIM_T_KILL));
    std::vector<mgsim::MuRecord> users(300, mgsim::MuRecord{});  // every rewrite takes a while
    for (size_t i = 0; i < users.size(); ++i) users[i].uid = static_cast<int32_t>(1000 + i);
    ASSERT_EQ(kOk, k(17, users.data(), 0, static_cast<long>(users.size())));
    for (int round = 0; round < 3; ++round) {
        pid_t pid = fork();
        for (unsigned i = 0; pid == 0; ++i) {
            MGProcLabel self{static_cast<unsigned char>(i % 8), {0, 0, 0}, 0, 0, 0};
            k(13, &self, 0, 16);
        }
        usleep(2000 + 4000 * round);
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        ASSERT_EQ(0, mgsim_check()) << "round " << round;
        ASSERT_EQ(300, mgsim_count(MGSIM_T_MU));
    }
}

}  // namespace
