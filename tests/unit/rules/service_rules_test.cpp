// Service restriction rules: lazy load, all-or-nothing load, export.
#include <unistd.h>

#include "rules_fixture.hpp"

namespace {

const char *kUserFile =
    "# users\n[ALSVC]\n500:user1:2\ntelnet:1:0:10.0.0.1\n\n# between\nftp:0:0:0.0.0.0\n[/ALSVC]\n"
    "[ALSVC]\n  501:user2:1  \r\nsshd:3:4:255.255.255.255\n[/ALSVC]\n";

class ServiceRules : public rulestest::RootTest {};

// The file loads into an empty kernel once, on first use, and exports in its canonical form.
TEST_F(ServiceRules, FileLoadsLazilyAndExportsBackCanonical) {
    put("alsvc_user", kUserFile);
    subs();
    EXPECT_EQ(Get_Alsvc_UCnt(500), 2);
    EXPECT_EQ(Get_Alsvc_UHdr_Cnt(), 2);
    EXPECT_EQ(times(subs(), 69), 2) << "the set is loaded once";
    const std::string out = dir / "export";
    ASSERT_EQ(export_rule_to_file(0, out.c_str()), 0);
    EXPECT_EQ(mgtest::read_file(out),
              "#\n# Service Restriction User Rules\n#\n\n[ALSVC]\n500:user1:2\ntelnet:1:0:10.0.0.1\n"
              "ftp:0:0:0.0.0.0\n[/ALSVC]\n[ALSVC]\n501:user2:1\nsshd:3:4:255.255.255.255\n[/ALSVC]\n");
    EXPECT_EQ(mgtest::file_mode(out), 0444u);
}

TEST_F(ServiceRules, MalformedFileLeavesTheSetEmpty) {
    const std::string good = "[ALSVC]\n1:a:1\nx:1:1:1.2.3.4\n[/ALSVC]\n";
    const char *bad[] = {
        "[ALSVC]\n2:b:1\ny:1:1:1.2.3.4\n",            // block not closed
        "[ALSVC]\n2:b:1\ny:1:1:1.2.3.4:5\n[/ALSVC]\n",  // rule with five fields
        "[ALSVC]\n2:b:2\ny:1:1:1.2.3.4\n[/ALSVC]\n",    // fewer rules than counted
        "[ALSVC]\n2:b:1\ny:x:1:1.2.3.4\n[/ALSVC]\n", "[RULE]\n",
    };
    for (const char *tail : bad) {
        put("alsvc_group", good + tail);
        subs();
        EXPECT_EQ(load_rule_from_file(1), -1) << tail;
        EXPECT_EQ(mgsim_count(MGSIM_T_ALSVC_GROUP), 0) << tail;
        // Nothing reached the kernel but the clearing call, or the good block and then the clearing call.
        const std::vector<long> s = subs();
        EXPECT_TRUE(s.empty() || (times(s, 70) > 0 && s.back() == 74)) << tail;
    }
    // A missing file is an empty set; a malformed address is kept as all ones.
    unlink(file("alsvc_group").c_str());
    EXPECT_EQ(load_rule_from_file(1), 0);
    put("alsvc_def", "[ALSVC]\n0:default:1\nany:0:0:bogus\n[/ALSVC]\n");
    EXPECT_EQ(Get_Alsvc_DHdr_Cnt(), 1);
    alsvc_hdr hdr{1, 0, ""};
    alsvc_rule rule;
    ASSERT_EQ(Get_Alsvc_DRule(&hdr, &rule), 1);
    EXPECT_EQ(rule.ipaddr, 0xffffffffu);
}

TEST_F(ServiceRules, BadArgumentsAndACountingFault) {
    alsvc_hdr neg{1, -1, ""};
    alsvc_rule r{};
    EXPECT_EQ(get_alsvc_rule(0, &neg, &r), -1);

    // A kernel that cannot count its headers is taken as loaded: no reload.
    put("alsvc_user", kUserFile);
    ASSERT_EQ(0, mgsim_set_fail("75:5"));
    subs();
    EXPECT_EQ(check_kernel_data(0), 0);
    EXPECT_EQ(times(subs(), 69), 0);
    EXPECT_EQ(export_rule_to_file(0, nullptr), -1);
    EXPECT_EQ(get("alsvc_user"), kUserFile);

    ASSERT_EQ(0, mgsim_set_fail(""));  // an empty set exports the comment lines only
    ASSERT_EQ(export_rule_to_file(2, nullptr), 0);
    EXPECT_EQ(get("alsvc_def"), "#\n# Service Restriction Default Rules\n#\n\n");
}

}  // namespace
