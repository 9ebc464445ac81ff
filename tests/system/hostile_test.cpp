// Hostile and malformed input through libpam: format directives in names,
// overlong and broken rule lines, huge rule files, rule files that vanish
// while logins go on.
#include "harness.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <security/pam_appl.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

namespace mgsys {
namespace {

const std::string kUserFile = std::string(World::kAclDir) + "/user/alice";

class Hostile : public ::testing::TestWithParam<Kernel> {};

TEST_P(Hostile, FormatDirectivesInNamesAndHostsAreLoggedLiterally) {
    Kernel kernel = GetParam();
    in_world(kernel, [&](World &w) {
        const std::string evil = "%n%s%x";
        w.sb.add_user(evil, 6001, 5000);
        w.modes("on", "on");
        w.user_rules(evil, "x:-:sshd:10.0.0.0/8::\n");

        // A refusal of that user: the entry holds the name as it is.
        EXPECT_EQ(w.account(evil.c_str(), from("10.0.0.5")).rc, PAM_PERM_DENIED);
        auto audit = w.take_audit();
        ASSERT_EQ(audit.size(), 1u);
        EXPECT_EQ(audit[0].message, access_violation(kernel, "sshd", evil, "10.0.0.5", "user " + evil, "Deny"));

        // The same text as remote host, and as remote user.
        EXPECT_EQ(w.account(evil.c_str(), {evil, std::string("pts/3"), evil}).rc, PAM_SUCCESS);
        EXPECT_EQ(w.take_module_syslog(),
                  Lines{"<35>cannot get IP address or unsupported address format (host=" + evil + ")."});
        w.user_rules(evil, "x:-:sshd:*::\n");
        EXPECT_EQ(w.account(evil.c_str(), {evil, std::string("pts/3"), evil}).rc, PAM_PERM_DENIED);
        audit = w.take_audit();
        ASSERT_EQ(audit.size(), 2u);  // the "allowed" entry of the call before, then the refusal
        EXPECT_EQ(audit[0].message, "User '" + evil + " (from " + evil + ")' has allowed to connect to 'sshd' service.");
        EXPECT_EQ(audit[1].message, access_violation(kernel, "sshd", evil, evil, "user " + evil, "Deny", evil));

        Outcome out = w.open_session(evil.c_str(), from(evil));
        EXPECT_EQ(out.rc, PAM_SESSION_ERR);
        expect_reported(w, out, "invalid hostname or IP address is assigned (user=" + evil + ", hostname=" + evil + ").");

        // Unknown users and options.
        EXPECT_EQ(w.account("%s%s%s%n", from("10.0.0.5")).rc, PAM_USER_UNKNOWN);
        EXPECT_EQ(w.take_module_syslog(), (Lines{"<35>sshd: couldn't get user information of '%s%s%s%n'"}));
    });
}

TEST_P(Hostile, OverlongItemsAreCutNotOverrun) {
    in_world(GetParam(), [&](World &w) {
        w.modes("on", "on");
        const std::string long_name(300, 'u');
        w.sb.add_user(long_name, 6002, 5000);
        const std::string long_host(5000, 'h');
        w.default_rules("x:-:sshd:10.0.0.0/8::\nx:-:ftp:*::\n");
        EXPECT_EQ(w.account(long_name.c_str(), from(long_host, std::string(400, 't'))).rc, PAM_SUCCESS);
        EXPECT_EQ(w.account(long_name.c_str(), from(long_host), "ftp").rc, PAM_PERM_DENIED);
        EXPECT_NE(w.open_session(long_name.c_str(), from(long_host)).rc, PAM_SUCCESS);
        EXPECT_EQ(w.close_session(long_name.c_str(), from(long_host)).rc, PAM_SUCCESS);
        for (const auto &line : w.take_module_syslog()) EXPECT_LE(line.size(), 8192u + 5);
        for (const auto &entry : w.take_audit()) EXPECT_LE(entry.message.size(), 1023u);
    });
}

// A rule line of n characters (plus newline) that denies sshd; the padding is
// in the free first field.
std::string padded_rule(size_t n) {
    const std::string tail = ":-:sshd:*::";
    return std::string(n - tail.size(), 'x') + tail;
}

TEST_P(Hostile, LinesAroundTheBufferSizeAreReadAsFgetsWouldReadThem) {
    in_world(GetParam(), [&](World &w) {
        w.modes("on", "on");
        for (size_t n = 505; n <= 520; ++n) {
            SCOPED_TRACE("line of " + std::to_string(n) + " characters");
            w.user_rules("alice", padded_rule(n) + "\n");
            Outcome out = w.account("alice", from("10.0.0.5"));
            Lines syslog = w.take_module_syslog();
            if (n <= 510) {  // fits the 512-byte buffer with its newline
                EXPECT_EQ(out.rc, PAM_PERM_DENIED);
                EXPECT_EQ(syslog, Lines{});
                continue;
            }
            // The first 511 characters are skipped; the rest is a line of its own.
            Lines expected{"<35>" + kUserFile + ": line 1: missing newline or line too long"};
            size_t rest = n - 511;
            if (rest == 0) {
                EXPECT_EQ(out.rc, PAM_SUCCESS);  // an empty second line, nothing else
            } else {
                // The tail of ":-:sshd:*::" has an empty or a bad permission field.
                EXPECT_EQ(out.rc, PAM_PERM_DENIED);
                expected.push_back("<35>" + kUserFile + ": line 2: " +
                                   (rest <= 3 ? "empty permission field" : "bad permission field"));
            }
            EXPECT_EQ(syslog, expected);
        }
        w.clear_logs();
    });
}

TEST_P(Hostile, NulBytesAndMissingFinalNewlines) {
    in_world(GetParam(), [&](World &w) {
        w.modes("on", "on");
        const std::string missing = "<35>" + kUserFile + ": line %d: missing newline or line too long";
        auto line_msg = [&](int n) {
            char buf[600];
            std::snprintf(buf, sizeof buf, missing.c_str(), n);
            return std::string(buf);
        };
        // A NUL hides the newline behind it: the line is reported and skipped.
        w.user_rules("alice", std::string("x:-:sshd:*::\0trailing\n", 22) + "x:-:ftp:*::\n");
        EXPECT_EQ(w.account("alice", from("10.0.0.5")).rc, PAM_SUCCESS);
        EXPECT_EQ(w.account("alice", from("10.0.0.5"), "ftp").rc, PAM_PERM_DENIED);
        EXPECT_EQ(w.take_module_syslog(), (Lines{line_msg(1), line_msg(1)}));

        // The last line of a file without a final newline is reported and skipped.
        w.user_rules("alice", "# only ftp\nx:-:ftp:*::\nx:-:sshd:*::");
        EXPECT_EQ(w.account("alice", from("10.0.0.5")).rc, PAM_SUCCESS);
        EXPECT_EQ(w.take_module_syslog(), Lines{line_msg(3)});
        EXPECT_EQ(w.account("alice", from("10.0.0.5"), "ftp").rc, PAM_PERM_DENIED);

        // The same reader serves the session rule files.
        w.acl_file("user_session.conf", "x:alice:0::");
        EXPECT_EQ(w.open_session("alice", from("10.0.0.5")).rc, PAM_SUCCESS);
        w.acl_file("user_session.conf", padded_rule(600).substr(0, 589) + ":alice:0::\n");
        EXPECT_EQ(w.open_session("alice", from("10.0.0.5")).rc, PAM_SESSION_ERR);  // the tail is a rule line
        w.clear_logs();
    });
}

TEST_P(Hostile, LongRuleFiles) {
    in_world(GetParam(), [&](World &w) {
        w.modes("on", "on");
        std::string rules;
                for (int i = 0; i < 5000; ++i) rules += "u" + std::to_string(i) + ":-:ftp:10.0.0.0/8::\n";
        w.user_rules("alice", rules + "last:-:sshd:*::\n");
        w.default_rules(rules + "last:-:sshd:*::\n");
        std::string sessions;
        for (int i = 0; i < 5000; ++i) sessions += "x:user" + std::to_string(i) + ":1::\n";
        w.acl_file("user_session.conf", sessions + "x:alice:0::\n");
        w.acl_file("ip_session.conf", sessions + "x:10.0.0.0/8:0::\n");

        EXPECT_EQ(w.account("alice", from("10.0.0.5")).rc, PAM_PERM_DENIED);
        EXPECT_EQ(w.account("carol", from("10.0.0.5")).rc, PAM_PERM_DENIED);  // the default file
        EXPECT_EQ(w.open_session("alice", from("10.0.0.5")).rc, PAM_SESSION_ERR);
        EXPECT_EQ(w.open_session("carol", from("10.0.0.5")).rc, PAM_SESSION_ERR);  // the address file
        EXPECT_EQ(w.take_module_syslog(), Lines{});
        EXPECT_EQ(w.take_audit().size(), 4u);
    });
}

TEST_P(Hostile, RuleFilesReplacedAndDeletedWhileLoginsGoOn) {
    in_world(GetParam(), [&](World &w) {
        w.check_with_mgctl = false;  // the files change between the login and any dry run
        w.modes("on", "on");
        std::string big;
        for (int i = 0; i < 5000; ++i) big += "x:-:ftp:*::\n";
        big += "x:-:sshd:*::\n";
        w.user_rules("alice", big);

        // A second process rewrites the file in place, deletes it, puts it
        // back, as fast as it can, until stopped.
        pid_t editor = fork();
        ASSERT_GE(editor, 0);
        if (editor == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            for (unsigned i = 0;; ++i) {
                if (i % 3 == 2) {
                    unlink(kUserFile.c_str());
                    continue;
                }
                int fd = open(kUserFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
                if (fd < 0) _exit(1);
                size_t half = i % 2 ? big.size() / 2 : big.size();  // sometimes cut mid-line
                if (write(fd, big.data(), half) < 0) _exit(1);
                close(fd);
            }
        }
        int allowed = 0, denied = 0;
        for (int i = 0; i < 60; ++i) {
            int rc = w.account("alice", from("10.0.0.5")).rc;
            EXPECT_TRUE(rc == PAM_SUCCESS || rc == PAM_PERM_DENIED) << rc;
            (rc == PAM_SUCCESS ? allowed : denied)++;
        }
        kill(editor, SIGKILL);
        waitpid(editor, nullptr, 0);
        // The only complaint possible is the cut last line.
        for (const auto &line : w.take_module_syslog())
            EXPECT_EQ(line.substr(0, line.find(": line ")), "<35>" + kUserFile) << line;

        unlink(kUserFile.c_str());
        EXPECT_EQ(w.account("alice", from("10.0.0.5")).rc, PAM_SUCCESS);
        w.user_rules("alice", "x:-:sshd:*::\n");
        EXPECT_EQ(w.account("alice", from("10.0.0.5")).rc, PAM_PERM_DENIED);
        w.clear_logs();
    });
}

INSTANTIATE_TEST_SUITE_P(System, Hostile, ::testing::Values(Kernel::absent, Kernel::present), kernel_name);

}  // namespace
}  // namespace mgsys
