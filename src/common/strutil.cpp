// Validation of names and numbers, and the trimming helpers of the text stores.
#include <mossgrove/common.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "common/text.hpp"

using mg::text::is_digit;
using mg::text::is_space;

namespace {

bool all_digits(const char *s) {
    for (; *s != '\0'; ++s)
        if (!is_digit(*s)) return false;
    return true;
}

}  // namespace

void mg::text::copy_cut(char *dst, size_t size, const char *src) noexcept {
    const size_t n = strnlen(src, size - 1);
    memmove(dst, src, n);
    memset(dst + n, 0, size - n);
}

int _isdigits(const char *s) noexcept {
    if (s == nullptr) return -1;
    if (!all_digits(s)) return set_errno(MG_ERR_NOT_NUMERIC);
    // The value atoi gives (glibc: strtol cut to int); the empty string is 0.
    return static_cast<int>(strtol(s, nullptr, 10));
}

// Refuses only the characters that break paths and the stores' line formats;
// anything else, blanks and non-ASCII bytes included, passes.
int _isascii(const char *s) noexcept {
    if (s == nullptr) {
        errno = EINVAL;
        return 0;
    }
    if (s[strcspn(s, "&\n/:*?\"<>|")] != '\0') {
        errno = MG_ERR_BAD_NAME;
        return 0;
    }
    return 1;
}

int isValidNumber(const char *s) noexcept { return s != nullptr && *s != '\0' && all_digits(s) ? 1 : 0; }

char *get_progname(char *path) noexcept {
    if (path == nullptr) return nullptr;
    char *slash = strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

void RemoveTailCRLF(char *s) noexcept {
    if (s == nullptr) return;
    size_t len = strlen(s);
    while (len > 0 && (s[len - 1] == '\r' || s[len - 1] == '\n')) s[--len] = '\0';
}

void TrimLeftWhiteSpace(const char *src, char *dst) noexcept {
    if (src == nullptr || dst == nullptr) return;
    while (is_space(*src)) ++src;
    memmove(dst, src, strlen(src) + 1);  // src and dst may share a buffer
}

char *TrimRightWhiteSpace(const char *src, char *dst) noexcept {
    if (src == nullptr || dst == nullptr) return nullptr;
    size_t len = strlen(src);
    while (len > 0 && is_space(src[len - 1])) --len;
    memmove(dst, src, len);
    dst[len] = '\0';
    return dst + len;
}

char *TrimWhiteSpace(const char *src, char *dst) noexcept {
    if (src == nullptr || dst == nullptr) return nullptr;
    TrimLeftWhiteSpace(src, dst);
    return TrimRightWhiteSpace(dst, dst);
}

char *copy_token(char *dst, const char *src, int delim) noexcept {
    if (dst == nullptr || src == nullptr) return nullptr;
    char *sep = mg::text::find_sep(src, delim);
    const size_t len = sep != nullptr ? static_cast<size_t>(sep - src) : strlen(src);
    memmove(dst, src, len);
    dst[len] = '\0';
    TrimWhiteSpace(dst, dst);
    return sep != nullptr ? sep + 1 : nullptr;
}
