// The interposed syscall(): system call 223 goes to the simulated kernel, the
// presence probe kill(6758, 345) is answered here, everything else goes to
// the real system call.
#include "kernel.hpp"
#include "runtime.hpp"

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>

#if defined(MGSIM_PRELOAD)
#include <dlfcn.h>
#endif

namespace mgsim {
namespace {

long raw_syscall(long n, const long *a) {
    long ret;
#if defined(__x86_64__)
    register long r10 __asm__("r10") = a[3];
    register long r8 __asm__("r8") = a[4];
    register long r9 __asm__("r9") = a[5];
    __asm__ volatile("syscall"
                     : "=a"(ret)
                     : "a"(n), "D"(a[0]), "S"(a[1]), "d"(a[2]), "r"(r10), "r"(r8), "r"(r9)
                     : "rcx", "r11", "memory");
#elif defined(__aarch64__)
    register long x8 __asm__("x8") = n;
    register long x0 __asm__("x0") = a[0];
    register long x1 __asm__("x1") = a[1];
    register long x2 __asm__("x2") = a[2];
    register long x3 __asm__("x3") = a[3];
    register long x4 __asm__("x4") = a[4];
    register long x5 __asm__("x5") = a[5];
    __asm__ volatile("svc 0" : "+r"(x0) : "r"(x8), "r"(x1), "r"(x2), "r"(x3), "r"(x4), "r"(x5) : "memory");
    ret = x0;
#else
#error "mgsim: no raw system call for this architecture"
#endif
    if (ret < 0 && ret > -4096) {
        errno = static_cast<int>(-ret);
        return -1;
    }
    return ret;
}

#if defined(MGSIM_PRELOAD)
using SyscallFn = long (*)(long, ...);

// The C library's syscall(), found behind this preloaded object. A system
// call made while dlsym is at work (by an allocator, say) goes out raw.
SyscallFn next_syscall() {
    static std::atomic<SyscallFn> next{nullptr};
    static std::atomic<bool> resolved{false};
    static thread_local bool resolving = false;
    if (!resolved.load(std::memory_order_acquire)) {
        if (resolving) return nullptr;
        resolving = true;
        auto fn = reinterpret_cast<SyscallFn>(dlsym(RTLD_NEXT, "syscall"));
        resolving = false;
        if (fn == reinterpret_cast<SyscallFn>(&syscall)) fn = nullptr;
        next.store(fn, std::memory_order_relaxed);
        resolved.store(true, std::memory_order_release);
    }
    return next.load(std::memory_order_relaxed);
}

// Resolved while the object is loaded, before any thread of the program calls it.
__attribute__((constructor)) void resolve_at_load() { next_syscall(); }
#endif

__attribute__((noinline)) long forward(long n, const long *a) {
#if defined(MGSIM_PRELOAD)
    if (SyscallFn fn = next_syscall()) return fn(n, a[0], a[1], a[2], a[3], a[4], a[5]);
#endif
    return raw_syscall(n, a);
}

long finish(long result, int err, int saved_errno) {
    errno = result == -1 ? err : saved_errno;
    return result;
}

__attribute__((noinline)) long probe(const long *a) {
    int saved = errno;
    std::lock_guard<std::mutex> guard(process_mutex());
    int pid = getpid();
    Access access;
    bool present = false;
    const State *state = nullptr;
    if (access.open()) {
        state = &access.state();
        present = !access.state().absent && !env_absent();
    }
    long result = present ? 0 : -1;
    int err = present ? 0 : ESRCH;
    log_call(state, pid, -1, a, result, err);
    access.finish();
    return finish(result, err, saved);
}

__attribute__((noinline)) long kernel_call(const long *a) {
    int saved = errno;
    std::lock_guard<std::mutex> guard(process_mutex());
    int pid = getpid();
    long sub = a[0];
    long result = -1;
    int err = ENOSYS;  // an unpatched kernel knows no system call 223
    Access access;
    const State *state = nullptr;
    if (access.open()) {
        State &s = access.state();
        state = &s;
        if (!s.absent && !env_absent()) {
            if (env_failure(sub, &err) || state_failure(s, sub, &err, &access.dirty())) {
                result = -1;
                if (sub == 26 || sub == 28) {  // these answer with the error number itself
                    result = err;
                    err = 0;
                }
            } else {
                Request rq{sub, a[1], a[2], a[3], a[4], pid};
                result = dispatch(s, rq, &access.dirty(), &err);
            }
        }
    }
    log_call(state, pid, sub, a, result, err);
    access.finish();
    return finish(result, err, saved);
}

}  // namespace
}  // namespace mgsim

// All six values are read whatever the caller passed, as the C library's
// syscall() does: the last one comes from the caller's stack, which ASan
// would take for an overflow, so this frame alone is not instrumented.
extern "C" __attribute__((visibility("default"), no_sanitize("address"))) long syscall(long number,
                                                                                        ...) noexcept {
    long a[6];
    va_list ap;
    va_start(ap, number);
    for (long &v : a) v = va_arg(ap, long);
    va_end(ap);
    if (number == MG_SYSCALL_NR) return mgsim::kernel_call(a);
    if (number == SYS_kill && a[0] == MG_PROBE_PID && a[1] == MG_PROBE_SIG) return mgsim::probe(a);
    return mgsim::forward(number, a);
}
