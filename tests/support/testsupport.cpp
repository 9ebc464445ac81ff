#include "testsupport.hpp"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace mgtest {

TempDir::TempDir() {
    const char *base = getenv("TMPDIR");
    path_ = std::string(base && *base ? base : "/tmp") + "/mgtest.XXXXXX";
    if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

void write_file(const std::string &path, const std::string &content, mode_t mode) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!(out << content) || (out.close(), chmod(path.c_str(), mode) != 0))
        throw std::runtime_error("cannot write " + path);
}

std::string read_file(const std::string &path) {
    std::ostringstream ss;
    ss << std::ifstream(path, std::ios::binary).rdbuf();
    return ss.str();
}

bool exists(const std::string &path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

mode_t file_mode(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) != 0 ? static_cast<mode_t>(-1) : st.st_mode & 07777;
}

namespace {
pid_t fork_or_throw() {
    fflush(nullptr);
    pid_t pid = fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    return pid;
}

int wait_status(pid_t pid) {
    int st = 0;
    while (waitpid(pid, &st, 0) < 0) {
    }
    return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
}
}  // namespace

int run_in_child(const std::function<int()> &fn) {
    pid_t pid = fork_or_throw();
    if (pid == 0) _exit(fn());
    return wait_status(pid);
}

std::string capture_stdout(const std::function<void()> &fn, int *status) {
    int fds[2];
    if (pipe(fds) != 0) throw std::runtime_error("pipe failed");
    pid_t pid = fork_or_throw();
    if (pid == 0) {
        dup2(fds[1], STDOUT_FILENO);
        close(fds[0]);
        close(fds[1]);
        fn();
        fflush(nullptr);
        _exit(0);
    }
    close(fds[1]);
    std::string out;
    char buf[4096];
    for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;) out.append(buf, static_cast<size_t>(n));
    close(fds[0]);
    int st = wait_status(pid);
    if (status) *status = st;
    return out;
}

}  // namespace mgtest
