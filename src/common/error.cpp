// Error codes and the one-line messages of the command-line tools.
#include <mossgrove/common.h>
#include "common/error.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

char _errbuf[1024];

namespace {

constexpr const char *kPrefix = "MOSSGROVE";
constexpr size_t kLineSize = 4096;

const char *message_of(int code) {
    switch (code) {
        case MG_ERR_NOT_NUMERIC: return "Error:The value must be numeric.";
        case MG_ERR_BAD_NAME: return "Error:The name should be all alphanumeric,'-','_','.'.";
        case MG_ERR_ROLE_RANGE: return "Error:The Role Capability is out of range.";
        case MG_ERR_LEVEL_RANGE: return "Error:The Security Level is out of range.";
        case MG_ERR_CATEGORY_RANGE: return "Error:The Category ID is out of range.";
        case MG_ERR_NO_MODULE: return "Error:The Mossgrove is not loaded or operate incorrectly.";
        default: return nullptr;
    }
}

// A line under construction; every append is bounded by the buffer.
struct Line {
    char text[kLineSize] = {};
    size_t len = 0;

    void vappend(const char *fmt, va_list ap) {
        if (len >= sizeof text - 1) return;
        int n = vsnprintf(text + len, sizeof text - len, fmt, ap);
        if (n > 0) len = std::min(len + static_cast<size_t>(n), sizeof text - 1);
    }
    // The newline always fits: the text is cut before it if need be.
    void end_line() {
        len = std::min(len, sizeof text - 2);
        text[len++] = '\n';
        text[len] = '\0';
    }
    void append(const char *fmt, ...) __attribute__((format(printf, 2, 3))) {
        va_list ap;
        va_start(ap, fmt);
        vappend(fmt, ap);
        va_end(ap);
    }
};

// Shared by err_ret and err_sys: the caller text, then the description of errno.
void err_print_line(const char *fmt, va_list ap) {
    const int code = errno;
    const bool has_text = fmt != nullptr && *fmt != '\0';
    Line line;
    if (code > 10000) {
        line.append("%s: ", kPrefix);
        if (has_text) line.vappend(fmt, ap);
        _mg_strerror(code);
        line.append(has_text ? ": %s" : "%s", _errbuf);
    } else if (code <= 0 || code == 10000) {
        line.append("%s: ", kPrefix);
        if (has_text) line.vappend(fmt, ap);
    } else {
        // Operating-system codes carry no product prefix.
        if (has_text) line.vappend(fmt, ap);
        line.append(": %s", strerror(code));
    }
    line.end_line();
    fflush(stdout);
    fputs(line.text, stdout);
    fflush(nullptr);
}

// Variadic front of err_print_line for a format with no arguments.
void print_line(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    err_print_line(fmt, ap);
    va_end(ap);
}

}  // namespace

int set_errno(int code) noexcept {
    errno = code;
    return -1;
}

void _mg_strerror(int code) noexcept {
    memset(_errbuf, 0, sizeof _errbuf);
    if (const char *text = message_of(code))
        snprintf(_errbuf, sizeof _errbuf, "%s", text);
    else
        snprintf(_errbuf, sizeof _errbuf, "Error:The undefined error code %d.", code);
}

void err_ret(const char *fmt, ...) noexcept {
    va_list ap;
    va_start(ap, fmt);
    err_print_line(fmt, ap);
    va_end(ap);
}

void err_sys(const char *fmt, ...) noexcept {
    va_list ap;
    va_start(ap, fmt);
    err_print_line(fmt, ap);
    va_end(ap);
    exit(1);
}

void mg::err_exit_errno() noexcept {
    print_line("");
    exit(1);
}

void err_string(int code) noexcept {
    errno = code;
    print_line("");
}
