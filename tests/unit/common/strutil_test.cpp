#include <mossgrove/common.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

TEST(Validators, DigitsAndNameCharacters) {
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

    EXPECT_EQ(_isascii("caf\xc3\xa9\t~ -."), 1) << "only the listed characters are refused";
    for (const char *bad : {"a&b", "a\nb", "a/b", "a:b", "a*b", "a?b", "a\"b", "a<b", "a>b", "a|b"}) {
        errno = 0;
        EXPECT_EQ(_isascii(bad), 0) << bad;
        EXPECT_EQ(errno, MG_ERR_BAD_NAME) << bad;
    }
}

TEST(Text, ProgramNameLineEndsAndTrimming) {
    char dir[] = "/usr/bin/";
    EXPECT_STREQ(get_progname(dir), "");
    char crlf[] = "abc\r\n\r\n", inner[] = "a\rb";
    RemoveTailCRLF(crlf);
    RemoveTailCRLF(inner);
    EXPECT_STREQ(crlf, "abc");
    EXPECT_STREQ(inner, "a\rb");

    char buf[] = " \t a b \r\n";
    TrimLeftWhiteSpace(buf, buf);
    EXPECT_STREQ(buf, "a b \r\n");
    char out[32] = "xxxxxxxxxxxxxxxx";
    EXPECT_EQ(TrimRightWhiteSpace("  a b  ", out), out + 5);
    EXPECT_STREQ(out, "  a b");
    EXPECT_EQ(TrimRightWhiteSpace(" \t\n", out), out);
    EXPECT_STREQ(out, "");
    char both[] = "\v x y \f";
    EXPECT_EQ(TrimWhiteSpace(both, both), both + 3);
    EXPECT_STREQ(both, "x y");
}

TEST(Text, CopyTokenWalksADelimitedLine) {
    char dst[64];
    std::string fields;
    for (const char *p = "  x ::  :y "; p != nullptr;) {
        p = copy_token(dst, p, ':');
        fields += std::string("[") + dst + "]";
    }
    EXPECT_EQ(fields, "[x][][][y]") << "fields are trimmed, empty fields yield empty text";
    EXPECT_EQ(copy_token(dst, "a:b", '\0'), nullptr);
    EXPECT_STREQ(dst, "a:b");
}
