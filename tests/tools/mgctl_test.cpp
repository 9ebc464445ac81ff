// mgctl as an administrator runs it: the built program (linked with the
// kernel module simulator), in a sandbox with its own accounts and files.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "mgsim.h"
#include "sandbox.hpp"
#include "testsupport.hpp"

namespace {

struct Run {
    int status;
    std::string out;
};

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

MG_SANDBOX_TEST(Mgctl, CheckExplainsTheDecisionFromTheRuleFiles) {
    sb.add_group("contractors", 6000, {});
    sb.add_user("carol", 6001, 6000);
    sb.add_user("mallory", 6002, 6000);
    const std::vector<std::string> base = {"--pam-dir", EXAMPLES, "check", "--service", "sshd", "--tty", "pts/3"};
    struct Case {
        const char *user, *rhost, *at;
        int status;
        const char *step;
    } cases[] = {
        {"mallory", "10.1.2.3", nullptr, 1, "/user/mallory:2: decides: deny"},
        {"carol", "10.20.1.1", "2026-11-23 10:00", 0, "/group/contractors:2: decides: allow"},  // a Monday
        {"carol", "10.20.1.1", "2026-11-22 10:00", 1, "/group/contractors:3: decides: deny"},   // a Sunday
    };
    for (const Case &c : cases) {
        std::vector<std::string> args = base;
        args.insert(args.end(), {"--user", c.user, "--rhost", c.rhost});
        if (c.at != nullptr) args.insert(args.end(), {"--at", c.at});
        Run r = mgctl(args);
        EXPECT_EQ(r.status, c.status) << r.out;
        EXPECT_TRUE(has(r, c.step)) << r.out;
        EXPECT_TRUE(has(r, c.status == 0 ? "group_session.conf:4: rule for 'contractors': max sessions 2"
                                         : "result: PAM_PERM_DENIED (refused)"))
            << r.out;
    }
    EXPECT_TRUE(sb.syslog().empty()) << "a dry run logs nothing";
    EXPECT_EQ(mgctl({"check", "--user", "carol"}).status, 2);
    EXPECT_EQ(mgctl({"check", "--service", "sshd", "--user", "carol", "--at", "noon"}).status, 2);
}

MG_SANDBOX_TEST(Mgctl, LintNamesEveryLineTheModuleWouldSkipOrDeny) {
    EXPECT_TRUE(has(mgctl({"--pam-dir", EXAMPLES, "lint"}), "0 error(s)"));
    const std::string dir = sb.scratch() + "/broken";
    mkdir(dir.c_str(), 0755);
    mgtest::write_file(dir + "/pam_acl.conf", "ServiceAccessControl sometimes\nLimitLoginSession on\n");
    mgtest::write_file(dir + "/default.conf", "# fine\na:+:sshd:*::\nb::sshd:*::\nc:?:*:*::\n" +
                                                  std::string(600, 'x') + "\nd:+:*:10.0.0.1,host,10.0.0.2::\nlast:-:*:*::");
    mgtest::write_file(dir + "/user_session.conf", "x:alice:2::\nx::3::\nx:bob:many::\n");
    Run r = mgctl({"--pam-dir", dir, "lint"});
    EXPECT_EQ(r.status, 1);
    for (const std::string line : {"/pam_acl.conf:1: error", "/default.conf:3: error", "/default.conf:4: error",
                                   "/default.conf:5: error", "/default.conf:7: warning", "/default.conf:8: error",
                                   "/user_session.conf:2: error", "/user_session.conf:3: error"})
        EXPECT_TRUE(has(r, dir + line)) << line << "\n" << r.out;
    EXPECT_FALSE(has(r, "/default.conf:2:")) << r.out;
}

MG_SANDBOX_TEST(Mgctl, LogStatusAndSessions) {
    const std::string root = sb.scratch() + "/root", logs = sb.scratch() + "/logs";
    mkdir(logs.c_str(), 0700);
    mkdir(root.c_str(), 0755);
    mkdir((root + "/conf").c_str(), 0755);
    mgtest::write_file(root + "/conf/mgopt.conf", "SecureLogDir\t" + logs + "\nSecureLogSize\t1\nSecureLogFileCount\t3\n");
    // Without the kernel module the entries go to syslog; with it, to the file.
    ASSERT_EQ(0, mgsim_use_state((sb.scratch() + "/state").c_str()));
    ASSERT_EQ(0, mgsim_set_status(1));
    EXPECT_TRUE(has(mgctl({"status"}), "kernel module: running"));
    for (const char *text : {"first entry", "second\tentry"})
        EXPECT_EQ(mgctl({"--root", root, "log", "write", "3", text}).status, 0);
    Run shown = mgctl({"--root", root, "log", "show", "--grep", "second"});
    EXPECT_TRUE(has(shown, "second entry")) << shown.out;
    EXPECT_FALSE(has(shown, "first entry")) << shown.out;
    EXPECT_TRUE(has(mgctl({"--root", root, "log", "show", "--json"}), "\"program\":\"mgctl\",\"address\""));
    EXPECT_EQ(mgctl({"--root", root, "log", "clear"}).status, 0);
    EXPECT_TRUE(has(mgctl({"--root", root, "log", "size"}), "0 bytes"));
    Run missing = mgctl({"--root", sb.scratch() + "/none", "log", "size"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_TRUE(has(missing, "mgopt.conf: No such file or directory")) << missing.out;
    EXPECT_EQ(mgctl({"log", "write", "9", "x"}).status, 2);
    EXPECT_EQ(mgctl({"frobnicate"}).status, 2);
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
    mkdir(root.c_str(), 0755);
    mkdir((root + "/data").c_str(), 0755);
    mkdir((root + "/etc").c_str(), 0755);  // the security password store
    ASSERT_EQ(0, mgsim_use_state((sb.scratch() + "/state").c_str()));
    ASSERT_EQ(0, mgsim_set_status(1));
    auto run = [&](std::vector<std::string> args) {
        args.insert(args.begin(), {"--root", root});
        return mgctl(args);
    };
    EXPECT_EQ(run({"categories", "add", "finance", "--role", "MU"}).status, 0);
    EXPECT_EQ(run({"categories", "add", "payroll", "--parent", "finance"}).status, 0);
    Run tree = run({"categories"});
    EXPECT_TRUE(has(tree, "  finance (id 3, role MU)\n    payroll (id 4, role MU)")) << tree.out;
    EXPECT_TRUE(has(run({"categories", "--json"}), "{\"id\":4,\"name\":\"payroll\",\"depth\":2,\"parent\":3"));

    EXPECT_EQ(run({"users", "add", "alice", "--role", "SO", "--level", "7", "--category", "finance"}).status, 0);
    EXPECT_EQ(run({"users", "add", "bob", "--role", "MU", "--level", "2", "--category", "payroll"}).status, 0);
    Run changed = run({"users", "mod", "bob", "--level", "3", "--lock"});
    EXPECT_EQ(changed.status, 0) << changed.out;
    EXPECT_TRUE(has(run({"users", "--json"}),
                    "{\"name\":\"bob\",\"uid\":7002,\"role\":\"MU\",\"level\":3,\"category\":\"payroll\",\"retry\":5,"
                    "\"locked\":true}"));
    Run refused = run({"users", "del", "alice"});  // the last security officer
    EXPECT_EQ(refused.status, 1);
    EXPECT_TRUE(has(refused, "MOSSGROVE: alice: ") && has(refused, "(10033: ")) << refused.out;
    EXPECT_EQ(run({"users", "add", "alice", "--role", "boss"}).status, 2);

    EXPECT_EQ(run({"transitions", "add", "bob", "--word", "7"}).status, 0);
    EXPECT_TRUE(has(run({"transitions"}), "bob                          7002 7"));
    EXPECT_EQ(run({"transitions", "del", "bob"}).status, 0);
    EXPECT_FALSE(has(run({"transitions"}), "bob"));

    EXPECT_EQ(run({"stop"}).status, 0);
    EXPECT_TRUE(has(run({"status"}), "kernel module: stopped"));
    EXPECT_TRUE(has(run({"start"}), "start: done"));
    EXPECT_TRUE(has(run({"status"}), "kernel module: running"));
    EXPECT_TRUE(has(run({"start"}), "nothing to do"));
    mgsim_use_state(nullptr);
}

}  // namespace
