#include <mossgrove/common.h>

// Tools call err_sys("") to print only the description of errno.
#pragma GCC diagnostic ignored "-Wformat-zero-length"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "testsupport.hpp"

using mgtest::capture_stdout;

TEST(ErrorReporting, SetErrnoStoresCodeAndFails) {
    EXPECT_EQ(set_errno(10050), -1);
    EXPECT_EQ(errno, 10050);
}

TEST(ErrorReporting, MessageTable) {
    const std::pair<int, const char *> table[] = {
        {10001, "Error:The value must be numeric."},
        {10002, "Error:The name should be all alphanumeric,'-','_','.'."},
        {10010, "Error:The Role Capability is out of range."},
        {10011, "Error:The Security Level is out of range."},
        {10012, "Error:The Category ID is out of range."},
        {10101, "Error:The Mossgrove is not loaded or operate incorrectly."},
        {10026, "Error:The undefined error code 10026."},
        {-5, "Error:The undefined error code -5."},
    };
    for (auto [code, text] : table) {
        _mg_strerror(code);
        EXPECT_STREQ(_errbuf, text) << code;
    }
}

TEST(ErrorReporting, LinesForEachKindOfCode) {
    EXPECT_EQ(capture_stdout([] { err_string(10001); }), "MOSSGROVE: Error:The value must be numeric.\n");
    EXPECT_EQ(capture_stdout([] {
                  errno = 2;
                  err_ret("open %s", "x");
              }),
              std::string("open x: ") + strerror(2) + "\n");
    EXPECT_EQ(capture_stdout([] {
                  errno = 10000;
                  err_ret("plain %d", 7);
              }),
              "MOSSGROVE: plain 7\n");
    EXPECT_EQ(capture_stdout([] {
                  errno = 0;
                  err_ret("zero");
              }),
              "MOSSGROVE: zero\n");
    EXPECT_EQ(capture_stdout([] {
                  errno = 10050;
                  err_ret("add");
              }),
              "MOSSGROVE: add: Error:The undefined error code 10050.\n");
}

TEST(ErrorReporting, ErrSysExitsWithStatusOne) {
    int status = -1;
    std::string out = capture_stdout(
        [] {
            errno = 10101;
            err_sys("");
        },
        &status);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(out, "MOSSGROVE: Error:The Mossgrove is not loaded or operate incorrectly.\n");
}

TEST(ErrorReporting, OverlongCallerTextIsCutNotOverrun) {
    std::string big(10000, 'a');
    std::string out = capture_stdout([&] {
        errno = 10001;
        err_ret("%s", big.c_str());
    });
    EXPECT_LE(out.size(), 4096u);
    EXPECT_EQ(out.back(), '\n') << "the line still ends with its newline";
}
