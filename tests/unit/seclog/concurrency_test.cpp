// Four processes append to one secure log with a small size limit and five
// generations. Rotation off: every record arrives exactly once. Rotation on:
// the generations stay within their limit and hold only whole records.
#include <mossgrove/seclog.h>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "seclog_test_util.hpp"

using namespace seclogtest;

namespace {

constexpr int kWriters = 4, kRecords = 600, kLimit = 16 * 1024, kGenerations = 5, kSlack = 2048;

// Runs the writers together, then reads the generations oldest first: every
// line must be a whole record, each once and in order per writer.
std::set<std::pair<int, int>> write_and_read(const std::string &dir, int rotate) {
    reset_writer();
    EXPECT_EQ(0, InitSecureLog("MGLog", generation(dir, 1).c_str(), kLimit, kGenerations, rotate));
    int go[2];
    EXPECT_EQ(0, pipe(go));
    std::vector<pid_t> pids;
    for (int w = 0; w < kWriters; ++w) {
        pid_t pid = fork();
        if (pid == 0) {
            close(go[1]);
            char c;
            if (read(go[0], &c, 1) != 0) _exit(2);  // released when the pipe closes
            alarm(120);
            for (int i = 0; i < kRecords; ++i) {
                SecureLogRecord rec = record(("w" + std::to_string(w) + " r" + std::to_string(i)).c_str());
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
        waitpid(pid, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    }
    reset_writer();
    std::set<std::pair<int, int>> seen;
    std::map<int, int> last;  // writer -> last sequence seen
    for (int n = kGenerations; n >= 1; --n)
        for (const std::string &line : lines_of(generation(dir, n))) {
            std::vector<std::string> f = split(line, '\t');
            int w = -1, i = -1;
            if (f.size() != 8 || f[0] != "7" || f[5] != "PAM-ACL" || sscanf(f[7].c_str(), "w%d r%d", &w, &i) != 2) {
                ADD_FAILURE() << "malformed: " << line;
                continue;
            }
            EXPECT_TRUE(seen.insert({w, i}).second) << "twice: " << line;
            EXPECT_TRUE(last.count(w) == 0 || last[w] < i) << "out of order: " << line;
            last[w] = i;
        }
    EXPECT_FALSE(mgtest::exists(generation(dir, kGenerations + 1)));
    return seen;
}

// Bytes of a file, and of the file without its last line.
std::pair<size_t, size_t> sizes(const std::string &path) {
    std::string text = mgtest::read_file(path);
    size_t cut = text.size() < 2 ? 0 : text.rfind('\n', text.size() - 2);
    return {text.size(), cut == std::string::npos ? 0 : cut + 1};
}

TEST(SecureLogConcurrency, RotationOffKeepsEveryRecordExactlyOnce) {
    mgtest::TempDir dir;
    EXPECT_EQ(static_cast<size_t>(kWriters * kRecords), write_and_read(dir.path(), 0).size());
    // The generations filled up once; after that the current file grew.
    EXPECT_GT(sizes(generation(dir.path(), 1)).first, static_cast<size_t>(kLimit + kSlack));
}

TEST(SecureLogConcurrency, RotationOnKeepsGenerationsWithinTheLimit) {
    mgtest::TempDir dir;
    EXPECT_LT(write_and_read(dir.path(), 1).size(), static_cast<size_t>(kWriters * kRecords));  // oldest dropped
    // A file is rotated by the write that carries it past limit + 2048, so a
    // rotated generation holds at most that one record more.
    for (int n = 1; n <= kGenerations; ++n) {
        auto [whole, before_last] = sizes(generation(dir.path(), n));
        EXPECT_LE(before_last, static_cast<size_t>(kLimit + kSlack)) << "generation " << n;
        EXPECT_EQ(n > 1, whole > static_cast<size_t>(kLimit + kSlack)) << "generation " << n;
    }
}

}  // namespace
