// The PAM module below its entry points, where a system test through libpam
// cannot reach or would need thousands of transactions: rule lines, the group
// list and counting from utmpx.
#include "pam/pam_acl.hpp"

#include "common/paths.hpp"
#include "sandbox.hpp"
#include "testsupport.hpp"

#include <mossgrove/common.h>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <utmpx.h>

#include <fstream>
#include <string>

using namespace mg::pam;

namespace {

PamRequest request(const char *user, const char *rhost, const char *tty) {
    PamRequest r;
    snprintf(r.account.name, sizeof r.account.name, "%s", user);
    r.service.assign("sshd");
    r.rhost.assign(rhost);
    r.tty.assign(tty);
    r.rhost_addr = inet_addr(rhost);
    r.have_now = true;  // no rule here has a time window
    return r;
}

TEST(RuleLine, FieldsDecideOrPassOn) {
    set_log_sink([](int, const char *) {});
    PamRequest req = request("alice", "192.168.1.1", "pts/3");
    // want: 0 deny, 1 allow, 2 no decision. Bad permission fields, whole networks and
    // terminal lists are shown through libpam.
    const struct { const char *line; int want; } cases[] = {
        {"x::sshd:*::", 0}, {"x:+:login,sshd", 1}, {"x:+:ssh,login:*::", 2},  // whole entries only
        {"x:-:*:10.0.0.0/8,somehost,192.168.1.1::", 2},  // the scan stops at a name
        {"x:-:*:10.0.0.0/8,192.168.1.1,somehost::", 0}, {"x:-:*:192.168.0.0/24::", 2},
        {"x:-:*:192.168.1.1/32::", 0}, {"x:-:*:!::", 2},  // a remote login is not local
        {"x:-:*:*:pts/1:", 2},
    };
    for (const auto &c : cases) {
        char line[512];
        snprintf(line, sizeof line, "%s", c.line);
        EXPECT_EQ(c.want, check_rule_line(req, line, 7)) << c.line;
    }
    set_log_sink(nullptr);
}

// Groups come from the account database: in a sandbox with its own /etc/group.
MG_SANDBOX_TEST(Groups, PrimaryFirstThenMembershipsCutWhereTheBufferEnds) {
    sb.add_group("staff", 5000);
    sb.add_group("dev", 5001, {"bob", "alice"});
    sb.add_group("ops", 5002, {"alice"});
    sb.add_group("staff2", 5003, {"alicex"});
    sb.add_group("qa", 5004, {"alice"});
    char buf[1024], small[12];
    EXPECT_EQ(4, get_user_groups(5000, "alice", buf, sizeof buf));
    EXPECT_STREQ("staff,dev,ops,qa", buf);
    EXPECT_EQ(3, get_user_groups(5002, "alice", buf, sizeof buf));
    EXPECT_STREQ("ops,dev,qa", buf);  // the primary group is listed once, first
    EXPECT_EQ(2, get_user_groups(5000, "alice", small, sizeof small));
    EXPECT_STREQ("staff,dev", small);
    // More member groups than one scan keeps: the long way gives the same list.
    sb.add_group("pri", 5100);
    sb.add_group("pri2", 5101, {"carol"});
    for (int i = 0; i < 70; ++i) sb.add_group("group_with_a_rather_long_name_" + std::to_string(i), 6000 + i, {"carol"});
    get_user_groups(5100, "carol", buf, sizeof buf);
    EXPECT_EQ(std::string(buf).rfind("pri,pri2,group_with_a_rather_long_name_0,", 0), 0u) << buf;
}

MG_SANDBOX_TEST(Sessions, CountingFromUtmpx) {
    mgtest::TempDir dir;
    const std::string utmp = mgtest::Sandbox::kUtmpx;
    mg::paths::override_for_tests(nullptr, dir.path().c_str(), utmp.c_str());
    sb.clear_utmpx();
    sb.add_utmpx("alice", "pts/1", "10.0.0.1");
    sb.add_utmpx("alice", "tty2", "");
    sb.add_utmpx("alice", "pts/9", "10.0.0.1");  // the request's own terminal
    sb.add_utmpx("alicex", "pts/5", "");
    sb.add_utmpx("b", "pts/2", "10.0.0.2:0");        // display suffix cut
    sb.add_utmpx("c", "pts/3", "::ffff:0:10.0.0.3");  // the accepted IPv6 form
    sb.add_utmpx("d", "pts/7", "::ffff:10.0.0.4");    // any other IPv6: skipped
    for (int i = 0; i < 400; ++i) sb.add_utmpx("bob", "pts/" + std::to_string(100 + i), "127.0.0.1");  // several blocks
    EXPECT_EQ(2, count_user_sessions("alice", "pts/9", false));
    EXPECT_EQ(1, count_user_sessions("alice", "pts/9", true));
    EXPECT_EQ(3, count_address_sessions(ntohl(inet_addr("10.0.0.0")), ntohl(inet_addr("10.255.255.255")), "pts/9"));
    EXPECT_EQ(400, count_address_sessions(ntohl(inet_addr("127.0.0.1")), ntohl(inet_addr("127.0.0.1")), "pts/9"));
    // A console is exempt from a default rule with the console flag (a user rule without it).
    PamRequest req = request("alice", "10.1.2.3", "tty3");
    SessionRule r;
    mgtest::write_file(dir / "default_session.conf", "x:[any]:1:1:\n");
    EXPECT_EQ(1, check_default_session(req, r));
    { std::ofstream(utmp, std::ios::app) << "partial"; }  // a truncated last record is no record
    EXPECT_EQ(400, count_user_sessions("bob", "pts/9", false));
    mg::paths::override_for_tests(nullptr, nullptr, nullptr);
}

}  // namespace
