// Eight processes append to one secure log with a small size limit and five
// generations. Rotation off: every record arrives exactly once. Rotation on:
// the generations stay within their limit and hold only whole records.
#include <mossgrove/seclog.h>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "seclog_test_util.hpp"
#include "testsupport.hpp"

using namespace seclogtest;

namespace {

constexpr int kWriters = 8;
constexpr int kRecords = 2000;
constexpr int kLimit = 16 * 1024;
constexpr int kGenerations = 5;
constexpr int kSlack = 2048;

// Forks the writers, lets them start together and waits for all of them.
void run_writers(const std::string &current, int rotate) {
    reset_writer();
    ASSERT_EQ(0, InitSecureLog("MGLog", current.c_str(), kLimit, kGenerations, rotate));
    int go[2];
    ASSERT_EQ(0, pipe(go));
    std::vector<pid_t> pids;
    for (int w = 0; w < kWriters; ++w) {
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            close(go[1]);
            char c;
            if (read(go[0], &c, 1) != 0) _exit(2);  // released when the pipe closes
            alarm(120);
            for (int i = 0; i < kRecords; ++i) {
                std::string msg = "w" + std::to_string(w) + " r" + std::to_string(i);
                SecureLogRecord rec = record(msg.c_str());
                if (SaveSecureLog(MG_SECLOG_FILE, &rec) != 0) _exit(1);
            }
            _exit(0);
        }
        pids.push_back(pid);
    }
    close(go[0]);
    close(go[1]);
    for (pid_t pid : pids) {
        int status = 0;
        ASSERT_EQ(pid, waitpid(pid, &status, 0));
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    }
    reset_writer();
}

struct Seen {
    std::set<std::pair<int, int>> records;  // (writer, sequence)
    int duplicates = 0;
    int out_of_order = 0;
    int malformed = 0;
};

// Reads the generations oldest first and checks every line as it goes.
Seen read_generations(const std::string &dir) {
    Seen seen;
    std::map<int, int> last;  // writer -> last sequence seen
    for (int n = kGenerations; n >= 1; --n) {
        for (const std::string &line : lines_of(generation(dir, n))) {
            std::vector<std::string> f = split(line, '\t');
            int w = -1, i = -1;
            if (f.size() != 8 || f[0] != "7" || f[1] != std::to_string(0x2020001) || f[2] != "2" ||
                f[5] != "PAM-ACL" || f[6] != "10.1.2.3" ||
                sscanf(f[7].c_str(), "w%d r%d", &w, &i) != 2) {
                ++seen.malformed;
                continue;
            }
            if (!seen.records.insert({w, i}).second) ++seen.duplicates;
            auto it = last.find(w);
            if (it != last.end() && it->second >= i) ++seen.out_of_order;
            last[w] = i;
        }
    }
    return seen;
}

// Bytes of a file, and of the file without its last line.
std::pair<size_t, size_t> sizes(const std::string &path) {
    std::string text = mgtest::read_file(path);
    size_t cut = text.size() < 2 ? 0 : text.rfind('\n', text.size() - 2);
    return {text.size(), cut == std::string::npos ? 0 : cut + 1};
}

// Runs the writers; whatever is kept must be whole records, each once and in
// order per writer.
Seen write_and_read(const std::string &dir, int rotate) {
    run_writers(generation(dir, 1), rotate);
    Seen seen = read_generations(dir);
    EXPECT_EQ(0, seen.malformed);
    EXPECT_EQ(0, seen.duplicates);
    EXPECT_EQ(0, seen.out_of_order);
    return seen;
}

TEST(SecureLogConcurrency, RotationOffKeepsEveryRecordExactlyOnce) {
    mgtest::TempDir dir;
    Seen seen = write_and_read(dir.path(), 0);
    EXPECT_EQ(static_cast<size_t>(kWriters * kRecords), seen.records.size());
    // The generations filled up once; after that the current file grew.
    EXPECT_TRUE(mgtest::exists(generation(dir.path(), kGenerations)));
    EXPECT_GT(sizes(generation(dir.path(), 1)).first, static_cast<size_t>(kLimit + kSlack));
    EXPECT_FALSE(mgtest::exists(generation(dir.path(), kGenerations + 1)));
}

TEST(SecureLogConcurrency, RotationOnKeepsGenerationsWithinTheLimit) {
    mgtest::TempDir dir;
    Seen seen = write_and_read(dir.path(), 1);
    EXPECT_GT(seen.records.size(), 0u);
    EXPECT_LT(seen.records.size(), static_cast<size_t>(kWriters * kRecords));  // oldest dropped
    // A file is rotated by the write that carries it past limit + 2048, so a
    // rotated generation holds at most that one record more; the current file
    // never passes limit + 2048.
    for (int n = 1; n <= kGenerations; ++n) {
        auto [whole, before_last] = sizes(generation(dir.path(), n));
        EXPECT_LE(before_last, static_cast<size_t>(kLimit + kSlack)) << "generation " << n;
        if (n == 1) EXPECT_LE(whole, static_cast<size_t>(kLimit + kSlack));
        else EXPECT_GT(whole, static_cast<size_t>(kLimit + kSlack)) << "generation " << n;
    }
    EXPECT_FALSE(mgtest::exists(generation(dir.path(), kGenerations + 1)));
}

}  // namespace
