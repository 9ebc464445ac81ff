// The option file: reading with defaults and ranges, checking, the exact
// written layout with its temporary-file replace, and ModulePending against
// the simulated kernel module.
#include <mossgrove/config.h>

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "mgsim.h"
#include "testsupport.hpp"

namespace {

// With the upper limits, a leading zero and both separators.
const std::string kRequired = "SecureLogDir=/var/log/x/\nSecureLogSize = 100\nSecureLogFileCount\t010\n";

class OptionFile : public ::testing::Test {
protected:
    mgtest::TempDir dir;
    std::string path = dir / "mgopt.conf";
    MGOptionBuf opt{};

    void TearDown() override { mgsim_use_state(nullptr); }
    int read(const std::string &text) {
        mgtest::write_file(path, text);
        memset(&opt, 0x5a, sizeof opt);
        return ReadMGOptionConfig(path.c_str(), &opt);
    }
};

// A complete, valid record (no kernel module: ModulePending reads as 'X').
const MGOptionBuf kValid{"/var/log/mg", "/var/backup/mg", 50, 7, 'N', 'X', 'Y', 120, 3, 'N', 'Y',
                         "mail.example.org", "ops@example.org", 'Y', 40, 'N', 'N', "", ""};

TEST_F(OptionFile, DefaultsRangesAndLopsidedFlags) {
    ASSERT_EQ(0, read(kRequired));
    EXPECT_STREQ("/var/log/x", opt.SecureLogDir);
    EXPECT_EQ(std::vector<long>({100, 10, 60, 5, 100}), std::vector<long>({opt.SecureLogSize, opt.SecureLogFileCount,
                                                                          opt.PV_Time, opt.PV_Count, opt.CurrentFileRate}));
    for (const char *text : {opt.SecureLogBakDir, opt.MailServer, opt.MailAddress, opt.SmsServer, opt.SmsTel})
        EXPECT_STREQ("", text);
    EXPECT_EQ(std::string("YXYYYNYN"), std::string({opt.AuditTrailAlert, opt.ModulePending, opt.PV_Enable,
                                                    opt.PV_ProcessKill, opt.MailEnable, opt.ClearAllLog,
                                                    opt.BackupAndClear, opt.SmsEnable}));
    // One more line, and the value it gives one number or flag: out of range takes the default;
    // yes/no keys move only on the exact opposite of their default.
    const struct { const char *line; int32_t MGOptionBuf::*num; char MGOptionBuf::*flag; long expect; } cases[] = {
        {"PV_Count 1", &MGOptionBuf::PV_Count, nullptr, 5}, {"PV_Count 20", &MGOptionBuf::PV_Count, nullptr, 20},
        {"PV_Time 4294967306", &MGOptionBuf::PV_Time, nullptr, 60},
        {"PV_Time 2147483647", &MGOptionBuf::PV_Time, nullptr, 2147483647},
        {"CurrentFileRate 5%", &MGOptionBuf::CurrentFileRate, nullptr, 100},
        {"MailEnable no", nullptr, &MGOptionBuf::MailEnable, 'Y'}, {"MailEnable n", nullptr, &MGOptionBuf::MailEnable, 'N'},
        {"ClearAllLog yes", nullptr, &MGOptionBuf::ClearAllLog, 'N'}, {"ClearAllLog y", nullptr, &MGOptionBuf::ClearAllLog, 'Y'},
    };
    for (const auto &c : cases) {
        ASSERT_EQ(0, read(kRequired + c.line + "\n")) << c.line;
        EXPECT_EQ(c.expect, c.num ? long{opt.*c.num} : long{opt.*c.flag}) << c.line;
    }
    std::string server(40, 's'), address(300, 'a');
    ASSERT_EQ(0, read(kRequired + "MailServer " + server + "\nSmsTel " + address + "\n"));
    EXPECT_EQ(server.substr(0, 31), opt.MailServer) << "cut to the buffer";
    EXPECT_EQ(address.substr(0, 255), opt.SmsTel);
    // Unusable required values: SecureLogDir missing, relative or only "/"; numbers missing,
    // out of range or past 32 bits.
    for (const char *text : {"SecureLogSize 10\nSecureLogFileCount 3\n", "SecureLogDir var/log\nSecureLogSize 10\nSecureLogFileCount 3\n",
                             "SecureLogDir /\nSecureLogSize 10\nSecureLogFileCount 3\n",
                             "SecureLogDir /l\nSecureLogBakDir backup/\nSecureLogSize 10\nSecureLogFileCount 3\n",
                             "SecureLogDir /l\nSecureLogFileCount 3\n", "SecureLogDir /l\nSecureLogSize 0\nSecureLogFileCount 3\n",
                             "SecureLogDir /l\nSecureLogSize 101\nSecureLogFileCount 3\n",
                             "SecureLogDir /l\nSecureLogSize 4294967306\nSecureLogFileCount 3\n",
                             "SecureLogDir /l\nSecureLogSize 10\nSecureLogFileCount 11\n"})
        EXPECT_EQ(-1, read(text)) << text;
}

TEST(OptionCheck, EveryRuleRefusesItsOwnViolation) {
    ASSERT_EQ(0, CheckMGOptionConfig(&kValid));
    using Breaker = void (*)(MGOptionBuf &);
    const Breaker breakers[] = {
        [](MGOptionBuf &o) { snprintf(o.SecureLogDir, sizeof o.SecureLogDir, "var/log"); },
        [](MGOptionBuf &o) { memset(o.SecureLogDir, '/', sizeof o.SecureLogDir); },
        [](MGOptionBuf &o) { snprintf(o.SecureLogBakDir, sizeof o.SecureLogBakDir, "bak"); },
        [](MGOptionBuf &o) { o.SecureLogSize = 101; }, [](MGOptionBuf &o) { o.PV_Count = 1; },
        [](MGOptionBuf &o) { o.AuditTrailAlert = 'y'; }, [](MGOptionBuf &o) { o.ModulePending = 'Z'; },
        [](MGOptionBuf &o) { o.MailServer[0] = '\0'; }, [](MGOptionBuf &o) { o.MailAddress[0] = '\0'; },
        [](MGOptionBuf &o) { o.SmsEnable = 'Y', snprintf(o.SmsTel, sizeof o.SmsTel, "555"); },  // no server
        // Values the file could not carry back: they would end early or add a key.
        [](MGOptionBuf &o) { snprintf(o.MailAddress, sizeof o.MailAddress, "a\nSecureLogSize\t1"); },
        [](MGOptionBuf &o) { snprintf(o.SmsServer, sizeof o.SmsServer, "s#1"); },
        [](MGOptionBuf &o) { snprintf(o.SecureLogDir, sizeof o.SecureLogDir, "/a=b"); },
    };
    int i = 0;
    for (const auto &breaker : breakers) {
        MGOptionBuf o = kValid;
        breaker(o);
        EXPECT_EQ(-1, CheckMGOptionConfig(&o)) << "rule " << i++;
    }
}

TEST_F(OptionFile, WriteProducesTheExactLayoutOrLeavesTheOldFile) {
    ASSERT_EQ(0, WriteMGOptionConfig(path.c_str(), &kValid));
    EXPECT_EQ("SecureLogDir\t/var/log/mg\nSecureLogBakDir\t/var/backup/mg\nSecureLogSize\t50\n"
              "SecureLogFileCount\t7\n\n"
              "AuditTrailAlert\tN\nModulePending\tX\n\n"
              "PV_Enable\tY\nPV_Time\t120\nPV_Count\t3\nPV_ProcessKill\tN\n\n"
              "MailEnable\tY\nMailServer\tmail.example.org\nMailAddress\tops@example.org\n\n"
              "ClearAllLog\tY\nCurrentFileRate\t40\nBackupAndClear\tN\n\n"
              "SmsEnable\tN\nSmsServer\t\nSmsTel\t\n",
              mgtest::read_file(path));
    // Refused or failed writes leave the old file and no temporary one.
    const std::string old = "old contents\n", tmp = path + ".tmp";
    mgtest::write_file(path, old);
    MGOptionBuf o = kValid;
    o.MailServer[0] = '\0';
    EXPECT_EQ(-1, WriteMGOptionConfig(path.c_str(), &o)) << "refused by the check";
    o = kValid;
    // A link under the temporary name is not followed.
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
}

// Only a loaded module whose version ends in an even number of 6 or more keeps
// the file's setting (the version rule itself is tested with the module control).
TEST_F(OptionFile, ModulePendingFollowsTheKernelModule) {
    ASSERT_EQ(0, mgsim_use_state((dir / "state").c_str()));
    ASSERT_EQ(0, mgsim_reset());
    const struct { const char *version; int absent; std::vector<const char *> values; const char *want; } cases[] = {
        {"1.2.10", 0, {"Y", "y", "N", "X", "yes"}, "YYNXX"}, {"2.0.7", 0, {"Y", "N"}, "XX"}, {"2.0.8", 1, {"Y"}, "X"}};
    for (const auto &c : cases) {
        ASSERT_EQ(0, mgsim_set_version(c.version));
        ASSERT_EQ(0, mgsim_set_absent(c.absent));
        std::string got;
        for (const char *v : c.values) {
            ASSERT_EQ(0, read("SecureLogDir /l\nSecureLogSize 1\nSecureLogFileCount 1\nModulePending " + std::string(v) + "\n"));
            got += opt.ModulePending;
        }
        EXPECT_EQ(c.want, got) << c.version;
    }
}

}  // namespace
