// RAII owners of descriptors and streams for the library's file code.
#pragma once

#include <unistd.h>

#include <cstdio>

namespace mg {

// Owns a file descriptor; close() reports the result of the one close.
class UniqueFd {
public:
    UniqueFd() noexcept = default;
    explicit UniqueFd(int fd) noexcept : fd_(fd) {}
    ~UniqueFd() { reset(); }
    UniqueFd(UniqueFd &&o) noexcept : fd_(o.release()) {}
    UniqueFd &operator=(UniqueFd &&o) noexcept {
        if (this != &o) reset(o.release());
        return *this;
    }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;

    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }
    int release() noexcept {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void reset(int fd = -1) noexcept {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }
    // Closes now; 0, or -1 with errno from close.
    int close() noexcept { return fd_ >= 0 ? ::close(release()) : 0; }

private:
    int fd_ = -1;
};

// Owns a FILE*; close() reports the result of fclose.
class UniqueFile {
public:
    UniqueFile() noexcept = default;
    explicit UniqueFile(FILE *f) noexcept : f_(f) {}
    ~UniqueFile() {
        if (f_ != nullptr) fclose(f_);
    }
    UniqueFile(UniqueFile &&o) noexcept : f_(o.f_) { o.f_ = nullptr; }
    UniqueFile &operator=(UniqueFile &&o) noexcept {
        if (this != &o) {
            if (f_ != nullptr) fclose(f_);
            f_ = o.f_;
            o.f_ = nullptr;
        }
        return *this;
    }
    UniqueFile(const UniqueFile &) = delete;
    UniqueFile &operator=(const UniqueFile &) = delete;

    FILE *get() const noexcept { return f_; }
    explicit operator bool() const noexcept { return f_ != nullptr; }
    int close() noexcept {
        FILE *f = f_;
        f_ = nullptr;
        return f != nullptr ? fclose(f) : 0;
    }

private:
    FILE *f_ = nullptr;
};

}  // namespace mg
