// Fixture of the simulator tests: a scratch state file and call log per test.
#pragma once

#include "mgsim.h"
#include "testsupport.hpp"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace simtest {

// Result of one call of system call 223: the value, and errno when it is -1.
struct Answer {
    long value;
    int err;
    bool operator==(const Answer &) const = default;
};

inline std::ostream &operator<<(std::ostream &os, const Answer &a) {
    return os << "{" << a.value << ", errno " << a.err << "}";
}

inline Answer k(long sub, const void *ptr = nullptr, long arg2 = 0, long len = 0, long flag = 0) {
    errno = 0;
    long r = syscall(223, sub, reinterpret_cast<long>(ptr), arg2, len, flag);
    return {r, r == -1 ? errno : 0};
}

inline long addr(const void *p) { return reinterpret_cast<long>(p); }

inline Answer ok(long v = 0) { return {v, 0}; }
inline Answer err(int e) { return {-1, e}; }

template <class T>
T zeroed() {
    T v;
    memset(&v, 0, sizeof v);
    return v;
}

class SimTest : public ::testing::Test {
protected:
    void SetUp() override {
        state_ = dir_ / "state";
        log_ = dir_ / "calls.log";
        unsetenv("MGSIM_FAIL");
        unsetenv("MGSIM_LOG");
        unsetenv("MGSIM_ABSENT");
        ASSERT_EQ(0, mgsim_use_state(state_.c_str()));
        ASSERT_EQ(0, mgsim_reset());
        ASSERT_EQ(0, mgsim_set_log(log_.c_str()));
    }
    void TearDown() override { mgsim_use_state(nullptr); }

    std::vector<mgsim_call> calls() {
        std::vector<mgsim_call> v(4096);
        int n = mgsim_read_log(log_.c_str(), v.data(), static_cast<int>(v.size()));
        v.resize(n < 0 ? 0 : std::min<size_t>(static_cast<size_t>(n), v.size()));
        return v;
    }

    mgtest::TempDir dir_;
    std::string state_;
    std::string log_;
};

}  // namespace simtest
