// Shared set-up of the label store tests: a scratch installation root named
// through MOSSGROVE_EVMG's test hook, and a fresh simulated kernel.
#pragma once

#include <mossgrove/labels.h>
#include <mossgrove/stores.h>
#include "common/paths.hpp"
#include "mgsim.h"
#include "testsupport.hpp"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <functional>

#include <string>
#include <vector>

namespace mgtest {

// Runs op in a child process and kills it with SIGKILL after delay_us
// microseconds (a crash at that point), or lets it finish first.
inline void crash_after(const std::function<void()> &op, long delay_us) {
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        op();
        _exit(0);
    }
    if (delay_us > 0) usleep(static_cast<useconds_t>(delay_us));
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

// Microseconds one run of op takes in a child process.
inline long child_duration_us(const std::function<void()> &op) {
    struct timespec a, b;
    clock_gettime(CLOCK_MONOTONIC, &a);
    run_in_child([&] {
        op();
        return 0;
    });
    clock_gettime(CLOCK_MONOTONIC, &b);
    return (b.tv_sec - a.tv_sec) * 1000000L + (b.tv_nsec - a.tv_nsec) / 1000;
}

// Permission bits only: a holder killed while it held the store leaves the
// set-group-ID lock mark behind, which is only a mark.
inline mode_t perms(const std::string &path) { return file_mode(path) & 0777; }

// A scratch installation root ("<dir>/data", "<dir>/etc") named by a test
// evmg file, with the store paths set, and a fresh simulated kernel.
class LabelRoot {
public:
    LabelRoot() {
        EXPECT_EQ(mkdir((dir_ / "data").c_str(), 0755), 0);
        EXPECT_EQ(mkdir((dir_ / "etc").c_str(), 0755), 0);
        write_file(dir_ / "evmg", "MG_ROOT=" + dir_.path() + "/\n");
        mg::paths::override_for_tests((dir_ / "evmg").c_str(), nullptr, nullptr);
        EXPECT_EQ(mgsim_use_state((dir_ / "state").c_str()), 0);
        EXPECT_EQ(mgsim_reset(), 0);
        EXPECT_EQ(chk_mgrootdir(), 1);
        set_dbpath();
    }
    ~LabelRoot() {
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

class LabelStoreTest : public ::testing::Test, public LabelRoot {};

}  // namespace mgtest
