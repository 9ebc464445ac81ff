#include <mossgrove/common.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

class TokSlots : public ::testing::Test {
protected:
    void SetUp() override { init_tokslot(); }
    void TearDown() override { init_tokslot(); }
};

// All fields of a split kept in one slot, until NULL.
std::vector<std::string> all_fields(char *str, int ch, int slot) {
    std::vector<std::string> out;
    for (char *f = xsplit_at(str, ch, slot); f != nullptr; f = xsplit_at(nullptr, ch, slot)) out.push_back(f);
    return out;
}

}  // namespace

TEST_F(TokSlots, SplitKeepsEmptyAndTrailingFieldsAndNestsBySlot) {
    char line[] = "a,,b,";
    int slot = get_tokslot();
    ASSERT_GE(slot, 0);
    EXPECT_EQ(all_fields(line, ',', slot), (std::vector<std::string>{"a", "", "b", ""}));
    EXPECT_EQ(xsplit_at(nullptr, ',', slot), nullptr) << "stays finished";
    char nul_sep[] = "a,b";
    EXPECT_EQ(all_fields(nul_sep, '\0', slot), std::vector<std::string>{"a,b"}) << "NUL never separates";

    char kv[] = "k:v:w";
    EXPECT_STREQ(split_at(kv, ':'), "v:w");
    EXPECT_STREQ(kv, "k");
    EXPECT_EQ(split_at(kv, '\0'), nullptr);
    EXPECT_EQ(count_char("a::b", ':'), 2);
    EXPECT_EQ(count_char(nullptr, ':'), -1);

    char nested[] = "a=1,b=2;c=3";
    int inner = get_tokslot();
    std::vector<std::string> seen;
    for (char *group = xsplit_at(nested, ';', slot); group; group = xsplit_at(nullptr, ';', slot))
        for (char *pair = xsplit_at(group, ',', inner); pair; pair = xsplit_at(nullptr, ',', inner))
            seen.push_back(pair);
    EXPECT_EQ(seen, (std::vector<std::string>{"a=1", "b=2", "c=3"}));
}

TEST_F(TokSlots, EleventhSlotIsRefusedAndReturnsAreReused) {
    for (int i = 0; i < MG_TOKSLOT_COUNT; ++i) EXPECT_EQ(get_tokslot(), i);
    EXPECT_EQ(get_tokslot(), -1);
    char line[] = "x:y";
    char *fields[2] = {};
    EXPECT_EQ(xparse_string(line, ':', fields, 2), 0) << "no slot free";
    EXPECT_STREQ(line, "x:y");
    return_tokslot(3);
    return_tokslot(MG_TOKSLOT_COUNT);  // out of range: ignored
    return_tokslot(-1);
    EXPECT_EQ(get_tokslot(), 3);
    EXPECT_EQ(get_tokslot(), -1);
    EXPECT_EQ(xsplit_at(line, ':', MG_TOKSLOT_COUNT), nullptr);
}

TEST_F(TokSlots, ParseStringCountsFieldsAndGivesSlotBack) {
    char short_line[] = "a:b";
    char keep[] = "untouched";
    char *g[4] = {nullptr, nullptr, keep, keep};
    EXPECT_EQ(xparse_string(short_line, ':', g, 4), -1);
    EXPECT_STREQ(g[1], "b");
    EXPECT_EQ(g[2], keep) << "unused entries are left alone";

    char long_line[] = "a:b:c";
    char *h[2] = {};
    EXPECT_EQ(xparse_string(long_line, ':', h, 2), 1);
    EXPECT_STREQ(h[1], "b") << "text after the n-th field is ignored";

    for (int i = 0; i < MG_TOKSLOT_COUNT; ++i) EXPECT_EQ(get_tokslot(), i) << "every slot was given back";
}

// A token that runs to the end of the string leaves the continuation where it
// was, so continuing repeats it.
TEST(GetToken, ContinuationStaysAtTokenThatEndsTheString) {
    char line[] = "key value";
    EXPECT_STREQ(get_token(line), "key");
    EXPECT_STREQ(get_token(nullptr), "value");
    EXPECT_STREQ(get_token(nullptr), "value");

    std::string longer = std::string(1500, 'k') + " v\n";
    EXPECT_EQ(strlen(get_token(longer.data())), 1023u) << "cut";
    EXPECT_STREQ(get_token(nullptr), "v") << "the rest of the long token is skipped";
}
