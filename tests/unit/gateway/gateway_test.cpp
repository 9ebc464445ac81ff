// The system-call gateway against the simulated kernel: the argument checks
// made before the kernel is reached, the exact call each wrapper makes, label
// packing, list reads and the error-number convention of 26 and 28.
#include <mossgrove/kernel.h>

#include "kernel/gateway.hpp"
#include "mgsim.h"
#include "testsupport.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace {

constexpr long kAny = LONG_MIN;  // any non-null address (a block the wrapper builds)

// Buffers handed to the wrappers; their addresses are what the log must show.
alignas(8) unsigned char g_buf[64 * 1024];
alignas(8) unsigned char g_buf2[64 * 1024];
alignas(8) unsigned char g_buf3[64 * 1024];

long a(const void *p) { return reinterpret_cast<long>(p); }

class Gateway : public ::testing::Test {
protected:
    void SetUp() override {
        unsetenv("MGSIM_FAIL");
        unsetenv("MGSIM_ABSENT");
        unsetenv("MGSIM_LOG");
        ASSERT_EQ(0, mgsim_use_state((dir_ / "state").c_str()));
        ASSERT_EQ(0, mgsim_reset());
        ASSERT_EQ(0, mgsim_set_log(log_.c_str()));
        memset(g_buf, 0, sizeof g_buf);
        mgtest::write_file(path_, "x");
    }
    void TearDown() override { mgsim_use_state(nullptr); }

    std::vector<mgsim_call> calls() {
        std::vector<mgsim_call> v(256);
        int n = mgsim_read_log(log_.c_str(), v.data(), static_cast<int>(v.size()));
        v.resize(static_cast<size_t>(std::max(n, 0)));
        return v;
    }
    size_t call_count() { return calls().size(); }

    mgtest::TempDir dir_;
    std::string log_ = dir_ / "calls.log";
    std::string path_ = dir_ / "file";
};

struct Convention {
    const char *name;
    std::function<int()> call;
    long sub, ptr, arg2, len, flag;
};

TEST_F(Gateway, EveryWrapperMakesItsCall) {
    MGModuleInfo info{};
    MGProcLabel pl{0, {0, 0, 0}, 0, 0, 42};
    MGFileLabel fl{};
    MGLoginOrigin origin{};
    const char *path = path_.c_str();
    // Service-rule header: rule count 1, id 5.
    int hdr[10] = {1, 5};
    const std::vector<Convention> table = {
        {"_start_module", [&] { return _start_module(&info); }, 0, a(&info), 0, 72, 0},
        {"_get_module_info", [&] { return _get_module_info(&info); }, 1, a(&info), 0, 72, 0},
        {"_sys_getconf_mode", [] { return _sys_getconf_mode(g_buf); }, 5, a(g_buf), 0, 4, 0},
        {"_sys_setconf_ips", [] { return _sys_setconf_ips(g_buf); }, 11, a(g_buf), 0, 8, 0},
        {"_sys_getmp", [] { return _sys_getmp(42); }, 12, kAny, 0, 16, 0},
        {"_sys_getmp2", [&] { return _sys_getmp2(&pl); }, 12, a(&pl), 0, 16, 0},
        {"_sys_setmp", [] { return _sys_setmp(42, 0); }, 13, kAny, 0, 16, 0},
        {"_sys_set_authproc", [] { return _sys_set_authproc(42, 0); }, 13, kAny, 0, 16, 1},
        {"_sys_setpid", [] { return _sys_setpid(55); }, 13, 0, 55, 0, 2},
        {"_sys_getmu_list", [] {
             int n = 3;  // a list read writes the count back
             return _sys_getmu_list(g_buf, &n);
         }, 16, a(g_buf), 0, 3, 0},
        {"_sys_setcat", [] { return _sys_setcat(g_buf, 2); }, 21, a(g_buf), 0, 2, 0},
        {"_sys_getmf", [&] { return _sys_getmf(path); }, 22, kAny, a(path), 28, 0},
        {"_sys_setmf2", [&] { return _sys_setmf2(path, &fl); }, 23, a(&fl), a(path), 28, 0},
        {"_sys_get_kernlog", [] {
             int n = 100;
             return _sys_get_kernlog(g_buf, &n);
         }, 24, a(g_buf), 0, 100, 0},
        {"_sys_setcmd", [] { return _sys_setcmd(g_buf, 3); }, 26, a(g_buf), 0, 3, 0},
        {"_sys_add_file_acl", [] { return _sys_add_file_acl(g_buf, g_buf2); }, 29, a(g_buf), a(g_buf2), 0, 0},
        {"_sys_get_file_acl", [] { return _sys_get_file_acl(g_buf, g_buf2); }, 35, a(g_buf), a(g_buf2), 0, 0},
        {"_sys_set_fgroup", [] { return _sys_set_fgroup(g_buf, g_buf2, g_buf3); }, 37, a(g_buf), a(g_buf2), 0,
         a(g_buf3)},
        {"_sys_del_fgroup", [] { return _sys_del_fgroup(7); }, 38, 0, 0, 7, 0},
        {"_sys_get_fgroup_rule_member", [] { return _sys_get_fgroup_rule_member(g_buf, g_buf2, g_buf3); }, 42,
         a(g_buf), a(g_buf2), 0, a(g_buf3)},
        {"_sys_file_mls_cnt", [] { return _sys_file_mls_cnt(); }, 59, 0, 0, 1, 0},
        {"_sys_dir_mls_cnt", [] { return _sys_dir_mls_cnt(); }, 59, 0, 0, 2, 0},
        {"_sys_add_ipaddr_to_table", [&] { return _sys_add_ipaddr_to_table(&origin); }, 64, a(&origin), 0, 0, 0},
        {"_sys_get_alsvc_cnt(0)", [] { return _sys_get_alsvc_cnt(0, 9); }, 65, 0, 0, 9, 0},
        {"_sys_get_alsvc_cnt(1)", [] { return _sys_get_alsvc_cnt(1, 9); }, 66, 0, 0, 9, 0},
        {"_sys_get_alsvc_cnt(2)", [] { return _sys_get_alsvc_cnt(2, 9); }, 82, 0, 0, 9, 0},
        {"_sys_get_alsvc_rule(2)", [] { return _sys_get_alsvc_rule(2, 4, 2, g_buf); }, 83, a(g_buf), 4, 2, 0},
        {"_sys_set_alsvc_rule(1)", [&] { return _sys_set_alsvc_rule(1, hdr, g_buf2); }, 70, a(hdr), a(g_buf2), 0, 0},
        {"_sys_del_alsvc_rule(2)", [&] { return _sys_del_alsvc_rule(2, hdr); }, 85, a(hdr), 0, 0, 0},
        {"_sys_del_alsvc_rule_all(0)", [] { return _sys_del_alsvc_rule_all(0); }, 73, 0, 0, 0, 0},
        {"_sys_get_alsvc_hdr_cnt(2)", [] { return _sys_get_alsvc_hdr_cnt(2); }, 87, 0, 0, 0, 0},
        {"_sys_get_alsvc_hdr_all(1)", [] { return _sys_get_alsvc_hdr_all(1, 3, g_buf); }, 78, a(g_buf), 0, 3, 0},
        {"_sys_get_seslog", [] { return _sys_get_seslog(g_buf, 10); }, 80, a(g_buf), 0, 10, 0},
    };
    // Addresses travel whole: the static buffers lie above 4 GiB only with a
    // PIE at a high address, the stack always does.
    ASSERT_GT(static_cast<unsigned long>(a(&info)), 0xffffffffUL);
    for (const Convention &c : table) {
        SCOPED_TRACE(c.name);
        size_t before = call_count();
        c.call();
        std::vector<mgsim_call> log = calls();
        ASSERT_EQ(before + 1, log.size());
        const mgsim_call &got = log.back();
        EXPECT_EQ(c.sub, got.sub);
        if (c.ptr == kAny)
            EXPECT_GE(got.ptr, 4096UL);
        else
            EXPECT_EQ(static_cast<unsigned long>(c.ptr), got.ptr);
        EXPECT_EQ(c.arg2, got.arg2);
        EXPECT_EQ(c.len, got.len);
        EXPECT_EQ(c.flag, got.flag);
    }
}

// A wrapper refused before the kernel: the result, errno (or -1 to say
// errno is left alone), and the log must stay empty.
struct Refusal {
    const char *name;
    std::function<int()> call;
    int err;
};

TEST_F(Gateway, ArgumentChecksComeBeforeTheKernel) {
    int zero = 0;
    MGProcLabel neg{0, {0, 0, 0}, 0, 0, -1}, role255{255, {0, 0, 0}, 0, 0, 1};
    MGProcLabel level_m1{0, {0, 0, 0}, -1, 0, 1}, cat_m1{0, {0, 0, 0}, 0, -1, 1};
    MGFileLabel fl{};
    const char *path = path_.c_str();
    int hdr_neg_id[10] = {1, -1}, hdr_no_rules[10] = {0, 0};
    const std::vector<Refusal> table = {
        {"_get_module_info", [] { return _get_module_info(nullptr); }, EINVAL},
        {"_sys_setconf_opt", [] { return _sys_setconf_opt(nullptr); }, EINVAL},
        {"_sys_getmp(-1)", [] { return _sys_getmp(-1); }, ESRCH},
        {"_sys_getmp2(pid -1)", [&] { return _sys_getmp2(&neg); }, EINVAL},
        {"_sys_setmp2(null)", [] { return _sys_setmp2(nullptr); }, EINVAL},
        {"_sys_setmp2(role 255)", [&] { return _sys_setmp2(&role255); }, EINVAL},
        {"_sys_setmp2(level -1)", [&] { return _sys_setmp2(&level_m1); }, EINVAL},
        {"_sys_setmp2(category -1)", [&] { return _sys_setmp2(&cat_m1); }, EINVAL},
        {"_sys_setpid(-1)", [] { return _sys_setpid(-1); }, EINVAL},
        {"_sys_getmu_list(n 0)", [&] { return _sys_getmu_list(g_buf, &zero); }, EINVAL},
        {"_sys_getmu_list(null count)", [] { return _sys_getmu_list(g_buf, nullptr); }, EINVAL},
        {"_sys_getmf(empty)", [] { return _sys_getmf(""); }, EINVAL},
        {"_sys_getmf2(null path)", [&] { return _sys_getmf2(nullptr, &fl); }, EINVAL},
        {"_sys_setmf2(null block)", [&] { return _sys_setmf2(path, nullptr); }, EINVAL},
        {"_sys_get_kernlog(len 0)", [&] { return _sys_get_kernlog(g_buf, &zero); }, EINVAL},
        {"_sys_setcmd(null)", [] { return _sys_setcmd(nullptr, 1); }, -1},
        {"_sys_get_alsvc_cnt(3, 0)", [] { return _sys_get_alsvc_cnt(3, 0); }, EINVAL},
        {"_sys_get_alsvc_cnt(0, -1)", [] { return _sys_get_alsvc_cnt(0, -1); }, EINVAL},
        {"_sys_get_alsvc_rule(count 0)", [] { return _sys_get_alsvc_rule(0, 0, 0, g_buf); }, EINVAL},
        {"_sys_set_alsvc_rule(id -1)", [&] { return _sys_set_alsvc_rule(0, hdr_neg_id, g_buf); }, EINVAL},
        {"_sys_set_alsvc_rule(0 rules)", [&] { return _sys_set_alsvc_rule(0, hdr_no_rules, g_buf); }, EINVAL},
        {"_sys_del_alsvc_rule(id -1)", [&] { return _sys_del_alsvc_rule(1, hdr_neg_id); }, EINVAL},
        {"_sys_del_alsvc_rule_all(3)", [] { return _sys_del_alsvc_rule_all(3); }, EINVAL},
        {"_sys_get_seslog(len 0)", [] { return _sys_get_seslog(g_buf, 0); }, -1},
    };
    for (const Refusal &r : table) {
        SCOPED_TRACE(r.name);
        errno = 4321;
        EXPECT_EQ(-1, r.call());
        EXPECT_EQ(r.err == -1 ? 4321 : r.err, errno);
    }
    EXPECT_EQ(0u, call_count());
    EXPECT_EQ(0, zero);  // the count argument is left alone on refusal
}

TEST_F(Gateway, ProcessLabelsPackAndUnpack) {
    EXPECT_EQ(57472, MG_PLABEL(7, 1, 0));
    ASSERT_EQ(0, _sys_setmp(4100, 57472));
    int role, level, cat;
    EXPECT_EQ(57472, mgsim_get_proc_label(4100, &role, &level, &cat));
    EXPECT_EQ((std::vector<int>{7, 1, 0}), (std::vector<int>{role, level, cat}));
    EXPECT_EQ(57472, _sys_getmp(4100));

    // Bits outside the three fields are dropped on the way in.
    ASSERT_EQ(0, _sys_setmp(4101, static_cast<int>(0xFFFF0000u) | MG_PLABEL(5, 3, 100)));
    EXPECT_EQ(41444, _sys_getmp(4101));  // MG_PLABEL(5, 3, 100)

    ASSERT_EQ(0, _sys_set_authproc(4102, MG_PLABEL(2, 7, 127)));
    mgsim_proc procs[4];
    ASSERT_EQ(3, mgsim_read_table(MGSIM_T_PROC, procs, 4));
    EXPECT_EQ(1, procs[2].auth);
    MGProcLabel b{0, {0, 0, 0}, 0, 0, 4102};
    ASSERT_EQ(0, _sys_getmp2(&b));
    EXPECT_EQ(MG_PLABEL(2, 7, 127), MG_PLABEL(b.role, b.level, b.category));

    // A kernel refusal comes back as -1 with the kernel's errno.
    ASSERT_EQ(0, mgsim_set_fail("12:13"));
    errno = 0;
    EXPECT_EQ(-1, _sys_getmp(4100));
    EXPECT_EQ(EACCES, errno);
}

TEST_F(Gateway, FileLabelsPackAndUnpack) {
    ASSERT_EQ(0, mgsim_set_file_label(path_.c_str(), 2, 1, 5, 100));
    EXPECT_EQ(36196, _sys_getmf(path_.c_str()));  // MG_FLABEL(2, 1, 5, 100)
    ASSERT_EQ(0, _sys_setmf(path_.c_str(), MG_FLABEL(3, 0, 7, 1)));
    EXPECT_EQ(MG_FLABEL(3, 0, 7, 1), mgsim_get_file_label(path_.c_str()));
    MGFileLabel b{};
    ASSERT_EQ(0, _sys_getmf2(path_.c_str(), &b));
    EXPECT_EQ(MG_FLABEL(3, 0, 7, 1), MG_FLABEL(b.kind, b.flag, b.level, b.category));
    errno = 0;
    EXPECT_EQ(-1, _sys_getmf((dir_ / "missing").c_str()));
    EXPECT_EQ(ENOENT, errno);
}

TEST_F(Gateway, ListReadsReturnTheCountThroughThePointer) {
    unsigned char users[3][1324] = {};  // three users of uid 0: duplicates are kept
    ASSERT_EQ(0, _sys_setmu(users, 3));
    int n = 10;
    EXPECT_EQ(0, _sys_getmu_list(g_buf, &n));
    EXPECT_EQ(3, n);
    n = 2;
    EXPECT_EQ(0, _sys_getmu_list(g_buf, &n));
    EXPECT_EQ(2, n);
    EXPECT_EQ(3, _sys_getmu_all(g_buf, 5));

    ASSERT_EQ(0, mgsim_set_buffer(MGSIM_B_KERNLOG, "abcdef", 6));
    int len = 4;
    EXPECT_EQ(0, _sys_get_kernlog(g_buf, &len));
    EXPECT_EQ(4, len);
    EXPECT_EQ(0, memcmp(g_buf, "abcd", 4));

    ASSERT_EQ(0, mgsim_set_fail("20:5"));
    n = 7;
    errno = 0;
    EXPECT_EQ(-1, _sys_getcat_list(g_buf, &n));
    EXPECT_EQ(EIO, errno);
    EXPECT_EQ(7, n);  // unchanged on failure
}

TEST_F(Gateway, CommandListsTakeTheResultAsErrorNumber) {
    EXPECT_EQ(0, _sys_setcmd(g_buf, 2));
    EXPECT_EQ(2, mgsim_count(MGSIM_T_CMD));
    ASSERT_EQ(0, mgsim_set_fail("26:10073,28:10060"));
    errno = 0;
    EXPECT_EQ(-1, _sys_setcmd(g_buf, 1));
    EXPECT_EQ(10073, errno);
    EXPECT_EQ(-1, _sys_setsu(g_buf, 1));
    EXPECT_EQ(10060, errno);
    ASSERT_EQ(0, mgsim_set_fail(nullptr));
    // The kernel's own refusal (too many records) arrives the same way.
    EXPECT_EQ(-1, _sys_setsu(g_buf, 21));
    EXPECT_EQ(EINVAL, errno);
}

TEST_F(Gateway, AbsentModuleFailsEveryCall) {
    EXPECT_TRUE(mg::kernel::module_present());
    ASSERT_EQ(0, mgsim_set_absent(1));
    EXPECT_EQ(-1, mg::kernel::presence_probe());
    EXPECT_FALSE(mg::kernel::module_present());
    EXPECT_EQ(-1, _sys_getmu_num());
    EXPECT_EQ(-1, _sys_getmp(1));
}

}  // namespace
