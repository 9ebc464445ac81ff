// A scratch root with a data directory, an "/etc/.evmg" naming it, and a fresh
// simulated kernel (module stopped) whose calls are logged.
#pragma once

#include <mossgrove/kernel.h>
#include <mossgrove/rules.h>
#include <mossgrove/stores.h>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "common/paths.hpp"
#include "mgsim.h"
#include "testsupport.hpp"

namespace rulestest {

// 0 on success, else the error code the call left.
inline int code(int result) { return result >= 0 ? 0 : errno; }

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
    void TearDown() override { mgsim_use_state(nullptr), mg::paths::override_for_tests(nullptr, nullptr, nullptr); }
    // Sub-commands made since the last call (probes left out).
    std::vector<long> subs() {
        std::vector<mgsim_call> calls(1 << 16);
        const int n = std::min(mgsim_read_log(log.c_str(), calls.data(), 1 << 16), 1 << 16);
        std::vector<long> out;
        for (int i = seen_; i < n; ++i)
            if (calls[i].sub != MGSIM_PROBE) out.push_back(calls[i].sub);
        seen_ = std::max(n, 0);
        return out;
    }
    static long times(const std::vector<long> &s, long sub) { return std::count(s.begin(), s.end(), sub); }
    std::string file(const std::string &name) const { return data + "/" + name; }
    void put(const std::string &name, const std::string &text) { mgtest::write_file(file(name), text); }
    std::string get(const std::string &name) const { return mgtest::read_file(file(name)); }

    mgtest::TempDir dir;
    std::string data = dir / "data";
    std::string log = dir / "calls.log";
    int seen_ = 0;
};

}  // namespace rulestest
