// A growing text buffer for the text stores and configuration files: a whole
// file is laid out in memory and written with one write, so a rewrite costs
// one pass over the data whatever its size.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace mg {

class TextBuf {
public:
    TextBuf() noexcept = default;
    ~TextBuf() { free(buf_); }
    TextBuf(const TextBuf &) = delete;
    TextBuf &operator=(const TextBuf &) = delete;

    // Appends formatted text; a failed allocation turns ok() false for good.
    __attribute__((format(printf, 2, 3))) void add(const char *fmt, ...) noexcept {
        va_list ap;
        va_start(ap, fmt);
        addv(fmt, ap);
        va_end(ap);
    }
    void addv(const char *fmt, va_list ap) noexcept {
        if (!ok_) return;
        va_list again;
        va_copy(again, ap);
        int n = vsnprintf(buf_ != nullptr ? buf_ + len_ : nullptr, cap_ - len_, fmt, ap);
        if (n < 0) {
            ok_ = false;
        } else if (static_cast<size_t>(n) >= cap_ - len_) {
            if (reserve(static_cast<size_t>(n) + 1))
                vsnprintf(buf_ + len_, cap_ - len_, fmt, again);
            if (ok_) len_ += static_cast<size_t>(n);
        } else {
            len_ += static_cast<size_t>(n);
        }
        va_end(again);
    }
    // Appends at most limit - 1 characters of the formatted text (a line
    // formatted through a fixed buffer of limit bytes).
    __attribute__((format(printf, 3, 4))) void add_cut(size_t limit, const char *fmt, ...) noexcept {
        char line[1024];
        if (limit > sizeof line) limit = sizeof line;
        va_list ap;
        va_start(ap, fmt);
        int n = vsnprintf(line, limit, fmt, ap);
        va_end(ap);
        if (n < 0) {
            ok_ = false;
            return;
        }
        add("%s", line);
    }

    bool ok() const noexcept { return ok_; }
    const char *data() const noexcept { return buf_ != nullptr ? buf_ : ""; }
    size_t size() const noexcept { return len_; }

private:
    bool reserve(size_t more) noexcept {
        size_t want = cap_ < 4096 ? 4096 : cap_;
        while (want - len_ < more) want *= 2;
        char *grown = static_cast<char *>(realloc(buf_, want));
        if (grown == nullptr) {
            ok_ = false;
            return false;
        }
        buf_ = grown;
        cap_ = want;
        return true;
    }

    char *buf_ = nullptr;
    size_t len_ = 0;
    size_t cap_ = 0;
    bool ok_ = true;
};

}  // namespace mg
