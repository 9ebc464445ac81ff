// Time windows of access rules, with the clock set by libfaketime. The
// binary re-executes itself with libfaketime preloaded when it is not, so it
// runs the same from ctest and by hand.
#include "faketime.hpp"
#include "harness.hpp"

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <tuple>

namespace mgsys {
namespace {

MG_WORLD_SUITE(TimeWindows, Kernel::absent, Kernel::present);

MG_WORLD_TEST(TimeWindows, HoursDaysMonthsAndWeekdays) {
    ASSERT_TRUE(mgtest::faketime_loaded()) << "libfaketime is not preloaded";
    w.modes("on", "on");
    w.default_rules("x:-:*:*::\n");
    const int ok = PAM_SUCCESS, no = PAM_PERM_DENIED;
    const struct { const char *window, *when; int rc; } cases[] = {
        // office hours, the end hour excluded, Monday (2024-01-15) to Friday; Sunday is 0
        {"9-17 * * 1-5", "2024-01-15 09:00:00", ok}, {"9-17 * * 1-5", "2024-01-15 16:59:59", ok},
        {"9-17 * * 1-5", "2024-01-15 17:30:00", no}, {"9-17 * * 1-5", "2024-01-15 08:59:59", no},
        {"9-17 * * 1-5", "2024-01-19 10:00:00", ok}, {"9-17 * * 1-5", "2024-01-20 10:00:00", no},
        {"9-17 * * 1-5", "2024-01-21 10:00:00", no}, {"* * * 0", "2024-01-21 10:00:00", ok},
        // a single hour is an empty range; days of the month and months include both ends
        {"9 * * *", "2024-01-15 09:30:00", no}, {"* 1-15 * *", "2024-01-15 23:59:59", ok},
        {"* 1-15 * *", "2024-01-16 00:00:00", no}, {"* 15 * *", "2024-02-15 12:00:00", ok},
        {"* * 1-3 *", "2024-03-31 12:00:00", ok}, {"* * 1-3 *", "2024-04-01 12:00:00", no},
        {"* * 12 *", "2024-12-01 12:00:00", ok}, {"0-24 * * *", "2024-06-30 23:59:59", ok},
        {"9-17 * *", "2024-01-15 10:00:00", no},  // fewer than three blanks: never
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.window) + " at " + c.when);
        w.user_rules("alice", "x:+:sshd:*:*:" + std::string(c.window) + "\n");
        ASSERT_EQ(setenv("FAKETIME", c.when, 1), 0);  // local time, UTC in the sandbox
        EXPECT_EQ(w.account("alice", from("10.0.0.5")).rc, c.rc);
    }
    w.clear_logs();

    // The entry carries the (faked) time of the event.
    w.user_rules("alice", "x:+:sshd:*:*:9-17 * * 1-5\n");
    ASSERT_EQ(setenv("FAKETIME", "2024-01-15 17:30:00", 1), 0);
    EXPECT_EQ(w.account("alice", from("10.0.0.5")).rc, PAM_PERM_DENIED);
    auto audit = w.take_audit();
    ASSERT_EQ(audit.size(), 1u);
    EXPECT_EQ(std::tuple(audit[0].event, audit[0].logged, audit[0].message),
              std::tuple(1705339800L, 1705339800L, access_violation(kernel, "sshd", "alice", "10.0.0.5", "default", "Deny")));
}

}  // namespace
}  // namespace mgsys

int main(int argc, char **argv) {
    // gtest's test listing (used by ctest discovery) needs no clock.
    bool listing = argc > 1 && std::strcmp(argv[1], "--gtest_list_tests") == 0;
    if (!listing && !mgtest::reexec_with_faketime(argv)) return 1;
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
