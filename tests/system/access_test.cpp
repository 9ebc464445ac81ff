// Service access control (the account phase) through libpam: decisions,
// modes, what syslog, the secure log and the user see.
#include "harness.hpp"

#include <unistd.h>

#include <tuple>

namespace mgsys {
namespace {

MG_WORLD_SUITE(AccessControl, Kernel::absent, Kernel::present);

const std::string kAllowed = "User 'alice (from 10.0.0.5)' has allowed to connect to 'sshd' service.";

MG_WORLD_TEST(AccessControl, EachModeDecidesAndRecordsAUserRuleDenial) {
    // No rule file and no pam_acl.conf: allowed, and "allowlog" records it.
    Outcome out = w.account("alice", from("10.0.0.5"));
    EXPECT_EQ(out.rc, PAM_SUCCESS);
    EXPECT_TRUE(out.conv.empty());
    auto audit = w.take_audit();
    ASSERT_EQ(audit.size(), 1u);
    EXPECT_EQ(entry_text(audit[0], 0, 1), kAllowed);

    w.user_rules("alice", "# alice may not use ssh\nx:-:sshd:*::\n");
    const struct { const char *mode; int rc; const char *word; } cases[] = {  // word: of the recorded violation
        {"on", PAM_PERM_DENIED, "Deny"}, {"Warn", PAM_SUCCESS, "Warning"},
        {"nolog", PAM_PERM_DENIED, nullptr}, {"off", PAM_SUCCESS, nullptr}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.mode);
        w.modes(c.mode, "on");
        EXPECT_EQ(w.account("alice", from("10.0.0.5")).rc, c.rc);
        audit = w.take_audit();
        ASSERT_EQ(audit.size(), (c.word ? 1u : 0u) + (c.rc == PAM_SUCCESS ? 1u : 0u));  // then the allowed entry
        if (c.word != nullptr) {
            EXPECT_EQ(entry_text(audit[0], kEventAccess, 2),
                      access_violation(kernel, "sshd", "alice", "10.0.0.5", "user alice", c.word));
        }
        EXPECT_TRUE(c.rc != PAM_SUCCESS || audit.back().message == kAllowed) << audit.back().message;
    }
    // A missing key means "on"; an unknown word keeps the mode the process had
    // (mgctl's dry run, a fresh process, starts from "warn": no comparison here).
    w.check_with_mgctl = false;
    for (auto [conf, rc] : {std::pair{"LimitLoginSession warn\n", PAM_PERM_DENIED},
                            {"ServiceAccessControl off\n", PAM_SUCCESS}, {"ServiceAccessControl maybe\n", PAM_SUCCESS}}) {
        w.acl_file("pam_acl.conf", conf);
        EXPECT_EQ(w.account("alice", from("10.0.0.5")).rc, rc) << conf;
    }
    EXPECT_EQ(w.take_module_syslog(), Lines{});
    w.clear_logs();
    // Without "allowlog" nothing is recorded for an allowed access... once
    // given, it stays on for the life of the process.
    w.service_file("sshd", "account required %M\n");
    EXPECT_EQ(w.account("alice", from("10.0.0.5")).rc, PAM_SUCCESS);
    EXPECT_EQ(w.take_audit().size(), 1u);
}

MG_WORLD_TEST(AccessControl, UserThenGroupsThenDefaultDecide) {
    w.modes("on", "on");
    w.default_rules("x:-:*:*::\n");
    w.group_rules("staff", "staff:-:sshd:*::\n");
    w.group_rules("dev", "dev:+:sshd:*::\n");
    w.user_rules("carol", "carol:+:sshd:10.0.0.0/8::\n");
    EXPECT_EQ(w.account("bob", from("10.0.0.5")).rc, PAM_SUCCESS);  // primary group dev before staff
    EXPECT_EQ(w.account("carol", from("10.9.9.9")).rc, PAM_SUCCESS);  // her own rule
    w.clear_logs();
    // The rule label names the deciding file.
    for (auto [user, host, service, label] : {std::tuple{"alice", "10.0.0.5", "sshd", "group staff"},
                                              {"carol", "172.16.0.1", "sshd", "group staff"},
                                              {"bob", "10.0.0.5", "ftp", "default"}}) {
        EXPECT_EQ(w.account(user, from(host), service).rc, PAM_PERM_DENIED);
        EXPECT_EQ(entry_text(w.take_audit().at(0), kEventAccess, 2), access_violation(kernel, service, user, host, label, "Deny"));
    }
    // Rule files that cannot be opened (a link loop) deny and say so.
    ASSERT_EQ(symlink("ops", (std::string(World::kAclDir) + "/group/ops").c_str()), 0);
    w.group_rules("staff", "");
    EXPECT_EQ(w.account("alice", from("10.0.0.5")).rc, PAM_PERM_DENIED);
    EXPECT_EQ(w.take_module_syslog(), Lines{"<35>couldn't open access rule file for group 'ops' (user=alice)"});
    EXPECT_EQ(entry_text(w.take_audit().at(0), kEventAccess, 2),
              access_violation(kernel, "sshd", "alice", "10.0.0.5", "group [internel system error]", "Deny"));
    ASSERT_EQ(unlink((std::string(World::kAclDir) + "/default.conf").c_str()), 0);  // no default file: allowed
    EXPECT_EQ(w.account("carol", from("172.16.0.1"), "ftp").rc, PAM_SUCCESS);
    w.clear_logs();
}

MG_WORLD_TEST(AccessControl, RuleFieldsMatchAsWritten) {
    w.modes("on", "on");
    const struct { const char *line; Items items; const char *service; int rc; } cases[] = {
        {"x:-:ftp,SSHD:*::", from("10.0.0.5"), "sshd", PAM_SUCCESS},  // service names are case-sensitive
        {"x:-::::", from("10.0.0.5"), "su", PAM_PERM_DENIED},          // empty fields match anything
        {"x:-:*:0.0.0.0/0::", from("10.0.0.5"), "sshd", PAM_PERM_DENIED},
        {"x:-:*:10.0.0.0/0::", from("10.0.0.5"), "sshd", PAM_SUCCESS},  // only 0.0.0.0 (kept)
        {"x:-:*:192.168.1.7/255.255.255.0::", from("192.168.1.200"), "sshd", PAM_PERM_DENIED},
        {"x:-:*:192.168.1.0/24::", from("192.168.1.255"), "sshd", PAM_PERM_DENIED},
        {"x:-:*:!::", from(" local"), "sshd", PAM_PERM_DENIED},  // a blank first: a local login
        {"x:-:*:*:pts/3,pts/4:", from("10.0.0.5", "/dev/pts/4"), "sshd", PAM_PERM_DENIED},
        {"x:-:*:*:pts/3:", {std::string("10.0.0.5"), std::nullopt, std::nullopt}, "sshd", PAM_SUCCESS},
        {"x:+:sshd:*::\nx:-:sshd:*::", from("10.0.0.5"), "sshd", PAM_SUCCESS},  // the first decisive line
        {"x:-:sshd:build-host::", from("build-host"), "sshd", PAM_SUCCESS},  // names are no addresses
        {"x:-:sshd:10.0.0.0/8::", from("build-host"), "sshd", PAM_PERM_DENIED},  // hosts resolve
        {"x:-:dtlogin:10.1.2.3::", from("10.1.2.3:0"), "dtlogin", PAM_PERM_DENIED},  // display cut
        {"x:-:sshd:*::", from("10.0.0.5", "tty2"), "login", PAM_SUCCESS},  // consoles are exempt
        {"x:-:sshd:*::", from("10.0.0.5", "/dev/tty1"), "sshd", PAM_SUCCESS},
        {"x:-\nx:+::::", from("10.0.0.5"), "ftp", PAM_PERM_DENIED},  // missing fields are empty
        {"x:?:sshd:*::", from("10.0.0.5"), "sshd", PAM_PERM_DENIED},  // a bad permission field
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.line);
        w.user_rules("alice", std::string(c.line) + "\n");
        EXPECT_EQ(w.account("alice", c.items, c.service).rc, c.rc);
    }
    w.clear_logs();
    w.user_rules("alice", "x:-:sshd:*::\n");  // a console login ends before any rule or entry
    EXPECT_EQ(w.account("alice", from("10.0.0.5", "tty2")).rc, PAM_SUCCESS);
    EXPECT_TRUE(w.take_audit().empty());
    w.clear_logs();
}

MG_WORLD_TEST(AccessControl, IPv6AndMissingHosts) {
    // IPv6 hosts are refused by the session-limit mode.
    const std::string text = "'sshd' access is denied for user 'alice' from '2001:db8::1' - IPv6 address is not supported";
    for (auto [access, session, rc] : {std::tuple{"off", "on", PAM_PERM_DENIED}, {"on", "warn", PAM_SUCCESS},
                                       {"on", "off", PAM_SUCCESS}}) {
        w.modes(access, session);
        Outcome out = w.account("alice", from("2001:db8::1"));
        EXPECT_EQ(out.rc, rc) << session;
        expect_reported(w, out, std::string(session) != "off" ? text : "");
    }
    // ::ffff:0:a.b.c.d is taken as the IPv4 address it carries.
    w.modes("on", "on");
    w.user_rules("alice", "x:-:sshd:10.0.0.1::\n");
    EXPECT_EQ(w.account("alice", from("::ffff:0:10.0.0.1")).rc, PAM_PERM_DENIED);
    EXPECT_EQ(w.take_audit().at(0).message, access_violation(kernel, "sshd", "alice", "10.0.0.1", "user alice", "Deny"));
    // The terminal stands in for a missing remote host.
    w.user_rules("alice", "x:-:sshd:*::\n");
    w.clear_logs();
    EXPECT_EQ(w.account("alice", {std::nullopt, std::string("/dev/pts/3"), std::string("root")}).rc, PAM_PERM_DENIED);
    EXPECT_EQ(w.take_audit().at(0).message, access_violation(kernel, "sshd", "alice", "pts/3", "user alice", "Deny", "root"));
}

MG_WORLD_TEST(AccessControl, RequestsWithoutAUserFailEarlyAndOptionsAreChecked) {
    EXPECT_EQ(w.account(nullptr, from("10.0.0.5")).rc, PAM_USER_UNKNOWN);
    EXPECT_EQ(w.take_module_syslog(), Lines{"<35>sshd: cannot determine the user's name"});
    // Unknown options are reported and ignored; option words are case-insensitive.
    w.service_file("sshd", "account required %M DEBUG foo AllowLog\n");
    EXPECT_EQ(w.account("alice", from("10.0.0.5")).rc, PAM_SUCCESS);
    EXPECT_EQ(w.take_module_syslog(), Lines{"<35>_pam_parse : unknown option; foo"});
    EXPECT_EQ(w.take_audit().size(), 1u);
}

}  // namespace
}  // namespace mgsys
