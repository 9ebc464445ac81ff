// The system-call gateway against the simulated kernel: the call each argument layout
// makes, checks before the kernel, labels, list reads, the error numbers of 26 and 28.
#include <mossgrove/kernel.h>

#include "kernel/gateway.hpp"
#include "mgsim.h"
#include "testsupport.hpp"

#include <gtest/gtest.h>

#include <climits>
#include <vector>

namespace {

constexpr long kAny = LONG_MIN;  // any non-null address (a block the wrapper builds)
alignas(8) unsigned char g_buf[64 * 1024], g_buf2[1024], g_buf3[1024];
long a(const void *p) { return reinterpret_cast<long>(p); }

class Gateway : public ::testing::Test {
protected:
    void SetUp() override {
        unsetenv("MGSIM_FAIL");
        ASSERT_FALSE(mgsim_use_state((dir_ / "state").c_str()) || mgsim_reset() || mgsim_set_log(log_.c_str()));
        mgtest::write_file(path_, "x");
    }
    void TearDown() override { mgsim_use_state(nullptr); }
    std::vector<mgsim_call> calls() {
        std::vector<mgsim_call> v(256);
        v.resize(static_cast<size_t>(std::max(0, mgsim_read_log(log_.c_str(), v.data(), 256))));
        return v;
    }
    mgtest::TempDir dir_;
    std::string log_ = dir_ / "calls.log", path_ = dir_ / "file";
};

TEST_F(Gateway, EveryArgumentLayoutMakesItsCall) {
    MGModuleInfo info{};
    MGProcLabel pl{0, {0, 0, 0}, 0, 0, 42};
    MGFileLabel fl{};
    const char *path = path_.c_str();
    int hdr[10] = {1, 5}, n = 3;  // service-rule header: 1 rule, id 5
    const struct { const char *name; std::function<int()> call; long sub, ptr, arg2, len, flag; } table[] = {
        {"_get_module_info", [&] { return _get_module_info(&info); }, 1, a(&info), 0, 72, 0},
        {"_sys_getmp", [] { return _sys_getmp(42); }, 12, kAny, 0, 16, 0},
        {"_sys_getmp2", [&] { return _sys_getmp2(&pl); }, 12, a(&pl), 0, 16, 0},
        {"_sys_set_authproc", [] { return _sys_set_authproc(42, 0); }, 13, kAny, 0, 16, 1},
        {"_sys_setpid", [] { return _sys_setpid(55); }, 13, 0, 55, 0, 2},
        {"_sys_getmu_list", [&] { return _sys_getmu_list(g_buf, &n); }, 16, a(g_buf), 0, 3, 0},
        {"_sys_getmf", [&] { return _sys_getmf(path); }, 22, kAny, a(path), 28, 0},
        {"_sys_setmf2", [&] { return _sys_setmf2(path, &fl); }, 23, a(&fl), a(path), 28, 0},
        {"_sys_set_fgroup", [] { return _sys_set_fgroup(g_buf, g_buf2, g_buf3); }, 37, a(g_buf), a(g_buf2), 0,
         a(g_buf3)},
        {"_sys_get_alsvc_cnt(0)", [] { return _sys_get_alsvc_cnt(0, 9); }, 65, 0, 0, 9, 0},
        {"_sys_get_alsvc_cnt(2)", [] { return _sys_get_alsvc_cnt(2, 9); }, 82, 0, 0, 9, 0},
        {"_sys_get_alsvc_rule(2)", [] { return _sys_get_alsvc_rule(2, 4, 2, g_buf); }, 83, a(g_buf), 4, 2, 0},
        {"_sys_set_alsvc_rule(1)", [&] { return _sys_set_alsvc_rule(1, hdr, g_buf2); }, 70, a(hdr), a(g_buf2), 0, 0},
        {"_sys_get_alsvc_hdr_all(1)", [] { return _sys_get_alsvc_hdr_all(1, 3, g_buf); }, 78, a(g_buf), 0, 3, 0},
    };
    ASSERT_GT(static_cast<unsigned long>(a(&info)), 0xffffffffUL) << "addresses travel whole";
    for (const auto &c : table) {
        size_t before = calls().size();
        c.call();
        std::vector<mgsim_call> log = calls();
        ASSERT_EQ(before + 1, log.size()) << c.name;
        const mgsim_call &got = log.back();
        const long ptr = c.ptr == kAny && got.ptr >= 4096UL ? kAny : static_cast<long>(got.ptr);
        EXPECT_EQ((std::vector<long>{c.sub, c.ptr, c.arg2, c.len, c.flag}),
                  (std::vector<long>{got.sub, ptr, got.arg2, got.len, got.flag})) << c.name;
    }
}

TEST_F(Gateway, ArgumentChecksComeBeforeTheKernel) {
    MGProcLabel neg{0, {0, 0, 0}, 0, 0, -1}, role255{255, {0, 0, 0}, 0, 0, 1};
    int hdr_neg_id[10] = {1, -1};
    // err -1: errno left alone
    const struct { const char *name; std::function<int()> call; int err; } table[] = {
        {"_sys_getmp(-1)", [] { return _sys_getmp(-1); }, ESRCH},
        {"_sys_getmp2(pid -1)", [&] { return _sys_getmp2(&neg); }, EINVAL},
        {"_sys_setmp2(role 255)", [&] { return _sys_setmp2(&role255); }, EINVAL},
        {"_sys_setcmd(null)", [] { return _sys_setcmd(nullptr, 1); }, -1},
        {"_sys_set_alsvc_rule(id -1)", [&] { return _sys_set_alsvc_rule(0, hdr_neg_id, g_buf); }, EINVAL},
    };
    for (const auto &r : table) {
        errno = 4321;
        EXPECT_EQ(-1, r.call()) << r.name;
        EXPECT_EQ(r.err == -1 ? 4321 : r.err, errno) << r.name;
    }
    EXPECT_EQ(0u, calls().size());
}

TEST_F(Gateway, LabelsListReadsAndErrorNumberResults) {
    // Label bits outside the three fields are dropped on the way in.
    ASSERT_EQ(0, _sys_setmp(4101, static_cast<int>(0xFFFF0000u) | MG_PLABEL(5, 3, 100)));
    EXPECT_EQ(MG_PLABEL(5, 3, 100), mgsim_get_proc_label(4101, nullptr, nullptr, nullptr));
    ASSERT_EQ(0, mgsim_set_fail("20:5,26:10073"));
    int n = 7;
    EXPECT_EQ(-1, _sys_getcat_list(g_buf, &n));
    EXPECT_EQ(EIO, errno) << "the kernel's errno";
    EXPECT_EQ(7, n) << "unchanged on failure";
    // Sub-commands 26 and 28 answer with the error number itself (one shared path).
    EXPECT_EQ(-1, _sys_setcmd(g_buf, 1));
    EXPECT_EQ(10073, errno);
}

}  // namespace
