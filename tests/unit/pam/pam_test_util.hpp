// Shared pieces of the PAM module's unit tests: captured log lines, request
// records, rule directories and utmpx files made on the fly.
#pragma once

#include "pam/pam_acl.hpp"

#include "common/paths.hpp"
#include "testsupport.hpp"

#include <arpa/inet.h>
#include <sys/stat.h>
#include <utmpx.h>

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace pamtest {

// Collects what _log_err would send to syslog while it lives.
class LogCapture {
public:
    LogCapture() {
        lines().clear();
        mg::pam::set_log_sink_for_tests([](int, const char *text) { lines().emplace_back(text); });
    }
    ~LogCapture() { mg::pam::set_log_sink_for_tests(nullptr); }
    const std::vector<std::string> &texts() const { return lines(); }

private:
    static std::vector<std::string> &lines() {
        static std::vector<std::string> v;
        return v;
    }
};

inline mg::pam::PamRequest request(const char *user, const char *service, const char *rhost, const char *tty) {
    mg::pam::PamRequest r;
    snprintf(r.account.name, sizeof r.account.name, "%s", user);
    snprintf(r.rule_name, sizeof r.rule_name, "%s", user);
    r.service.assign(service);
    r.rhost.assign(rhost);
    r.tty.assign(tty);
    if (rhost != nullptr) r.rhost_addr = inet_addr(rhost);
    return r;
}

// A rule directory (with user/ and group/) and a utmpx file, installed as the
// module's paths for the life of the object.
class RuleDir {
public:
    RuleDir() {
        mkdir((dir_ / "user").c_str(), 0755);
        mkdir((dir_ / "group").c_str(), 0755);
        mg::paths::override_for_tests(nullptr, dir_.path().c_str(), utmpx().c_str());
    }
    ~RuleDir() { mg::paths::override_for_tests(nullptr, nullptr, nullptr); }
    void write(const std::string &relative, const std::string &content) { mgtest::write_file(dir_ / relative, content); }
    std::string path(const std::string &relative) const { return dir_ / relative; }
    std::string utmpx() const { return dir_ / "utmp"; }

    void add_session(const char *user, const char *line, const char *host = "", short type = USER_PROCESS) {
        struct utmpx u;
        memset(&u, 0, sizeof u);
        u.ut_type = type;
        u.ut_pid = ++pid_;
        strncpy(u.ut_user, user, sizeof u.ut_user);
        strncpy(u.ut_line, line, sizeof u.ut_line);
        strncpy(u.ut_host, host, sizeof u.ut_host);
        std::ofstream out(utmpx(), std::ios::binary | std::ios::app);
        out.write(reinterpret_cast<const char *>(&u), sizeof u);
    }

private:
    mgtest::TempDir dir_;
    int pid_ = 1000;
};

}  // namespace pamtest
