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

// A copy of v changed by f: one invalid field per case.
template <class T, class F>
T with(T v, F f) {
    f(v);
    return v;
}

TEST_F(Kernel, InformationBlockAndStatusTransitions) {
    MGModuleInfo info;
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

    ASSERT_EQ(0, mgsim_set_status(7));  // any status word is reported as set
    EXPECT_EQ(err(EINVAL), k(1, &info, 0, 71));
    EXPECT_EQ(err(EFAULT), k(0, nullptr, 0, 72));
    EXPECT_EQ(7, mgsim_get_status());  // a refused start changes nothing
}

TEST_F(Kernel, ConfigurationBlockWholeAndInParts) {
    uint8_t all[22] = {3, 0, 64, 128, 3, 0, 1, 3, 0, 3, 128, 1, 3, 0, 128, 1, 3, 0, 1, 99, 77, 66};
    ASSERT_EQ(ok(), k(8, all, 0, 22));
    uint8_t block[22], parts[20];  // the mode, option and IPS parts, read one by one
    ASSERT_EQ(ok(), k(5, parts, 0, 4));
    ASSERT_EQ(ok(), k(6, parts + 4, 0, 8));
    ASSERT_EQ(ok(), k(7, parts + 12, 0, 8));
    EXPECT_EQ(0, memcmp(parts, all, 20));  // byte 19 is carried, not examined

    uint8_t new_opt[8] = {};
    ASSERT_EQ(ok(), k(10, new_opt, 0, 8));
    ASSERT_EQ(ok(), k(4, block, 0, 22));
    EXPECT_EQ(0, memcmp(block, all, 4));
    EXPECT_EQ(0, memcmp(block + 4, new_opt, 8));

    // MACMODE has no value 128 and ROOTSU no warn: refused whole.
    uint8_t bad_mode[4] = {128, 1, 1, 0}, bad_opt[8] = {1};
    EXPECT_EQ(err(EINVAL), k(9, bad_mode, 0, 4));
    EXPECT_EQ(err(EINVAL), k(10, bad_opt, 0, 8));
    EXPECT_EQ(err(EINVAL), k(4, block, 0, 21));
    EXPECT_EQ(err(EFAULT), k(11, nullptr, 0, 8));
    ASSERT_EQ(ok(), k(4, block, 0, 22));
    EXPECT_EQ(0, memcmp(block, all, 4));  // nothing refused was written
}

TEST_F(Kernel, ProcessLabels) {
    MGProcLabel b{5, {0, 0, 0}, 0, 0, 4242};  // stale values in the block are overwritten
    ASSERT_EQ(ok(), k(12, &b, 0, 16));
    EXPECT_EQ(0, b.role);
    b = MGProcLabel{7, {0, 0, 0}, 1, 3, 4242};
    ASSERT_EQ(ok(), k(13, &b, 0, 16, 0));
    MGProcLabel r{0, {0, 0, 0}, 0, 0, 4242};
    ASSERT_EQ(ok(), k(12, &r, 0, 16));
    EXPECT_EQ(MG_PLABEL(7, 1, 3), MG_PLABEL(r.role, r.level, r.category));
    MGProcLabel self{3, {0, 0, 0}, 2, 9, 0};  // pid 0 is the caller
    ASSERT_EQ(ok(), k(13, &self, 0, 16, 0));
    EXPECT_EQ(MG_PLABEL(3, 2, 9), mgsim_get_proc_label(getpid(), nullptr, nullptr, nullptr));

    MGProcLabel role8 = with(b, [](auto &x) { x.role = 8; }), cat128 = with(b, [](auto &x) { x.category = 128; });
    MGProcLabel neg = with(b, [](auto &x) { x.pid = -1; });
    EXPECT_EQ(err(EINVAL), k(13, &role8, 0, 16, 0));
    EXPECT_EQ(err(EINVAL), k(13, &cat128, 0, 16, 0));
    EXPECT_EQ(err(EINVAL), k(13, &b, 0, 16, 3));
    EXPECT_EQ(err(ESRCH), k(12, &neg, 0, 16));
    EXPECT_EQ(err(EINVAL), k(12, &b, 0, 15));
    EXPECT_EQ(err(EFAULT), k(12, nullptr, 0, 16));

    // Flag 1 marks the process authenticated; flag 2 registers a pid, no block.
    MGProcLabel auth{2, {0, 0, 0}, 0, 0, 4243};
    ASSERT_EQ(ok(), k(13, &auth, 0, 16, 1));
    ASSERT_EQ(ok(), k(13, nullptr, 777, 0, 2));
    EXPECT_EQ(err(EINVAL), k(13, nullptr, -1, 0, 2));
    mgsim_proc procs[8];
    ASSERT_EQ(3, mgsim_read_table(MGSIM_T_PROC, procs, 8));
    EXPECT_EQ(0, procs[0].auth);
    EXPECT_EQ(1, procs[2].auth);
    int32_t pids[4];
    ASSERT_EQ(1, mgsim_read_table(MGSIM_T_SETPID, pids, 4));
    EXPECT_EQ(777, pids[0]);
    ASSERT_EQ(ok(), k(79));  // forgets every label
    EXPECT_EQ(0, mgsim_count(MGSIM_T_PROC));
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
    MGProcLabel b{0, {0, 0, 0}, 0, 0, child};
    ASSERT_EQ(ok(), k(12, &b, 0, 16));
    EXPECT_EQ(0, b.role);
    EXPECT_EQ(0, mgsim_count(MGSIM_T_PROC));
}

TEST_F(Kernel, FileLabelsFollowTheFileNotTheSpelling) {
    std::string file = make_file("f"), sub = make_file("d", true);
    MGFileLabel b{2, 1, {0, 0}, 5, 100, {}};
    memcpy(b.reserved, "kernel-private!", 16);
    ASSERT_EQ(ok(), k(23, &b, addr(file.c_str()), 28));

    std::string other_spelling = sub + "/../f";
    MGFileLabel r = zeroed<MGFileLabel>();
    ASSERT_EQ(ok(), k(22, &r, addr(other_spelling.c_str()), 28));
    EXPECT_EQ(0, memcmp(&b, &r, sizeof b));

    // An unlabelled file reads as 0; a missing one does not exist for the kernel.
    memset(&r, 0x33, sizeof r);
    ASSERT_EQ(ok(), k(22, &r, addr(sub.c_str()), 28));
    EXPECT_EQ(0, r.kind);
    EXPECT_EQ(0, r.level);
    std::string missing = dir_ / "missing", longpath(1100, 'a');
    MGFileLabel kind4 = with(b, [](auto &x) { x.kind = 4; });
    MGFileLabel flag2 = with(b, [](auto &x) { x.flag = 2; });
    EXPECT_EQ(err(ENOENT), k(22, &r, addr(missing.c_str()), 28));
    EXPECT_EQ(err(ENOENT), k(23, &b, addr(missing.c_str()), 28));
    EXPECT_EQ(err(EFAULT), k(22, &r, 0, 28));
    EXPECT_EQ(err(EINVAL), k(22, &r, addr(file.c_str()), 27));
    EXPECT_EQ(err(ENAMETOOLONG), k(22, &r, addr(longpath.c_str()), 28));
    EXPECT_EQ(err(EINVAL), k(23, &kind4, addr(file.c_str()), 28));
    EXPECT_EQ(err(EINVAL), k(23, &flag2, addr(file.c_str()), 28));
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
    EXPECT_EQ(MG_FLABEL(3, 0, 7, 127), recs[1].label);  // in labelling order
    ASSERT_EQ(ok(1), k(61, recs, 0, 1));  // capacity respected
    EXPECT_EQ(MG_FLABEL(0, 1, 4, 5), recs[0].label);
}

MuRecord user(int uid, int role, const char *name) {
    MuRecord u = zeroed<MuRecord>();
    u.uid = u.gid = uid;
    u.role = static_cast<uint8_t>(role);
    snprintf(u.name, sizeof u.name, "%s", name);
    return u;
}

TEST_F(Kernel, MlsUserAndCategoryTables) {
    MuRecord users[3] = {user(500, 1, "ann"), user(501, 3, "bob"), user(502, 2, "cy")}, list[5];
    ASSERT_EQ(ok(), k(17, users, 0, 3));
    ASSERT_EQ(ok(), k(15, list, 0, 501));  // keyed by uid
    EXPECT_STREQ("bob", list[0].name);
    EXPECT_EQ(err(ENOENT), k(15, list, 0, 999));
    EXPECT_EQ(ok(2), k(16, list, 0, 2));
    EXPECT_EQ(ok(3), k(16, list, 0, 5));
    EXPECT_EQ(0, memcmp(list, users, sizeof users));
    // A table with one bad record is refused whole; the old one stays.
    MuRecord bad[2] = {user(600, 1, "dan"), user(601, 4, "eve")};
    EXPECT_EQ(err(EINVAL), k(17, bad, 0, 2));
    EXPECT_EQ(err(EINVAL), k(17, users, 0, -1));
    EXPECT_EQ(ok(3), k(14));
    ASSERT_EQ(ok(), k(17, users, 0, 0));  // count 0 empties the table
    EXPECT_EQ(ok(0), k(14));

    CatRecord cats[2] = {{1, 0, 3, 0, "ROOT", {}}, {2, 1, 2, 0, "System Admins", {}}}, c;
    ASSERT_EQ(ok(), k(21, cats, 0, 2));
    ASSERT_EQ(ok(), k(19, &c, 0, 2));  // keyed by id
    EXPECT_STREQ("System Admins", c.name);
    CatRecord deep[2] = {cats[0], with(cats[1], [](auto &x) { x.depth = 16; })};
    CatRecord big_id[2] = {cats[0], with(cats[1], [](auto &x) { x.id = 128; })};
    EXPECT_EQ(err(EINVAL), k(21, deep, 0, 2));
    EXPECT_EQ(err(EINVAL), k(21, big_id, 0, 2));
    EXPECT_EQ(err(EINVAL), k(21, cats, 0, 129));
    EXPECT_EQ(ok(2), k(18));
}

TEST_F(Kernel, CommandAndTransitionListsAnswerWithTheErrorNumber) {
    CmdRecord cmds[51] = {{"/bin/ls", 1}, {"/bin/cat", 0}}, back[4];
    EXPECT_EQ(ok(0), k(26, cmds, 0, 2));
    ASSERT_EQ(ok(2), k(25, back, 0, 4));
    EXPECT_STREQ("/bin/cat", back[1].command);
    EXPECT_EQ(ok(EINVAL), k(26, cmds, 0, 51));  // not -1: the error number itself
    EXPECT_EQ(ok(EFAULT), k(26, nullptr, 0, 2));
    SuRecord su[21] = {{500, 7}}, su_back[20];
    EXPECT_EQ(ok(0), k(28, su, 0, 20));
    EXPECT_EQ(ok(EINVAL), k(28, su, 0, 21));
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
    for (int i = 0; i < rules; ++i) f.rules[i] = {1, 500u + static_cast<unsigned>(i), "", 0, "", 7, 0, 0};
    return f;
}

Answer add_facl(long sub, const Facl &f) { return k(sub, &f.hdr, addr(f.rules)); }

TEST_F(Kernel, FileAclAnswersLikeTheKernel) {
    std::string a = make_file("a"), b = make_file("b");
    Facl fa = facl(a, 2);
    ASSERT_EQ(ok(), add_facl(29, fa));
    ASSERT_EQ(ok(), add_facl(29, facl(b)));
    ASSERT_EQ(ok(), add_facl(29, facl(dir_ / "*.conf")));  // files of an existing directory
    const struct {
        long sub;
        Facl f;
        Answer want;
    } refused[] = {
        {29, fa, err(EEXIST)},
        {29, facl(dir_ / "nothing"), err(ENOENT)},
        {29, facl(dir_ / "nodir/*"), err(ENOENT)},
        {29, with(facl(a), [](Facl &x) { x.hdr.rule_cnt = 33; }), err(EINVAL)},
        {29, facl("relative"), err(EINVAL)},
        {30, with(facl(a), [](Facl &x) { x.hdr.mode = 3; }), err(EINVAL)},
        {30, facl(dir_ / "x"), err(ENOENT)},
    };
    for (const auto &c : refused) EXPECT_EQ(c.want, add_facl(c.sub, c.f)) << c.sub << " " << c.f.hdr.path;
    EXPECT_EQ(err(EFAULT), k(30, &fa.hdr, 0));
    EXPECT_EQ(ok(3), k(32));

    // Modify replaces header and rules; read back through 34 and 35.
    Facl mod = with(facl(a, 1), [](Facl &x) { x.hdr.mode = 2, x.rules[0].perm = 0x80; });
    ASSERT_EQ(ok(), add_facl(30, mod));
    FaclHdr h = facl(a).hdr;
    ASSERT_EQ(ok(), k(34, &h));
    EXPECT_EQ(1, h.rule_cnt);
    EXPECT_EQ(2, h.mode);
    RuleEntry got[2] = {};
    h.rule_cnt = 2;  // asks for more than held: only what is held comes back
    ASSERT_EQ(ok(), k(35, &h, addr(got)));
    EXPECT_EQ(0x80u, got[0].perm);
    EXPECT_EQ(0u, got[1].perm);
    FaclHdr all[4];
    ASSERT_EQ(ok(2), k(33, all, 0, 2));  // in insertion order
    EXPECT_STREQ(b.c_str(), all[1].path);

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

Group group(const char *name, int id = 0, const std::string &member = "") {
    Group g;
    memset(&g, 0, sizeof g);
    g.hdr.fgroup_id = id;
    snprintf(g.hdr.name, sizeof g.hdr.name, "%s", name);
    if (!member.empty()) {
        g.hdr.member_cnt = 1;
        snprintf(g.members[0].path, sizeof g.members[0].path, "%s", member.c_str());
    }
    return g;
}

Answer set_group(const Group &g) { return k(37, &g.hdr, addr(g.rules), 0, addr(g.members)); }

TEST_F(Kernel, FileGroupsAreNumberedByTheKernel) {
    EXPECT_EQ(ok(1), set_group(group("one")));
    EXPECT_EQ(ok(2), set_group(group("two")));
    EXPECT_EQ(ok(), k(38, nullptr, 0, 1));
    EXPECT_EQ(ok(1), set_group(group("three")));  // lowest free number again
    EXPECT_EQ(err(ENOENT), k(38, nullptr, 0, 7));

    // Modify by number, with rules and members.
    std::string m1 = make_file("m1"), m2 = make_file("m2");
    Group mod = group("two-renamed", 2, m1);
    mod.hdr.rule_cnt = 1;
    mod.hdr.member_cnt = 2;
    mod.rules[0].type = 16;
    snprintf(mod.members[1].path, sizeof mod.members[1].path, "%s", m2.c_str());
    mod.members[1].flag = 1;
    EXPECT_EQ(ok(2), set_group(mod));
    const std::pair<Group, Answer> refused[] = {
        {group("three"), err(EEXIST)},       // the name is taken
        {group("zz", 9), err(ENOENT)},       // no such number
        {group("c", 0, m1), err(EEXIST)},    // a member path belongs to one group only
        {group("c", 0, dir_ / "gone"), err(ENOENT)},
        {with(group("c", 0, m2), [](Group &g) { g.members[0].flag = 2; }), err(EINVAL)},
        {group(""), err(EINVAL)},
    };
    for (const auto &[g, want] : refused) EXPECT_EQ(want, set_group(g)) << g.hdr.name;

    FgroupHdr h = group("", 2).hdr;
    ASSERT_EQ(ok(), k(41, &h));
    EXPECT_STREQ("two-renamed", h.name);
    Group out = group("");
    ASSERT_EQ(ok(), k(42, &h, addr(out.rules), 0, addr(out.members)));
    EXPECT_EQ(16u, out.rules[0].type);
    EXPECT_STREQ(m2.c_str(), out.members[1].path);
    EXPECT_EQ(1, out.members[1].flag);
    h.fgroup_id = 5;
    EXPECT_EQ(err(ENOENT), k(41, &h));
    FgroupHdr all[3];
    ASSERT_EQ(ok(2), k(40, all, 0, 3));
    ASSERT_EQ(ok(), k(43));
    EXPECT_EQ(ok(0), k(39));
}

TEST_F(Kernel, FileGroupTableOverflows) {
    ASSERT_EQ(0, mgsim_batch_begin());
    for (int i = 1; i <= 512; ++i) ASSERT_EQ(ok(i), set_group(group(("g" + std::to_string(i)).c_str())));
    EXPECT_EQ(err(EOVERFLOW), set_group(group("extra")));
    ASSERT_EQ(0, mgsim_batch_end());
    EXPECT_EQ(512, mgsim_count(MGSIM_T_FGROUP));
}

TEST_F(Kernel, KillAndSetuidAcls) {
    KillAcl ka{"/no/such/daemon", 0, 0x6};  // need not exist
    ASSERT_EQ(ok(), k(44, &ka));
    EXPECT_EQ(err(EEXIST), k(44, &ka));
    ka.denymask = 0x8000007F;
    ASSERT_EQ(ok(), k(45, &ka));
    KillAcl list[2];
    ASSERT_EQ(ok(1), k(48, list, 0, 2));
    EXPECT_EQ(0x8000007Fu, list[0].denymask);
    KillAcl flag2 = with(ka, [](auto &x) { x.flag = 2; }), other{"/other", 0, 0};
    EXPECT_EQ(err(EINVAL), k(44, &flag2));
    EXPECT_EQ(err(ENOENT), k(46, &other));
    ASSERT_EQ(ok(), k(46, "/no/such/daemon"));
    EXPECT_EQ(ok(0), k(47));

    std::string prog = make_file("prog");
    SetuidAcl su = zeroed<SetuidAcl>(), gone = su, rel = su;
    snprintf(su.path, sizeof su.path, "%s", prog.c_str());
    snprintf(gone.path, sizeof gone.path, "%s", (dir_ / "gone").c_str());
    snprintf(rel.path, sizeof rel.path, "prog");
    ASSERT_EQ(ok(), k(50, &su));
    EXPECT_EQ(err(EEXIST), k(50, &su));
    EXPECT_EQ(err(ENOENT), k(51, &gone));
    EXPECT_EQ(err(EINVAL), k(50, &rel));
    ASSERT_EQ(ok(), k(52, &su));  // matched by the record's path
    EXPECT_EQ(err(ENOENT), k(52, &su));

    // The auto-detected list moves into the setuid ACL with the record's flag.
    ASSERT_EQ(0, mgsim_add_auto_dl(0, prog.c_str()));
    SetuidAcl dl[2];
    ASSERT_EQ(ok(1), k(57, dl, 0, 2));
    dl[0].flag = 1;
    ASSERT_EQ(ok(), k(58, &dl[0]));
    EXPECT_EQ(ok(0), k(56));
    SetuidAcl back[2];
    ASSERT_EQ(ok(1), k(54, back, 0, 2));
    EXPECT_EQ(1, back[0].flag);
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
    for (int i = 0; i < rules; ++i) snprintf(s.rules[i].service, sizeof s.rules[i].service, "svc%d", i);
    return s;
}

Answer set_service(long sub, const Service &s) { return k(sub, &s.hdr, addr(s.rules)); }

TEST_F(Kernel, ServiceRuleTablesAreSeparate) {
    // count, rules, set, delete, header count, headers
    const long tables[2][6] = {{65, 67, 69, 71, 75, 77}, {66, 68, 70, 72, 76, 78}};
    for (int t = 0; t < 2; ++t) {
        SCOPED_TRACE(t);
        const long *s = tables[t];
        const int id = 500 + t;
        Service b = service(600, 1);
        ASSERT_EQ(ok(), set_service(s[2], service(id, 2)));
        ASSERT_EQ(ok(), set_service(s[2], b));
        EXPECT_EQ(ok(2), k(s[0], nullptr, 0, id));
        EXPECT_EQ(ok(0), k(s[0], nullptr, 0, 999));
        AlsvcRule rules[2] = {};
        EXPECT_EQ(ok(1), k(s[1], rules, id, 1));
        EXPECT_EQ(ok(2), k(s[1], rules, id, 2));
        EXPECT_STREQ("svc1", rules[1].service);
        EXPECT_EQ(err(ENOENT), k(s[1], rules, 999, 2));
        ASSERT_EQ(ok(), set_service(s[2], service(id, 1)));  // an existing id: rules replaced
        AlsvcHdr hdrs[3];
        ASSERT_EQ(ok(2), k(s[5], hdrs, 0, 3));
        EXPECT_EQ(1, hdrs[0].rule_cnt);
        ASSERT_EQ(ok(), k(s[3], &b.hdr));
        EXPECT_EQ(err(ENOENT), k(s[3], &b.hdr));
    }
    // Each table kept its own headers.
    ASSERT_EQ(ok(), k(73));
    EXPECT_EQ(ok(0), k(75));
    EXPECT_EQ(ok(1), k(76));
    EXPECT_EQ(err(EINVAL), set_service(69, service(1, 0)));
    EXPECT_EQ(err(EINVAL), set_service(70, service(-1, 1)));
}

TEST_F(Kernel, DefaultServiceTableHoldsOneHeader) {
    Service d = service(0, 2);
    ASSERT_EQ(ok(), set_service(84, d));
    ASSERT_EQ(ok(), set_service(84, service(3, 1)));  // replaces, whatever the id
    EXPECT_EQ(ok(1), k(87));
    EXPECT_EQ(ok(1), k(82, nullptr, 0, 0));
    AlsvcHdr h[2];
    ASSERT_EQ(ok(1), k(88, h, 0, 2));
    EXPECT_EQ(3, h[0].id);
    ASSERT_EQ(ok(), k(85, &d.hdr));
    EXPECT_EQ(err(ENOENT), k(85, &d.hdr));
    ASSERT_EQ(ok(), set_service(84, d));
    ASSERT_EQ(ok(), k(86));
    EXPECT_EQ(ok(0), k(87));
}

TEST_F(Kernel, AllowedCommandsLoginOriginsAndBuffers) {
    AlcmdEntry cmds[51] = {{"/usr/bin/passwd", 2, 0, {}, 0, 0}};
    ASSERT_EQ(ok(), k(63, cmds, 0, 1));
    AlcmdEntry back[50];
    ASSERT_EQ(ok(1), k(62, back));
    EXPECT_STREQ("/usr/bin/passwd", back[0].path);
    EXPECT_EQ(err(EINVAL), k(63, cmds, 0, 51));

    MGLoginOrigin o = zeroed<MGLoginOrigin>();
    o.pid = 1234;
    o.tty_minor = 3;
    ASSERT_EQ(ok(), k(64, &o));
    o.tty_minor = 4;  // the same process again: replaced
    ASSERT_EQ(ok(), k(64, &o));
    o.pid = 1235;
    ASSERT_EQ(ok(), k(64, &o));
    MGLoginOrigin list[4];
    ASSERT_EQ(2, mgsim_read_table(MGSIM_T_ORIGIN, list, 4));
    EXPECT_EQ(4, list[0].tty_minor);

    ASSERT_EQ(0, mgsim_set_buffer(MGSIM_B_KERNLOG, "kernel says hi", 14));
    char buf[32] = {};
    EXPECT_EQ(ok(6), k(24, buf, 0, 6));
    EXPECT_STREQ("kernel", buf);
    ASSERT_EQ(ok(), k(81, "user=ann", 0, 8));
    EXPECT_EQ(8, mgsim_get_buffer(MGSIM_B_SESUSER, buf, sizeof buf));
    EXPECT_EQ(0, memcmp(buf, "user=ann", 8));
    EXPECT_EQ(err(EINVAL), k(81, "x", 0, -1));
    for (long sub : {-1L, 89L, 1000L}) EXPECT_EQ(err(EINVAL), k(sub)) << sub;  // unknown sub-commands
}

}  // namespace
