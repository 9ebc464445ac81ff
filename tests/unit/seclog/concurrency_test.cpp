// Four processes append to one secure log with a small size limit and five
// generations. Rotation off: every record arrives exactly once. Rotation on:
// the generations stay within their limit and hold only whole records.
#include <mossgrove/seclog.h>

#include <gtest/gtest.h>

#include <map>
#include <set>

#include "seclog_test_util.hpp"

using namespace seclogtest;

namespace {

constexpr int kWriters = 4, kRecords = 600, kLimit = 16 * 1024, kGenerations = 5, kSlack = 2048;

TEST(SecureLogConcurrency, WritersInParallelLoseNoRecordAndRotateWithinTheLimit) {
    for (int rotate : {0, 1}) {
        SCOPED_TRACE(rotate ? "rotation on" : "rotation off");
        mgtest::TempDir dir;
        reset_writer();
        ASSERT_EQ(0, InitSecureLog("MGLog", generation(dir.path(), 1).c_str(), kLimit, kGenerations, rotate));
        int go[2], status = 0;
        char c;
        ASSERT_EQ(0, pipe(go));
        for (int w = 0; w < kWriters; ++w) {
            if (fork() != 0) continue;
            close(go[1]);
            if (read(go[0], &c, 1) != 0) _exit(2);  // released when the pipe closes
            alarm(120);
            for (int i = 0; i < kRecords; ++i) {
                SecureLogRecord rec = record(("w" + std::to_string(w) + " r" + std::to_string(i)).c_str());
                if (SaveSecureLog(MG_SECLOG_FILE, &rec) != 0) _exit(1);
            }
            _exit(0);
        }
        close(go[0]), close(go[1]);
        for (int w = 0; w < kWriters; ++w)
            EXPECT_TRUE(wait(&status) > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
        reset_writer();
        // Oldest first: every line a whole record, each once and in order per writer.
        std::set<std::pair<int, int>> seen;
        std::map<int, int> last;
        for (int n = kGenerations; n >= 1; --n) {
            const std::string text = mgtest::read_file(generation(dir.path(), n));
            for (const std::string &line : lines_of(generation(dir.path(), n))) {
                std::vector<std::string> f = split(line, '\t');
                int w = -1, i = -1;
                if (f.size() != 8 || f[0] != "7" || sscanf(f[7].c_str(), "w%d r%d", &w, &i) != 2) {
                    ADD_FAILURE() << "malformed: " << line;
                    continue;
                }
                EXPECT_TRUE(seen.insert({w, i}).second) << "twice: " << line;
                EXPECT_TRUE(last.count(w) == 0 || last[w] < i) << "out of order: " << line;
                last[w] = i;
            }
            // A file is rotated by the write that carries it past limit + 2048, so a
            // rotated generation holds at most that one record more; rotation off
            // fills the generations once, then the current file grows.
            const size_t before_last = text.size() < 2 ? 0 : text.rfind('\n', text.size() - 2) + 1;
            const bool over = text.size() > static_cast<size_t>(kLimit + kSlack);
            EXPECT_TRUE(!rotate || before_last <= static_cast<size_t>(kLimit + kSlack)) << "generation " << n;
            EXPECT_EQ(!rotate || n > 1, over) << "generation " << n;
        }
        EXPECT_FALSE(mgtest::exists(generation(dir.path(), kGenerations + 1)));
        EXPECT_EQ(rotate == 0, seen.size() == static_cast<size_t>(kWriters * kRecords)) << seen.size();
    }
}

}  // namespace
