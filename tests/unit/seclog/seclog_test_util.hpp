// Helpers shared by the secure log tests.
#pragma once

#include <mossgrove/seclog.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "seclog/seclog.hpp"
#include "testsupport.hpp"

namespace seclogtest {

// Back to the state of a fresh process: not initialised, no file.
inline void reset_writer() {
    namespace s = mg::seclog;
    g_nInitSecureLog = 0;
    s::g_szIdent[0] = s::g_szLogFilename[0] = s::g_szLockFilename[0] = '\0';
    s::g_nMaxLogSize = s::g_nMaxLogFileCount = s::g_nMGLogRotate = 0;
}

inline SecureLogRecord record(const char *message) {
    SecureLogRecord rec{7, 0x2020001, 2, 0, 1700000000, "PAM-ACL", "10.1.2.3", ""};
    snprintf(rec.szMessage, sizeof rec.szMessage, "%s", message);
    return rec;
}

inline std::vector<std::string> split(const std::string &text, char sep) {
    std::vector<std::string> out{""};
    for (char c : text) c == sep ? void(out.emplace_back()) : out.back().push_back(c);
    return out;
}

inline std::vector<std::string> lines_of(const std::string &path) {
    std::vector<std::string> lines = split(mgtest::read_file(path), '\n');
    if (lines.back().empty()) lines.pop_back();
    return lines;
}

// "<dir>/mglog.NN"
inline std::string generation(const std::string &dir, int n) {
    return dir + (n < 10 ? "/mglog.0" : "/mglog.") + std::to_string(n);
}

// Holds the lock file while `work` runs in a child: true when the child was
// still waiting after 200 ms (when `while_held` runs) and `work` then returned 0.
inline bool waits_for_lock(const std::string &lock_file, const std::function<void()> &while_held,
                           const std::function<int()> &work) {
    int held = GetFileLock(lock_file.c_str()), status = 0;
    if (held < 0) return false;
    pid_t child = fork();
    if (child == 0) alarm(10), _exit(work() == 0 ? 0 : 1);
    usleep(200000);
    bool waited = child > 0 && waitpid(child, &status, WNOHANG) == 0;
    while_held();
    FreeFileLock(held);
    if (child > 0) waitpid(child, &status, 0);
    return waited && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace seclogtest
