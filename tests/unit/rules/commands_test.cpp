// Restricted commands (fixed records, priority order, kernel upload before the
// rename) and allowed commands (the kernel's list first, the file second).
#include <cstring>

#include "rules_fixture.hpp"

namespace {

using rulestest::code;

class Commands : public rulestest::RootTest {
protected:
    void SetUp() override {
        RootTest::SetUp();
        ASSERT_EQ(chk_mgrootdir(), 1);
        set_cmdpath();
    }
    static cmdent rec(const std::string &command, int priority = 0) {
        cmdent c{};
        strncpy(c.command, command.c_str(), sizeof c.command - 1);
        c.priority = static_cast<unsigned char>(priority);
        return c;
    }
    // "name/priority,..." of the records in the file, or in the kernel's table.
    std::string names(bool kernel = false) {
        std::string raw = get("cmd_file"), s;
        cmdent k[64];
        const cmdent *r = kernel ? k : reinterpret_cast<const cmdent *>(raw.data());
        const int n = kernel ? mgsim_read_table(MGSIM_T_CMD, k, 64) : static_cast<int>(raw.size() / 64);
        for (int i = 0; i < n; ++i) s += std::string(r[i].command) + "/" + std::to_string(r[i].priority) + ",";
        return s;
    }
};

TEST_F(Commands, PriorityRecordsStayAheadAndEveryChangeIsUploaded) {
    for (const cmdent &c : {rec("a", 1), rec("b"), rec("c"), rec("new", 1), rec("d")}) ASSERT_EQ(addcmdent(&c), 0);
    EXPECT_EQ(names(), "a/1,new/1,b/0,c/0,d/0,");
    EXPECT_EQ(names(true), names());
    const cmdent moved = rec("d", 1), a = rec("a");
    ASSERT_EQ(modcmdent(&moved), 0);
    EXPECT_EQ(names(), "a/1,new/1,d/1,b/0,c/0,");

    const std::string before = get("cmd_file");
    subs();
    EXPECT_EQ(code(addcmdent(&a)), MG_ERR_CMD_EXISTS);
    EXPECT_EQ(code(delcmdent("zz")), MG_ERR_CMD_NOTFOUND);
    EXPECT_EQ(code(addcmdent(nullptr)), MG_ERR_CMD_NULL);
    EXPECT_EQ(times(subs(), 26), 0);
    ASSERT_EQ(0, mgsim_set_fail("26:22"));
    EXPECT_EQ(code(delcmdent("a")), MG_ERR_CMD_UPLOAD);
    EXPECT_EQ(get("cmd_file"), before);

    ASSERT_EQ(0, mgsim_set_absent(1));  // without the module only the file changes
    EXPECT_EQ(delcmdent("a"), 0);
    EXPECT_EQ(names(), "new/1,d/1,b/0,c/0,");
    ASSERT_TRUE(mgsim_set_absent(0) == 0 && mgsim_set_fail("") == 0);
    EXPECT_EQ(delcmdall(), 0);
    EXPECT_EQ(names() + names(true), "");
}

TEST_F(Commands, FiftyRecordsAndTheEnumeration) {
    ASSERT_EQ(0, mgsim_set_absent(1));
    for (int i = 0; i < 50; ++i) {
        const cmdent c = rec("/bin/c" + std::to_string(i));
        ASSERT_EQ(addcmdent(&c), 0) << i;
    }
    const cmdent extra = rec("/bin/x");
    EXPECT_EQ(code(addcmdent(&extra)), MG_ERR_CMD_FULL);

    // A lost store comes back from the backup for the enumeration only.
    ASSERT_EQ(unlink(file("cmd_file").c_str()), 0);
    EXPECT_EQ(loadcmdent(), -1);
    setcmdent();
    cmdent_list *l = getcmdent();
    ASSERT_NE(l, nullptr);
    EXPECT_EQ(l->count, 50);
    EXPECT_STREQ(l->records[49].command, "/bin/c49");
    endcmdent();
    ASSERT_EQ(0, mgsim_set_absent(0));
    EXPECT_EQ(loadcmdent(), 0);
    EXPECT_EQ(mgsim_count(MGSIM_T_CMD), 50);

    put("cmd_file", std::string(100, 'x'));
    EXPECT_EQ(code(delcmdent("x")), MG_ERR_CMD_SHORT);
    cmdent_list out{.count = 1, .records = {rec("/only", 1)}};
    ASSERT_EQ(export_rstcmd_to_file(&out), 0);
    EXPECT_EQ(names(), "/only/1,");
}

alcmd entry(const char *path, int o1, int o2 = 0, int o3 = 0, int o4 = 0) {
    alcmd e{{}, o1, static_cast<int8_t>(o2), {}, o3, o4};
    strncpy(e.path, path, sizeof e.path - 1);
    return e;
}

TEST_F(Commands, AllowedEntriesAreChecked) {
    const struct { const char *path; int mode, o1, o2, o3, o4, result; } cases[] = {
        {"/a", 2, 1, 0, 0, 0, 0}, {"/a", 2, 3, 1, 0, 0, 0}, {"/a", 2, 1, 7, 7, 1, 0}, {"/a", 2, 1, 7, 8, 1, -1},
        {"/a", 2, 1, 0, 1, 0, -1}, {"/a", 2, 1, 6, 1, 2, 0}, {"/a", 2, 1, 6, 1, 1, -1},  // category 1 is of type 3
        {"/a", 2, 1, 6, 1, 5, -1},  // no category 5
        {"/a", 1, 4, 0, 0, 0, -1}, {"/a", 3, 1, 2, 0, 0, -1}, {"a", 0, 1, 0, 0, 0, -1}, {"/a", 0, 9, 9, 9, 9, 0},
    };
    for (const auto &c : cases) {
        const alcmd e = entry(c.path, c.o1, c.o2, c.o3, c.o4);
        EXPECT_EQ(check_alcmd(c.mode, &e), c.result) << c.mode << c.o1 << c.o2 << c.o3 << c.o4;
    }
}

TEST_F(Commands, AllowedListTheKernelFirstThenTheFile) {
    std::string text = "# allowed\n";
    for (int i = 0; i < 60; ++i) text += "/bin/p" + std::to_string(i) + "\n1:0:0:0\n";
    put("alcmd_file", text);
    alcmd_list list{};
    ASSERT_EQ(get_alcmd_list(&list), 0);
    EXPECT_EQ(list.count, 50);
    const alcmd add = entry("/usr/bin/new", 2, 7, 3, 1), mod = entry("/bin/a", 2, 1);
    ASSERT_EQ(add_alcmd_list(&add), -1) << "the list is full";
    put("alcmd_file", "/bin/a\n1:0:0:0\n/bin/b\n3:1:0:0\n");
    ASSERT_EQ(add_alcmd_list(&add), 0);
    EXPECT_EQ(mgsim_count(MGSIM_T_ALCMD), 3);
    const std::string head = "#\n# Allowed Commands List\n#\n\n";
    EXPECT_EQ(get("alcmd_file"), head + "/bin/a\n1:0:0:0\n/bin/b\n3:1:0:0\n/usr/bin/new\n2:7:3:1\n");

    put("alcmd_file", "broken\n");  // the kernel's list is the master: the file is not read any more
    ASSERT_EQ(mod_alcmd_list(&mod), 0);
    ASSERT_EQ(del_alcmd_list(&add), 0);
    EXPECT_EQ(get("alcmd_file"), head + "/bin/a\n2:1:0:0\n/bin/b\n3:1:0:0\n");
    EXPECT_EQ(add_alcmd_list(&mod), -1) << "same path";
    ASSERT_EQ(0, mgsim_set_absent(1));
    EXPECT_EQ(get_alcmd_list(&list), -1);
    ASSERT_EQ(0, mgsim_set_absent(0));
    ASSERT_EQ(del_all_alcmd_list(), 0);
    EXPECT_EQ(mgsim_count(MGSIM_T_ALCMD), 0);

    for (const char *bad : {"/bin/a\n1:0:0\n", "/bin/a\n", "bin/a\n1:0:0:0\n", "/bin/a\n1:0:1:0\n"}) {
        put("alcmd_file", bad);
        EXPECT_EQ(make_alcmdlist(3, nullptr, &list), -1) << bad;
    }
    unlink(file("alcmd_file").c_str());
    EXPECT_EQ(make_alcmdlist(3, nullptr, &list), 0);
}

}  // namespace
