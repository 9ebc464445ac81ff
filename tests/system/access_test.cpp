// Service access control (the account phase) through libpam: decisions,
// modes, what syslog, the secure log and the user see.
#include "system_common.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <security/pam_appl.h>

#include <string>
#include <vector>

namespace mgsys {
namespace {

class AccessControl : public ::testing::TestWithParam<Kernel> {};

TEST_P(AccessControl, WithoutAnyRuleFileEveryoneIsAllowedAndAllowlogRecordsIt) {
    Kernel kernel = GetParam();
    in_world(kernel, [&](World &w) {
        // No pam_acl.conf either: both modes default to "on".
        Outcome out = w.account("alice", from("10.0.0.5"));
        EXPECT_EQ(out.rc, PAM_SUCCESS);
        EXPECT_TRUE(out.conv.empty());
        EXPECT_EQ(w.take_module_syslog(), Lines{});
        auto audit = w.take_audit();
        ASSERT_EQ(audit.size(), 1u);
        EXPECT_EQ(entry_text(audit[0], 0, 1), "User 'alice (from 10.0.0.5)' has allowed to connect to 'sshd' service.");

        // Once given, "allowlog" stays on for the life of the process, even
        // for a service whose line does not carry it.
        w.service_file("sshd", "account required %M\n");
        EXPECT_EQ(w.account("alice", from("10.0.0.5")).rc, PAM_SUCCESS);
        EXPECT_EQ(w.take_audit().size(), 1u);
    });
    // Without "allowlog" nothing is recorded for an allowed access.
    in_world(kernel, [&](World &w) {
        w.service_file("sshd", "account required %M\n");
        EXPECT_EQ(w.account("alice", from("10.0.0.5")).rc, PAM_SUCCESS);
        EXPECT_TRUE(w.take_audit().empty());
        EXPECT_EQ(w.take_module_syslog(), Lines{});
    });
}

TEST_P(AccessControl, EachModeDecidesAndRecordsAUserRuleDenial) {
    Kernel kernel = GetParam();
    in_world(kernel, [&](World &w) {
        w.user_rules("alice", "# alice may not use ssh\nx:-:sshd:*::\n");
        const std::string allowed = "User 'alice (from 10.0.0.5)' has allowed to connect to 'sshd' service.";
        struct Case {
            const char *mode;
            int rc;
            const char *word;  // display word of a recorded violation, nullptr: none recorded
        };
        for (Case c : {Case{"on", PAM_PERM_DENIED, "Deny"}, Case{"warn", PAM_SUCCESS, "Warning"},
                       Case{"nolog", PAM_PERM_DENIED, nullptr}, Case{"off", PAM_SUCCESS, nullptr}}) {
            SCOPED_TRACE(c.mode);
            w.modes(c.mode, "on");
            Outcome out = w.account("alice", from("10.0.0.5"));
            EXPECT_EQ(out.rc, c.rc);
            EXPECT_TRUE(out.conv.empty());
            EXPECT_EQ(w.take_module_syslog(), Lines{});
            auto audit = w.take_audit();
            std::vector<std::string> texts;
            if (c.word != nullptr) {
                ASSERT_FALSE(audit.empty());
                texts.push_back(entry_text(audit[0], kEventAccess, 2));
                EXPECT_EQ(texts[0], access_violation(kernel, "sshd", "alice", "10.0.0.5", "user alice", c.word));
            }
            if (c.rc == PAM_SUCCESS) {  // allowed despite the rule: the allowed entry follows
                ASSERT_EQ(audit.size(), texts.size() + 1);
                EXPECT_EQ(entry_text(audit.back(), 0, 1), allowed);
            } else {
                EXPECT_EQ(audit.size(), texts.size());
            }
        }
        // Mode words are case-insensitive.
        w.modes("NoLog", "on");
        EXPECT_EQ(w.account("alice", from("10.0.0.5")).rc, PAM_PERM_DENIED);
        EXPECT_TRUE(w.take_audit().empty());
        w.modes("Warn", "on");
        EXPECT_EQ(w.account("alice", from("10.0.0.5")).rc, PAM_SUCCESS);
        EXPECT_EQ(w.take_audit().size(), 2u);
        // A missing key means "on"; an unknown word keeps the mode the process
        // had: the module stays loaded between the transactions of a process
        // (mgctl's dry run, a fresh process, starts from "warn").
        w.check_with_mgctl = false;
        w.acl_file("pam_acl.conf", "LimitLoginSession warn\n");
        EXPECT_EQ(w.account("alice", from("10.0.0.5")).rc, PAM_PERM_DENIED);
        w.acl_file("pam_acl.conf", "ServiceAccessControl maybe\n");
        EXPECT_EQ(w.account("alice", from("10.0.0.5")).rc, PAM_PERM_DENIED);
        auto audit = w.take_audit();
        ASSERT_EQ(audit.size(), 2u);
        EXPECT_EQ(audit[1].message, access_violation(kernel, "sshd", "alice", "10.0.0.5", "user alice", "Deny"));
        EXPECT_EQ(w.take_module_syslog(), Lines{});
    });
    // In a process that has not read a mode yet, an unknown word leaves the
    // initial mode, "warn".
    in_world(kernel, [&](World &w) {
        w.user_rules("alice", "x:-:sshd:*::\n");
        w.acl_file("pam_acl.conf", "ServiceAccessControl maybe\n");
        EXPECT_EQ(w.account("alice", from("10.0.0.5")).rc, PAM_SUCCESS);
        auto audit = w.take_audit();
        ASSERT_EQ(audit.size(), 2u);
        EXPECT_EQ(audit[0].message, access_violation(kernel, "sshd", "alice", "10.0.0.5", "user alice", "Warning"));
    });
}

TEST_P(AccessControl, UserThenGroupsThenDefaultDecide) {
    Kernel kernel = GetParam();
    in_world(kernel, [&](World &w) {
        w.modes("on", "on");
        w.default_rules("x:-:*:*::\n");
        w.group_rules("staff", "staff:-:sshd:*::\n");
        w.group_rules("dev", "dev:+:sshd:*::\n");
        w.user_rules("carol", "carol:+:sshd:10.0.0.0/8::\n");

        // bob: primary group dev comes before staff.
        EXPECT_EQ(w.account("bob", from("10.0.0.5")).rc, PAM_SUCCESS);
        // alice: staff (primary) denies before ops is looked at.
        EXPECT_EQ(w.account("alice", from("10.0.0.5")).rc, PAM_PERM_DENIED);
        // carol: her own rule allows from 10/8; from elsewhere staff denies.
        EXPECT_EQ(w.account("carol", from("10.9.9.9")).rc, PAM_SUCCESS);
        EXPECT_EQ(w.account("carol", from("172.16.0.1")).rc, PAM_PERM_DENIED);
        w.take_audit();

        // The rule label names the deciding file.
        EXPECT_EQ(w.account("alice", from("10.0.0.5")).rc, PAM_PERM_DENIED);
        auto audit = w.take_audit();
        ASSERT_EQ(audit.size(), 1u);
        EXPECT_EQ(entry_text(audit[0], kEventAccess, 2),
                  access_violation(kernel, "sshd", "alice", "10.0.0.5", "group staff", "Deny"));

        // Default file: for a service no group rule covers.
        EXPECT_EQ(w.account("bob", from("10.0.0.5"), "ftp").rc, PAM_PERM_DENIED);
        audit = w.take_audit();
        ASSERT_EQ(audit.size(), 1u);
        EXPECT_EQ(entry_text(audit[0], kEventAccess, 2),
                  access_violation(kernel, "ftp", "bob", "10.0.0.5", "default", "Deny"));
        EXPECT_EQ(w.take_module_syslog(), Lines{});
    });
}

TEST_P(AccessControl, UnreadableRuleFilesDenyWithAnInternalErrorLabel) {
    Kernel kernel = GetParam();
    in_world(kernel, [&](World &w) {
        w.modes("on", "on");
        const std::string dir = World::kAclDir;
        mkdir((dir + "/group").c_str(), 0755);
        // A symbolic link loop cannot be opened (ELOOP), and not because it is missing.
        ASSERT_EQ(symlink("ops", (dir + "/group/ops").c_str()), 0);
        // One refusal with its syslog complaint and its entry.
        auto refused = [&](const char *user, const std::string &complaint, const std::string &label) {
            EXPECT_EQ(w.account(user, from("10.0.0.5")).rc, PAM_PERM_DENIED);
            EXPECT_EQ(w.take_module_syslog(), Lines{"<35>" + complaint});
            auto audit = w.take_audit();
            ASSERT_EQ(audit.size(), 1u);
            EXPECT_EQ(entry_text(audit[0], kEventAccess, 2),
                      access_violation(kernel, "sshd", user, "10.0.0.5", label, "Deny"));
        };
        // alice: staff has no file, ops cannot be opened.
        refused("alice", "couldn't open access rule file for group 'ops' (user=alice)", "group [internel system error]");
        mkdir((dir + "/user").c_str(), 0755);
        ASSERT_EQ(symlink("bob", (dir + "/user/bob").c_str()), 0);
        refused("bob", "couldn't open access rule file for user 'bob'", "user bob");
        ASSERT_EQ(symlink("default.conf", (dir + "/default.conf").c_str()), 0);
        refused("carol", "couldn't open default access rule file for user 'carol'", "default");
    });
}

TEST_P(AccessControl, RuleFieldsMatchAsWritten) {
    in_world(GetParam(), [&](World &w) {
        w.modes("on", "on");
        struct Case {
            const char *line;
            Items items;
            const char *service;
            int rc;
        };
        const Case cases[] = {
            {"x:-:ftp,sshd:*::", from("10.0.0.5"), "sshd", PAM_PERM_DENIED},
            {"x:-:ftp,SSHD:*::", from("10.0.0.5"), "sshd", PAM_SUCCESS},  // service names are case-sensitive
            {"x:-::::", from("10.0.0.5"), "su", PAM_PERM_DENIED},          // empty fields match anything
            {"x:-:*:0.0.0.0/0::", from("10.0.0.5"), "sshd", PAM_PERM_DENIED},
            {"x:-:*:10.0.0.0/8,somehost,192.168.1.1::", from("192.168.1.1"), "sshd", PAM_SUCCESS},
            {"x:-:*:10.0.0.0/8,somehost,192.168.1.1::", from("10.0.0.5"), "sshd", PAM_PERM_DENIED},
            {"x:-:*:192.168.1.7/255.255.255.0::", from("192.168.1.200"), "sshd", PAM_PERM_DENIED},
            {"x:-:*:192.168.1.7/32::", from("192.168.1.8"), "sshd", PAM_SUCCESS},
            {"x:-:*:10.0.0.0/0::", from("10.0.0.5"), "sshd", PAM_SUCCESS},  // only 0.0.0.0 (kept)
            {"x:-:*:!::", {std::nullopt, std::string("pts/4"), std::nullopt}, "sshd", PAM_SUCCESS},
            {"x:-:*:!::", from("10.0.0.5"), "sshd", PAM_SUCCESS},
            {"x:-:*:!::", from(" local"), "sshd", PAM_PERM_DENIED},  // a blank first: a local login
            {"x:-:*:*:pts/3,pts/4:", from("10.0.0.5", "/dev/pts/4"), "sshd", PAM_PERM_DENIED},
            {"x:-:*:*:pts/3:", from("10.0.0.5", "pts/5"), "sshd", PAM_SUCCESS},
            {"x:-:*:*:pts/3:", {std::string("10.0.0.5"), std::nullopt, std::nullopt}, "sshd", PAM_SUCCESS},
            {"x:+:sshd:*::\nx:-:sshd:*::", from("10.0.0.5"), "sshd", PAM_SUCCESS},  // first decisive line wins
            {"x:-:ftp:*::\n#x:+:sshd:*::\n\n   \nx:-:sshd:*::", from("10.0.0.5"), "sshd", PAM_PERM_DENIED},
        };
        for (const Case &c : cases) {
            SCOPED_TRACE(c.line);
            w.user_rules("alice", std::string(c.line) + "\n");
            EXPECT_EQ(w.account("alice", c.items, c.service).rc, c.rc);
        }
        w.clear_logs();
    });
}

TEST_P(AccessControl, BrokenPermissionFieldsDenyAndNameTheLine) {
    Kernel kernel = GetParam();
    in_world(kernel, [&](World &w) {
        w.modes("on", "on");
        const std::string path = std::string(World::kAclDir) + "/user/alice";
        w.user_rules("alice", "# comment\nx:-:ftp:*::\nx::sshd:*::\n");
        EXPECT_EQ(w.account("alice", from("10.0.0.5")).rc, PAM_PERM_DENIED);
        EXPECT_EQ(w.take_module_syslog(), Lines{"<35>" + path + ": line 3: empty permission field"});
        w.user_rules("alice", "x:?:sshd:*::\n");
        EXPECT_EQ(w.account("alice", from("10.0.0.5")).rc, PAM_PERM_DENIED);
        EXPECT_EQ(w.take_module_syslog(), Lines{"<35>" + path + ": line 1: bad permission field"});
        // Fewer than six fields: the missing ones are empty, so "x:-" denies everything.
        w.user_rules("alice", "x:-\n");
        EXPECT_EQ(w.account("alice", from("10.0.0.5"), "ftp").rc, PAM_PERM_DENIED);
        EXPECT_EQ(w.take_module_syslog(), Lines{});
        auto audit = w.take_audit();
        ASSERT_EQ(audit.size(), 3u);
        EXPECT_EQ(audit[0].message, access_violation(kernel, "sshd", "alice", "10.0.0.5", "user alice", "Deny"));
    });
}

TEST_P(AccessControl, ConsoleLoginsAreExemptBeforeAnyRuleIsRead) {
    in_world(GetParam(), [&](World &w) {
        w.modes("on", "on");
        w.user_rules("alice", "x:-::::\n");
        w.default_rules("x:-::::\n");
        for (const char *tty : {"tty1", "/dev/tty2", "ttyS0"}) {
            SCOPED_TRACE(tty);
            Outcome out = w.account("alice", {std::string("10.0.0.5"), std::string(tty), std::nullopt}, "login");
            EXPECT_EQ(out.rc, PAM_SUCCESS);
            EXPECT_TRUE(out.conv.empty());
        }
        // Not even the "allowed" entry: the call ends before the decision.
        EXPECT_TRUE(w.take_audit().empty());
        EXPECT_EQ(w.take_module_syslog(), Lines{});
        // A pseudo-terminal is no console.
        EXPECT_EQ(w.account("alice", from("10.0.0.5", "pts/0"), "login").rc, PAM_PERM_DENIED);
    });
}

TEST_P(AccessControl, IPv6HostsAreRefusedByTheSessionLimitMode) {
    Kernel kernel = GetParam();
    in_world(kernel, [&](World &w) {
        const std::string text = "'sshd' access is denied for user 'alice' from '2001:db8::1' - IPv6 address is not supported";
        struct Case {
            const char *access, *session;
            int rc;
            bool reported;
        };
        for (Case c : {Case{"off", "on", PAM_PERM_DENIED, true}, Case{"on", "nolog", PAM_PERM_DENIED, true},
                       Case{"on", "warn", PAM_SUCCESS, true}, Case{"on", "off", PAM_SUCCESS, false}}) {
            SCOPED_TRACE(std::string(c.access) + "/" + c.session);
            w.modes(c.access, c.session);
            Outcome out = w.account("alice", from("2001:db8::1"));
            EXPECT_EQ(out.rc, c.rc);
            expect_reported(w, out, c.reported ? text : "");
        }
        // The usual mapped form is refused too (deliberately narrow pattern) ...
        w.modes("on", "on");
        EXPECT_EQ(w.account("alice", from("::ffff:10.0.0.1")).rc, PAM_PERM_DENIED);
        EXPECT_EQ(w.take_module_syslog(),
                  Lines{"<35>'sshd' access is denied for user 'alice' from '::ffff:10.0.0.1' - IPv6 address is not supported"});
        // ... while ::ffff:0:a.b.c.d is taken as the IPv4 address it carries.
        w.user_rules("alice", "x:-:sshd:10.0.0.1::\n");
        EXPECT_EQ(w.account("alice", from("::ffff:0:10.0.0.1")).rc, PAM_PERM_DENIED);
        auto audit = w.take_audit();
        ASSERT_FALSE(audit.empty());
        EXPECT_EQ(audit.back().message, access_violation(kernel, "sshd", "alice", "10.0.0.1", "user alice", "Deny"));
        EXPECT_EQ(w.account("alice", from("::ffff:0:10.0.0.2")).rc, PAM_SUCCESS);
        EXPECT_TRUE(w.take_module_syslog().empty());
    });
}

TEST_P(AccessControl, HostNamesResolveThroughTheHostsFile) {
    Kernel kernel = GetParam();
    in_world(kernel, [&](World &w) {
        w.modes("on", "on");
        w.user_rules("alice", "x:-:sshd:10.0.0.0/8::\n");
        EXPECT_EQ(w.account("alice", from("build-host")).rc, PAM_PERM_DENIED);  // 10.1.2.3
        auto audit = w.take_audit();
        ASSERT_EQ(audit.size(), 1u);
        EXPECT_EQ(audit[0].message, access_violation(kernel, "sshd", "alice", "build-host", "user alice", "Deny"));
        EXPECT_EQ(w.account("alice", from("lab-host")).rc, PAM_SUCCESS);  // 192.168.1.1
        EXPECT_EQ(w.take_module_syslog(), Lines{});

        // A name that does not resolve matches no list, and says so.
        EXPECT_EQ(w.account("alice", from("ghost.invalid")).rc, PAM_SUCCESS);
        EXPECT_EQ(w.take_module_syslog(),
                  Lines{"<35>cannot get IP address or unsupported address format (host=ghost.invalid)."});
        // A remote host taken from the terminal ("pts/N") matches no list either ...
        EXPECT_EQ(w.account("alice", {std::nullopt, std::string("/dev/pts/3"), std::nullopt}).rc, PAM_SUCCESS);
        // ... but the wildcard, with the terminal as the remote host in the message.
        w.user_rules("alice", "x:-:sshd:*::\n");
        w.take_audit();
        EXPECT_EQ(w.account("alice", {std::nullopt, std::string("/dev/pts/3"), std::string("root")}).rc,
                  PAM_PERM_DENIED);
        audit = w.take_audit();
        ASSERT_EQ(audit.size(), 1u);
        EXPECT_EQ(audit[0].message,
                  access_violation(kernel, "sshd", "alice", "pts/3", "user alice", "Deny", "root"));
        EXPECT_EQ(w.take_module_syslog(), Lines{});
    });
}

TEST_P(AccessControl, DtloginDisplaysAreCutAtTheLastColon) {
    Kernel kernel = GetParam();
    in_world(kernel, [&](World &w) {
        w.modes("on", "on");
        w.user_rules("alice", "x:-:dtlogin:10.1.2.3::\n");
        EXPECT_EQ(w.account("alice", from("10.1.2.3:0"), "dtlogin").rc, PAM_PERM_DENIED);
        auto audit = w.take_audit();
        ASSERT_EQ(audit.size(), 1u);
        EXPECT_EQ(audit[0].message, access_violation(kernel, "dtlogin", "alice", "10.1.2.3", "user alice", "Deny"));
        EXPECT_EQ(w.account("alice", from("build-host:1"), "dtlogin").rc, PAM_PERM_DENIED);
    });
}

TEST_P(AccessControl, RequestsThatCannotBeGatheredFailEarly) {
    in_world(GetParam(), [&](World &w) {
        w.modes("on", "on");
        EXPECT_EQ(w.account("nosuchuser", from("10.0.0.5")).rc, PAM_USER_UNKNOWN);
        EXPECT_EQ(w.take_module_syslog(), Lines{"<35>sshd: couldn't get user information of 'nosuchuser'"});
        // No user at all: libpam asks through the conversation, the answer is empty.
        EXPECT_EQ(w.account(nullptr, from("10.0.0.5")).rc, PAM_USER_UNKNOWN);
        EXPECT_EQ(w.take_module_syslog(), Lines{"<35>sshd: cannot determine the user's name"});
        // Unknown options are reported and ignored; option words are case-insensitive.
        w.service_file("sshd", "account required %M DEBUG foo AllowLog\n");
        EXPECT_EQ(w.account("alice", from("10.0.0.5")).rc, PAM_SUCCESS);
        EXPECT_EQ(w.take_module_syslog(), Lines{"<35>_pam_parse : unknown option; foo"});
        EXPECT_EQ(w.take_audit().size(), 1u);
    });
}

INSTANTIATE_TEST_SUITE_P(System, AccessControl, ::testing::Values(Kernel::absent, Kernel::present), kernel_name);

}  // namespace
}  // namespace mgsys
