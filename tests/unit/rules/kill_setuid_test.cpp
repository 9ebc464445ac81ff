// Kill ACL and setuid ACL: deny masks, the load rules that differ from the
// file ACL, and the setuid program finder.
#include <unistd.h>

#include "rules_fixture.hpp"

namespace {

using rulestest::code;

TEST(DenyMask, NamesAndMasks) {
    // text read, its mask (0: refused), the mask written back and its text
    const struct { const char *text; uint32_t mask, back; const char *written; } cases[] = {
        {"KILL:TERM", 0x6, 0x7F, "HUP:KILL:TERM:STOP:CONT:USR1:USR2"}, {"ALL:HUP", MG_DENY_ALL, 0, ""},
        {"ETC", 0x80000000, 0x80000006, "KILL:TERM:ETC"}, {"", 0, 0xFFFFFFFF, "ALL"}, {"KILL:", 0, MG_DENY_ALL, "ALL"},
    };
    for (const auto &c : cases) {
        uint32_t mask = 0;
        char out[MG_DENYMASK_STR];
        EXPECT_EQ(str2denymask(c.text, &mask), c.mask ? 0 : -1) << c.text;
        EXPECT_EQ(mask, c.mask) << c.text;
        EXPECT_EQ(denymask2str(c.back, out), 0);
        EXPECT_STREQ(out, c.written);
    }
    EXPECT_EQ(code(denymask2str(1, nullptr)), EINVAL);
}

class KillSetuid : public rulestest::RootTest {};

TEST_F(KillSetuid, KillAclLoadsLazilyAndMalformedFilesLeaveItEmpty) {
    const std::string text = "[KACL]\n/usr/sbin/sshd\n1\nKILL:TERM\n[/KACL]\n[KACL]\nrelative ok\n0\nALL\n[/KACL]\n";
    put("acl_kill", "# kill\n" + text);
    kaclent e{"/bin/x", 0, 1};
    ASSERT_EQ(add_kill_acl(&e), 0);  // loads the file first
    EXPECT_EQ(mgsim_count(MGSIM_T_KILL), 3);
    ASSERT_EQ(del_kill_acl(&e), 0);
    ASSERT_EQ(dump_kill_acl(), 0);
    EXPECT_EQ(get("acl_kill"), text);
    for (const char *bad : {"[KACL]\n/p\n2\nALL\n[/KACL]\n", "[KACL]\n/p\n0\nkill\n[/KACL]\n", "[KACL]\n/p\n0\nALL\n"}) {
        put("acl_kill", text + bad);
        ASSERT_EQ(_sys_clear_kill_acl(), 0);
        EXPECT_EQ(code(load_kill_acl()), MG_ERR_RULE_FORMAT) << bad;
        EXPECT_EQ(mgsim_count(MGSIM_T_KILL), 0);
    }
}

TEST_F(KillSetuid, SetuidLoadSkipsVanishedProgramsAndDuplicates) {
    const std::string prog = dir / "prog";
    mgtest::write_file(prog, "x");
    put("acl_setuid", "1:" + prog + "\n0:" + dir / "gone" + "\n# again\n0:" + prog + "\n");
    ASSERT_EQ(load_setuid_acl(), 0);
    EXPECT_EQ(mgsim_count(MGSIM_T_SETUID), 1);
    ASSERT_EQ(dump_setuid_acl(), 0);
    EXPECT_EQ(get("acl_setuid"), "1:" + prog + "\n");
    for (const char *bad : {"2:/bin/sh\n", "x:/bin/sh\n", "1:bin/sh\n", "no separator\n"}) {
        put("acl_setuid", "1:" + prog + "\n" + bad);
        ASSERT_EQ(_sys_clear_setuid_acl(), 0);
        EXPECT_EQ(code(load_setuid_acl()), MG_ERR_RULE_FORMAT) << bad;
        EXPECT_EQ(mgsim_count(MGSIM_T_SETUID), 0);
    }
    // The flag is checked before anything else.
    ASSERT_EQ(0, mgsim_set_absent(1));
    suidaclent s{2, ""};
    EXPECT_EQ(code(add_setuid_acl(&s)), EINVAL);
    s.flag = 0;
    EXPECT_EQ(code(add_setuid_acl(&s)), MG_ERR_NO_MODULE);
}

TEST_F(KillSetuid, FinderListsSetIdRegularFilesDepthFirst) {
    const std::string top = dir / "tree";
    ASSERT_EQ(mkdir(top.c_str(), 0755), 0);
    ASSERT_EQ(mkdir((top + "/sub").c_str(), 0755), 0);
    for (auto [name, mode] : {std::pair{"/plain", 0755}, {"/sub/suid", 04755}, {"/sgid", 02755}})
        mgtest::write_file(top + name, "x", static_cast<mode_t>(mode));
    ASSERT_EQ(symlink((top + "/sgid").c_str(), (top + "/link").c_str()), 0);
    const std::string found = mgtest::capture_stdout([&] {
        if (find_setuid_pgm((top + "/").c_str(), stdout) != 0) puts("failed");
    });
    EXPECT_EQ(found.size(), top.size() * 2 + 16) << found;  // both programs, once each, in either order
    EXPECT_NE(found.find(top + "/sub/suid\n"), std::string::npos) << found;
    EXPECT_NE(found.find(top + "/sgid\n"), std::string::npos) << found;
    EXPECT_EQ(find_setuid_pgm((dir / "none").c_str(), stdout), -1);
}

}  // namespace
