#include <mossgrove/common.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

TEST(Validators, Digits) {
    EXPECT_EQ(_isdigits(""), 0);
    EXPECT_EQ(_isdigits("007"), 7);
    EXPECT_EQ(_isdigits(nullptr), -1);
    for (const char *bad : {"12a", "-1", " 1", "1 "}) {
        errno = 0;
        EXPECT_EQ(_isdigits(bad), -1) << bad;
        EXPECT_EQ(errno, MG_ERR_NOT_NUMERIC) << bad;
    }
    EXPECT_EQ(isValidNumber("0"), 1);
    errno = 0;
    for (const char *bad : {"", "-1", "1.5", static_cast<const char *>(nullptr)}) EXPECT_EQ(isValidNumber(bad), 0);
    EXPECT_EQ(errno, 0) << "sets no error code";
}

TEST(Validators, NameCharacters) {
    EXPECT_EQ(_isascii("a b-c.d"), 1);
    EXPECT_EQ(_isascii("caf\xc3\xa9\t~"), 1) << "only the listed characters are refused";
    EXPECT_EQ(_isascii(""), 1);
    for (const char *bad : {"a&b", "a\nb", "a/b", "a:b", "a*b", "a?b", "a\"b", "a<b", "a>b", "a|b"}) {
        errno = 0;
        EXPECT_EQ(_isascii(bad), 0) << bad;
        EXPECT_EQ(errno, MG_ERR_BAD_NAME) << bad;
    }
}

TEST(Text, ProgramNameAndLineEnds) {
    char path[] = "/usr/bin/tool", bare[] = "tool", dir[] = "/usr/bin/";
    EXPECT_STREQ(get_progname(path), "tool");
    EXPECT_STREQ(get_progname(bare), "tool");
    EXPECT_STREQ(get_progname(dir), "");

    char crlf[] = "abc\r\n\r\n", inner[] = "a\rb", only[] = "\n\r";
    RemoveTailCRLF(crlf);
    RemoveTailCRLF(inner);
    RemoveTailCRLF(only);
    EXPECT_STREQ(crlf, "abc");
    EXPECT_STREQ(inner, "a\rb");
    EXPECT_STREQ(only, "");
}

TEST(Text, TrimmingInPlaceAndIntoAnotherBuffer) {
    char buf[] = " \t a b \r\n";
    TrimLeftWhiteSpace(buf, buf);
    EXPECT_STREQ(buf, "a b \r\n");

    char out[32] = "xxxxxxxxxxxxxxxx";
    char *end = TrimRightWhiteSpace("  a b  ", out);
    EXPECT_STREQ(out, "  a b");
    EXPECT_EQ(end, out + 5);
    EXPECT_EQ(TrimRightWhiteSpace(" \t\n", out), out);
    EXPECT_STREQ(out, "");

    char both[] = "\v x y \f";
    end = TrimWhiteSpace(both, both);
    EXPECT_STREQ(both, "x y");
    EXPECT_EQ(end, both + 3);
}

TEST(Text, CopyTokenWalksADelimitedLine) {
    char dst[64];
    const char *line = "  a : b ";
    const char *rest = copy_token(dst, line, ':');
    EXPECT_STREQ(dst, "a");
    EXPECT_STREQ(rest, " b ");
    EXPECT_EQ(copy_token(dst, rest, ':'), nullptr);
    EXPECT_STREQ(dst, "b");

    std::string fields;
    for (const char *p = "x::  :y"; p != nullptr;) {
        p = copy_token(dst, p, ':');
        fields += std::string("[") + dst + "]";
    }
    EXPECT_EQ(fields, "[x][][][y]") << "empty fields yield empty text";
    EXPECT_EQ(copy_token(dst, "a:b", '\0'), nullptr);
    EXPECT_STREQ(dst, "a:b");
}
