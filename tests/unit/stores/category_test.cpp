// Categories and roles against the simulated kernel: defaults, id allocation,
// the tree limits, subtree moves in the store and the store's recovery rules.
#include "labels_fixture.hpp"

namespace {

using mgtest::read_file;

MGCategory cat(int id, int depth, int role, const char *name, std::vector<int> path) {
    MGCategory c{};
    c.id = id, c.depth = static_cast<unsigned char>(depth), c.role = static_cast<unsigned char>(role);
    strncpy(c.name, name, sizeof c.name - 1);
    for (size_t i = 0; i < path.size(); ++i) c.path[i] = static_cast<unsigned char>(path[i]);
    return c;
}
const std::vector<MGCategory> kDefaults = {cat(1, 0, 3, "ROOT", {1}), cat(2, 1, 2, "System Admins", {1, 2})};

struct CategoryTest : mgtest::LabelStoreTest {
    std::vector<MGCategory> store() { return stored<MGCategory>("mls_cat"); }
    // A child under parent p (its depth and path) asked for through the API.
    int add_under(MGCategory c, const char *name, MGCategory *out = nullptr) {
        strncpy(c.name, name, sizeof c.name - 1);
        int r = add_mls_cat(&c, 0);
        if (out != nullptr) *out = c;
        return r;
    }
};

TEST_F(CategoryTest, FirstReadInstallsTheDefaultsAndValuesAreChecked) {
    MGCategory *list = nullptr;
    int n = 0;
    ASSERT_EQ(get_mls_cat(&list, &n, 0), 1);
    EXPECT_EQ(bytes_of(std::vector<MGCategory>(list, list + n)), bytes_of(kDefaults));
    EXPECT_EQ(read_file(data("mls_cat")), bytes_of(kDefaults));
    free(list);
    // A damaged store is not replaced by the defaults behind the caller's back.
    ASSERT_EQ(mgsim_reset(), 0);
    mgtest::write_file(data("mls_cat"), "short", 0444);
    EXPECT_EQ(MG_ERRNO_OF(get_mls_cat(&list, &n, 1)), MG_ERR_CAT_LOAD);

    const struct { int (*check)(int); int value, result, err; } checks[] = {  // one per family, and the bound
        {isvalid_cid, 128, 0, MG_ERR_CATEGORY_RANGE}, {is_valid_cid, 128, -1, MG_ERR_CID_VALUE}, {is_valid_cid, 127, 1, 0}};
    for (const auto &c : checks) {
        errno = 0;
        EXPECT_EQ(c.check(c.value), c.result) << c.value;
        EXPECT_EQ(errno, c.err) << c.value;
    }
}

// Ids 1 to 3 in order are covered by the tool's round trip; here the limits.
TEST_F(CategoryTest, TreeDepthIdsAndDefaultsAreGuarded) {
    MGCategory child, deep = cat(0, 14, 1, "", {1, 2, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3});
    ASSERT_EQ(add_under(kDefaults[1], "ops", &child), 1);
    EXPECT_EQ(store().size(), 3u) << "the store follows the kernel";
    EXPECT_EQ(add_under(deep, "d15", &child), 1);
    EXPECT_EQ(child.depth, 15);
    EXPECT_EQ(MG_ERRNO_OF(add_under(child, "d16")), MG_ERR_TOO_DEEP);
    EXPECT_EQ(MG_ERRNO_OF(add_under(cat(0, 1, 1, "", {1, 99}), "x")), MG_ERR_NO_CATEGORY);
    for (int id : {1, 2, 77}) {
        MGCategory c = cat(id, 1, 1, "", {1, id});
        EXPECT_EQ(MG_ERRNO_OF(del_mls_cat(&c, 0)), id == 77 ? MG_ERR_NO_CATEGORY : MG_ERR_CAT_DEFAULT) << id;
    }
    MGCategory one = cat(3, 0, 0, "", {});
    ASSERT_EQ(get_mls_cat_one(&one, 1), 1);
    EXPECT_STREQ(one.name, "ops");
    EXPECT_EQ(del_mls_cat(&one, 1), 1);
    EXPECT_EQ(MG_ERRNO_OF(is_exist_cid(3, 1)), MG_ERR_NO_CATEGORY);
    EXPECT_EQ(create_cid(1), 3) << "a freed id is handed out again";

    std::vector<MGCategory> all = kDefaults;  // every id from 3 to 127 taken
    for (int id = 3; id <= 127; ++id) all.push_back(cat(id, 2, 1, "c", {1, 2, id}));
    ASSERT_EQ(upload_ctdb(all.data(), static_cast<int>(all.size())), 1);
    EXPECT_EQ(create_cid(1), 0);
    EXPECT_EQ(MG_ERRNO_OF(add_under(kDefaults[1], "full")), MG_ERR_NO_FREE_CID);
}

TEST_F(CategoryTest, MovingASubtreeRewritesPathsDepthsAndRoles) {
    // 1 ROOT(SO) ─ 2 Admins(SA) ─ 3 a ─ 4 b ;  1 ─ 5 c(SA) ; move 3 under 1 (role 3), renamed.
    MGCategory a = cat(3, 2, 2, "a", {1, 2, 3}), c = cat(5, 1, 2, "c", {1, 5}), root = kDefaults[0];
    put("mls_cat", std::vector<MGCategory>{root, kDefaults[1], a, cat(4, 3, 2, "b", {1, 2, 3, 4}), c});
    ASSERT_EQ(modcatent(1, "a2", &a, &root), 1);
    EXPECT_EQ(a.depth, 1);
    EXPECT_EQ(read_file(data("mls_cat")), bytes_of(std::vector<MGCategory>{root, kDefaults[1], cat(3, 1, MG_CAT_ROLE_MU, "a2",
              {1, 3}), cat(4, 2, MG_CAT_ROLE_MU, "b", {1, 3, 4}), c})) << "c keeps its role: outside the subtree";
    EXPECT_EQ(kernel<MGCategory>(MGSIM_T_CAT).size(), 5u);
    EXPECT_EQ(read_file(data(".mls_cat_bak")), read_file(data("mls_cat")));

    // Under a parent of role 2 the subtree takes role 2; a rename alone moves nothing.
    ASSERT_EQ(modcatent(5, nullptr, &a, &c), 1);
    std::vector<MGCategory> s = store();
    EXPECT_EQ(s[3].role, MG_CAT_ROLE_SA);
    EXPECT_EQ(std::vector<int>(s[3].path, s[3].path + 4), (std::vector<int>{1, 5, 3, 4}));
    ASSERT_EQ(modcatent(-1, "b2", &s[3], nullptr), 1);
    EXPECT_STREQ(store()[3].name, "b2");

    // A kernel refusal leaves the store as it was.
    const std::string before = read_file(data("mls_cat"));
    ASSERT_EQ(mgsim_set_fail("21:22"), 0);
    EXPECT_EQ(modcatent(-1, "b3", &s[3], nullptr), -1);
    EXPECT_EQ(read_file(data("mls_cat")), before);
}

TEST_F(CategoryTest, MissingOrShortStoreRecovery) {
    MGCategory extra = cat(9, 1, 1, "nine", {1, 9});
    // Modify and delete restore a lost store from the backup and ask to be called again.
    mgtest::write_file(data(".mls_cat_bak"), bytes_of(kDefaults), 0444);
    EXPECT_EQ(delcatent(&kDefaults[1]), 2);
    EXPECT_EQ(store().size(), 2u);
    EXPECT_EQ(delcatent(&kDefaults[1]), 1);
    EXPECT_EQ(store().size(), 1u);
    // Add never restores: a lost store comes back holding the new record alone.
    ASSERT_EQ(unlink(data("mls_cat").c_str()), 0);
    EXPECT_EQ(addcatent(&extra), 1);
    ASSERT_EQ(store().size(), 1u);
    EXPECT_EQ(store()[0].id, 9);
    // The enumeration restores; loading does not.
    ASSERT_EQ(unlink(data("mls_cat").c_str()), 0);
    EXPECT_EQ(loadcatent(), -1);
    EXPECT_EQ(createcid(), 3);
    EXPECT_TRUE(mgtest::exists(data("mls_cat")));
    ASSERT_NE(getcatnam("nine"), nullptr);
    const struct { int cid, role; } fixed[] = {{-1, -1}, {0, 1}, {1, 3}, {2, 2}, {9, 1}, {50, -1}};
    for (const auto &f : fixed) EXPECT_EQ(get_cat_role(f.cid), f.role) << f.cid;

    // A store shorter than one record is reset to the defaults and the move fails.
    mgtest::write_file(data("mls_cat"), "x", 0444);
    EXPECT_EQ(modcatent(-1, "y", &extra, nullptr), -1);
    EXPECT_EQ(store().size(), 2u);
    EXPECT_EQ(mgtest::file_mode(data("mls_cat")), 0444u);
    EXPECT_EQ(loadcatent(), 0);
    EXPECT_EQ(kernel<MGCategory>(MGSIM_T_CAT).size(), 2u);
}

}  // namespace
