// Shared set-up of the label store tests: a scratch installation root named
// through MOSSGROVE_EVMG's test hook, and a fresh simulated kernel.
#pragma once

#include <mossgrove/labels.h>
#include <mossgrove/stores.h>
#include "common/paths.hpp"
#include "mgsim.h"
#include "testsupport.hpp"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <string>
#include <vector>

namespace mgtest {

class LabelStoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(mkdir((dir_ / "data").c_str(), 0755), 0);
        ASSERT_EQ(mkdir((dir_ / "etc").c_str(), 0755), 0);
        write_file(dir_ / "evmg", "MG_ROOT=" + dir_.path() + "/\n");
        mg::paths::override_for_tests((dir_ / "evmg").c_str(), nullptr, nullptr);
        ASSERT_EQ(mgsim_use_state((dir_ / "state").c_str()), 0);
        ASSERT_EQ(mgsim_reset(), 0);
        ASSERT_EQ(chk_mgrootdir(), 1);
        set_dbpath();
    }
    void TearDown() override {
        mgsim_use_state(nullptr);
        mg::paths::override_for_tests(nullptr, nullptr, nullptr);
    }
    std::string data(const std::string &name) const { return dir_ / ("data/" + name); }

    // Records of a store file or a kernel table.
    template <class T> static std::vector<T> records_of(const std::string &bytes) {
        std::vector<T> out(bytes.size() / sizeof(T));
        if (!out.empty()) memcpy(out.data(), bytes.data(), out.size() * sizeof(T));
        return out;
    }
    template <class T> static std::string bytes_of(const std::vector<T> &recs) {
        return std::string(reinterpret_cast<const char *>(recs.data()), recs.size() * sizeof(T));
    }
    template <class T> static std::vector<T> kernel(int table) {
        std::vector<T> out(8192);
        int n = mgsim_read_table(table, out.data(), static_cast<int>(out.size()));
        out.resize(n < 0 ? 0 : static_cast<size_t>(n));
        return out;
    }

    TempDir dir_;
};

}  // namespace mgtest
