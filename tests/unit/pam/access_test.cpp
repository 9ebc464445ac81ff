// Service access control: rule lines, rule files, the mode file and the order
// user, groups, default.
#include "pam_test_util.hpp"

#include "sandbox.hpp"

#include <gtest/gtest.h>
#include <mossgrove/common.h>

#include <unistd.h>

using namespace mg::pam;
using pamtest::LogCapture;
using pamtest::RuleDir;

namespace {

// Monday 2 June 2025, 17:30.
struct tm monday_at(int hour, int minute) {
    struct tm t = {};
    t.tm_year = 125;
    t.tm_mon = 5;
    t.tm_mday = 2;
    t.tm_wday = 1;
    t.tm_hour = hour;
    t.tm_min = minute;
    return t;
}

class RuleLine : public ::testing::Test {
protected:
    PamRequest req = pamtest::request("alice", "sshd", "192.168.1.1", "pts/3");
    LogCapture log;

    void SetUp() override {
        req.now = monday_at(17, 30);
        req.have_now = true;
        snprintf(req.rule_path, sizeof req.rule_path, "%s", "/rules/user/alice");
    }
    int check(const char *text) {
        char line[512];
        snprintf(line, sizeof line, "%s", text);
        return check_rule_line(req, line, 7);
    }
};

TEST_F(RuleLine, BrokenPermissionDenies) {
    EXPECT_EQ(0, check("x::sshd:*::"));
    EXPECT_EQ(0, check("x:?:sshd:*::"));
    EXPECT_EQ(0, check("only-a-name"));
    EXPECT_EQ((std::vector<std::string>{"/rules/user/alice: line 7: empty permission field",
                                        "/rules/user/alice: line 7: bad permission field",
                                        "/rules/user/alice: line 7: empty permission field"}),
              log.texts());
}

TEST_F(RuleLine, ServicesAndShortLines) {
    EXPECT_EQ(0, check("x:-:sshd:*::"));
    EXPECT_EQ(1, check("x:+:login,sshd"));
    EXPECT_EQ(2, check("x:+:ssh,login:*::"));  // whole entries only
    EXPECT_EQ(2, check("x:+:SSHD"));            // case matters
    EXPECT_EQ(1, check("x:+:*"));
    EXPECT_EQ(1, check("x:+"));  // missing fields read as empty
    EXPECT_EQ(0, check("x:-::::"));
}

TEST_F(RuleLine, HostListScanStopsAtTheFirstNonAddress) {
    EXPECT_EQ(2, check("x:-:*:10.0.0.0/8,somehost,192.168.1.1::"));
    EXPECT_EQ(0, check("x:-:*:10.0.0.0/8,192.168.1.1,somehost::"));
    EXPECT_EQ(0, check("x:-:*:192.168.0.0/255.255.0.0::"));
    EXPECT_EQ(2, check("x:-:*:10.0.0.0/33,192.168.1.1::"));  // unparsable range ends the scan
    EXPECT_EQ(0, check("x:-:*:0.0.0.0/0::"));
    EXPECT_EQ(0, check("x:-:*:0.0.0.0/junk::"));
    EXPECT_EQ(2, check("x:-:*:!::"));  // a remote login is not local
}

TEST_F(RuleLine, LocalAndPseudoTerminalHosts) {
    req.rhost.clear();
    EXPECT_EQ(0, check("x:-:*:!::"));
    req.rhost.assign(" console");
    EXPECT_EQ(0, check("x:-:*:!::"));
    req.rhost.assign("pts/4");
    EXPECT_EQ(2, check("x:-:*:0.0.0.1,0.0.0.0/1::"));
    EXPECT_EQ(0, check("x:-:*:*::"));
}

TEST_F(RuleLine, Terminals) {
    EXPECT_EQ(0, check("x:-:*:*:pts/1,pts/3:"));
    EXPECT_EQ(2, check("x:-:*:*:pts/1:"));
    req.tty.clear();
    EXPECT_EQ(2, check("x:-:*:*:pts/1:"));
    EXPECT_EQ(0, check("x:-:*:*:*:"));
}

TEST_F(RuleLine, TimeEndHourExcludedOtherRangesInclusive) {
    EXPECT_EQ(2, check("x:-:*:*::9-17 * * 1-5"));  // 17:30 is past a 9-17 window
    EXPECT_EQ(0, check("x:-:*:*::9-18 * * 1-5"));
    EXPECT_EQ(2, check("x:-:*:*::17 * * *"));  // a single hour never matches
    EXPECT_EQ(0, check("x:-:*:*::* 2-2 6 1"));
    EXPECT_EQ(2, check("x:-:*:*::* 3-31 * *"));
    EXPECT_EQ(2, check("x:-:*:*::* * 1-5 *"));
    EXPECT_EQ(2, check("x:-:*:*::* * * 2-6"));
    EXPECT_EQ(2, check("x:-:*:*::* * *"));  // fewer than three blanks: no match
    req.now = monday_at(9, 0);
    EXPECT_EQ(0, check("x:-:*:*::9-17 * * 1-5"));
    EXPECT_EQ(2, check("x:-:*:*::9 * * *"));
}

class RuleFiles : public ::testing::Test {
protected:
    RuleDir dir;
    LogCapture log;
    PamRequest req = pamtest::request("alice", "sshd", "10.1.2.3", "pts/3");
    // No groups: the account's primary group does not exist.
    void SetUp() override { req.account.gid = 4242424; }
};

TEST_F(RuleFiles, NoFilesAllow) { EXPECT_EQ(1, check_access_rules(req)); }

TEST_F(RuleFiles, UserFileThenDefault) {
    dir.write("user/alice", "# comment\n\nx:+:ftp::\n   \nx:-:sshd:*::\n");
    EXPECT_EQ(0, check_access_rules(req));
    EXPECT_EQ('u', req.rule_kind);
    EXPECT_STREQ("alice", req.rule_name);

    dir.write("user/alice", "x:+:ftp\n");
    dir.write("default.conf", "x:-:*:10.0.0.0/8::\n");
    EXPECT_EQ(0, check_access_rules(req));
    EXPECT_EQ('*', req.rule_kind);
    EXPECT_STREQ("[default]", req.rule_name);
    EXPECT_TRUE(log.texts().empty());
}

TEST_F(RuleFiles, LinesWithoutNewlineAreSkippedAndCounted) {
    std::string pad(511, 'a');
    // 511 bytes without newline, then the rest of that line as a further line.
    dir.write("user/alice", pad + "x:-:sshd:*::\n" + "x:-:sshd:*::");
    EXPECT_EQ(0, check_access_rules(req));
    EXPECT_EQ((std::vector<std::string>{dir.path("user/alice") + ": line 1: missing newline or line too long"}),
              log.texts());

    // A file ending without newline: its last line does not count.
    LogCapture again;
    dir.write("user/alice", "x:+:ftp::\nx:-:sshd:*::");
    EXPECT_EQ(1, check_access_rules(req));
    EXPECT_EQ((std::vector<std::string>{dir.path("user/alice") + ": line 2: missing newline or line too long"}),
              again.texts());
}

TEST_F(RuleFiles, ModeFile) {
    nPamacOpMode = nPamsmOpMode = 1;
    read_operation_modes();  // no file
    EXPECT_EQ(3, nPamacOpMode);
    EXPECT_EQ(3, nPamsmOpMode);
    EXPECT_STREQ("Deny", pPamacOpMode);

    dir.write("pam_acl.conf", "# modes\nServiceAccessControl = Warn\n");
    read_operation_modes();
    EXPECT_EQ(1, nPamacOpMode);
    EXPECT_STREQ("Warning", pPamacOpMode);
    EXPECT_EQ(3, nPamsmOpMode);  // key missing

    dir.write("pam_acl.conf", "serviceaccesscontrol NOLOG\nLimitLoginSession=off\n");
    read_operation_modes();
    EXPECT_EQ(2, nPamacOpMode);
    EXPECT_EQ(0, nPamsmOpMode);
    EXPECT_STREQ("Deny", pPamacOpMode);
    EXPECT_STREQ("Deny", pPamsmOpMode);

    // An unknown word leaves the mode as it was.
    dir.write("pam_acl.conf", "ServiceAccessControl sometimes\nLimitLoginSession on\n");
    read_operation_modes();
    EXPECT_EQ(2, nPamacOpMode);
    EXPECT_EQ(3, nPamsmOpMode);
}

// Groups come from the account database: these run in a sandbox with its own
// /etc/group.
MG_SANDBOX_TEST(AccessGroups, GroupListOrderAndLimit) {
    sb.add_group("staff", 5000);
    sb.add_group("dev", 5001, {"bob", "alice"});
    sb.add_group("ops", 5002, {"alice"});
    sb.add_group("staff2", 5003, {"alicex"});
    sb.add_group("qa", 5004, {"alice"});
    char buf[1024];
    EXPECT_EQ(4, get_user_groups(5000, "alice", buf, sizeof buf));
    EXPECT_STREQ("staff,dev,ops,qa", buf);
    EXPECT_EQ(3, get_user_groups(5002, "alice", buf, sizeof buf));
    EXPECT_STREQ("ops,dev,qa", buf);  // the primary group is listed once, first
    // The list stops at the first name that does not fit.
    char small[12];
    EXPECT_EQ(2, get_user_groups(5000, "alice", small, sizeof small));
    EXPECT_STREQ("staff,dev", small);
    EXPECT_EQ(0, get_user_groups(6000, "alice", buf, sizeof buf));
}

MG_SANDBOX_TEST(AccessGroups, OrderDoesNotDependOnWhereThePrimaryGroupStands) {
    sb.add_group("early", 5100, {"alice"});
    sb.add_group("home", 5101, {"alice"});  // lists its own member
    sb.add_group("home2", 5101, {"alice"});  // same gid, later: an ordinary group
    sb.add_group("late", 5102, {"alice"});
    char buf[1024];
    EXPECT_EQ(4, get_user_groups(5101, "alice", buf, sizeof buf));
    EXPECT_STREQ("home,early,home2,late", buf);
}

MG_SANDBOX_TEST(AccessGroups, ManyGroupsAreCutAtTheBufferSize) {
    // More member groups than one scan keeps: the list is still cut exactly
    // where the next name no longer fits.
    sb.add_group("prim", 5200);
    std::string expected = "prim";
    bool full = false;
    int count = 1;
    for (int i = 0; i < 150; ++i) {
        std::string name = "group_with_a_long_name_" + std::to_string(1000 + i);
        sb.add_group(name, 6000 + i, {"alice"});
        if (!full && expected.size() + 1 + name.size() <= 1023) {
            expected += "," + name;
            ++count;
        } else {
            full = true;
        }
    }
    char buf[1024];
    EXPECT_EQ(count, get_user_groups(5200, "alice", buf, sizeof buf));
    EXPECT_EQ(expected, buf);
}

MG_SANDBOX_TEST(AccessGroups, FirstGroupWithADecisionWins) {
    sb.add_group("staff", 5000);
    sb.add_group("dev", 5001, {"alice"});
    sb.add_group("ops", 5002, {"alice"});
    RuleDir dir;
    PamRequest req = pamtest::request("alice", "sshd", "10.1.2.3", "pts/3");
    req.account.gid = 5000;
    dir.write("group/dev", "x:+:ftp::\n");
    dir.write("group/ops", "x:-:sshd:*::\n");
    dir.write("default.conf", "x:+:*:*::\n");
    EXPECT_EQ(0, check_access_rules(req));
    EXPECT_EQ('g', req.rule_kind);
    EXPECT_STREQ("ops", req.rule_name);

    // A group file that cannot be opened denies as an internal error.
    ASSERT_EQ(0, mkdir(dir.path("group/staff").c_str(), 0755));
    ASSERT_EQ(0, symlink("dev", dir.path("group/dev2").c_str()));
    ASSERT_EQ(0, unlink(dir.path("group/dev").c_str()));
    ASSERT_EQ(0, symlink("dev", dir.path("group/dev").c_str()));  // ELOOP
    LogCapture log;
    EXPECT_EQ(0, check_access_rules(req));
    EXPECT_STREQ("[internel system error]", req.rule_name);
    EXPECT_EQ((std::vector<std::string>{"couldn't open access rule file for group 'dev' (user=alice)"}), log.texts());
}

}  // namespace
