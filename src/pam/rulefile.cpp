// The line reader shared by the access rule files and the session rule files.
#include "pam/pam_acl.hpp"

#include "common/text.hpp"

#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace mg::pam {
namespace {
char g_block[ReadBlock::kSize];
bool g_block_busy = false;
}  // namespace

ReadBlock::ReadBlock() noexcept : data_(nullptr), static_(!g_block_busy) {
    if (static_) {
        g_block_busy = true;
        data_ = g_block;
    } else {
        data_ = static_cast<char *>(malloc(kSize));
    }
}

ReadBlock::~ReadBlock() {
    if (static_)
        g_block_busy = false;
    else
        free(data_);
}

LineReader::~LineReader() {
    if (fd_ >= 0) close(fd_);
}

bool LineReader::fill() noexcept {
    if (eof_) return false;
    for (;;) {
        ssize_t n = read(fd_, block_.data(), ReadBlock::kSize);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            // A read error ends the file as it would end fgets.
            eof_ = true;
            return false;
        }
        pos_ = 0;
        end_ = static_cast<size_t>(n);
        return true;
    }
}

bool LineReader::next(char (&line)[kLineBuffer]) noexcept {
    if (block_.data() == nullptr) return false;
    size_t used = 0;
    while (used < kLineBuffer - 1) {
        if (pos_ == end_ && !fill()) break;
        size_t want = kLineBuffer - 1 - used;
        size_t avail = end_ - pos_;
        size_t take = avail < want ? avail : want;
        const char *start = block_.data() + pos_;
        const void *nl = memchr(start, '\n', take);
        if (nl != nullptr) take = static_cast<size_t>(static_cast<const char *>(nl) - start) + 1;
        memcpy(line + used, start, take);
        used += take;
        pos_ += take;
        if (nl != nullptr) break;
    }
    line[used] = '\0';
    return used > 0;
}

int split_fields(char *text, char sep, char **fields, int n) noexcept {
    int count = 0;
    char *p = text;
    while (count < n) {
        fields[count++] = p;
        while (*p != '\0' && *p != sep) ++p;
        if (*p == '\0') break;
        *p++ = '\0';
    }
    return count;
}

char *significant_line(char (&line)[kLineBuffer], const char *file, int lineno) noexcept {
    size_t len = strlen(line);
    if (len == 0 || line[len - 1] != '\n') {
        _log_err(LOG_ERR, "%s: line %d: missing newline or line too long", file, lineno);
        return nullptr;
    }
    if (line[0] == '#') return nullptr;
    while (len > 0 && text::is_space(line[len - 1])) --len;
    line[len] = '\0';
    return len > 0 ? line : nullptr;
}

}  // namespace mg::pam
