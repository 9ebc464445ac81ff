// Template definitions of accounts.hpp.
#pragma once

#include <algorithm>
#include <cstdlib>

namespace mg::stores {

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
