// The simulated kernel's sub-commands, family by family.
#include "records.hpp"
#include "sim_fixture.hpp"

#include <sys/stat.h>

#include <mossgrove/kernel.h>

using namespace simtest;
using namespace mgsim;

namespace {

class Kernel : public SimTest {
protected:
    std::string make_file(const std::string &name, bool dir = false) {
        std::string p = dir_ / name;
        if (dir)
            mkdir(p.c_str(), 0755);
        else
            mgtest::write_file(p, "x");
        return p;
    }
};

TEST_F(Kernel, InformationBlockAndStatusTransitions) {
    MGModuleInfo info = zeroed<MGModuleInfo>();
    memset(&info, 0x55, sizeof info);
    EXPECT_EQ(ok(), k(1, &info, 0, sizeof info));
    EXPECT_STREQ("2.0.8", info.version);
    EXPECT_EQ(MG_STATUS_STOPPED, info.status);
    EXPECT_EQ(0, info.reserved[0]);  // the kernel fills the whole block

    EXPECT_EQ(ok(), k(0, &info, 0, sizeof info));
    EXPECT_EQ(MG_STATUS_RUNNING, info.status);
    EXPECT_EQ(ok(), k(3));
    EXPECT_EQ(MG_STATUS_SUSPENDED, mgsim_get_status());
    EXPECT_EQ(ok(), k(2));
    EXPECT_EQ(MG_STATUS_STOPPED, mgsim_get_status());

    ASSERT_EQ(0, mgsim_set_version("x.y.6"));
    ASSERT_EQ(0, mgsim_set_status(7));  // any status word is reported as set
    EXPECT_EQ(ok(), k(1, &info, 0, sizeof info));
    EXPECT_STREQ("x.y.6", info.version);
    EXPECT_EQ(7, info.status);

    EXPECT_EQ(err(EINVAL), k(1, &info, 0, 71));
    EXPECT_EQ(err(EFAULT), k(1, nullptr, 0, 72));
    EXPECT_EQ(err(EFAULT), k(0, nullptr, 0, 72));
    EXPECT_EQ(7, mgsim_get_status());  // a refused start changes nothing
}

TEST_F(Kernel, ConfigurationBlockWholeAndInParts) {
    uint8_t block[22];
    ASSERT_EQ(ok(), k(4, block, 0, 22));
    EXPECT_EQ(1, block[0]);
    EXPECT_EQ(128, block[11]);

    uint8_t all[22] = {3, 0, 64, 128, 3, 0, 1, 3, 0, 3, 128, 1, 3, 0, 128, 1, 3, 0, 1, 99, 77, 66};
    ASSERT_EQ(ok(), k(8, all, 0, 22));
    uint8_t mode[4], opt[8], ips[8];
    ASSERT_EQ(ok(), k(5, mode, 0, 4));
    ASSERT_EQ(ok(), k(6, opt, 0, 8));
    ASSERT_EQ(ok(), k(7, ips, 0, 8));
    EXPECT_EQ(0, memcmp(mode, all, 4));
    EXPECT_EQ(0, memcmp(opt, all + 4, 8));
    EXPECT_EQ(0, memcmp(ips, all + 12, 8));  // byte 19 is carried, not examined

    uint8_t new_opt[8] = {0, 0, 0, 0, 0, 0, 0, 0};
    ASSERT_EQ(ok(), k(10, new_opt, 0, 8));
    ASSERT_EQ(ok(), k(4, block, 0, 22));
    EXPECT_EQ(0, memcmp(block, all, 4));
    EXPECT_EQ(0, memcmp(block + 4, new_opt, 8));

    // MACMODE has no value 128 and ROOTSU no warn: refused whole.
    uint8_t bad_mode[4] = {128, 1, 1, 0};
    EXPECT_EQ(err(EINVAL), k(9, bad_mode, 0, 4));
    uint8_t bad_opt[8] = {1, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(err(EINVAL), k(10, bad_opt, 0, 8));
    EXPECT_EQ(err(EINVAL), k(4, block, 0, 21));
    EXPECT_EQ(err(EFAULT), k(11, nullptr, 0, 8));
    ASSERT_EQ(ok(), k(5, mode, 0, 4));
    EXPECT_EQ(0, memcmp(mode, all, 4));
}

TEST_F(Kernel, ProcessLabels) {
    MGProcLabel b = zeroed<MGProcLabel>();
    b.pid = 4242;
    b.role = 5;  // stale values in the block are overwritten
    ASSERT_EQ(ok(), k(12, &b, 0, 16));
    EXPECT_EQ(0, b.role);
    EXPECT_EQ(0, b.level);
    EXPECT_EQ(4242, b.pid);

    b = MGProcLabel{7, {0, 0, 0}, 1, 3, 4242};
    ASSERT_EQ(ok(), k(13, &b, 0, 16, 0));
    MGProcLabel r = zeroed<MGProcLabel>();
    r.pid = 4242;
    ASSERT_EQ(ok(), k(12, &r, 0, 16));
    EXPECT_EQ(7, r.role);
    EXPECT_EQ(1, r.level);
    EXPECT_EQ(3, r.category);
    int role = -1;
    EXPECT_EQ(MG_PLABEL(7, 1, 3), mgsim_get_proc_label(4242, &role, nullptr, nullptr));

    // pid 0 is the caller.
    MGProcLabel self{3, {0, 0, 0}, 2, 9, 0};
    ASSERT_EQ(ok(), k(13, &self, 0, 16, 0));
    EXPECT_EQ(MG_PLABEL(3, 2, 9), mgsim_get_proc_label(getpid(), nullptr, nullptr, nullptr));

    MGProcLabel bad = b;
    bad.role = 8;
    EXPECT_EQ(err(EINVAL), k(13, &bad, 0, 16, 0));
    bad = b;
    bad.category = 128;
    EXPECT_EQ(err(EINVAL), k(13, &bad, 0, 16, 0));
    bad = b;
    bad.pid = -1;
    EXPECT_EQ(err(ESRCH), k(12, &bad, 0, 16));
    EXPECT_EQ(err(EINVAL), k(12, &b, 0, 15));
    EXPECT_EQ(err(EFAULT), k(12, nullptr, 0, 16));
    EXPECT_EQ(err(EINVAL), k(13, &b, 0, 16, 3));
    EXPECT_EQ(MG_PLABEL(7, 1, 3), mgsim_get_proc_label(4242, nullptr, nullptr, nullptr));

    // Flag 1 marks the process authenticated; flag 2 registers a pid, no block.
    MGProcLabel auth{2, {0, 0, 0}, 0, 0, 4243};
    ASSERT_EQ(ok(), k(13, &auth, 0, 16, 1));
    ASSERT_EQ(ok(), k(13, nullptr, 777, 0, 2));
    EXPECT_EQ(err(EINVAL), k(13, nullptr, -1, 0, 2));
    mgsim_proc procs[8];
    int n = mgsim_read_table(MGSIM_T_PROC, procs, 8);
    ASSERT_EQ(3, n);
    EXPECT_EQ(0, procs[0].auth);
    EXPECT_EQ(4243, procs[2].pid);
    EXPECT_EQ(1, procs[2].auth);
    int32_t pids[4];
    ASSERT_EQ(1, mgsim_read_table(MGSIM_T_SETPID, pids, 4));
    EXPECT_EQ(777, pids[0]);

    // 79 forgets every label.
    ASSERT_EQ(ok(), k(79));
    EXPECT_EQ(0, mgsim_count(MGSIM_T_PROC));
    EXPECT_EQ(0, mgsim_get_proc_label(4242, nullptr, nullptr, nullptr));
}

TEST_F(Kernel, LabelOfAnExitedProcessDoesNotPassToItsPid) {
    pid_t child = fork();
    if (child == 0) {
        pause();
        _exit(0);
    }
    ASSERT_EQ(0, mgsim_set_proc_label(child, 7, 1, 1));
    EXPECT_EQ(MG_PLABEL(7, 1, 1), mgsim_get_proc_label(child, nullptr, nullptr, nullptr));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    MGProcLabel b = zeroed<MGProcLabel>();
    b.pid = child;
    ASSERT_EQ(ok(), k(12, &b, 0, 16));
    EXPECT_EQ(0, b.role);
    EXPECT_EQ(0, mgsim_count(MGSIM_T_PROC));
}

TEST_F(Kernel, FileLabelsFollowTheFileNotTheSpelling) {
    std::string file = make_file("f");
    std::string sub = make_file("d", true);
    MGFileLabel b = zeroed<MGFileLabel>();
    b.kind = 2;
    b.flag = 1;
    b.level = 5;
    b.category = 100;
    memcpy(b.reserved, "kernel-private!", 16);
    ASSERT_EQ(ok(), k(23, &b, addr(file.c_str()), 28));

    std::string other_spelling = sub + "/../f";
    MGFileLabel r = zeroed<MGFileLabel>();
    ASSERT_EQ(ok(), k(22, &r, addr(other_spelling.c_str()), 28));
    EXPECT_EQ(0, memcmp(&b, &r, sizeof b));
    EXPECT_EQ(MG_FLABEL(2, 1, 5, 100), mgsim_get_file_label(file.c_str()));

    // An unlabelled file reads as 0; a missing one does not exist for the kernel.
    memset(&r, 0x33, sizeof r);
    ASSERT_EQ(ok(), k(22, &r, addr(sub.c_str()), 28));
    EXPECT_EQ(0, r.kind);
    EXPECT_EQ(0, r.level);
    std::string missing = dir_ / "missing";
    EXPECT_EQ(err(ENOENT), k(22, &r, addr(missing.c_str()), 28));
    EXPECT_EQ(err(ENOENT), k(23, &b, addr(missing.c_str()), 28));
    EXPECT_EQ(err(ENOENT), k(22, &r, addr(""), 28));
    EXPECT_EQ(err(EFAULT), k(22, &r, 0, 28));
    EXPECT_EQ(err(EINVAL), k(22, &r, addr(file.c_str()), 27));
    std::string longpath(1100, 'a');
    EXPECT_EQ(err(ENAMETOOLONG), k(22, &r, addr(longpath.c_str()), 28));

    MGFileLabel bad = b;
    bad.kind = 4;
    EXPECT_EQ(err(EINVAL), k(23, &bad, addr(file.c_str()), 28));
    bad = b;
    bad.flag = 2;
    EXPECT_EQ(err(EINVAL), k(23, &bad, addr(file.c_str()), 28));
}

TEST_F(Kernel, LabelSnapshotsSeparateFilesAndDirectories) {
    std::string f1 = make_file("a"), f2 = make_file("b"), d = make_file("d", true);
    ASSERT_EQ(0, mgsim_set_file_label(f1.c_str(), 1, 0, 2, 3));
    ASSERT_EQ(0, mgsim_set_file_label(d.c_str(), 0, 1, 4, 5));
    ASSERT_EQ(0, mgsim_set_file_label(f2.c_str(), 3, 0, 7, 127));
    EXPECT_EQ(ok(2), k(59, nullptr, 0, 1));
    EXPECT_EQ(ok(1), k(59, nullptr, 0, 2));
    EXPECT_EQ(err(EINVAL), k(59, nullptr, 0, 3));

    MlsSnapshot recs[4];
    ASSERT_EQ(ok(2), k(60, recs, 0, 4));
    struct stat st;
    ASSERT_EQ(0, stat(f1.c_str(), &st));
    EXPECT_EQ(st.st_ino, recs[0].ino);
    EXPECT_EQ(st.st_dev, recs[0].dev);
    EXPECT_EQ(MG_FLABEL(1, 0, 2, 3), recs[0].label);
    EXPECT_EQ(MG_FLABEL(3, 0, 7, 127), recs[1].label);
    ASSERT_EQ(ok(1), k(60, recs, 0, 1));  // capacity respected
    ASSERT_EQ(ok(1), k(61, recs, 0, 4));
    EXPECT_EQ(MG_FLABEL(0, 1, 4, 5), recs[0].label);
    EXPECT_EQ(ok(0), k(61, nullptr, 0, 0));
    EXPECT_EQ(err(EFAULT), k(61, nullptr, 0, 4));
}

MuRecord user(int uid, int role, const char *name) {
    MuRecord u = zeroed<MuRecord>();
    u.uid = uid;
    u.gid = uid;
    u.role = static_cast<uint8_t>(role);
    u.level = 1;
    u.category = 2;
    snprintf(u.name, sizeof u.name, "%s", name);
    return u;
}

TEST_F(Kernel, MlsUserTable) {
    EXPECT_EQ(ok(0), k(14));
    MuRecord users[3] = {user(500, 1, "ann"), user(501, 3, "bob"), user(502, 2, "cy")};
    ASSERT_EQ(ok(), k(17, users, 0, 3));
    EXPECT_EQ(ok(3), k(14));

    MuRecord one = zeroed<MuRecord>();
    ASSERT_EQ(ok(), k(15, &one, 0, 501));
    EXPECT_STREQ("bob", one.name);
    EXPECT_EQ(3, one.role);
    EXPECT_EQ(err(ENOENT), k(15, &one, 0, 999));

    MuRecord list[5];
    EXPECT_EQ(ok(2), k(16, list, 0, 2));
    EXPECT_EQ(ok(3), k(16, list, 0, 5));
    EXPECT_EQ(0, memcmp(list, users, sizeof users));

    // A table with one bad record is refused whole; the old one stays.
    MuRecord bad[2] = {user(600, 1, "dan"), user(601, 4, "eve")};
    EXPECT_EQ(err(EINVAL), k(17, bad, 0, 2));
    EXPECT_EQ(err(EINVAL), k(17, users, 0, -1));
    EXPECT_EQ(err(EFAULT), k(17, nullptr, 0, 2));
    EXPECT_EQ(ok(3), k(14));
    ASSERT_EQ(ok(), k(17, users, 0, 0));  // count 0 empties the table
    EXPECT_EQ(ok(0), k(14));
}

TEST_F(Kernel, CategoryTable) {
    CatRecord cats[2] = {zeroed<CatRecord>(), zeroed<CatRecord>()};
    cats[0].id = 1;
    cats[0].role = 3;
    snprintf(cats[0].name, sizeof cats[0].name, "ROOT");
    cats[1].id = 2;
    cats[1].depth = 1;
    cats[1].role = 2;
    snprintf(cats[1].name, sizeof cats[1].name, "System Admins");
    ASSERT_EQ(ok(), k(21, cats, 0, 2));
    EXPECT_EQ(ok(2), k(18));
    CatRecord c = zeroed<CatRecord>();
    ASSERT_EQ(ok(), k(19, &c, 0, 2));
    EXPECT_STREQ("System Admins", c.name);
    EXPECT_EQ(err(ENOENT), k(19, &c, 0, 3));
    CatRecord list[2];
    EXPECT_EQ(ok(2), k(20, list, 0, 2));
    cats[1].depth = 16;
    EXPECT_EQ(err(EINVAL), k(21, cats, 0, 2));
    cats[1].depth = 1;
    cats[1].id = 128;
    EXPECT_EQ(err(EINVAL), k(21, cats, 0, 2));
    EXPECT_EQ(err(EINVAL), k(21, cats, 0, 129));
}

TEST_F(Kernel, CommandAndTransitionListsAnswerWithTheErrorNumber) {
    CmdRecord cmds[51];
    memset(cmds, 0, sizeof cmds);
    snprintf(cmds[0].command, sizeof cmds[0].command, "/bin/ls");
    cmds[0].priority = 1;
    snprintf(cmds[1].command, sizeof cmds[1].command, "/bin/cat");
    EXPECT_EQ(ok(0), k(26, cmds, 0, 2));
    CmdRecord back[4];
    ASSERT_EQ(ok(2), k(25, back, 0, 4));
    EXPECT_STREQ("/bin/cat", back[1].command);
    EXPECT_EQ(ok(0), k(26, cmds, 0, 50));
    EXPECT_EQ(ok(EINVAL), k(26, cmds, 0, 51));  // not -1: the error number itself
    EXPECT_EQ(ok(EFAULT), k(26, nullptr, 0, 2));
    EXPECT_EQ(ok(0), k(26, cmds, 0, 0));
    EXPECT_EQ(0, mgsim_count(MGSIM_T_CMD));

    SuRecord su[21] = {};
    su[0] = {500, 7};
    EXPECT_EQ(ok(0), k(28, su, 0, 20));
    EXPECT_EQ(ok(EINVAL), k(28, su, 0, 21));
    SuRecord su_back[20];
    ASSERT_EQ(ok(20), k(27, su_back, 0, 20));
    EXPECT_EQ(7, su_back[0].word);
}

struct Facl {
    FaclHdr hdr;
    RuleEntry rules[2];
};

Facl facl(const std::string &path, int rules = 1) {
    Facl f;
    memset(&f, 0, sizeof f);
    snprintf(f.hdr.path, sizeof f.hdr.path, "%s", path.c_str());
    f.hdr.rule_cnt = rules;
    for (int i = 0; i < rules; ++i) {
        f.rules[i].type = 1;
        f.rules[i].id = 500u + static_cast<unsigned>(i);
        f.rules[i].perm = 7;
    }
    return f;
}

TEST_F(Kernel, FileAclAnswersLikeTheKernel) {
    std::string a = make_file("a"), b = make_file("b");
    Facl fa = facl(a, 2), fb = facl(b);
    ASSERT_EQ(ok(), k(29, &fa.hdr, addr(fa.rules)));
    ASSERT_EQ(ok(), k(29, &fb.hdr, addr(fb.rules)));
    EXPECT_EQ(err(EEXIST), k(29, &fa.hdr, addr(fa.rules)));
    Facl missing = facl(dir_ / "nothing");
    EXPECT_EQ(err(ENOENT), k(29, &missing.hdr, addr(missing.rules)));
    // A wildcard names files of an existing directory.
    Facl wild = facl(dir_ / "*.conf");
    EXPECT_EQ(ok(), k(29, &wild.hdr, addr(wild.rules)));
    Facl wild_missing = facl(dir_ / "nodir/*");
    EXPECT_EQ(err(ENOENT), k(29, &wild_missing.hdr, addr(wild_missing.rules)));
    EXPECT_EQ(ok(3), k(32));

    Facl bad = facl(a);
    bad.hdr.rule_cnt = 33;
    EXPECT_EQ(err(EINVAL), k(29, &bad.hdr, addr(bad.rules)));
    bad = facl("relative");
    EXPECT_EQ(err(EINVAL), k(29, &bad.hdr, addr(bad.rules)));
    bad = facl(a);
    bad.hdr.mode = 3;
    EXPECT_EQ(err(EINVAL), k(30, &bad.hdr, addr(bad.rules)));
    EXPECT_EQ(err(EFAULT), k(29, nullptr, addr(bad.rules)));
    Facl nor = facl(b);
    EXPECT_EQ(err(EFAULT), k(30, &nor.hdr, 0));

    // Modify replaces header and rules; read back through 34 and 35.
    Facl mod = facl(a, 1);
    mod.hdr.mode = 2;
    mod.rules[0].perm = 0x80;
    ASSERT_EQ(ok(), k(30, &mod.hdr, addr(mod.rules)));
    FaclHdr h = zeroed<FaclHdr>();
    snprintf(h.path, sizeof h.path, "%s", a.c_str());
    ASSERT_EQ(ok(), k(34, &h));
    EXPECT_EQ(1, h.rule_cnt);
    EXPECT_EQ(2, h.mode);
    RuleEntry got[2] = {};
    h.rule_cnt = 2;  // asks for more than held: only what is held comes back
    ASSERT_EQ(ok(), k(35, &h, addr(got)));
    EXPECT_EQ(0x80u, got[0].perm);
    EXPECT_EQ(0u, got[1].perm);
    Facl unknown = facl(dir_ / "x");
    EXPECT_EQ(err(ENOENT), k(30, &unknown.hdr, addr(unknown.rules)));
    EXPECT_EQ(err(ENOENT), k(34, &unknown.hdr));

    FaclHdr all[4];
    ASSERT_EQ(ok(2), k(33, all, 0, 2));
    EXPECT_STREQ(a.c_str(), all[0].path);
    EXPECT_STREQ(b.c_str(), all[1].path);
    ASSERT_EQ(ok(3), k(33, all, 0, 4));

    // Delete takes the path (or a header, whose path comes first).
    ASSERT_EQ(ok(), k(31, b.c_str()));
    EXPECT_EQ(err(ENOENT), k(31, b.c_str()));
    ASSERT_EQ(ok(), k(31, &fa.hdr));
    EXPECT_EQ(ok(1), k(32));
    ASSERT_EQ(ok(), k(36));
    EXPECT_EQ(ok(0), k(32));
}

struct Group {
    FgroupHdr hdr;
    RuleEntry rules[1];
    MemberPath members[2];
};

Group group(const char *name, int id = 0) {
    Group g;
    memset(&g, 0, sizeof g);
    g.hdr.fgroup_id = id;
    snprintf(g.hdr.name, sizeof g.hdr.name, "%s", name);
    return g;
}

Answer set_group(Group &g) { return k(37, &g.hdr, addr(g.rules), 0, addr(g.members)); }

TEST_F(Kernel, FileGroupsAreNumberedByTheKernel) {
    Group g1 = group("one"), g2 = group("two"), g3 = group("three");
    EXPECT_EQ(ok(1), set_group(g1));
    EXPECT_EQ(ok(2), set_group(g2));
    EXPECT_EQ(err(EEXIST), set_group(g2));  // the name is taken
    EXPECT_EQ(ok(), k(38, nullptr, 0, 1));
    EXPECT_EQ(ok(1), set_group(g3));  // lowest free number again
    EXPECT_EQ(err(ENOENT), k(38, nullptr, 0, 7));

    // Modify by number, with rules and members.
    std::string m1 = make_file("m1"), m2 = make_file("m2");
    Group mod = group("two-renamed", 2);
    mod.hdr.rule_cnt = 1;
    mod.hdr.member_cnt = 2;
    mod.rules[0].type = 16;
    snprintf(mod.members[0].path, sizeof mod.members[0].path, "%s", m1.c_str());
    snprintf(mod.members[1].path, sizeof mod.members[1].path, "%s", m2.c_str());
    mod.members[1].flag = 1;
    EXPECT_EQ(ok(2), set_group(mod));
    Group unknown = group("zz", 9);
    EXPECT_EQ(err(ENOENT), set_group(unknown));
    // A member path belongs to one group only; a member must exist.
    Group clash = group("clash");
    clash.hdr.member_cnt = 1;
    snprintf(clash.members[0].path, sizeof clash.members[0].path, "%s", m1.c_str());
    EXPECT_EQ(err(EEXIST), set_group(clash));
    snprintf(clash.members[0].path, sizeof clash.members[0].path, "%s", (dir_ / "gone").c_str());
    EXPECT_EQ(err(ENOENT), set_group(clash));
    clash.members[0].flag = 2;
    EXPECT_EQ(err(EINVAL), set_group(clash));
    Group noname = group("");
    EXPECT_EQ(err(EINVAL), set_group(noname));

    FgroupHdr h = zeroed<FgroupHdr>();
    h.fgroup_id = 2;
    ASSERT_EQ(ok(), k(41, &h));
    EXPECT_STREQ("two-renamed", h.name);
    EXPECT_EQ(2, h.member_cnt);
    Group out = group("");
    ASSERT_EQ(ok(), k(42, &h, addr(out.rules), 0, addr(out.members)));
    EXPECT_EQ(16u, out.rules[0].type);
    EXPECT_STREQ(m2.c_str(), out.members[1].path);
    EXPECT_EQ(1, out.members[1].flag);
    h.fgroup_id = 5;
    EXPECT_EQ(err(ENOENT), k(41, &h));

    FgroupHdr all[3];
    ASSERT_EQ(ok(2), k(40, all, 0, 3));
    EXPECT_EQ(ok(2), k(39));
    ASSERT_EQ(ok(), k(43));
    EXPECT_EQ(ok(0), k(39));
}

TEST_F(Kernel, FileGroupTableOverflows) {
    ASSERT_EQ(0, mgsim_batch_begin());
    for (int i = 1; i <= 512; ++i) {
        Group g = group(("g" + std::to_string(i)).c_str());
        ASSERT_EQ(ok(i), set_group(g));
    }
    Group extra = group("extra");
    EXPECT_EQ(err(EOVERFLOW), set_group(extra));
    ASSERT_EQ(0, mgsim_batch_end());
    EXPECT_EQ(512, mgsim_count(MGSIM_T_FGROUP));
}

TEST_F(Kernel, KillAndSetuidAcls) {
    KillAcl ka = zeroed<KillAcl>();
    snprintf(ka.path, sizeof ka.path, "/no/such/daemon");  // need not exist
    ka.denymask = 0x6;
    ASSERT_EQ(ok(), k(44, &ka));
    EXPECT_EQ(err(EEXIST), k(44, &ka));
    ka.denymask = 0x8000007F;
    ASSERT_EQ(ok(), k(45, &ka));
    KillAcl list[2];
    ASSERT_EQ(ok(1), k(48, list, 0, 2));
    EXPECT_EQ(0x8000007Fu, list[0].denymask);
    ka.flag = 2;
    EXPECT_EQ(err(EINVAL), k(44, &ka));
    KillAcl other = zeroed<KillAcl>();
    snprintf(other.path, sizeof other.path, "/other");
    EXPECT_EQ(err(ENOENT), k(45, &other));
    EXPECT_EQ(err(ENOENT), k(46, &other));
    ASSERT_EQ(ok(), k(46, "/no/such/daemon"));
    EXPECT_EQ(ok(0), k(47));

    std::string prog = make_file("prog");
    SetuidAcl su = zeroed<SetuidAcl>();
    su.flag = 1;
    snprintf(su.path, sizeof su.path, "%s", prog.c_str());
    ASSERT_EQ(ok(), k(50, &su));
    EXPECT_EQ(err(EEXIST), k(50, &su));
    SetuidAcl gone = su;
    snprintf(gone.path, sizeof gone.path, "%s", (dir_ / "gone").c_str());
    EXPECT_EQ(err(ENOENT), k(50, &gone));
    EXPECT_EQ(err(ENOENT), k(51, &gone));
    SetuidAcl rel = su;
    snprintf(rel.path, sizeof rel.path, "prog");
    EXPECT_EQ(err(EINVAL), k(50, &rel));
    su.flag = 0;
    ASSERT_EQ(ok(), k(51, &su));
    SetuidAcl back[2];
    ASSERT_EQ(ok(1), k(54, back, 0, 2));
    EXPECT_EQ(0, back[0].flag);
    EXPECT_EQ(ok(1), k(53));
    ASSERT_EQ(ok(), k(52, &su));
    EXPECT_EQ(err(ENOENT), k(52, &su));
    ASSERT_EQ(ok(), k(50, &su));
    ASSERT_EQ(ok(), k(55));
    EXPECT_EQ(ok(0), k(53));

    // The auto-detected list moves into the setuid ACL.
    ASSERT_EQ(0, mgsim_add_auto_dl(0, prog.c_str()));
    EXPECT_EQ(ok(1), k(56));
    SetuidAcl dl[2];
    ASSERT_EQ(ok(1), k(57, dl, 0, 2));
    dl[0].flag = 1;
    ASSERT_EQ(ok(), k(58, &dl[0]));
    EXPECT_EQ(ok(0), k(56));
    EXPECT_EQ(ok(1), k(53));
    EXPECT_EQ(err(ENOENT), k(58, &dl[0]));
}

struct Service {
    AlsvcHdr hdr;
    AlsvcRule rules[2];
};

Service service(int id, int rules) {
    Service s;
    memset(&s, 0, sizeof s);
    s.hdr.id = id;
    s.hdr.rule_cnt = rules;
    snprintf(s.hdr.name, sizeof s.hdr.name, "u%d", id);
    for (int i = 0; i < rules; ++i) {
        s.rules[i].value1 = id;
        snprintf(s.rules[i].service, sizeof s.rules[i].service, "svc%d", i);
    }
    return s;
}

// Sub-command numbers of one service-rule table: count, rules, set, delete,
// delete all, header count, headers.
struct AlsvcSubs {
    long cnt, rule, set, del, del_all, hdr_cnt, hdr_all;
};

TEST_F(Kernel, ServiceRuleTablesAreSeparate) {
    const AlsvcSubs tables[2] = {{65, 67, 69, 71, 73, 75, 77}, {66, 68, 70, 72, 74, 76, 78}};
    for (int t = 0; t < 2; ++t) {
        SCOPED_TRACE(t);
        const AlsvcSubs &s = tables[t];
        Service a = service(500 + t, 2), b = service(600, 1);
        ASSERT_EQ(ok(), k(s.set, &a.hdr, addr(a.rules)));
        ASSERT_EQ(ok(), k(s.set, &b.hdr, addr(b.rules)));
        EXPECT_EQ(ok(2), k(s.hdr_cnt));
        EXPECT_EQ(ok(2), k(s.cnt, nullptr, 0, 500 + t));
        EXPECT_EQ(ok(0), k(s.cnt, nullptr, 0, 999));
        AlsvcRule rules[2] = {};
        EXPECT_EQ(ok(1), k(s.rule, rules, 500 + t, 1));
        EXPECT_EQ(ok(2), k(s.rule, rules, 500 + t, 2));
        EXPECT_STREQ("svc1", rules[1].service);
        EXPECT_EQ(err(ENOENT), k(s.rule, rules, 999, 2));
        // Setting an existing id replaces its rules.
        Service a2 = service(500 + t, 1);
        ASSERT_EQ(ok(), k(s.set, &a2.hdr, addr(a2.rules)));
        EXPECT_EQ(ok(1), k(s.cnt, nullptr, 0, 500 + t));
        AlsvcHdr hdrs[3];
        ASSERT_EQ(ok(2), k(s.hdr_all, hdrs, 0, 3));
        EXPECT_EQ(1, hdrs[0].rule_cnt);
        ASSERT_EQ(ok(), k(s.del, &b.hdr));
        EXPECT_EQ(err(ENOENT), k(s.del, &b.hdr));
        EXPECT_EQ(ok(1), k(s.hdr_cnt));
    }
    // Each table kept its own headers.
    EXPECT_EQ(1, mgsim_count(MGSIM_T_ALSVC_USER));
    EXPECT_EQ(1, mgsim_count(MGSIM_T_ALSVC_GROUP));
    ASSERT_EQ(ok(), k(73));
    EXPECT_EQ(ok(0), k(75));
    EXPECT_EQ(ok(1), k(76));

    Service bad = service(1, 1);
    bad.hdr.rule_cnt = 0;
    EXPECT_EQ(err(EINVAL), k(69, &bad.hdr, addr(bad.rules)));
    bad = service(-1, 1);
    EXPECT_EQ(err(EINVAL), k(70, &bad.hdr, addr(bad.rules)));
}

TEST_F(Kernel, DefaultServiceTableHoldsOneHeader) {
    Service d = service(0, 2), e = service(3, 1);
    ASSERT_EQ(ok(), k(84, &d.hdr, addr(d.rules)));
    ASSERT_EQ(ok(), k(84, &e.hdr, addr(e.rules)));  // replaces, whatever the id
    EXPECT_EQ(ok(1), k(87));
    EXPECT_EQ(ok(1), k(82, nullptr, 0, 0));
    AlsvcRule r[2];
    EXPECT_EQ(ok(1), k(83, r, 0, 2));
    AlsvcHdr h[2];
    ASSERT_EQ(ok(1), k(88, h, 0, 2));
    EXPECT_EQ(3, h[0].id);
    ASSERT_EQ(ok(), k(85, &d.hdr));
    EXPECT_EQ(err(ENOENT), k(85, &d.hdr));
    ASSERT_EQ(ok(), k(84, &d.hdr, addr(d.rules)));
    ASSERT_EQ(ok(), k(86));
    EXPECT_EQ(ok(0), k(87));
    EXPECT_EQ(0, mgsim_count(MGSIM_T_ALSVC_USER));
}

TEST_F(Kernel, AllowedCommandsLoginOriginsAndBuffers) {
    AlcmdEntry cmds[51];
    memset(cmds, 0, sizeof cmds);
    snprintf(cmds[0].path, sizeof cmds[0].path, "/usr/bin/passwd");
    cmds[0].opt1 = 2;
    ASSERT_EQ(ok(), k(63, cmds, 0, 1));
    AlcmdEntry back[50];
    ASSERT_EQ(ok(1), k(62, back));
    EXPECT_STREQ("/usr/bin/passwd", back[0].path);
    EXPECT_EQ(err(EINVAL), k(63, cmds, 0, 51));
    EXPECT_EQ(err(EFAULT), k(62, nullptr));
    ASSERT_EQ(ok(), k(63, cmds, 0, 0));
    EXPECT_EQ(ok(0), k(62, back));

    MGLoginOrigin o = zeroed<MGLoginOrigin>();
    o.tty_major = 136;
    o.tty_minor = 3;
    o.pid = 1234;
    o.addr = 0x0100000a;
    snprintf(o.addr_text, sizeof o.addr_text, "10.0.0.1");
    ASSERT_EQ(ok(), k(64, &o));
    o.tty_minor = 4;  // the same process again: replaced
    ASSERT_EQ(ok(), k(64, &o));
    o.pid = 1235;
    ASSERT_EQ(ok(), k(64, &o));
    EXPECT_EQ(err(EFAULT), k(64, nullptr));
    MGLoginOrigin list[4];
    ASSERT_EQ(2, mgsim_read_table(MGSIM_T_ORIGIN, list, 4));
    EXPECT_EQ(4, list[0].tty_minor);
    EXPECT_STREQ("10.0.0.1", list[1].addr_text);

    ASSERT_EQ(0, mgsim_set_buffer(MGSIM_B_KERNLOG, "kernel says hi", 14));
    char buf[32] = {};
    EXPECT_EQ(ok(6), k(24, buf, 0, 6));
    EXPECT_STREQ("kernel", buf);
    ASSERT_EQ(0, mgsim_set_buffer(MGSIM_B_SESLOG, "s", 1));
    EXPECT_EQ(ok(1), k(80, buf, 0, 32));
    ASSERT_EQ(ok(), k(81, "user=ann", 0, 8));
    char ses[16] = {};
    EXPECT_EQ(8, mgsim_get_buffer(MGSIM_B_SESUSER, ses, sizeof ses));
    EXPECT_STREQ("user=ann", ses);
    EXPECT_EQ(err(EINVAL), k(81, "x", 0, -1));
}

TEST_F(Kernel, UnknownSubCommandsAreRefused) {
    for (long sub : {-1L, 89L, 1000L}) EXPECT_EQ(err(EINVAL), k(sub)) << sub;
}

}  // namespace
