#include <mossgrove/common.h>

#include <gtest/gtest.h>
#include <sys/stat.h>

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

    EXPECT_EQ(MG_ERRNO_OF(mg_mkdir(z.c_str(), 0700)), EEXIST);
    EXPECT_EQ(file_mode(z), 0751u) << "an existing directory keeps its mode";

    // A parent too long for the 1024-byte buffer is not made under a cut name.
    std::string path = dir.path();
    while (path.size() < 1100) path += "/" + std::string(50, 'd');
    EXPECT_EQ(MG_ERRNO_OF(mg_mkdir(path.c_str(), 0700)), ENOENT);
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

    EXPECT_EQ(MG_ERRNO_OF(mg_copy_file(dir.path().c_str(), (dir / "fresh").c_str())), EISDIR) << "a directory cannot be read";
    EXPECT_FALSE(exists(dir / "fresh")) << "a failed copy removes the destination";
}
