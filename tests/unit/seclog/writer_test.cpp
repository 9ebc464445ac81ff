// The secure log writer without syslog: set-up, the file form, a hostile log
// directory, and the lock between real processes (rotation: concurrency_test).
#include <mossgrove/seclog.h>

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include "seclog_test_util.hpp"

using namespace seclogtest;

namespace {

struct Writer : ::testing::Test {
    mgtest::TempDir dir;
    std::string current = generation(dir.path(), 1), lock_file = dir / "mglog.lock";

    void SetUp() override { reset_writer(), umask(022); }
    void TearDown() override { reset_writer(); }
    void init(int max_size, int count, int rotate) {
        ASSERT_EQ(0, InitSecureLog("MGLog", current.c_str(), max_size, count, rotate));
    }
    void save(const char *message) {
        SecureLogRecord rec = record(message);
        ASSERT_EQ(0, SaveSecureLog(MG_SECLOG_FILE, &rec)) << message;
    }
};

TEST_F(Writer, InitRefusesBadSettingsAndKeepsTheOldOnes) {
    // The path must end in the generation number, and every name derived from it must fit.
    const std::string long_path = "/" + std::string(1015, 'd') + "/mglog.01";
    for (const char *path : {"/x/mglog", long_path.c_str()}) EXPECT_EQ(-1, InitSecureLog("MGLog", path, 10, 5, 1));
    SecureLogRecord early = record("early");
    EXPECT_EQ(-1, SaveSecureLog(MG_SECLOG_FILE, &early)) << "nothing is written before a set-up";
    init(10, 5, 1);
    EXPECT_EQ(-1, InitSecureLog("MGLog", "/elsewhere/mglog.01", -1, 5, 0));
    EXPECT_STREQ(lock_file.c_str(), mg::seclog::g_szLockFilename);
}

TEST_F(Writer, FileRecordHasEightFieldsNoControlCharacterCanSplitOrForge) {
    init(100000, 3, 1);
    SecureLogRecord rec = record("host\n7\t0\t1\t0\t0\tPAM-ACL\t1.2.3.4\tforged");
    rec.nFlag = -5;
    snprintf(rec.szProgram, sizeof rec.szProgram, "P\tX");
    memset(rec.szAddress, 'A', sizeof rec.szAddress);  // unterminated: bounded by its buffer
    ASSERT_EQ(0, SaveSecureLog(MG_SECLOG_FILE, &rec));
    std::vector<std::string> lines = lines_of(current);
    ASSERT_EQ(1u, lines.size());
    const std::string logged = split(lines[0], '\t').at(3);
    EXPECT_LE(std::abs(std::stol(logged) - time(nullptr)), 5);
    EXPECT_EQ("7\t-5\t2\t" + logged + "\t1700000000\tP X\t" + std::string(16, 'A') +
                  "\thost 7 0 1 0 0 PAM-ACL 1.2.3.4 forged",
              lines[0]);
}

TEST_F(Writer, PlantedLinksAndOpenDirectoriesAreNeverWrittenThrough) {
    umask(077);  // modes are exact whatever the umask
    init(10, 2, 1);
    save("creates the current file and the lock");
    EXPECT_EQ(0644u, mgtest::file_mode(current));
    EXPECT_EQ(02600u, mgtest::file_mode(lock_file));
    ASSERT_EQ(0u, geteuid()) << "the directory check applies to root";
    mgtest::TempDir elsewhere;
    const std::string victim = elsewhere / "victim";
    mgtest::write_file(victim, "keep\n");
    init(100000, 3, 1);
    // A link in place of the current generation, then of the lock file.
    for (const std::string &planted : {current, lock_file}) {
        unlink(planted.c_str());
        ASSERT_EQ(0, symlink(victim.c_str(), planted.c_str()));
        save("through the link");
        EXPECT_EQ("keep\n", mgtest::read_file(victim)) << planted;
        ASSERT_EQ(0, unlink(planted.c_str()));
    }
    // A directory its group or others could write is refused before anything is opened in it.
    for (mode_t open_mode : {0770, 0707}) {
        ASSERT_EQ(0, chmod(dir.path().c_str(), open_mode));
        save("into an open directory");
        EXPECT_FALSE(mgtest::exists(current) || mgtest::exists(lock_file)) << std::oct << open_mode;
    }
    ASSERT_EQ(0, chmod(dir.path().c_str(), 0700));
}

TEST_F(Writer, WriterWaitsForTheLockHolderAndAKilledHoldersLockIsFree) {
    init(100000, 3, 1);
    EXPECT_TRUE(waits_for_lock(lock_file, [&] { EXPECT_FALSE(mgtest::exists(current)); }, [] {
        SecureLogRecord rec = record("after the holder");
        return SaveSecureLog(MG_SECLOG_FILE, &rec);
    }));
    EXPECT_EQ(1u, lines_of(current).size());

    int ready[2];
    char c;
    ASSERT_EQ(0, pipe(ready));
    pid_t holder = fork();
    if (holder == 0) _exit(GetFileLock(lock_file.c_str()) >= 0 && write(ready[1], "x", 1) == 1 ? pause() : 1);
    ASSERT_EQ(1, read(ready[0], &c, 1));
    kill(holder, SIGKILL), waitpid(holder, nullptr, 0), close(ready[0]), close(ready[1]);
    EXPECT_EQ(0, mgtest::run_in_child([&] { return alarm(10), GetFileLock(lock_file.c_str()) >= 0 ? 0 : 1; }));
}

}  // namespace
