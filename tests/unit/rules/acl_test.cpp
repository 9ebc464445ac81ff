// File ACL and file groups: rule lines, paths and permissions, the round trip
// file -> kernel -> dump, all-or-nothing loads, the lazy load and error codes.
#include <cstdio>
#include <cstring>

#include "rules_fixture.hpp"

namespace {

using rulestest::code;

TEST(RuleEntry, PathsPermissionsAndLines) {
    const struct { const char *path; int valid, wildcard; } paths[] = {
        {"/", 1, 0}, {"/tmp/", 0, 0}, {"/bin/*", 1, 1}, {"/bin/a*", 1, 1}, {"/usr/bin/*sh", 1, 1},
        {"/bin/a*b", 0, 1}, {"/*/b", 0, 0}, {"/a/**", 0, 1}, {"rel", 0, 0}, {"/a*/b*", 0, 1},
    };
    for (const auto &c : paths) {
        EXPECT_EQ(is_valid_rulepath(c.path), c.valid) << c.path;
        EXPECT_EQ(is_wildcard_path(c.path), c.wildcard) << c.path;
    }
    char perm[9];
    EXPECT_EQ(str2perm("R"), -1);
    perm2str(str2perm("xrwxomcdn"), perm);
    EXPECT_STREQ(perm, "omcdnrwx");

    const struct { const char *line, *back; } lines[] = {  // back: the line written again, nullptr: refused
        {"0:::::\n", "0:::::\n"}, {"  1:500:user1:/usr/bin/vi::xrw  \r\n", "1:500:user1:/usr/bin/vi::rwx\n"},
        {"# note\n\n16:0:root::10.0.0.1:o\n", "16:0:root::10.0.0.1:o\n"},
        {"36:7:cat:::r\n", "36:7:cat:::r\n"},  // bits outside the kind are carried
        {"1:1:a::1.2.3:r", "1:1:a::1.2.0.3:r\n"},  // inet_addr's short forms
        {"0::::", nullptr}, {"0::::::", nullptr}, {"0:1::::", nullptr}, {"0::x:::", nullptr}, {"1:500::::r", nullptr},
        {"3:1:a:::r", nullptr}, {"1:x:a:::r", nullptr}, {"1:1:a:rel::r", nullptr}, {"1:1:a:::R", nullptr},
        {"1:1:a::255.255.255.255:r", nullptr}, {"1:1:abcdefghijklmnopqrstuvwxyz012345:::r", nullptr}, {"", nullptr},
    };
    for (const auto &c : lines) {
        rulentry e;
        memset(&e, 0x5a, sizeof e);
        FILE *in = fmemopen(const_cast<char *>(c.line), strlen(c.line), "r");
        const int r = read_rulentry(in, &e);
        fclose(in);
        ASSERT_EQ(r, c.back ? 0 : -1) << c.line;
        if (r != 0) continue;
        EXPECT_EQ(mgtest::capture_stdout([&] { write_rulentry(stdout, &e); }), c.back);
        EXPECT_EQ(e.in_use, 1);
        EXPECT_EQ(e.reserved, 0);
    }
    // Names that no account carries, and ids no account has, are kept recognisable.
    rulentry e[2] = {};
    e[0].type = e[1].type = MG_RULE_USER;
    strcpy(e[0].name, "no-such-x");
    e[1].id = 0xfffffff0;
    ASSERT_TRUE(set_rulentry_uid(e, 1) == 0 && set_rulentry_username(e + 1, 1) == 0);
    EXPECT_EQ(e[0].id, 0xffffffffu);
    EXPECT_STREQ(e[1].name, "_UNKNOWN");
}

class FileAcl : public rulestest::RootTest {
protected:
    void SetUp() override {
        RootTest::SetUp();
        for (const char *name : {"p1", "p2", "p3"}) mgtest::write_file(dir / name, "x");
    }
    static std::string record(const std::string &path, const std::string &body) {
        return "[ACL]\n" + path + "\n" + body + "[/ACL]\n";
    }
    // The canonical text of the two records the tests start from.
    std::string two() {
        return record(p1, "2\n0\n1\n5\n1:0:root:/bin/sh::rwx\n0::::10.1.2.3:r\n") +
               record(p2, "1\n2\n0\n0\n16:0:root:::o\n");
    }
    std::string p1 = dir / "p1", p2 = dir / "p2";
};

TEST_F(FileAcl, FileLoadsAndDumpsBackCanonical) {
    put("acl_file", "# acl\n" + two());
    ASSERT_EQ(load_file_acl(), 0);
    ASSERT_EQ(dump_file_acl(), 0);
    EXPECT_EQ(get("acl_file"), two());
    EXPECT_EQ(get(".acl_file_bak"), "# acl\n" + two()) << "the rule stores' shared backup name";
    EXPECT_EQ(mgtest::file_mode(file("acl_file")), 0444u);
}

TEST_F(FileAcl, NamesWinOverStoredNumbersInLargeLoads) {
    // Enough records that the load looks names up through its index of the account database.
    std::string text;
    for (int i = 0; i < 40; ++i) {
        const std::string path = dir / ("f" + std::to_string(i));
        mgtest::write_file(path, "x");
        text += record(path, "2\n0\n0\n0\n1:77:root:::r\n16:77:" + std::string(i % 2 ? "root" : "no-such-x") + ":::r\n");
    }
    put("acl_file", text);
    ASSERT_EQ(load_file_acl(), 0);
    for (int i : {0, 39}) {
        faclhdr h{};
        strcpy(h.path, (dir / ("f" + std::to_string(i))).c_str());
        rulentry *e = nullptr;
        ASSERT_EQ(get_file_acl(&h, &e), 0);
        EXPECT_EQ(e[0].id, 0u);
        EXPECT_EQ(e[1].id, i % 2 ? 0u : 0xffffffffu);
        free(e);
    }
}

TEST_F(FileAcl, AMalformedFileAtAnyLineLeavesTheTableEmpty) {
    const std::string good = two();
    std::string many;
    for (int i = 0; i < 33; ++i) many += "0:::::\n";
    std::vector<std::pair<std::string, int>> cases = {
        {record(p1, "0\n0\n0\n0\n"), MG_ERR_RULE_FORMAT},
        {record(p1, "2\n0\n0\n0\n0:::::\n"), MG_ERR_RULE_FORMAT},
        {good + record(p1, "1\n0\n0\n0\n0:::::\n"), MG_ERR_RULE_EXISTS},
        {good + record(dir / "missing", "1\n0\n0\n0\n0:::::\n"), MG_ERR_RULE_KNOENT},
        {good + record(p1 + "x", "1\n3\n0\n0\n0:::::\n"), MG_ERR_RULE_HEADER},
        {record(p1, "33\n0\n0\n0\n" + many), MG_ERR_RULE_HEADER},
        {"", MG_ERR_NOTHING_TO_LOAD},  // no file at all
    };
    // The file cut after each line of the second record but its last.
    for (size_t at = good.find('\n', good.find("[ACL]", 1)); at + 1 < good.size(); at = good.find('\n', at + 1))
        cases.emplace_back(good.substr(0, at + 1), MG_ERR_RULE_FORMAT);
    for (const auto &[text, want] : cases) {
        put("acl_file", text);
        if (want == MG_ERR_NOTHING_TO_LOAD) unlink(file("acl_file").c_str());
        subs();
        EXPECT_EQ(code(load_file_acl()), want) << text;
        EXPECT_EQ(mgsim_count(MGSIM_T_FACL), 0);
        EXPECT_EQ(times(subs(), 36), want == MG_ERR_NOTHING_TO_LOAD ? 0 : 1) << "the table is cleared";
    }
}

TEST_F(FileAcl, OperationsLoadLazilyAndReportTheirCodes) {
    put("acl_file", two());
    subs();
    EXPECT_EQ(del_file_acl(p2.c_str()), 0);
    const std::vector<long> s = subs();
    EXPECT_EQ(times(s, 29), 2) << "loaded before the delete";
    EXPECT_EQ(s.back(), 31);
    EXPECT_EQ(code(del_file_acl(p2.c_str())), MG_ERR_RULE_NOENT);

    faclhdr h{}, wild{};
    strcpy(h.path, p2.c_str());
    h.rule_cnt = 1;
    wild = h;
    strcpy(wild.path, (dir / "a*b").c_str());
    rulentry e{}, cat{};
    cat.type = MG_RULE_CATEGORY;
    cat.id = 9;
    EXPECT_EQ(code(add_file_acl(&h, &e)), 0);
    EXPECT_EQ(code(add_file_acl(&h, &e)), MG_ERR_RULE_EXISTS);
    EXPECT_EQ(code(add_file_acl(&wild, &e)), MG_ERR_RULE_HEADER);
    EXPECT_EQ(code(mod_file_acl(&wild, &e)), MG_ERR_RULE_NOENT) << "no wildcard rule on modify";
    EXPECT_EQ(code(add_file_acl(&h, &cat)), MG_ERR_RULE_ENTRY);
}

TEST_F(FileAcl, GroupsAreCreatedAfreshInFileOrder) {
    const std::string members = p1 + "\n1\n" + p2 + "\n0\n[/FGROUP]\n[FGROUP]\n";
    put("acl_fgroup", "[FGROUP]\n7\nweb\n1\n2\n1\n3\n16:0:root:::rw\n" + members + "9\n# c\nempty\n0\n0\n0\n0\n[/FGROUP]\n");
    ASSERT_EQ(load_fgroup(), 0);
    ASSERT_EQ(dump_fgroup(), 0);
    const std::string dumped =
        "[FGROUP]\n1\nweb\n1\n2\n1\n3\n16:0:root:::rw\n" + members + "2\nempty\n0\n0\n0\n0\n[/FGROUP]\n";
    EXPECT_EQ(get("acl_fgroup"), dumped);

    fgrouphdr g{};
    strcpy(g.name, "other");
    g.member_cnt = 1;
    mpath m{};
    strcpy(m.path, "rel");
    EXPECT_EQ(code(set_fgroup(&g, nullptr, &m, 3)), EINVAL);
    EXPECT_EQ(code(set_fgroup(&g, nullptr, &m, 1)), MG_ERR_RULE_MEMBER);
    strcpy(m.path, p1.c_str());
    EXPECT_EQ(code(set_fgroup(&g, nullptr, &m, 1)), MG_ERR_RULE_EXISTS);  // member of "web" already
    strcpy(m.path, (dir / "p3").c_str());
    EXPECT_EQ(set_fgroup(&g, nullptr, &m, 1), 3);

    // A malformed file leaves the kernel without groups.
    put("acl_fgroup", dumped + "[FGROUP]\n3\nx\n0\n1\n0\n0\n" + p1 + "\n[/FGROUP]\n");
    ASSERT_EQ(_sys_clear_fgroup(), 0);
    EXPECT_EQ(code(load_fgroup()), MG_ERR_RULE_FORMAT);
    EXPECT_EQ(mgsim_count(MGSIM_T_FGROUP), 0);
}

}  // namespace
