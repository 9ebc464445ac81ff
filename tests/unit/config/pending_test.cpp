// ModulePending against the simulated kernel module: only a loaded module
// whose version ends in an even number of 6 or more keeps the file's setting.
#include <mossgrove/config.h>

#include <gtest/gtest.h>

#include <string>

#include "mgsim.h"
#include "testsupport.hpp"

namespace {

class Pending : public ::testing::Test {
protected:
    mgtest::TempDir dir;
    std::string path = dir / "mgopt.conf";

    void SetUp() override {
        ASSERT_EQ(0, mgsim_use_state((dir / "state").c_str()));
        ASSERT_EQ(0, mgsim_reset());
    }
    void TearDown() override { mgsim_use_state(nullptr); }

    char read_pending(const std::string &value) {
        mgtest::write_file(path, "SecureLogDir /l\nSecureLogSize 1\nSecureLogFileCount 1\n"
                                 "ModulePending " + value + "\n");
        MGOptionBuf opt;
        EXPECT_EQ(0, ReadMGOptionConfig(path.c_str(), &opt));
        return opt.ModulePending;
    }
};

TEST_F(Pending, SuspendingVersionKeepsTheFilesSetting) {
    for (const char *version : {"2.0.6", "3.1.8", "1.2.10"}) {
        ASSERT_EQ(0, mgsim_set_version(version));
        EXPECT_EQ('Y', read_pending("Y")) << version;
        EXPECT_EQ('Y', read_pending("y")) << version;
        EXPECT_EQ('N', read_pending("N")) << version;
        EXPECT_EQ('X', read_pending("X")) << version;
        EXPECT_EQ('X', read_pending("yes")) << version;
    }
}

TEST_F(Pending, OtherVersionsOrNoModuleReadAsUnsupported) {
    for (const char *version : {"2.0.7", "2.0.4", "2.0.5", "200"}) {
        ASSERT_EQ(0, mgsim_set_version(version));
        EXPECT_EQ('X', read_pending("Y")) << version;
        EXPECT_EQ('X', read_pending("N")) << version;
    }
    ASSERT_EQ(0, mgsim_set_version("2.0.8"));
    ASSERT_EQ(0, mgsim_set_fail("1:5"));  // the information call fails
    EXPECT_EQ('X', read_pending("Y"));
    ASSERT_EQ(0, mgsim_set_fail(""));
    ASSERT_EQ(0, mgsim_set_absent(1));
    EXPECT_EQ('X', read_pending("Y"));
}

}  // namespace
