// A private world for system tests: own /etc, own /run (and so the utmpx
// file), own /dev with a syslog socket the test reads, own host name.
//
// Design: the namespaces are entered by the process that constructs a
// Sandbox, and unshare() changes the whole process for good. So a Sandbox is
// made in a forked child, one per test: run_sandboxed() forks, builds the
// Sandbox in the child, runs the test body there (GoogleTest expectations work
// as usual and print from the child) and reports through the child's exit
// status, which the parent turns into a test failure. Nothing the child does
// survives it: every mount lives in the child's mount namespace, and the
// scratch space is a tmpfs that disappears with that namespace, so even a
// child killed with SIGKILL leaves the host untouched.
//
// Inside the sandbox:
//   /etc   overlay (lower = the host's /etc, upper on the sandbox tmpfs), with
//          fresh minimal passwd, group, shadow, hosts and an nsswitch.conf
//          that uses local files only (no DNS, no network);
//   /run   empty tmpfs (/var/run is a link to it): /run/utmp is the test's own
//          utmpx file; /run/mg-sandbox is scratch space (scratch());
//   /dev   tmpfs with null, zero, full, random, urandom and tty bound from
//          the real /dev, a fresh devpts instance (ptmx usable), an empty shm,
//          fd/stdin/stdout/stderr links and a datagram socket at /dev/log
//          that a reader thread drains into memory;
//   host name kHostName, listed in /etc/hosts with address kHostAddress.
//
// Requires root (CAP_SYS_ADMIN) and a kernel that allows overlay mounts.
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

// True when a sandbox can be made here (root, unshare and overlay work).
// Probed once in a throw-away child; the result is cached.
bool sandbox_available();

// One datagram received on /dev/log, taken apart.
struct SyslogMessage {
    std::string raw;    // the datagram as received, e.g. "<35>Nov 23 00:46:01 mg_pam_acl[42]: text"
    int priority = -1;  // facility | severity, -1 when the datagram has no "<n>" prefix
    std::string ident;  // "mg_pam_acl"
    pid_t pid = 0;      // 0 when the sender did not give LOG_PID
    std::string text;   // the message after "ident[pid]: "

    int facility() const { return priority < 0 ? -1 : (priority & ~7); }
    int severity() const { return priority < 0 ? -1 : (priority & 7); }
    // "<PRI>ident[pid]: text": the raw line without its time stamp, handy in assertions.
    std::string line() const;
};

// Parses one syslog datagram in the C library's format
// "<PRI>Mmm dd hh:mm:ss ident[pid]: text" (the pid part optional).
SyslogMessage parse_syslog_datagram(std::string_view raw);

class Sandbox {
public:
    static constexpr const char *kHostName = "mg-sandbox";
    static constexpr const char *kHostAddress = "192.0.2.10";
    static constexpr const char *kUtmpx = "/run/utmp";
    static constexpr const char *kLogSocket = "/dev/log";

    // Who serves /dev/log: a reader thread that keeps every message for the
    // test (the default), or a child process that discards them, for
    // benchmarks that must stay single-threaded (in a threaded process every
    // munmap, as in dlclose, costs a cross-CPU TLB shootdown).
    enum class SyslogReader { thread, discarding_process };

    // Enters fresh mount and UTS namespaces in the calling process and builds
    // the world described above. Throws std::runtime_error on failure.
    explicit Sandbox(SyslogReader reader = SyslogReader::thread);
    ~Sandbox();
    Sandbox(const Sandbox &) = delete;
    Sandbox &operator=(const Sandbox &) = delete;

    // Scratch directory on the sandbox tmpfs (/run/mg-sandbox/scratch).
    const std::string &scratch() const { return scratch_; }

    // --- /etc -------------------------------------------------------------
    // Writes (replaces) a file below /etc, creating parent directories.
    // `relative` is taken relative to /etc, e.g. "security/pam_acl_conf/user/alice".
    void write_etc(const std::string &relative, std::string_view content, mode_t mode = 0644);
    void append_etc(const std::string &relative, std::string_view content);
    // Test accounts and groups (appended to the sandbox's passwd/shadow/group).
    void add_user(const std::string &name, uid_t uid, gid_t gid,
                  const std::string &home = "/nonexistent", const std::string &shell = "/bin/sh");
    void add_group(const std::string &name, gid_t gid, const std::vector<std::string> &members = {});
    // A host name resolvable through /etc/hosts.
    void add_host(const std::string &address, const std::string &names);

    // --- /run/utmp ----------------------------------------------------------
    // Appends one record: `line` is the terminal without "/dev/" (e.g. "pts/3"),
    // `host` the remote host as a login service records it, `type` a utmpx
    // type (7 = USER_PROCESS), `pid` 0 for a made-up pid that differs per record.
    void add_utmpx(const std::string &user, const std::string &line, const std::string &host = "",
                   short type = 7, pid_t pid = 0);
    void clear_utmpx();

    // --- /dev ---------------------------------------------------------------
    // Creates a character device /dev/<name> (e.g. "tty1", "pts/7") with the
    // given numbers; parent directories other than /dev/pts are created.
    // A real pseudo-terminal is better made with posix_openpt on /dev/ptmx.
    void make_device(const std::string &name, unsigned major, unsigned minor);

    // --- syslog -------------------------------------------------------------
    // (With a discarding process nothing is kept and these return nothing.)
    // Every message received so far (drains the socket first, so whatever was
    // sent before this call is included).
    std::vector<SyslogMessage> syslog();
    // Like syslog(), then forgets them.
    std::vector<SyslogMessage> take_syslog();
    void clear_syslog() { take_syslog(); }
    // Waits up to `timeout` until at least `count` messages have arrived and
    // returns them all (fewer on timeout).
    std::vector<SyslogMessage> wait_syslog(size_t count,
                                           std::chrono::milliseconds timeout = std::chrono::milliseconds(2000));

private:
    void enter_namespaces();
    void build_run();
    void build_etc();
    void build_dev();
    void open_log_socket(SyslogReader reader);
    void reader_loop();
    void drain_locked();

    std::string base_;     // /run/mg-sandbox
    std::string scratch_;  // base_/scratch
    int log_fd_ = -1;
    pid_t discarder_ = -1;
    int stop_fd_[2] = {-1, -1};
    std::thread reader_;
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::vector<SyslogMessage> messages_;
    int next_fake_pid_ = 40000;
};

// Forks; the child builds a Sandbox and runs `body` in it. Returns 0 when the
// body finished without a GoogleTest failure, 1 when it recorded one, 2 when
// the sandbox could not be made, 3 when the body threw, and 128 + signal when
// the child died of a signal. Use it as
//   EXPECT_EQ(0, mgtest::run_sandboxed([](mgtest::Sandbox &sb) { ... }));
// or through MG_SANDBOX_TEST below.
int run_sandboxed(const std::function<void(Sandbox &)> &body);

// Skips the current test when the sandbox cannot be made and we are not
// root; as root a sandbox that cannot be made is a failure (CI runs as root).
// Returns true when the caller should go on.
bool sandbox_or_skip();

}  // namespace mgtest

// TEST(suite, name) whose body runs inside a fresh sandbox; the body sees
// `mgtest::Sandbox &sb`.
#define MG_SANDBOX_TEST(suite, name)                                                  \
    static void suite##_##name##_sandboxed(mgtest::Sandbox &sb);                      \
    TEST(suite, name) {                                                               \
        if (!mgtest::sandbox_or_skip()) return;                                       \
        EXPECT_EQ(0, mgtest::run_sandboxed(suite##_##name##_sandboxed))               \
            << "sandboxed body failed (see the child's output above)";               \
    }                                                                                 \
    static void suite##_##name##_sandboxed([[maybe_unused]] mgtest::Sandbox &sb)
