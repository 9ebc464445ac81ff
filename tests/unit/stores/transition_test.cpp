// The root-to-user transition list: its 20-entry limit, record rewrites, the
// recovery rules of a lost store and kernel refusals.
#include "labels_fixture.hpp"

namespace {

using mgtest::read_file;

struct TransitionTest : mgtest::LabelStoreTest {
    void SetUp() override { ASSERT_EQ(set_supath(), 1); }
    std::vector<MGSuEntry> store() { return stored<MGSuEntry>("su_file"); }
};

TEST_F(TransitionTest, TwentyEntriesAtMost) {
    std::vector<MGSuEntry> list;
    for (int i = 0; i < 19; ++i) list.push_back({1000 + i, i});
    put("su_file", list);
    MGSuEntry twentieth{2000, 7}, one_more{2001, 8};
    EXPECT_EQ(addsuent(&twentieth), 1);
    EXPECT_EQ(kernel<MGSuEntry>(MGSIM_T_SU).size(), 20u);
    const std::string full = read_file(data("su_file"));
    EXPECT_EQ(MG_ERRNO_OF(addsuent(&one_more)), MG_ERR_SU_FULL);
    EXPECT_EQ(read_file(data("su_file")), full);
    EXPECT_EQ(MG_ERRNO_OF(addsuent(nullptr)), MG_ERR_SU_NORECORD);
}

TEST_F(TransitionTest, RewritesFollowTheirRules) {
    put("su_file", std::vector<MGSuEntry>{{1, 10}, {2, 20}, {1, 11}, {3, 30}});
    const int unknown[] = {99}, two[] = {1, 3};
    EXPECT_EQ(delsuuid(unknown, 1), 1);
    EXPECT_EQ(store().size(), 4u);
    MGSuEntry mod{1, 77};
    EXPECT_EQ(modsuent(&mod), 1);
    EXPECT_EQ(store()[2].word, 77) << "every record of the uid";
    EXPECT_EQ(delsuuid(two, 2), 1);
    ASSERT_EQ(store().size(), 1u);
    EXPECT_EQ(delsuent(&store()[0]), 1);
    EXPECT_EQ(store().size(), 0u);
    EXPECT_EQ(modsuent(&mod), 1) << "an empty store receives the record alone";
    EXPECT_EQ(store().size(), 1u);
    EXPECT_EQ(read_file(data(".su_file_bak")), read_file(data("su_file")));

    ASSERT_EQ(mgsim_set_fail("28:1"), 0);  // the kernel refuses the list
    EXPECT_EQ(MG_ERRNO_OF(delsuent(&mod)), MG_ERR_SU_REFUSED);
    EXPECT_EQ(store().size(), 1u);
    ASSERT_EQ(mgsim_set_fail(""), 0);
    EXPECT_EQ(delsuall(), 1);
    EXPECT_TRUE(read_file(data("su_file")).empty() && kernel<MGSuEntry>(MGSIM_T_SU).empty());
}

// Only add goes on without the store; the enumeration's restore is the shared
// cursor's, covered with the categories.
TEST_F(TransitionTest, LostStoreRecovery) {
    put("su_file", std::vector<MGSuEntry>{{5, 50}, {6, 60}});
    ASSERT_EQ(loadsuent(), 0);
    EXPECT_EQ(kernel<MGSuEntry>(MGSIM_T_SU).size(), 2u);
    EXPECT_EQ(read_file(data(".su_file_bak")).size(), 16u);
    ASSERT_EQ(unlink(data("su_file").c_str()), 0);
    MGSuEntry e{5, 0};
    EXPECT_EQ(modsuent(&e), -1);
    EXPECT_EQ(delsuent(&e), -1);
    EXPECT_EQ(loadsuent(), -1);
    EXPECT_FALSE(mgtest::exists(data("su_file"))) << "none of them restores";
    EXPECT_EQ(addsuent(&e), 1);
    EXPECT_EQ(store().size(), 1u) << "add recreates the store with the record alone";
    mgtest::write_file(data("su_file"), "1234567", 0444);
    EXPECT_EQ(MG_ERRNO_OF(loadsuent()), MG_ERR_SU_EMPTY);
}

}  // namespace
