// mgctl as an administrator runs it: the built program (linked with the
// kernel module simulator), in a sandbox with its own accounts and files.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "mgsim.h"
#include "sandbox.hpp"
#include "testsupport.hpp"

namespace {

struct Run { int status; std::string out; };

Run mgctl(std::vector<std::string> args) {
    args.insert(args.begin(), MGCTL);
    Run r{};
    r.out = mgtest::capture_stdout(
        [&] {
            std::vector<char *> argv;
            for (auto &a : args) argv.push_back(a.data());
            argv.push_back(nullptr);
            dup2(1, 2);
            execv(argv[0], argv.data());
            _exit(127);
        },
        &r.status);
    return r;
}

bool has(const Run &r, const std::string &text) { return r.out.find(text) != std::string::npos; }

// One mgctl run on an installation root: its exit status and a text its output holds.
struct Step { std::vector<std::string> args; int status; std::string shows; };

void run_steps(const std::string &root, const std::vector<Step> &steps) {
    for (Step step : steps) {
        step.args.insert(step.args.begin(), {"--root", root});
        Run r = mgctl(step.args);
        EXPECT_TRUE(r.status == step.status && has(r, step.shows)) << step.args[2] << " gave " << r.status << ": " << r.out;
    }
}

MG_SANDBOX_TEST(Mgctl, CheckExplainsTheDecisionFromTheRuleFiles) {
    sb.add_group("contractors", 6000, {});
    sb.add_user("carol", 6001, 6000);
    // The same login on a Monday and on a Sunday.
    const struct { const char *at; int status; const char *step; } cases[] = {
        {"2026-11-23 10:00", 0, "/group/contractors:2: decides: allow"},
        {"2026-11-22 10:00", 1, "/group/contractors:3: decides: deny"}};
    for (const auto &c : cases) {
        Run r = mgctl({"--pam-dir", EXAMPLES, "check", "--service", "sshd", "--tty", "pts/3", "--user", "carol",
                       "--rhost", "10.20.1.1", "--at", c.at});
        EXPECT_TRUE(r.status == c.status && has(r, c.step) &&
                    has(r, c.status == 0 ? "group_session.conf:4: rule for 'contractors': max sessions 2"
                                         : "result: PAM_PERM_DENIED (refused)")) << r.out;
    }
    EXPECT_TRUE(sb.syslog().empty()) << "a dry run logs nothing";
}

MG_SANDBOX_TEST(Mgctl, LintNamesEveryLineTheModuleWouldSkipOrDeny) {
    EXPECT_TRUE(has(mgctl({"--pam-dir", EXAMPLES, "lint"}), "0 error(s)"));
    // Rule files, and an installation root with the policy mode file, the fixed-record and the text stores.
    const std::string dir = sb.scratch() + "/broken", root = sb.scratch() + "/root";
    for (const std::string &d : {dir, root, root + "/data", root + "/etc", root + "/conf"}) mkdir(d.c_str(), 0755);
    for (auto [file, text] : {std::pair{"pam_acl.conf", std::string("ServiceAccessControl sometimes\nLimitLoginSession on\n")},
                              {"default.conf", "# fine\na:+:sshd:*::\nb::sshd:*::\nc:?:*:*::\n" + std::string(600, 'x') +
                                                   "\nd:+:*:10.0.0.1,host,10.0.0.2::\nlast:-:*:*::"},
                              {"user_session.conf", "x:alice:2::\nx::3::\nx:bob:many::\n"}})
        mgtest::write_file(dir + "/" + file, text);
    std::string users(2 * 1324, '\0');
    users[1324 + 18] = 9;  // the second record's role
    const std::pair<const char *, std::string> files[] = {
        {"ips.conf", "MACMODE = sometimes\n"}, {"mls_user", users}, {"mls_cat", std::string(57, '\0')},
        {"policy_group", "1:www\n1:dup\n"},
        {"acl_file", "[ACL]\n/etc/shadow\n1\n0\n0\n9\n1:0:nosuch:::r\n[/ACL]\n# two\n[ACL]\n/etc/shadow\n1\n7\n0\n0\n"
                     "0:::::\n[/ACL]\n"},
        {"acl_fgroup", "[FGROUP]\n0\ng\n0\n1\n0\n0\n/a*b\n0\n[/FGROUP]\n[FGROUP]\n0\nh\n0\n1\n0\n0\n/x\n3\n[/FGROUP]\n"},
        {"acl_kill", "[KACL]\n/bin/x\n2\nALL\n[/KACL]\n"},
        {"acl_setuid", "0:/no/such/program\nx:/bin/y\n"},
        {"alsvc_user", "[ALSVC]\n0:root:1\nsshd:1:0:10.0.0.300\n[/ALSVC]\n[ALSVC]\n1:x:1\nsshd:1\n"},
        {"alcmd_file", "/bin/ls\n1:7:3:1\nbin/x\n1:0:0:0\n"}};
    for (const auto &[name, text] : files) mgtest::write_file(root + "/data/" + name, text);
    Run r = mgctl({"--pam-dir", dir, "--root", root, "lint"});
    EXPECT_EQ(r.status, 1);
    for (const std::string line :
         {"broken/pam_acl.conf:1: error", "broken/default.conf:3: error", "broken/default.conf:4: error",
          "broken/default.conf:5: error", "broken/default.conf:6: error", "broken/default.conf:6: warning",
          "broken/default.conf:7: warning", "broken/default.conf:8: error", "broken/user_session.conf:2: error",
          "broken/user_session.conf:3: error", "root/data/ips.conf:0: error", "root/data/mls_user:2: error",
          "root/data/mls_cat:0: error", "root/conf/mgopt.conf:0: error", "root/data/policy_group:2: warning",
          "root/data/acl_file:1: warning", "root/data/acl_file:7: warning", "root/data/acl_file:10: error",
          "root/data/acl_file:11: error", "root/data/acl_fgroup:8: warning", "root/data/acl_fgroup:18: error",
          "root/data/acl_kill:3: error", "root/data/acl_setuid:1: warning", "root/data/acl_setuid:2: error",
          "root/data/alsvc_user:3: warning", "root/data/alsvc_user:7: error", "root/data/alcmd_file:3: error"})
        EXPECT_TRUE(has(r, sb.scratch() + "/" + line)) << line << "\n" << r.out;
    EXPECT_FALSE(has(r, "/default.conf:2:") || has(r, "/data/mls_user:1:")) << r.out;
    EXPECT_TRUE(has(r, "\n19 error(s), 8 warning(s)")) << "nothing else is reported\n" << r.out;
}

MG_SANDBOX_TEST(Mgctl, LogStatusAndSessions) {
    const std::string root = sb.scratch() + "/root", logs = sb.scratch() + "/logs";
    for (const std::string &d : {logs, root, root + "/conf"}) mkdir(d.c_str(), 0755);
    mgtest::write_file(root + "/conf/mgopt.conf", "SecureLogDir\t" + logs + "\nSecureLogSize\t1\nSecureLogFileCount\t3\n");
    // Without the kernel module the entries go to syslog; with it, to the file.
    ASSERT_TRUE(mgsim_use_state((sb.scratch() + "/state").c_str()) == 0 && mgsim_set_status(1) == 0);
    EXPECT_TRUE(has(mgctl({"status"}), "kernel module: running"));
    run_steps(root, {{{"log", "write", "3", "first entry"}, 0, ""}, {{"log", "write", "3", "second\tentry"}, 0, ""},
                     {{"log", "show", "--json"}, 0, "\"program\":\"mgctl\",\"address\""}});
    Run shown = mgctl({"--root", root, "log", "show", "--grep", "second"});
    EXPECT_TRUE(has(shown, "second entry") && !has(shown, "first entry")) << shown.out;
    run_steps(root, {{{"log", "clear"}, 0, ""}, {{"log", "size"}, 0, "0 bytes"}});
    mgsim_use_state(nullptr);
    EXPECT_TRUE(has(mgctl({"status"}), "kernel module: not loaded"));

    sb.add_utmpx("alice", "pts/1", "10.0.0.1");
    sb.add_utmpx("alice", "tty2");
    Run sessions = mgctl({"--utmp", mgtest::Sandbox::kUtmpx, "sessions", "alice"});
    EXPECT_TRUE(has(sessions, "alice                   2                1")) << sessions.out;
}

MG_SANDBOX_TEST(Mgctl, LabelDatabasesThroughTheLibrary) {
    sb.add_user("alice", 7001, 7000);
    sb.add_user("bob", 7002, 7000);
    const std::string root = sb.scratch() + "/root";
    for (const char *d : {"", "/data", "/etc"}) mkdir((root + d).c_str(), 0755);  // etc: the password store
    ASSERT_TRUE(mgsim_use_state((sb.scratch() + "/state").c_str()) == 0 && mgsim_set_status(1) == 0);
    run_steps(root, {
        {{"categories", "add", "finance", "--role", "MU"}, 0, "finance: added (id 3)"},
        {{"categories", "add", "payroll", "--parent", "finance"}, 0, "payroll: added (id 4)"},
        {{"categories"}, 0, "  finance (id 3, role MU)\n    payroll (id 4, role MU)"},
        {{"categories", "--json"}, 0, R"({"id":4,"name":"payroll","depth":2,"parent":3)"},
        {{"users", "add", "alice", "--role", "SO", "--level", "7", "--category", "finance"}, 0, "alice: added"},
        {{"users", "add", "bob", "--role", "MU", "--level", "2", "--category", "payroll"}, 0, "bob: added"},
        {{"users", "mod", "bob", "--level", "3", "--lock"}, 0, "bob: changed"},
        {{"users", "--json"}, 0,
         R"({"name":"bob","uid":7002,"role":"MU","level":3,"category":"payroll","retry":5,"locked":true})"},
        {{"users", "del", "alice"}, 1, "(10033: "},  // the last security officer
        {{"users", "add", "alice", "--role", "boss"}, 2, "--role is MU, SA or SO"},
        {{"transitions", "add", "bob", "--word", "7"}, 0, "bob: added"},
        {{"transitions"}, 0, "bob                          7002 7"},
        {{"transitions", "del", "bob"}, 0, "bob: deleted"},
        {{"stop"}, 0, "stop: done"},
        {{"status"}, 0, "kernel module: stopped"},
        {{"start"}, 0, "start: done"},
        {{"start"}, 0, "nothing to do"},
    });
}

MG_SANDBOX_TEST(Mgctl, RuleStoresThroughTheLibrary) {
    sb.add_group("staff", 7000, {});
    sb.add_user("alice", 7001, 7000);
    const std::string root = sb.scratch() + "/root", prog = sb.scratch() + "/prog";
    for (const std::string &d : {root, root + "/data"}) mkdir(d.c_str(), 0755);
    mgtest::write_file(prog, "#!/bin/sh\n");
    ASSERT_TRUE(mgsim_use_state((sb.scratch() + "/state").c_str()) == 0 && mgsim_set_status(1) == 0);
    // Lists that must show the same after a fresh kernel loads the store files.
    const std::vector<Step> lists = {
        {{"facl", "--json"}, 0, R"({"path":"/etc/shadow","mode":1,"flag":0,"polgrp":1,"rules":["1:7001:alice:::rw"]})"},
        {{"fgroups"}, 0, "   1 web                                2      0\n    rule 16:7000:staff:::r\n    member 1:" +
                             root},
        {{"kill-acl", "--json"}, 0, R"({"path":"/usr/sbin/sshd","flag":1,"deny":"KILL:TERM"})"},
        {{"setuid-acl"}, 0, "   1 " + prog},
        {{"services", "user", "--json"}, 0,
         R"({"kind":"user","id":7001,"name":"alice","rules":["sshd:1:0:10.0.0.1"]})"},
        {{"commands"}, 0, "       1 /bin/sh\n       0 /bin/su\n"},
        {{"allowed-commands", "--json"}, 0, R"({"path":"/bin/ls","opt1":1,"opt2":7,"opt3":3,"opt4":1})"},
        {{"policy-groups", "--json"}, 0, R"({"id":1,"name":"www"})"},
    };
    const std::vector<Step> changes = {
        {{"facl", "add", "/etc/shadow", "--rule", "1:7001:alice:::rw"}, 0, "/etc/shadow: added"},
        {{"facl", "mod", "/etc/shadow", "--mode", "1", "--polgrp", "1"}, 0, "/etc/shadow: changed"},
        {{"facl", "add", "/etc/passwd", "--rule", "1:7001:bob:::r"}, 1, "(10075: "},  // not that uid's name
        {{"fgroups", "add", "web", "--rule", "16:7000:staff:::r", "--member", "1:" + root}, 0, "web (id 1): added"},
        {{"fgroups", "mod", "web", "--mode", "2"}, 0, "web: changed"},
        {{"kill-acl", "add", "/usr/sbin/sshd", "--deny", "KILL:TERM"}, 0, "added"},
        {{"kill-acl", "mod", "/usr/sbin/sshd", "--flag", "1"}, 0, "changed"},
        {{"setuid-acl", "add", prog, "--flag", "1"}, 0, "added"},
        {{"services", "user", "set", "alice", "--rule", "sshd:1:0:10.0.0.1"}, 0, "user alice rules: set"},
        {{"commands", "add", "/bin/su"}, 0, "added"},
        {{"commands", "add", "/bin/sh", "--priority", "1"}, 0, "added"},
        {{"allowed-commands", "add", "/bin/ls", "1:7:3:1"}, 0, "added"},
        {{"allowed-commands", "add", "/bin/x", "1:7"}, 2, "not OPT1"},
        {{"policy-groups", "add", "web"}, 0, "web (id 1): added"},
        {{"policy-groups", "mod", "1", "www"}, 0, "1: changed"},
    };
    run_steps(root, changes);
    run_steps(root, lists);
    ASSERT_TRUE(mgsim_reset() == 0 && mgsim_set_status(1) == 0);
    run_steps(root, lists);
    // Every store the library wrote reads cleanly.
    Run lint = mgctl({"--pam-dir", EXAMPLES, "--root", root, "lint"});
    EXPECT_FALSE(has(lint, "/data/")) << lint.out;
}

}  // namespace
