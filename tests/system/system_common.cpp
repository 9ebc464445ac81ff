#include "system_common.hpp"

#include "mgsim.h"

#include <security/pam_appl.h>

namespace mgsys {

void add_test_accounts(mgtest::Sandbox &sb) {
    sb.add_group("staff", 5000, {"bob"});
    sb.add_group("dev", 5100);
    sb.add_group("ops", 5200, {"alice"});
    sb.add_user("alice", 5001, 5000, "/home/alice");
    sb.add_user("bob", 5002, 5100, "/home/bob");
    sb.add_user("carol", 5003, 5000, "/home/carol");
    sb.add_host("10.1.2.3", "build-host");
    sb.add_host("192.168.1.1", "lab-host");
}

void in_world(Kernel kernel, const std::function<void(World &)> &body, const WorldOptions &opts) {
    if (!mgtest::sandbox_or_skip()) return;
    int status = mgtest::run_sandboxed([&](mgtest::Sandbox &sb) {
        add_test_accounts(sb);
        World world(sb, opts);
        if (kernel == Kernel::present) {
            // A loaded, running module whose calls are logged.
            const std::string state = sb.scratch() + "/kernel.state";
            ASSERT_EQ(mgsim_use_state(state.c_str()), 0);
            ASSERT_EQ(mgsim_reset(), 0);
            ASSERT_EQ(mgsim_set_status(1), 0);
            ASSERT_EQ(mgsim_set_log((sb.scratch() + "/kernel.calls").c_str()), 0);
            world.audit_sink = World::AuditSink::file;
        } else {
            ASSERT_EQ(mgsim_use_state(nullptr), 0);
            world.audit_sink = World::AuditSink::syslog;
        }
        body(world);
    });
    EXPECT_EQ(status, 0) << "the sandboxed test body failed (its output is above)";
}

LabelText unlabelled(Kernel kernel) {
    if (kernel == Kernel::absent) return {"--", 0, ""};
    return {"UX", 0, ""};
}

std::string access_violation(Kernel kernel, const std::string &service, const std::string &user,
                             const std::string &rhost, const std::string &rule_label, const std::string &mode_word,
                             const std::string &ruser) {
    LabelText label = unlabelled(kernel);
    return violation_text("'" + service + "' access is denied by user '" + user + "' from '" + rhost + "' [by " +
                              rule_label + " rule].",
                          user, label.role, label.level, label.category, service, mode_word,
                          "RemoteHost=" + rhost + " ServiceName=" + service + " RemoteUser=" + ruser);
}

std::string session_violation(Kernel kernel, const std::string &service, const std::string &user,
                              const std::string &rhost, const std::string &rule_label, int current, int max,
                              const std::string &mode_word) {
    LabelText label = unlabelled(kernel);
    return violation_text("User '" + user + "' has exceed max session. '" + service + "' login is denied [by " +
                              rule_label + " rule].",
                          user, label.role, label.level, label.category, service, mode_word,
                          "RemoteHost=" + rhost + " ServiceName=" + service + " SessionCount(Current=" +
                              std::to_string(current) + " Max=" + std::to_string(max) + ") RuleName=" + rule_label);
}

std::string entry_text(const AuditEntry &entry, int flag, int level) {
    EXPECT_EQ(entry.source, 7) << entry.raw;
    EXPECT_EQ(entry.flag, flag) << entry.raw;
    EXPECT_EQ(entry.level, level) << entry.raw;
    EXPECT_EQ(entry.program, "PAM-ACL") << entry.raw;
    EXPECT_EQ(entry.address, kLocalAddress) << entry.raw;
    EXPECT_NE(entry.event, 0) << entry.raw;
    EXPECT_LE(entry.event, entry.logged) << entry.raw;
    return entry.message;
}

void expect_reported(World &w, const Outcome &out, const std::string &text) {
    if (text.empty()) {
        EXPECT_EQ(w.take_module_syslog(), Lines{});
        EXPECT_TRUE(out.conv.empty());
        return;
    }
    EXPECT_EQ(w.take_module_syslog(), Lines{"<35>" + text});
    EXPECT_EQ(out.conv, (std::vector<ConvMessage>{{PAM_TEXT_INFO, text}}));
}

}  // namespace mgsys
