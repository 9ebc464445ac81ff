// Login session limits, session opening and closing through libpam, with
// sessions counted from the sandbox's own utmpx file.
#include "system_common.hpp"

#include <utmpx.h>

#include <security/pam_appl.h>

#include <string>
#include <vector>

namespace mgsys {
namespace {

std::string opened_line(const std::string &user, const std::string &rhost, int number,
                        const std::string &service = "sshd") {
    return "<38>session opened for user '" + user + "'(from " + rhost + ") with service '" + service + "' [#" +
           std::to_string(number) + "]";
}

std::string opened_entry(const std::string &user, const std::string &rhost, const std::string &tty,
                         const std::string &service = "sshd") {
    return "Session opened for user '" + user + "' (from " + rhost + ") on terminal '" + tty + "' with service '" +
           service + "'";
}

// The message part of a violation entry (before "::LOGIN(0)").
std::string message_of(const std::string &entry) { return entry.substr(0, entry.find("::LOGIN(0):")); }

class Sessions : public ::testing::TestWithParam<Kernel> {};

TEST_P(Sessions, AnOpenedSessionIsAnnouncedInSyslogAndWithLogInTheSecureLog) {
    Kernel kernel = GetParam();
    in_world(kernel, [&](World &w) {
        w.modes("on", "on");
        Outcome out = w.open_session("alice", from("10.0.0.5"));
        EXPECT_EQ(out.rc, PAM_SUCCESS);
        EXPECT_TRUE(out.conv.empty());
        EXPECT_EQ(w.take_module_syslog(), Lines{opened_line("alice", "10.0.0.5", 1)});
        auto audit = w.take_audit();
        ASSERT_EQ(audit.size(), 1u);
        EXPECT_EQ(entry_text(audit[0], 0, 1), opened_entry("alice", "10.0.0.5", "pts/3"));

        // A local pseudo-terminal, an empty or a missing remote host read as localhost.
        for (Items items : {from("pts/1", "/dev/pts/3"), from(""), Items{std::nullopt, std::string("pts/3"), {}}}) {
            EXPECT_EQ(w.open_session("alice", items).rc, PAM_SUCCESS);
            EXPECT_EQ(w.take_module_syslog(), Lines{opened_line("alice", "localhost", 1)});
            audit = w.take_audit();
            ASSERT_EQ(audit.size(), 1u);
            EXPECT_EQ(audit[0].message, opened_entry("alice", "localhost", "pts/3"));
        }

        // Once given, "log" stays on for the life of the process.
        w.service_file("sshd", "session required %M\n");
        EXPECT_EQ(w.open_session("alice", from("10.0.0.5")).rc, PAM_SUCCESS);
        EXPECT_EQ(w.take_audit().size(), 1u);
    });
    // Without "log", syslog only.
    in_world(kernel, [&](World &w) {
        w.modes("on", "on");
        w.service_file("sshd", "session required %M\n");
        EXPECT_EQ(w.open_session("alice", from("10.0.0.5")).rc, PAM_SUCCESS);
        EXPECT_EQ(w.take_module_syslog(), Lines{opened_line("alice", "10.0.0.5", 1)});
        EXPECT_TRUE(w.take_audit().empty());
    });
}

TEST_P(Sessions, ConsoleAndTerminalLessSessionsAreNotLookedAt) {
    in_world(GetParam(), [&](World &w) {
        w.modes("on", "on");
        w.acl_file("user_session.conf", "x:alice:0::\n");
        for (Items items : {from("10.0.0.5", "tty2"), from("10.0.0.5", "/dev/tty1"), from("10.0.0.5", ""),
                            Items{std::string("10.0.0.5"), std::nullopt, {}}}) {
            Outcome out = w.open_session("alice", items);
            EXPECT_EQ(out.rc, PAM_SUCCESS);
            EXPECT_TRUE(out.conv.empty());
        }
        EXPECT_EQ(w.take_module_syslog(), Lines{});
        EXPECT_TRUE(w.take_audit().empty());
    });
}

TEST_P(Sessions, EachModeHandlesAnExceededUserLimit) {
    Kernel kernel = GetParam();
    in_world(kernel, [&](World &w) {
        w.acl_file("user_session.conf", "# user limits\nx:bob:9::\nx:alice:2::\n");
        w.sb.add_utmpx("alice", "pts/1", "10.0.0.7");
        w.sb.add_utmpx("alice", "pts/2", "10.0.0.8");
        w.sb.add_utmpx("alice", "pts/3", "10.0.0.5");    // the request's own terminal: not counted
        w.sb.add_utmpx("bob", "pts/4", "10.0.0.5");      // someone else
        w.sb.add_utmpx("alice", "pts/5", "", DEAD_PROCESS);  // a closed session
        struct Case {
            const char *mode;
            int rc;
            const char *shown;  // how the module names the mode when it lets the session through
            const char *word;   // display word of a recorded violation, nullptr: not recorded
        };
        for (Case c : {Case{"on", PAM_SESSION_ERR, nullptr, "Deny"}, Case{"warn", PAM_SUCCESS, "Warning", "Warning"},
                       Case{"nolog", PAM_SESSION_ERR, nullptr, nullptr}, Case{"off", PAM_SUCCESS, "Off", nullptr}}) {
            SCOPED_TRACE(c.mode);
            w.modes("on", c.mode);
            Outcome out = w.open_session("alice", from("10.0.0.5"));
            EXPECT_EQ(out.rc, c.rc);
            EXPECT_TRUE(out.conv.empty());
            auto audit = w.take_audit();
            Lines expected_syslog;
            std::vector<std::string> expected_audit;
            if (c.shown != nullptr) {
                expected_syslog = {"<38>user 'alice'(from 10.0.0.5) has exceed max login session, but operation mode is '" +
                                       std::string(c.shown) + "'",
                                   opened_line("alice", "10.0.0.5", 3)};
                expected_audit.push_back(opened_entry("alice", "10.0.0.5", "pts/3"));
            }
            if (c.word != nullptr)
                expected_audit.push_back(
                    session_violation(kernel, "sshd", "alice", "10.0.0.5", "user alice", 2, 2, c.word));
            EXPECT_EQ(w.take_module_syslog(), expected_syslog);
            ASSERT_EQ(audit.size(), expected_audit.size());
            for (size_t i = 0; i < audit.size(); ++i) {
                bool violation = expected_audit[i].rfind("User '", 0) == 0;
                EXPECT_EQ(entry_text(audit[i], violation ? kEventSession : 0, violation ? 2 : 1), expected_audit[i]);
            }
        }
        // One more allowed session is within the limit.
        w.modes("on", "on");
        w.acl_file("user_session.conf", "x:alice:3::\n");
        EXPECT_EQ(w.open_session("alice", from("10.0.0.5")).rc, PAM_SUCCESS);
        EXPECT_EQ(w.take_module_syslog(), Lines{opened_line("alice", "10.0.0.5", 3)});
    });
}

TEST_P(Sessions, UserGroupDefaultAndAddressRulesApplyInOrder) {
    Kernel kernel = GetParam();
    in_world(kernel, [&](World &w) {
        w.modes("on", "on");
        w.sb.add_utmpx("alice", "pts/1", "10.1.2.3");
        w.sb.add_utmpx("bob", "pts/2", "build-host");  // a host name, counted by its address
        w.sb.add_utmpx("carol", "pts/4", "192.168.1.1");

        auto refused_by = [&](const char *user, const Items &items) -> std::string {
            Outcome out = w.open_session(user, items);
            EXPECT_EQ(out.rc, PAM_SESSION_ERR) << user;
            EXPECT_EQ(w.take_module_syslog(), Lines{});
            auto audit = w.take_audit();
            if (audit.size() != 1u) {
                ADD_FAILURE() << "expected one violation entry for " << user << ", got " << audit.size();
                return "";
            }
            return entry_text(audit[0], kEventSession, 2);
        };

        // Group: bob is in staff (secondary); his own session counts.
        w.acl_file("group_session.conf", "x:staff:1::\n");
        EXPECT_EQ(refused_by("bob", from("10.0.0.5")),
                  session_violation(kernel, "sshd", "bob", "10.0.0.5", "group staff", 1, 1, "Deny"));

        // A user rule decides before the group: unlimited.
        w.acl_file("user_session.conf", "x:bob:-1::\nalice:x:0::\n");
        EXPECT_EQ(w.open_session("bob", from("10.0.0.5")).rc, PAM_SUCCESS);
        w.clear_logs();

        // Default: the first rule line of the file. carol has no user rule
        // ("alice:x:0::" names user "x"), and her group's rule defers.
        w.acl_file("group_session.conf", "x:staff:-2::\n");
        w.acl_file("default_session.conf", "# everybody\nx:everyone:1::\nx:second:5::\n");
        EXPECT_EQ(refused_by("carol", from("10.0.0.5")),
                  session_violation(kernel, "sshd", "carol", "10.0.0.5", "default", 1, 1, "Deny"));

        // Address: a second login from 10/8 while alice is there from 10.1.2.3
        // and bob from build-host (10.1.2.3): two sessions counted.
        w.acl_file("default_session.conf", "");
        w.acl_file("ip_session.conf", "x:192.168.0.0/16:5::\nx:10.0.0.0/8:2::\n");
        EXPECT_EQ(refused_by("carol", from("10.1.2.3")),
                  session_violation(kernel, "sshd", "carol", "10.1.2.3", "IP 10.0.0.0", 2, 2, "Deny"));
        // The address rule runs after a user rule allowed, too.
        w.acl_file("user_session.conf", "x:carol:-1::\n");
        EXPECT_EQ(w.open_session("carol", from("build-host")).rc, PAM_SESSION_ERR);
        w.clear_logs();
        // Other addresses have no rule.
        EXPECT_EQ(w.open_session("carol", from("172.16.0.9")).rc, PAM_SUCCESS);
        w.clear_logs();
        // Nor have hosts that only look like a dotted quad: their address stays unknown.
        for (const char *quadlike : {"10.1.2.03", "0x0a.1.2.3", "10.1.2.3 x"}) {
            EXPECT_EQ(w.open_session("carol", from(quadlike)).rc, PAM_SUCCESS) << quadlike;
            w.clear_logs();
        }
        // A single-address rule.
        w.acl_file("ip_session.conf", "x:192.168.1.1:1::\n");
        EXPECT_EQ(refused_by("alice", from("lab-host")),
                  session_violation(kernel, "sshd", "alice", "lab-host", "IP 192.168.1.1", 1, 1, "Deny"));
    });
}

TEST_P(Sessions, SpecialLimitsAndFlags) {
    Kernel kernel = GetParam();
    in_world(kernel, [&](World &w) {
        w.modes("on", "on");
        w.sb.add_utmpx("alice", "tty1", "");
        w.sb.add_utmpx("alice", "pts/1", "10.0.0.7");

        // Max 0: never.
        w.acl_file("user_session.conf", "x:alice:0::\n");
        EXPECT_EQ(w.open_session("alice", from("10.0.0.5")).rc, PAM_SESSION_ERR);
        auto audit = w.take_audit();
        ASSERT_EQ(audit.size(), 1u);
        EXPECT_EQ(message_of(audit[0].message),
                  "User 'alice' has no available session. 'sshd' login is allways denied.");

        // Max -5: no count is below it.
        w.acl_file("user_session.conf", "x:alice:-5::\n");
        EXPECT_EQ(w.open_session("alice", from("10.0.0.5")).rc, PAM_SESSION_ERR);
        audit = w.take_audit();
        ASSERT_EQ(audit.size(), 1u);
        EXPECT_EQ(message_of(audit[0].message),
                  "User 'alice' has exceed max session. 'sshd' login is denied [by user alice rule].");

        // The console session counts unless skip console is set.
        w.acl_file("user_session.conf", "x:alice:2::\n");
        EXPECT_EQ(w.open_session("alice", from("10.0.0.5")).rc, PAM_SESSION_ERR);
        w.acl_file("user_session.conf", "x:alice:2:0:1\n");
        EXPECT_EQ(w.open_session("alice", from("10.0.0.5")).rc, PAM_SUCCESS);
        EXPECT_EQ(w.take_module_syslog(), Lines{opened_line("alice", "10.0.0.5", 2)});
        EXPECT_EQ(w.take_audit().size(), 2u);  // the refusal, then the opened session

        // -2 defers to the group and default rules.
        w.acl_file("user_session.conf", "x:alice:-2::\n");
        w.acl_file("default_session.conf", "x:all:1::\n");
        EXPECT_EQ(w.open_session("alice", from("10.0.0.5")).rc, PAM_SESSION_ERR);
        audit = w.take_audit();
        ASSERT_EQ(audit.size(), 1u);
        EXPECT_EQ(audit[0].message,
                  session_violation(kernel, "sshd", "alice", "10.0.0.5", "default", 2, 1, "Deny"));

        // A broken rule file refuses with the error message.
        w.acl_file("user_session.conf", "x:alice:two::\n");
        EXPECT_EQ(w.open_session("alice", from("10.0.0.5")).rc, PAM_SESSION_ERR);
        audit = w.take_audit();
        ASSERT_EQ(audit.size(), 1u);
        EXPECT_EQ(message_of(audit[0].message),
                  "Error is occurred while reading session information of 'alice'. 'sshd' login is not permitted.");
        w.take_module_syslog();
        w.acl_file("user_session.conf", "x::1::\n");
        EXPECT_EQ(w.open_session("alice", from("10.0.0.5")).rc, PAM_SESSION_ERR);
        EXPECT_EQ(w.take_module_syslog(), Lines{"<35>" + std::string(World::kAclDir) + "/user_session.conf: line 1: empty name field"});
    });
}

TEST_P(Sessions, UnusableRemoteHostsFollowTheSessionMode) {
    in_world(GetParam(), [&](World &w) {
        const std::string bad = "invalid hostname or IP address is assigned (user=alice, hostname=ghost.invalid).";
        const std::string v6 = "'sshd' access is denied for user 'alice' from '2001:db8::7' - IPv6 address is not supported";
        struct Case {
            const char *mode;
            int rc_bad, rc_v6;
            bool reported;
        };
        for (Case c : {Case{"on", PAM_SESSION_ERR, PAM_PERM_DENIED, true}, Case{"nolog", PAM_SESSION_ERR, PAM_PERM_DENIED, true},
                       Case{"warn", PAM_SUCCESS, PAM_SUCCESS, true}, Case{"off", PAM_SUCCESS, PAM_SUCCESS, false}}) {
            SCOPED_TRACE(c.mode);
            w.modes("off", c.mode);
            Outcome out = w.open_session("alice", from("ghost.invalid"));
            EXPECT_EQ(out.rc, c.rc_bad);
            expect_reported(w, out, c.reported ? bad : "");
            out = w.open_session("alice", from("2001:db8::7"));
            EXPECT_EQ(out.rc, c.rc_v6);
            expect_reported(w, out, c.reported ? v6 : "");
            EXPECT_TRUE(w.take_audit().empty());
        }
    });
}

TEST_P(Sessions, ClosingIsLoggedOnly) {
    Kernel kernel = GetParam();
    in_world(kernel, [&](World &w) {
        w.sb.add_user(".x", 5999, 5000);
        // Closing is never refused, whatever the limits say.
        w.modes("on", "on");
        w.acl_file("user_session.conf", "x:alice:0::\n");
        Outcome out = w.close_session("alice", from("10.0.0.5", "/dev/pts/3"));
        EXPECT_EQ(out.rc, PAM_SUCCESS);
        EXPECT_EQ(w.take_module_syslog(), Lines{"<38>session closed for 'alice' from '10.0.0.5' with service 'sshd'"});
        auto audit = w.take_audit();
        ASSERT_EQ(audit.size(), 1u);
        // The terminal is shown as given: closing does not cut it.
        EXPECT_EQ(entry_text(audit[0], 0, 1),
                  "Session closed for user 'alice' (from 10.0.0.5) on terminal '/dev/pts/3' with service 'sshd'");

        EXPECT_EQ(w.close_session("alice", from("pts/0", "pts/0"), "su").rc, PAM_SUCCESS);
        EXPECT_EQ(w.take_module_syslog(), Lines{"<38>session closed for 'alice' from 'localhost' with service 'su'"});
        EXPECT_EQ(w.take_audit().size(), 1u);

        // Nothing at all for hidden users, unknown accounts and terminal-less sessions.
        EXPECT_EQ(w.close_session(".x", from("10.0.0.5")).rc, PAM_SUCCESS);
        EXPECT_EQ(w.close_session("nosuchuser", from("10.0.0.5")).rc, PAM_SUCCESS);
        EXPECT_EQ(w.close_session("alice", {std::string("10.0.0.5"), std::nullopt, {}}).rc, PAM_SUCCESS);
        EXPECT_EQ(w.take_module_syslog(), Lines{});
        EXPECT_TRUE(w.take_audit().empty());
        // No user item: an error.
        EXPECT_EQ(w.close_session(nullptr, from("10.0.0.5")).rc, PAM_SESSION_ERR);
    });
}

TEST_P(Sessions, OpeningWithoutAUsableUserFails) {
    in_world(GetParam(), [&](World &w) {
        w.modes("on", "on");
        EXPECT_EQ(w.open_session(nullptr, from("10.0.0.5")).rc, PAM_SESSION_ERR);
        EXPECT_EQ(w.take_module_syslog(), Lines{"<35>open_session - error recovering username"});
        EXPECT_EQ(w.open_session("nosuchuser", from("10.0.0.5")).rc, PAM_USER_UNKNOWN);
        EXPECT_EQ(w.take_module_syslog(), Lines{"<35>couldn't get user information of 'nosuchuser'"});
    });
}

INSTANTIATE_TEST_SUITE_P(System, Sessions, ::testing::Values(Kernel::absent, Kernel::present), kernel_name);

}  // namespace
}  // namespace mgsys
