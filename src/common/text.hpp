// Character classes and token scanning shared by the splitters, the
// configuration reader and the trimming helpers.
#pragma once

#include <cstddef>

namespace mg::text {

// POSIX-locale classes, independent of the process locale (a login service may
// run under any locale).
constexpr bool is_space(char c) noexcept {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}
constexpr bool is_digit(char c) noexcept { return c >= '0' && c <= '9'; }

// strchr for a separator given as int; a separator that converts to NUL never
// occurs, so no caller can step past the end of the string.
char *find_sep(const char *s, int ch) noexcept;

// Copies at most size - 1 characters of src into dst and zeroes the rest of
// dst, its last byte included (size must be at least 1).
void copy_cut(char *dst, size_t size, const char *src) noexcept;

// Longest token get_token hands out; longer tokens are cut.
inline constexpr size_t kMaxToken = 1023;

// One token of a "key value" / "key=value" line, starting at from: blanks and
// '=' are skipped, the token ends at a blank, '=', '#' or the end of the string.
// Returns nullptr when the end or a '#' comes first. The ending character is
// replaced by NUL and *next points after it; a token that runs to the end of
// the string leaves *next nullptr. Tokens longer than kMaxToken are cut.
char *scan_token(char *from, char **next) noexcept;

// strtok-style scanning with scan_token: str starts a new string, nullptr
// goes on after the last token. A token that runs to the end of the string
// leaves the remembered position where it was (lines read with their newline
// always end a value at the newline, and callers rely on nothing else).
inline char *next_token(char *str, char *&remembered) noexcept {
    char *from = str != nullptr ? str : remembered;
    if (from == nullptr) return nullptr;
    char *next = nullptr;
    char *token = scan_token(from, &next);
    if (next != nullptr) remembered = next;
    return token;
}

}  // namespace mg::text
