#include "sandbox.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utmpx.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <stdexcept>

namespace mgtest {
namespace {

void check(int rc, const std::string &what) {
    if (rc != 0) throw std::runtime_error("sandbox: " + what + ": " + std::strerror(errno));
}

void do_mount(const char *source, const std::string &target, const char *type, unsigned long flags,
              const char *data = nullptr) {
    check(mount(source, target.c_str(), type, flags, data), "mount " + target);
}

void make_dir(const std::string &path, mode_t mode = 0755) {
    check(mkdir(path.c_str(), mode) != 0 && errno != EEXIST, "mkdir " + path);
}

// Writes a whole file, replacing it (with `mode`) or appending.
void put_file(const std::string &path, std::string_view content, bool append, mode_t mode) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | (append ? O_APPEND : O_TRUNC), mode);
    check(fd < 0, "open " + path);
    bool ok = write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size()) &&
              (append || fchmod(fd, mode) == 0);
    check((close(fd) != 0) | !ok, "write " + path);
}

// utmpx text fields need not be NUL terminated when full.
template <size_t N>
void fill_field(char (&dst)[N], const std::string &src) {
    std::memcpy(dst, src.data(), std::min(N, src.size()));
}

// Takes apart "<PRI>Mmm dd hh:mm:ss ident[pid]: text" (the pid part optional).
SyslogMessage parse_syslog_datagram(std::string_view raw) {
    SyslogMessage m;
    m.raw = std::string(raw);
    std::string_view rest = raw;
    while (!rest.empty() && (rest.back() == '\n' || rest.back() == '\0')) rest.remove_suffix(1);
    if (size_t close = rest.find('>'); rest.size() > 2 && rest[0] == '<' && close != std::string_view::npos) {
        m.priority = std::atoi(std::string(rest.substr(1, close - 1)).c_str());
        rest.remove_prefix(close + 1);
    }
    if (rest.size() >= 16 && rest[3] == ' ' && rest[9] == ':' && rest[15] == ' ') rest.remove_prefix(16);
    size_t colon = rest.find(": ");
    m.text = std::string(colon == std::string_view::npos ? rest : rest.substr(colon + 2));
    if (colon == std::string_view::npos) return m;
    std::string_view tag = rest.substr(0, colon);
    if (size_t open = tag.rfind('['); !tag.empty() && tag.back() == ']' && open != std::string_view::npos) {
        m.pid = static_cast<pid_t>(std::atol(std::string(tag.substr(open + 1)).c_str()));
        tag = tag.substr(0, open);
    }
    m.ident = std::string(tag);
    return m;
}

int wait_child(pid_t pid) {
    int st = 0;
    while (waitpid(pid, &st, 0) < 0)
        if (errno != EINTR) return -1;
    return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
}

}  // namespace

std::string SyslogMessage::line() const {
    return (priority >= 0 ? "<" + std::to_string(priority) + ">" : "") + ident +
           (pid != 0 ? "[" + std::to_string(pid) + "]" : "") + ": " + text;
}

Sandbox::Sandbox(SyslogReader reader) : base_("/run/mg-sandbox"), scratch_(base_ + "/scratch") {
    check(unshare(CLONE_NEWNS | CLONE_NEWUTS), "unshare");
    do_mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE);  // nothing propagates back to the host
    check(sethostname(kHostName, std::strlen(kHostName)), "sethostname");
    do_mount("mg-sandbox-run", "/run", "tmpfs", MS_NOSUID, "mode=0755");
    make_dir(base_, 0700);
    for (const char *sub : {"/scratch", "/etc-upper", "/etc-work", "/old-dev"}) make_dir(base_ + sub);
    put_file(kUtmpx, "", false, 0664);
    make_dir("/run/lock", 01777);
    build_etc();
    build_dev();
    open_log_socket(reader);
    check(setenv("TZ", "UTC0", 1), "setenv TZ");  // local time is UTC in the sandbox
    tzset();
}

Sandbox::~Sandbox() {
    if (discarder_ > 0 && kill(discarder_, SIGKILL) == 0) wait_child(discarder_);
    if (reader_.joinable()) {
        while (write(stop_fd_[1], "x", 1) < 0 && errno == EINTR) {
        }
        reader_.join();
    }
    for (int fd : {log_fd_, stop_fd_[0], stop_fd_[1]})
        if (fd >= 0) close(fd);
}

void Sandbox::build_etc() {
    std::string opts = "lowerdir=/etc,upperdir=" + base_ + "/etc-upper,workdir=" + base_ + "/etc-work";
    do_mount("mg-sandbox-etc", "/etc", "overlay", 0, opts.c_str());
    write_etc("nsswitch.conf",
              "passwd: files\ngroup: files\nshadow: files\ngshadow: files\nhosts: files\n"
              "networks: files\nservices: files\nprotocols: files\n");
    write_etc("passwd", "root:x:0:0:root:/root:/bin/sh\nnobody:x:65534:65534:nobody:/nonexistent:/usr/sbin/nologin\n");
    write_etc("shadow", "root:*:19000:0:99999:7:::\nnobody:*:19000:0:99999:7:::\n", 0640);
    write_etc("group", "root:x:0:\nnogroup:x:65534:\n");
    write_etc("gshadow", "root:*::\nnogroup:*::\n", 0640);
    write_etc("hosts", std::string("127.0.0.1\tlocalhost\n::1\tlocalhost ip6-localhost ip6-loopback\n") +
                           kHostAddress + "\t" + kHostName + "\n");
    write_etc("hostname", std::string(kHostName) + "\n");
    write_etc("resolv.conf", "# no name servers in the sandbox\n");
}

void Sandbox::build_dev() {
    const std::string old = base_ + "/old-dev";
    do_mount("/dev", old, nullptr, MS_BIND | MS_REC);
    do_mount("mg-sandbox-dev", "/dev", "tmpfs", MS_NOSUID, "mode=0755");
    for (std::string node : {"null", "zero", "full", "random", "urandom", "tty"}) {
        put_file("/dev/" + node, "", false, 0644);  // a bind mount needs an existing target
        do_mount((old + "/" + node).c_str(), "/dev/" + node, nullptr, MS_BIND);
    }
    make_dir("/dev/pts");
    do_mount("devpts", "/dev/pts", "devpts", MS_NOSUID | MS_NOEXEC, "newinstance,ptmxmode=0666,mode=0620");
    make_dir("/dev/shm", 01777);
    do_mount("mg-sandbox-shm", "/dev/shm", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777");
    for (auto [target, link] : {std::pair{"pts/ptmx", "/dev/ptmx"}, {"/proc/self/fd", "/dev/fd"},
                                {"/proc/self/fd/0", "/dev/stdin"}, {"/proc/self/fd/1", "/dev/stdout"},
                                {"/proc/self/fd/2", "/dev/stderr"}})
        check(symlink(target, link), std::string("symlink ") + link);
    check(umount2(old.c_str(), MNT_DETACH), "umount old /dev");
}

void Sandbox::open_log_socket(SyslogReader reader) {
    log_fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    check(log_fd_ < 0, "socket");
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strcpy(addr.sun_path, "/dev/log");
    check(bind(log_fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr), "bind /dev/log");
    check(chmod("/dev/log", 0666), "chmod /dev/log");
    int size = 4 << 20;  // best effort: a larger buffer only makes bursts cheaper
    (void)setsockopt(log_fd_, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    if (reader == SyslogReader::thread) {
        check(pipe2(stop_fd_, O_CLOEXEC), "pipe");
        reader_ = std::thread([this] { reader_loop(); });
        return;
    }
    std::fflush(nullptr);
    pid_t parent = getpid();
    discarder_ = fork();
    check(discarder_ < 0, "fork");
    if (discarder_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(0);
        char buf[8192];
        for (pollfd fd = {log_fd_, POLLIN, 0};;)
            if (poll(&fd, 1, -1) > 0)
                while (recv(log_fd_, buf, sizeof buf, MSG_DONTWAIT) > 0) {
                }
    }
    close(log_fd_);
    log_fd_ = -1;
}

void Sandbox::reader_loop() {
    for (;;) {
        pollfd fds[2] = {{log_fd_, POLLIN, 0}, {stop_fd_[0], POLLIN, 0}};
        int n = poll(fds, 2, -1);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 || (fds[1].revents & POLLIN)) return;
        if (fds[0].revents & POLLIN) {
            std::lock_guard<std::mutex> lock(mutex_);
            drain_locked();
        }
        arrived_.notify_all();
    }
}

void Sandbox::drain_locked() {
    static thread_local std::vector<char> buf(1 << 16);
    for (ssize_t n; log_fd_ >= 0;) {
        n = recv(log_fd_, buf.data(), buf.size(), MSG_DONTWAIT);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return;  // EAGAIN: empty
        messages_.push_back(parse_syslog_datagram(std::string_view(buf.data(), static_cast<size_t>(n))));
    }
}

std::vector<SyslogMessage> Sandbox::syslog() { return wait_syslog(0, std::chrono::milliseconds(0)); }

std::vector<SyslogMessage> Sandbox::take_syslog() {
    std::lock_guard<std::mutex> lock(mutex_);
    drain_locked();
    return std::exchange(messages_, {});
}

std::vector<SyslogMessage> Sandbox::wait_syslog(size_t count, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    arrived_.wait_for(lock, timeout, [&] {
        drain_locked();
        return messages_.size() >= count;
    });
    return messages_;
}

void Sandbox::write_etc(const std::string &relative, std::string_view content, mode_t mode) {
    std::filesystem::create_directories(std::filesystem::path("/etc/" + relative).parent_path());
    put_file("/etc/" + relative, content, false, mode);
}

void Sandbox::append_etc(const std::string &relative, std::string_view content) {
    put_file("/etc/" + relative, content, true, 0644);
}

void Sandbox::add_user(const std::string &name, uid_t uid, gid_t gid, const std::string &home,
                       const std::string &shell) {
    append_etc("passwd", name + ":x:" + std::to_string(uid) + ":" + std::to_string(gid) + ":" + name +
                             " (test):" + home + ":" + shell + "\n");
    append_etc("shadow", name + ":*:19000:0:99999:7:::\n");
}

void Sandbox::add_group(const std::string &name, gid_t gid, const std::vector<std::string> &members) {
    std::string line = name + ":x:" + std::to_string(gid) + ":";
    for (size_t i = 0; i < members.size(); ++i) line += (i ? "," : "") + members[i];
    append_etc("group", line + "\n");
}

void Sandbox::add_host(const std::string &address, const std::string &names) {
    append_etc("hosts", address + "\t" + names + "\n");
}

void Sandbox::add_utmpx(const std::string &user, const std::string &line, const std::string &host, short type,
                        pid_t pid) {
    utmpx u{};
    u.ut_type = type;
    u.ut_pid = pid != 0 ? pid : next_fake_pid_++;
    fill_field(u.ut_line, line);
    fill_field(u.ut_id, line.size() > 4 ? line.substr(line.size() - 4) : line);
    fill_field(u.ut_user, user);
    fill_field(u.ut_host, host);
    u.ut_tv.tv_sec = static_cast<int32_t>(time(nullptr));
    put_file(kUtmpx, std::string_view(reinterpret_cast<const char *>(&u), sizeof u), true, 0664);
}

void Sandbox::clear_utmpx() { put_file(kUtmpx, "", false, 0664); }

int run_sandboxed(const std::function<void(Sandbox &)> &body) {
    std::fflush(nullptr);
    pid_t parent = getpid();
    pid_t pid = fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid > 0) return wait_child(pid);
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // the child never outlives the test process
    if (getppid() != parent) _exit(2);
    int code = 2;  // until the sandbox stands
    try {
        Sandbox sb;
        code = 3;
        body(sb);
        code = ::testing::Test::HasFailure() ? 1 : 0;
    } catch (const std::exception &e) {
        std::fprintf(stderr, "%s%s\n", code == 3 ? "sandboxed body threw: " : "", e.what());
    }
    std::fflush(nullptr);
    _exit(code);
}

// As root a sandbox that cannot be made fails the test (run_sandboxed says 2).
bool sandbox_or_skip() {
    if (geteuid() == 0) return true;
    []() { GTEST_SKIP() << "system tests need root (mount namespaces); skipped"; }();
    return false;
}

}  // namespace mgtest
