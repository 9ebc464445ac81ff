// Helpers shared by the secure log tests.
#pragma once

#include <mossgrove/seclog.h>

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <thread>
#include <string>
#include <vector>

#include "seclog/seclog.hpp"
#include "testsupport.hpp"

namespace seclogtest {

// Back to the state of a fresh process: not initialised, no file.
inline void reset_writer() {
    g_nInitSecureLog = 0;
    mg::seclog::g_szIdent[0] = '\0';
    mg::seclog::g_szLogFilename[0] = '\0';
    mg::seclog::g_szLockFilename[0] = '\0';
    mg::seclog::g_nMaxLogSize = 0;
    mg::seclog::g_nMaxLogFileCount = 0;
    mg::seclog::g_nMGLogRotate = 0;
}

inline SecureLogRecord record(const char *message, const char *program = "PAM-ACL") {
    SecureLogRecord rec;
    memset(&rec, 0, sizeof rec);
    rec.nSource = 7;
    rec.nFlag = 0x2020001;
    rec.nLevel = 2;
    rec.tEvent = 1700000000;
    snprintf(rec.szProgram, sizeof rec.szProgram, "%s", program);
    snprintf(rec.szAddress, sizeof rec.szAddress, "%s", "10.1.2.3");
    snprintf(rec.szMessage, sizeof rec.szMessage, "%s", message);
    return rec;
}

inline std::vector<std::string> split(const std::string &text, char sep) {
    std::vector<std::string> out{""};
    for (char c : text) {
        if (c == sep) out.emplace_back();
        else out.back() += c;
    }
    return out;
}

inline std::vector<std::string> lines_of(const std::string &path) {
    std::vector<std::string> lines = split(mgtest::read_file(path), '\n');
    if (!lines.empty() && lines.back().empty()) lines.pop_back();
    return lines;
}

// "<dir>/mglog.NN"
inline std::string generation(const std::string &dir, int n) {
    char name[32];
    snprintf(name, sizeof name, "/mglog.%02d", n);
    return dir + name;
}

// Holds the lock file, runs `work` in a child, checks after 200 ms that the
// child still waits (and runs `while_held`), releases the lock and reaps the
// child. True when the child waited and then `work` returned 0.
inline bool waits_for_lock(const std::string &lock_file, const std::function<void()> &while_held,
                           const std::function<int()> &work) {
    int held = GetFileLock(lock_file.c_str());
    if (held < 0) return false;
    pid_t child = fork();
    if (child == 0) {
        alarm(10);
        _exit(work() == 0 ? 0 : 1);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    int status = 0;
    bool waited = child > 0 && waitpid(child, &status, WNOHANG) == 0;
    while_held();
    FreeFileLock(held);
    if (child > 0) waitpid(child, &status, 0);
    return waited && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace seclogtest
