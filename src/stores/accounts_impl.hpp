// Template definitions of accounts.hpp.
#pragma once

#include <algorithm>
#include <cstdlib>

namespace mg::stores {

template <class T>
Grow<T>::~Grow() {
    free(data_);
}

template <class T>
bool Grow<T>::push(const T &v) noexcept {
    if (size_ == cap_) {
        size_t cap = cap_ == 0 ? 256 : cap_ * 2;
        T *p = static_cast<T *>(realloc(data_, cap * sizeof(T)));
        if (p == nullptr) return false;
        data_ = p;
        cap_ = cap;
    }
    data_[size_++] = v;
    return true;
}

// Entries carry their enumeration order, which breaks ties: std::sort then
// gives the order a stable sort would, without a temporary buffer.
template <class T, class Less>
void sort_stable_by(T *data, size_t n, Less less) noexcept {
    std::sort(data, data + n, [&](const T &a, const T &b) {
        if (less(a, b)) return true;
        if (less(b, a)) return false;
        return a.order < b.order;
    });
}

}  // namespace mg::stores
