// Module start and stop in a sandbox whose syslog is read: which tables are
// filled, which failures abort the start, and the exact line each one logs.
#include <mossgrove/config.h>
#include <mossgrove/modctl.h>
#include <mossgrove/stores.h>

#include <syslog.h>

#include <cstring>
#include <functional>

#include "rules_fixture.hpp"
#include "sandbox.hpp"

namespace {

struct World {
    mgtest::Sandbox &sb;
    std::string root = sb.scratch() + "/root", data = root + "/data";

    explicit World(mgtest::Sandbox &s) : sb(s) {
        for (const std::string &d : {root, data}) mkdir(d.c_str(), 0755);
        mgtest::write_file(root + "/evmg", "MG_ROOT=" + root + "\n");
        mg::paths::override_for_tests((root + "/evmg").c_str(), nullptr, nullptr);
        EXPECT_EQ(0, mgsim_use_state((sb.scratch() + "/state").c_str()));
        EXPECT_EQ(0, mgsim_reset());
    }
    void store(const std::string &name, const std::string &text) { mgtest::write_file(data + "/" + name, text); }
    // The MLS users and categories the kernel already holds.
    void labels_loaded(bool categories = true) {
        unsigned char mu[1324] = {}, cat[56] = {1};
        EXPECT_EQ(_sys_setmu(mu, 1), 0);
        EXPECT_EQ(categories ? _sys_setcat(cat, 1) : 0, 0);
    }
    // The texts logged since the last call, each with its trailing newline.
    std::vector<std::string> logged() {
        std::vector<std::string> out;
        for (const auto &m : sb.take_syslog()) {
            EXPECT_EQ(m.priority & 7, LOG_ERR) << m.raw;
            out.push_back(m.raw.back() == '\n' ? m.text + "\n" : m.text);
        }
        return out;
    }
};

using Lines = std::vector<std::string>;

MG_SANDBOX_TEST(ModuleStart, OnlyTheLabelDatabasesAbortAStart) {
    // status: the kernel's afterwards, or -1 for the caller's block saying absent
    const struct { const char *what; std::function<void(World &)> setup; int result; Lines lines; int status; } cases[] = {
        {"running", [](World &w) { mgsim_set_status(MG_STATUS_RUNNING); w.store("acl_kill", "junk"); }, 1, {}, 1},
        {"absent", [](World &) { mgsim_set_absent(1); }, -1, {"MG_Checkmodule Error\n"}, -1},
        {"no information", [](World &) { mgsim_set_fail("1:5"); }, -1, {"Get Module Info Syscall Error\n"}, 0},
        {"no user store", [](World &) {}, -1, {"Load mu Entry Error\n"}, 0},
        {"no category store", [](World &w) { w.labels_loaded(false); w.store("mls_user", "never read: the kernel has users"); },
         -1, {"Load Cat Entry Error\n"}, 0},
        {"best effort tables", [](World &w) {
             w.labels_loaded();
             for (const char *name : {"cmd_file:short", "acl_fgroup:[FGROUP]\n", "acl_setuid:1:relative\n",
                                      "acl_kill:[KACL]\n/p\n0\nALL\n[/KACL]\n"})
                 w.store(std::string(name, strchr(name, ':')), strchr(name, ':') + 1);
         }, 0, {"Load restricted Cmd Entry Error\n", "Fail to load setuid ACL. [errno=10073]",
                "Fail to load FileGroup. [errno=10073]"}, 1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        World w(sb);
        c.setup(w);
        sb.clear_syslog();
        MGModuleInfo block{};
        EXPECT_EQ(module_start(&block), c.result);
        EXPECT_EQ(w.logged(), c.lines);
        EXPECT_EQ(c.status >= 0 ? mgsim_get_status() : block.status, c.status >= 0 ? c.status : MG_STATUS_ABSENT);
    }
    EXPECT_EQ(mgsim_count(MGSIM_T_KILL), 1) << "the last start loaded the kill ACL";
    EXPECT_EQ(module_start(nullptr), -1);
}

MG_SANDBOX_TEST(ModuleStart, EmptyTablesAreFilledAndHeldOnesKept) {
    World w(sb);
    w.labels_loaded();
    mgtest::write_file(w.root + "/p1", "x");
    w.store("acl_file", "[ACL]\n" + w.root + "/p1\n1\n0\n0\n0\n0:::::\n[/ACL]\n");
    for (const char *name : {"alsvc_user:[ALSVC]\n0:root:1\nsshd:1:0:0.0.0.0\n[/ALSVC]\n", "alcmd_file:/bin/a\n1:0:0:0\n",
                             "alsvc_def:[ALSVC]\n0:x:1\nsshd:1:0:0.0.0.0\n[/ALSVC]\n", "ips.conf:DACMODE on\nPROMISC on\n",
                             "acl_kill:[KACL]\n/other\n0\nALL\n[/KACL]\n"})
        w.store(std::string(name, strchr(name, ':')), strchr(name, ':') + 1);
    unsigned char conf[22];
    ASSERT_EQ(0, mgsim_get_conf(conf));
    conf[13] = 128;  // the kernel does not support the promiscuous-mode check
    ASSERT_EQ(0, mgsim_set_conf(conf));
    kaclent held{.path = "/held", .flag = 0, .denymask = 0};
    ASSERT_EQ(_sys_add_kill_acl(&held), 0);

    MGModuleInfo block{};
    ASSERT_EQ(module_start(&block), 0);
    EXPECT_TRUE(w.logged().empty()) << "an empty store and missing ones are not reported";
    EXPECT_EQ(mgsim_get_status(), MG_STATUS_RUNNING);
    // file ACL, the held kill ACL (not reloaded), user and default services (the latter not loaded), allowed commands
    for (auto [table, count] : {std::pair{MGSIM_T_FACL, 1}, {MGSIM_T_KILL, 1}, {MGSIM_T_ALSVC_USER, 1},
                                {MGSIM_T_ALSVC_DEF, 0}, {MGSIM_T_ALCMD, 1}})
        EXPECT_EQ(mgsim_count(table), count) << table;
    ASSERT_EQ(0, mgsim_get_conf(conf));
    EXPECT_EQ(conf[1] * 1000 + conf[13], 3128) << "DACMODE on; the unsupported check stays unset";
}

MG_SANDBOX_TEST(ModuleStop, SavesTheSetuidAclFirst) {
    World w(sb);
    const std::string prog = w.root + "/prog", saved = w.data + "/acl_setuid";
    mgtest::write_file(prog, "x");
    ASSERT_EQ(mgsim_set_status(MG_STATUS_RUNNING), 0);
    suidaclent s{1, ""};
    prog.copy(s.path, sizeof s.path - 1);
    ASSERT_EQ(_sys_add_setuid_acl(&s), 0);
    EXPECT_EQ(module_stop(), 0);
    EXPECT_EQ(mgtest::read_file(saved), "1:" + prog + "\n");
    EXPECT_EQ(mgsim_get_status(), MG_STATUS_STOPPED);
    ASSERT_EQ(mgsim_set_absent(1), 0);
    EXPECT_EQ(module_stop(), -1);
}

}  // namespace
