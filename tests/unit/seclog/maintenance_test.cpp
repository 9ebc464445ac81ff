// Secure log maintenance: size, dated backup, shrink and clear. The tool entry
// points are in syslog_test (they need the sandbox's host address).
#include <mossgrove/seclog.h>

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <string>
#include <tuple>

#include "seclog_test_util.hpp"
#include "testsupport.hpp"

using namespace seclogtest;

namespace {

class Maintenance : public ::testing::Test {
protected:
    mgtest::TempDir dir;
    std::string gen(int n) const { return generation(dir.path(), n); }
};

// Numbered lines "line 000 ....\n" of varying length, `total` bytes in all.
std::string records(size_t total) {
    std::string text;
    for (int i = 0; text.size() < total; ++i)
        text += "line " + std::to_string(i) + std::string(static_cast<size_t>(i % 7), '.') + "\n";
    text.resize(total);
    return text;
}

std::vector<std::string> entries(const std::string &path) {
    std::vector<std::string> names;
    DIR *d = opendir(path.c_str());
    if (d == nullptr) return names;
    while (dirent *e = readdir(d))
        if (e->d_name[0] != '.') names.emplace_back(e->d_name);
    closedir(d);
    std::sort(names.begin(), names.end());
    return names;
}

// What ReduceSecureLog should leave: the last keep bytes from their first
// record boundary on.
std::string newest_records(const std::string &text, size_t keep) {
    const std::string tail = text.substr(text.size() - keep);
    size_t newline = tail.find('\n');
    return newline == std::string::npos ? "" : tail.substr(newline + 1);
}

TEST_F(Maintenance, SizeAddsThePresentGenerations) {
    mgtest::write_file(gen(1), std::string(100, 'a'));
    mgtest::write_file(gen(3), std::string(50, 'c'));
    EXPECT_EQ(150, GetSecureLogSize(dir.path().c_str(), 3));
    EXPECT_EQ(100, GetSecureLogSize(dir.path().c_str(), 2));
}

TEST_F(Maintenance, ReduceKeepsTheNewestWholeRecords) {
    const std::string text = records(1000);
    struct Case {
        std::string before;
        int size, percent;
        std::string after;
    };
    const Case cases[] = {
        {text, 1000, 50, newest_records(text, 500)},
        {text, 400, 50, newest_records(text, 200)},  // the keep size counts from `size`
        {records(300), 10, 5, ""},                   // keep 0: emptied
        {"a\n" + std::string(200, 'b'), 100, 50, ""},  // no boundary among the kept bytes
    };
    for (const Case &c : cases) {
        mgtest::write_file(gen(1), c.before);
        ASSERT_EQ(0, ReduceSecureLog(gen(1).c_str(), c.size, c.percent));
        EXPECT_EQ(c.after, mgtest::read_file(gen(1))) << c.size << " " << c.percent;
        EXPECT_EQ(0644u, mgtest::file_mode(gen(1)));
        EXPECT_FALSE(mgtest::exists(gen(1) + ".tmp"));
    }

    // A stale working file is replaced.
    mgtest::write_file(gen(1), records(300));
    mgtest::write_file(gen(1) + ".tmp", "stale");
    EXPECT_EQ(0, ReduceSecureLog(gen(1).c_str(), 100, 90));
    EXPECT_FALSE(mgtest::exists(gen(1) + ".tmp"));
}

TEST_F(Maintenance, ClearRemovesGenerationsAndTreatsTheCurrentFile) {
    const std::vector<std::string> kept{"mglog.01", "mglog.lock"};
    for (int percent : {100, 50, 0}) {
        for (int n = 1; n <= 10; ++n) mgtest::write_file(gen(n), records(300));
        ASSERT_EQ(0, ClearSecureLog(dir.path().c_str(), 100, percent));
        if (percent == 0) {
            EXPECT_EQ((std::vector<std::string>{"mglog.lock"}), entries(dir.path()));
            continue;
        }
        EXPECT_EQ(kept, entries(dir.path())) << percent;
        if (percent == 100) EXPECT_EQ(records(300), mgtest::read_file(gen(1)));
        else EXPECT_LE(mgtest::read_file(gen(1)).size(), 50u);
    }
    // Nothing left to remove is fine.
    EXPECT_EQ(0, ClearSecureLog(dir.path().c_str(), 100, 0));
}

TEST_F(Maintenance, ClearWaitsForTheWritersLock) {
    mgtest::write_file(gen(2), "old");
    EXPECT_TRUE(waits_for_lock(dir / "mglog.lock", [&] { EXPECT_TRUE(mgtest::exists(gen(2))); },
                               [&] { return ClearSecureLog(dir.path().c_str(), 10, 100); }));
    EXPECT_FALSE(mgtest::exists(gen(2)));
}

class Backup : public Maintenance {
protected:
    std::string root = dir / "backups/nested";

    static std::string stamp(time_t t) {
        struct tm tm;
        localtime_r(&t, &tm);
        char buf[32];
        strftime(buf, sizeof buf, "%Y%m%d_%H%M%S", &tm);
        return buf;
    }
};

TEST_F(Backup, CopiesThePresentGenerationsIntoADatedDirectory) {
    mgtest::write_file(gen(1), "first\n", 0600);
    mgtest::write_file(gen(2), "second\n", 0600);
    time_t before = time(nullptr);
    ASSERT_EQ(0, BackupSecureLog(dir.path().c_str(), root.c_str(), 3));
    time_t after = time(nullptr);
    std::vector<std::string> made = entries(root);
    ASSERT_EQ(1u, made.size());
    EXPECT_TRUE(made[0] == stamp(before) || made[0] == stamp(after)) << made[0];
    const std::string copy = root + "/" + made[0];
    EXPECT_EQ(0700u, mgtest::file_mode(copy));
    EXPECT_EQ((std::vector<std::string>{"mglog.01", "mglog.02"}), entries(copy));
    EXPECT_EQ("first\n", mgtest::read_file(copy + "/mglog.01"));
    EXPECT_EQ(0644u, mgtest::file_mode(copy + "/mglog.02"));
}

TEST_F(Backup, FailedCopyRemovesTheWholeBackup) {
    mgtest::write_file(gen(1), "first\n");
    ASSERT_EQ(0, mkdir(gen(2).c_str(), 0700));  // examinable, but not copyable
    EXPECT_EQ(-1, BackupSecureLog(dir.path().c_str(), root.c_str(), 3));
    EXPECT_TRUE(entries(root).empty());
    EXPECT_TRUE(mgtest::exists(root));  // the parents made on the way stay

    // No lock: the new directory goes again.
    ASSERT_EQ(0, unlink((dir / "mglog.lock").c_str()));
    ASSERT_EQ(0, mkdir((dir / "mglog.lock").c_str(), 0700));
    EXPECT_EQ(-1, BackupSecureLog(dir.path().c_str(), root.c_str(), 3));
    EXPECT_TRUE(entries(root).empty());
}

}  // namespace
