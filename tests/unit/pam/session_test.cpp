// Login session limits below the PAM entry points: rule lines, counting from
// utmpx, console flags and token slots. The order user, group, default,
// address and the maxima 0, -2 and -5 are checked end to end by the system tests.
#include "pam_test_util.hpp"

#include "sandbox.hpp"

#include <gtest/gtest.h>
#include <mossgrove/common.h>

using namespace mg::pam;
using pamtest::LogCapture;
using pamtest::RuleDir;

namespace {

TEST(SessionLine, FieldsFlagsAndRefusals) {
    LogCapture log;
    SessionRule r;
    char line[] = "x:alice:3:2:";
    ASSERT_EQ(1, parse_session_info(r, line, 1, "f"));
    EXPECT_STREQ("alice", r.name);
    EXPECT_EQ(3, r.max);
    EXPECT_EQ(1, r.limit_console);
    EXPECT_EQ(0, r.skip_console);
    char short_line[] = "x:bob";  // missing fields are empty
    ASSERT_EQ(1, parse_session_info(r, short_line, 1, "f"));
    EXPECT_EQ(-1, r.max);
    EXPECT_EQ(0, r.limit_console);
    char dash[] = "x:bob:-:0:-7";
    ASSERT_EQ(1, parse_session_info(r, dash, 1, "f"));
    EXPECT_EQ(0, r.max);  // a lone '-' is a number: atoi gives 0
    EXPECT_EQ(1, r.skip_console);

    char no_name[] = "x::2::", bad_max[] = "x:alice:2a::", bad_flag[] = "x:alice:2:y:";
    EXPECT_EQ(-1, parse_session_info(r, no_name, 4, "/d/user_session.conf"));
    EXPECT_EQ(-1, parse_session_info(r, bad_max, 5, "/d/user_session.conf"));
    EXPECT_EQ(-1, parse_session_info(r, bad_flag, 6, "/d/user_session.conf"));
    EXPECT_EQ((std::vector<std::string>{"/d/user_session.conf: line 4: empty name field"}), log.texts());
}

class Sessions : public ::testing::Test {
protected:
    RuleDir dir;
    LogCapture log;
    PamRequest req = pamtest::request("alice", "sshd", "10.1.2.3", "pts/9");
    SessionRule r;
    void SetUp() override {
        req.account.gid = 4242424;  // no groups
        nSessionCount = 0;
    }
    int read(int kind, const char *name, const char *addr) {
        r = SessionRule{};
        r.kind = kind;
        return read_session_info(name, inet_addr(addr), r);
    }
    static uint32_t hip(const char *text) { return ntohl(inet_addr(text)); }
};

TEST_F(Sessions, AddressRulesMatchInFileOrder) {
    dir.write("ip_session.conf", "x:somehost:1::\nx:10.1.2.4:3::\nx:10.0.0.0/8:1::\nx:10.1.2.3:5::\n");
    EXPECT_EQ(1, read('i', nullptr, "10.1.2.4"));
    EXPECT_EQ(3, r.max);
    EXPECT_EQ(hip("10.1.2.4"), r.low);
    EXPECT_EQ(r.low, r.high);
    EXPECT_EQ(1, read('i', nullptr, "10.1.2.3"));  // the range comes first
    EXPECT_STREQ("10.0.0.0", r.name);
    EXPECT_EQ(hip("10.255.255.255"), r.high);
    EXPECT_EQ(0, read('i', nullptr, "11.0.0.1"));
}

TEST_F(Sessions, BrokenFilesFailTheRead) {
    dir.write("user_session.conf", "x:bob:zz::\nx:alice:2::\n");  // a broken line before the match
    EXPECT_EQ(-1, read('u', "alice", "1.1.1.1"));
    ASSERT_EQ(0, symlink("group_session.conf", dir.path("group_session.conf").c_str()));
    EXPECT_EQ(-1, read('g', "staff", "1.1.1.1"));
    EXPECT_EQ(0, r.max);
    EXPECT_EQ((std::vector<std::string>{"read_session_info: fail to read session rule file '" +
                                        dir.path("group_session.conf") + "' [errno = 40]"}),
              log.texts());
}

TEST_F(Sessions, CountingFromUtmpx) {
    dir.add_session("alice", "pts/1", "10.0.0.1");
    dir.add_session("alice", "tty2");
    dir.add_session("alice", "pts/9", "10.0.0.1");  // the request's own terminal
    dir.add_session("alice", "pts/4", "", DEAD_PROCESS);
    dir.add_session("alicex", "pts/5");
    dir.add_session("b", "pts/2", "10.0.0.2:0");        // display suffix cut
    dir.add_session("c", "pts/3", "::ffff:0:10.0.0.3");  // the accepted IPv6 form
    dir.add_session("d", "pts/7", "::ffff:10.0.0.4");    // any other IPv6: skipped
    dir.add_session("e", "pts/8", "127.0.0.1");
    dir.add_session("g", "pts/6", "10.0.0.6", LOGIN_PROCESS);
    EXPECT_EQ(2, count_user_sessions("alice", "pts/9", false));
    EXPECT_EQ(1, count_user_sessions("alice", "pts/9", true));
    EXPECT_EQ(3, count_user_sessions("alice", nullptr, false));
    EXPECT_EQ(3, nSessionCount);
    EXPECT_EQ(3, count_address_sessions(hip("10.0.0.0"), hip("10.255.255.255"), "pts/9"));
    EXPECT_EQ(1, count_address_sessions(hip("127.0.0.1"), hip("127.0.0.1"), "pts/9"));

    // A truncated last record is not a record.
    { std::ofstream(dir.utmpx(), std::ios::app) << "partial"; }
    EXPECT_EQ(2, count_user_sessions("alice", "pts/9", false));
}

TEST_F(Sessions, ManyUtmpxEntries) {
    for (int i = 0; i < 10000; ++i)
        dir.add_session(i % 2 ? "alice" : "bob", ("pts/" + std::to_string(i)).c_str(), "10.0.0.1");
    EXPECT_EQ(4999, count_user_sessions("alice", "pts/9", false));  // pts/9 is alice's own
    EXPECT_EQ(5000, count_user_sessions("alice", "pts/x", false));
    EXPECT_EQ(10000, count_address_sessions(hip("10.0.0.1"), hip("10.0.0.1"), "pts/x"));
}

TEST_F(Sessions, EmptyAndUnreadableMaxima) {
    for (const auto &[text, want] : {std::pair{"x:alice:::\n", 1}, {"x:alice:-1::\n", 1}, {"x:alice:0::\n", 0}}) {
        dir.write("user_session.conf", text);
        EXPECT_EQ(want, check_user_session(req, r)) << text;
    }
    dir.write("user_session.conf", "x:alice:x::\n");
    EXPECT_EQ(0, check_user_session(req, r));
    EXPECT_EQ(-1, r.current);
}

TEST_F(Sessions, ConsoleFlagsOfUserAndDefaultRulesHaveOppositeSenses) {
    dir.add_session("alice", "pts/1");
    dir.add_session("alice", "pts/2");
    dir.write("user_session.conf", "x:alice:2::\n");
    EXPECT_EQ(0, check_user_session(req, r));
    EXPECT_EQ(2, r.current);
    EXPECT_EQ('u', r.kind);
    EXPECT_STREQ("alice", r.name);

    // Console logins are exempt from a user rule unless it limits consoles...
    req.tty.assign("tty3");
    EXPECT_EQ(1, check_user_session(req, r));
    dir.write("user_session.conf", "x:alice:2:1:\n");
    EXPECT_EQ(0, check_user_session(req, r));
    // ...while the default rule's flag exempts them.
    dir.write("default_session.conf", "x:[any]:1:1:\n");
    EXPECT_EQ(1, check_default_session(req, r));
    dir.write("default_session.conf", "x:[any]:1:0:\n");
    EXPECT_EQ(0, check_default_session(req, r));
    // Consoles never meet the address limit.
    dir.write("ip_session.conf", "x:10.0.0.0/8:1::\n");
    SessionRule ip;
    EXPECT_EQ(1, check_ip_session(req, ip));
}

// Groups need the account database: run in a sandbox.
MG_SANDBOX_TEST(SessionGroups, GroupChecksGiveTheirTokenSlotsBack) {
    sb.add_group("staff", 5000);
    sb.add_group("dev", 5001, {"alice"});
    RuleDir dir;
    PamRequest req = pamtest::request("alice", "sshd", "10.1.2.3", "pts/9");
    req.account.gid = 5000;
    dir.write("group_session.conf", "x:dev:1::\n");
    dir.add_session("alice", "pts/1");
    SessionRule r;
    // Far more checks than there are token slots: each gives its slot back.
    for (int i = 0; i < 50; ++i) ASSERT_EQ(0, check_group_session(req, r)) << i;
    EXPECT_EQ('g', r.kind);
    EXPECT_STREQ("dev", r.name);
    init_tokslot();
    int held = 0;
    while (get_tokslot() >= 0) ++held;
    EXPECT_EQ(10, held);
}

}  // namespace
