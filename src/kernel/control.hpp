// Internal helpers of module control shared by its source files.
#pragma once

#include <cerrno>
#include <cstdio>

#include <mossgrove/kernel.h>

namespace mg::kernel {

// True when get_module_status() says the module is running (enforcing).
bool module_running() noexcept;

// The token that SetSOProc accepts.
inline constexpr const char *kSOToken = "_arm_";

inline bool op_failed(int result) noexcept { return result < 0; }
inline bool op_failed(const FILE *result) noexcept { return result == nullptr; }

// Runs a file operation; when the kernel (or the file's modes) refuse it with
// EACCES, raises the process to the security officer's label and runs it once
// more, returning that second result. Any other failure is returned at once.
template <class Op>
auto retry_as_so(Op op) noexcept -> decltype(op()) {
    auto result = op();
    if (op_failed(result) && errno == EACCES) {
        SetSOProc(kSOToken);
        result = op();
    }
    return result;
}

}  // namespace mg::kernel
