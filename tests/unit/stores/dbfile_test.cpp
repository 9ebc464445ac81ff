// Store file layer: installation root, store paths, locked store files across
// real processes, copies and the rewrite helpers.
#include <mossgrove/stores.h>
#include "common/paths.hpp"
#include "stores/dbfile.hpp"
#include "testsupport.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <string>

// The store layer's fsync calls, counted: this definition takes the place of
// the C library's for the statically linked library.
static int g_fsyncs = 0;
extern "C" int fsync(int fd) {
    ++g_fsyncs;
    return static_cast<int>(syscall(SYS_fsync, fd));
}

namespace {

using mgtest::file_mode;
using mgtest::read_file;
using mgtest::TempDir;
using mgtest::write_file;

class RootTest : public ::testing::Test {
protected:
    void TearDown() override { mg::paths::override_for_tests(nullptr, nullptr, nullptr); }
    void use_evmg(const std::string &content) {
        write_file(dir_ / "evmg", content);
        mg::paths::override_for_tests((dir_ / "evmg").c_str(), nullptr, nullptr);
    }
    TempDir dir_;
};

TEST_F(RootTest, StorePathsDropExactlyOneTrailingSlash) {
    use_evmg("MG_ROOT=/opt/x/\n");
    ASSERT_EQ(chk_mgrootdir(), 1);
    EXPECT_STREQ(mg_root, "/opt/x/");
    EXPECT_EQ(set_dbpath(), 1);
    EXPECT_STREQ(mg_root, "/opt/x");
    EXPECT_STREQ(mg::stores::g_szMuPath, "/opt/x/data/mls_user");
    EXPECT_STREQ(mg::stores::g_szCatBakPath, "/opt/x/data/.mls_cat_bak");

}

TEST_F(RootTest, MissingFileOrKeyAndCheckFiles) {
    // Tools end with a message that names the file.
    const std::string missing = dir_ / "absent";
    mg::paths::override_for_tests(missing.c_str(), nullptr, nullptr);
    errno = 0;
    EXPECT_EQ(chk_mgrootdir(), -1);
    EXPECT_EQ(errno, MG_ERR_NO_EVMG);
    int status = -1;
    std::string out = mgtest::capture_stdout([] { chk_rootdir(); }, &status);
    EXPECT_EQ(status, 1);
    EXPECT_NE(out.find("Cannot open " + missing + "."), std::string::npos) << out;

    use_evmg("OTHER=/opt/y\n");
    errno = 0;
    EXPECT_EQ(chk_mgrootdir(), -1);
    EXPECT_EQ(errno, MG_ERR_NO_MGROOT);

    // mf_check_files: the store or its backup, of the users (0) or categories (1).
    use_evmg("MG_ROOT=" + dir_.path() + "\n");
    ASSERT_EQ(mkdir((dir_ / "data").c_str(), 0755), 0);
    ASSERT_EQ(chk_mgrootdir(), 1);
    set_dbpath();
    EXPECT_EQ(mf_check_files(0), 0);
    write_file(dir_ / "data/.mls_user_bak", "");
    EXPECT_EQ(mf_check_files(0), 1);
    EXPECT_EQ(mf_check_files(1), 0);
    write_file(dir_ / "data/mls_cat", "");
    EXPECT_EQ(mf_check_files(1), 1);
}

// A child process that opens a store with muf_open and holds it until told to
// let go (or until it is killed).
class Holder {
public:
    Holder(const std::string &path, int mode) {
        int sv[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) throw std::runtime_error("socketpair");
        fflush(nullptr);
        if ((pid_ = fork()) == 0) {
            close(sv[0]);
            int fd = muf_open(path.c_str(), mode);
            char c = fd >= 0 ? 'y' : 'n';
            if (write(sv[1], &c, 1) == 1 && read(sv[1], &c, 1) < 0) _exit(2);  // until let go
            muf_close(fd);
            _exit(0);
        }
        close(sv[1]);
        sock_ = sv[0];
        char c = 'n';
        holds_ = read(sock_, &c, 1) == 1 && c == 'y';
    }
    ~Holder() { stop(); }
    bool holds() const { return holds_; }
    // Lets the child close the store; with a signal, kills it first (SIGKILL: a crash).
    void stop(int sig = 0) {
        if (pid_ <= 0) return;
        if (sig != 0) kill(pid_, sig);
        close(sock_);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }

private:
    pid_t pid_ = -1;
    int sock_ = -1;
    bool holds_ = false;
};

// Tries muf_open in a separate process, which must answer within seconds (a
// waiting lock would be killed by the alarm). Returns 'y' for a descriptor,
// 'E' for -1 with EAGAIN, 'e' for -1 with another errno, 'T' for a time-out.
char try_open(const std::string &path, int mode) {
    int rc = mgtest::run_in_child([&] {
        alarm(5);
        int fd = muf_open(path.c_str(), mode);
        if (fd >= 0) return 'y';
        return errno == EAGAIN ? 'E' : 'e';
    });
    return rc == 128 + SIGALRM ? 'T' : static_cast<char>(rc);
}

class StoreFileTest : public ::testing::Test {
protected:
    void SetUp() override { write_file(store_, "record", 0444); }
    TempDir dir_;
    std::string store_ = dir_ / "store";
};

TEST_F(StoreFileTest, LockedFilesAreMarkedAndRestored) {
    int fd = muf_open(store_.c_str(), 0);
    ASSERT_GT(fd, 0);
    EXPECT_EQ(file_mode(store_), 02444u);
    muf_close(fd);
    EXPECT_EQ(file_mode(store_), 0444u);
    muf_close(0);
    EXPECT_NE(fcntl(0, F_GETFD), -1) << "standard input was closed";

    const std::string path = dir_ / "new";  // a writer creates the store
    fd = muf_open(path.c_str(), O_RDWR);
    ASSERT_GT(fd, 0);
    EXPECT_EQ(file_mode(path), 02644u);
    muf_close(fd);
    EXPECT_EQ(file_mode(path), 0444u);

    errno = 0;
    EXPECT_EQ(muf_open((dir_ / "none").c_str(), 0), -1) << "a reader creates nothing";
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(mgtest::exists(dir_ / "none"));
    // O_DIRECTORY makes open() fail after the file was made writable.
    EXPECT_EQ(muf_open(store_.c_str(), O_RDWR | O_DIRECTORY), -1);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_EQ(file_mode(store_), 0444u);
}

TEST_F(StoreFileTest, WriterExcludesAllAndReadersExcludeWriters) {
    Holder writer(store_, O_RDWR);
    ASSERT_TRUE(writer.holds());
    EXPECT_EQ(file_mode(store_), 02644u);
    EXPECT_EQ(try_open(store_, 0), 'E');
    EXPECT_EQ(try_open(store_, O_RDWR), 'E');
    EXPECT_EQ(mf_lock_test(store_.c_str(), 0), 1);
    writer.stop();
    EXPECT_EQ(file_mode(store_), 0444u);

    Holder reader(store_, 0), second(store_, 0);
    ASSERT_TRUE(reader.holds());
    EXPECT_TRUE(second.holds());
    EXPECT_EQ(try_open(store_, O_RDWR), 'E');
    EXPECT_EQ(mf_lock_test(store_.c_str(), 0), 0);
    EXPECT_EQ(mf_lock_test(store_.c_str(), 1), 1);
}

TEST_F(StoreFileTest, CrashedHolderFreesTheStore) {
    Holder writer(store_, O_RDWR);
    ASSERT_TRUE(writer.holds());
    writer.stop(SIGKILL);
    EXPECT_EQ(mf_lock_test(store_.c_str(), 1), 0);
    int fd = muf_open(store_.c_str(), O_RDWR);
    EXPECT_GT(fd, 0);
    muf_close(fd);
    EXPECT_EQ(file_mode(store_), 0444u);
}

TEST_F(StoreFileTest, CopyOfAnEmptyFileTruncatesTheTarget) {
    const std::string empty = dir_ / "empty";
    write_file(empty, "", 0444);
    EXPECT_EQ(mf_copy_file(empty.c_str(), store_.c_str()), 1);
    EXPECT_EQ(read_file(store_), "");
    EXPECT_EQ(file_mode(store_), 0444u);
    EXPECT_EQ(file_mode(empty), 0444u);

    // The target is rewritten in place: same inode, so a hard link sees the
    // new contents; a missing target is created.
    const std::string backup = dir_ / ".store_bak", link = dir_ / "link";
    write_file(backup, "old", 0444);
    ASSERT_EQ(::link(backup.c_str(), link.c_str()), 0);
    struct stat before {}, after {};
    ASSERT_EQ(stat(backup.c_str(), &before), 0);
    std::string big(200000, 'q');
    big[123] = '\0';
    write_file(store_, big, 0444);
    EXPECT_EQ(mf_copy_file(store_.c_str(), backup.c_str()), 1);
    ASSERT_EQ(stat(backup.c_str(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino);
    EXPECT_EQ(read_file(link), big);
    EXPECT_EQ(file_mode(backup), 0444u);
    EXPECT_EQ(mf_copy_file(store_.c_str(), (dir_ / "fresh").c_str()), 1);
    EXPECT_EQ(read_file(dir_ / "fresh"), big);

    // A write that fails (here: the file size limit) is reported.
    EXPECT_EQ(mgtest::run_in_child([&] {
        signal(SIGXFSZ, SIG_IGN);
        struct rlimit lim = {4096, 4096};
        setrlimit(RLIMIT_FSIZE, &lim);
        return mf_copy_file(store_.c_str(), backup.c_str()) == -1 && errno == EFBIG ? 0 : 1;
    }), 0);
}

TEST_F(StoreFileTest, CopyFailsOnMissingSourceOrBusyTarget) {
    const std::string target = dir_ / "target";
    write_file(target, "old", 0444);
    EXPECT_EQ(mf_copy_file((dir_ / "none").c_str(), target.c_str()), -1);
    Holder reader(target, 0);
    ASSERT_TRUE(reader.holds());
    EXPECT_EQ(mf_copy_file(store_.c_str(), target.c_str()), -1);
    reader.stop();
    EXPECT_EQ(read_file(target), "old");
    EXPECT_EQ(file_mode(store_), 0444u);
}

TEST_F(StoreFileTest, RewriteReplacesTheStoreAndItsBackup) {
    const std::string backup = dir_ / ".store_bak";
    int store_fd = muf_open(store_.c_str(), 0);
    ASSERT_GT(store_fd, 0);
    char tmp[MG_PATH_MAX];
    int tmp_fd = mg::stores::open_rewrite_temp(store_.c_str(), tmp);
    ASSERT_GE(tmp_fd, 0);
    EXPECT_EQ(std::string(tmp).rfind(store_ + ".", 0), 0u);
    ASSERT_EQ(mg::stores::write_all(tmp_fd, "new record", 10), 0);
    EXPECT_EQ(mg::stores::commit_rewrite(tmp_fd, tmp, store_fd, store_.c_str(), backup.c_str()), 0);
    EXPECT_EQ(read_file(store_), "new record");
    EXPECT_EQ(read_file(backup), "new record");
    EXPECT_EQ(file_mode(store_), 0444u);
    EXPECT_FALSE(mgtest::exists(tmp));
    EXPECT_EQ(mf_lock_test(store_.c_str(), 1), 0);
}

TEST_F(StoreFileTest, RewriteTemplateTakenByADirectoryIs10017) {
    const long now = static_cast<long>(time(nullptr));
    for (long t = now; t <= now + 2; ++t)
        ASSERT_EQ(mkdir((store_ + "." + std::to_string(t) + "XXXXXX").c_str(), 0700), 0);
    char tmp[MG_PATH_MAX];
    errno = 0;
    EXPECT_EQ(mg::stores::open_rewrite_temp(store_.c_str(), tmp), -1);
    EXPECT_EQ(errno, MG_ERR_TEMPFILE);
}

}  // namespace
