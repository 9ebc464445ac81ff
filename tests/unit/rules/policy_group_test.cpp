// Policy groups: numbering, the file format and the rewrite with a backup.
#include "rules_fixture.hpp"

namespace {

using rulestest::code;

class PolicyGroups : public rulestest::RootTest {
protected:
    std::string list() {
        polgrp *items = nullptr;
        int count = 0;
        if (get_all_polgrp(&items, &count) != 0) return "error " + std::to_string(errno);
        std::string s;
        for (int i = 0; i < count; ++i) s += std::to_string(items[i].polgrp_id) + "=" + items[i].name + ";";
        free(items);
        return s;
    }
};

TEST_F(PolicyGroups, LowestFreeNumberAndRewrites) {
    EXPECT_EQ(add_polgrp("first"), 1);
    put("policy_group", "# groups\n1:a\n2:b\n\n4:web:front\n");
    EXPECT_EQ(add_polgrp("c"), 3);
    EXPECT_EQ(del_polgrp(1), 0);
    EXPECT_EQ(add_polgrp("a name longer than thirty-one characters"), 1);
    EXPECT_EQ(mod_polgrp(2, "B"), 0);
    EXPECT_EQ(list(), "2=B;4=web:front;3=c;1=a name longer than thirty-one c;");
    EXPECT_EQ(get("policy_group"), "2:B\n4:web:front\n3:c\n1:a name longer than thirty-one c\n");
    EXPECT_EQ(get(".policy_group_bak"), "2:b\n4:web:front\n3:c\n1:a name longer than thirty-one c\n");
    EXPECT_EQ(mgtest::file_mode(file("policy_group")), 0444u);
    EXPECT_EQ(code(mod_polgrp(9, "x")), MG_ERR_POLGRP_NOENT);
    EXPECT_EQ(code(save_polgrp(nullptr, 1)), EINVAL);
    EXPECT_EQ(save_polgrp(nullptr, 0), 0);
    EXPECT_EQ(get("policy_group"), "");
}

TEST_F(PolicyGroups, FormatErrorsAndLimits) {
    for (const char *bad : {"7:\n", "x:a\n", "7\n", ":a\n"}) {
        put("policy_group", std::string("1:a\n") + bad);
        EXPECT_EQ(list(), "error 10073") << bad;
    }
    std::string all;
    for (int i = 1; i <= 512; ++i) all += std::to_string(i) + ":g\n";
    put("policy_group", all + "not read\n");
    EXPECT_EQ(code(add_polgrp("full")), MG_ERR_RULE_FULL);
    polgrp odd[2] = {{0, "zero"}, {600, "high"}};
    EXPECT_EQ(create_polgrp_id(odd, 2), 1) << "numbers outside 1..512 take no place";
}

}  // namespace
