// The simulator as processes see it: presence, absence, forwarding, failure
// injection, the call log, one kernel shared by many processes, killed
// callers, damaged state, dlopen and LD_PRELOAD.
#include "records.hpp"
#include "sim_fixture.hpp"
#include "state.hpp"

#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>

#include <mossgrove/kernel.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <random>
#include <thread>

using namespace simtest;

namespace {

long probe() { return syscall(SYS_kill, MG_PROBE_PID, MG_PROBE_SIG); }

Answer probe_answer() {
    errno = 0;
    long r = probe();
    return {r, r == -1 ? errno : 0};
}

class Process : public SimTest {};

TEST_F(Process, PresentAbsentAndForwarded) {
    EXPECT_EQ(ok(0), probe_answer());

    ASSERT_EQ(0, mgsim_set_absent(1));
    EXPECT_EQ(err(ESRCH), probe_answer());
    ASSERT_EQ(0, mgsim_set_status(1));
    EXPECT_EQ(err(ENOSYS), k(2));
    EXPECT_EQ(1, mgsim_get_status());  // nothing reached the tables
    ASSERT_EQ(0, mgsim_set_absent(0));
    EXPECT_EQ(ok(0), probe_answer());

    setenv("MGSIM_ABSENT", "1", 1);
    EXPECT_EQ(err(ESRCH), probe_answer());
    EXPECT_EQ(err(ENOSYS), k(14));
    setenv("MGSIM_ABSENT", "0", 1);
    EXPECT_EQ(ok(0), probe_answer());
    unsetenv("MGSIM_ABSENT");

    // Without a state file the module is absent.
    mgsim_use_state(nullptr);
    EXPECT_EQ(err(ESRCH), probe_answer());
    EXPECT_EQ(err(ENOSYS), k(1, nullptr));
    mgsim_use_state(state_.c_str());

    // Everything else reaches the real kernel, errno included.
    EXPECT_EQ(0, syscall(SYS_kill, getpid(), 0));
    errno = 0;
    EXPECT_EQ(-1, syscall(SYS_close, -1));
    EXPECT_EQ(EBADF, errno);
    // A successful call leaves errno alone, as the C library's does.
    errno = 1234;
    EXPECT_EQ(0, probe());
    EXPECT_EQ(1234, errno);
    syscall(223, 14L, 0L, 0L, 0L, 0L);
    EXPECT_EQ(1234, errno);
}

TEST_F(Process, InjectedFailuresFromTheEnvironment) {
    setenv("MGSIM_FAIL", "12:13, 64:1:2", 1);
    MGProcLabel b = zeroed<MGProcLabel>();
    EXPECT_EQ(err(EACCES), k(12, &b, 0, 16));
    MGLoginOrigin o = zeroed<MGLoginOrigin>();
    EXPECT_EQ(err(EPERM), k(64, &o));
    EXPECT_EQ(err(EPERM), k(64, &o));
    EXPECT_EQ(ok(), k(64, &o));
    EXPECT_EQ(1, mgsim_count(MGSIM_T_ORIGIN));

    // An injected failure changes nothing.
    setenv("MGSIM_FAIL", "13:1", 1);
    MGProcLabel so{7, {0, 0, 0}, 1, 1, 0};
    EXPECT_EQ(err(EPERM), k(13, &so, 0, 16));
    EXPECT_EQ(0, mgsim_get_proc_label(0, nullptr, nullptr, nullptr));

    // Sub-commands 26 and 28 answer with the number itself.
    setenv("MGSIM_FAIL", "26:10073", 1);
    mgsim::CmdRecord c = zeroed<mgsim::CmdRecord>();
    EXPECT_EQ(ok(10073), k(26, &c, 0, 1));

    // Malformed rules are ignored (with a word on stderr).
    setenv("MGSIM_FAIL", "12", 1);
    EXPECT_EQ(ok(), k(12, &b, 0, 16));
    unsetenv("MGSIM_FAIL");
}

TEST_F(Process, InjectedFailuresFromTheStateReachEveryProcess) {
    ASSERT_EQ(0, mgsim_set_fail("2:16:2,15:10012"));
    char rules[64];
    EXPECT_EQ(15, mgsim_get_fail(rules, sizeof rules));
    EXPECT_STREQ("2:16:2,15:10012", rules);
    // The counted rule is shared: the child uses one failure, the parent the other.
    int status = mgtest::run_in_child([] {
        unsetenv("MGSIM_FAIL");
        return k(2) == err(EBUSY) ? 0 : 1;
    });
    EXPECT_EQ(0, status);
    EXPECT_EQ(err(EBUSY), k(2));
    EXPECT_EQ(ok(), k(2));
    mgsim::MuRecord u;
    EXPECT_EQ(err(10012), k(15, &u, 0, 0));
    EXPECT_EQ(8, mgsim_get_fail(rules, sizeof rules));
    EXPECT_STREQ("15:10012", rules);

    // The environment wins over the state for the same sub-command.
    setenv("MGSIM_FAIL", "15:2", 1);
    EXPECT_EQ(err(ENOENT), k(15, &u, 0, 0));
    unsetenv("MGSIM_FAIL");

    for (const char *bad : {"15", "15:0", "x:1"}) EXPECT_EQ(-1, mgsim_set_fail(bad)) << bad;
    EXPECT_EQ(0, mgsim_set_fail(nullptr));
    EXPECT_EQ(0, mgsim_get_fail(rules, sizeof rules));
}

TEST_F(Process, CallLogRecordsEveryCallWhole) {
    auto owner = std::make_unique<MGProcLabel>();  // on the heap
    MGProcLabel *block = owner.get();
    block->pid = 77;
    ASSERT_EQ(ok(), k(12, block, 5, 16, 0));
    std::string path = dir_ / "p";
    EXPECT_EQ(err(EINVAL), k(13, block, addr(path.c_str()), 16, 9));
    probe();
    ASSERT_EQ(0, mgtest::run_in_child([] { return k(14) == ok(0) ? 0 : 1; }));

    std::vector<mgsim_call> log = calls();
    ASSERT_EQ(4u, log.size());
    auto fields = [](const mgsim_call &c) { return std::vector<long>{c.sub, c.arg2, c.len, c.flag, c.result, c.err}; };
    EXPECT_EQ(getpid(), log[0].pid);
    EXPECT_EQ(reinterpret_cast<unsigned long>(block), log[0].ptr);  // the whole 64-bit address
    EXPECT_GT(log[0].ptr, 0xffffffffUL);
    EXPECT_EQ((std::vector<long>{12, 5, 16, 0, 0, 0}), fields(log[0]));
    EXPECT_EQ((std::vector<long>{13, addr(path.c_str()), 16, 9, -1, EINVAL}), fields(log[1]));
    EXPECT_EQ(MGSIM_PROBE, log[2].sub);
    EXPECT_NE(getpid(), log[3].pid);
    EXPECT_EQ(14, log[3].sub);

    // MGSIM_LOG overrides the state's log file.
    std::string other = dir_ / "other.log";
    setenv("MGSIM_LOG", other.c_str(), 1);
    k(14);
    unsetenv("MGSIM_LOG");
    EXPECT_EQ(1, mgsim_read_log(other.c_str(), nullptr, 0));
    EXPECT_EQ(4u, calls().size());

    mgsim_call c;
    EXPECT_EQ(-1, mgsim_parse_log_line("pid=1 sub=x ptr=0 arg2=0 len=0 flag=0 result=0 errno=0", &c));
}

TEST_F(Process, ConcurrentWritersLoseNoUpdate) {
    constexpr int kWriters = 3, kEach = 60;
    std::vector<pid_t> kids;
    for (int w = 0; w < kWriters; ++w) {
        pid_t pid = fork();
        if (pid == 0) {
            int failures = 0;
            for (int i = 0; i < kEach; ++i) {
                mgsim::KillAcl e = zeroed<mgsim::KillAcl>();
                snprintf(e.path, sizeof e.path, "/a/rather/long/program/path/w%d/p%d", w, i);
                if (k(44, &e) != ok()) ++failures;
                MGProcLabel self{static_cast<unsigned char>(i % 8), {0, 0, 0}, 0, 0, 0};
                if (k(13, &self, 0, 16) != ok()) ++failures;
            }
            _exit(failures == 0 ? 0 : 1);
        }
        kids.push_back(pid);
    }
    for (pid_t pid : kids) {
        int st = 0;
        waitpid(pid, &st, 0);
        EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0);
    }
    EXPECT_EQ(kWriters * kEach, mgsim_count(MGSIM_T_KILL));
    // Each child labelled itself (pid 0): the labels are kept under the children's pids.
    mgsim_proc p[kWriters + 1];
    ASSERT_EQ(kWriters, mgsim_read_table(MGSIM_T_PROC, p, kWriters + 1));
    for (int i = 0; i < kWriters; ++i) EXPECT_NE(kids.end(), std::find(kids.begin(), kids.end(), p[i].pid));
    EXPECT_EQ(0, mgsim_check());
    // Written in place while it grew, the file stays within three times the state.
    std::string image = mgtest::read_file(state_);
    mgsim::FileHeader h;
    memcpy(&h, image.data(), sizeof h);
    EXPECT_LE(image.size(), 3 * h.length + 4 * 4096) << "payload " << h.length;
}

TEST_F(Process, CallerKilledMidCallLeavesAUsableState) {
    // A state of a few hundred kilobytes makes every rewrite take a while.
    ASSERT_EQ(0, mgsim_batch_begin());
    std::vector<mgsim::MuRecord> users(300, zeroed<mgsim::MuRecord>());
    for (size_t i = 0; i < users.size(); ++i) {
        users[i].uid = static_cast<int32_t>(1000 + i);
        memset(users[i].home, 'h', sizeof users[i].home - 1);
    }
    ASSERT_EQ(ok(), k(17, users.data(), 0, static_cast<long>(users.size())));
    ASSERT_EQ(0, mgsim_batch_end());

    std::mt19937 rng(42);
    for (int round = 0; round < 12; ++round) {
        pid_t pid = fork();
        if (pid == 0) {
            for (unsigned i = 0;; ++i) {
                MGProcLabel self{static_cast<unsigned char>(i % 8), {0, 0, 0}, 0, 0, 0};
                k(13, &self, 0, 16);
            }
        }
        std::this_thread::sleep_for(std::chrono::microseconds(2000 + rng() % 20000));
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        ASSERT_EQ(0, mgsim_check()) << "round " << round;
        ASSERT_EQ(300, mgsim_count(MGSIM_T_MU));
    }
}

// Runs fn in a child whose standard error goes to a file; returns that text.
std::string child_stderr(const std::string &file, const std::function<int()> &fn) {
    mgtest::run_in_child([&] {
        int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(fd, 2);
        return fn();
    });
    return mgtest::read_file(file);
}

TEST_F(Process, DamagedStateIsResetAndSaidSo) {
    ASSERT_EQ(0, mgsim_set_status(1));
    std::string good = mgtest::read_file(state_);
    mgsim::FileHeader h;
    ASSERT_GE(good.size(), sizeof h);
    memcpy(&h, good.data(), sizeof h);
    const size_t payload_end = h.offset + h.length;
    for (const std::string &damage : {std::string("garbage"), good.substr(0, payload_end - 1)}) {
        mgtest::write_file(state_, damage);
        EXPECT_EQ(1, mgsim_check());
        std::string err_text = child_stderr(dir_ / "stderr", [] {
            MGModuleInfo info;
            return k(1, &info, 0, 72) == ok() && info.status == 0 ? 0 : 1;
        });
        EXPECT_EQ("mgsim: state file " + state_ + " is damaged; reset to a fresh state\n", err_text);
        EXPECT_EQ(0, mgsim_check());
    }
    // A flipped byte inside the payload is caught by the checksum.
    std::string flipped = good;
    flipped[payload_end - 3] ^= 0x40;
    mgtest::write_file(state_, flipped);
    EXPECT_EQ(1, mgsim_check());
    // An empty file is a state not written yet: fresh, and nothing to say.
    mgtest::write_file(state_, "");
    EXPECT_EQ(0, mgsim_check());
    std::string quiet = child_stderr(dir_ / "stderr", [] { return k(14) == ok(0) ? 0 : 1; });
    EXPECT_EQ("", quiet);
}

TEST_F(Process, DlopenedLibrariesReachTheSimulator) {
    void *h = dlopen(MGSIM_TEST_DLCALL, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(nullptr, h) << dlerror();
    auto call = reinterpret_cast<long (*)(long, long, long)>(dlsym(h, "mgsim_test_dl_call"));
    ASSERT_NE(nullptr, call);
    MGModuleInfo info = zeroed<MGModuleInfo>();
    EXPECT_EQ(0, call(0, addr(&info), 72));
    EXPECT_EQ(MG_STATUS_RUNNING, mgsim_get_status());
    dlclose(h);
}

// Runs a program that knows nothing of the simulator with it preloaded.
std::string run_preloaded(const std::string &state, int *status) {
    return mgtest::capture_stdout(
        [&] {
            std::string asan = "verify_asan_link_order=0";
            if (const char *old = getenv("ASAN_OPTIONS")) asan = std::string(old) + ":" + asan;
            setenv("ASAN_OPTIONS", asan.c_str(), 1);
            setenv("LD_PRELOAD", MGSIM_PRELOAD_LIB, 1);
            if (state.empty())
                unsetenv("MGSIM_STATE");
            else
                setenv("MGSIM_STATE", state.c_str(), 1);
            execl(MGSIM_PRELOAD_HELPER, MGSIM_PRELOAD_HELPER, static_cast<char *>(nullptr));
            _exit(127);
        },
        status);
}

TEST_F(Process, PreloadedIntoAnUnawareProgram) {
    int status = -1;
    std::string out = run_preloaded(state_, &status);
    EXPECT_EQ(0, status);
    EXPECT_EQ("probe=0 start=0 status=1 getpid=ok\n", out);
    EXPECT_EQ(MG_STATUS_RUNNING, mgsim_get_status());
    EXPECT_EQ(2u, calls().size());

    out = run_preloaded("", &status);
    EXPECT_EQ("probe=-1 start=-1 status=0 getpid=ok\n", out);
}

// The kill ACL entries the state file itself holds, read past the lock.
size_t kill_acl_on_disk(const std::string &path) {
    mgsim::State s;
    return mgsim::decode(mgtest::read_file(path), &s) ? s.kill_acl.size() : SIZE_MAX;
}

TEST_F(Process, BatchHoldsTheStateAndWritesOnce) {
    ASSERT_EQ(0, mgsim_batch_begin());
    EXPECT_EQ(-1, mgsim_batch_begin());
    for (int i = 0; i < 1000; ++i) {
        mgsim::KillAcl e = zeroed<mgsim::KillAcl>();
        snprintf(e.path, sizeof e.path, "/bin/p%d", i);
        ASSERT_EQ(ok(), k(44, &e));
    }
    EXPECT_EQ(1000, mgsim_count(MGSIM_T_KILL));
    EXPECT_EQ(0u, kill_acl_on_disk(state_));  // nothing written yet
    ASSERT_EQ(0, mgsim_batch_end());
    EXPECT_EQ(1000u, kill_acl_on_disk(state_));
    EXPECT_EQ(-1, mgsim_batch_end());
    EXPECT_EQ(ok(1000), k(47));
}

TEST_F(Process, CommandLineTool) {
    std::string ctl = MGSIMCTL;
    auto run = [&](const std::string &args) {
        int status = -1;
        std::string out = mgtest::capture_stdout(
            [&] {
                std::string cmd = ctl + " " + args;
                execl("/bin/sh", "sh", "-c", cmd.c_str(), static_cast<char *>(nullptr));
                _exit(127);
            },
            &status);
        return std::make_pair(status, out);
    };
    // Setters print nothing; getters print the value set.
    const std::pair<const char *, const char *> cases[] = {
        {"status running", ""}, {"status", "1\n"},
        {"label 31337 7 1 0", ""}, {"label 31337", "role=7 level=1 category=0 label=57472\n"},
        {"version 9.9.9", ""}, {"version", "9.9.9\n"},
        {"fail 12:13:1", ""}, {"fail", "12:13:1\n"},
        {"count proc", "1\n"}, {"check", "ok\n"},
    };
    for (const auto &[args, out] : cases) EXPECT_EQ(std::make_pair(0, std::string(out)), run(args)) << args;
    EXPECT_EQ(0, run("absent on").first);
    EXPECT_EQ(err(ESRCH), probe_answer());
    EXPECT_EQ(0, run("absent off").first);
    auto dump = run("dump proc");
    EXPECT_NE(std::string::npos, dump.second.find("pid=31337 role=7 level=1")) << dump.second;
    EXPECT_EQ(2, run("count nosuchtable 2>/dev/null").first);
    EXPECT_EQ(0, run("reset").first);
    EXPECT_EQ(0, mgsim_count(MGSIM_T_PROC));
}

}  // namespace
