// Login session limits, session opening and closing through libpam, with
// sessions counted from the sandbox's own utmpx file.
#include "harness.hpp"

#include <utmpx.h>

#include <tuple>

namespace mgsys {
namespace {

std::string opened_line(const std::string &user, const std::string &rhost, int number) {
    return "<38>session opened for user '" + user + "'(from " + rhost + ") with service 'sshd' [#" +
           std::to_string(number) + "]";
}

std::string opened_entry(const std::string &user, const std::string &rhost) {
    return "Session opened for user '" + user + "' (from " + rhost + ") on terminal 'pts/3' with service 'sshd'";
}

// The message part of a violation entry (before "::LOGIN(0)").
std::string message_of(const std::string &entry) { return entry.substr(0, entry.find("::LOGIN(0):")); }
MG_WORLD_SUITE(Sessions, Kernel::absent, Kernel::present);

MG_WORLD_TEST(Sessions, EachModeHandlesAnExceededUserLimit) {
    w.acl_file("user_session.conf", "# user limits\nx:bob:9::\nx:alice:2::\n");
    // Counted: pts/1 and pts/2; not: the request's own terminal, someone else, a closed session.
    for (auto [user, line, host] : {std::tuple{"alice", "pts/1", "10.0.0.7"}, {"alice", "pts/2", "10.0.0.8"},
                                    {"alice", "pts/3", "10.0.0.5"}, {"bob", "pts/4", "10.0.0.5"}})
        w.sb.add_utmpx(user, line, host);
    w.sb.add_utmpx("alice", "pts/5", "", DEAD_PROCESS);
    // shown: the mode's name when the session goes through; word: of the recorded violation
    const struct { const char *mode; int rc; const char *shown, *word; } cases[] = {
        {"on", PAM_SESSION_ERR, nullptr, "Deny"}, {"warn", PAM_SUCCESS, "Warning", "Warning"},
        {"nolog", PAM_SESSION_ERR, nullptr, nullptr}, {"off", PAM_SUCCESS, "Off", nullptr}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.mode);
        w.modes("on", c.mode);
        EXPECT_EQ(w.open_session("alice", from("10.0.0.5")).rc, c.rc);
        Lines syslog, entries;
        if (c.shown != nullptr) {
            syslog = {"<38>user 'alice'(from 10.0.0.5) has exceed max login session, but operation mode is '" +
                          std::string(c.shown) + "'",
                      opened_line("alice", "10.0.0.5", 3)};
            entries.push_back(opened_entry("alice", "10.0.0.5"));
        }
        if (c.word != nullptr)
            entries.push_back(session_violation(kernel, "sshd", "alice", "10.0.0.5", "user alice", 2, 2, c.word));
        EXPECT_EQ(w.take_module_syslog(), syslog);
        auto audit = w.take_audit();
        ASSERT_EQ(audit.size(), entries.size());
        for (size_t i = 0; i < audit.size(); ++i) {
            bool violation = entries[i].rfind("User '", 0) == 0;
            EXPECT_EQ(entry_text(audit[i], violation ? kEventSession : 0, violation ? 2 : 1), entries[i]);
        }
    }
    // One more allowed session is within the limit; a local host reads as localhost.
    w.modes("on", "on");
    w.acl_file("user_session.conf", "x:alice:3::\n");
    EXPECT_EQ(w.open_session("alice", from("pts/1", "/dev/pts/3")).rc, PAM_SUCCESS);
    EXPECT_EQ(w.take_module_syslog(), Lines{opened_line("alice", "localhost", 3)});
    EXPECT_EQ(w.take_audit().at(0).message, opened_entry("alice", "localhost"));
    // Consoles and terminal-less sessions are not looked at.
    w.acl_file("user_session.conf", "x:alice:0::\n");
    EXPECT_EQ(w.open_session("alice", from("10.0.0.5", "tty2")).rc, PAM_SUCCESS);
    EXPECT_EQ(w.open_session("alice", {std::string("10.0.0.5"), std::nullopt, {}}).rc, PAM_SUCCESS);
    EXPECT_EQ(w.take_module_syslog(), Lines{});
}

MG_WORLD_TEST(Sessions, UserGroupDefaultAndAddressRulesApplyInOrder) {
    w.modes("on", "on");
    w.sb.add_utmpx("alice", "pts/1", "10.1.2.3");
    w.sb.add_utmpx("bob", "pts/2", "build-host");  // a host name, counted by its address
    w.sb.add_utmpx("carol", "pts/4", "192.168.1.1");
    auto refused_by = [&](const char *user, const Items &items) -> std::string {
        EXPECT_EQ(w.open_session(user, items).rc, PAM_SESSION_ERR) << user;
        auto audit = w.take_audit();
        return audit.size() == 1u ? entry_text(audit[0], kEventSession, 2) : "entries: " + std::to_string(audit.size());
    };
    // Group: bob is in staff (secondary); his own session counts.
    w.acl_file("group_session.conf", "x:staff:1::\n");
    EXPECT_EQ(refused_by("bob", from("10.0.0.5")),
              session_violation(kernel, "sshd", "bob", "10.0.0.5", "group staff", 1, 1, "Deny"));
    // Default: the first rule line, once carol's group rule defers (-2).
    w.acl_file("group_session.conf", "x:staff:-2::\n");
    w.acl_file("default_session.conf", "# everybody\nx:everyone:1::\nx:second:5::\n");
    EXPECT_EQ(refused_by("carol", from("10.0.0.5")),
              session_violation(kernel, "sshd", "carol", "10.0.0.5", "default", 1, 1, "Deny"));
    w.acl_file("group_session.conf", "x:staff:5::\n");  // a group rule decides before the default
    EXPECT_EQ(w.open_session("bob", from("10.0.0.5")).rc, PAM_SUCCESS);
    // A user rule decides before the group and default ones.
    w.acl_file("user_session.conf", "x:bob:-1::\nx:carol:-1::\n");
    EXPECT_EQ(w.open_session("bob", from("10.0.0.5")).rc, PAM_SUCCESS);
    w.clear_logs();
    // Address: a login from 10/8 while alice is there from 10.1.2.3 and bob
    // from build-host (10.1.2.3): two sessions counted, after the user rule allowed.
    w.acl_file("ip_session.conf", "x:192.168.0.0/16:5::\nx:10.0.0.0/8:2::\n");
    EXPECT_EQ(refused_by("carol", from("10.1.2.3")),
              session_violation(kernel, "sshd", "carol", "10.1.2.3", "IP 10.0.0.0", 2, 2, "Deny"));
    EXPECT_EQ(w.open_session("carol", from("172.16.0.9")).rc, PAM_SUCCESS);  // no rule
    // Hosts that only look like a dotted quad keep an unknown address.
    EXPECT_EQ(w.open_session("carol", from("10.1.2.03")).rc, PAM_SUCCESS);
    w.clear_logs();
}

MG_WORLD_TEST(Sessions, SpecialLimitsAndFlags) {
    w.modes("on", "on");
    w.sb.add_utmpx("alice", "tty1", "");
    w.sb.add_utmpx("alice", "pts/1", "10.0.0.7");
    const char *exceeded = "User 'alice' has exceed max session. 'sshd' login is denied [by user alice rule].";
    const struct { const char *rule; int rc; const char *message; } cases[] = {
        {"x:alice:0::", PAM_SESSION_ERR, "User 'alice' has no available session. 'sshd' login is allways denied."},
        {"x:alice:-5::", PAM_SESSION_ERR, exceeded}, {"x:alice:2::", PAM_SESSION_ERR, exceeded},
        {"x:alice:2:0:1", PAM_SUCCESS, nullptr},  // skip console: the console session is not counted
        {"x:alice:two::", PAM_SESSION_ERR,
         "Error is occurred while reading session information of 'alice'. 'sshd' login is not permitted."},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.rule);
        w.acl_file("user_session.conf", std::string(c.rule) + "\n");
        EXPECT_EQ(w.open_session("alice", from("10.0.0.5")).rc, c.rc);
        auto audit = w.take_audit();
        EXPECT_TRUE(c.message == nullptr || (audit.size() == 1u && message_of(audit[0].message) == c.message))
            << (audit.empty() ? "no entry" : audit[0].message);
    }
    w.acl_file("user_session.conf", "x::1::\n");
    EXPECT_EQ(w.open_session("alice", from("10.0.0.5")).rc, PAM_SESSION_ERR);
    EXPECT_EQ(w.take_module_syslog().back(),
              "<35>" + std::string(World::kAclDir) + "/user_session.conf: line 1: empty name field");
    w.clear_logs();
}

MG_WORLD_TEST(Sessions, UnusableRemoteHostsFollowTheSessionMode) {
    const std::string bad = "invalid hostname or IP address is assigned (user=alice, hostname=ghost.invalid).";
    const std::string v6 = "'sshd' access is denied for user 'alice' from '2001:db8::7' - IPv6 address is not supported";
    for (auto [mode, host, rc, text] : {std::tuple{"nolog", "ghost.invalid", PAM_SESSION_ERR, &bad},
                                        {"nolog", "2001:db8::7", PAM_PERM_DENIED, &v6}, {"warn", "ghost.invalid", PAM_SUCCESS, &bad},
                                        {"warn", "2001:db8::7", PAM_SUCCESS, &v6}, {"off", "ghost.invalid", PAM_SUCCESS, nullptr},
                                        {"off", "2001:db8::7", PAM_SUCCESS, nullptr}}) {
        w.modes("off", mode);
        Outcome out = w.open_session("alice", from(host));
        EXPECT_EQ(out.rc, rc) << mode << " " << host;
        expect_reported(w, out, text ? *text : "");
        EXPECT_TRUE(w.take_audit().empty());
    }
}

MG_WORLD_TEST(Sessions, ClosingIsLoggedOnlyAndOpeningNeedsAUser) {
    w.modes("on", "on");
    w.acl_file("user_session.conf", "x:alice:0::\n");  // closing is never refused
    EXPECT_EQ(w.close_session("alice", from("10.0.0.5", "/dev/pts/3")).rc, PAM_SUCCESS);
    EXPECT_EQ(w.take_module_syslog(), Lines{"<38>session closed for 'alice' from '10.0.0.5' with service 'sshd'"});
    EXPECT_EQ(entry_text(w.take_audit().at(0), 0, 1),
              "Session closed for user 'alice' (from 10.0.0.5) on terminal '/dev/pts/3' with service 'sshd'");
    // Nothing at all for unknown accounts and terminal-less sessions.
    EXPECT_EQ(w.close_session("nosuchuser", from("10.0.0.5")).rc, PAM_SUCCESS);
    EXPECT_EQ(w.close_session("alice", {std::string("10.0.0.5"), std::nullopt, {}}).rc, PAM_SUCCESS);
    EXPECT_EQ(w.take_module_syslog(), Lines{});
    EXPECT_TRUE(w.take_audit().empty());
    EXPECT_EQ(w.close_session(nullptr, from("10.0.0.5")).rc, PAM_SESSION_ERR);
    EXPECT_EQ(w.open_session(nullptr, from("10.0.0.5")).rc, PAM_SESSION_ERR);
    EXPECT_EQ(w.take_module_syslog(), Lines{"<35>open_session - error recovering username"});
    EXPECT_EQ(w.open_session("nosuchuser", from("10.0.0.5")).rc, PAM_USER_UNKNOWN);
    EXPECT_EQ(w.take_module_syslog(), Lines{"<35>couldn't get user information of 'nosuchuser'"});
}

}  // namespace
}  // namespace mgsys
