// Store file layer: installation root, store paths, locked store files across
// real processes, copies and the rewrite helpers.
#include "labels_fixture.hpp"
#include "stores/dbfile.hpp"

#include <fcntl.h>
#include <sys/syscall.h>

// fsync calls, counted: this definition takes the place of the C library's in
// the statically linked store layer.
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

using StoreRoot = mgtest::LabelStoreTest;

TEST_F(StoreRoot, CheckFilesPathsAndErrors) {
    // mf_check_files: the store or its backup, of the users (0) or categories (1).
    EXPECT_EQ(mf_check_files(0), 0);
    write_file(data(".mls_user_bak"), "");
    EXPECT_EQ(mf_check_files(0), 1);
    EXPECT_EQ(mf_check_files(1), 0);
    write_file(data("mls_cat"), "");
    EXPECT_EQ(mf_check_files(1), 1);

    const std::string evmg = dir_ / "evmg";
    write_file(evmg, "MG_ROOT=/opt/x/\n");  // exactly one trailing slash is dropped
    ASSERT_EQ(chk_mgrootdir(), 1);
    EXPECT_EQ(set_dbpath(), 1);
    EXPECT_STREQ(mg_root, "/opt/x");
    write_file(evmg, "OTHER=/opt/y\n");
    EXPECT_EQ(MG_ERRNO_OF(chk_mgrootdir()), MG_ERR_NO_MGROOT);
    ASSERT_EQ(unlink(evmg.c_str()), 0);  // tools end with a message naming the file
    EXPECT_EQ(MG_ERRNO_OF(chk_mgrootdir()), MG_ERR_NO_EVMG);
    int status = -1;
    std::string out = mgtest::capture_stdout([] { chk_rootdir(); }, &status);
    EXPECT_EQ(status, 1);
    EXPECT_NE(out.find("Cannot open " + evmg + "."), std::string::npos) << out;
}

struct StoreFileTest : ::testing::Test {
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

    EXPECT_EQ(MG_ERRNO_OF(muf_open((dir_ / "none").c_str(), 0)), ENOENT) << "a reader creates nothing";
    EXPECT_FALSE(mgtest::exists(dir_ / "none"));
}

TEST_F(StoreFileTest, WriterExcludesAllReadersExcludeWritersCrashFrees) {
    auto holder = [&](int mode) {  // another process holding the store
        return mgtest::hold_in_child([&] { if (muf_open(store_.c_str(), mode) < 0) _exit(1); });
    };
    auto refused = [&](int mode) { return mgtest::busy([&] { return muf_open(store_.c_str(), mode); }); };
    pid_t writer = holder(O_RDWR);
    ASSERT_GT(writer, 0);
    EXPECT_EQ(file_mode(store_), 02644u);
    EXPECT_TRUE(refused(0));
    EXPECT_TRUE(refused(O_RDWR));
    EXPECT_EQ(mf_lock_test(store_.c_str(), 0), 1);
    mgtest::kill_child(writer);
    EXPECT_EQ(mf_lock_test(store_.c_str(), 1), 0) << "a crashed holder frees the store";

    pid_t reader = holder(0), second = holder(0);
    ASSERT_GT(reader, 0);
    EXPECT_GT(second, 0);
    EXPECT_TRUE(refused(O_RDWR));
    EXPECT_EQ(mf_lock_test(store_.c_str(), 0), 0);
    EXPECT_EQ(mf_lock_test(store_.c_str(), 1), 1);
    const std::string target = dir_ / "target";  // a busy or missing copy end fails
    write_file(target, "old", 0444);
    EXPECT_EQ(mf_copy_file(target.c_str(), store_.c_str()), -1);
    EXPECT_EQ(mf_copy_file((dir_ / "none").c_str(), target.c_str()), -1);
    mgtest::kill_child(second);
    mgtest::kill_child(reader);
    EXPECT_EQ(read_file(store_), "record");
}

TEST_F(StoreFileTest, CopyRewritesTheTargetInPlace) {
    // Same inode, so a hard link sees the new contents, cut to the new length;
    // a missing target is created.
    const std::string backup = dir_ / ".store_bak", link = dir_ / "link";
    write_file(backup, std::string(300000, 'o'), 0444);
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
    EXPECT_EQ(file_mode(store_), 0444u) << "the source's read mark is gone";
    EXPECT_EQ(mf_copy_file(store_.c_str(), (dir_ / "fresh").c_str()), 1);
    EXPECT_EQ(read_file(dir_ / "fresh"), big);
}

TEST_F(StoreFileTest, RewriteReplacesTheStoreAndItsBackup) {
    const std::string backup = dir_ / ".store_bak";
    int store_fd = muf_open(store_.c_str(), 0);
    ASSERT_GT(store_fd, 0);
    char tmp[MG_PATH_MAX];
    int tmp_fd = mg::stores::open_rewrite_temp(store_.c_str(), tmp);
    ASSERT_GE(tmp_fd, 0);
    ASSERT_EQ(mg::stores::write_all(tmp_fd, "new record", 10), 0);
    g_fsyncs = 0;
    EXPECT_EQ(mg::stores::commit_rewrite(tmp_fd, tmp, store_fd, store_.c_str(), backup.c_str()), 0);
    EXPECT_EQ(g_fsyncs, 2) << "the new store, before it takes the store's name, and the backup copy";
    EXPECT_EQ(read_file(store_), "new record");
    EXPECT_EQ(read_file(backup), "new record");
    EXPECT_EQ(file_mode(store_), 0444u);
    EXPECT_FALSE(mgtest::exists(tmp));
    EXPECT_EQ(mf_lock_test(store_.c_str(), 1), 0);
}

}  // namespace
