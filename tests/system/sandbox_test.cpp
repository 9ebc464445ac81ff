// The sandbox itself: what a system test relies on, and that the host is
// never touched, even when the sandboxed process is killed.
#include "sandbox.hpp"

#include <netdb.h>
#include <pwd.h>
#include <grp.h>
#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <syslog.h>
#include <unistd.h>
#include <utmpx.h>

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <sstream>
#include <string>

namespace {

std::string slurp(const char *path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

constexpr const char *kMarker = "mg-sandbox-marker-7f3a";

MG_SANDBOX_TEST(Sandbox, AccountsHostsAndUtmpxComeFromTheSandbox) {
    sb.add_group("staff", 5000, {"alice", "bob"});
    sb.add_user("alice", 5001, 5000, "/home/alice");
    sb.add_host("10.1.2.3", "build-host build-host.example");

    passwd *pw = getpwnam("alice");
    ASSERT_NE(pw, nullptr);
    EXPECT_EQ(pw->pw_uid, 5001u);
    EXPECT_STREQ(pw->pw_dir, "/home/alice");
    group *gr = getgrnam("staff");
    ASSERT_NE(gr, nullptr);
    EXPECT_STREQ(gr->gr_mem[1], "bob");
    EXPECT_EQ(getpwnam("daemon"), nullptr) << "host accounts must not leak into the sandbox";

    char name[64] = {};
    ASSERT_EQ(gethostname(name, sizeof name), 0);
    EXPECT_STREQ(name, mgtest::Sandbox::kHostName);
    hostent *he = gethostbyname(name);
    ASSERT_NE(he, nullptr);
    EXPECT_STREQ(inet_ntoa(*reinterpret_cast<in_addr *>(he->h_addr_list[0])), mgtest::Sandbox::kHostAddress);
    he = gethostbyname("build-host.example");
    ASSERT_NE(he, nullptr);
    EXPECT_STREQ(inet_ntoa(*reinterpret_cast<in_addr *>(he->h_addr_list[0])), "10.1.2.3");
    EXPECT_EQ(gethostbyname("no-such-host.invalid"), nullptr);

    sb.add_utmpx("alice", "pts/4", "10.1.2.3");
    sb.add_utmpx("", "pts/5", "", DEAD_PROCESS);
    int users = 0, dead = 0;
    setutxent();
    while (utmpx *u = getutxent()) {
        if (u->ut_type == USER_PROCESS && std::string(u->ut_user) == "alice" &&
            std::string(u->ut_line) == "pts/4" && std::string(u->ut_host) == "10.1.2.3")
            ++users;
        if (u->ut_type == DEAD_PROCESS) ++dead;
    }
    endutxent();
    EXPECT_EQ(users, 1);
    EXPECT_EQ(dead, 1);
    sb.clear_utmpx();
    setutxent();
    EXPECT_EQ(getutxent(), nullptr);
    endutxent();
}

MG_SANDBOX_TEST(Sandbox, SyslogLinesArriveExactlyAndBurstsDoNotBlock) {
    openlog("mg_pam_acl", LOG_CONS | LOG_PID, LOG_AUTH);
    syslog(LOG_ERR, "%s", "user '%n%s' said: hello");
    closelog();
    openlog("MGLog", 0, LOG_USER);
    syslog(LOG_INFO, "no pid here");
    closelog();

    auto msgs = sb.syslog();
    ASSERT_EQ(msgs.size(), 2u);
    EXPECT_EQ(msgs[0].line(), "<35>mg_pam_acl[" + std::to_string(getpid()) + "]: user '%n%s' said: hello");
    EXPECT_EQ(msgs[0].facility(), LOG_AUTH);
    EXPECT_EQ(msgs[0].severity(), LOG_ERR);
    EXPECT_EQ(msgs[1].line(), "<14>MGLog: no pid here");
    EXPECT_EQ(sb.take_syslog().size(), 2u);
    EXPECT_TRUE(sb.syslog().empty());

    // Far more datagrams than a socket queue holds: the reader keeps up.
    openlog("burst", LOG_PID, LOG_AUTH);
    for (int i = 0; i < 3000; ++i) syslog(LOG_INFO, "message %d", i);
    closelog();
    msgs = sb.wait_syslog(3000);
    ASSERT_EQ(msgs.size(), 3000u);
    EXPECT_EQ(msgs.back().text, "message 2999");
}

MG_SANDBOX_TEST(Sandbox, DevicesAndPseudoTerminalsWork) {
    sb.make_device("tty3", 4, 3);
    struct stat st{};
    ASSERT_EQ(stat("/dev/tty3", &st), 0);
    EXPECT_TRUE(S_ISCHR(st.st_mode));
    EXPECT_EQ(st.st_rdev, makedev(4, 3));

    int master = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(master, 0);
    ASSERT_EQ(grantpt(master), 0);
    ASSERT_EQ(unlockpt(master), 0);
    std::string slave = ptsname(master);
    EXPECT_EQ(slave.rfind("/dev/pts/", 0), 0u) << slave;
    EXPECT_EQ(stat(slave.c_str(), &st), 0);
    close(master);

    FILE *null = fopen("/dev/null", "w");
    ASSERT_NE(null, nullptr);
    fclose(null);
}

TEST(Sandbox, HostIsUntouchedEvenWhenTheChildIsKilled) {
    if (!mgtest::sandbox_or_skip()) return;
    std::string hosts_before = slurp("/etc/hosts");

    int status = mgtest::run_sandboxed([](mgtest::Sandbox &sb) {
        sb.write_etc(std::string("security/") + kMarker, "x");
        sb.add_host("10.9.9.9", kMarker);
        sb.add_utmpx(kMarker, "pts/9");
        raise(SIGKILL);
    });
    EXPECT_EQ(status, 128 + SIGKILL);

    struct stat st{};
    EXPECT_NE(stat((std::string("/etc/security/") + kMarker).c_str(), &st), 0);
    EXPECT_EQ(slurp("/etc/hosts"), hosts_before);
    EXPECT_EQ(slurp("/proc/self/mountinfo").find("mg-sandbox"), std::string::npos);
    EXPECT_EQ(slurp("/run/utmp").find(kMarker), std::string::npos);
    EXPECT_NE(stat("/run/mg-sandbox", &st), 0);
}

TEST(Sandbox, ReportsThrowingBodies) {
    if (!mgtest::sandbox_or_skip()) return;
    EXPECT_EQ(3, mgtest::run_sandboxed([](mgtest::Sandbox &) { throw std::runtime_error("boom"); }));
}

}  // namespace
