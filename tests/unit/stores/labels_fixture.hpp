// Shared set-up of the store tests: process helpers (holders, racers,
// crashes), a scratch installation root named through MOSSGROVE_EVMG's test
// hook with a fresh simulated kernel, and record helpers.
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
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <vector>

namespace mgtest {

// A child that runs hold() (taking a lock) and then waits to be killed: its
// pid once hold() has returned, or -1 when the child ended instead.
inline pid_t hold_in_child(const std::function<void()> &hold) {
    int p[2];
    if (pipe(p) != 0) return -1;
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        close(p[0]);
        hold();
        if (write(p[1], "h", 1) == 1) pause();
        _exit(0);
    }
    char c;
    close(p[1]);
    const bool held = read(p[0], &c, 1) == 1;
    close(p[0]);
    return held ? pid : (waitpid(pid, nullptr, 0), -1);
}
inline void kill_child(pid_t pid) { if (pid > 0) kill(pid, SIGKILL), waitpid(pid, nullptr, 0); }
// In another process, op() must fail at once with EAGAIN (a busy store).
inline bool busy(const std::function<int()> &op) {
    return run_in_child([&] { alarm(5); return op() == -1 && errno == EAGAIN ? 0 : 1; }) == 0;
}
// racer(0) and racer(1) in two processes at once; true when both return 0.
inline bool race(const std::function<int(int)> &racer) {
    fflush(nullptr);
    pid_t p = fork();
    if (p == 0) _exit(racer(0));
    int mine = run_in_child([&] { return racer(1); }), st = -1;
    waitpid(p, &st, 0);
    return mine == 0 && st == 0;
}

// Kills a child running op with SIGKILL at `points` moments spread over one
// measured run (a crash at that point); check() runs after each, reset() before.
inline void crash_points(const std::function<void()> &op, const std::function<void()> &reset,
                         const std::function<void(long)> &check, int points) {
    reset();
    const auto start = std::chrono::steady_clock::now();
    run_in_child([&] { op(); return 0; });
    const long dur = static_cast<long>(
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start).count());
    for (int i = 0; i <= points; ++i) {
        reset();
        fflush(nullptr);
        pid_t pid = fork();
        if (pid == 0) op(), _exit(0);
        usleep(static_cast<useconds_t>(dur * i / points));
        kill_child(pid);
        check(dur * i / points);
    }
}

// Permission bits only: a holder killed while it held the store leaves the
// set-group-ID lock mark behind, which is only a mark.
inline mode_t perms(const std::string &path) { return file_mode(path) & 0777; }

// A scratch installation root ("<dir>/data", "<dir>/etc") with the store
// paths set, and a fresh simulated kernel.
class LabelRoot {
public:
    LabelRoot() {
        EXPECT_EQ(mkdir((dir_ / "data").c_str(), 0755) | mkdir((dir_ / "etc").c_str(), 0755), 0);
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

    // Records of a store file or a kernel table, and back.
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
        out.resize(static_cast<size_t>(std::max(mgsim_read_table(table, out.data(), 8192), 0)));
        return out;
    }
    template <class T> std::vector<T> stored(const std::string &file) { return records_of<T>(read_file(data(file))); }
    template <class T> void put(const std::string &file, const std::vector<T> &v) {
        write_file(data(file), bytes_of(v), 0444);
    }

    TempDir dir_;
};

class LabelStoreTest : public ::testing::Test, public LabelRoot {};

}  // namespace mgtest
