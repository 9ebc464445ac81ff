// The policy mode file: reading into the mode block, checking blocks, the
// kernel's unsupported protections and the exported layout.
#include <mossgrove/config.h>
#include <mossgrove/kernel.h>

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>

#include "mgsim.h"
#include "testsupport.hpp"

namespace {

using Block = std::array<unsigned char, MG_RGCONF_SIZE>;

class Ips : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0, mgsim_use_state((dir / "state").c_str()));
        ASSERT_EQ(0, mgsim_reset());
    }
    void TearDown() override { mgsim_use_state(nullptr); }

    // Reads text as ips.conf from an all-unset block; *out gets what the reader printed.
    int read(const std::string &text, Block &block, std::string *out = nullptr, int request = MG_RGCONF_REQ_UNSET) {
        mgtest::write_file(path, text);
        block.fill(0);
        ::testing::internal::CaptureStdout();
        const int result = make_rgconf_from_file(request, block.data(), path.c_str());
        const std::string printed = ::testing::internal::GetCapturedStdout();
        if (out != nullptr) *out = printed;
        return result;
    }

    mgtest::TempDir dir;
    std::string path = dir / "ips.conf";
};

TEST_F(Ips, ReadingSettingsOneLineAtATime) {
    const struct { const char *text; int result, byte /* checked, -1 none */, value; const char *printed; } cases[] = {
        {"MACMODE = on # strict\n", 1, 0, 3, ""},
        {"MACMODE off\n", -1, -1, 0, "Invalid Value: MACMODE = off\n"},
        {"FOO on\nmacmode on\n", 0, 0, 128, ""},
        {"RESERVED on\n", -1, -1, 0, "Invalid Keyword\n"},
        {"", 0, 5, 128, ""},
        {"# c\n\n  DACMODE=warn\nSESLOG\ton\nKILLACL\n", 2, 3, 3, ""},
        {"FIFO\t=\t=warn\nCHROOT=on", 2, 18, 3, ""},
        {"ENCRYPT warn\n", -1, -1, 0, "Invalid Value: ENCRYPT = warn\n"},
    };
    Block block;
    std::string printed;
    for (const auto &c : cases) {
        EXPECT_EQ(read(c.text, block, &printed), c.result) << c.text;
        EXPECT_EQ(printed, c.printed) << c.text;
        EXPECT_EQ(c.byte < 0 ? c.value : block[c.byte], c.value) << c.text;
    }
    EXPECT_EQ(read("MACMODE on\n", block, &printed, 2), -1) << "no such request";
    // From the kernel's block: the simulator's fresh block, then the file's change.
    EXPECT_EQ(read("DACMODE on\n", block, nullptr, MG_RGCONF_REQ_KERNEL), 1);
    EXPECT_EQ(block[0] * 1000000 + block[1] * 1000 + block[11], 1003128);
}

TEST_F(Ips, VerifyingBlocksByteByByte) {
    // byte, value, the whole check, the check of the byte's part (mode 0-3, options 4-11, protections 12-18).
    const struct { int byte, value, whole, part; } cases[] = {
        {-1, 0, 1, 1}, {0, 128, 0, 0}, {0, 64, 0, 0}, {3, 1, 0, 0}, {4, 128, 0, 0}, {8, 64, 0, 0},
        {11, 1, 0, 1},  // the option check alone accepts warn for encryption
        {12, 1, 0, 0},  {18, 2, 0, 0}, {19, 2, 1, 1},
    };
    for (const auto &c : cases) {
        Block b{1, 3, 64, 128, 0, 128, 64, 1, 3, 0, 128, 128, 128, 0, 3, 1, 128, 3, 0, 99, 77, 77};
        if (c.byte >= 0) b[c.byte] = static_cast<unsigned char>(c.value);
        uint32_t w[5];
        memcpy(w, b.data(), sizeof w);
        EXPECT_EQ(verify_config(w[0], w[1], w[2], w[3], w[4]), c.whole) << c.byte;
        const int part = c.byte < 4 ? verify_config_mode(w[0]) : c.byte < 12 ? verify_config_opt(w[1], w[2])
                                                                               : verify_config_ips(w[3], w[4]);
        EXPECT_EQ(part, c.part) << c.byte;
    }
}

TEST_F(Ips, UnsupportedProtectionsFollowTheKernel) {
    unsigned char conf[22], ips[8] = {3, 3, 3, 3, 3, 3, 3, 3};
    ASSERT_EQ(0, mgsim_get_conf(conf));
    conf[13] = conf[18] = conf[19] = 128;  // the reserved byte 19 is left alone
    ASSERT_EQ(0, mgsim_set_conf(conf));
    EXPECT_EQ(adjust_not_supported_ips(ips), 1);
    EXPECT_EQ(std::string(ips, ips + 8), std::string("\3\200\3\3\3\3\200\3", 8));
}

TEST_F(Ips, ExportLeavesOutUnsetOptionalLinesAndReadsBack) {
    Block b{128, 1, 3, 128, 3, 128, 1, 0, 3, 0, 128, 128, 0, 3, 128, 1, 0, 3, 0, 0, 0, 0};
    ASSERT_EQ(export_rgconf_to_file(b.data(), path.c_str()), 0);
    const std::string text = mgtest::read_file(path);
    EXPECT_NE(text.find("    MACMODE  = Invalid Value\t# MAC Operation Mode : on/warn\n"
                        "    DACMODE  = warn\t# DAC Operation Mode : on/warn\n"), std::string::npos) << text;
    for (const char *absent : {"SERVICE", "SESLOG", "MGLOGIN", "ENCRYPT", "MODULE"})
        EXPECT_EQ(text.find(absent), std::string::npos) << absent;
    EXPECT_EQ(mgtest::file_mode(path), 0444u);
    b[0] = 3;
    ASSERT_EQ(export_rgconf_to_file(b.data(), path.c_str()), 0);
    Block back;
    EXPECT_EQ(read(mgtest::read_file(path), back), 14);
    EXPECT_EQ(0, memcmp(back.data(), b.data(), 19));
}

}  // namespace
