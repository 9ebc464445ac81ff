// MLS users: the merge of accounts with the kernel's list, the management
// calls against test accounts (a private /etc) and the simulated kernel, and
// the store layer with its recovery rules, crashes and races.
#include <mossgrove/sopass.h>
#include "labels_fixture.hpp"
#include "sandbox.hpp"

#include <fcntl.h>

namespace {

using mgtest::read_file;
using Root = mgtest::LabelRoot;

MGMlsUser user(int uid, const char *name, int role = 0, int level = 0, int cid = 0, int retry = 0) {
    MGMlsUser u{};
    u.uid = uid, u.gid = 100, u.level = level, u.cid = cid;
    u.role = static_cast<unsigned char>(role), u.retry = static_cast<signed char>(retry);
    strncpy(u.name, name, sizeof u.name - 1);
    strcpy(u.group, "users");
    return u;
}

// One case per way an account and the kernel's list can disagree.
TEST(MlsUserMerge, RulesOfTheMerge) {
    struct Case {
        const char *what;
        std::vector<MGMlsUser> pw, kern;
        int result, matched;
        std::vector<std::pair<const char *, int>> roles;  // name and role of each account afterwards
    };
    MGMlsUser regrouped = user(10, "a", 1);
    regrouped.gid = 7;
    const Case cases[] = {
        {"in step", {user(10, "a"), user(11, "b")}, {user(10, "a", 1)}, 1, 1, {{"a", 1}, {"b", 0}}},
        {"renamed SO", {user(10, "new")}, {user(10, "old", 3)}, 0, 1, {{"new", 3}}},
        {"renamed MU", {user(10, "new")}, {user(10, "old", 1)}, 0, 0, {{"new", 0}}},
        {"vanished account", {user(10, "a")}, {user(10, "a", 2), user(12, "gone", 1)}, 0, 1, {{"a", 2}}},
        {"group changed", {user(10, "a")}, {regrouped}, 0, 1, {{"a", 1}}},
        {"duplicate uid, SO", {user(10, "a"), user(10, "b")}, {user(10, "a", 3)}, 0, 2, {{"a", 3}, {"b", 3}}},
        {"duplicate uid, MU", {user(10, "a"), user(10, "b")}, {user(10, "b", 1)}, 0, 1, {{"a", 0}, {"b", 1}}},
        {"role 0 and 255 ignored", {user(10, "a")}, {user(10, "a", 0), user(10, "a", 255)}, 0, 0, {{"a", 0}}},
        {"second record of a uid", {user(10, "a")}, {user(10, "x", 1), user(10, "a", 2)}, 0, 1, {{"a", 2}}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<MGMlsUser> pw = c.pw, kern = c.kern;
        for (auto &u : pw) u.disabled = 1;
        int matched = -1;
        EXPECT_EQ(merge_mulist(pw.data(), int(pw.size()), kern.data(), int(kern.size()), &matched), c.result);
        EXPECT_EQ(matched, c.matched);
        for (size_t i = 0; i < c.roles.size(); ++i) {
            EXPECT_STREQ(pw[i].name, c.roles[i].first);
            EXPECT_EQ(pw[i].role, c.roles[i].second);
            EXPECT_EQ(pw[i].gid * 10 + pw[i].disabled, 1001) << "the account keeps its gid and byte";
        }
    }
}

// Adding, modifying and deleting through the tool is covered by its round
// trip; here the account states, the refusals and the renamed SO.
MG_SANDBOX_TEST(MlsUserApi, AccountsKernelStoreAndPasswords) {
    sb.add_group("users", 100);
    sb.append_etc("passwd", "so1:x:1010:100::/h:/bin/sh\nalice:x:1001:100::/h:/bin/sh\nbob:x:1002:100::/h:/bin/sh\n"
                            "carol:x:1003:100::/h:/bin/sh\ndave:x:1004:100::/h:/bin/sh\n");
    sb.append_etc("shadow", "so1:$6$s$h:19000:0:99999:7:::\nalice:$6$s$h:19000:0:99999:7:::\n"
                            "bob:!!:19000:0:99999:7:::\ncarol:$6$s$h:19000:0:99999:7::1:\n");  // dave: none
    mgtest::LabelRoot root;
    int listed = 0;
    auto find = [&listed](int mode, const char *name) {  // the account in get_mls_user's list
        MGMlsUser *l = nullptr, found{};
        EXPECT_EQ(get_mls_user(&l, &listed, mode), 1);
        for (int i = 0; i < listed; ++i)
            if (strcmp(l[i].name, name) == 0) found = l[i];
        free(l);
        return found;
    };
    const std::pair<const char *, int> disabled[] = {{"so1", 0}, {"alice", 0}, {"bob", 1}, {"carol", 1}, {"dave", 0}};
    for (auto [name, d] : disabled) EXPECT_EQ(find(1, name).disabled, d) << name;
    EXPECT_EQ(listed, get_num_pw());
    EXPECT_STREQ(find(1, "dave").group, "users");

    MGMlsUser so = user(1010, "so1", 3, 0, 1, 0), alice = user(1001, "alice", 1, 2, 0, 7);
    alice.admin = 1;
    ASSERT_EQ(add_mls_user(&so, 1), 1);
    ASSERT_EQ(add_mls_user(&alice, 1), 1);
    EXPECT_EQ(get_login_retry("so1"), 5);
    std::vector<MGMlsUser> k = Root::kernel<MGMlsUser>(MGSIM_T_MU);
    ASSERT_EQ(k.size(), 2u);
    EXPECT_EQ(k[1].retry, 7);
    EXPECT_EQ(k[1].admin, 0) << "an MU keeps no administrator option";
    EXPECT_EQ(read_file(root.data("mls_user")), Root::bytes_of(k));
    EXPECT_EQ(read_file(root.data(".mls_user_bak")).size(), 1324u) << "the previous generation";

    const auto add = add_mls_user, mod = mod_mls_user;
    const struct { MGMlsUser rec; int (*call)(MGMlsUser *, int); int err; } refused[] = {
        {user(1001, "alice", 1), add, MG_ERR_ALREADY_MU}, {user(1002, "alice", 1), add, MG_ERR_UID_NAME},
        {user(0, "root", 1), add, MG_ERR_UID_ZERO}, {user(1002, "bob", 2, 0, 0), add, MG_ERR_NO_CATEGORY},
        {user(1002, "bob", 1, 0, 77), add, MG_ERR_NO_CATEGORY}, {user(1002, "bob", 4), add, MG_ERR_ROLE_VALUE},
        {user(4242, "ghost", 1), add, MG_ERR_NOT_LISTED}, {user(1002, "bob", 1), mod, MG_ERR_NOT_MU},
        {user(1010, "so1", 1), mod, MG_ERR_NO_SO_LEFT}};
    for (auto r : refused) EXPECT_EQ(MG_ERRNO_OF(r.call(&r.rec, 1)), r.err) << r.rec.name;
    EXPECT_EQ(Root::kernel<MGMlsUser>(MGSIM_T_MU).size(), 2u) << "refusals change nothing";
    MGMlsUser keep = user(1001, "alice", 1, 3, 0, -1);
    EXPECT_EQ(mod_mls_user(&keep, 1), 1);
    EXPECT_EQ(find(1, "alice").retry, 7) << "-1 keeps the limit";

    // The SO's account is renamed: the SO keeps its fields under the new name.
    std::string passwd = read_file("/etc/passwd");
    sb.write_etc("passwd", passwd.replace(passwd.find("so1:"), 4, "so9:"));
    EXPECT_EQ(find(1, "so9").role, 3);
    EXPECT_STREQ(Root::kernel<MGMlsUser>(MGSIM_T_MU)[0].name, "so9") << "the store is written from the kernel's list";
    // An empty kernel table is filled from the store in mode 0, not in mode 1.
    ASSERT_EQ(mgsim_reset(), 0);
    EXPECT_EQ(find(1, "alice").role, 0);
    EXPECT_EQ(find(0, "alice").role, 1);
    EXPECT_EQ(del_mls_user_all(0), 1);
    EXPECT_EQ(find(0, "alice").role, 0);
    EXPECT_EQ(find(0, "so9").role, 3);
    EXPECT_EQ(getmgpwdnam("alice"), nullptr);
    EXPECT_EQ(get_mls_user(nullptr, nullptr, 2), 0);
}

struct MlsStoreTest : mgtest::LabelStoreTest {
    std::vector<MGMlsUser> store() { return stored<MGMlsUser>("mls_user"); }
};

TEST_F(MlsStoreTest, RecordRewritesAndTheirRecoveryRules) {
    MGMlsUser a = user(1001, "alice", 1, 0, 0, 7), b = user(1002, "bob", 3);
    ASSERT_EQ(addmuent(&a), 1);
    EXPECT_EQ(store()[0].flags & MG_MU_ADDED, MG_MU_ADDED);
    EXPECT_EQ(get_login_retry("alice"), 5) << "the store layer's password entry always gets 5";
    ASSERT_EQ(addmuent(&b), 1);
    EXPECT_EQ(read_file(data(".mls_user_bak")), read_file(data("mls_user")));
    EXPECT_EQ(store()[0].retry, 7);
    a.flags = MG_MU_LOCKED, a.retry = 9;
    EXPECT_EQ(modmuent(&a), 1);
    EXPECT_EQ(is_locked_mgpwd("alice"), 1);
    EXPECT_EQ(get_login_retry("alice"), 9);
    EXPECT_EQ(resetmuent(), 1);
    ASSERT_EQ(store().size(), 1u) << "only SOs stay";

    // Modify and delete restore a lost store and ask to be called again; add does not restore.
    ASSERT_EQ(unlink(data("mls_user").c_str()), 0);
    EXPECT_EQ(delmuent(&b), 2);
    EXPECT_EQ(store().size(), 1u);
    ASSERT_EQ(unlink(data("mls_user").c_str()), 0);
    EXPECT_EQ(loadmuent(), -1) << "the backup is not consulted";
    EXPECT_EQ(addmuent(&a), 1);
    ASSERT_EQ(store().size(), 1u);
    EXPECT_EQ(store()[0].uid, 1001);

    // Whole records only (a kernel refusal is the shared rewrite's, covered with the categories).
    std::string two = bytes_of(std::vector<MGMlsUser>{a, b}) + std::string(52, 'x');
    for (size_t bytes : {1323, 2700}) {
        mgtest::write_file(data("mls_user"), two.substr(0, bytes), 0444);
        int n = 0;
        for (setmuent(); getmuent() != nullptr;) ++n;
        endmuent();
        EXPECT_EQ(n, bytes == 1323 ? 0 : 2) << bytes;
    }
    ASSERT_EQ(mgsim_set_absent(1), 0);
    EXPECT_EQ(delmuent(&a), 1) << "without the module only the file is written";
    EXPECT_EQ(store().size(), 1u);
}

TEST_F(MlsStoreTest, KilledRewriteLeavesOldOrNewStore) {
    std::vector<MGMlsUser> many;
    for (int i = 0; i < 1000; ++i) many.push_back(user(2000 + i, ("u" + std::to_string(i)).c_str(), 1));
    MGMlsUser extra = user(9999, "extra", 1, 0, 0, 5);
    extra.flags = MG_MU_ADDED;
    const std::string old_bytes = bytes_of(many), new_bytes = old_bytes + bytes_of(std::vector<MGMlsUser>{extra});
    mgtest::crash_points([&] { addmuent(&extra); }, [&] { put("mls_user", many); }, [&](long us) {
        const std::string now = read_file(data("mls_user"));
        EXPECT_TRUE(now == old_bytes || now == new_bytes) << "killed after " << us << " us: " << now.size();
        EXPECT_EQ(mgtest::perms(data("mls_user")), 0444u);
    }, 12);
}

TEST_F(MlsStoreTest, RacingRewritesNeverWaitAndKeepWholeRecords) {
    put("mls_user", std::vector<MGMlsUser>{user(1, "base", 3)});
    pid_t writer = mgtest::hold_in_child([&] { muf_open(data("mls_user").c_str(), O_RDWR); });
    EXPECT_TRUE(mgtest::busy([] { MGMlsUser u = user(2, "x", 1); return addmuent(&u); })) << "a held store fails at once";
    mgtest::kill_child(writer);
    EXPECT_TRUE(mgtest::race([](int who) {
        alarm(30);
        for (int i = 0; i < 20; ++i) {
            MGMlsUser u = user(100 + 100 * who + i, "r", 1);
            if (addmuent(&u) != 1 && errno != EAGAIN) return 1;
        }
        return 0;
    }));
    EXPECT_EQ(read_file(data("mls_user")).size() % sizeof(MGMlsUser), 0u);
    for (const MGMlsUser &u : store()) EXPECT_TRUE(u.uid == 1 || (u.uid >= 100 && u.uid < 220)) << u.uid;
}

}  // namespace
