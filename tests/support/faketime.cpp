#include "faketime.hpp"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace mgtest {

// "value:old" when the variable already holds something, else "value".
[[maybe_unused]] static void prepend_env(const char *name, const std::string &value) {
    const char *old = getenv(name);
    setenv(name, (old != nullptr && *old != '\0' ? value + ":" + old : value).c_str(), 1);
}

bool faketime_loaded() {
    const char *preload = getenv("LD_PRELOAD");
    return preload != nullptr && std::strstr(preload, "faketime") != nullptr;
}

bool reexec_with_faketime(char **argv) {
#ifdef MG_FAKETIME_LIB
    if (faketime_loaded()) return true;
    prepend_env("LD_PRELOAD", MG_FAKETIME_LIB);
    setenv("FAKETIME", "+0", 1);
    setenv("FAKETIME_NO_CACHE", "1", 1);
    setenv("FAKETIME_DONT_FAKE_MONOTONIC", "1", 1);
    // A sanitizer runtime otherwise insists on coming first in the preload list.
    prepend_env("ASAN_OPTIONS", "verify_asan_link_order=0");
    execv("/proc/self/exe", argv);
    std::perror("re-executing with libfaketime");
    return false;
#else
    (void)argv;
    return faketime_loaded();
#endif
}

}  // namespace mgtest
