// File ACL and file groups: rule lines, paths and permissions, the round trip
// file -> kernel -> dump, all-or-nothing loads, the lazy load and error codes.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "rules_fixture.hpp"

namespace {

using rulestest::RootTest;

// read_rulentry of one line; -1 when refused.
int read_line(const char *line, rulentry *e) {
    FILE *f = fmemopen(const_cast<char *>(line), strlen(line), "r");
    int r = read_rulentry(f, e);
    fclose(f);
    return r;
}

std::string written(const rulentry &e) {
    char *buf = nullptr;
    size_t len = 0;
    FILE *f = open_memstream(&buf, &len);
    write_rulentry(f, &e);
    fclose(f);
    std::string s(buf, len);
    free(buf);
    return s;
}

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
    EXPECT_EQ(str2perm("xrw"), 0x07);
    EXPECT_EQ(str2perm(""), 0);
    EXPECT_EQ(str2perm("R"), -1);
    perm2str(str2perm("xrwxomcdn"), perm);
    EXPECT_STREQ(perm, "omcdnrwx");

    const struct { const char *line, *back; } lines[] = {
        {"0:::::\n", "0:::::\n"},
        {"  1:500:user1:/usr/bin/vi::xrw  \r\n", "1:500:user1:/usr/bin/vi::rwx\n"},
        {"# note\n\n16:0:root::10.0.0.1:o\n", "16:0:root::10.0.0.1:o\n"},
        {"36:7:cat:::r\n", "36:7:cat:::r\n"},  // bits outside the kind are carried
        {"0::::", nullptr},                          // five fields
        {"0::::::", nullptr},                        // seven fields
        {"0:1::::", nullptr},                        // everyone with an id
        {"0::x:::", nullptr},                        // everyone with a name
        {"1:500::::r", nullptr},                     // user without a name
        {"3:1:a:::r", nullptr},                      // no such kind
        {"1:x:a:::r", nullptr},
        {"1:1:a:rel::r", nullptr},
        {"1:1:a:::R", nullptr},
        {"1:1:a::255.255.255.255:r", nullptr},       // all ones is refused
        {"1:1:a::1.2.3:r", "1:1:a::1.2.0.3:r\n"},    // inet_addr's short forms
        {"1:1:abcdefghijklmnopqrstuvwxyz012345:::r", nullptr},
        {"", nullptr},
    };
    for (const auto &c : lines) {
        rulentry e;
        memset(&e, 0x5a, sizeof e);
        const int r = read_line(c.line, &e);
        EXPECT_EQ(r, c.back ? 0 : -1) << c.line;
        if (r == 0 && c.back != nullptr) {
            EXPECT_EQ(written(e), c.back);
            EXPECT_EQ(e.in_use, 1);
            EXPECT_EQ(e.reserved, 0);
        }
    }
}

TEST(RuleEntry, NamesFromTheAccountDatabase) {
    rulentry e[3] = {};
    e[0].type = MG_RULE_USER;
    strcpy(e[0].name, "root");
    e[0].id = 77;
    e[1].type = MG_RULE_USER;
    strcpy(e[1].name, "no-such-account-x");
    e[2].type = MG_RULE_GROUP;
    strcpy(e[2].name, "root");
    e[2].id = 77;
    ASSERT_EQ(set_rulentry_uid(e, 3), 0);
    ASSERT_EQ(set_rulentry_gid(e, 3), 0);
    EXPECT_EQ(e[0].id, 0u);
    EXPECT_EQ(e[1].id, 0xffffffffu);
    EXPECT_EQ(e[2].id, 0u);
    ASSERT_EQ(set_rulentry_username(e, 2), 0);
    EXPECT_STREQ(e[1].name, "_UNKNOWN");
    EXPECT_EQ(set_rulentry_uid(nullptr, 1), -1);
    EXPECT_EQ(is_valid_user(0, "root"), 1);
    EXPECT_EQ(is_valid_user(0, "roo"), 0);
    EXPECT_EQ(is_valid_rulentry(&e[0], 0), 1);
    e[0].id = 5;  // name and number disagree
    EXPECT_EQ(is_valid_rulentry(&e[0], 0), 0);
}

class FileAcl : public RootTest {
protected:
    void SetUp() override {
        RootTest::SetUp();
        for (const char *name : {"p1", "p2", "p3"}) mgtest::write_file(dir / name, "x");
        p1 = dir / "p1";
        p2 = dir / "p2";
    }
    std::string record(const std::string &path, const std::string &rules_and_counts) {
        return "[ACL]\n" + path + "\n" + rules_and_counts + "[/ACL]\n";
    }
    // The canonical text of the two records the tests start from.
    std::string two() {
        return record(p1, "2\n0\n1\n5\n1:0:root:/bin/sh::rwx\n0::::10.1.2.3:r\n") +
               record(p2, "1\n2\n0\n0\n16:0:root:::o\n");
    }
    std::string p1, p2;
};

TEST_F(FileAcl, FileLoadsDumpsAndLoadsBackUnchanged) {
    const std::string original = "# acl\n" + two();
    mgtest::write_file(file("acl_file"), original);
    faclhdr *hdrs = nullptr;
    int count = 0;
    ASSERT_EQ(get_all_facl_hdr(&hdrs, &count), 0) << errno;
    ASSERT_EQ(count, 2);
    EXPECT_EQ(hdrs[0].polgrp_id, 5);
    free(hdrs);

    ASSERT_EQ(dump_file_acl(), 0);
    EXPECT_EQ(mgtest::read_file(file("acl_file")), two());
    EXPECT_EQ(mgtest::read_file(file(".acl_file_bak")), original);
    EXPECT_EQ(mgtest::file_mode(file("acl_file")), 0444u);
    EXPECT_FALSE(mgtest::exists(file("acl_file.tmp")));

    ASSERT_EQ(_sys_clear_file_acl(), 0);
    ASSERT_EQ(load_file_acl(), 0);
    ASSERT_EQ(dump_file_acl(), 0);
    EXPECT_EQ(mgtest::read_file(file("acl_file")), two());

    // An empty kernel dumps an empty file.
    ASSERT_EQ(_sys_clear_file_acl(), 0);
    unlink(file("acl_file").c_str());
    ASSERT_EQ(dump_file_acl(), 0);
    EXPECT_EQ(mgtest::read_file(file("acl_file")), "");
}

TEST_F(FileAcl, NamesWinOverStoredNumbersInLargeLoads) {
    // Enough records that the load looks names up through its index of the
    // account database.
    std::string text;
    for (int i = 0; i < 40; ++i) {
        const std::string path = dir / ("f" + std::to_string(i));
        mgtest::write_file(path, "x");
        text += record(path, "2\n0\n0\n0\n1:77:root:::r\n16:77:" + std::string(i % 2 ? "root" : "no-such-group-x") +
                                 ":::r\n");
    }
    mgtest::write_file(file("acl_file"), text);
    ASSERT_EQ(load_file_acl(), 0);
    for (int i : {0, 1, 38, 39}) {
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
    // Cut the file after each line of the second record but its last.
    size_t second = good.find("[ACL]", 1);
    for (size_t at = good.find('\n', second); at + 1 < good.size(); at = good.find('\n', at + 1)) {
        mgtest::write_file(file("acl_file"), good.substr(0, at + 1));
        errno = 0;
        EXPECT_EQ(load_file_acl(), -1) << at;
        EXPECT_EQ(errno, MG_ERR_RULE_FORMAT);
        EXPECT_EQ(mgsim_count(MGSIM_T_FACL), 0);
    }
    const struct { std::string text; int code; } cases[] = {
        {record(p1, "0\n0\n0\n0\n"), MG_ERR_RULE_FORMAT},
        {record(p1, "2\n0\n0\n0\n0:::::\n"), MG_ERR_RULE_FORMAT},
        {good + "[ACL]\n" + p1 + "\n1\n0\n0\n0\n0:::::\n[/ACL]\n", MG_ERR_RULE_EXISTS},
        {good + "[KACL]\n", MG_ERR_RULE_FORMAT},
        {good + record(dir / "missing", "1\n0\n0\n0\n0:::::\n"), MG_ERR_RULE_KNOENT},
        {good + record(p1 + "x", "1\n3\n0\n0\n0:::::\n"), MG_ERR_RULE_HEADER},
    };
    for (const auto &c : cases) {
        mgtest::write_file(file("acl_file"), c.text);
        subs();
        errno = 0;
        EXPECT_EQ(load_file_acl(), -1);
        EXPECT_EQ(errno, c.code) << c.text;
        EXPECT_EQ(mgsim_count(MGSIM_T_FACL), 0);
        EXPECT_TRUE(made(subs(), 36));
    }
    std::string many;
    for (int i = 0; i < 33; ++i) many += "0:::::\n";
    mgtest::write_file(file("acl_file"), record(p1, "33\n0\n0\n0\n" + many));
    errno = 0;
    EXPECT_EQ(load_file_acl(), -1);
    EXPECT_EQ(errno, MG_ERR_RULE_HEADER);
    unlink(file("acl_file").c_str());
    errno = 0;
    EXPECT_EQ(load_file_acl(), -1);
    EXPECT_EQ(errno, MG_ERR_NOTHING_TO_LOAD);
}

TEST_F(FileAcl, OperationsLoadLazilyAndReportTheirCodes) {
    mgtest::write_file(file("acl_file"), two());
    subs();
    EXPECT_EQ(del_file_acl(p2.c_str()), 0);
    std::vector<long> s = subs();
    ASSERT_GE(s.size(), 2u);
    EXPECT_EQ(std::count(s.begin(), s.end(), 29L), 2) << "loaded before the delete";
    EXPECT_EQ(s.back(), 31);
    EXPECT_EQ(del_file_acl(p2.c_str()), -1);
    EXPECT_EQ(errno, MG_ERR_RULE_NOENT);

    faclhdr h{};
    strcpy(h.path, p2.c_str());
    h.rule_cnt = 1;
    rulentry e{};
    auto code = [](int result) { return result == 0 ? 0 : errno; };
    EXPECT_EQ(code(add_file_acl(&h, &e)), 0);
    EXPECT_EQ(code(add_file_acl(&h, &e)), MG_ERR_RULE_EXISTS);
    EXPECT_EQ(code(add_file_acl(nullptr, &e)), EINVAL);
    faclhdr bad = h;
    bad.mode = 3;
    EXPECT_EQ(code(add_file_acl(&bad, &e)), MG_ERR_RULE_HEADER);
    bad = h;
    strcpy(bad.path, (dir / "a*b").c_str());
    EXPECT_EQ(code(add_file_acl(&bad, &e)), MG_ERR_RULE_HEADER);
    EXPECT_EQ(code(mod_file_acl(&bad, &e)), MG_ERR_RULE_NOENT) << "no wildcard rule on modify";
    strcpy(bad.path, (dir / "missing").c_str());
    EXPECT_EQ(code(add_file_acl(&bad, &e)), MG_ERR_RULE_KNOENT);
    rulentry wrong{};
    wrong.type = MG_RULE_USER;
    wrong.id = 0;
    strcpy(wrong.name, "not-root");
    EXPECT_EQ(code(mod_file_acl(&h, &wrong)), MG_ERR_RULE_ENTRY);
    wrong.type = MG_RULE_CATEGORY;
    wrong.id = 9;
    EXPECT_EQ(code(add_file_acl(&h, &wrong)), MG_ERR_RULE_ENTRY);
    EXPECT_EQ(code(del_file_acl("rel")), MG_ERR_RULE_HEADER);

    faclhdr q{};
    strcpy(q.path, p1.c_str());
    rulentry *got = nullptr;
    ASSERT_EQ(get_file_acl(&q, &got), 0);
    ASSERT_EQ(q.rule_cnt, 2);
    EXPECT_STREQ(got[0].name, "root");
    free(got);
    strcpy(q.path, (dir / "p3").c_str());
    EXPECT_EQ(code(get_file_acl(&q, &got)), MG_ERR_RULE_NOENT);
    EXPECT_EQ(got, nullptr);

    ASSERT_EQ(mgsim_set_status(MG_STATUS_SUSPENDED), 0);
    EXPECT_EQ(code(del_file_acl(p1.c_str())), MG_ERR_NO_MODULE);
    EXPECT_EQ(code(dump_file_acl()), MG_ERR_NO_MODULE);
}

TEST_F(FileAcl, GroupsAreCreatedAfreshInFileOrder) {
    const std::string members = p1 + "\n1\n" + p2 + "\n0\n";
    mgtest::write_file(file("acl_fgroup"), "[FGROUP]\n7\nweb\n1\n2\n1\n3\n16:0:root:::rw\n" + members +
                                               "[/FGROUP]\n[FGROUP]\n9\n# c\nempty\n0\n0\n0\n0\n[/FGROUP]\n");
    fgrouphdr *hdrs = nullptr;
    int count = 0;
    ASSERT_EQ(get_all_fgroup_hdr(&hdrs, &count), 0);
    ASSERT_EQ(count, 2);
    EXPECT_EQ(hdrs[0].fgroup_id, 1);
    EXPECT_EQ(hdrs[1].fgroup_id, 2);
    free(hdrs);
    ASSERT_EQ(dump_fgroup(), 0);
    const std::string dumped = "[FGROUP]\n1\nweb\n1\n2\n1\n3\n16:0:root:::rw\n" + members +
                               "[/FGROUP]\n[FGROUP]\n2\nempty\n0\n0\n0\n0\n[/FGROUP]\n";
    EXPECT_EQ(mgtest::read_file(file("acl_fgroup")), dumped);

    fgrouphdr g{};
    strcpy(g.name, "other");
    g.member_cnt = 1;
    mpath m{};
    strcpy(m.path, "rel");
    auto code = [](int result) { return result >= 0 ? 0 : errno; };
    EXPECT_EQ(code(set_fgroup(&g, nullptr, &m, 3)), EINVAL);
    EXPECT_EQ(code(set_fgroup(&g, nullptr, nullptr, 1)), EINVAL);
    EXPECT_EQ(code(set_fgroup(&g, nullptr, &m, 1)), MG_ERR_RULE_MEMBER);
    g.fgroup_id = 5;
    EXPECT_EQ(code(set_fgroup(&g, nullptr, &m, 1)), MG_ERR_RULE_HEADER);
    g.fgroup_id = 0;
    strcpy(m.path, p1.c_str());
    EXPECT_EQ(code(set_fgroup(&g, nullptr, &m, 1)), MG_ERR_RULE_EXISTS);  // member of "web" already
    strcpy(m.path, (dir / "p3").c_str());
    EXPECT_EQ(set_fgroup(&g, nullptr, &m, 1), 3);
    EXPECT_EQ(code(del_fgroup(0)), EINVAL);
    EXPECT_EQ(code(del_fgroup(4)), MG_ERR_RULE_NOENT);

    fgrouphdr q{};
    q.fgroup_id = 1;
    rulentry *e = nullptr;
    mpath *ms = nullptr;
    ASSERT_EQ(get_fgroup(&q, &e, &ms), 0);
    EXPECT_EQ(q.member_cnt, 2);
    EXPECT_EQ(ms[0].flag, 1);
    free(e);
    free(ms);

    // A malformed file leaves the kernel without groups.
    mgtest::write_file(file("acl_fgroup"), dumped + "[FGROUP]\n3\nx\n0\n1\n0\n0\n" + p1 + "\n[/FGROUP]\n");
    ASSERT_EQ(_sys_clear_fgroup(), 0);
    EXPECT_EQ(load_fgroup(), -1);
    EXPECT_EQ(errno, MG_ERR_RULE_FORMAT);
    EXPECT_EQ(mgsim_count(MGSIM_T_FGROUP), 0);
}

}  // namespace
