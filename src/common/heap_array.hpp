// A growable array of plain records on malloc, for library code that must not
// depend on the C++ runtime: no exceptions, and every allocation failure is a
// false result the caller maps to its own error code.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <type_traits>

namespace mg {

template <class T>
class HeapArray {
    static_assert(std::is_trivially_copyable_v<T>, "records are moved with memcpy");

public:
    HeapArray() noexcept = default;
    ~HeapArray() { free(data_); }
    HeapArray(HeapArray &&o) noexcept : data_(o.data_), size_(o.size_), cap_(o.cap_) {
        o.data_ = nullptr;
        o.size_ = o.cap_ = 0;
    }
    HeapArray &operator=(HeapArray &&o) noexcept {
        if (this != &o) {
            free(data_);
            data_ = o.data_;
            size_ = o.size_;
            cap_ = o.cap_;
            o.data_ = nullptr;
            o.size_ = o.cap_ = 0;
        }
        return *this;
    }
    HeapArray(const HeapArray &) = delete;
    HeapArray &operator=(const HeapArray &) = delete;

    // Room for n elements in all; false when out of memory (nothing changes).
    bool reserve(size_t n) noexcept {
        if (n <= cap_) return true;
        if (n > SIZE_MAX / sizeof(T)) return false;
        T *grown = static_cast<T *>(realloc(data_, n * sizeof(T)));
        if (grown == nullptr) return false;
        data_ = grown;
        cap_ = n;
        return true;
    }
    bool append(const T *items, size_t n) noexcept {
        if (!room_for(n)) return false;
        if (n != 0) memcpy(data_ + size_, items, n * sizeof(T));
        size_ += n;
        return true;
    }
    bool push_back(const T &item) noexcept { return append(&item, 1); }
    // A new zeroed element at the end, to fill in place; nullptr when out of memory.
    T *push_zeroed() noexcept {
        if (!room_for(1)) return nullptr;
        T *slot = &data_[size_++];
        memset(static_cast<void *>(slot), 0, sizeof(T));
        return slot;
    }
    void clear() noexcept { size_ = 0; }

    T *data() noexcept { return data_; }
    const T *data() const noexcept { return data_; }
    size_t size() const noexcept { return size_; }
    bool empty() const noexcept { return size_ == 0; }
    T &operator[](size_t i) noexcept { return data_[i]; }
    const T &operator[](size_t i) const noexcept { return data_[i]; }
    T *begin() noexcept { return data_; }
    T *end() noexcept { return data_ + size_; }
    const T *begin() const noexcept { return data_; }
    const T *end() const noexcept { return data_ + size_; }

    // Hands the elements to the caller, who frees them with free().
    T *release() noexcept {
        T *out = data_;
        data_ = nullptr;
        size_ = cap_ = 0;
        return out;
    }

private:
    // Room for n more elements, growing at least twofold so that appends
    // one by one stay linear.
    bool room_for(size_t n) noexcept {
        if (n > SIZE_MAX - size_) return false;
        return size_ + n <= cap_ || reserve(size_ + n > 2 * cap_ ? size_ + n : 2 * cap_ + 8);
    }

    T *data_ = nullptr;
    size_t size_ = 0;
    size_t cap_ = 0;
};

}  // namespace mg
