// Error lines of the tools, validators, trimming and token slots.
#include <mossgrove/common.h>

// Tools call err_sys("") to print only the description of errno.
#pragma GCC diagnostic ignored "-Wformat-zero-length"

#include <gtest/gtest.h>

#include <vector>

#include "testsupport.hpp"

using mgtest::capture_stdout;

TEST(ErrorReporting, MessagesAndLinesForEachKindOfCode) {
    _mg_strerror(-5);
    EXPECT_STREQ(_errbuf, "Error:The undefined error code -5.");
    const struct { int code; const char *fmt; std::string line; } lines[] = {
        {2, "open", std::string("open: ") + strerror(2) + "\n"},  // the system's codes carry no prefix
        {10000, "plain", "MOSSGROVE: plain\n"},
        {0, "zero", "MOSSGROVE: zero\n"},
        // One message of the table (the tools' own tests see others), and a code outside it.
        {10011, "lvl", "MOSSGROVE: lvl: Error:The Security Level is out of range.\n"},
        {10050, "add", "MOSSGROVE: add: Error:The undefined error code 10050.\n"},
    };
    for (const auto &l : lines)
        EXPECT_EQ(capture_stdout([&] { errno = l.code; err_ret(l.fmt); }), l.line) << l.code;
    int status = -1;
    EXPECT_EQ(capture_stdout([] { errno = 10101; err_sys(""); }, &status),
              "MOSSGROVE: Error:The Mossgrove is not loaded or operate incorrectly.\n");
    EXPECT_EQ(status, 1);
    std::string out = capture_stdout([] { errno = 10001; err_ret("%s", std::string(10000, 'a').c_str()); });
    EXPECT_LE(out.size(), 4096u);
    EXPECT_EQ(out.back(), '\n') << "an overlong text is cut, its line still ends";
}

TEST(Text, ValidatorsAndTrimming) {
    EXPECT_EQ(_isdigits("007"), 7);
    for (const char *bad : {"12a", "-1", " 1"}) EXPECT_EQ(MG_ERRNO_OF(_isdigits(bad)), MG_ERR_NOT_NUMERIC) << bad;
    EXPECT_EQ(isValidNumber(""), 0);
    EXPECT_EQ(_isascii("caf\xc3\xa9\t~ -."), 1) << "only the listed characters are refused";
    for (const char *bad : {"a&b", "a\nb", "a/b", "a:b", "a*b", "a?b", "a\"b", "a<b", "a>b", "a|b"})
        EXPECT_EQ(MG_ERRNO_OF(_isascii(bad) - 1), MG_ERR_BAD_NAME) << bad;  // 0, with the code
    char crlf[] = "abc\r\n\r\n", out[32], both[] = "\v x y \f", dst[64];
    RemoveTailCRLF(crlf);
    EXPECT_STREQ(crlf, "abc");
    EXPECT_EQ(TrimRightWhiteSpace(" \t\n", out), out);
    EXPECT_STREQ(out, "");
    EXPECT_EQ(TrimWhiteSpace(both, both), both + 3);
    EXPECT_STREQ(both, "x y");
    std::string fields;
    for (const char *p = "  x ::  :y "; p != nullptr;) {
        p = copy_token(dst, p, ':');
        fields += std::string("[") + dst + "]";
    }
    EXPECT_EQ(fields, "[x][][][y]");
}

TEST(TokSlots, SplitNestAndEverySlotComesBack) {
    init_tokslot();
    char nested[] = "a=1,,b=2;c=3,";
    int outer = get_tokslot(), inner = get_tokslot();
    std::vector<std::string> seen;
    for (char *group = xsplit_at(nested, ';', outer); group; group = xsplit_at(nullptr, ';', outer))
        for (char *pair = xsplit_at(group, ',', inner); pair; pair = xsplit_at(nullptr, ',', inner))
            seen.push_back(pair);
    EXPECT_EQ(seen, (std::vector<std::string>{"a=1", "", "b=2", "c=3", ""}));
    init_tokslot();
    char line[] = "a:b:c";
    char *f[2] = {};
    EXPECT_EQ(xparse_string(line, ':', f, 2), 1);
    EXPECT_STREQ(f[1], "b");
    for (int i = 0; i < MG_TOKSLOT_COUNT; ++i) EXPECT_EQ(get_tokslot(), i) << "every slot was given back";
    EXPECT_EQ(get_tokslot(), -1);
    EXPECT_EQ(xparse_string(line, ':', f, 2), 0) << "no slot free";
    return_tokslot(MG_TOKSLOT_COUNT);  // out of range: ignored
    return_tokslot(3);
    EXPECT_EQ(get_tokslot(), 3);
    init_tokslot();
    // A token that ends the string leaves the continuation where it was.
    char kv[] = "key value";
    EXPECT_STREQ(get_token(kv), "key");
    EXPECT_STREQ(get_token(nullptr), "value");
    EXPECT_STREQ(get_token(nullptr), "value");
}
