// A private world for system tests, made in a forked child per test
// (run_sandboxed): fresh mount and UTS namespaces with an overlay /etc (own
// accounts, hosts, files-only nsswitch.conf), an empty /run (own utmpx), a
// /dev with devpts and a /dev/log socket the test reads, host name kHostName
// (kHostAddress). All on tmpfs in the child's namespace: even a child killed
// with SIGKILL leaves the host untouched. Needs root.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace mgtest {

// One datagram received on /dev/log, taken apart.
struct SyslogMessage {
    std::string raw;    // e.g. "<35>Nov 23 00:46:01 mg_pam_acl[42]: text"
    int priority = -1;  // -1 when the datagram has no "<n>" prefix
    std::string ident;
    pid_t pid = 0;      // 0 without LOG_PID
    std::string text;   // after "ident[pid]: "
    // "<PRI>ident[pid]: text" (without the time stamp).
    std::string line() const;
};

class Sandbox {
public:
    static constexpr const char *kHostName = "mg-sandbox";
    static constexpr const char *kHostAddress = "192.0.2.10";
    static constexpr const char *kUtmpx = "/run/utmp";

    // /dev/log: a thread keeps every message, or a child discards them (single-threaded benchmarks).
    enum class SyslogReader { thread, discarding_process };

    // Enters the namespaces in the calling process; throws std::runtime_error.
    explicit Sandbox(SyslogReader reader = SyslogReader::thread);
    ~Sandbox();
    Sandbox(const Sandbox &) = delete;
    Sandbox &operator=(const Sandbox &) = delete;

    // Scratch directory on the sandbox tmpfs.
    const std::string &scratch() const { return scratch_; }

    // Replaces or appends to a file below /etc, creating parent directories.
    void write_etc(const std::string &relative, std::string_view content, mode_t mode = 0644);
    void append_etc(const std::string &relative, std::string_view content);
    void add_user(const std::string &name, uid_t uid, gid_t gid,
                  const std::string &home = "/nonexistent", const std::string &shell = "/bin/sh");
    void add_group(const std::string &name, gid_t gid, const std::vector<std::string> &members = {});
    void add_host(const std::string &address, const std::string &names);

    // Appends a utmpx record: `line` without "/dev/", `type` 7 = USER_PROCESS,
    // `pid` 0 for a made-up pid that differs per record.
    void add_utmpx(const std::string &user, const std::string &line, const std::string &host = "",
                   short type = 7, pid_t pid = 0);
    void clear_utmpx();

    // Messages received so far; take_ also forgets them; wait_ waits for `count`.
    std::vector<SyslogMessage> syslog();
    std::vector<SyslogMessage> take_syslog();
    void clear_syslog() { take_syslog(); }
    std::vector<SyslogMessage> wait_syslog(size_t count,
                                           std::chrono::milliseconds timeout = std::chrono::milliseconds(2000));

private:
    void build_etc();
    void build_dev();
    void open_log_socket(SyslogReader reader);
    void reader_loop();
    void drain_locked();

    std::string base_, scratch_;
    int log_fd_ = -1;
    pid_t discarder_ = -1;
    int stop_fd_[2] = {-1, -1};
    std::thread reader_;
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::vector<SyslogMessage> messages_;
    int next_fake_pid_ = 40000;
};

// Runs `body` in a Sandbox in a forked child: 0 passed, 1 a GoogleTest failure,
// 2 no sandbox, 3 the body threw, 128 + signal when the child was killed.
int run_sandboxed(const std::function<void(Sandbox &)> &body);

// Skips the current test when not root; true when the caller should go on.
bool sandbox_or_skip();

}  // namespace mgtest

// TEST(suite, name) whose body runs in a fresh sandbox as `mgtest::Sandbox &sb`.
#define MG_SANDBOX_TEST(suite, name)                                                  \
    static void suite##_##name##_sandboxed(mgtest::Sandbox &sb);                      \
    TEST(suite, name) {                                                               \
        if (!mgtest::sandbox_or_skip()) return;                                       \
        EXPECT_EQ(0, mgtest::run_sandboxed(suite##_##name##_sandboxed))               \
            << "sandboxed body failed (see the child's output above)";               \
    }                                                                                 \
    static void suite##_##name##_sandboxed([[maybe_unused]] mgtest::Sandbox &sb)
