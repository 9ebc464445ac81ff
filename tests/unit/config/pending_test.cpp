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

    void SetUp() override {
        ASSERT_EQ(0, mgsim_use_state((dir / "state").c_str()));
        ASSERT_EQ(0, mgsim_reset());
    }
    void TearDown() override { mgsim_use_state(nullptr); }

    // The ModulePending read from the file, for each value in turn.
    std::string read_pending(std::initializer_list<const char *> values) {
        const std::string path = dir / "mgopt.conf";
        std::string got;
        for (const char *value : values) {
            mgtest::write_file(path, std::string("SecureLogDir /l\nSecureLogSize 1\nSecureLogFileCount 1\n"
                                                 "ModulePending ") + value + "\n");
            MGOptionBuf opt;
            EXPECT_EQ(0, ReadMGOptionConfig(path.c_str(), &opt));
            got += opt.ModulePending;
        }
        return got;
    }
};

TEST_F(Pending, OnlyASuspendingVersionKeepsTheFilesSetting) {
    // The version rule itself is CheckModuleType's, tested with the module control.
    ASSERT_EQ(0, mgsim_set_version("1.2.10"));
    EXPECT_EQ("YYNXX", read_pending({"Y", "y", "N", "X", "yes"}));
    ASSERT_EQ(0, mgsim_set_version("2.0.7"));
    EXPECT_EQ("XX", read_pending({"Y", "N"}));
    ASSERT_EQ(0, mgsim_set_version("2.0.8"));
    ASSERT_EQ(0, mgsim_set_absent(1));
    EXPECT_EQ("X", read_pending({"Y"}));
}

}  // namespace
