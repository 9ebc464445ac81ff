// What the secure log sends to syslog, read from a datagram socket bound at
// /dev/log inside a private mount namespace.
#include <mossgrove/seclog.h>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>

#include "common/paths.hpp"
#include "sandbox.hpp"
#include "seclog_test_util.hpp"

using namespace seclogtest;

namespace {

// The display form of rec as the writer sends it (tLogged set by the save).
std::string display(const SecureLogRecord &rec) {
    char buf[2048];
    snprintf(buf, sizeof buf, "%d|%d|%d|%d|%d|%s|%s|%s", rec.nSource, rec.nFlag, rec.nLevel, rec.tLogged,
             rec.tEvent, rec.szProgram, rec.szAddress, rec.szMessage);
    return buf;
}

void expect_from_writer(const mgtest::SyslogMessage &m) {
    EXPECT_EQ("MGLog", m.ident) << m.raw;
    EXPECT_EQ(getpid(), m.pid) << m.raw;
    EXPECT_EQ(LOG_USER | LOG_ERR, m.priority) << m.raw;
}

MG_SANDBOX_TEST(SecureLogSyslog, TargetsAndTheDisplayFormVerbatim) {
    reset_writer();
    ASSERT_EQ(0, InitSecureLog("MGLog", "", 0, 0, 0));
    // Conversion directives in the text reach syslog as they are.
    SecureLogRecord rec = record("user %s%n%d at 100% denied");
    ASSERT_EQ(0, SaveSecureLog(MG_SECLOG_SYSLOG, &rec));
    ASSERT_EQ(0, SaveSecureLog(MG_SECLOG_FILE, &rec));  // no file: to syslog instead
    ASSERT_EQ(0, SaveSecureLog(MG_SECLOG_FILE | MG_SECLOG_SYSLOG, &rec));  // once
    auto got = sb.wait_syslog(4, std::chrono::milliseconds(300));
    ASSERT_EQ(3u, got.size());
    expect_from_writer(got[0]);
    EXPECT_EQ(display(rec), got[2].text);
    sb.clear_syslog();
    std::string current = generation(sb.scratch(), 1);
    ASSERT_EQ(0, InitSecureLog("MGLog", current.c_str(), 1000, 2, 1));
    std::string out = mgtest::capture_stdout([&] {
        EXPECT_EQ(0, SaveSecureLog(MG_SECLOG_STDOUT | MG_SECLOG_SYSLOG | MG_SECLOG_FILE, &rec));
    });
    got = sb.wait_syslog(2, std::chrono::milliseconds(300));
    ASSERT_EQ(1u, got.size());
    EXPECT_EQ(got[0].text + "\n", out);
    EXPECT_EQ(1u, lines_of(current).size());
}

// The log file or the lock file cannot be opened (a directory has its name):
// the failure is reported first (source of the record, flag 1, level 4, logged
// and event time equal), then the record goes to syslog.
MG_SANDBOX_TEST(SecureLogSyslog, OpenAndLockFailuresReportThenSendTheRecord) {
    const std::string current = generation(sb.scratch(), 1), lock = sb.scratch() + "/mglog.lock";
    const std::pair<std::string, std::string> cases[] = {
        {current, "Failed to write SecureLog. [open fail - " + current + "]"},
        {lock, "Failed to write SecureLog. [lock fail - " + std::to_string(EISDIR) + "]"}};
    for (const auto &[taken, failure] : cases) {
        reset_writer();
        unlink(lock.c_str());
        ASSERT_EQ(0, mkdir(taken.c_str(), 0700));
        ASSERT_EQ(0, InitSecureLog("MGLog", current.c_str(), 1000, 2, 1));
        SecureLogRecord rec = record("cannot write");
        EXPECT_EQ(0, SaveSecureLog(MG_SECLOG_FILE, &rec));
        auto got = sb.wait_syslog(2);
        ASSERT_EQ(2u, got.size());
        std::vector<std::string> f = split(got[0].text, '|');
        ASSERT_EQ(8u, f.size()) << got[0].text;
        EXPECT_EQ("7|1|4|" + f[3] + "|" + f[3] + "|PAM-ACL|10.1.2.3|" + failure, got[0].text);
        expect_from_writer(got[0]);
        expect_from_writer(got[1]);
        EXPECT_EQ(display(rec), got[1].text);
        ASSERT_EQ(0, rmdir(taken.c_str()));
        sb.clear_syslog();
        EXPECT_FALSE(mgtest::exists(current));
    }
}

// The tools set the writer up from the option file, with rotation off.
MG_SANDBOX_TEST(SecureLogSyslog, ToolRecordCarriesThisHostsAddress) {
    reset_writer();
    const std::string root = sb.scratch() + "/root", log = sb.scratch() + "/log", evmg = sb.scratch() + "/evmg";
    ASSERT_FALSE(mkdir(root.c_str(), 0755) || mkdir((root + "/conf").c_str(), 0755) || mkdir(log.c_str(), 0700));
    mg::paths::override_for_tests(evmg.c_str(), nullptr, nullptr);
    mgtest::write_file(evmg, "MG_ROOT=" + root + "/\n");
    mgtest::write_file(root + "/conf/mgopt.conf", "SecureLogDir " + log + "/\nSecureLogSize 7\nSecureLogFileCount 4\n");
    ASSERT_EQ(0, cmd_init_seclog());
    namespace s = mg::seclog;
    EXPECT_EQ(std::tuple(7000000, 4, 0), std::tuple(s::g_nMaxLogSize, s::g_nMaxLogFileCount, s::g_nMGLogRotate));

    for (int outside : {0, 7}) EXPECT_EQ(1, cmd_save_seclog(outside, "tool", "x"));  // levels are 1..6
    EXPECT_FALSE(mgtest::exists(log + "/mglog.01"));
    ASSERT_EQ(0, cmd_save_seclog(3, "a-very-long-program-name", "backup done"));
    ASSERT_EQ(0, cmd_save_seclog(6, nullptr, nullptr));
    std::vector<std::string> lines = lines_of(log + "/mglog.01");
    ASSERT_EQ(2u, lines.size());
    std::vector<std::string> f = split(lines[0], '\t');
    ASSERT_EQ(8u, f.size());
    EXPECT_LE(std::abs(std::stol(f[3]) - std::stol(f[4])), 1);  // event time: now
    EXPECT_EQ("4\t0\t3\t" + f[3] + "\t" + f[4] + "\ta-very-long-pro\t" + mgtest::Sandbox::kHostAddress +
                  "\tbackup done",
              lines[0]);
    EXPECT_TRUE(sb.syslog().empty());
    mg::paths::override_for_tests(nullptr, nullptr, nullptr);
}

}  // namespace
