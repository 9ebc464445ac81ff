// The host is never touched by a sandboxed test, even when its process is
// killed. (What the sandbox provides is exercised by every system test.)
#include "sandbox.hpp"

#include <gtest/gtest.h>

#include <csignal>

#include "testsupport.hpp"

namespace {

TEST(Sandbox, HostIsUntouchedEvenWhenTheChildIsKilled) {
    if (!mgtest::sandbox_or_skip()) return;
    const std::string marker = "mg-sandbox-marker-7f3a", hosts_before = mgtest::read_file("/etc/hosts");
    int status = mgtest::run_sandboxed([&](mgtest::Sandbox &sb) {
        sb.write_etc("security/" + marker, "x");
        sb.add_host("10.9.9.9", marker);
        sb.add_utmpx(marker, "pts/9");
        raise(SIGKILL);
    });
    EXPECT_EQ(status, 128 + SIGKILL);
    EXPECT_FALSE(mgtest::exists("/etc/security/" + marker));
    EXPECT_EQ(mgtest::read_file("/etc/hosts"), hosts_before);
    EXPECT_EQ(mgtest::read_file("/proc/self/mountinfo").find("mg-sandbox"), std::string::npos);
    EXPECT_EQ(mgtest::read_file("/run/utmp").find(marker), std::string::npos);
    EXPECT_FALSE(mgtest::exists("/run/mg-sandbox"));
}

}  // namespace
