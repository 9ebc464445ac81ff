// A scratch installation root with a data directory, an "/etc/.evmg" that
// names it, and a fresh simulated kernel (module stopped) whose calls are
// logged.
#pragma once

#include <mossgrove/kernel.h>
#include <mossgrove/rules.h>
#include <mossgrove/stores.h>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <string>
#include <vector>

#include "common/paths.hpp"
#include "mgsim.h"
#include "testsupport.hpp"

namespace rulestest {

class RootTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(mkdir(data.c_str(), 0755), 0);
        mgtest::write_file(dir / "evmg", "MG_ROOT=" + dir.path() + "/\n");
        mg::paths::override_for_tests((dir / "evmg").c_str(), nullptr, nullptr);
        ASSERT_EQ(0, mgsim_use_state((dir / "state").c_str()));
        ASSERT_EQ(0, mgsim_reset());
        ASSERT_EQ(0, mgsim_set_log(log.c_str()));
    }
    void TearDown() override {
        mgsim_use_state(nullptr);
        mg::paths::override_for_tests(nullptr, nullptr, nullptr);
    }
    // Sub-commands made since the last call (probes left out).
    std::vector<long> subs() {
        std::vector<mgsim_call> calls(1 << 16);
        int n = mgsim_read_log(log.c_str(), calls.data(), static_cast<int>(calls.size()));
        std::vector<long> out;
        for (int i = seen_; i < std::min(n, static_cast<int>(calls.size())); ++i)
            if (calls[i].sub != MGSIM_PROBE) out.push_back(calls[i].sub);
        seen_ = std::max(n, 0);
        return out;
    }
    static bool made(const std::vector<long> &s, long sub) { return std::find(s.begin(), s.end(), sub) != s.end(); }
    std::string file(const std::string &name) const { return data + "/" + name; }

    mgtest::TempDir dir;
    std::string data = dir / "data";
    std::string log = dir / "calls.log";
    int seen_ = 0;
};

}  // namespace rulestest
