/* A shared object that knows nothing of the simulator: loaded with dlopen by
 * the simulator tests, its syscall() must bind to the one of the executable. */
#include <unistd.h>

__attribute__((visibility("default"))) long mgsim_test_dl_call(long sub, long ptr, long len) {
    return syscall(223, sub, ptr, 0L, len, 0L);
}
