// Helpers shared by the unit tests: scratch directories, files, child processes.
#pragma once

#include <sys/types.h>

#include <cerrno>
#include <functional>
#include <string>

// errno of a call that must fail with -1 (0 when it did not fail).
#define MG_ERRNO_OF(call) ([&] { errno = 0; return (call) == -1 ? errno : 0; }())

namespace mgtest {

// A scratch directory under $TMPDIR (or /tmp), removed with its contents.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::string &path() const { return path_; }
    std::string operator/(const std::string &name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

void write_file(const std::string &path, const std::string &content, mode_t mode = 0644);
std::string read_file(const std::string &path);
bool exists(const std::string &path);
mode_t file_mode(const std::string &path);  // permission and set-id bits

// Runs fn in a forked child and returns its exit status (or 128 + signal).
int run_in_child(const std::function<int()> &fn);

// Runs fn in a forked child and returns everything it wrote to standard output.
// The child's exit status goes to *status when given.
std::string capture_stdout(const std::function<void()> &fn, int *status = nullptr);

}  // namespace mgtest
