#include <mossgrove/common.h>
#include <arpa/inet.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "testsupport.hpp"

using mgtest::exists;
using mgtest::file_mode;
using mgtest::read_file;
using mgtest::TempDir;
using mgtest::write_file;

TEST(Files, MkdirMakesParentsWithExactMode) {
    TempDir dir;
    const mode_t old_mask = umask(077);
    const std::string z = dir / "x/y/z";
    EXPECT_EQ(mg_mkdir(z.c_str(), 0751), 0);
    umask(old_mask);
    for (const char *level : {"x", "x/y", "x/y/z"}) EXPECT_EQ(file_mode(dir / level), 0751u) << level;

    errno = 0;
    EXPECT_EQ(mg_mkdir(z.c_str(), 0700), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(file_mode(z), 0751u) << "an existing directory keeps its mode";
    write_file(dir / "file", "");
    EXPECT_EQ(mg_mkdir((dir / "file/sub").c_str(), 0700), -1);
    EXPECT_EQ(errno, ENOTDIR);

    // A parent too long for the 1024-byte buffer is not made under a cut name.
    std::string path = dir.path();
    while (path.size() < 1100) path += "/" + std::string(50, 'd');
    errno = 0;
    EXPECT_EQ(mg_mkdir(path.c_str(), 0700), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(exists(dir / std::string(50, 'd')));
}

TEST(Files, CopyFile) {
    TempDir dir;
    const std::string src = dir / "src";
    std::string data(100000, '\0');
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7);
    write_file(src, data, 0400);
    const mode_t old_mask = umask(022);
    EXPECT_EQ(mg_copy_file(src.c_str(), (dir / "new").c_str()), 0);
    umask(old_mask);
    EXPECT_EQ(read_file(dir / "new"), data);
    EXPECT_EQ(file_mode(dir / "new"), 0644u);

    const std::string fresh = dir / "fresh";
    errno = 0;
    EXPECT_EQ(mg_copy_file(dir.path().c_str(), fresh.c_str()), -1) << "a directory cannot be read";
    EXPECT_EQ(errno, EISDIR);
    EXPECT_FALSE(exists(fresh)) << "a failed copy removes the destination";
}

TEST(HostAddress, LiteralAndOwnHostName) {
    char text[16] = "junk";
    EXPECT_NE(get_ipaddr_by_hostname("192.0.2.7", text, 4), -1);
    EXPECT_STREQ(text, "192") << "cut to the buffer";

    // The host's own name, set in a private UTS namespace to an address
    // literal, so that resolving it needs no name service.
    int status = mgtest::run_in_child([] {
        if (unshare(CLONE_NEWUTS) != 0) return 77;
        const char name[] = "198.51.100.4";
        if (sethostname(name, strlen(name)) != 0) return 77;
        char own[16];
        if (get_host_ipaddr(own, sizeof own) != static_cast<int>(inet_addr(name))) return 1;
        return strcmp(own, name) == 0 ? 0 : 2;
    });
    if (status == 77) GTEST_SKIP() << "needs root for a UTS namespace";
    EXPECT_EQ(status, 0);
}
