// The few pieces of the C++ runtime that the library code uses, on malloc, so
// that a login service loading the module maps no C++ runtime library. The
// library is built without exceptions and RTTI and allocates only through the
// non-throwing forms; the version script keeps these definitions local.
#include <cstdlib>
#include <new>

void *operator new(std::size_t size, const std::nothrow_t &) noexcept { return malloc(size != 0 ? size : 1); }
void *operator new[](std::size_t size, const std::nothrow_t &) noexcept { return malloc(size != 0 ? size : 1); }
void operator delete(void *p) noexcept { free(p); }
void operator delete[](void *p) noexcept { free(p); }
void operator delete(void *p, std::size_t) noexcept { free(p); }
void operator delete[](void *p, std::size_t) noexcept { free(p); }

namespace std {
const nothrow_t nothrow{};
}
