// Security password store: entry format and rewrites, the previous
// generation, crash and race behaviour with real processes, prompts through a
// pseudo-terminal, hash checks with crypt.
#include <mossgrove/sopass.h>
#include "labels_fixture.hpp"

#include <crypt.h>
#include <pty.h>
#include <termios.h>

namespace {

using mgtest::read_file;

MGSecPasswd entry(const std::string &name, int retry = 5) {
    MGSecPasswd e{};
    strncpy(e.name, name.c_str(), sizeof e.name - 1);
    strncpy(e.hash, "$6$abc$hash", sizeof e.hash);
    e.retry = static_cast<signed char>(retry), e.marker = ' ', e.flags = MG_PW_IN_USE;
    return e;
}

struct SopassTest : mgtest::LabelStoreTest {
    std::string pw_ = dir_ / "etc/mgpasswd", old_ = pw_ + ".old";
    std::vector<MGSecPasswd> stored() { return records_of<MGSecPasswd>(read_file(pw_)); }
};

TEST_F(SopassTest, EntriesRetryLimitsAndLocks) {
    EXPECT_EQ(MG_ERRNO_OF(del_mgpwdent("x")), ENOENT) << "only an add creates the store";
    MGSecPasswd a = entry("alice", 0), b = entry("bob", 99);
    ASSERT_EQ(add_mgpwdent(&a), 1);
    ASSERT_EQ(add_mgpwdent(&b), 1);
    EXPECT_EQ(get_login_retry("alice"), 5);
    EXPECT_EQ(get_login_retry("bob"), 99);
    ASSERT_EQ(set_login_retry("alice", 100), 1);
    EXPECT_EQ(stored()[0].retry, 100) << "stored as given";
    EXPECT_EQ(get_login_retry("alice"), 5);

    auto inode = [&] { struct stat st {}; return stat(pw_.c_str(), &st) == 0 ? st.st_ino : 0; };
    const ino_t inode0 = inode();
    EXPECT_EQ(lock_mgpwdnam("bob"), 1);
    EXPECT_EQ(is_locked_mgpwd("bob"), 1);
    const std::string previous = read_file(old_);
    EXPECT_EQ(previous.size(), 152u) << "the previous generation";
    EXPECT_NE(previous, read_file(pw_));
    EXPECT_EQ(lock_mgpwdnam("bob"), 1);
    EXPECT_EQ(read_file(old_), previous) << "already locked: nothing written";
    EXPECT_EQ(unlock_mgpwdnam("bob"), 1);
    EXPECT_EQ(is_locked_mgpwd("bob"), 0);
    EXPECT_EQ(inode(), inode0) << "replaced in place, never renamed";

    ASSERT_EQ(init_secpwnam("alice"), 1);
    EXPECT_EQ(stored()[0].flags, MG_PW_IN_USE);
    EXPECT_EQ(std::string(stored()[0].hash, 44), std::string(44, '\0'));
    const std::string before = read_file(pw_);
    EXPECT_EQ(del_mgpwdent("nobody"), 1);
    EXPECT_EQ(read_file(pw_), before);
    for (auto fn : {lock_mgpwdnam, unlock_mgpwdnam, is_locked_mgpwd, get_login_retry, init_secpwnam})
        EXPECT_EQ(MG_ERRNO_OF(fn("nobody")), ENOENT);
    EXPECT_EQ(del_mgpwdent("alice"), 1);
    EXPECT_EQ(stored().size(), 1u);

    mgtest::write_file(pw_, std::string(150, 'x'), 0444);
    EXPECT_EQ(MG_ERRNO_OF(setmgpwdent()), MG_ERR_PW_STORE);
    EXPECT_EQ(add_mgpwdent(&a), -1) << "a damaged store is not overwritten";
}

TEST_F(SopassTest, KilledRewriteLeavesStoreOrPreviousGenerationWhole) {
    std::vector<MGSecPasswd> big;
    for (int i = 0; i < 2000; ++i) big.push_back(entry("u" + std::to_string(i)));
    const std::string old_bytes = bytes_of(big);
    big[1000].flags |= MG_PW_LOCKED;
    const MGSecPasswd changed = big[1000];
    const std::string new_bytes = bytes_of(big);
    mgtest::crash_points([&] { update_mgpwdent(&changed); },
        [&] { unlink(old_.c_str()); mgtest::write_file(pw_, old_bytes, 0444); },
        [&](long us) {
            const std::string now = read_file(pw_);
            bool store_whole = (now == old_bytes || now == new_bytes) && mgtest::perms(pw_) == 0444;
            bool old_whole = mgtest::exists(old_) && read_file(old_) == old_bytes && mgtest::perms(old_) == 0444;
            EXPECT_TRUE(store_whole || old_whole) << "killed after " << us << " us";
        }, 16);
}

TEST_F(SopassTest, RacingRewritesFailAtOnceAndLeaveWholeEntries) {
    mgtest::write_file(pw_, bytes_of(std::vector<MGSecPasswd>{entry("alice"), entry("bob")}), 0444);
    pid_t reader = mgtest::hold_in_child([] { setmgpwdent(); });
    EXPECT_TRUE(mgtest::busy([] { return lock_mgpwdnam("alice"); })) << "a held store fails at once";
    mgtest::kill_child(reader);
    EXPECT_TRUE(mgtest::race([](int who) {
        alarm(20);
        for (int i = 0; i < 30; ++i) {
            int r = i % 2 ? lock_mgpwdnam(who ? "bob" : "alice") : unlock_mgpwdnam(who ? "bob" : "alice");
            if (r != 1 && !(r == -1 && (errno == EAGAIN || errno == ENOENT || errno == MG_ERR_PW_STORE))) return 1;
        }
        return 0;
    }));
    EXPECT_EQ(read_file(pw_).size() % sizeof(MGSecPasswd), 0u);
    int fd = lckmgpwdf();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(mgtest::run_in_child([] { return lckmgpwdf() == -1 ? 0 : 1; }), 0);
    EXPECT_EQ(ulckmgpwdf(fd), 1);
    EXPECT_FALSE(mgtest::exists(dir_ / "etc/.mgpwd.lock"));
}

// Types the lines at the prompts of input_newpw in a child on a fresh
// pseudo-terminal; returns everything the terminal showed.
std::string type_new_password(const char *line1, const char *line2, const std::string &expect) {
    int master = -1;
    pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
    if (pid == 0) {
        sigset_t mask;
        sigemptyset(&mask);
        sigaddset(&mask, SIGUSR1);
        sigprocmask(SIG_BLOCK, &mask, nullptr);
        struct termios t0, t1;
        tcgetattr(0, &t0);
        char buf[16] = {};
        int rc = input_newpw(buf), err = errno;
        tcgetattr(0, &t1);
        sigprocmask(SIG_SETMASK, nullptr, &mask);
        printf("RESULT %d %d %d %d %d\n", rc, err, rc == 1 && expect == buf, t0.c_lflag == t1.c_lflag && t0.c_iflag == t1.c_iflag,
               sigismember(&mask, SIGUSR1) && !sigismember(&mask, SIGINT) && !sigismember(&mask, SIGTSTP));
        fflush(stdout);
        _exit(0);
    }
    std::string shown;
    auto read_until = [&](const std::string &text, size_t from = 0) {
        char chunk[256];
        for (ssize_t n; shown.find(text, from) == std::string::npos && (n = read(master, chunk, sizeof chunk)) > 0;)
            shown.append(chunk, static_cast<size_t>(n));
    };
    read_until("Enter New Security Passwd : ");
    EXPECT_GT(write(master, line1, strlen(line1)), 0);
    read_until("Re-enter New Security Passwd : ");
    EXPECT_GT(write(master, line2, strlen(line2)), 0);
    read_until("RESULT");
    read_until("\n", shown.find("RESULT"));
    waitpid(pid, nullptr, 0);
    close(master);
    return shown;
}

TEST(SopassPrompt, NoEchoAttributesAndMaskRestored) {
    const struct { const char *l1, *l2, *expect, *result; } cases[] = {
        {"Abcdefghij12345678!!\n", "Abcdefghij12345XYZ\n", "Abcdefghij12345", "RESULT 1 0 1 1 1"},
        {"Ab1!xyz\n", "Ab1!xyz\n", "", "RESULT -1 10070 0 1 1"},
        {"Password1!\n", "Password2!\n", "", "RESULT -1 10071 0 1 1"},
    };
    for (const auto &c : cases) {
        std::string shown = type_new_password(c.l1, c.l2, c.expect);
        EXPECT_NE(shown.find(c.result), std::string::npos) << shown;
        EXPECT_EQ(shown.find(std::string(c.l1, 6)), std::string::npos) << "echoed: " << shown;
    }
}

TEST(SopassCheck, CryptHashesAndPasswordQuality) {
    for (const char *prefix : {"$y$", "$6$"}) {
        char salt[CRYPT_GENSALT_OUTPUT_SIZE];
        ASSERT_NE(crypt_gensalt_rn(prefix, 0, nullptr, 0, salt, sizeof salt), nullptr);
        const std::string stored = std::string(crypt("Secret#42", salt)).substr(0, 44);  // what an entry holds
        EXPECT_EQ(cmp_sopass(stored.c_str(), "Secret#42"), 1) << stored;
        EXPECT_EQ(cmp_sopass(stored.c_str(), "Secret#43"), 0) << stored;
    }
    EXPECT_EQ(MG_ERRNO_OF(cmp_sopass("", "x")), MG_ERR_PW_NOTHING);
    const struct { const char *text; int ok; } quality[] = {
        {"abc123", 0}, {"abc123!", 1}, {"abc 123!", 0}, {"!!!123", 0}, {"abc!", 0}, {"a1\t!", 0},
    };
    for (const auto &q : quality) EXPECT_EQ(filter_password(q.text), q.ok) << q.text;
}

}  // namespace
