// The option file: reading with defaults and ranges, checking, and the exact
// written layout with its temporary-file replace.
#include <mossgrove/config.h>

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <string>

#include "testsupport.hpp"

namespace {

const std::string kRequired =
    "SecureLogDir\t/var/log/x/\nSecureLogSize\t10\nSecureLogFileCount\t3\n";

class OptionFile : public ::testing::Test {
protected:
    mgtest::TempDir dir;
    std::string path = dir / "mgopt.conf";
    MGOptionBuf opt{};

    int read(const std::string &text) {
        mgtest::write_file(path, text);
        memset(&opt, 0x5a, sizeof opt);
        return ReadMGOptionConfig(path.c_str(), &opt);
    }
    // The required keys, then one more line.
    int read_with(const std::string &line) { return read(kRequired + line + "\n"); }

    template <class Cases>
    void check_lines(const Cases &cases) {
        for (const auto &c : cases) {
            ASSERT_EQ(0, read_with(c.line)) << c.line;
            EXPECT_EQ(c.expect, opt.*c.field) << c.line;
        }
    }
};

// A complete, valid record (no kernel module: ModulePending reads as 'X').
MGOptionBuf valid_record() {
    MGOptionBuf o{};
    snprintf(o.SecureLogDir, sizeof o.SecureLogDir, "/var/log/mg");
    snprintf(o.SecureLogBakDir, sizeof o.SecureLogBakDir, "/var/backup/mg");
    o.SecureLogSize = 50;
    o.SecureLogFileCount = 7;
    o.AuditTrailAlert = 'N';
    o.ModulePending = 'X';
    o.PV_Enable = 'Y';
    o.PV_Time = 120;
    o.PV_Count = 3;
    o.PV_ProcessKill = 'N';
    o.MailEnable = 'Y';
    snprintf(o.MailServer, sizeof o.MailServer, "mail.example.org");
    snprintf(o.MailAddress, sizeof o.MailAddress, "ops@example.org");
    o.ClearAllLog = 'Y';
    o.CurrentFileRate = 40;
    o.BackupAndClear = 'N';
    o.SmsEnable = 'N';
    return o;
}

TEST_F(OptionFile, RequiredKeysAloneGiveEveryDefault) {
    ASSERT_EQ(0, read(kRequired));
    EXPECT_STREQ("/var/log/x", opt.SecureLogDir);
    EXPECT_STREQ("", opt.SecureLogBakDir);
    EXPECT_EQ(10, opt.SecureLogSize);
    EXPECT_EQ(3, opt.SecureLogFileCount);
    EXPECT_EQ('Y', opt.AuditTrailAlert);
    EXPECT_EQ('X', opt.ModulePending);
    EXPECT_EQ('Y', opt.PV_Enable);
    EXPECT_EQ(60, opt.PV_Time);
    EXPECT_EQ(5, opt.PV_Count);
    EXPECT_EQ('Y', opt.PV_ProcessKill);
    EXPECT_EQ('Y', opt.MailEnable);
    EXPECT_STREQ("", opt.MailServer);
    EXPECT_STREQ("", opt.MailAddress);
    EXPECT_EQ('N', opt.ClearAllLog);
    EXPECT_EQ(100, opt.CurrentFileRate);
    EXPECT_EQ('Y', opt.BackupAndClear);
    EXPECT_EQ('N', opt.SmsEnable);
    EXPECT_STREQ("", opt.SmsServer);
    EXPECT_STREQ("", opt.SmsTel);
    // The record is zeroed before it is filled: no stale bytes after the strings.
    EXPECT_EQ('\0', opt.SecureLogDir[sizeof opt.SecureLogDir - 1]);
    EXPECT_EQ('\0', opt.MailServer[5]);
}

TEST_F(OptionFile, UnusableRequiredValuesFailTheRead) {
    const char *bad[] = {
        // SecureLogDir missing, relative, or only "/" (empty once the slash goes).
        "SecureLogSize 10\nSecureLogFileCount 3\n",
        "SecureLogDir var/log\nSecureLogSize 10\nSecureLogFileCount 3\n",
        "SecureLogDir /\nSecureLogSize 10\nSecureLogFileCount 3\n",
        // Sizes and counts out of range, signed, not numeric, or past 32 bits.
        "SecureLogDir /l\nSecureLogSize 0\nSecureLogFileCount 3\n",
        "SecureLogDir /l\nSecureLogSize 101\nSecureLogFileCount 3\n",
        "SecureLogDir /l\nSecureLogSize +5\nSecureLogFileCount 3\n",
        "SecureLogDir /l\nSecureLogSize 4294967306\nSecureLogFileCount 3\n",
        "SecureLogDir /l\nSecureLogFileCount 3\n",
        "SecureLogDir /l\nSecureLogSize 10\nSecureLogFileCount 0\n",
        "SecureLogDir /l\nSecureLogSize 10\nSecureLogFileCount 11\n",
        "SecureLogDir /l\nSecureLogSize 10\nSecureLogFileCount 3x\n",
        "SecureLogDir /l\nSecureLogSize 10\n",
        // A relative backup directory.
        "SecureLogDir /l\nSecureLogBakDir backup/\nSecureLogSize 10\nSecureLogFileCount 3\n",
        // Empty file, comments only.
        "",
        "# SecureLogDir /l\n",
    };
    for (const char *text : bad) EXPECT_EQ(-1, read(text)) << text;
    EXPECT_EQ(-1, ReadMGOptionConfig((dir / "missing").c_str(), &opt));
    EXPECT_EQ(-1, ReadMGOptionConfig(nullptr, &opt));
    EXPECT_EQ(-1, ReadMGOptionConfig(path.c_str(), nullptr));
}

TEST_F(OptionFile, RangeLimitsAndLeadingZerosAreAccepted) {
    ASSERT_EQ(0, read("SecureLogDir=/l\nSecureLogSize = 100\nSecureLogFileCount 010\n"
                      "SecureLogBakDir /b/\nPV_Time 10\nPV_Count 20\nCurrentFileRate 1\n"));
    EXPECT_STREQ("/l", opt.SecureLogDir);
    EXPECT_STREQ("/b", opt.SecureLogBakDir);
    EXPECT_EQ(100, opt.SecureLogSize);
    EXPECT_EQ(10, opt.SecureLogFileCount);
    EXPECT_EQ(10, opt.PV_Time);
    EXPECT_EQ(20, opt.PV_Count);
    EXPECT_EQ(1, opt.CurrentFileRate);
}

// One line after the required keys, and the value it gives one field.
template <class T>
struct LineCase {
    const char *line;
    T MGOptionBuf::*field;
    T expect;
};

TEST_F(OptionFile, UnusableOptionalNumbersTakeTheirDefaults) {
    const LineCase<int32_t> cases[] = {
        {"PV_Count 1", &MGOptionBuf::PV_Count, 5},
        {"PV_Count 21", &MGOptionBuf::PV_Count, 5},
        {"PV_Time 9", &MGOptionBuf::PV_Time, 60},
        {"PV_Time 4294967306", &MGOptionBuf::PV_Time, 60},
        {"PV_Time 2147483647", &MGOptionBuf::PV_Time, 2147483647},
        {"CurrentFileRate 101", &MGOptionBuf::CurrentFileRate, 100},
        {"CurrentFileRate 5%", &MGOptionBuf::CurrentFileRate, 100},
    };
    check_lines(cases);
}

TEST_F(OptionFile, YesNoKeysMoveOnlyOnTheOppositeOfTheirDefault) {
    const LineCase<char> cases[] = {
        {"MailEnable yes", &MGOptionBuf::MailEnable, 'Y'},
        {"MailEnable no", &MGOptionBuf::MailEnable, 'Y'},
        {"MailEnable n", &MGOptionBuf::MailEnable, 'N'},
        {"PV_Enable n", &MGOptionBuf::PV_Enable, 'N'},
        {"ClearAllLog yes", &MGOptionBuf::ClearAllLog, 'N'},
        {"ClearAllLog y", &MGOptionBuf::ClearAllLog, 'Y'},
        {"SmsEnable Y", &MGOptionBuf::SmsEnable, 'Y'},
        {"SmsEnable", &MGOptionBuf::SmsEnable, 'N'},
    };
    check_lines(cases);
}

TEST_F(OptionFile, TextValuesAreCutToTheirBuffers) {
    std::string server(40, 's'), address(300, 'a');
    ASSERT_EQ(0, read(kRequired + "MailServer " + server + "\nMailAddress " + address +
                      "\nSmsServer " + server + "\nSmsTel " + address + "\n"));
    EXPECT_EQ(server.substr(0, 31), opt.MailServer);
    EXPECT_EQ(address.substr(0, 255), opt.MailAddress);
    EXPECT_EQ(server.substr(0, 31), opt.SmsServer);
    EXPECT_EQ(address.substr(0, 255), opt.SmsTel);
}

TEST(OptionCheck, EveryRuleRefusesItsOwnViolation) {
    MGOptionBuf good = valid_record();
    ASSERT_EQ(0, CheckMGOptionConfig(&good));
    const std::function<void(MGOptionBuf &)> breakers[] = {
        [](MGOptionBuf &o) { snprintf(o.SecureLogDir, sizeof o.SecureLogDir, "var/log"); },
        [](MGOptionBuf &o) { memset(o.SecureLogDir, '/', sizeof o.SecureLogDir); },
        [](MGOptionBuf &o) { snprintf(o.SecureLogBakDir, sizeof o.SecureLogBakDir, "bak"); },
        [](MGOptionBuf &o) { o.SecureLogSize = 101; },
        [](MGOptionBuf &o) { o.SecureLogFileCount = 11; },
        [](MGOptionBuf &o) { o.AuditTrailAlert = 'y'; },
        [](MGOptionBuf &o) { o.ModulePending = 'Z'; },
        [](MGOptionBuf &o) { o.PV_Time = 9; },
        [](MGOptionBuf &o) { o.PV_Count = 1; },
        [](MGOptionBuf &o) { o.MailServer[0] = '\0'; },
        [](MGOptionBuf &o) { o.MailAddress[0] = '\0'; },
        [](MGOptionBuf &o) { memset(o.MailServer, 'm', sizeof o.MailServer); },
        [](MGOptionBuf &o) { o.CurrentFileRate = 101; },
        [](MGOptionBuf &o) { o.SmsEnable = 'Y'; },  // with no server or number
        [](MGOptionBuf &o) { memset(o.SmsTel, '1', sizeof o.SmsTel); },
        // Values the file could not carry back: they would end early or add a key.
        [](MGOptionBuf &o) { snprintf(o.MailAddress, sizeof o.MailAddress, "a b"); },
        [](MGOptionBuf &o) {
            snprintf(o.MailAddress, sizeof o.MailAddress, "a\nSecureLogSize\t1");
        },
        [](MGOptionBuf &o) { snprintf(o.SmsServer, sizeof o.SmsServer, "s#1"); },
        [](MGOptionBuf &o) { snprintf(o.SecureLogDir, sizeof o.SecureLogDir, "/a=b"); },
    };
    int i = 0;
    for (const auto &breaker : breakers) {
        MGOptionBuf o = valid_record();
        breaker(o);
        EXPECT_EQ(-1, CheckMGOptionConfig(&o)) << "rule " << i;
        ++i;
    }
    // Mail and SMS settings only matter when the channel is on.
    MGOptionBuf quiet = valid_record();
    quiet.MailEnable = 'N';
    quiet.MailServer[0] = '\0';
    EXPECT_EQ(0, CheckMGOptionConfig(&quiet));
    EXPECT_EQ(-1, CheckMGOptionConfig(nullptr));
}

TEST_F(OptionFile, WriteProducesTheExactLayout) {
    MGOptionBuf o = valid_record();
    ASSERT_EQ(0, WriteMGOptionConfig(path.c_str(), &o));
    EXPECT_EQ(
        "SecureLogDir\t/var/log/mg\n"
        "SecureLogBakDir\t/var/backup/mg\n"
        "SecureLogSize\t50\n"
        "SecureLogFileCount\t7\n"
        "\n"
        "AuditTrailAlert\tN\n"
        "ModulePending\tX\n"
        "\n"
        "PV_Enable\tY\n"
        "PV_Time\t120\n"
        "PV_Count\t3\n"
        "PV_ProcessKill\tN\n"
        "\n"
        "MailEnable\tY\n"
        "MailServer\tmail.example.org\n"
        "MailAddress\tops@example.org\n"
        "\n"
        "ClearAllLog\tY\n"
        "CurrentFileRate\t40\n"
        "BackupAndClear\tN\n"
        "\n"
        "SmsEnable\tN\n"
        "SmsServer\t\n"
        "SmsTel\t\n",
        mgtest::read_file(path));
    EXPECT_FALSE(mgtest::exists(path + ".tmp"));
}

TEST_F(OptionFile, RefusedOrFailedWritesLeaveTheOldFile) {
    const std::string old = "old contents\n";
    mgtest::write_file(path, old);
    const std::string tmp = path + ".tmp";

    MGOptionBuf refused = valid_record();
    refused.MailServer[0] = '\0';
    EXPECT_EQ(-1, WriteMGOptionConfig(path.c_str(), &refused));
    EXPECT_EQ(-1, WriteMGOptionConfig(nullptr, &refused));

    // Something other than a regular file under the temporary name.
    MGOptionBuf o = valid_record();
    ASSERT_EQ(0, mkdir(tmp.c_str(), 0700));
    EXPECT_EQ(-1, WriteMGOptionConfig(path.c_str(), &o));
    ASSERT_EQ(0, rmdir(tmp.c_str()));
    const std::string elsewhere = dir / "elsewhere";
    ASSERT_EQ(0, symlink(elsewhere.c_str(), tmp.c_str()));
    EXPECT_EQ(-1, WriteMGOptionConfig(path.c_str(), &o));
    EXPECT_FALSE(mgtest::exists(elsewhere));
    ASSERT_EQ(0, unlink(tmp.c_str()));

    // The disk refuses the data: file size limit of 16 bytes.
    EXPECT_EQ(0, mgtest::run_in_child([&] {
        signal(SIGXFSZ, SIG_IGN);
        struct rlimit lim = {16, 16};
        if (setrlimit(RLIMIT_FSIZE, &lim) != 0) return 2;
        return WriteMGOptionConfig(path.c_str(), &o) == -1 ? 0 : 1;
    }));

    EXPECT_EQ(old, mgtest::read_file(path));
    EXPECT_FALSE(mgtest::exists(tmp));

    // A directory cannot be renamed over: the temporary file goes.
    const std::string taken = dir / "taken";
    ASSERT_EQ(0, mkdir(taken.c_str(), 0700));
    EXPECT_EQ(-1, WriteMGOptionConfig(taken.c_str(), &o));
    EXPECT_FALSE(mgtest::exists(taken + ".tmp"));
}

}  // namespace
