// Secure log maintenance: size, dated backup, shrink and clear. The tool entry
// points are in syslog_test (they need the sandbox's host address).
#include <mossgrove/seclog.h>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <filesystem>

#include "seclog_test_util.hpp"

using namespace seclogtest;

namespace {

struct Maintenance : ::testing::Test {
    mgtest::TempDir dir;
    std::string gen(int n) const { return generation(dir.path(), n); }
};

// Numbered lines of varying length, `total` bytes in all.
std::string records(size_t total) {
    std::string text;
    for (int i = 0; text.size() < total; ++i) text += "line " + std::to_string(i) + std::string(i % 7, '.') + "\n";
    return text.substr(0, total);
}

std::vector<std::string> entries(const std::string &path) {
    std::vector<std::string> names;
    std::error_code none;  // a missing directory has no entries
    for (const auto &e : std::filesystem::directory_iterator(path, none))
        if (std::string name = e.path().filename(); name[0] != '.') names.push_back(name);
    std::sort(names.begin(), names.end());
    return names;
}

TEST_F(Maintenance, ReduceKeepsTheNewestWholeRecords) {
    const std::string text = records(1000);
    // The last `keep` bytes from their first record boundary on.
    auto newest = [&](size_t keep) { return text.substr(text.find('\n', text.size() - keep) + 1); };
    const struct { std::string before; int size, percent; std::string after; } cases[] = {
        {text, 1000, 50, newest(500)},
        {text, 400, 50, newest(200)},                  // the keep size counts from `size`
        {records(300), 10, 5, ""},                     // keep 0: emptied
        {"a\n" + std::string(200, 'b'), 100, 50, ""},  // no boundary among the kept bytes
    };
    mgtest::write_file(gen(1) + ".tmp", "stale");  // a stale working file is replaced
    for (const auto &c : cases) {
        mgtest::write_file(gen(1), c.before);
        ASSERT_EQ(0, ReduceSecureLog(gen(1).c_str(), c.size, c.percent));
        EXPECT_EQ(c.after, mgtest::read_file(gen(1))) << c.size << " " << c.percent;
        EXPECT_EQ(0644u, mgtest::file_mode(gen(1)));
        EXPECT_FALSE(mgtest::exists(gen(1) + ".tmp"));
    }
}

TEST_F(Maintenance, SizeAndClearOfTheGenerations) {
    for (int percent : {100, 50, 0}) {
        for (int n = 1; n <= 10; ++n) mgtest::write_file(gen(n), records(300));
        unlink(gen(3).c_str());  // the size adds the present generations up to the count
        EXPECT_EQ(900, GetSecureLogSize(dir.path().c_str(), 4));
        ASSERT_EQ(0, ClearSecureLog(dir.path().c_str(), 100, percent));
        using names = std::vector<std::string>;
        EXPECT_EQ(percent ? names({"mglog.01", "mglog.lock"}) : names({"mglog.lock"}), entries(dir.path()));
        EXPECT_TRUE(percent != 100 || mgtest::read_file(gen(1)) == records(300));
        EXPECT_TRUE(percent != 50 || mgtest::read_file(gen(1)).size() <= 50u);
    }
    // Clear takes the writers' lock.
    mgtest::write_file(gen(2), "old");
    EXPECT_TRUE(waits_for_lock(dir / "mglog.lock", [&] { EXPECT_TRUE(mgtest::exists(gen(2))); },
                               [&] { return ClearSecureLog(dir.path().c_str(), 10, 100); }));
    EXPECT_FALSE(mgtest::exists(gen(2)));
}

TEST_F(Maintenance, BackupCopiesIntoADatedDirectoryAndAFailedCopyRemovesIt) {
    const std::string root = dir / "backups/nested";
    auto stamp = [](time_t t) {
        char buf[32];
        struct tm tm;
        return std::string(buf, strftime(buf, sizeof buf, "%Y%m%d_%H%M%S", localtime_r(&t, &tm)));
    };
    mgtest::write_file(gen(1), "first\n", 0600);
    mgtest::write_file(gen(2), "second\n", 0600);
    time_t before = time(nullptr);
    ASSERT_EQ(0, BackupSecureLog(dir.path().c_str(), root.c_str(), 3));
    std::vector<std::string> made = entries(root);
    ASSERT_EQ(1u, made.size());
    EXPECT_TRUE(made[0] == stamp(before) || made[0] == stamp(time(nullptr))) << made[0];
    const std::string copy = root + "/" + made[0];
    EXPECT_EQ(0700u, mgtest::file_mode(copy));
    EXPECT_EQ((std::vector<std::string>{"mglog.01", "mglog.02"}), entries(copy));
    EXPECT_EQ("first\n", mgtest::read_file(copy + "/mglog.01"));
    EXPECT_EQ(0644u, mgtest::file_mode(copy + "/mglog.02"));
    ASSERT_EQ(0, rename(copy.c_str(), (dir / "kept").c_str()));

    ASSERT_EQ(0, unlink(gen(2).c_str()));
    ASSERT_EQ(0, mkdir(gen(2).c_str(), 0700));  // examinable, but not copyable
    EXPECT_EQ(-1, BackupSecureLog(dir.path().c_str(), root.c_str(), 3));
    EXPECT_TRUE(entries(root).empty());
}

}  // namespace
