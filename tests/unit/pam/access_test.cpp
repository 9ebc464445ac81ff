// Service access control below the PAM entry points: single rule lines, the
// mode file and the group list. Rule files, the user/group/default order, time
// windows and overlong lines are checked end to end by the system tests.
#include "pam_test_util.hpp"

#include "sandbox.hpp"

#include <gtest/gtest.h>
#include <mossgrove/common.h>

using namespace mg::pam;
using pamtest::LogCapture;
using pamtest::RuleDir;

namespace {

TEST(RuleLine, FieldsDecideOrPassOn) {
    LogCapture log;
    PamRequest req = pamtest::request("alice", "sshd", "192.168.1.1", "pts/3");
    req.have_now = true;  // no rule here has a time window
    snprintf(req.rule_path, sizeof req.rule_path, "%s", "/rules/user/alice");
    auto check = [&](const char *text) {
        char line[512];
        snprintf(line, sizeof line, "%s", text);
        return check_rule_line(req, line, 7);
    };
    struct Case {
        const char *line;
        int want;  // 0 deny, 1 allow, 2 no decision
    };
    const Case remote[] = {
        {"x::sshd:*::", 0}, {"x:?:sshd:*::", 0}, {"only-a-name", 0},  // broken permission
        {"x:+:login,sshd", 1}, {"x:+", 1},                             // missing fields are empty
        {"x:+:ssh,login:*::", 2},                                      // whole entries only
        {"x:-:*:10.0.0.0/8,somehost,192.168.1.1::", 2},                // the scan stops at a name
        {"x:-:*:10.0.0.0/8,192.168.1.1,somehost::", 0},
        {"x:-:*:10.0.0.0/33,192.168.1.1::", 2},                        // so does a bad range
        {"x:-:*:0.0.0.0/junk::", 0},
        {"x:-:*:!::", 2},                                              // a remote login is not local
        {"x:-:*:*:pts/1,pts/3:", 0}, {"x:-:*:*:pts/1:", 2},
    };
    for (const Case &c : remote) EXPECT_EQ(c.want, check(c.line)) << c.line;
    EXPECT_EQ((std::vector<std::string>{"/rules/user/alice: line 7: empty permission field",
                                        "/rules/user/alice: line 7: bad permission field",
                                        "/rules/user/alice: line 7: empty permission field"}),
              log.texts());

    req.tty.clear();
    EXPECT_EQ(2, check("x:-:*:*:pts/1:"));
    EXPECT_EQ(0, check("x:-:*:*:*:"));
    req.rhost.clear();  // no remote host, or a blank first: a local login
    EXPECT_EQ(0, check("x:-:*:!::"));
    req.rhost.assign(" console");
    EXPECT_EQ(0, check("x:-:*:!::"));
    req.rhost.assign("pts/4");  // a terminal name as host is no address
    EXPECT_EQ(2, check("x:-:*:0.0.0.1,0.0.0.0/1::"));
    EXPECT_EQ(0, check("x:-:*:*::"));
}

TEST(ModeFile, DefaultsKeysAndUnknownWords) {
    RuleDir dir;
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
MG_SANDBOX_TEST(AccessGroups, PrimaryFirstThenMembershipsCutWhereTheBufferEnds) {
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
    char small[12];
    EXPECT_EQ(2, get_user_groups(5000, "alice", small, sizeof small));
    EXPECT_STREQ("staff,dev", small);
    EXPECT_EQ(0, get_user_groups(6000, "alice", buf, sizeof buf));
}

MG_SANDBOX_TEST(AccessGroups, SharedPrimaryGidAndManyGroups) {
    sb.add_group("early", 5100, {"alice"});
    sb.add_group("home", 5101, {"alice"});   // lists its own member
    sb.add_group("home2", 5101, {"alice"});  // same gid, later: an ordinary group
    sb.add_group("late", 5102, {"alice"});
    char buf[1024];
    EXPECT_EQ(4, get_user_groups(5101, "alice", buf, sizeof buf));
    EXPECT_STREQ("home,early,home2,late", buf);

    // More member groups than one scan keeps: still cut exactly where the next
    // name no longer fits.
    sb.add_group("prim", 5200);
    std::string expected = "prim";
    bool full = false;
    int count = 1;
    for (int i = 0; i < 150; ++i) {
        std::string name = "group_with_a_long_name_" + std::to_string(1000 + i);
        sb.add_group(name, 6000 + i, {"carol"});
        full = full || expected.size() + 1 + name.size() > 1023;
        if (!full) {
            expected += "," + name;
            ++count;
        }
    }
    EXPECT_EQ(count, get_user_groups(5200, "carol", buf, sizeof buf));
    EXPECT_EQ(expected, buf);
}

}  // namespace
