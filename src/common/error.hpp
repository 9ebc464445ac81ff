// Internal error-reporting helpers.
#pragma once

namespace mg {

// err_sys with an empty format: prints only the description of errno, exit(1).
[[noreturn]] void err_exit_errno() noexcept;

}  // namespace mg
